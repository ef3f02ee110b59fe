// Integration test environment: temporary roots, namespaces, child processes, loopback UDP.
#include <poll.h>
#include <sched.h>

#include <filesystem>

#include "am_test_sys.h"
#include "am_platform.h"

namespace am_test {
namespace {

bool join_netns(const std::string& name) {
  const int fd = open(("/var/run/netns/" + name).c_str(), O_RDONLY | O_CLOEXEC);
  const bool ok = fd >= 0 && setns(fd, CLONE_NEWNET) == 0;
  if (fd >= 0) close(fd);
  return ok;
}

std::string unique_netns_name() {
  static std::atomic<int> counter{0};
  return "amt" + std::to_string(getpid()) + "_" + std::to_string(counter++);
}

sockaddr_in address(const std::string& ip, int port) {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<uint16_t>(port));
  if (!ip.empty()) inet_pton(AF_INET, ip.c_str(), &a.sin_addr);
  return a;
}

}  // namespace

bool make_dirs(const std::string& path) {
  std::error_code ec;
  std::filesystem::create_directories(path, ec);
  return !path.empty() && std::filesystem::is_directory(path, ec);
}

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  if (in) out << in.rdbuf();
  return out.str();
}

bool write_file(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  return out && (out << content);
}

bool wait_for(const std::function<bool()>& cond, int timeout_ms, int poll_ms) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;; std::this_thread::sleep_for(std::chrono::milliseconds(poll_ms))) {
    if (cond()) return true;
    if (std::chrono::steady_clock::now() >= deadline) return false;
  }
}

int shell(const std::string& cmd) {
  const int rc = std::system((cmd + " >/dev/null 2>&1").c_str());
  return WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
}

std::string output_of(const std::string& cmd, int* status) {
  std::string out;
  FILE* p = popen(cmd.c_str(), "r");
  if (p == nullptr) return out;
  char buf[4096];
  for (size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
  const int rc = pclose(p);
  if (status != nullptr) *status = WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
  return out;
}

int count(const std::string& text, const std::string& needle) {
  int n = 0;
  for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + needle.size())) ++n;
  return n;
}

std::map<std::string, std::string> key_values(const std::string& text, const std::string& tag) {
  std::map<std::string, std::string> out;
  const std::string all = "\n" + text;
  const size_t at = all.find("\n" + tag);
  if (at == std::string::npos) return out;
  std::istringstream line(all.substr(at + 1, all.find('\n', at + 1) - at - 1));
  for (std::string kv; line >> kv;)
    if (kv.find('=') != std::string::npos) out[kv.substr(0, kv.find('='))] = kv.substr(kv.find('=') + 1);
  return out;
}

bool write_board(const TempRoot& root, const std::string& model) {
  constexpr size_t kBusFileBytes = 65536;
  bool ok = root.ok() && root.write("/misc/boardInfo.json", "{\"modelNumber\": \"" + model + "\"}") &&
            root.write("/dev/i2c-2", std::string(kBusFileBytes, '\0')) && root.write("/dev/i2c-2.log", "") &&
            root.write("/dev/i2c-1.log", "");
  for (const char* prog : {"/customer/bin/audio_codec", "/customer/bin/myaplay"})
    ok = ok && root.write(prog, "#!/bin/sh\necho \"$*\" >> \"$0.args\"\n") && chmod(root.at(prog).c_str(), 0755) == 0;
  return ok;
}

TempRoot::TempRoot(const std::vector<std::string>& subdirs) {
  char tmpl[] = "/tmp/am_test_XXXXXX";
  if (mkdtemp(tmpl) == nullptr) return;
  path_ = tmpl;
  for (const std::string& sub : subdirs) make_dirs(path_ + "/" + sub);
  const char* old = getenv(AM_ROOT_ENV);
  had_old_ = old != nullptr;
  if (had_old_) old_value_ = old;
  setenv(AM_ROOT_ENV, path_.c_str(), 1);
  am_platform_reload();
}

TempRoot::~TempRoot() {
  if (path_.empty()) return;
  if (had_old_) setenv(AM_ROOT_ENV, old_value_.c_str(), 1);
  else unsetenv(AM_ROOT_ENV);
  am_platform_reload();
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

bool TempRoot::write(const std::string& board_path, const std::string& content) const {
  const std::string host = at(board_path);
  return make_dirs(host.substr(0, host.rfind('/'))) && write_file(host, content);
}

bool have_netns() {
  static const bool available = [] {
    if (geteuid() != 0) return false;
    // Under user-mode emulation (the aarch64 build under qemu) a child that joins a namespace
    // does not come back: those runs leave namespaces to the host build.
    if (getenv("AM_TEST_NO_NETNS") != nullptr) {
      fprintf(stderr, "network namespaces disabled for this run (AM_TEST_NO_NETNS)\n");
      return false;
    }
    const std::string name = unique_netns_name();
    if (shell("ip netns add " + name) != 0) return false;
    shell("ip netns delete " + name);
    return true;
  }();
  return available;
}

NetNs::NetNs() : name_(unique_netns_name()) {
  ok_ = shell("ip netns add " + name_) == 0 && shell("ip -n " + name_ + " link set lo up") == 0;
}

NetNs::~NetNs() { shell("ip netns delete " + name_); }

int NetNs::run(const std::function<int()>& fn, int timeout_ms) const {
  fflush(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    if (!join_netns(name_)) _exit(255);
    const int rc = fn();
    fflush(nullptr);
    _exit(rc & 0xFF);
  }
  int status = 0;
  const bool exited = pid > 0 && wait_for([&] { return waitpid(pid, &status, WNOHANG) == pid; }, timeout_ms, 5);
  if (pid > 0 && !exited) kill(pid, SIGKILL), waitpid(pid, &status, 0);
  return exited && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

Process::Process(const std::vector<std::string>& argv, const std::vector<std::string>& env,
                 const std::string& netns, const std::string& output_path)
    : output_path_(output_path) {
  if (argv.empty()) return;
  fflush(nullptr);
  pid_ = fork();
  if (pid_ != 0) return;
  setpgid(0, 0);
  const int fd = output_path.empty() ? -1 : open(output_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (fd >= 0) dup2(fd, 1), dup2(fd, 2), close(fd);
  for (const std::string& entry : env) {
    const size_t eq = entry.find('=');
    if (eq != std::string::npos) setenv(entry.substr(0, eq).c_str(), entry.substr(eq + 1).c_str(), 1);
  }
  if (!netns.empty() && !join_netns(netns)) _exit(126);
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  execvp(args[0], args.data());
  _exit(127);
}

Process::~Process() {
  if (pid_ <= 0 || reaped_) return;
  kill(-pid_, SIGKILL);
  kill(pid_, SIGKILL);
  while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) continue;
}

bool Process::wait_exit(int timeout_ms, int* status) {
  if (pid_ <= 0) return false;
  if (!reaped_) reaped_ = wait_for([this] { return waitpid(pid_, &status_, WNOHANG) == pid_; }, timeout_ms, 10);
  if (reaped_ && status != nullptr) *status = status_;
  return reaped_;
}

bool Process::signal(int sig) { return pid_ > 0 && !reaped_ && kill(pid_, sig) == 0; }

bool Process::running() { return pid_ > 0 && !wait_exit(0, nullptr); }

UdpReceiver::UdpReceiver(int port, const std::string& ip) {
  fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const int on = 1;
  const sockaddr_in addr = address(ip, port);
  if (fd_ >= 0 && (ip.empty() || setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0 ||
                   bind(fd_, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) != 0))
    close(fd_), fd_ = -1;
}

UdpReceiver::~UdpReceiver() { if (fd_ >= 0) close(fd_); }

bool UdpReceiver::receive(std::vector<uint8_t>* out, int timeout_ms) {
  pollfd pfd = {fd_, POLLIN, 0};
  int rc = 0;
  while (fd_ >= 0 && (rc = poll(&pfd, 1, timeout_ms)) < 0 && errno == EINTR) continue;
  if (fd_ < 0 || out == nullptr || rc <= 0) return false;
  out->resize(65536);
  const ssize_t n = recv(fd_, out->data(), out->size(), 0);
  out->resize(n < 0 ? 0 : static_cast<size_t>(n));
  return n >= 0;
}

int UdpReceiver::connected_sender() const {
  sockaddr_in at{};
  socklen_t len = sizeof at;
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const bool ok = fd >= 0 && getsockname(fd_, reinterpret_cast<sockaddr*>(&at), &len) == 0 && connect(fd, reinterpret_cast<const sockaddr*>(&at), len) == 0;
  if (!ok && fd >= 0) close(fd);
  return ok ? fd : -1;
}

NsSocket::NsSocket(const std::string& netns) {
  std::thread t([&] {  // a thread of its own joins the namespace, the socket stays there
    if (join_netns(netns)) fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  });
  t.join();
}

NsSocket::~NsSocket() { if (fd_ >= 0) close(fd_); }

bool NsSocket::listen(const std::string& group, int port) {
  const int one = 1, zero = 0;
  const sockaddr_in addr = address("", port);
  ip_mreqn mreq{};
  return fd_ >= 0 && inet_pton(AF_INET, group.c_str(), &mreq.imr_multiaddr) == 1 &&
         setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one)) == 0 &&
         setsockopt(fd_, IPPROTO_IP, IP_MULTICAST_ALL, &zero, sizeof(zero)) == 0 &&
         bind(fd_, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) == 0 &&
         setsockopt(fd_, IPPROTO_IP, IP_ADD_MEMBERSHIP, &mreq, sizeof(mreq)) == 0;
}

bool NsSocket::send(const std::string& group, int port, const std::vector<uint8_t>& datagram) {
  const sockaddr_in to = address(group, port);
  return sendto(fd_, datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof(to)) ==
         static_cast<ssize_t>(datagram.size());
}

std::vector<std::vector<uint8_t>> NsSocket::drain(int idle_ms) {
  std::vector<std::vector<uint8_t>> got;
  uint8_t buf[2048];
  pollfd p = {fd_, POLLIN, 0};
  while (poll(&p, 1, idle_ms) > 0) {
    const ssize_t n = recv(fd_, buf, sizeof(buf), MSG_DONTWAIT);
    if (n >= 0) got.emplace_back(buf, buf + n);
  }
  return got;
}

}  // namespace am_test
