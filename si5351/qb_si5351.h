// Si5351A clock synthesiser driver and the genlock service that owns it, with the client calls
// the audio playback engines use to steer their clocks.
//
// Chip side: three outputs, one per audio clock domain, called genlock channels 1 to 3
// (CLK0/MS0 "hdmi", CLK1/MS1 "analog", CLK2/MS2 "earc/spdif"). Each is set to the nominal
// frequency of a sample rate and then trimmed in 300 Hz steps up to 2400 Hz either side.
//
// Service side: one thread ("si5351_clk") serving UDP 127.0.0.1:11000; clients bind 11001-11004.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdio>

#include "qb_audio_protocol.h"  // SI5351_STATUS_FILE
#include "qb_types.h"

// ---- Bus and chip ----------------------------------------------------------------------------

inline constexpr const char* SI5351_I2C_BUS = "/dev/i2c-1";
inline constexpr qb_u8_t SI5351_I2C_ADDR = 0x60;
inline constexpr int SI5351_CHANNEL_NUM = 3;
// First multisynth parameter register of channels 1, 2, 3 (MS0, MS1, MS2); eight registers each.
inline constexpr qb_u8_t SI5351_MS0_FIRST_REG = 42;
inline constexpr qb_u8_t SI5351_MS1_FIRST_REG = 50;
inline constexpr qb_u8_t SI5351_MS2_FIRST_REG = 58;
inline constexpr int SI5351_MS_PARAM_REGS = 8;

// ---- Frequency plan --------------------------------------------------------------------------

inline constexpr qb_u32_t SI5351_PLLA_HZ = 900000000;
inline constexpr qb_u32_t SI5351_MS_NOMINAL_48K_HZ = 24576000;  // 48000, 96000, 192000
inline constexpr qb_u32_t SI5351_MS_NOMINAL_44K1_HZ = 22579000; // 44100, 88200, 176400
// Output R divider codes (divide by 1, 2, 4).
inline constexpr qb_u32_t SI5351_R_DIV_1 = 0;
inline constexpr qb_u32_t SI5351_R_DIV_2 = 1;
inline constexpr qb_u32_t SI5351_R_DIV_4 = 2;
// Clock adjustment: multiples of 300 Hz up to 2400 Hz either side of nominal.
inline constexpr qb_s32_t SI5351_STEP_HZ = 300;
inline constexpr qb_s32_t SI5351_MAX_ADJUST_HZ = 2400;

// ---- Records ---------------------------------------------------------------------------------

// One row of the power-up register table.
typedef struct {
  qb_u32_t address;
  qb_u8_t value;
} si5351a_revb_register_t;

// Parameter set of one multisynth write: R divider code and P1 (18 bits), P2, P3 (20 bits).
typedef struct {
  qb_u32_t div;
  qb_u32_t msp1;
  qb_u32_t msp2;
  qb_u32_t msp3;
} channel_param_t;

// One row of a step table; id equals the row's index.
typedef struct {
  qb_u32_t id;
  qb_u32_t msp1;
  qb_u32_t msp2;
  qb_u32_t msp3;
} mclk_msp_data_t;

// Rows of the step tables; the number is the shift of the multisynth frequency in Hz.
enum si5351_mclk_msp_inc_e {
  MCLK_MSP_INC_300 = 0,
  MCLK_MSP_INC_600 = 1,
  MCLK_MSP_INC_900 = 2,
  MCLK_MSP_INC_1200 = 3,
  MCLK_MSP_INC_1500 = 4,
  MCLK_MSP_INC_1800 = 5,
  MCLK_MSP_INC_2100 = 6,
  MCLK_MSP_INC_2400 = 7,
  MCLK_MSP_INC_3000 = 8,
  MCLK_MSP_INC_3600 = 9,
  MCLK_MSP_INC_4200 = 10,
  MCLK_MSP_INC_4800 = 11,
  MCLK_MSP_INC_6000 = 12,
  MCLK_MSP_INC_7200 = 13,
  MCLK_MSP_INC_8400 = 14,
  MCLK_MSP_INC_9600 = 15,
  MCLK_MSP_INC_MAX = 16,
};

enum si5351_mclk_msp_dec_e {
  MCLK_MSP_DEC_300 = 0,
  MCLK_MSP_DEC_600 = 1,
  MCLK_MSP_DEC_900 = 2,
  MCLK_MSP_DEC_1200 = 3,
  MCLK_MSP_DEC_1500 = 4,
  MCLK_MSP_DEC_1800 = 5,
  MCLK_MSP_DEC_2100 = 6,
  MCLK_MSP_DEC_2400 = 7,
  MCLK_MSP_DEC_3000 = 8,
  MCLK_MSP_DEC_3600 = 9,
  MCLK_MSP_DEC_4200 = 10,
  MCLK_MSP_DEC_4800 = 11,
  MCLK_MSP_DEC_6000 = 12,
  MCLK_MSP_DEC_7200 = 13,
  MCLK_MSP_DEC_8400 = 14,
  MCLK_MSP_DEC_9600 = 15,
  MCLK_MSP_DEC_MAX = 16,
};

// Genlock commands; also the last command applied to a channel (its state).
enum QB_SI5351CMD_E : qb_u32_t {
  QB_SI5351_SET_PARAM = 0x1234,
  QB_SI5351_SET_INC = 0x1235,
  QB_SI5351_SET_DEC = 0x1236,
  QB_SI5351_SET_RESET = 0x1237,
  QB_FIFO_REPORT = 0x1238,
  QB_SI5351_DUMP = 0x1239,
};

// State of one genlock channel.
typedef struct {
  qb_s32_t ch;        // 1-3
  qb_s32_t rate;      // sample rate in Hz
  qb_s32_t value;     // adjustment of the output clock in Hz (-2400..+2400, multiple of 300)
  qb_s32_t state;     // last QB_SI5351CMD_E applied
  qb_s32_t fifoTotal; // last buffer fill reported
  qb_s32_t fifoUsed;
} SI5351_CONF_T;

// Request datagram, host byte order. 12 bytes on the wire, 16 for QB_FIFO_REPORT.
typedef struct {
  qb_u32_t command;
  qb_s32_t channel;
  qb_s32_t arg1; // SET_PARAM: rate; FIFO_REPORT: fifoTotal; dump: 48000
  qb_s32_t arg2; // FIFO_REPORT: fifoUsed
} SI5351_MSG_T;

inline constexpr int SI5351_MSG_LEN = 12;
inline constexpr int SI5351_FIFO_MSG_LEN = 16;

// ---- Chip driver -----------------------------------------------------------------------------

// Writes the power-up table and zeroes the working parameter set. Returns 1.
int qb_si5351_init(void);
// Nominal frequency of the rate on the channel. 1, or 0 for an unknown rate ("rate:%d error\n").
int qb_si5351_set(int ch, int rate);
// Nominal +/- step (Hz, 300..2400 in 300s). 1 if rate and step are known, else 0.
int qb_si5351_param_inc_set(int ch, int rate, int step);
int qb_si5351_param_dec_set(int ch, int rate, int step);
// Copies P1-P3 of the 44.1 kHz family row for (step, rate) into the working set (not div).
int qb_si5351_param_44100x_inc_set(int step, int rate);
int qb_si5351_param_44100x_dec_set(int step, int rate);
// Writes the working set to the channel's multisynth (eight one-byte writes).
void si5351_channel_param_set(int ch);
// value 0: nominal; > 0: increase by value; < 0: decrease by -value. Nothing when rate < 1. 0.
int qb_si5351_param_inc_dec(int ch, int rate, int value);
// Validate a record and move its value one step: 0 stepped, 1 at the limit, -1 invalid.
int qb_si5351_conf_inc(SI5351_CONF_T* conf);
int qb_si5351_conf_dec(SI5351_CONF_T* conf);
// Logs the record and programs its value. That result, or -1 for no record.
int qb_si5351_param_inc_dec2(const SI5351_CONF_T* conf);
int qb_si5351_increase(int ch);
int qb_si5351_decrease(int ch);
int qb_si5351_set_conf(int ch, int rate);
int qb_si5351_set_param(int ch, int rate);
int qb_si5351_reset_chn(int ch);
int qb_si5351_reset_chn2(int ch);
int set_fifo_stat(int ch, int total, int used);
int set_chn_stat(int ch, int state);
const char* get_status_si53512(int state);

// A copy of channel ch's record (1-3); false for another channel.
bool qb_si5351_conf_get(int ch, SI5351_CONF_T* out);

// ---- Genlock service -------------------------------------------------------------------------

inline constexpr const char* SI5351_SVR_ADDR = "127.0.0.1";
inline constexpr int SI5351_SVR_PORT = 11000;
inline constexpr int SI5351_DUMP_CLIENT_PORT = 11004;
inline constexpr int SI5351_SVR_IDLE_MS = 2000;
inline constexpr int SI5351_SVR_BUF_LEN = 64;
inline constexpr const char* SI5351_STATUS_TMP_FILE = "/tmp/fifo.json";

// Programs the power-up table and starts the service thread. 0, or -1 if the thread fails.
int qb_si5351_start2(void);
// Programs the power-up table only. 0.
int qb_si5351_start(void);
// The service thread's body and loop; neither returns.
void* si5351_task(void* arg);
void si5351_svr_start(void);
// True once the service loop's socket is bound on 127.0.0.1:11000.
bool si5351_svr_is_open(void);
// Called once by the service thread right after its socket is bound (set before the service
// starts; null for none).
void si5351_svr_on_open_set(void (*on_open)(void));
// Opens the service socket (bound, not connected) on addr:port; the socket or -1.
int si5351_svr_open(const char* addr, int port);
// One turn of the service loop on socket fd: wait up to wait_ms, then run the idle step or serve
// one datagram. The service loop is this, forever, on 127.0.0.1:11000.
void si5351_svr_poll(int fd, int wait_ms);
// Serves one received datagram of len bytes (at most the first 64 are read, over the receive
// buffer, as a receive would) from `from`; a reply goes out on fd.
void si5351_svr_serve(int fd, const qb_u8_t* data, size_t len, const sockaddr_in& from);
// One return-to-nominal step on every channel in state QB_SI5351_SET_RESET. 0.
int handle_reset_stat(void);
// Writes the status file. 0, or -1.
int dump2json(void);
// Prints the channel table as text.
void qb_si5351_dump2(FILE* fp);

// ---- Client calls ----------------------------------------------------------------------------

// UDP socket bound to addr:port, non-blocking, connected to the service. The socket or -1.
int udp_socket_create(const char* addr, int port);
// Sets the channel's rate and waits for the service's reply (2 s per try, bounded tries).
int send_set_param(int sock, int ch, int rate);
// The same, giving up (-1) as soon as give_up(arg) holds; it is asked every 100 ms of the wait.
int send_set_param2(int sock, int ch, int rate, bool (*give_up)(void*), void* arg);
int set_increase(int sock, int ch);
int set_decrease(int sock, int ch);
int set_reset(int sock, int ch);
int set_fifo_status(int sock, int ch, int fifoTotal, int fifoUsed);
// Queries the service from port 11004 and prints its replies to fp.
void qb_si5351_dump(FILE* fp);
