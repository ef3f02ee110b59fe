#include "qb_audio_debug.h"

#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <strings.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "am_log.h"
#include "am_platform.h"
#include "i2c_device.h"
#include "posix_system.h"
#include "qb_audio_aplay.h"
#include "qb_audio_main.h"
#include "qb_audio_misc.h"
#include "qb_audio_misc_fpga.h"
#include "qb_si5351.h"

namespace {

// A read of the pipe returns at most this many bytes; the buffer keeps one more for the NUL.
constexpr size_t kRequestMax = 1024;
// Pause after a failed pipe read, and between attempts to create or open the pipe.
constexpr unsigned kRetryPauseUs = 1000000;
// Pause after each route line and after capture-input registers 0x58 and 0x5B.
constexpr unsigned kRegisterPauseUs = 1000;

// Route registers of the matrix: sink name, and where its enable bit lives (1 = sound).
struct fpga_sink_t {
  qb_u8_t reg;
  const char* name;
  qb_u8_t enable_reg;
  qb_u8_t enable_bit;
};
constexpr fpga_sink_t kFpgaSinks[] = {
    {0x10, "I2S_Mux_IT6621", FPGA_REG_OUTPUT_ENABLE, 7},
    {0x11, "I2S_Mux_PCM5122", FPGA_REG_OUTPUT_ENABLE, 6},
    {0x12, "I2S_Mux_AVP_Q_I", FPGA_REG_OUTPUT_ENABLE, 5},
    {0x13, "I2S_Mux_iMX8_SAI1-RX", FPGA_REG_OUTPUT_ENABLE, 4},
    {0x14, "I2S_Mux_iMX8_SAI3-RX", FPGA_REG_OUTPUT_ENABLE, 3},
    {0x15, "I2S_Mux_iMX8_SAI5-RX", FPGA_REG_OUTPUT_ENABLE, 2},
    {0x16, "I2S_Mux_iMX8_SAI6-RX", FPGA_REG_OUTPUT_ENABLE, 1},
    {0x17, "I2S_Mux_DSP_DAI1", FPGA_REG_OUTPUT_ENABLE, 0},
    {0x18, "I2S_Mux_SPDIF", FPGA_REG_OUTPUT_ENABLE2, 1},
    {0x19, "SPDIF_Mux", FPGA_REG_OUTPUT_ENABLE2, 0},
};

// Source names of route register values 0-10.
constexpr const char* kFpgaSources[] = {
    "None",          "IT6620",        "PCM1804",       "HDMI-RCVR-TX",  "i.MX8-SAI1-TX", " i.MX8-SAI3-TX",
    "i.MX8-SAI5-TX", "i.MX8-SAI6-TX", "DSP-DAO1",      "SPDIF-I",       "AVP-TX",
};
constexpr const char* kUnknownName = "UNKONWN";

// Capture-input enable registers (non-zero = sound) and their lines.
struct fpga_input_t {
  qb_u8_t reg;
  const char* format;
  bool pause_after;
};
constexpr fpga_input_t kFpgaInputs[] = {
    {0x55, "[0x55][HDMI-RCVR-TX] --> [fpga] mute:%d\n", false},
    {0x56, "[0x56][DSP-DAO1] --> [fpga] mute:%d\n", false},
    {0x57, "[0x57][IT6620] --> [fpga] mute:%d\n", false},
    {0x58, "[0x58][PCM1804] --> [fpga] mute:%d\n", true},
    {0x59, "[0x59][i.MX8-SAI1-TX] --> [fpga] mute:%d\n", false},
    {0x5A, "[0x5A][i.MX8-SAI3-TX] --> [fpga] mute:%d\n", false},
    {0x5B, "[0x5B][i.MX8-SAI5-TX] --> [fpga] mute:%d\n", true},
};

bool begins_with(const char* text, const char* prefix) {
  return strncasecmp(text, prefix, std::strlen(prefix)) == 0;
}

const fpga_sink_t* find_sink(qb_u8_t reg) {
  for (const fpga_sink_t& sink : kFpgaSinks) {
    if (sink.reg == reg) {
      return &sink;
    }
  }
  return nullptr;
}

const char* source_name(qb_u8_t reg, qb_u8_t value) {
  if (reg == FPGA_REG_SAO5_SPDIF_SRC && value == FPGA_SRC_PCM1804) {
    return "SPDIF-I";  // on the S/PDIF multiplexer, input 2 is the S/PDIF receiver
  }
  if (value < sizeof kFpgaSources / sizeof kFpgaSources[0]) {
    return kFpgaSources[value];
  }
  return kUnknownName;
}

// One register read on an open bus. A character device is the board's i2c-dev; any other
// descriptor is the host's emulated bus file, read through the bus path so that its log and the
// test override see the transfer as well.
int read_register(int fd, const char* bus_path, qb_u8_t addr, qb_u8_t reg, qb_u8_t* out) {
  struct stat st;
  qb_u8_t value = 0;
  bool ok;
  if (fstat(fd, &st) == 0 && S_ISCHR(st.st_mode)) {
    qb_u8_t reg_byte = reg;
    struct i2c_msg msgs[2] = {
        {addr, 0, 1, &reg_byte},
        {addr, I2C_M_RD, 1, &value},
    };
    struct i2c_rdwr_ioctl_data data = {msgs, 2};
    ok = ioctl(fd, I2C_RDWR, &data) >= 0;
  } else {
    ok = I2C_Device_Read(bus_path, addr, reg, &value, 1) == 0;
  }
  if (ok) {
    *out = value;
  }
  return ok ? 0 : -1;
}

void dump_route_group(FILE* file, int fd, qb_u8_t enable_reg) {
  qb_u8_t enable = 0;
  i2c_read_a8d8(fd, QB_AUDIO_FPGA_I2C_ADDR, enable_reg, &enable);
  for (const fpga_sink_t& sink : kFpgaSinks) {
    if (sink.enable_reg != enable_reg) {
      continue;
    }
    qb_u8_t value = 0;
    if (i2c_read_a8d8(fd, QB_AUDIO_FPGA_I2C_ADDR, sink.reg, &value) == 0) {
      dump_detail_info(file, sink.reg, value, enable);
      usleep(kRegisterPauseUs);
    }
  }
}

void dump_capture_inputs(FILE* file, int fd) {
  qb_u8_t value = 0;  // a failed read leaves the previous register's value
  for (const fpga_input_t& input : kFpgaInputs) {
    i2c_read_a8d8(fd, QB_AUDIO_FPGA_I2C_ADDR, input.reg, &value);
    std::fprintf(file, input.format, value == 0 ? 1 : 0);
    if (input.pause_after) {
      usleep(kRegisterPauseUs);
    }
  }
}

// The full dump: routing, both engine kinds, the FPGA matrix and the clock generator.
void dump_all(FILE* file) {
  dump_misc_param(file);
  dump_aplay_param(file);
  dump_fpga_status(file);
  qb_si5351_dump(file);
}

// Request words and the dump each writes.
struct request_word_t {
  const char* prefix;
  void (*dump)(FILE* file);
};
constexpr request_word_t kRequestWords[] = {
    {"dump", dump_all},          {"d0", dump_all},           {"d1", dump_misc_param},
    {"d2", dump_capture_param},  {"d3", dump_playback_param}, {"d4", dump_fpga_status},
    {"d5", qb_si5351_dump},
};

void dump_to_file(void (*dump)(FILE* file)) {
  const std::string path = am_path(QB_DEBUG_DUMP_FILE);
  FILE* file = std::fopen(path.c_str(), "we");
  // a dump file that cannot be opened skips the dump; nothing is closed that was never opened
  if (file == nullptr) {
    AM_LOG_ERROR("open %s fail, errno %d:%s", path.c_str(), errno, std::strerror(errno));
    return;
  }
  dump(file);
  std::fclose(file);
}

void run_marker_command(const char* verb) {
  char command[512];
  std::snprintf(command, sizeof command, "%s %s  > /dev/null 2>&1", verb,
                am_path(QB_DEBUG_REQUEST_OK).c_str());
  posix_system(command);
}

}  // namespace

void dump_detail_info(FILE* file, qb_u8_t reg, qb_u8_t value, qb_u8_t enable) {
  if (file == nullptr) {
    return;
  }
  const fpga_sink_t* sink = find_sink(reg);
  const char* sink_name = sink != nullptr ? sink->name : kUnknownName;
  const int mute = (sink != nullptr && ((enable >> sink->enable_bit) & 1U) == 0) ? 1 : 0;
  std::fprintf(file, "[0x%x][%s] <-- [0x%x][%s] mute:%d\n", reg, sink_name, value,
               source_name(reg, value), mute);
}

int i2c_read_a8d8(int fd, qb_u8_t addr, qb_u8_t reg, qb_u8_t* out) {
  if (out == nullptr || read_register(fd, QB_AUDIO_FPGA_I2C_DEV, addr, reg, out) != 0) {
    AM_LOG_ERROR("Unable to send data, read a8d8 fail");
    return -1;
  }
  return 0;
}

void dump_fpga_status(FILE* file) {
  if (file == nullptr) {
    return;
  }
  const std::string bus = am_path(QB_AUDIO_FPGA_I2C_DEV);
  const int fd = open(bus.c_str(), O_RDWR | O_CLOEXEC);
  if (fd < 0) {
    AM_LOG_ERROR("open /dev/i2c-2 err");
    return;
  }
  std::fprintf(file, "dump fpga param begin\n");
  dump_route_group(file, fd, FPGA_REG_OUTPUT_ENABLE);
  dump_route_group(file, fd, FPGA_REG_OUTPUT_ENABLE2);
  std::fprintf(file, "\n");
  dump_capture_inputs(file, fd);
  std::fprintf(file, "\n");
  close(fd);
}

void qb_debug_serve_request(const char* text) {
  run_marker_command("rm");
  for (const request_word_t& word : kRequestWords) {
    if (begins_with(text, word.prefix)) {
      dump_to_file(word.dump);
    }
  }
  run_marker_command("touch");
}

int handle_cmd(void) {
  const std::string fifo = am_path(QB_DEBUG_REQUEST_FIFO);
  unlink(fifo.c_str());
  if (mkfifo(fifo.c_str(), 0777) != 0) {
    AM_LOG_ERROR("mkfifo %s, errno %d:%s", fifo.c_str(), errno, std::strerror(errno));
    return 0;
  }
  // opened for reading and writing: the daemon keeps a writer, so reads block instead of
  // returning end-of-file when a requester closes its end
  const int fd = open(fifo.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0774);
  if (fd < 0) {
    AM_LOG_ERROR("open %s fail, errno %d:%s", fifo.c_str(), errno, std::strerror(errno));
    return 0;
  }
  char request[kRequestMax + 1];
  for (;;) {
    std::memset(request, 0, sizeof request);
    const ssize_t n = read(fd, request, kRequestMax);
    if (n < 0) {
      AM_LOG_ERROR("read pipe %s fail, errno %d:%s", fifo.c_str(), errno, std::strerror(errno));
      usleep(kRetryPauseUs);
      continue;
    }
    qb_debug_serve_request(request);
  }
}

void* qb_debug_task(void* /*arg*/) {
  prctl(PR_SET_NAME, "debug_task");
  AM_LOG_INFO("audio debug_task id %ld !!!!", static_cast<long>(syscall(SYS_gettid)));
  while (audio_exit_get() == 0) {
    handle_cmd();
    // the pipe could not be created or opened: pause before the next attempt
    usleep(kRetryPauseUs);
  }
  return nullptr;
}
