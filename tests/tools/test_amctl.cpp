// amctl as the daemon sees it: the exact command datagram of every sub-command (printed by
// --dry-run; the integration tests drive the daemon with real sends).
#include "am_test_sys.h"
#include <iterator>

#include "../../tools/amctl.h"
#include "qb_audio_parse.h"

namespace {

struct Outcome { int status = -1; std::string out; };

std::vector<std::string> split(const std::string& text) {
  std::istringstream in(text);
  return {std::istream_iterator<std::string>(in), std::istream_iterator<std::string>()};
}

// amctl_main with the given words after the program name; stdout captured.
Outcome amctl(std::vector<std::string> words) {
  words.insert(words.begin(), "amctl");
  std::vector<char*> argv;
  for (std::string& w : words) argv.push_back(&w[0]);
  argv.push_back(nullptr);
  testing::internal::CaptureStdout();
  const int status = amctl_main(static_cast<int>(words.size()), argv.data());
  fflush(stdout);
  return {status, testing::internal::GetCapturedStdout()};
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

// One row per command of the daemon's table: outer type 2 and length 8 + n, operation (low half)
// and command id (high half), length n, payload. Channel records: channel id, then on, code,
// channels, size, io_in_use 2, three zeros, type, S/PDIF flag, InfoFrame and channel-status bytes.
TEST(Amctl, DatagramOfEveryCommand) {
  constexpr uint16_t kGet = 1, kSet = 2, kNotify = 3;
  const struct { const char* words; uint16_t id, op; const char* payload; } cases[] = {
      {"src-mac 00:11:22:3F:44:55", 1, kSet, "s13:0011223f4455"}, {"mute --get hdmi", 2, kGet, "1 0 0"},
      {"latency hdmi 0x1234", 3, kSet, "1 0x1234"},                 {"output-src spdif hdmiDownmix", 4, kSet, "2 6"},
      {"downmix spdif 7", 5, kSet, "2 7"},                          {"volume 30", 6, kSet, "30"},
      {"output-vrms 2", 7, kSet, "2"},
      {"channel-info hdmi --type nlpcm --rate 192000 --spdif --aud-db 0x11,2,3,4,5", 8, kNotify,
       "3 b:1,14,2,24,2,0,0,0,0x90,1,0x11,2,3,4,5,2,1,2,14,0x0B"},
      {"stream-in hdmi 2 1", 9, kSet, "1 2 1"},
      {"from-net 0011223F0000 2 --stream-id -3", 10, kSet, "s16:0011223f0000 -3 2"},
      {"to-net 0 analog 02-00-00-00-00-01", 11, kSet, "0 0 s16:020000000001"},
      {"cec-addr 1.2.0.0", 12, kSet, "0x1200"},                     {"it6621-mode 2", 13, kSet, "2"},
      {"input-level 2", 14, kSet, "2"},                             {"monitor disconnected", 15, kSet, "0"},
      {"fallback spdif none", 16, kSet, "2 0 -1"},                  {"details", 17, kGet, "46"},
      {"earc-enable earc on --only-arc", 18, kSet, "3 1 1"},        {"earc-onlyarc on", 19, kSet, "1"},
  };
  std::vector<bool> covered(QB_AUDIO_CMD_MAX, false);
  for (const auto& c : cases) {
    covered[c.id] = true;
    const std::vector<uint8_t> payload = le(c.payload);
    std::vector<uint8_t> want = le("2 " + std::to_string(8 + payload.size()) + " " + std::to_string(c.id << 16 | c.op) +
                                   " " + std::to_string(payload.size()) + " " + c.payload);
    const Outcome r = amctl(split(std::string("--dry-run ") + c.words));
    EXPECT_EQ(r.status, AMCTL_EXIT_OK) << c.words;
    EXPECT_EQ(r.out, amctl_hex(want.data(), static_cast<int>(want.size())) + "\n") << c.words;
  }
  const qb_audio_cmd_operation_t* table = qb_audio_cmd_table_get();
  for (int row = 0; table[row].id != 0; ++row) EXPECT_TRUE(covered[table[row].id]) << "command " << table[row].id;
}

}  // namespace
