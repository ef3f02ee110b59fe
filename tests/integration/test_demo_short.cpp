// The two-board demo in its short form (scripts/demo): a few seconds of streaming from a simulated
// transmitter to a simulated receiver and the summary it prints; its refusal of bad arguments.
// When the stream does not start at all (exit status 3) the test is skipped with that message.
#include "am_test_sys.h"

namespace {

constexpr int kDemoTimeoutMs = 240000;
constexpr int kStreamDidNotStart = 3;

struct DemoRun {
  int status = -1;
  std::string output;
  std::map<std::string, std::string> result;  // the DEMO_RESULT line's key=value pairs
};

DemoRun run_demo(const std::string& out_dir, const std::vector<std::string>& args) {
  std::vector<std::string> argv = {"bash", std::string(am_test::kSourceDir) + "/scripts/demo", "--out", out_dir};
  argv.insert(argv.end(), args.begin(), args.end());
  am_test::Process demo(argv, {"AM_BIN_DIR=" + std::string(am_test::kBinDir), "AM_LIB_DIR=" + std::string(am_test::kLibDir)},
                        "", out_dir + "/demo.out");
  DemoRun run;
  int status = 0;
  if (demo.wait_exit(kDemoTimeoutMs, &status) && WIFEXITED(status)) run.status = WEXITSTATUS(status);
  run.output = demo.output();
  run.result = am_test::key_values(run.output, "DEMO_RESULT ");
  return run;
}

long long number(const DemoRun& r, const std::string& key) {
  const auto it = r.result.find(key);
  return it == r.result.end() ? -1 : std::atoll(it->second.c_str());
}

// The short demo, clean and with 2 % loss through the relay: the clean run is bit-exact with
// nothing lost and writes the plot; the lossy run plays exactly the lost bytes as silence.
TEST(DemoShort, CleanRunIsBitExactAndLostDatagramsComeOutAsThatMuchSilence) {
  if (!am_test::have_netns()) GTEST_SKIP() << "needs root and network namespaces";
  const std::vector<std::pair<const char*, std::vector<std::string>>> runs = {
      {"clean", {"--seconds", "4"}}, {"lossy", {"--seconds", "4", "--loss", "2", "--seed", "3", "--ppm", "0"}}};
  for (const auto& [name, args] : runs) {
    SCOPED_TRACE(name);
    const bool lossy = std::string(name) == "lossy";
    am_test::TempRoot dir;
    ASSERT_TRUE(dir.ok());
    const DemoRun run = run_demo(dir.path(), args);
    if (run.status == kStreamDidNotStart) GTEST_SKIP() << "the demo's stream did not start (streaming engine not ready):\n" << run.output;
    ASSERT_EQ(run.status, 0) << run.output;
    ASSERT_FALSE(run.result.empty()) << run.output;
    EXPECT_EQ(number(run, "corrupt"), 0);
    // A playback underrun drops the chunk being written (and any silence in it); nothing else may.
    const long long underruns = number(run, "underruns");
    EXPECT_LE(number(run, "skips"), underruns) << run.output;
    if (!lossy) {
      EXPECT_EQ(run.result.at("ok"), "1");
      EXPECT_GE(number(run, "datagrams"), 1000) << "four seconds of 48 kHz stereo are about 1100 datagrams";
      EXPECT_EQ((std::vector<long long>{number(run, "dropped"), number(run, "lost_bytes"), number(run, "silenced")}), (std::vector<long long>{0, 0, 0}));
      if (underruns == 0) { EXPECT_EQ(run.result.at("bitexact"), "1") << run.output; }
      EXPECT_GE(std::atof(run.result.at("seconds").c_str()), 3.0);
      EXPECT_GT(std::atof(run.result.at("latency_ms").c_str()), 0.0) << run.output;
      const std::string plot = am_test::read_file(run.result.at("plot"));
      ASSERT_GT(plot.size(), 8u) << "plot " << run.result.at("plot");
      EXPECT_EQ(plot.substr(1, 3), "PNG");
      EXPECT_NE(am_test::read_file(dir.path() + "/demo-data.txt").find("\n4 "), std::string::npos);
      EXPECT_EQ(run.output.find("kept in"), std::string::npos) << "board namespaces and processes are gone";
      continue;
    }
    EXPECT_TRUE(number(run, "dropped") > 0 && number(run, "lost_bytes") > 0) << run.output;
    // Without an underrun every bridged byte is played, except what is left of the last chunk
    // when the stream stops (less than one 5 ms chunk stays in the receiver's staging buffer).
    const long long chunk_bytes = 48000 / 200 * 2 * 4;
    EXPECT_LE(number(run, "silenced") * 4, number(run, "lost_bytes")) << run.output;
    if (underruns == 0) { EXPECT_GT(number(run, "silenced") * 4, number(run, "lost_bytes") - chunk_bytes) << run.output; }
  }
}

TEST(DemoShort, BadArgumentsFailWithAMessage) {
  const std::vector<std::vector<std::string>> cases = {{"--rate", "12345"}, {"--ppm", "fast"}, {"--bogus"}};
  for (const std::vector<std::string>& args : cases) {
    std::vector<std::string> argv = {"bash", std::string(am_test::kSourceDir) + "/scripts/demo"};
    argv.insert(argv.end(), args.begin(), args.end());
    am_test::TempRoot dir;
    am_test::Process demo(argv, {}, "", dir.path() + "/out");
    int status = 0;
    ASSERT_TRUE(demo.wait_exit(20000, &status));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 2) << args[0];
    EXPECT_NE(demo.output().find("demo: "), std::string::npos) << args[0] << ": " << demo.output();
  }
}

}  // namespace
