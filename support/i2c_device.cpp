// I2C transfers: the i2c-dev I2C_RDWR request on the board, an emulated register file on a host,
// or an in-process override for tests. Every call opens the device and closes it again.
#include "i2c_device.h"

#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "am_platform.h"

namespace {

// Results of one transfer.
constexpr int AM_I2C_XFER_OK = 0;
constexpr int AM_I2C_OPEN_FAILED = -1;
constexpr int AM_I2C_XFER_FAILED = -2;

// Results of the write functions on a failed transfer or allocation.
constexpr int I2C_WRITE_FAILED = -2;

// Emulated bus layout: the byte of address A, register R at A*256+R; word registers at
// 32768 + A*65536 + R.
constexpr off_t EMU_BYTE_REG_SPAN = 256;
constexpr off_t EMU_WORD_REG_BASE = 32768;
constexpr off_t EMU_WORD_REG_SPAN = 65536;
constexpr qb_u16_t EMU_MAX_ADDR = 0x7F;
constexpr const char* EMU_LOG_SUFFIX = ".log";

// ---- override ---------------------------------------------------------------------------------

struct TransferOverride {
  am_i2c_transfer_fn fn = nullptr;
  void* ctx = nullptr;
};

std::mutex g_override_mutex;  // guards g_override
TransferOverride g_override;

// Register address width of the transfer in progress on this thread.
thread_local int t_reg_width = 1;

// Diagnostics reach standard output at once, also when it is a file or a pipe.
void say(const char* text) {
  fputs(text, stdout);
  fflush(stdout);
}

TransferOverride current_override() {
  std::lock_guard<std::mutex> lock(g_override_mutex);
  return g_override;
}

// ---- board backend ------------------------------------------------------------------------------

int board_transfer(int fd, struct i2c_msg* msgs, int nmsgs) {
  struct i2c_rdwr_ioctl_data data;
  data.msgs = msgs;
  data.nmsgs = static_cast<__u32>(nmsgs);
  return ioctl(fd, I2C_RDWR, &data) < 0 ? AM_I2C_XFER_FAILED : AM_I2C_XFER_OK;
}

// ---- emulated backend ---------------------------------------------------------------------------

off_t emu_offset(qb_u16_t addr, qb_u32_t reg, int reg_width) {
  if (reg_width == 2) {
    return EMU_WORD_REG_BASE + static_cast<off_t>(addr) * EMU_WORD_REG_SPAN + reg;
  }
  return static_cast<off_t>(addr) * EMU_BYTE_REG_SPAN + reg;
}

qb_u32_t emu_reg_of(const struct i2c_msg& msg, int reg_width) {
  return reg_width == 2 ? (static_cast<qb_u32_t>(msg.buf[0]) << 8) | msg.buf[1] : msg.buf[0];
}

// One log line: "W AA RR DD ..." or "R AA RR DD ...", RR four digits for a word register.
std::string emu_log_line(char kind, qb_u16_t addr, qb_u32_t reg, int reg_width, const qb_u8_t* data,
                         size_t len) {
  char head[32];
  snprintf(head, sizeof(head), reg_width == 2 ? "%c %02X %04X" : "%c %02X %02X", kind,
           static_cast<unsigned>(addr), static_cast<unsigned>(reg));
  std::string line(head);
  for (size_t i = 0; i < len; ++i) {
    char byte[4];
    snprintf(byte, sizeof(byte), " %02X", static_cast<unsigned>(data[i]));
    line += byte;
  }
  line += '\n';
  return line;
}

bool emu_write_all(int fd, const qb_u8_t* data, size_t len, off_t offset) {
  while (len > 0) {
    const ssize_t n = pwrite(fd, data, len, offset);
    if (n <= 0) {
      return false;
    }
    data += n;
    len -= static_cast<size_t>(n);
    offset += n;
  }
  return true;
}

// Reads len bytes; what lies past the end of the file reads as 0.
bool emu_read_all(int fd, qb_u8_t* data, size_t len, off_t offset) {
  memset(data, 0, len);
  size_t done = 0;
  while (done < len) {
    const ssize_t n = pread(fd, data + done, len - done, offset + static_cast<off_t>(done));
    if (n < 0) {
      return false;
    }
    if (n == 0) {
      break;
    }
    done += static_cast<size_t>(n);
  }
  return true;
}

// Runs the messages against the register file; the log lines are collected into `log`.
int emu_run(int fd, struct i2c_msg* msgs, int nmsgs, int reg_width, std::string* log) {
  qb_u32_t pointer = 0;  // register selected by the last write message
  for (int i = 0; i < nmsgs; ++i) {
    struct i2c_msg& msg = msgs[i];
    if (msg.addr > EMU_MAX_ADDR || (msg.len > 0 && msg.buf == nullptr)) {
      return AM_I2C_XFER_FAILED;  // no device answers there
    }
    if ((msg.flags & I2C_M_RD) != 0) {
      if (!emu_read_all(fd, msg.buf, msg.len, emu_offset(msg.addr, pointer, reg_width))) {
        return AM_I2C_XFER_FAILED;
      }
      *log += emu_log_line('R', msg.addr, pointer, reg_width, msg.buf, msg.len);
      continue;
    }
    if (msg.len < reg_width) {
      return AM_I2C_XFER_FAILED;
    }
    pointer = emu_reg_of(msg, reg_width);
    const size_t data_len = msg.len - static_cast<size_t>(reg_width);
    const qb_u8_t* data = msg.buf + reg_width;
    const bool selects_for_read = data_len == 0 && i + 1 < nmsgs && (msgs[i + 1].flags & I2C_M_RD) != 0;
    if (selects_for_read) {
      continue;  // the register select is part of the read's line
    }
    if (!emu_write_all(fd, data, data_len, emu_offset(msg.addr, pointer, reg_width))) {
      return AM_I2C_XFER_FAILED;
    }
    *log += emu_log_line('W', msg.addr, pointer, reg_width, data, data_len);
  }
  return AM_I2C_XFER_OK;
}

void emu_append_log(const std::string& path, const std::string& lines) {
  if (lines.empty()) {
    return;
  }
  const int fd = open((path + EMU_LOG_SUFFIX).c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
  if (fd < 0) {
    return;  // no log file: nothing is recorded
  }
  const ssize_t n = write(fd, lines.data(), lines.size());
  (void)n;
  close(fd);
}

int emu_transfer(int fd, const std::string& path, struct i2c_msg* msgs, int nmsgs, int reg_width) {
  flock(fd, LOCK_EX);  // one transfer at a time on the register file, also across processes
  std::string log;
  const int result = emu_run(fd, msgs, nmsgs, reg_width, &log);
  emu_append_log(path, log);
  flock(fd, LOCK_UN);
  return result;
}

// ---- dispatch -----------------------------------------------------------------------------------

// One transfer over the backend that fits the path.
int i2c_transfer(const char* path, struct i2c_msg* msgs, int nmsgs, int reg_width) {
  const TransferOverride hook = current_override();
  if (hook.fn != nullptr) {
    t_reg_width = reg_width;
    const int rc = hook.fn(path, msgs, nmsgs, hook.ctx);
    t_reg_width = 1;
    return rc < 0 ? AM_I2C_XFER_FAILED : AM_I2C_XFER_OK;
  }
  const std::string resolved = am_path(path);
  struct stat st;
  const bool exists = stat(resolved.c_str(), &st) == 0;
  const bool is_device = exists && S_ISCHR(st.st_mode);
  // A register file stands in for the bus only on a board root, where it is created on first
  // use, or where one was put in place on purpose. On the board a missing bus device is an error,
  // never a new file that silently accepts every transfer.
  const bool emulate = !is_device && ((exists && S_ISREG(st.st_mode)) || (!exists && !am_root().empty()));
  const int fd = is_device ? open(resolved.c_str(), O_RDWR | O_CLOEXEC)
                 : emulate ? open(resolved.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644)
                           : -1;
  if (fd < 0) {
    say("Unable to open i2c control file\n");
    return AM_I2C_OPEN_FAILED;
  }
  const int result = is_device ? board_transfer(fd, msgs, nmsgs)
                               : emu_transfer(fd, resolved, msgs, nmsgs, reg_width);
  close(fd);
  return result;
}

// Register address bytes, high byte first for a word register.
int put_reg(qb_u8_t* out, qb_u32_t reg, int reg_width) {
  if (reg_width == 2) {
    out[0] = static_cast<qb_u8_t>(reg >> 8);
    out[1] = static_cast<qb_u8_t>(reg & 0xFF);
  } else {
    out[0] = static_cast<qb_u8_t>(reg);
  }
  return reg_width;
}

int device_read(const char* path, qb_u8_t addr, qb_u32_t reg, int reg_width, qb_u8_t* buf,
                qb_u16_t len) {
  if (path == nullptr) {
    say("filepath is null\n");
    return -1;
  }
  qb_u8_t reg_bytes[2];
  struct i2c_msg msgs[2];
  msgs[0].addr = addr;
  msgs[0].flags = 0;
  msgs[0].len = static_cast<__u16>(put_reg(reg_bytes, reg, reg_width));
  msgs[0].buf = reg_bytes;
  msgs[1].addr = addr;
  msgs[1].flags = I2C_M_RD;
  msgs[1].len = len;
  msgs[1].buf = buf;
  const int rc = i2c_transfer(path, msgs, 2, reg_width);
  if (rc == AM_I2C_OPEN_FAILED) {
    return -1;
  }
  if (rc != AM_I2C_XFER_OK) {
    say("Unable to send data\n");
    printf("I2c_Read Failed at addr=[0x%2x]\n", static_cast<unsigned>(addr));
    fflush(stdout);
    return -1;
  }
  return 0;
}

int device_write(const char* path, qb_u8_t addr, qb_u32_t reg, int reg_width, const qb_u8_t* data,
                 qb_u16_t len) {
  if (path == nullptr) {
    say("filepath is null\n");
    return -1;
  }
  const size_t total = static_cast<size_t>(len) + static_cast<size_t>(reg_width);
  qb_u8_t* out = static_cast<qb_u8_t*>(malloc(total));
  if (out == nullptr) {
    say("malloc failed\n");
    return I2C_WRITE_FAILED;
  }
  const int offset = put_reg(out, reg, reg_width);
  if (len > 0 && data != nullptr) {
    memcpy(out + offset, data, len);
  } else if (len > 0) {
    memset(out + offset, 0, len);
  }
  struct i2c_msg msg;
  msg.addr = addr;
  msg.flags = 0;
  msg.len = static_cast<__u16>(total);
  msg.buf = out;
  const int rc = i2c_transfer(path, &msg, 1, reg_width);
  free(out);
  if (rc == AM_I2C_OPEN_FAILED) {
    return -1;
  }
  if (rc != AM_I2C_XFER_OK) {
    say("Unable to send data\n");
    printf("I2c_Write Failed at addr=[0x%2x]\n", static_cast<unsigned>(addr));
    fflush(stdout);
    return I2C_WRITE_FAILED;
  }
  return 0;
}

}  // namespace

int I2C_Device_Read(const char* path, qb_u8_t addr, qb_u8_t reg, qb_u8_t* buf, qb_u16_t len) {
  return device_read(path, addr, reg, 1, buf, len);
}

int I2C_Device_Write(const char* path, qb_u8_t addr, qb_u8_t reg, const qb_u8_t* data,
                     qb_u16_t len) {
  return device_write(path, addr, reg, 1, data, len);
}

int I2C_Device_Read_Word_Reg(const char* path, qb_u8_t addr, qb_u16_t reg, qb_u8_t* buf,
                             qb_u16_t len) {
  return device_read(path, addr, reg, 2, buf, len);
}

int I2C_Device_Write_Word_Reg(const char* path, qb_u8_t addr, qb_u16_t reg, const qb_u8_t* data,
                              qb_u16_t len) {
  return device_write(path, addr, reg, 2, data, len);
}

void am_i2c_set_transfer_override(am_i2c_transfer_fn fn, void* ctx) {
  std::lock_guard<std::mutex> lock(g_override_mutex);
  g_override.fn = fn;
  g_override.ctx = ctx;
}

int am_i2c_current_reg_width(void) { return t_reg_width; }
