// amctl's command line: help for every sub-command, refusals of bad arguments with a message and
// exit status 2, the dispatcher's view of what the tool sends, and the tool sub-commands (watch's
// report printing, the debug-pipe exchange of dump, the status files of genlock).
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <fcntl.h>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "am_platform.h"
#include "am_test_env.h"
#include "qb_audio_parse.h"
#include "qb_socket.h"
#include "test_amctl_support.h"

namespace {

using amctl_test::Bytes;
using amctl_test::run_amctl;

const char* const kSubCommands[] = {
    "src-mac",  "input-level", "mute",     "latency",     "output-src", "downmix",   "volume",
    "output-vrms", "channel-info", "stream-in", "from-net", "to-net", "cec-addr", "it6621-mode",
    "monitor",  "fallback",    "details",  "earc-enable", "earc-onlyarc", "watch",   "dump",
    "genlock",
};

TEST(AmctlHelp, EverySubCommandHasHelp) {
  for (const char* name : kSubCommands) {
    const amctl_test::Run r = run_amctl({name, "--help"});
    EXPECT_EQ(r.status, AMCTL_EXIT_OK) << name;
    EXPECT_EQ(r.out.rfind(std::string("usage: amctl ") + name, 0), 0U) << name << ": " << r.out;
    const amctl_test::Run h = run_amctl({"help", name});
    EXPECT_EQ(h.out, r.out) << name;
  }
  const amctl_test::Run all = run_amctl({"--help"});
  EXPECT_EQ(all.status, AMCTL_EXIT_OK);
  for (const char* name : kSubCommands) {
    EXPECT_NE(all.out.find(std::string("\n  ") + name), std::string::npos) << name;
  }
}

struct BadCase {
  std::vector<std::string> words;
  const char* message;  // part of the error line
};

TEST(AmctlBadArguments, FailWithAMessage) {
  const BadCase cases[] = {
      {{}, "usage: amctl"},
      {{"frobnicate"}, "unknown command 'frobnicate'"},
      {{"mute", "analog"}, "missing on|off"},
      {{"mute", "analog", "maybe"}, "expected on|off"},
      {{"mute", "tv", "on"}, "PORT 'tv': not a port"},
      {{"mute", "analog", "on", "extra"}, "unexpected argument 'extra'"},
      {{"mute", "analog", "on", "--enable"}, "--enable needs a value"},
      {{"mute", "analog", "on", "--loud"}, "unknown option --loud"},
      {{"latency", "stream", "5"}, "PORT 'stream': not a port here"},
      {{"latency", "hdmi", "40000"}, "TIME '40000': expected a number in 0-32767"},
      {{"latency", "hdmi", "12abc"}, "expected a number"},
      {{"output-src", "analog", "radio"}, "SOURCE 'radio': not a source"},
      {{"downmix", "analog", "1"}, "not a port here"},
      {{"input-level", "3"}, "expected a number in 1-2"},
      {{"volume", "-1"}, "expected a number"},
      {{"src-mac", "0011223344"}, "not a MAC address"},
      {{"src-mac", "00:11:22:33:44:5G"}, "not a MAC address"},
      {{"src-mac", "00:11:22:33:44:55:66"}, "not a MAC address"},
      {{"src-mac"}, "missing MAC"},
      {{"to-net", "3", "analog"}, "SID '3': not a stream id (0-2)"},
      {{"to-net", "0", "analog", "nomac"}, "not a MAC address"},
      {{"from-net", "020000000001"}, "missing SID"},
      {{"stream-in", "hdmi", "1", "7"}, "not a stream id (-1-2, none)"},
      {{"channel-info", "nsispdif"}, "CHANNEL 'nsispdif'"},
      {{"channel-info", "analog", "--rate", "12345"}, "--rate '12345': not a sample rate"},
      {{"channel-info", "analog", "--channels", "3"}, "expected 2, 4, 6 or 8"},
      {{"channel-info", "analog", "--size", "20"}, "expected 16 or 24"},
      {{"channel-info", "analog", "--type", "mp3"}, "expected lpcm, nlpcm, dsd, hbr"},
      {{"channel-info", "analog", "--aud-db", "1,2,3"}, "expected five bytes"},
      {{"cec-addr", "1.2.3"}, "not a CEC physical address"},
      {{"details", "--get"}, "no get form"},
      {{"--port", "70000", "volume", "1"}, "--port '70000'"},
      {{"dump", "d9"}, "expected dump, d0, d1, d2, d3, d4 or d5"},
      {{"watch", "--count", "0"}, "--count '0'"},
      {{"genlock", "now"}, "unexpected argument 'now'"},
  };
  for (const BadCase& c : cases) {
    const amctl_test::Run r = run_amctl(c.words);
    std::string line;
    for (const std::string& w : c.words) line += w + " ";
    EXPECT_EQ(r.status, AMCTL_EXIT_USAGE) << line;
    EXPECT_NE(r.err.find(c.message), std::string::npos) << line << "\n" << r.err;
    EXPECT_EQ(r.out, "") << line;
  }
}

// ---- what the daemon's dispatcher makes of the tool's messages ----------------------------------
struct Seen {
  int id = 0;
  int op = 0;
  int len = -1;
  std::vector<uint8_t> payload;
};
Seen g_seen;

template <int Id, int Op>
int record(const void* buf, int len) {
  g_seen.id = Id;
  g_seen.op = Op;
  g_seen.len = len;
  const uint8_t* p = static_cast<const uint8_t*>(buf);
  g_seen.payload.assign(p, p + (len > 0 ? len : 0));
  return 1;
}

#define AMCTL_ROW(id) {id, record<id, 1>, record<id, 2>, record<id, 3>}
const qb_audio_cmd_operation_t kRecordingTable[] = {
    AMCTL_ROW(1),  AMCTL_ROW(14), AMCTL_ROW(2),  AMCTL_ROW(3),  AMCTL_ROW(4),  AMCTL_ROW(5),
    AMCTL_ROW(6),  AMCTL_ROW(7),  AMCTL_ROW(8),  AMCTL_ROW(9),  AMCTL_ROW(10), AMCTL_ROW(11),
    AMCTL_ROW(12), AMCTL_ROW(13), AMCTL_ROW(15), AMCTL_ROW(16), AMCTL_ROW(17), AMCTL_ROW(18),
    AMCTL_ROW(19), {0, nullptr, nullptr, nullptr},
};

TEST(AmctlDispatch, TheDispatcherCallsTheRightHandlerWithTheWholeRecord) {
  struct Case {
    std::vector<std::string> words;
    int id;
    int op;
    int len;
  };
  const Case cases[] = {
      {{"mute", "hdmi", "on"}, 2, 2, 12},         {{"output-src", "--get", "analog"}, 4, 1, 8},
      {{"src-mac", "001122334455"}, 1, 2, 13},    {{"channel-info", "earc"}, 8, 3, 24},
      {{"to-net", "2", "hdmi", "001122334455"}, 11, 2, 24},
      {{"details"}, 17, 1, 4},                    {{"earc-onlyarc", "off"}, 19, 2, 4},
  };
  for (const Case& c : cases) {
    std::vector<std::string> words = {"--dry-run"};
    words.insert(words.end(), c.words.begin(), c.words.end());
    const amctl_test::Run r = run_amctl(words);
    ASSERT_EQ(r.status, AMCTL_EXIT_OK) << r.err;
    // Back from the printed hex to bytes, into the daemon's 1024-byte receive buffer.
    std::vector<qb_u8_t> message(QB_AUDIO_CMD_BUF_SIZE, 0);
    int n = 0;
    for (size_t i = 0; i + 1 < r.out.size(); i += 3) {
      message[static_cast<size_t>(n++)] = static_cast<qb_u8_t>(std::stoi(r.out.substr(i, 2), nullptr, 16));
    }
    g_seen = Seen();
    audio_recv_data_proc_table(message.data(), n, kRecordingTable);
    EXPECT_EQ(g_seen.id, c.id) << c.words[0];
    EXPECT_EQ(g_seen.op, c.op) << c.words[0];
    EXPECT_EQ(g_seen.len, c.len) << c.words[0];
  }
}

// ---- watch ------------------------------------------------------------------------------------
std::vector<uint8_t> report_datagram(int32_t inner_type, const std::string& text) {
  // outer type 2, outer length, inner type, inner length, the text and its NUL
  Bytes b;
  b.u32(2).u32(static_cast<uint32_t>(8 + text.size() + 1)).u32(static_cast<uint32_t>(inner_type))
      .u32(static_cast<uint32_t>(text.size() + 1)).text(text, text.size() + 1);
  return b.get();
}

TEST(AmctlWatch, DescribesReportsDropEventsAndAnythingElse) {
  const std::string report =
      "{\"status\":{\"input\":[{\"channels\":2,\"encodingType\":\"LPCM\",\"format\":\"LPCM\","
      "\"port\":\"hdmi\",\"sampleFrequency\":48000,\"sampleSize\":24,\"state\":\"on\"}]}}\n";
  std::vector<uint8_t> d = report_datagram(0x00040502, report);
  EXPECT_EQ(d.size(), 17 + report.size());
  std::string raw = amctl_describe_report(d.data(), static_cast<int>(d.size()), true);
  EXPECT_EQ(raw,
            "report {\"status\":{\"input\":[{\"channels\":2,\"encodingType\":\"LPCM\",\"format\":"
            "\"LPCM\",\"port\":\"hdmi\",\"sampleFrequency\":48000,\"sampleSize\":24,\"state\":\"on\"}]}}");
  std::string pretty = amctl_describe_report(d.data(), static_cast<int>(d.size()), false);
  EXPECT_EQ(pretty.rfind("report\n{\n", 0), 0U) << pretty;
  EXPECT_NE(pretty.find("\"sampleFrequency\" : 48000"), std::string::npos) << pretty;

  const std::string drop =
      "{\"eventType\":\"DETAILS_CHANGED\",\"timeStamp\":1700000000,\"requestUrl\":\"/api/v1/details/audio/pktDrop\"}";
  d = report_datagram(0x40503, drop);
  raw = amctl_describe_report(d.data(), static_cast<int>(d.size()), true);
  EXPECT_EQ(raw.rfind("drop {", 0), 0U) << raw;
  EXPECT_NE(raw.find("\"requestUrl\":\"/api/v1/details/audio/pktDrop\""), std::string::npos);

  const uint8_t junk[] = {1, 2, 3};
  EXPECT_EQ(amctl_describe_report(junk, 3, true), "unknown 01 02 03");
  // A length that runs past the datagram is not followed.
  std::vector<uint8_t> cut = report_datagram(0x00040502, report);
  cut.resize(20);
  EXPECT_EQ(amctl_describe_report(cut.data(), static_cast<int>(cut.size()), true).rfind("unknown", 0), 0U);
}

TEST(AmctlWatch, PrintsEachDatagramThatArrives) {
  // A free port: bind, read it, release it for the tool.
  int port = 0;
  {
    am_test::UdpReceiver probe(0);
    ASSERT_TRUE(probe.ok());
    port = amctl_test::bound_port(probe.fd());
  }
  const std::vector<uint8_t> d = report_datagram(0x40503, "{\"eventType\":\"DETAILS_CHANGED\"}");
  std::atomic<bool> stop{false};
  std::thread sender([&] {
    while (!stop) {
      qb_udp_send_data("127.0.0.1", port, d.data(), static_cast<int>(d.size()));
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
  });
  const amctl_test::Run r = run_amctl({"watch", "--raw", "--count", "2", "--timeout", "20",
                                       "--port", std::to_string(port)});
  stop = true;
  sender.join();
  EXPECT_EQ(r.status, AMCTL_EXIT_OK) << r.err;
  EXPECT_EQ(r.out, "drop {\"eventType\":\"DETAILS_CHANGED\"}\ndrop {\"eventType\":\"DETAILS_CHANGED\"}\n");
}

TEST(AmctlWatch, ATakenPortOrTooFewMessagesFail) {
  int port = 0;
  {
    am_test::UdpReceiver probe(0);
    ASSERT_TRUE(probe.ok());
    port = amctl_test::bound_port(probe.fd());
    const amctl_test::Run busy = run_amctl({"watch", "--port", std::to_string(port), "--timeout", "1"});
    EXPECT_EQ(busy.status, AMCTL_EXIT_FAIL);
    EXPECT_NE(busy.err.find("cannot listen on 127.0.0.1:" + std::to_string(port)), std::string::npos)
        << busy.err;
  }
  const amctl_test::Run quiet =
      run_amctl({"watch", "--raw", "--port", std::to_string(port), "--count", "1", "--timeout", "1"});
  EXPECT_EQ(quiet.status, AMCTL_EXIT_FAIL);
  EXPECT_EQ(quiet.out, "");
}

// ---- dump: the debug pipe exchange, against a stand-in reader ---------------------------------
TEST(AmctlDump, WritesTheWordWaitsForTheMarkerAndPrintsTheDump) {
  am_test::TempRoot root({"tmp"});
  ASSERT_TRUE(root.ok());
  const std::string fifo = root.at("/tmp/request");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0777), 0);
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
  // Give the stand-in time to open the pipe.
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  const amctl_test::Run r = run_amctl({"dump", "D4", "--timeout", "10"});
  daemon.join();
  EXPECT_EQ(r.status, AMCTL_EXIT_OK) << r.err;
  EXPECT_EQ(word, "D4");
  EXPECT_EQ(r.out, "dump fpga param begin\n");
}

TEST(AmctlDump, ExplainsAMissingPipeOrReader) {
  am_test::TempRoot root({"tmp"});
  ASSERT_TRUE(root.ok());
  amctl_test::Run r = run_amctl({"dump"});
  EXPECT_EQ(r.status, AMCTL_EXIT_FAIL);
  EXPECT_NE(r.err.find("no debug pipe at " + root.at("/tmp/request")), std::string::npos) << r.err;
  ASSERT_EQ(mkfifo(root.at("/tmp/request").c_str(), 0777), 0);
  r = run_amctl({"dump", "d1"});
  EXPECT_EQ(r.status, AMCTL_EXIT_FAIL);
  EXPECT_NE(r.err.find("nobody reads it"), std::string::npos) << r.err;
}

// ---- genlock ------------------------------------------------------------------------------------
TEST(AmctlGenlock, ShowsBothStatusFiles) {
  am_test::TempRoot root({"tmp"});
  ASSERT_TRUE(root.ok());
  amctl_test::Run r = run_amctl({"genlock"});
  EXPECT_EQ(r.status, AMCTL_EXIT_FAIL);
  EXPECT_NE(r.out.find("not present"), std::string::npos);
  ASSERT_TRUE(root.write("/tmp/genlock.json",
                         "{\"genlock\":{\"hdmi\":{\"fifoTotal\":4096,\"fifoUsed\":1024,\"ppmAdjusted\":-300,"
                         "\"ppmMaxStep\":300},\"analog\":{\"fifoTotal\":0,\"fifoUsed\":0,\"ppmAdjusted\":0,"
                         "\"ppmMaxStep\":300},\"earc/spdif\":{\"fifoTotal\":0,\"fifoUsed\":0,"
                         "\"ppmAdjusted\":600,\"ppmMaxStep\":300}}}"));
  ASSERT_TRUE(root.write("/tmp/pktdrop.json",
                         "{\"audioDropInfo\":{\"stream0\":{\"bytesDropIn10\":0,\"bytesDropTotal\":0},"
                         "\"stream1\":{\"bytesDropIn10\":1500,\"bytesDropTotal\":4500},"
                         "\"stream2\":{\"bytesDropIn10\":0,\"bytesDropTotal\":0}}}"));
  r = run_amctl({"genlock"});
  EXPECT_EQ(r.status, AMCTL_EXIT_OK);
  EXPECT_NE(r.out.find("hdmi               4096       1024         -300         300"), std::string::npos)
      << r.out;
  EXPECT_NE(r.out.find("earc/spdif            0          0          600         300"), std::string::npos)
      << r.out;
  EXPECT_NE(r.out.find("stream1                1500            4500"), std::string::npos) << r.out;
  r = run_amctl({"genlock", "--json"});
  EXPECT_NE(r.out.find("\"bytesDropTotal\":4500"), std::string::npos);
}

}  // namespace
