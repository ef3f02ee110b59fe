// amctl as a user and the daemon see it: the exact command datagram of every sub-command, help,
// refusals with a message and exit status 2, and the tool sub-commands (watch's report printing,
// the debug-pipe exchange of dump, the status files of genlock).
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "../../tools/amctl.h"
#include "am_test_env.h"
#include "qb_audio_parse.h"
#include "qb_socket.h"

namespace {

struct Outcome {
  int status = -1;
  std::string out, err;
};

// amctl_main with the given words after the program name; stdout and stderr captured.
Outcome amctl(std::vector<std::string> words) {
  words.insert(words.begin(), "amctl");
  std::vector<char*> argv;
  for (std::string& w : words) argv.push_back(&w[0]);
  argv.push_back(nullptr);
  Outcome r;
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  r.status = amctl_main(static_cast<int>(words.size()), argv.data());
  fflush(stdout);
  r.err = testing::internal::GetCapturedStderr();
  r.out = testing::internal::GetCapturedStdout();
  return r;
}

int bound_port(int fd) {
  sockaddr_in addr{};
  socklen_t len = sizeof addr;
  return getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0 ? ntohs(addr.sin_port) : -1;
}

// Little-endian words, raw bytes and zero-padded text fields, appended in order.
struct Bytes {
  std::vector<uint8_t> b;
  Bytes& u32(uint32_t v) {
    for (int i = 0; i < 4; ++i) b.push_back(static_cast<uint8_t>(v >> (8 * i)));
    return *this;
  }
  Bytes& raw(std::initializer_list<uint8_t> bytes) {
    b.insert(b.end(), bytes);
    return *this;
  }
  Bytes& text(const std::string& t, size_t width) {
    for (size_t i = 0; i < width; ++i) b.push_back(i < t.size() ? static_cast<uint8_t>(t[i]) : 0);
    return *this;
  }
};
Bytes w(std::initializer_list<uint32_t> words) {
  Bytes b;
  for (uint32_t v : words) b.u32(v);
  return b;
}

// A 20-byte format record after the channel id: on, code, channels, size, io_in_use 2, three
// zeros, type, S/PDIF flag, InfoFrame bytes, channel-status bytes.
Bytes channel_info(uint32_t ch, uint8_t on, uint8_t code, uint8_t chans, uint8_t size, uint8_t type, uint8_t spdif,
                   std::initializer_list<uint8_t> aud_db, std::initializer_list<uint8_t> ch_stat) {
  return w({ch}).raw({on, code, chans, size, 2, 0, 0, 0, type, spdif}).raw(aud_db).raw(ch_stat);
}

constexpr uint16_t kGet = 1, kSet = 2, kNotify = 3;
struct DatagramCase {
  const char* name;
  std::vector<std::string> words;
  uint16_t id, op;
  Bytes payload;
};
void PrintTo(const DatagramCase& c, std::ostream* os) { *os << c.name; }

const std::vector<DatagramCase> kDatagrams = {
    {"src_mac", {"src-mac", "00:11:22:3F:44:55"}, 1, kSet, Bytes().text("0011223f4455", 13)},
    {"src_mac_get", {"src-mac", "--get"}, 1, kGet, {}},
    {"input_level", {"input-level", "2"}, 14, kSet, w({2})},
    {"mute_analog_on", {"mute", "analog", "on"}, 2, kSet, w({0, 1, 1})},
    {"mute_dsp_off_enable0", {"mute", "dsp", "off", "--enable", "0"}, 2, kSet, w({5, 0, 0})},
    {"mute_get", {"mute", "--get", "hdmi"}, 2, kGet, w({1, 0, 0})},
    {"latency_hdmi", {"latency", "hdmi", "0x1234"}, 3, kSet, w({1, 0x1234})},
    {"latency_earc", {"latency", "3", "100"}, 3, kSet, w({3, 100})},
    {"output_src", {"output-src", "analog", "stream"}, 4, kSet, w({0, 4})},
    {"output_src_downmix", {"output-src", "spdif", "hdmiDownmix"}, 4, kSet, w({2, 6})},
    {"output_src_get", {"output-src", "--get", "earc", "hdmi"}, 4, kGet, w({3, 1})},
    {"downmix", {"downmix", "spdif", "7"}, 5, kSet, w({2, 7})},
    {"volume", {"volume", "30"}, 6, kSet, w({30})},
    {"volume_get", {"volume", "--get"}, 6, kGet, w({0})},
    {"output_vrms", {"output-vrms", "2"}, 7, kSet, w({2})},
    {"channel_info_default", {"channel-info", "analog"}, 8, kNotify,
     channel_info(1, 1, 2, 2, 24, 0x80, 0, {1, 0, 0, 0, 0}, {0, 0, 2, 2, 0x0B})},
    {"channel_info_format", {"channel-info", "nsi3", "--rate", "44100", "--channels", "8", "--size", "16"}, 8, kNotify,
     channel_info(7, 1, 0, 8, 16, 0x80, 0, {7, 0, 0, 0, 0}, {0, 0, 2, 0, 0x02})},
    {"channel_info_nlpcm", {"channel-info", "hdmi", "--type", "nlpcm", "--rate", "192000", "--spdif"}, 8, kNotify,
     channel_info(3, 1, 14, 2, 24, 0x90, 1, {1, 0, 0, 0, 0}, {2, 1, 2, 14, 0x0B})},
    {"channel_info_bytes", {"channel-info", "4", "--off", "--aud-db", "0x11,2,3,4,5", "--ch-stat", "6,7,8,9,0xff"}, 8,
     kNotify, channel_info(4, 0, 2, 2, 24, 0x80, 0, {0x11, 2, 3, 4, 5}, {6, 7, 8, 9, 0xFF})},
    {"stream_in", {"stream-in", "analog", "0"}, 9, kSet, w({0, 0, 0xFFFFFFFF})},
    {"stream_in_fallback", {"stream-in", "hdmi", "2", "1"}, 9, kSet, w({1, 2, 1})},
    {"from_net", {"from-net", "02:00:00:00:00:01", "1"}, 10, kSet, Bytes().text("020000000001", 16).u32(0).u32(1)},
    {"from_net_stream_id", {"from-net", "0011223F0000", "2", "--stream-id", "-3"}, 10, kSet,
     Bytes().text("0011223f0000", 16).u32(0xFFFFFFFD).u32(2)},
    {"to_net", {"to-net", "0", "analog", "02-00-00-00-00-01"}, 11, kSet, w({0, 0}).text("020000000001", 16)},
    {"to_net_no_mac", {"to-net", "1", "earc"}, 11, kSet, w({1, 3}).text("", 16)},
    {"cec_dotted", {"cec-addr", "1.2.0.0"}, 12, kSet, w({0x1200})},
    {"cec_number", {"cec-addr", "0x3000"}, 12, kSet, w({0x3000})},
    {"it6621_mode", {"it6621-mode", "2"}, 13, kSet, w({2})},
    {"monitor", {"monitor", "disconnected"}, 15, kSet, w({0})},
    {"fallback", {"fallback", "earc", "2"}, 16, kSet, w({3, 0, 2})},
    {"fallback_none", {"fallback", "spdif", "none"}, 16, kSet, w({2, 0, 0xFFFFFFFF})},
    {"details", {"details"}, 17, kGet, w({46})},
    {"details_mask", {"details", "0xFFFF"}, 17, kGet, w({0xFFFF})},
    {"earc_enable", {"earc-enable", "earc", "on", "--only-arc"}, 18, kSet, w({3, 1, 1})},
    {"earc_disable", {"earc-enable", "earc", "off"}, 18, kSet, w({3, 0, 0})},
    {"earc_onlyarc", {"earc-onlyarc", "on"}, 19, kSet, w({1})},
};

class AmctlDatagram : public testing::TestWithParam<DatagramCase> {};

// One datagram: outer type 2 and length 8 + n, operation (low half) and command id (high half),
// length n, payload.
TEST_P(AmctlDatagram, SendsTheMessageLayout) {
  const DatagramCase& c = GetParam();
  am_test::UdpReceiver receiver(0);
  ASSERT_TRUE(receiver.ok());
  std::vector<std::string> words = {"--port", std::to_string(bound_port(receiver.fd()))};
  words.insert(words.end(), c.words.begin(), c.words.end());
  const Outcome r = amctl(words);
  ASSERT_EQ(r.status, AMCTL_EXIT_OK) << r.err;
  EXPECT_EQ(r.err, "");
  const auto n = static_cast<uint32_t>(c.payload.b.size());
  Bytes want = w({2, 8 + n, static_cast<uint32_t>(c.id) << 16 | c.op, n});
  want.b.insert(want.b.end(), c.payload.b.begin(), c.payload.b.end());
  std::vector<uint8_t> got;
  ASSERT_TRUE(receiver.receive(&got, 2000));
  EXPECT_EQ(amctl_hex(got.data(), static_cast<int>(got.size())), amctl_hex(want.b.data(), static_cast<int>(want.b.size())));
  EXPECT_FALSE(receiver.receive(&got, 50)) << "one datagram per command";
}

INSTANTIATE_TEST_SUITE_P(EveryCommand, AmctlDatagram, testing::ValuesIn(kDatagrams),
                         [](const testing::TestParamInfo<DatagramCase>& i) { return i.param.name; });

// Every row of the daemon's dispatch table has a sub-command that reaches it; --dry-run prints the
// bytes and sends nothing; -v prints and sends.
TEST(Amctl, EveryCommandDryRunAndVerbose) {
  std::vector<bool> covered(QB_AUDIO_CMD_MAX, false);
  for (const DatagramCase& c : kDatagrams) covered[c.id] = true;
  const qb_audio_cmd_operation_t* table = qb_audio_cmd_table_get();
  for (int row = 0; table[row].id != 0; ++row) EXPECT_TRUE(covered[table[row].id]) << "command " << table[row].id;
  am_test::UdpReceiver receiver(0);
  ASSERT_TRUE(receiver.ok());
  const std::string port = std::to_string(bound_port(receiver.fd()));
  Outcome r = amctl({"--port", port, "--dry-run", "mute", "analog", "off"});
  EXPECT_EQ(r.status, AMCTL_EXIT_OK);
  EXPECT_EQ(r.out, "02 00 00 00 14 00 00 00 02 00 02 00 0C 00 00 00 00 00 00 00 01 00 00 00 00 00 00 00\n");
  std::vector<uint8_t> got;
  EXPECT_FALSE(receiver.receive(&got, 100));
  r = amctl({"-v", "volume", "7", "--port", port});
  EXPECT_EQ(r.status, AMCTL_EXIT_OK);
  EXPECT_EQ(r.out, "02 00 00 00 0C 00 00 00 02 00 06 00 04 00 00 00 07 00 00 00\nsent 20 bytes to 127.0.0.1:" + port + "\n");
  EXPECT_TRUE(receiver.receive(&got, 2000));
}

// Help for every sub-command (also as "help NAME"), listed in the general help.
TEST(Amctl, EverySubCommandHasHelp) {
  const Outcome all = amctl({"--help"});
  EXPECT_EQ(all.status, AMCTL_EXIT_OK);
  for (const char* name : {"src-mac", "input-level", "mute", "latency", "output-src", "downmix", "volume", "output-vrms",
                           "channel-info", "stream-in", "from-net", "to-net", "cec-addr", "it6621-mode", "monitor",
                           "fallback", "details", "earc-enable", "earc-onlyarc", "watch", "dump", "genlock"}) {
    const Outcome r = amctl({name, "--help"});
    EXPECT_EQ(r.status, AMCTL_EXIT_OK) << name;
    EXPECT_EQ(r.out.rfind(std::string("usage: amctl ") + name, 0), 0U) << name << ": " << r.out;
    EXPECT_EQ(amctl({"help", name}).out, r.out) << name;
    EXPECT_NE(all.out.find(std::string("\n  ") + name), std::string::npos) << name;
  }
}

TEST(Amctl, BadArgumentsFailWithAMessage) {
  const struct {
    std::vector<std::string> words;
    const char* message;  // part of the error line
  } cases[] = {
      {{}, "usage: amctl"}, {{"frobnicate"}, "unknown command 'frobnicate'"}, {{"mute", "analog"}, "missing on|off"},
      {{"mute", "analog", "maybe"}, "expected on|off"}, {{"mute", "tv", "on"}, "PORT 'tv': not a port"},
      {{"mute", "analog", "on", "extra"}, "unexpected argument 'extra'"},
      {{"mute", "analog", "on", "--enable"}, "--enable needs a value"},
      {{"mute", "analog", "on", "--loud"}, "unknown option --loud"},
      {{"latency", "stream", "5"}, "PORT 'stream': not a port here"},
      {{"latency", "hdmi", "40000"}, "TIME '40000': expected a number in 0-32767"},
      {{"latency", "hdmi", "12abc"}, "expected a number"}, {{"output-src", "analog", "radio"}, "SOURCE 'radio': not a source"},
      {{"downmix", "analog", "1"}, "not a port here"}, {{"input-level", "3"}, "expected a number in 1-2"},
      {{"volume", "-1"}, "expected a number"}, {{"src-mac", "0011223344"}, "not a MAC address"},
      {{"src-mac", "00:11:22:33:44:5G"}, "not a MAC address"}, {{"src-mac", "00:11:22:33:44:55:66"}, "not a MAC address"},
      {{"src-mac"}, "missing MAC"}, {{"to-net", "3", "analog"}, "SID '3': not a stream id (0-2)"},
      {{"to-net", "0", "analog", "nomac"}, "not a MAC address"}, {{"from-net", "020000000001"}, "missing SID"},
      {{"stream-in", "hdmi", "1", "7"}, "not a stream id (-1-2, none)"}, {{"channel-info", "nsispdif"}, "CHANNEL 'nsispdif'"},
      {{"channel-info", "analog", "--rate", "12345"}, "--rate '12345': not a sample rate"},
      {{"channel-info", "analog", "--channels", "3"}, "expected 2, 4, 6 or 8"},
      {{"channel-info", "analog", "--size", "20"}, "expected 16 or 24"},
      {{"channel-info", "analog", "--type", "mp3"}, "expected lpcm, nlpcm, dsd, hbr"},
      {{"channel-info", "analog", "--aud-db", "1,2,3"}, "expected five bytes"},
      {{"cec-addr", "1.2.3"}, "not a CEC physical address"}, {{"details", "--get"}, "no get form"},
      {{"--port", "70000", "volume", "1"}, "--port '70000'"}, {{"dump", "d9"}, "expected dump, d0, d1, d2, d3, d4 or d5"},
      {{"watch", "--count", "0"}, "--count '0'"}, {{"genlock", "now"}, "unexpected argument 'now'"},
  };
  for (const auto& c : cases) {
    std::string line;
    for (const std::string& word : c.words) line += word + " ";
    const Outcome r = amctl(c.words);
    EXPECT_EQ(r.status, AMCTL_EXIT_USAGE) << line;
    EXPECT_NE(r.err.find(c.message), std::string::npos) << line << "\n" << r.err;
    EXPECT_EQ(r.out, "") << line;
  }
}

// ---- watch, dump, genlock -------------------------------------------------------------------------

std::vector<uint8_t> report_datagram(uint32_t inner_type, const std::string& text) {
  const auto n = static_cast<uint32_t>(text.size() + 1);
  return w({2, 8 + n, inner_type, n}).text(text, n).b;
}

// Reports are printed raw or pretty, drop events by name, anything else (or a length running past
// the datagram) as hex; the watch prints each datagram that arrives, and fails on a taken port or
// too few messages.
TEST(AmctlWatch, DescribesAndPrintsReports) {
  const std::string report = "{\"status\":{\"input\":[{\"port\":\"hdmi\",\"sampleFrequency\":48000}]}}\n";
  std::vector<uint8_t> d = report_datagram(0x00040502, report);
  EXPECT_EQ(amctl_describe_report(d.data(), static_cast<int>(d.size()), true),
            "report {\"status\":{\"input\":[{\"port\":\"hdmi\",\"sampleFrequency\":48000}]}}");
  const std::string pretty = amctl_describe_report(d.data(), static_cast<int>(d.size()), false);
  EXPECT_EQ(pretty.rfind("report\n{\n", 0), 0U) << pretty;
  EXPECT_NE(pretty.find("\"sampleFrequency\" : 48000"), std::string::npos) << pretty;
  const uint8_t junk[] = {1, 2, 3};
  EXPECT_EQ(amctl_describe_report(junk, 3, true), "unknown 01 02 03");
  d.resize(20);
  EXPECT_EQ(amctl_describe_report(d.data(), static_cast<int>(d.size()), true).rfind("unknown", 0), 0U);

  int port = 0;
  {
    am_test::UdpReceiver probe(0);
    ASSERT_TRUE(probe.ok());
    port = bound_port(probe.fd());
    const Outcome busy = amctl({"watch", "--port", std::to_string(port), "--timeout", "1"});
    EXPECT_EQ(busy.status, AMCTL_EXIT_FAIL);
    EXPECT_NE(busy.err.find("cannot listen on 127.0.0.1:" + std::to_string(port)), std::string::npos) << busy.err;
  }
  const std::vector<uint8_t> drop = report_datagram(0x40503, "{\"eventType\":\"DETAILS_CHANGED\"}");
  std::atomic<bool> stop{false};
  std::thread sender([&] {
    for (; !stop; std::this_thread::sleep_for(std::chrono::milliseconds(50))) {
      qb_udp_send_data("127.0.0.1", port, drop.data(), static_cast<int>(drop.size()));
    }
  });
  Outcome r = amctl({"watch", "--raw", "--count", "2", "--timeout", "20", "--port", std::to_string(port)});
  stop = true;
  sender.join();
  EXPECT_EQ(r.status, AMCTL_EXIT_OK) << r.err;
  EXPECT_EQ(r.out, "drop {\"eventType\":\"DETAILS_CHANGED\"}\ndrop {\"eventType\":\"DETAILS_CHANGED\"}\n");
  r = amctl({"watch", "--raw", "--port", std::to_string(port), "--count", "1", "--timeout", "1"});
  EXPECT_EQ(r.status, AMCTL_EXIT_FAIL);
  EXPECT_EQ(r.out, "");
}

// dump: a missing pipe or reader is explained; against a stand-in reader the word is written, the
// tool waits for the marker and prints the dump.
TEST(AmctlDump, DebugPipeExchange) {
  am_test::TempRoot root({"tmp"});
  ASSERT_TRUE(root.ok());
  const std::string fifo = root.at("/tmp/request");
  Outcome r = amctl({"dump"});
  EXPECT_EQ(r.status, AMCTL_EXIT_FAIL);
  EXPECT_NE(r.err.find("no debug pipe at " + fifo), std::string::npos) << r.err;
  ASSERT_EQ(mkfifo(fifo.c_str(), 0777), 0);
  r = amctl({"dump", "d1"});
  EXPECT_EQ(r.status, AMCTL_EXIT_FAIL);
  EXPECT_NE(r.err.find("nobody reads it"), std::string::npos) << r.err;
  ASSERT_TRUE(root.write("/tmp/request-ok", ""));  // left from an earlier request
  std::string word;
  std::thread daemon([&] {
    const int fd = open(fifo.c_str(), O_RDWR);
    char buf[64] = {};
    const ssize_t n = read(fd, buf, sizeof buf - 1);
    word.assign(buf, n > 0 ? static_cast<size_t>(n) : 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    am_test::write_file(root.at("/tmp/dump-status.txt"), "dump fpga param begin\n");
    am_test::write_file(root.at("/tmp/request-ok"), "");
    close(fd);
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));  // the stand-in opens the pipe
  r = amctl({"dump", "D4", "--timeout", "10"});
  daemon.join();
  EXPECT_EQ(r.status, AMCTL_EXIT_OK) << r.err;
  EXPECT_EQ(word, "D4");
  EXPECT_EQ(r.out, "dump fpga param begin\n");
}

TEST(AmctlGenlock, ShowsBothStatusFiles) {
  am_test::TempRoot root({"tmp"});
  ASSERT_TRUE(root.ok());
  Outcome r = amctl({"genlock"});
  EXPECT_EQ(r.status, AMCTL_EXIT_FAIL);
  EXPECT_NE(r.out.find("not present"), std::string::npos);
  ASSERT_TRUE(root.write("/tmp/genlock.json",
                         "{\"genlock\":{\"hdmi\":{\"fifoTotal\":4096,\"fifoUsed\":1024,\"ppmAdjusted\":-300,\"ppmMaxStep\":300},"
                         "\"analog\":{\"fifoTotal\":0,\"fifoUsed\":0,\"ppmAdjusted\":0,\"ppmMaxStep\":300},"
                         "\"earc/spdif\":{\"fifoTotal\":0,\"fifoUsed\":0,\"ppmAdjusted\":600,\"ppmMaxStep\":300}}}"));
  ASSERT_TRUE(root.write("/tmp/pktdrop.json",
                         "{\"audioDropInfo\":{\"stream0\":{\"bytesDropIn10\":0,\"bytesDropTotal\":0},"
                         "\"stream1\":{\"bytesDropIn10\":1500,\"bytesDropTotal\":4500},"
                         "\"stream2\":{\"bytesDropIn10\":0,\"bytesDropTotal\":0}}}"));
  r = amctl({"genlock"});
  EXPECT_EQ(r.status, AMCTL_EXIT_OK);
  for (const char* row : {"hdmi               4096       1024         -300         300",
                          "earc/spdif            0          0          600         300", "stream1                1500            4500"}) {
    EXPECT_NE(r.out.find(row), std::string::npos) << r.out;
  }
  EXPECT_NE(amctl({"genlock", "--json"}).out.find("\"bytesDropTotal\":4500"), std::string::npos);
}

}  // namespace
