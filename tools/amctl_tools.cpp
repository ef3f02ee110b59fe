// amctl: the tool sub-commands. "watch" listens where cmd_core listens and prints what the daemon
// reports; "dump" drives the debug pipe; "genlock" shows the status files under /tmp.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <json/json.h>

#include <cctype>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "amctl.h"
#include "am_platform.h"
#include "qb_audio_protocol.h"
#include "qb_tlv_box.h"

namespace {

// How often "dump" looks for the marker file.
constexpr int kDumpPollMs = 50;
// Default wait for a dump: the clock section alone may wait 2 s per query round.
constexpr int kDumpTimeoutDefaultS = 30;
// The request words the debug pipe serves.
constexpr const char* kDumpWords[] = {"dump", "d0", "d1", "d2", "d3", "d4", "d5"};

volatile std::sig_atomic_t g_amctl_stop = 0;

void amctl_on_signal(int) { g_amctl_stop = 1; }

bool read_text(const std::string& path, std::string* out) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    return false;
  }
  std::ostringstream s;
  s << in.rdbuf();
  *out = s.str();
  return true;
}

bool parse_json(const std::string& text, Json::Value* out) {
  Json::CharReaderBuilder builder;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  std::string errors;
  return reader->parse(text.data(), text.data() + text.size(), out, &errors);
}

std::string json_text(const Json::Value& v, bool compact) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = compact ? "" : "  ";
  return Json::writeString(builder, v);
}

// The NUL-terminated text of a string item, bounded by the item.
std::string item_text(const tlv_t* item) {
  if (item == nullptr || item->value == nullptr || item->length <= 0) {
    return "";
  }
  const char* p = reinterpret_cast<const char*>(item->value);
  return std::string(p, strnlen(p, static_cast<size_t>(item->length)));
}

std::string now_text() {
  const auto now = std::chrono::system_clock::now();
  const std::time_t t = std::chrono::system_clock::to_time_t(now);
  const long ms = static_cast<long>(
      std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000);
  std::tm tm{};
  localtime_r(&t, &tm);
  char text[32];
  std::snprintf(text, sizeof text, "%02d:%02d:%02d.%03ld", tm.tm_hour, tm.tm_min, tm.tm_sec, ms);
  return text;
}

bool parse_seconds(const std::string& text, long long max, long long* out, std::string* err,
                   const char* option) {
  if (!amctl_parse_number(text, 0, max, out)) {
    *err = std::string(option) + " '" + text + "': expected a number of seconds";
    return false;
  }
  return true;
}

int usage_error(const char* command, const std::string& err) {
  std::fprintf(stderr, "amctl %s: %s\n%s", command, err.c_str(), amctl_short_usage(command).c_str());
  return AMCTL_EXIT_USAGE;
}

bool no_positionals(amctl_args_t* args, std::string* err) {
  std::vector<std::string> words;
  if (!args->positionals(&words, err)) {
    return false;
  }
  if (!words.empty()) {
    *err = "unexpected argument '" + words[0] + "'";
    return false;
  }
  return true;
}

// ---- watch ----------------------------------------------------------------------------------
int listen_socket(int port) {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    std::fprintf(stderr, "amctl watch: socket: %s\n", std::strerror(errno));
    return -1;
  }
  // No address reuse: a port already taken (by cmd_core) is reported, not silently shared.
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (bind(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0) {
    std::fprintf(stderr, "amctl watch: cannot listen on 127.0.0.1:%d: %s (is cmd_core running?)\n",
                 port, std::strerror(errno));
    close(fd);
    return -1;
  }
  return fd;
}

}  // namespace

std::string amctl_describe_report(const qb_u8_t* data, int size, bool raw) {
  std::string kind;
  std::string text;
  tlv_box_t* outer = tlv_box_parse(data, size);
  tlv_box_t* inner = nullptr;
  if (outer != nullptr && tlv_box_get_object(outer, QB_REPORT_OUTER_TYPE, &inner) == 0 &&
      inner != nullptr) {
    if (const tlv_t* report = tlv_box_get_node(inner, QB_REPORT_INNER_TYPE)) {
      kind = "report";
      text = item_text(report);
    } else if (const tlv_t* drop = tlv_box_get_node(inner, AUDIO_LOSS_EVENT_TYPE)) {
      kind = "drop";
      text = item_text(drop);
    }
  }
  tlv_box_destroy(inner);
  tlv_box_destroy(outer);
  if (kind.empty()) {
    return "unknown " + amctl_hex(data, size);
  }
  Json::Value value;
  if (!parse_json(text, &value)) {
    return kind + " (not JSON) " + text;
  }
  return kind + (raw ? " " : "\n") + json_text(value, raw);
}

int amctl_watch(amctl_args_t* args, const amctl_options_t& opt) {
  std::string err;
  std::string text;
  bool present = false;
  long long count = 0;
  long long timeout = 0;
  if (!args->value("--count", &text, &present, &err)) {
    return usage_error("watch", err);
  }
  if (present && !amctl_parse_number(text, 1, 1000000000LL, &count)) {
    return usage_error("watch", "--count '" + text + "': expected a positive number");
  }
  if (!args->value("--timeout", &text, &present, &err) ||
      (present && !parse_seconds(text, 86400LL * 365, &timeout, &err, "--timeout"))) {
    return usage_error("watch", err);
  }
  const bool raw = args->flag("--raw");
  if (!no_positionals(args, &err)) {
    return usage_error("watch", err);
  }
  const int port = opt.port > 0 ? opt.port : QB_REPORT_PORT;
  const int fd = listen_socket(port);
  if (fd < 0) {
    return AMCTL_EXIT_FAIL;
  }
  std::signal(SIGINT, amctl_on_signal);
  std::signal(SIGTERM, amctl_on_signal);
  if (!raw) {
    std::printf("listening on 127.0.0.1:%d (Ctrl-C to stop)\n", port);
    std::fflush(stdout);
  }
  std::vector<qb_u8_t> buf(AMCTL_WATCH_BUF_SIZE);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeout);
  long long seen = 0;
  while (g_amctl_stop == 0 && (count == 0 || seen < count)) {
    int wait_ms = 200;
    if (timeout > 0) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now()).count();
      if (left <= 0) break;
      wait_ms = static_cast<int>(left < wait_ms ? left : wait_ms);
    }
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, wait_ms) <= 0) continue;
    const ssize_t n = recv(fd, buf.data(), buf.size(), 0);
    if (n <= 0) continue;
    ++seen;
    const std::string line = amctl_describe_report(buf.data(), static_cast<int>(n), raw);
    if (raw) {
      std::printf("%s\n", line.c_str());
    } else {
      std::printf("%s %s\n", now_text().c_str(), line.c_str());
    }
    std::fflush(stdout);
  }
  close(fd);
  // With --count, stopping short of it (time-out or signal) is a failure.
  return count > 0 && seen < count ? AMCTL_EXIT_FAIL : AMCTL_EXIT_OK;
}

// ---- dump -----------------------------------------------------------------------------------
int amctl_dump(amctl_args_t* args, const amctl_options_t& opt) {
  (void)opt;
  std::string err;
  std::string text;
  bool present = false;
  long long timeout = kDumpTimeoutDefaultS;
  if (!args->value("--timeout", &text, &present, &err) ||
      (present && !parse_seconds(text, 3600, &timeout, &err, "--timeout"))) {
    return usage_error("dump", err);
  }
  std::vector<std::string> words;
  if (!args->positionals(&words, &err)) {
    return usage_error("dump", err);
  }
  if (words.size() > 1) {
    return usage_error("dump", "unexpected argument '" + words[1] + "'");
  }
  const std::string word = words.empty() ? "dump" : words[0];
  std::string lower;
  for (char c : word) lower += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  bool known = false;
  for (const char* w : kDumpWords) known = known || lower == w;
  if (!known) {
    return usage_error("dump", "'" + word + "': expected dump, d0, d1, d2, d3, d4 or d5");
  }

  const std::string fifo = am_path(QB_DEBUG_REQUEST_FIFO);
  const std::string marker = am_path(QB_DEBUG_REQUEST_OK);
  const std::string dump = am_path(QB_DEBUG_DUMP_FILE);
  struct stat st{};
  if (stat(fifo.c_str(), &st) != 0 || !S_ISFIFO(st.st_mode)) {
    std::fprintf(stderr, "amctl dump: no debug pipe at %s (is audio_manager running?)\n", fifo.c_str());
    return AMCTL_EXIT_FAIL;
  }
  // The marker must be the one this request creates.
  unlink(marker.c_str());
  const int fd = open(fifo.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) {
    std::fprintf(stderr, "amctl dump: cannot open %s: %s%s\n", fifo.c_str(), std::strerror(errno),
                 errno == ENXIO ? " (nobody reads it: is audio_manager running?)" : "");
    return AMCTL_EXIT_FAIL;
  }
  const ssize_t n = write(fd, word.data(), word.size());
  close(fd);
  if (n != static_cast<ssize_t>(word.size())) {
    std::fprintf(stderr, "amctl dump: write to %s failed\n", fifo.c_str());
    return AMCTL_EXIT_FAIL;
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeout);
  while (access(marker.c_str(), F_OK) != 0) {
    if (std::chrono::steady_clock::now() >= deadline) {
      std::fprintf(stderr, "amctl dump: no %s after %lld s\n", marker.c_str(), timeout);
      return AMCTL_EXIT_FAIL;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(kDumpPollMs));
  }
  if (!read_text(dump, &text)) {
    std::fprintf(stderr, "amctl dump: cannot read %s\n", dump.c_str());
    return AMCTL_EXIT_FAIL;
  }
  std::fwrite(text.data(), 1, text.size(), stdout);
  return AMCTL_EXIT_OK;
}

// ---- genlock --------------------------------------------------------------------------------
namespace {

// Genlock channels 1, 2, 3 as the status file names them.
constexpr const char* kGenlockChannels[] = {"hdmi", "analog", "earc/spdif"};
constexpr const char* kLossStreams[] = {"stream0", "stream1", "stream2"};

void print_genlock(const Json::Value& v) {
  std::printf("%-12s %10s %10s %12s %11s\n", "channel", "fifoTotal", "fifoUsed", "ppmAdjusted",
              "ppmMaxStep");
  for (const char* name : kGenlockChannels) {
    const Json::Value& c = v["genlock"][name];
    std::printf("%-12s %10d %10d %12d %11d\n", name, c["fifoTotal"].asInt(), c["fifoUsed"].asInt(),
                c["ppmAdjusted"].asInt(), c["ppmMaxStep"].asInt());
  }
}

void print_loss(const Json::Value& v) {
  std::printf("%-12s %14s %15s\n", "stream", "bytesDropIn10", "bytesDropTotal");
  for (const char* name : kLossStreams) {
    const Json::Value& s = v["audioDropInfo"][name];
    std::printf("%-12s %14llu %15llu\n", name,
                static_cast<unsigned long long>(s["bytesDropIn10"].asUInt64()),
                static_cast<unsigned long long>(s["bytesDropTotal"].asUInt64()));
  }
}

// Prints one status file; false when it is missing.
bool show_status_file(const char* title, const char* board_path, bool json,
                      void (*table)(const Json::Value&)) {
  const std::string path = am_path(board_path);
  std::string text;
  std::printf("%s (%s):\n", title, path.c_str());
  if (!read_text(path, &text)) {
    std::printf("  not present\n");
    return false;
  }
  Json::Value v;
  if (json || !parse_json(text, &v) || !v.isObject()) {
    std::printf("%s\n", text.c_str());
  } else {
    table(v);
  }
  return true;
}

}  // namespace

int amctl_genlock(amctl_args_t* args, const amctl_options_t& opt) {
  (void)opt;
  std::string err;
  const bool json = args->flag("--json");
  if (!no_positionals(args, &err)) {
    return usage_error("genlock", err);
  }
  const bool genlock = show_status_file("genlock", SI5351_STATUS_FILE, json, print_genlock);
  std::printf("\n");
  const bool loss = show_status_file("packet loss", AUDIO_LOSS_FILE, json, print_loss);
  return genlock || loss ? AMCTL_EXIT_OK : AMCTL_EXIT_FAIL;
}
