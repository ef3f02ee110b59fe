// amctl as a user and the daemon see it: the exact command datagram of every sub-command, help,
// refusals with a message and exit status 2, and the tool sub-commands (watch's report printing,
// the debug-pipe exchange of dump, the status files of genlock).
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <sstream>
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

std::vector<std::string> split(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string word; in >> word;) out.push_back(word);
  return out;
}

// Bytes from fields: a number is a little-endian 32-bit word, "b:1,0x2" raw bytes, "sN:text" the
// text in an N-byte zero-padded field.
std::vector<uint8_t> le(const std::string& fields) {
  std::vector<uint8_t> b;
  for (const std::string& f : split(fields)) {
    if (f.rfind("b:", 0) == 0) {
      std::istringstream bytes(f.substr(2));
      for (std::string byte; std::getline(bytes, byte, ',');) b.push_back(static_cast<uint8_t>(std::stoul(byte, nullptr, 0)));
    } else if (f[0] == 's') {
      const size_t colon = f.find(':'), width = std::stoul(f.substr(1, colon - 1));
      const std::string text = f.substr(colon + 1);
      for (size_t i = 0; i < width; ++i) b.push_back(i < text.size() ? static_cast<uint8_t>(text[i]) : 0);
    } else {
      const auto v = static_cast<uint32_t>(std::stol(f, nullptr, 0));
      for (int i = 0; i < 4; ++i) b.push_back(static_cast<uint8_t>(v >> (8 * i)));
    }
  }
  return b;
}

constexpr uint16_t kGet = 1, kSet = 2, kNotify = 3;
struct DatagramCase {
  const char* words;
  uint16_t id, op;
  const char* payload;
};
void PrintTo(const DatagramCase& c, std::ostream* os) { *os << c.words; }

// Channel records (command 8): channel id, then on, code, channels, size, io_in_use 2, three zeros,
// type, S/PDIF flag, five InfoFrame bytes, five channel-status bytes.
const std::vector<DatagramCase> kDatagrams = {
    {"src-mac 00:11:22:3F:44:55", 1, kSet, "s13:0011223f4455"}, {"src-mac --get", 1, kGet, ""},
    {"input-level 2", 14, kSet, "2"},        {"mute analog on", 2, kSet, "0 1 1"},
    {"mute dsp off --enable 0", 2, kSet, "5 0 0"}, {"mute --get hdmi", 2, kGet, "1 0 0"},
    {"latency hdmi 0x1234", 3, kSet, "1 0x1234"},  {"latency 3 100", 3, kSet, "3 100"},
    {"output-src analog stream", 4, kSet, "0 4"},  {"output-src spdif hdmiDownmix", 4, kSet, "2 6"},
    {"output-src --get earc hdmi", 4, kGet, "3 1"}, {"downmix spdif 7", 5, kSet, "2 7"},
    {"volume 30", 6, kSet, "30"}, {"volume --get", 6, kGet, "0"}, {"output-vrms 2", 7, kSet, "2"},
    {"channel-info analog", 8, kNotify, "1 b:1,2,2,24,2,0,0,0,0x80,0,1,0,0,0,0,0,0,2,2,0x0B"},
    {"channel-info nsi3 --rate 44100 --channels 8 --size 16", 8, kNotify,
     "7 b:1,0,8,16,2,0,0,0,0x80,0,7,0,0,0,0,0,0,2,0,0x02"},
    {"channel-info hdmi --type nlpcm --rate 192000 --spdif", 8, kNotify,
     "3 b:1,14,2,24,2,0,0,0,0x90,1,1,0,0,0,0,2,1,2,14,0x0B"},
    {"channel-info 4 --off --aud-db 0x11,2,3,4,5 --ch-stat 6,7,8,9,0xff", 8, kNotify,
     "4 b:0,2,2,24,2,0,0,0,0x80,0,0x11,2,3,4,5,6,7,8,9,0xFF"},
    {"stream-in analog 0", 9, kSet, "0 0 -1"}, {"stream-in hdmi 2 1", 9, kSet, "1 2 1"},
    {"from-net 02:00:00:00:00:01 1", 10, kSet, "s16:020000000001 0 1"},
    {"from-net 0011223F0000 2 --stream-id -3", 10, kSet, "s16:0011223f0000 -3 2"},
    {"to-net 0 analog 02-00-00-00-00-01", 11, kSet, "0 0 s16:020000000001"}, {"to-net 1 earc", 11, kSet, "1 3 s16:"},
    {"cec-addr 1.2.0.0", 12, kSet, "0x1200"}, {"cec-addr 0x3000", 12, kSet, "0x3000"},
    {"it6621-mode 2", 13, kSet, "2"}, {"monitor disconnected", 15, kSet, "0"},
    {"fallback earc 2", 16, kSet, "3 0 2"}, {"fallback spdif none", 16, kSet, "2 0 -1"},
    {"details", 17, kGet, "46"}, {"details 0xFFFF", 17, kGet, "0xFFFF"},
    {"earc-enable earc on --only-arc", 18, kSet, "3 1 1"}, {"earc-enable earc off", 18, kSet, "3 0 0"},
    {"earc-onlyarc on", 19, kSet, "1"},
};

class AmctlDatagram : public testing::TestWithParam<DatagramCase> {};

// One datagram: outer type 2 and length 8 + n, operation (low half) and command id (high half),
// length n, payload.
TEST_P(AmctlDatagram, SendsTheMessageLayout) {
  const DatagramCase& c = GetParam();
  am_test::UdpReceiver receiver(0);
  ASSERT_TRUE(receiver.ok());
  const Outcome r = amctl(split("--port " + std::to_string(bound_port(receiver.fd())) + " " + c.words));
  ASSERT_EQ(r.status, AMCTL_EXIT_OK) << r.err;
  EXPECT_EQ(r.err, "");
  const std::vector<uint8_t> payload = le(c.payload);
  std::vector<uint8_t> want = le(std::to_string(2) + " " + std::to_string(8 + payload.size()) + " " +
                                 std::to_string(c.id << 16 | c.op) + " " + std::to_string(payload.size()));
  want.insert(want.end(), payload.begin(), payload.end());
  std::vector<uint8_t> got;
  ASSERT_TRUE(receiver.receive(&got, 2000));
  EXPECT_EQ(amctl_hex(got.data(), static_cast<int>(got.size())), amctl_hex(want.data(), static_cast<int>(want.size())));
  EXPECT_FALSE(receiver.receive(&got, 50)) << "one datagram per command";
}

INSTANTIATE_TEST_SUITE_P(EveryCommand, AmctlDatagram, testing::ValuesIn(kDatagrams),
                         [](const testing::TestParamInfo<DatagramCase>& i) {
                           std::string name = i.param.words;
                           for (char& ch : name) ch = isalnum(static_cast<unsigned char>(ch)) ? ch : '_';
                           return name;
                         });

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
  const std::pair<const char*, const char*> cases[] = {  // words, part of the error line
      {"", "usage: amctl"}, {"frobnicate", "unknown command 'frobnicate'"}, {"mute analog", "missing on|off"},
      {"mute analog maybe", "expected on|off"}, {"mute tv on", "PORT 'tv': not a port"},
      {"mute analog on extra", "unexpected argument 'extra'"}, {"mute analog on --enable", "--enable needs a value"},
      {"mute analog on --loud", "unknown option --loud"}, {"latency stream 5", "PORT 'stream': not a port here"},
      {"latency hdmi 40000", "TIME '40000': expected a number in 0-32767"}, {"latency hdmi 12abc", "expected a number"},
      {"output-src analog radio", "SOURCE 'radio': not a source"}, {"downmix analog 1", "not a port here"},
      {"input-level 3", "expected a number in 1-2"}, {"volume -1", "expected a number"},
      {"src-mac 0011223344", "not a MAC address"}, {"src-mac 00:11:22:33:44:5G", "not a MAC address"},
      {"src-mac 00:11:22:33:44:55:66", "not a MAC address"}, {"src-mac", "missing MAC"},
      {"to-net 3 analog", "SID '3': not a stream id (0-2)"}, {"to-net 0 analog nomac", "not a MAC address"},
      {"from-net 020000000001", "missing SID"}, {"stream-in hdmi 1 7", "not a stream id (-1-2, none)"},
      {"channel-info nsispdif", "CHANNEL 'nsispdif'"}, {"channel-info analog --rate 12345", "--rate '12345': not a sample rate"},
      {"channel-info analog --channels 3", "expected 2, 4, 6 or 8"}, {"channel-info analog --size 20", "expected 16 or 24"},
      {"channel-info analog --type mp3", "expected lpcm, nlpcm, dsd, hbr"},
      {"channel-info analog --aud-db 1,2,3", "expected five bytes"}, {"cec-addr 1.2.3", "not a CEC physical address"},
      {"details --get", "no get form"}, {"--port 70000 volume 1", "--port '70000'"},
      {"dump d9", "expected dump, d0, d1, d2, d3, d4 or d5"}, {"watch --count 0", "--count '0'"},
      {"genlock now", "unexpected argument 'now'"},
  };
  for (const auto& c : cases) {
    const Outcome r = amctl(split(c.first));
    EXPECT_EQ(r.status, AMCTL_EXIT_USAGE) << c.first;
    EXPECT_NE(r.err.find(c.second), std::string::npos) << c.first << "\n" << r.err;
    EXPECT_EQ(r.out, "") << c.first;
  }
}

// ---- watch, dump, genlock -------------------------------------------------------------------------

std::vector<uint8_t> report_datagram(uint32_t inner_type, const std::string& text) {
  const size_t n = text.size() + 1;
  std::vector<uint8_t> d = le("2 " + std::to_string(8 + n) + " " + std::to_string(inner_type) + " " + std::to_string(n));
  d.insert(d.end(), text.c_str(), text.c_str() + n);
  return d;
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
