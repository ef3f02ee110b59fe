// The Wireshark dissector (tools/wireshark/audio_manager.lua) on a loopback capture in a network
// namespace: two interleaved audio streams (one with a gap and a repeat, flagged on that stream
// only, the same on a two-pass read), amctl commands, a JSON report and a genlock request.
#include "am_test_sys.h"

namespace {

using Bytes = std::vector<uint8_t>;
constexpr uint32_t kPayload = 1408;
constexpr size_t kDatagrams = 14;  // everything sent_all sends
constexpr int kProbePort = 9;
const std::string kNoProbe = "'udp.dstport != 9'";

void put32(Bytes* b, size_t at, uint32_t v) { std::memcpy(b->data() + at, &v, 4); }

// One stream datagram: 48 kHz, 2 channels, 24 bits, LPCM, as the sender writes it.
Bytes stream_datagram(uint32_t total) {
  Bytes b(56 + kPayload, 0x11);
  std::memset(b.data(), 0, 56);
  for (const auto& [at, v] : {std::pair<size_t, uint32_t>{0, 0x49325344}, {4, 3900}, {8, 0x123457}, {12, kPayload}, {52, total}}) put32(&b, at, v);
  b[32] = 1, b[33] = 2, b[34] = 2, b[35] = 24, b[36] = 2, b[40] = 128;
  b[47] = 0x04, b[50] = 0x02, b[51] = 0x0b;  // IEC 60958 channel status
  return b;
}

// Sends from 127.0.0.1:from_port (0: any) to 127.0.0.1:to_port. False on failure.
bool send_udp(int from_port, int to_port, const Bytes& data) {
  const int fd = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET, a.sin_addr.s_addr = htonl(INADDR_LOOPBACK), a.sin_port = htons(static_cast<uint16_t>(from_port));
  bool ok = fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
  a.sin_port = htons(static_cast<uint16_t>(to_port));
  ok = ok && sendto(fd, data.data(), data.size(), 0, reinterpret_cast<sockaddr*>(&a), sizeof a) == static_cast<ssize_t>(data.size());
  if (fd >= 0) close(fd);
  return ok;
}

// Inside the namespace: the datagrams of the capture, in order. 0, or the step that failed.
int send_all() {
  // Stream A (port 40000) loses the datagram at 4224 and then repeats 5632; stream B (port
  // 40002) runs without loss in between.
  const uint32_t a_totals[] = {0, 1408, 2816, 5632, 5632, 7040};
  for (int i = 0; i < 6; ++i) {
    if (!send_udp(40000, 59300, stream_datagram(a_totals[i]))) return 1;
    if (i % 2 == 0 && !send_udp(40002, 59300, stream_datagram(kPayload * static_cast<uint32_t>(i / 2)))) return 2;
  }
  const std::string amctl = std::string(am_test::kBinDir) + "/amctl ";
  for (const char* args : {"mute hdmi on", "channel-info hdmi --rate 48000 --channels 2 --size 24", "src-mac 00:11:22:33:44:55"})
    if (system((amctl + args + " >/dev/null").c_str()) != 0) return 3;
  const std::string json = "{\"status\":{\"input\":[{\"port\":\"hdmi\",\"state\":\"on\"}]}}\n";
  Bytes report(16 + json.size() + 1, 0);
  for (const auto& [at, v] : {std::pair<size_t, uint32_t>{0, 2}, {4, 8 + json.size() + 1}, {8, 0x00040502}, {12, json.size() + 1}})
    put32(&report, at, v);
  std::memcpy(report.data() + 16, json.data(), json.size());
  if (!send_udp(0, 9995, report)) return 4;
  Bytes genlock(12);
  put32(&genlock, 0, 0x1234), put32(&genlock, 4, 1), put32(&genlock, 8, 48000);
  return send_udp(11001, 11000, genlock) ? 0 : 5;
}

// tshark's fields, one tab-separated row per frame; the plugin comes from the source tree only.
std::vector<std::vector<std::string>> fields(const std::string& tmp, const std::string& pcap,
                                             const std::string& opts, const std::vector<std::string>& names) {
  std::string cmd = "HOME=" + tmp + " XDG_CONFIG_HOME=" + tmp + " tshark " + opts + " -r " + pcap +
                    " -X lua_script:" + am_test::kSourceDir + "/tools/wireshark/audio_manager.lua -T fields";
  for (const std::string& n : names) cmd += " -e " + n;
  std::vector<std::vector<std::string>> rows;
  std::istringstream lines(am_test::output_of(cmd + " 2>/dev/null"));
  for (std::string line; std::getline(lines, line);) {
    std::istringstream cols(line);
    rows.emplace_back();
    for (std::string c; std::getline(cols, c, '\t');) rows.back().push_back(c);
    rows.back().resize(names.size());
  }
  return rows;
}

TEST(Wireshark, DissectorDecodesStreamsCommandsReportsAndGenlock) {
  if (system("command -v tshark >/dev/null 2>&1 && command -v dumpcap >/dev/null 2>&1") != 0)
    GTEST_SKIP() << "tshark or dumpcap missing";
  if (!am_test::have_netns()) GTEST_SKIP() << "needs root and network namespaces";
  am_test::TempRoot tmp;
  am_test::NetNs ns;
  ASSERT_TRUE(tmp.ok() && ns.ok());
  const std::string pcap = tmp.path() + "/cap.pcap";
  am_test::Process capture({"dumpcap", "-i", "lo", "-f", "udp", "-P", "-w", pcap}, {}, ns.name(),
                           tmp.path() + "/dumpcap.out");
  // dumpcap says "Capturing on" a moment before it captures: probe until it counts a packet.
  auto probe = [&] { return ns.run([] { return send_udp(0, kProbePort, Bytes(1)) ? 0 : 1; }) == 0 &&
                           capture.output().find("Packets:") != std::string::npos; };
  ASSERT_TRUE(am_test::wait_for(probe, 10000, 100)) << capture.output();
  ASSERT_EQ(0, ns.run(send_all));
  ASSERT_TRUE(am_test::wait_for(
      [&] { return fields(tmp.path(), pcap, "-Y " + kNoProbe, {"frame.number"}).size() == kDatagrams; }, 10000, 200))
      << capture.output();

  // Every header field of the first datagram by name.
  const std::vector<std::string> head = {"amstream.Magic", "amstream.From", "amstream.Cfg_Change_Number", "amstream.Packet_Size", "amstream.cts",
      "amstream.HDCP2_Encrypted", "amstream.Input_Controller", "amstream.Audio_On", "amstream.Sample_Frequency", "amstream.Channels", "amstream.Sample_Size",
      "amstream.IO_In_Use", "amstream.Enable_Upstream", "amstream.Down_Sampling", "amstream.Mode_16bits", "amstream.Audio_Type", "amstream.SPDIF",
      "amstream.Audio_Info_Frame", "amstream.IEC60958_Channel_Stats", "amstream.Rolling_Sample_Data_Size_Total", "amstream.payload_length"};
  const auto h = fields(tmp.path(), pcap, "-Y amstream", head);
  ASSERT_EQ(9u, h.size()) << "the stream datagrams";
  const std::vector<std::string> want_head = {"0x49325344", "3900", "0x00123457", "1408", "0", "0", "00 00 00 00 00 00 00 00", "1", "2", "2", "24", "2",
                                              "0", "0", "0", "128", "0", "00 00 00 00 00", "04 00 00 02 0b", "0", "1408"};
  for (size_t i = 0; i < head.size(); ++i) EXPECT_EQ(want_head[i], h[0][i]) << head[i];

  // Continuity per stream: single pass and two passes agree.
  const std::vector<std::string> cont = {"udp.srcport", "amstream.Rolling_Sample_Data_Size_Total",
                                         "amstream.lost_bytes", "amstream.repeated_bytes", "_ws.expert.message"};
  const auto one = fields(tmp.path(), pcap, "-Y amstream", cont);
  EXPECT_EQ(one, fields(tmp.path(), pcap, "-2 -Y amstream", cont)) << "a re-dissection gives the same verdicts";
  std::vector<std::string> flagged;
  for (const auto& r : one)
    if (!r[2].empty() || !r[3].empty()) flagged.push_back(r[0] + " " + r[1] + " lost " + r[2] + " again " + r[3]);
  EXPECT_EQ((std::vector<std::string>{"40000 5632 lost 1408 again ", "40000 5632 lost  again 1408"}), flagged);
  const std::string gap_msg = "Gap of 1408 bytes: expected 4224, got 5632";
  EXPECT_TRUE(one.size() > 5 && one[5][4].find(gap_msg) != std::string::npos) << one[5][4];

  // Commands, report and genlock request by name and fields.
  const auto c = fields(tmp.path(), pcap, "-Y 'amcmd || amgenlock'",
                        {"_ws.col.Info", "amcmd.ch", "amcmd.mute", "amcmd.SampleFrequency", "amcmd.mac",
                         "json.value.string", "amgenlock.command", "amgenlock.channel", "amgenlock.rate"});
  ASSERT_EQ(5u, c.size());
  const std::vector<std::vector<std::string>> want = {
      {"Command: SET QB_AUDIO_CMD_OUTPUT_MUTE_CTRL", "1", "1", "", "", "", "", "", ""},  // hdmi muted
      {"Command: NOTIFY QB_AUDIO_CMD_CHANNEL_INFO", "", "", "2", "", "", "", "", ""},  // 48 kHz code
      {"Command: SET QB_AUDIO_CMD_INPUT_SRC_MAC", "", "", "", "001122334455", "", "", "", ""},
      {"Report: report", "", "", "", "", "hdmi,on", "", "", ""},
      {"Request QB_SI5351_SET_PARAM ch 1", "", "", "", "", "", "0x00001234", "1", "48000"}};
  for (size_t i = 0; i < want.size(); ++i)
    for (size_t k = 0; k < want[i].size(); ++k)
      EXPECT_TRUE(want[i][k].empty() || want[i][k] == c[i][k]) << i << " " << k << ": " << c[i][k];
}

}  // namespace
