// End to end on two simulated boards (sim/board): TX-A captures its analog input into network
// stream 0, RX plays it on its analog output (recorded by its card), eth0 of both on one veth pair.
// One run walks the steps below in order, then SIGTERM to both daemons (status 0 within 2 s).
// At +300 ppm the card plays 14.4 frames a second more than arrive: unsteered, the ~1440 queued
// frames are gone in 100 s. One synthesiser step is 48.8 ppm. The run lasts past that moment and
// the queue must never empty. (The opposite direction is decided by the same code, unit-tested.)
#include "am_test_sys.h"

namespace {

constexpr double kRate = 48000.0, kChunkFrames = 240.0, kBufferFrames = 9600.0;  // 200 ms device buffer
constexpr int kCardPpm = 300, kStopLimitMs = 2000, kDumpTimeoutMs = 30000;
constexpr double kPpmPerStep = 300.0 / 6144000.0 * 1e6;
constexpr double kMaxRunS = 150.0, kPaceTolerancePpm = 10.0, kSecondsPerUnderrun = 20.0;
constexpr int kStallMs = 300;  // longer than the device buffer can bridge
constexpr long kFpgaRegisterBase = 0x48 * 256;
constexpr const char *kTxMac = "02000000a001", *kGroup = "234.48.160.1";  // kGroup: kTxMac's stream group
constexpr int kFloodBursts = 500, kFloodBurst = 20;  // 10000 datagrams in 5 s, 7 times the stream's rate
const std::string kBin = std::string(am_test::kBinDir) + "/";

class Bench {
 public:
  Bench() {
    char tmpl[] = "/tmp/am-bench-XXXXXX";
    if (mkdtemp(tmpl) != nullptr) work_ = tmpl;
    env_ = "AM_SIM_STATE=" + work_ + "/state AM_SIM_PREFIX=amb" + std::to_string(getpid()) + "- AM_BIN_DIR=" +
           am_test::kBinDir + " AM_LIB_DIR=" + am_test::kLibDir;
  }
  ~Bench() { board("teardown; rm -rf " + work_); }
  std::string root(const std::string& name) const { return work_ + "/" + name; }
  std::string log(const std::string& name) const { return am_test::read_file(root(name) + "/tmp/audio_manager.log"); }
  std::string played_path() const { return root("rx") + "/tmp/bench/played.raw"; }
  int board(const std::string& args) const {
    const int rc = std::system(
        ("env " + env_ + " bash " + am_test::kSourceDir + "/sim/board " + args + " >>" + work_ + "/board.out 2>&1").c_str());
    return WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
  }
  int command(const std::string& n, const std::string& args) const { return board("exec " + n + " -- " + kBin + "amctl " + args); }
  // amctl outside the namespace with the board's root (the pipe is a file of the root).
  std::string amctl(const std::string& name, const std::string& args, int* status = nullptr) const {
    return am_test::output_of("AUDIO_MANAGER_ROOT=" + root(name) + " " + kBin + "amctl " + args + " 2>&1", status);
  }
  std::string start(const std::string& rx_env, const std::function<void()>& before_start) {
    if (work_.empty() || board("create " + root("tx") + " --model TX-A") != 0 ||
        board("create " + root("rx") + " --model RX") != 0)
      return "create";
    for (const char* name : {"tx", "rx"})  // room for the drop messages of a flood in one log file
      std::system(("sed -i s/maxFileSize=1048576/maxFileSize=268435456/ " + root(name) + "/config/logconf/audio_manager.conf").c_str());
    before_start();
    if (board("up tx " + root("tx") + " --mac 02:00:00:00:a0:01") != 0 ||
        board("up rx " + root("rx") + " --mac 02:00:00:00:a0:02") != 0 || board("link tx rx") != 0)
      return "network";
    if (board("start tx --env AMSIM_FAIL_AFTER_CAP2=200 --env AMSIM_FAIL_MODE_CAP2=stall --env AMSIM_FAIL_AFTER_CAP3=200") != 0 ||
        board("start rx --env AMSIM_FAIL_AFTER_PLAY2=200 --env AMSIM_FAIL_AFTER_PLAY3=200 --env AMSIM_FAIL_MODE_PLAY3=stall "
              "--env AMSIM_FAIL_AFTER_CAP3=200 --env AMSIM_FAIL_MODE_CAP3=eio --env AMSIM_FAIL_AFTER_CAP2=200 "
              "--env AMSIM_FAIL_MODE_CAP2=ebadfd --env AMSIM_OUTFILE_PLAY1=/tmp/bench/played.raw " + rx_env) != 0)
      return "start";
    for (const char* name : {"tx", "rx"})
      if (board(std::string("wait-log ") + name + " 'audio manager init done' --timeout 30") != 0) return "init";
    for (const std::string& cmd : {std::string("tx channel-info analog --rate 48000 --channels 2 --size 24"),
                                   std::string("tx to-net 0 analog ") + kTxMac, std::string("rx from-net ") + kTxMac + " 0",
                                   std::string("rx stream-in analog 0"), std::string("rx output-src analog stream")})
      if (command(cmd.substr(0, 2), cmd.substr(3)) != 0) return "amctl " + cmd;
    if (!am_test::wait_for([&] { return played_bytes() > 48000 * 8; }, 30000, 100)) return "the stream never started";
    for (const char* name : {"tx", "rx"})  // so that a loaded host does not starve the 30 ms queued
      if (std::system(("chrt -f -a -p 20 " + std::to_string(daemon_pid(name)) + " >/dev/null 2>&1").c_str()) != 0)
        std::printf("note: no real-time priority for the daemons; a loaded host may underrun\n");
    return "";
  }
  long played_bytes() const {
    struct stat st;
    return stat(played_path().c_str(), &st) == 0 ? static_cast<long>(st.st_size) : -1;
  }
  int daemon_pid(const std::string& name) const {
    return std::atoi(am_test::read_file(root(name) + "/run/audio_manager.pid").c_str());
  }
  std::string daemon_status(const std::string& name) const {
    std::string text = am_test::read_file(root(name) + "/run/audio_manager.status");
    return text.substr(0, text.find_last_not_of("\n ") + 1);
  }
  int underruns() const { return am_test::count(log("rx"), "uNderrun") + am_test::count(log("rx"), "undErrun"); }
  int runs() const { return am_test::count(log("rx"), "qb_audio_oper_playback,hw:1,0,"); }
  int count(const std::string& name, const std::string& text) const { return am_test::count(log(name), text); }

 private:
  std::string work_;
  std::string env_;
};

// Seconds since the stream was up, CLOCK_MONOTONIC seconds, queued audio (device delay plus parked
// chunks, -1 unknown), clock adjustment of genlock channel 1.
struct Sample { double t, mono; long frames; double ppm; };

// The receiver's latest queued-audio sample, from the daemon's status dump.
long queued(const Bench& bench) {
  return std::atol(am_test::output_of(
      "AUDIO_MANAGER_ROOT=" + bench.root("rx") + " " + kBin + "amctl dump d3 --timeout 5 2>/dev/null | awk '"
      "/^pid:/ { mine = 0 } index($0, \"pcm_name=hw:1,0,\") { mine = 1 } "
      "mine && /latencyCnt=/ { n = split($0, kv, \",\"); for (i = 1; i <= n; i++) { split(kv[i], p, \"=\"); f[p[1]] = p[2] } } "
      "mine && /^arrChunkNum\\[/ { split($0, p, /[][=]/); hist[p[2]] = p[4] } "
      "END { cnt = f[\"latencyCnt\"] + 0; q = cnt > 0 ? hist[(cnt - 1) % 100] : f[\"lastAdjustAvg\"]; "
      "if (q == \"\") q = -1; printf \"%d\\n\", q }'").c_str());
}

// Samples once a second until `done`; kept beside the build (clock_300.txt) for the demo's plot.
std::vector<Sample> sample_clock(const Bench& bench, const std::function<bool(const std::vector<Sample>&)>& done) {
  const std::string kept = kBin + "../clock_" + std::to_string(kCardPpm) + ".txt";
  std::ofstream out(kept);
  out << "# seconds queued_frames clock_ppm\n";
  std::vector<Sample> samples;
  const auto t0 = std::chrono::steady_clock::now();
  do {
    usleep(1000 * 1000);
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    samples.push_back({std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count(),
                       static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9, queued(bench),
                       std::atof(am_test::output_of(kBin + "demo_probe clock " + bench.root("rx") + "/dev/i2c-1 1 48000").c_str())});
    out << samples.back().t << " " << samples.back().frames << " " << samples.back().ppm << "\n" << std::flush;
  } while (!done(samples) && samples.back().t <= kMaxRunS);
  std::system(("cp " + bench.root("rx") + "/tmp/audio_manager.log " + kept + ".log 2>/dev/null").c_str());
  std::printf("queued audio and clock adjustment: %s (the receiver's log beside it)\n", kept.c_str());
  return samples;
}

// The card's pace between monotonic times t0 and t1 from its time log, in ppm off 48 kHz (NaN
// without data), over consecutive lines 1/10 s of audio apart (an underrun's lines left out).
double card_pace_ppm(const std::string& timelog, double t0, double t1) {
  std::vector<std::pair<double, double>> points;
  std::istringstream in(timelog);
  for (double frame, ns; in >> frame >> ns;) points.emplace_back(frame, ns / 1e9);
  double frames = 0.0, seconds = 0.0;
  for (size_t i = 1; i < points.size(); ++i) {
    if (points[i - 1].second < t0 || points[i].second > t1 || points[i].first - points[i - 1].first != kRate / 10) continue;
    frames += points[i].first - points[i - 1].first;
    seconds += points[i].second - points[i - 1].second;
  }
  return seconds < (t1 - t0) / 2 ? NAN : (frames / seconds / kRate - 1.0) * 1e6;
}

// Steering slows the card (at least one step, negative on average), the card follows the
// programmed clock, the queue stays within (low, high): each sample within a chunk of the bounds
// (one taken while a write was late), the median of three within them; one run, no overflow.
void expect_steered(const Bench& bench, const std::vector<Sample>& samples, int runs_at_start, double low, double high) {
  ASSERT_FALSE(samples.empty());
  double extreme = 0.0, mean = 0.0;
  for (size_t i = 0; i < samples.size(); ++i) {
    const Sample& s = samples[i];
    extreme = std::max(extreme, -s.ppm);
    mean -= s.ppm / static_cast<double>(samples.size());
    if (s.frames < 0) continue;
    EXPECT_TRUE(s.frames > low - kChunkFrames && s.frames < high + kChunkFrames) << s.frames << " queued at " << s.t;
    if (i < 2 || samples[i - 1].frames < 0 || samples[i - 2].frames < 0) continue;
    long three[] = {samples[i - 2].frames, samples[i - 1].frames, s.frames};
    std::sort(three, three + 3);
    EXPECT_TRUE(three[1] > low && three[1] < high) << "median " << three[1] << " queued at " << s.t;
  }
  EXPECT_GE(extreme, kPpmPerStep - 0.5) << "at least one step against the offset reached the chip";
  EXPECT_GT(mean, 0.0) << "on average against the offset";
  // Over every stretch of four samples or more with one adjustment, the card runs at its own
  // error plus that adjustment (it re-reads the synthesiser within 100 ms: 200 ms skipped).
  const std::string timelog = am_test::read_file(bench.root("rx") + "/tmp/bench/played.timelog");
  int adjusted = 0;
  for (size_t i = 0, j = 0; i < samples.size(); i = j + 1) {
    for (j = i; j + 1 < samples.size() && samples[j + 1].ppm == samples[i].ppm;) ++j;
    if (j - i < 3) continue;
    EXPECT_NEAR(kCardPpm + samples[i].ppm, card_pace_ppm(timelog, samples[i].mono + 0.2, samples[j].mono),
                kPaceTolerancePpm) << "from " << samples[i].t << " s to " << samples[j].t << " s";
    adjusted += samples[i].ppm != 0.0 ? 1 : 0;
  }
  EXPECT_GE(adjusted, 1) << "a stretch with the clock adjusted was measured";
  // The steering's cadence lets the queue fall to 15-20 ms, where a late wake-up underruns.
  std::printf("%d underruns in %.0f s of streaming\n", bench.underruns(), samples.back().t);
  EXPECT_LE(bench.underruns(), static_cast<int>(samples.back().t / kSecondsPerUnderrun));
  EXPECT_EQ(0, am_test::count(bench.log("rx"), "buffer is full"));
  EXPECT_EQ(runs_at_start, bench.runs()) << "one run from start to end";
}

// The raw protocol: remove the marker, write the bytes, wait for the marker, read the dump.
bool request(const Bench& b, const std::string& word, std::string* dump) {
  const std::string tmp = b.root("tx") + "/tmp/";
  unlink((tmp + "request-ok").c_str());
  const int fd = open((tmp + "request").c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return false;
  const bool written = write(fd, word.data(), word.size()) == static_cast<ssize_t>(word.size());
  close(fd);
  if (!written || !am_test::wait_for([&] { return access((tmp + "request-ok").c_str(), F_OK) == 0; }, kDumpTimeoutMs))
    return false;
  *dump = am_test::read_file(tmp + "dump-status.txt");
  return true;
}

// The transmitter's debug pipe: its path blocked at start is retried with a pause, then served.
void walk_debug_pipe(const Bench& bench, double blocked_s) {
  const std::string tmp = bench.root("tx") + "/tmp/";
  const int failures = am_test::count(bench.log("tx"), "mkfifo ");
  EXPECT_TRUE(failures >= 1 && failures < 10 * (blocked_s + 1)) << failures << ": retried, with pauses between attempts";
  ASSERT_EQ(0, std::system(("rm -rf " + tmp + "request").c_str()));
  struct stat st;
  ASSERT_TRUE(am_test::wait_for([&] { return stat((tmp + "request").c_str(), &st) == 0 && S_ISFIFO(st.st_mode); },
                                kDumpTimeoutMs));
  std::string dump;
  ASSERT_TRUE(request(bench, "DUMP", &dump));
  size_t at = 0;
  for (const char* section : {"dump misc param begin", "dump aplay param begin", "dump fpga param begin"})
    EXPECT_NE(at = dump.find(section, at == std::string::npos ? 0 : at), std::string::npos) << section << "\n" << dump;
  // The sending engine's record, every field of it: its destination, the header's controller bytes.
  for (const char* field : {":59300,net_port=", "Input_Controller=[00,00,00,00,00,00,00,00]", "mutexLatency="})
    EXPECT_NE(dump.find(field), std::string::npos) << field;
  // d4 and a newline: the FPGA section alone, from the bus; of the sinks 0x52 enables only 0x11.
  const int fd = open((bench.root("tx") + "/dev/i2c-2").c_str(), O_WRONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  for (const auto& [reg, value] : std::vector<std::pair<int, uint8_t>>{{0x52, 0x40}, {0x11, 0x02}, {0x19, 0x02}})
    ASSERT_EQ(1, pwrite(fd, &value, 1, kFpgaRegisterBase + reg));
  close(fd);
  ASSERT_TRUE(request(bench, "d4\n", &dump));
  EXPECT_EQ(0u, dump.rfind("dump fpga param begin\n", 0)) << dump;
  EXPECT_EQ(std::string::npos, dump.find("dump misc param begin"));
  EXPECT_NE(std::string::npos, dump.find("[0x11][I2S_Mux_PCM5122] <-- [0x2][PCM1804] mute:0\n")) << dump;
  EXPECT_NE(std::string::npos, dump.find("[0x19][SPDIF_Mux] <-- [0x2][SPDIF-I] mute:")) << dump;
  for (int reg = 0x10; reg <= 0x17; ++reg) {
    const size_t line = dump.find("[0x" + std::to_string(reg / 16) + std::to_string(reg % 16) + "][");
    ASSERT_NE(line, std::string::npos) << reg;
    EXPECT_TRUE(reg == 0x11 || dump.substr(line, dump.find('\n', line) - line).find("mute:1") != std::string::npos) << reg;
  }
  ASSERT_TRUE(request(bench, "d12", &dump));
  EXPECT_EQ(0u, dump.rfind("dump misc param begin\n", 0)) << dump;
  EXPECT_EQ(std::string::npos, dump.find("dump fpga param begin"));
  ASSERT_TRUE(am_test::write_file(tmp + "dump-status.txt", "left alone\n"));
  ASSERT_TRUE(request(bench, "status please", &dump));
  EXPECT_EQ(dump, "left alone\n") << "an unknown word only recreates the marker";
  // amctl dump serves every word, also in quick succession.
  const std::pair<const char*, const char*> first_lines[] = {
      {"d1", "dump misc param begin"}, {"d2", ""}, {"d3", ""}, {"d4", "dump fpga param begin"}, {"d0", "dump misc param begin"}};
  for (int round = 0; round < 2; ++round) {
    for (const auto& [word, first] : first_lines) {
      int status = -1;
      const std::string out = bench.amctl("tx", std::string("dump ") + word + " --timeout 20", &status);
      EXPECT_EQ(status, 0) << word << ": " << out;
      EXPECT_EQ(out, am_test::read_file(tmp + "dump-status.txt")) << word;
      EXPECT_EQ(0u, out.rfind(first, 0)) << word << ":\n" << out;
    }
  }
}

// Played so far: a copy of the pattern, nothing bridged with silence, jumps only where a device
// ran over (the receiver drops a chunk, the sender's ring is reset).
void expect_bit_exact(const Bench& bench, long min_frames) {
  const std::string snap = bench.root("played.snap");
  ASSERT_TRUE(am_test::write_file(snap, am_test::read_file(bench.played_path())));
  auto verify = am_test::key_values(
      am_test::output_of(kBin + "demo_probe verify --received " + snap + " --rate 48000 --channels 2 --size 24"), "VERIFY");
  EXPECT_GE(std::atol(verify["frames"].c_str()), min_frames);
  EXPECT_EQ(verify["corrupt"], "0");
  EXPECT_EQ(verify["silenced"], "0");
  EXPECT_LE(std::atol(verify["skips"].c_str()), bench.underruns() + bench.count("tx", "oVerrun!!!"));
}

// Cards that fail 200 periods into each open (set at start): each run ends on the error, the worker
// starts the next, until a second command stops it (the last run ends too). Unplugged: rx card 2
// (plays stream 0 too), tx card 3 (sends stream 1); rx capture cards 3 and 2 fail with -EIO and
// -EBADFD. Stalled, rx playback card 3: the ring fills, the run ends and the next starts (never
// held by the card's drain). Stalled, tx card 2 (stream 2): the run waits in 100 ms steps until
// the next command (a new group) ends it and a new one starts.
void walk_card_faults(const Bench& bench) {
  struct Row { const char *board, *start, *stop, *error, *device; bool capture; };
  for (const Row& row : {Row{"rx", "from-net 02000000a001 2", "from-net 000000000000 2", "write error: hw:2,0,No such device, aborting", "hw:2,0", false},
                         Row{"tx", "to-net 1 analog 02000000c001", "to-net 1 analog", "read error: hw:3,0,No such device, aborting", "hw:3,0", true},
                         Row{"rx", "to-net 1 analog 02000000d001", "to-net 1 analog", "read error: hw:3,0,Input/output error, aborting", "hw:3,0", true},
                         Row{"rx", "to-net 2 analog 02000000d002", "to-net 2 analog", "read error: hw:2,0,File descriptor in bad state, aborting", "hw:2,0", true},
                         Row{"rx", "from-net 02000000a001 1", "from-net 000000000000 1", "buffer is full, aborting", "hw:3,0", false}}) {
    SCOPED_TRACE(row.error);
    const std::string begins = std::string(row.capture ? "qb_audio_oper_capture," : "qb_audio_oper_playback,") + row.device + ",";
    const std::string ends = row.capture ? std::string("qb_audio_oper_capture ") + row.device + " ret=" : std::string("qb_audio_oper_playback ") + row.device + " end";
    const int errors = bench.count(row.board, row.error), runs = bench.count(row.board, begins);
    ASSERT_EQ(0, bench.command(row.board, row.start));
    ASSERT_TRUE(am_test::wait_for([&] { return bench.count(row.board, row.error) > errors + 1; }, 60000));
    EXPECT_TRUE(am_test::wait_for([&] { return bench.count(row.board, begins) > runs + 2; }, 20000, 200));
    ASSERT_EQ(0, bench.command(row.board, row.stop));
    EXPECT_TRUE(am_test::wait_for([&] { return bench.count(row.board, ends) == bench.count(row.board, begins); }, 20000, 200));
  }
  const std::string starts = "qb_audio_oper_capture,hw:2,0,", waits = "wait 100 ms r = -11 count = ";
  ASSERT_EQ(0, bench.command("tx", "to-net 2 analog 02000000b001"));
  ASSERT_TRUE(am_test::wait_for([&] { return bench.count("tx", waits) >= 10; }, 30000, 200));
  EXPECT_EQ(1, bench.count("tx", starts));
  ASSERT_EQ(0, bench.command("tx", "to-net 2 analog 02000000b002"));  // a new group: the run ends
  EXPECT_TRUE(am_test::wait_for([&] { return bench.count("tx", starts) == 2; }, 20000, 200));
  EXPECT_EQ(1, bench.count("tx", "qb_audio_oper_capture hw:2,0 ret=-1 stop"));
  ASSERT_EQ(0, bench.command("tx", "to-net 2 analog"));
}

// The sender frozen for 5 s, then a hostile sender in its namespace floods the group with
// datagrams too short or longer than their header says: one receiving run throughout, every
// datagram of the flood dropped, the card fed at least half as fast as it plays.
void walk_sender_faults(const Bench& bench) {
  const int runs = bench.runs(), tx = bench.daemon_pid("tx");
  ASSERT_EQ(0, kill(tx, SIGSTOP));
  usleep(5000 * 1000);
  ASSERT_EQ(0, kill(tx, SIGCONT));
  ASSERT_TRUE(am_test::wait_for([&, resumed = bench.played_bytes()] { return bench.played_bytes() > resumed + 48000 * 8; }, 20000));
  am_test::NsSocket hostile("amb" + std::to_string(getpid()) + "-tx");
  const size_t sizes[] = {40, 56, 156};  // all bytes 0xFF: shorter than a header, or not its size + 56
  const long before = bench.played_bytes();
  const auto t0 = std::chrono::steady_clock::now();
  for (int burst = 0; burst < kFloodBursts; ++burst, usleep(10000))
    for (int i = 0; i < kFloodBurst; ++i) ASSERT_TRUE(hostile.send(kGroup, 59300, std::vector<uint8_t>(sizes[i % 3], 0xFF)));
  const double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  EXPECT_GT(bench.played_bytes() - before, secs * kRate * 8 / 2);
  EXPECT_GE(bench.count("rx", "less then head=56") + bench.count("rx", "add head=56"), kFloodBursts * kFloodBurst / 2);
  EXPECT_EQ(runs, bench.runs());
  usleep(1000 * 1000);
  expect_bit_exact(bench, static_cast<long>(secs * kRate));
}

TEST(StreamBoards, BitExactDebugPipeFastCardSteeredFaultsXrunAndSigterm) {
  if (!am_test::have_netns()) GTEST_SKIP() << "needs root and network namespaces";
  Bench bench;
  const auto t_blocked = std::chrono::steady_clock::now();
  ASSERT_EQ("", bench.start(" --env AMSIM_RATE_PPM_PLAY1=300 --env AMSIM_TIMELOG_PLAY1=/tmp/bench/played.timelog",
                            [&] { am_test::make_dirs(bench.root("tx") + "/tmp/request/blocked"); }))
      << am_test::read_file(bench.root("board.out"));
  const int runs_at_start = bench.runs();
  ASSERT_GE(runs_at_start, 1);
  {
    SCOPED_TRACE("the receiver plays a bit-exact copy of the transmitter's pattern");
    usleep(2000 * 1000);
    expect_bit_exact(bench, 48000);
  }
  walk_debug_pipe(bench, std::chrono::duration<double>(std::chrono::steady_clock::now() - t_blocked).count());
  {
    SCOPED_TRACE("clock steering slows a +300 ppm card; its drift never empties the queue");
    const double drift = kRate * kCardPpm * 1e-6;
    long f0 = -1;
    const auto samples = sample_clock(bench, [&](const std::vector<Sample>& s) {
      if (f0 <= 0 && s.back().frames > 0) f0 = s.back().frames;
      return f0 > 0 && s.back().t > f0 / drift + 10.0;
    });
    ASSERT_GT(f0, 0);
    ASSERT_GT(samples.back().t, f0 / drift) << "the run outlasted the unsteered queue (" << f0 << " frames)";
    expect_steered(bench, samples, runs_at_start, 2 * kChunkFrames, kBufferFrames);
  }
  walk_card_faults(bench);
  walk_sender_faults(bench);
  {
    SCOPED_TRACE("a stalled playback card is recovered in place");
    const std::string recovered = "prepare ok after xrun, continue";
    const int before = bench.count("rx", recovered), runs_before = bench.runs();
    ASSERT_TRUE(am_test::make_dirs(bench.root("rx") + "/tmp/amsim") &&
                am_test::write_file(bench.root("rx") + "/tmp/amsim/play1.stall", std::to_string(kStallMs) + "\n"));
    ASSERT_TRUE(am_test::wait_for([&] { return am_test::count(bench.log("rx"), recovered) > before; }, 10000, 50));
    const long played_at_recovery = bench.played_bytes();
    const std::string log = bench.log("rx");
    // The trigger stamp is on the monotonic clock ("uNderrun") and is the xrun's, not the start's.
    const std::string underrun = "hw:1,0 -- uNderrun!!! (at least ";
    const size_t under = log.rfind(underrun);
    ASSERT_NE(std::string::npos, under) << log.substr(log.size() > 4000 ? log.size() - 4000 : 0);
    EXPECT_EQ(0, am_test::count(log, "undErrun")) << "never the time-of-day form";
    const double underrun_ms = std::atof(log.c_str() + under + underrun.size());
    EXPECT_TRUE(underrun_ms >= 0.0 && underrun_ms < 5000.0) << underrun_ms;
    const size_t past = log.rfind(" millseconds past from start to xrun trigger");
    ASSERT_NE(std::string::npos, past);
    EXPECT_GT(std::atof(log.c_str() + log.find_last_not_of("0123456789", past - 1) + 1), 1000.0);
    EXPECT_TRUE(am_test::wait_for([&] { return bench.played_bytes() > played_at_recovery + 48000 * 8; }, 10000, 100))
        << "a further second of audio played after the recovery";
    EXPECT_EQ(runs_before, bench.runs()) << "the same run goes on";
  }
  SCOPED_TRACE("SIGTERM to both streaming daemons: status 0 within two seconds");
  for (const char* name : {"rx", "tx"}) {
    const int pid = bench.daemon_pid(name);
    ASSERT_TRUE(pid > 0 && kill(pid, SIGTERM) == 0) << name << " " << pid;
    const auto t0 = std::chrono::steady_clock::now();
    // The board's watcher reaps the daemon; until then the pid answers signal 0.
    ASSERT_TRUE(am_test::wait_for([&] { return kill(pid, 0) != 0 && !bench.daemon_status(name).empty(); }, 10000, 5));
    const long ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0).count();
    std::printf("SIGTERM to exit, %s: %ld ms\n", name, ms);
    EXPECT_LT(ms, kStopLimitMs) << name;
    EXPECT_EQ("0", bench.daemon_status(name)) << name;
  }
}

}  // namespace
