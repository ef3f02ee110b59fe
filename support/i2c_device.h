// I2C transfers of the support library. Each call opens the device, makes one transfer and closes
// it again. Paths are board paths ("/dev/i2c-2"), resolved under the root.
//
// Backends, chosen per transfer:
//  - a character device: the I2C_RDWR ioctl of i2c-dev (the board);
//  - a regular file, or a path that does not exist yet (created): an emulated bus holding the
//    register file of the whole bus. The byte of 7-bit address A, register R lives at offset
//    A*256+R; for word registers at 32768 + A*65536 + R. When "<path>.log" exists every message is
//    appended to it as one line: "W AA RR DD DD ..." (write with data) or "R AA RR DD ..." (read),
//    upper-case two-digit hex, RR four digits for a word register;
//  - an in-process override installed by am_i2c_set_transfer_override (tests).
// Diagnostics go to standard output.
#pragma once

#include <linux/i2c.h>

#include "qb_types.h"

// One I2C_RDWR transfer: write of the register byte, then a read of len bytes into buf.
// 0, or -1 (null path, open failure, transfer failure).
int I2C_Device_Read(const char* path, qb_u8_t addr, qb_u8_t reg, qb_u8_t* buf, qb_u16_t len);
// One write message [reg, data...]. 0, -1 (null path, open failure) or -2 (transfer or memory
// failure).
int I2C_Device_Write(const char* path, qb_u8_t addr, qb_u8_t reg, const qb_u8_t* data,
                     qb_u16_t len);
// As above with a 16-bit register address sent high byte first.
int I2C_Device_Read_Word_Reg(const char* path, qb_u8_t addr, qb_u16_t reg, qb_u8_t* buf,
                             qb_u16_t len);
int I2C_Device_Write_Word_Reg(const char* path, qb_u8_t addr, qb_u16_t reg, const qb_u8_t* data,
                              qb_u16_t len);

// Test hook: replaces every backend. Called with the board path (not resolved), the messages of
// the transfer and ctx; returns 0 on success, a negative value for a failed transfer. For word
// register transfers the first message carries two register bytes. nullptr restores the backends.
typedef int (*am_i2c_transfer_fn)(const char* path, struct i2c_msg* msgs, int nmsgs, void* ctx);
void am_i2c_set_transfer_override(am_i2c_transfer_fn fn, void* ctx);
// Inside an override call: the register address width of the current transfer (1, or 2 for the
// word-register functions).
int am_i2c_current_reg_width(void);
