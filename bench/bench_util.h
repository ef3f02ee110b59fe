// Pieces the benchmarks share: CPU clocks, the output folder for logs, shell calls, percentiles and
// a stand-in genlock responder.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <limits.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <string>
#include <vector>

namespace bench {

inline double thread_cpu_s() {
  struct timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

inline double monotonic_s() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

// utime + stime of a process in seconds (-1 when it is gone).
inline double process_cpu_s(int pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const size_t close_paren = text.rfind(')');
  if (close_paren == std::string::npos) return -1;
  // Fields after the command: state is field 3; utime and stime are fields 14 and 15.
  std::vector<std::string> fields;
  size_t at = close_paren + 2;
  while (at < text.size() && fields.size() < 13) {
    const size_t end = text.find(' ', at);
    fields.push_back(text.substr(at, end - at));
    at = end == std::string::npos ? text.size() : end + 1;
  }
  if (fields.size() < 13) return -1;
  return (std::atof(fields[11].c_str()) + std::atof(fields[12].c_str())) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

inline std::string exe_dir() {
  char buf[PATH_MAX];
  const ssize_t n = readlink("/proc/self/exe", buf, sizeof(buf) - 1);
  if (n <= 0) return ".";
  buf[n] = '\0';
  std::string p(buf);
  return p.substr(0, p.rfind('/'));
}

// Folder for the logs of a run: $AM_BENCH_OUT, else build/bench-logs beside the programs.
inline std::string out_dir() {
  const char* env = std::getenv("AM_BENCH_OUT");
  const std::string dir = env != nullptr && env[0] != '\0' ? env : exe_dir() + "/../bench-logs";
  std::system(("mkdir -p '" + dir + "'").c_str());
  return dir;
}

// Sends this process's standard error (the daemon code's log and console output) to a file.
inline void stderr_to(const std::string& path) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd >= 0) {
    dup2(fd, STDERR_FILENO);
    close(fd);
  }
}

// Runs a shell command, its output discarded; the exit status.
inline int sh(const std::string& cmd) { return std::system((cmd + " >/dev/null 2>&1").c_str()); }

// Value at fraction q (0..1) of sorted values.
inline double quantile(const std::vector<double>& sorted, double q) {
  if (sorted.empty()) return 0;
  const size_t i = static_cast<size_t>(q * static_cast<double>(sorted.size() - 1) + 0.5);
  return sorted[std::min(i, sorted.size() - 1)];
}

// Answers every request on 127.0.0.1:11000, as the genlock service does.
inline void fake_genlock(std::atomic<bool>* stop) {
  constexpr uint16_t kGenlockPort = 11000;
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  struct sockaddr_in addr;
  std::memset(&addr, 0, sizeof(addr));
  addr.sin_family = AF_INET;
  addr.sin_port = htons(kGenlockPort);
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
  struct timeval tv = {0, 100000};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
  while (!stop->load()) {
    char buf[64];
    struct sockaddr_in from;
    socklen_t len = sizeof(from);
    const ssize_t n = recvfrom(fd, buf, sizeof(buf), 0, reinterpret_cast<sockaddr*>(&from), &len);
    if (n > 0) sendto(fd, buf, static_cast<size_t>(n), 0, reinterpret_cast<sockaddr*>(&from), len);
  }
  close(fd);
}

}  // namespace bench
