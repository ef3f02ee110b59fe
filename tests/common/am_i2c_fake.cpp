// The in-process I2C bus of the unit tests.
#include "am_i2c_fake.h"

#include "i2c_device.h"

namespace am_test {

I2cFake::I2cFake() { am_i2c_set_transfer_override(&I2cFake::transfer_hook, this); }

I2cFake::~I2cFake() { am_i2c_set_transfer_override(nullptr, nullptr); }

void I2cFake::set_reg(const std::string& path, uint16_t addr, uint16_t reg, uint8_t value) {
  std::lock_guard<std::mutex> lock(mutex_);
  regs_[Key(path, addr, reg)] = value;
}

uint8_t I2cFake::reg(const std::string& path, uint16_t addr, uint16_t reg) const {
  std::lock_guard<std::mutex> lock(mutex_);
  const auto it = regs_.find(Key(path, addr, reg));
  return it == regs_.end() ? 0 : it->second;
}

void I2cFake::fail_next_writes(int n) {
  std::lock_guard<std::mutex> lock(mutex_);
  fail_writes_ = n;
}

void I2cFake::fail_next_reads(int n) {
  std::lock_guard<std::mutex> lock(mutex_);
  fail_reads_ = n;
}

void I2cFake::set_read_value(const std::string& path, uint16_t addr, uint16_t reg, uint8_t value) {
  std::lock_guard<std::mutex> lock(mutex_);
  read_values_[Key(path, addr, reg)] = value;
}

std::vector<I2cRecord> I2cFake::records() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return records_;
}

I2cFake::RegWrites I2cFake::writes(const std::string& path, uint16_t addr) const {
  std::lock_guard<std::mutex> lock(mutex_);
  RegWrites out;
  for (const I2cRecord& r : records_) {
    if (r.is_read || !r.ok || r.path != path || r.addr != addr) continue;
    for (size_t i = 0; i < r.bytes.size(); ++i) out.emplace_back(static_cast<uint16_t>(r.reg + i), r.bytes[i]);
  }
  return out;
}

size_t I2cFake::transfer_count(const std::string& path, uint16_t addr) const {
  std::lock_guard<std::mutex> lock(mutex_);
  size_t n = 0;
  for (const I2cRecord& r : records_) if (r.path == path && r.addr == addr) ++n;
  return n;
}

void I2cFake::clear_records() {
  std::lock_guard<std::mutex> lock(mutex_);
  records_.clear();
}

int I2cFake::transfer_hook(const char* path, struct i2c_msg* msgs, int nmsgs, void* ctx) {
  return static_cast<I2cFake*>(ctx)->transfer(path, msgs, nmsgs);
}

int I2cFake::transfer(const char* path, struct i2c_msg* msgs, int nmsgs) {
  if (path == nullptr || msgs == nullptr || nmsgs < 1) return -1;
  const int width = am_i2c_current_reg_width();
  I2cRecord rec;
  rec.path = path;
  rec.addr = msgs[0].addr;
  const struct i2c_msg* read_msg = nullptr;
  for (int i = 0; i < nmsgs; ++i) if ((msgs[i].flags & I2C_M_RD) != 0) read_msg = &msgs[i];
  rec.is_read = read_msg != nullptr;
  const struct i2c_msg& first = msgs[0];
  const bool has_reg = (first.flags & I2C_M_RD) == 0 && first.len >= width;
  if (has_reg) rec.reg = width == 2 ? static_cast<uint16_t>((first.buf[0] << 8) | first.buf[1]) : first.buf[0];

  std::lock_guard<std::mutex> lock(mutex_);  // guards the maps, records and counters
  int& fail_counter = rec.is_read ? fail_reads_ : fail_writes_;
  if (fail_counter > 0) {
    --fail_counter;
    rec.ok = false;
    records_.push_back(rec);
    return -1;
  }
  if (rec.is_read) {
    for (uint16_t i = 0; i < read_msg->len; ++i) {
      const Key key(rec.path, rec.addr, static_cast<uint16_t>(rec.reg + i));
      const auto forced = read_values_.find(key);
      const auto stored = regs_.find(key);
      const uint8_t value = forced != read_values_.end() ? forced->second
                            : stored != regs_.end()     ? stored->second
                                                        : 0;
      read_msg->buf[i] = value;
      rec.bytes.push_back(value);
    }
  } else if (has_reg) {
    for (uint16_t i = static_cast<uint16_t>(width); i < first.len; ++i) {
      const uint16_t reg = static_cast<uint16_t>(rec.reg + i - width);
      regs_[Key(rec.path, rec.addr, reg)] = first.buf[i];
      rec.bytes.push_back(first.buf[i]);
    }
  }
  records_.push_back(rec);
  return 0;
}

}  // namespace am_test
