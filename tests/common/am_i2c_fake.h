// An in-process I2C bus for unit tests, installed through am_i2c_set_transfer_override for the
// lifetime of the object (one at a time). It keeps one register map per (bus path, address),
// records every transfer and can inject failures and wrong read-back values.
//
// A transfer is a write when it has only write messages ([reg, data...]) and a read when it has a
// read message (register write [reg] then the read). Registers are one byte wide, or two for the
// word-register functions. Unknown registers read as 0. Thread safe.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <linux/i2c.h>

namespace am_test {

// One transfer as the fake saw it.
struct I2cRecord {
  std::string path;            // board path given to I2C_Device_* ("/dev/i2c-2")
  uint16_t addr = 0;           // 7-bit address
  bool is_read = false;        // read transfer (false: write)
  uint16_t reg = 0;            // first register
  std::vector<uint8_t> bytes;  // data written, or data returned by a read
  bool ok = true;              // false when the fake made the transfer fail
};

class I2cFake {
 public:
  using RegWrites = std::vector<std::pair<uint16_t, uint8_t>>;

  I2cFake();
  ~I2cFake();
  I2cFake(const I2cFake&) = delete;
  I2cFake& operator=(const I2cFake&) = delete;

  void set_reg(const std::string& path, uint16_t addr, uint16_t reg, uint8_t value);
  uint8_t reg(const std::string& path, uint16_t addr, uint16_t reg) const;

  // The next n write (read) transfers fail: nothing is stored (read), the record has ok = false.
  void fail_next_writes(int n);
  void fail_next_reads(int n);
  // Reads of this register return `value` whatever was written (a device whose read-back differs).
  void set_read_value(const std::string& path, uint16_t addr, uint16_t reg, uint8_t value);

  // Every transfer so far, in order (failed ones included).
  std::vector<I2cRecord> records() const;
  // The successful writes to one device as (register, value) pairs, one pair per data byte
  // (a multi-byte write to R gives R, R+1, ...).
  RegWrites writes(const std::string& path, uint16_t addr) const;
  // Number of transfers (reads and writes, failed ones included) to one device.
  size_t transfer_count(const std::string& path, uint16_t addr) const;
  void clear_records();

 private:
  using Key = std::tuple<std::string, uint16_t, uint16_t>;  // path, addr, reg
  static int transfer_hook(const char* path, struct i2c_msg* msgs, int nmsgs, void* ctx);
  int transfer(const char* path, struct i2c_msg* msgs, int nmsgs);

  mutable std::mutex mutex_;  // guards everything below (workers may call the bus from threads)
  std::map<Key, uint8_t> regs_;
  std::map<Key, uint8_t> read_values_;
  std::vector<I2cRecord> records_;
  int fail_writes_ = 0;
  int fail_reads_ = 0;
};

}  // namespace am_test
