// The processor's S/PDIF receiver: its received channel status is read through a mapping of
// "/dev/mem", decoded into a channel record, and compared with the last accepted format.
#include "qb_audio_misc_spdif.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <mutex>

#include "am_log.h"
#include "am_platform.h"
#include "qb_audio_misc_private.h"

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "the receiver views assume a little-endian processor");

namespace {

// Format of one sampling-frequency nibble of the receiver.
struct receiver_rate_t {
  qb_u8_t nibble;
  qb_s8_t sample_frequency;  // SampleFrequency code
  qb_s8_t chstat3;           // ChStat[3]
  qb_s8_t aud_db1;           // InfoFrame byte 2, before the sample-size bits
};

constexpr receiver_rate_t kReceiverRates[] = {
    {0, 0, 0, 0x08},    // 44.1 kHz
    {1, 8, 8, 0x10},    // 88.2 kHz
    {3, 12, 12, 0x18},  // 176.4 kHz
    {4, 2, 2, 0x0C},    // 48 kHz
    {5, 10, 10, 0x14},  // 96 kHz
    {7, 14, 14, 0x1C},  // 192 kHz
};
// Anything else: "not indicated".
constexpr receiver_rate_t kReceiverRateNone = {0, 1, 0, 0x00};

// Sample size 24 bits in InfoFrame byte 2.
constexpr qb_s8_t kAudDb1SampleSize24 = 0x03;
constexpr qb_s8_t kAudDb0Lpcm = 0x11;
constexpr qb_s8_t kAudDb0NonLpcm = 0x01;
constexpr qb_s8_t kChStat2 = 2;
constexpr qb_u8_t kWordLengthMax24 = 0x08;  // bit 3 of the word-length nibble
constexpr qb_u8_t kWordLengthLow = 0x07;
// Time the receiver gets to settle before a new format is taken.
constexpr useconds_t kSettleUs = 100 * 1000;

const receiver_rate_t& receiver_rate(qb_u8_t nibble) {
  for (const receiver_rate_t& rate : kReceiverRates) {
    if (rate.nibble == nibble) {
      return rate;
    }
  }
  AM_LOG_ERROR("audio spdif sampling frequency none val:%u", static_cast<unsigned>(nibble));
  return kReceiverRateNone;
}

// IEC word-length code of the receiver's word-length nibble.
qb_s8_t word_length_code(qb_u8_t w) {
  const qb_u8_t low = w & kWordLengthLow;
  if ((w & kWordLengthMax24) != 0) {
    return low == 4 ? 0x03 : 0x0B;
  }
  if (low == 4) {
    return 0x02;
  }
  return (low == 5 || low == 2) ? 0x03 : 0x00;
}

qb_u32_t read_reg(const volatile qb_u8_t* base, size_t offset) {
  return *reinterpret_cast<const volatile qb_u32_t*>(base + offset);
}

nxp_map_spdif_reg_t& mreg() { return qb_audio_misc_ctrl().spdif_mreg; }
std::atomic<bool>& mapped() { return qb_audio_misc_module().spdif_mapped; }

void register_map_init() {
  const int fd = open(am_path(NXP_SPDIF_MEM_DEV).c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) {
    AM_LOG_ERROR("open(/dev/mem) failed.");
    return;
  }
  void* base = mmap(nullptr, NXP_SPDIF_MAP_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, fd,
                    NXP_SPDIF_PHYS_BASE);
  if (base == MAP_FAILED || base == nullptr) {
    AM_LOG_ERROR("mmap failed.");
    // A descriptor without its mapping is of no use.
    close(fd);
    return;
  }
  misc_word_set(mreg().fd, static_cast<qb_s32_t>(fd));
  misc_word_set(mreg().map_base, static_cast<qb_u8_t*>(base));
  mapped().store(true);
}

void register_map_uninit() {
  if (!mapped().exchange(false)) {
    return;
  }
  qb_u8_t* base = misc_word_get(mreg().map_base);
  if (base != nullptr) {
    munmap(base, NXP_SPDIF_MAP_SIZE);
  }
  const qb_s32_t fd = misc_word_get(mreg().fd);
  if (fd > 0) {
    close(fd);
  }
}

}  // namespace

int qb_misc_nxp_spdif_register_map_unpdate(qb_audio_info* rec) {
  const qb_u8_t* base = misc_word_get(mreg().map_base);
  if (rec == nullptr || base == nullptr || misc_word_get(mreg().fd) <= 0 || !mapped().load()) {
    return 0;
  }
  const qb_u32_t high = read_reg(base, NXP_SPDIF_REG_SRCSH);
  (void)read_reg(base, NXP_SPDIF_REG_SRCSH);
  const qb_u32_t low = read_reg(base, NXP_SPDIF_REG_SRCSL);
  (void)read_reg(base, NXP_SPDIF_REG_SRCSL);
  iec60958_channel_status_mode_0_nxp v;
  v.value = static_cast<qb_u64_t>(high) | (static_cast<qb_u64_t>(low) << 32);

  std::memset(rec, 0, sizeof *rec);
  const receiver_rate_t& rate = receiver_rate(static_cast<qb_u8_t>(v.info.SamplingFrequency));
  // The non-audio bit (first-received bit 1 of byte 0) tells compressed audio from LPCM.
  const bool non_audio = v.info.LinearPCM != 0;
  rec->Audio_On = 1;
  rec->SampleFrequency = rate.sample_frequency;
  rec->ValidCh = 2;
  rec->SampleSize = 24;
  rec->io_in_use = 2;
  rec->bSPDIF = 1;
  rec->Audio_Type = static_cast<qb_s8_t>(non_audio ? QB_AUDIO_TYPE_NLPCM : QB_AUDIO_TYPE_LPCM);

  iec60958_channel_status_mode_0 chs{};
  chs.pktbyte.data[1] = non_audio ? 1 : 0;
  chs.pktbyte.data[2] = kChStat2;
  chs.info.SamplingFrequency = static_cast<qb_u8_t>(rate.chstat3) & 0x0F;
  chs.pktbyte.data[4] = static_cast<qb_u8_t>(word_length_code(static_cast<qb_u8_t>(v.info.WordLength)));
  std::memcpy(rec->ChStat, chs.pktbyte.data, sizeof rec->ChStat);

  rec->AUD_DB[0] = non_audio ? kAudDb0NonLpcm : kAudDb0Lpcm;
  rec->AUD_DB[1] = static_cast<qb_s8_t>(rate.aud_db1 | kAudDb1SampleSize24);
  return 1;
}

int is_qb_misc_nxp_spdif_register_info_change(void) {
  qb_audio_info now{};
  qb_misc_nxp_spdif_register_map_unpdate(&now);
  {
    std::lock_guard<std::mutex> lock(qb_audio_misc_module().channel_lock);
    if (std::memcmp(&now, &mreg().ainfo, sizeof now) == 0) {
      return 0;
    }
  }
  usleep(kSettleUs);
  qb_misc_nxp_spdif_register_map_unpdate(&now);
  {
    std::lock_guard<std::mutex> lock(qb_audio_misc_module().channel_lock);
    mreg().ainfo = now;
  }
  AM_LOG_INFO("%s,sf:%02x,ch:%02x,ss:%02x,at:%02x,spdif:%02x", __func__,
              static_cast<qb_u8_t>(now.SampleFrequency), static_cast<qb_u8_t>(now.ValidCh),
              static_cast<qb_u8_t>(now.SampleSize), static_cast<qb_u8_t>(now.Audio_Type),
              static_cast<qb_u8_t>(now.bSPDIF));
  AM_LOG_INFO("%s,spdif chn stat[%02x,%02x,%02x,%02x,%02x]", __func__,
              static_cast<qb_u8_t>(now.ChStat[0]), static_cast<qb_u8_t>(now.ChStat[1]),
              static_cast<qb_u8_t>(now.ChStat[2]), static_cast<qb_u8_t>(now.ChStat[3]),
              static_cast<qb_u8_t>(now.ChStat[4]));
  return 1;
}

qb_audio_info* qb_misc_audio_spdif_info_get(void) { return &mreg().ainfo; }

int qb_misc_audio_spdif_info_copy(qb_audio_info* out) {
  if (out == nullptr) {
    return 0;
  }
  std::lock_guard<std::mutex> lock(qb_audio_misc_module().channel_lock);
  *out = mreg().ainfo;
  return 1;
}

// ---- start and stop of the routing module: its state, then the receiver's mapping
int qb_audio_misc_init(void) {
  // A second start releases the mapping of the first before the state is cleared.
  register_map_uninit();
  qb_audio_misc_state_reset();
  register_map_init();
  return 1;
}

int qb_audio_misc_uninit(void) {
  register_map_uninit();
  AM_LOG_INFO("spdif register map uninit");
  AM_LOG_INFO("%s", __func__);
  return 1;
}
