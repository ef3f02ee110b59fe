// Utilities for integration tests: a temporary board root, network namespaces, child processes
// and loopback UDP. Every object cleans up after itself in its destructor, so a failed ASSERT
// leaves no directory, namespace or process behind.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace am_test {

// A fresh directory under /tmp that AUDIO_MANAGER_ROOT points to (am_platform_reload is called);
// the previous value is restored and the directory removed on destruction.
class TempRoot {
 public:
  explicit TempRoot(const std::vector<std::string>& subdirs = {});
  ~TempRoot();

  bool ok() const { return !path_.empty(); }
  const std::string& path() const { return path_; }
  // The host path of an absolute board path ("/tmp/x" -> "<root>/tmp/x").
  std::string at(const std::string& board_path) const { return path_ + board_path; }
  bool write(const std::string& board_path, const std::string& content) const;

 private:
  std::string path_;
  bool had_old_ = false;
  std::string old_value_;
};

bool make_dirs(const std::string& path);
std::string read_file(const std::string& path);
bool write_file(const std::string& path, const std::string& content);
// Polls cond every poll_ms until it holds (true) or timeout_ms passes (false).
bool wait_for(const std::function<bool()>& cond, int timeout_ms, int poll_ms = 20);

int shell(const std::string& cmd);

// True when running as root, a network namespace can be created and AM_TEST_NO_NETNS is unset
// (checked once).
bool have_netns();

// Output of a shell command (stdout only unless it redirects); its exit status in *status.
std::string output_of(const std::string& cmd, int* status = nullptr);
int count(const std::string& text, const std::string& needle);
// The "key=value" words of the first line of text that starts with tag.
std::map<std::string, std::string> key_values(const std::string& text, const std::string& tag);
// A board of the given model under root: boardInfo.json, the FPGA bus's register file and bus
// logs, and stand-ins for the codec and player programs that append their arguments to
// "<program>.args".
bool write_board(const TempRoot& root, const std::string& model);

// A network namespace with a unique name (pid + counter) and its loopback up; deleted on
// destruction.
class NetNs {
 public:
  NetNs();
  ~NetNs();

  bool ok() const { return ok_; }
  const std::string& name() const { return name_; }
  // Runs fn in a forked child that has joined the namespace; returns fn's result as the child's
  // exit status (0..255), or -1 when the child could not join, crashed or ran past timeout_ms
  // (then it is killed). gtest assertions inside fn do not reach the parent: return a code.
  int run(const std::function<int()>& fn, int timeout_ms = 30000) const;

 private:
  std::string name_;
  bool ok_ = false;
};

// A child process: argv[0] is the program (looked up in PATH when not a path), env entries
// "NAME=value" are added to the environment, an optional namespace is joined before exec, and
// stdout and stderr go to output_path (inherited when empty). The child leads its own process
// group; the destructor kills the group with SIGKILL and reaps the child when it still runs.
class Process {
 public:
  Process(const std::vector<std::string>& argv, const std::vector<std::string>& env = {},
          const std::string& netns = "", const std::string& output_path = "");
  ~Process();

  bool started() const { return pid_ > 0; }
  pid_t pid() const { return pid_; }
  bool wait_exit(int timeout_ms, int* status = nullptr);
  bool signal(int sig);
  bool running();
  std::string output() const { return output_path_.empty() ? "" : read_file(output_path_); }

 private:
  pid_t pid_ = -1;
  bool reaped_ = false;
  int status_ = 0;
  std::string output_path_;
};

class UdpReceiver {
 public:
  explicit UdpReceiver(int port, const std::string& ip = "127.0.0.1");
  ~UdpReceiver();

  bool ok() const { return fd_ >= 0; }
  int fd() const { return fd_; }
  bool receive(std::vector<uint8_t>* out, int timeout_ms);
  // A new close-on-exec UDP socket connected to this receiver's address (-1 on failure).
  int connected_sender() const;

 private:
  int fd_ = -1;
};

// A UDP socket created inside a network namespace (it stays in it for its whole life).
class NsSocket {
 public:
  explicit NsSocket(const std::string& netns);
  ~NsSocket();
  int fd() const { return fd_; }
  // Receiver: port bound, member of the multicast group through the namespace's route.
  bool listen(const std::string& group, int port);
  bool send(const std::string& group, int port, const std::vector<uint8_t>& datagram);
  std::vector<std::vector<uint8_t>> drain(int idle_ms);

 private:
  int fd_ = -1;
};

}  // namespace am_test
