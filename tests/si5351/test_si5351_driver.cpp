// Chip driver: what the chip receives for nominal and adjusted rates, stepping limits and the
// walk back to nominal, refusals, and the power-up sequence.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "si5351_test_util.h"

namespace {

using namespace si5351_test;

class Si5351Driver : public ::testing::Test {
 protected:
  void SetUp() override {
    for (int ch = 1; ch <= 3; ++ch) reset_channel(ch, 48000);
    bus_.clear_records();
  }
  size_t writes() const { return bus_.transfer_count(kBus, kAddr); }
  am_test::I2cFake bus_;
};

const Regs kNominal48k = {0x01, 0x00, 0x20, 0x10, 0x4F, 0x00, 0x00, 0x80};

// Nominal, first, middle and last step each way for every rate on every channel, against the
// encoding of f = nominal +/- step x R; the bytes go out as eight one-byte writes in register order.
TEST_F(Si5351Driver, ProgramsTheEncodingOfTheShiftedFrequency) {
  const struct {
    int rate;
    uint32_t r, div;
    uint64_t nominal;
  } plans[] = {{44100, 4, 2, 22579000}, {48000, 4, 2, 24576000},  {88200, 2, 1, 22579000},
               {96000, 2, 1, 24576000}, {176400, 1, 0, 22579000}, {192000, 1, 0, 24576000}};
  for (const auto& p : plans) {
    for (int ch = 1; ch <= 3; ++ch) {
      for (int v : {0, 300, -300, 1200, -1200, 2400, -2400}) {
        SCOPED_TRACE("rate " + std::to_string(p.rate) + " ch " + std::to_string(ch) + " value " + std::to_string(v));
        bus_.clear_records();
        const int ok = v == 0  ? qb_si5351_set(ch, p.rate)
                       : v > 0 ? qb_si5351_param_inc_set(ch, p.rate, v)
                               : qb_si5351_param_dec_set(ch, p.rate, -v);
        ASSERT_EQ(ok, 1);
        const Regs want = encode(p.nominal + static_cast<int64_t>(v) * p.r, p.div);
        ASSERT_EQ(regs_of(bus_, ch), want);
        ASSERT_EQ(writes(), 8u);
        const auto recs = bus_.records();
        for (size_t i = 0; i < 8; ++i) ASSERT_EQ(recs[i].reg, 34 + 8 * ch + i);
      }
    }
  }
  // Two rows written out, so that the encoder above cannot share a fault with the driver.
  ASSERT_EQ(qb_si5351_set(1, 48000), 1);
  EXPECT_EQ(regs_of(bus_, 1), kNominal48k);
  ASSERT_EQ(qb_si5351_param_dec_set(3, 192000, 300), 1);
  EXPECT_EQ(regs_of(bus_, 3), (Regs{0x3F, 0xFF, 0x00, 0x10, 0x4F, 0x10, 0xB2, 0x4F}));
}

// Unknown rates, steps outside 300..2400 in 300s and channels outside 1..3 write nothing.
TEST_F(Si5351Driver, RefusalsWriteNothing) {
  testing::internal::CaptureStdout();
  EXPECT_EQ(qb_si5351_set(1, 32000), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "rate:32000 error\n");
  EXPECT_EQ(qb_si5351_param_inc_set(1, 32000, 300), 0);
  EXPECT_EQ(qb_si5351_param_dec_set(1, 0, 300), 0);
  for (int step : {0, 150, 2700, 3000, -300}) {
    EXPECT_EQ(qb_si5351_param_inc_set(1, 48000, step), 0) << step;
    EXPECT_EQ(qb_si5351_param_dec_set(1, 44100, step), 0) << step;
  }
  EXPECT_EQ(qb_si5351_param_inc_dec(1, 0, 300), 0);
  const SI5351_CONF_T before[3] = {conf(1), conf(2), conf(3)};
  for (int ch : {0, 4, -1}) {
    EXPECT_EQ(qb_si5351_set(ch, 48000), 1);
    EXPECT_EQ(qb_si5351_param_inc_set(ch, 48000, 300), 1);
    qb_si5351_increase(ch);
    qb_si5351_decrease(ch);
    qb_si5351_set_param(ch, 96000);
    qb_si5351_reset_chn(ch);
    qb_si5351_reset_chn2(ch);
    set_fifo_stat(ch, 1, 2);
    set_chn_stat(ch, QB_SI5351_SET_INC);
    SI5351_CONF_T out{};
    EXPECT_FALSE(qb_si5351_conf_get(ch, &out));
  }
  EXPECT_FALSE(qb_si5351_conf_get(1, nullptr));
  EXPECT_EQ(writes(), 0u);
  for (int ch = 1; ch <= 3; ++ch) {
    const SI5351_CONF_T now = conf(ch);
    EXPECT_EQ(memcmp(&before[ch - 1], &now, sizeof(now)), 0) << ch;
  }
}

// The 44.1 kHz family row picker copies P1-P3 only; the divider stays as it was.
TEST_F(Si5351Driver, FamilyRowCopiesParametersNotDivider) {
  ASSERT_EQ(qb_si5351_set(1, 192000), 1);  // div 0
  EXPECT_EQ(qb_si5351_param_44100x_inc_set(300, 44100), 1);  // shift 1200
  si5351_channel_param_set(1);
  EXPECT_EQ(regs_of(bus_, 1), encode(22579000 + 1200, 0));
  EXPECT_EQ(qb_si5351_param_44100x_dec_set(600, 88200), 1);  // shift 1200
  si5351_channel_param_set(2);
  EXPECT_EQ(regs_of(bus_, 2), encode(22579000 - 1200, 0));
  EXPECT_EQ(qb_si5351_param_44100x_inc_set(2700, 44100), 0);
  EXPECT_EQ(qb_si5351_param_44100x_dec_set(300, 48000), 0);
  EXPECT_EQ(qb_si5351_param_44100x_dec_set(0, 88200), 0);
}

// Steps move 300 Hz at a time up to +/-2400 and write nothing past it; each step is logged.
TEST_F(Si5351Driver, StepsStopAtTheLimits) {
  for (int dir : {+1, -1}) {
    reset_channel(2, 96000);
    set_chn_stat(2, dir > 0 ? QB_SI5351_SET_INC : QB_SI5351_SET_DEC);
    bus_.clear_records();
    LogCapture log;
    for (int i = 1; i <= 9; ++i) {
      dir > 0 ? qb_si5351_increase(2) : qb_si5351_decrease(2);
      EXPECT_EQ(conf(2).value, dir * 300 * std::min(i, 8));
      EXPECT_EQ(writes(), 8u * std::min(i, 8));
    }
    EXPECT_EQ(regs_of(bus_, 2), encode(24576000 + dir * 2400 * 2, 1));
    const std::string state = dir > 0 ? "increase" : "decrease";
    EXPECT_EQ(log.count("si5351 ch:2 rate:96000 value:" + std::to_string(dir * 300) + " status:" + state + " --[qb_si5351.cpp:"), 1);
  }
}

// Record stepping: 0 stepped, 1 at the limit, -1 with the reason on stdout for a bad record.
TEST_F(Si5351Driver, RecordSteppingResults) {
  SI5351_CONF_T rec = {1, 48000, 2100, QB_SI5351_SET_INC, 0, 0};
  EXPECT_EQ(qb_si5351_conf_inc(&rec), 0);
  EXPECT_EQ(qb_si5351_conf_inc(&rec), 1);
  EXPECT_EQ(rec.value, 2400);
  rec.value = -2100;
  EXPECT_EQ(qb_si5351_conf_dec(&rec), 0);
  EXPECT_EQ(qb_si5351_conf_dec(&rec), 1);
  EXPECT_EQ(rec.value, -2400);
  EXPECT_EQ(qb_si5351_conf_inc(nullptr), -1);
  EXPECT_EQ(qb_si5351_conf_dec(nullptr), -1);
  EXPECT_EQ(qb_si5351_param_inc_dec2(nullptr), -1);
  const struct {
    SI5351_CONF_T rec;
    const char* message;
  } cases[] = {
      {{0, 48000, 0, 0, 0, 0}, "invalid ch:0 \n"},         {{4, 48000, 0, 0, 0, 0}, "invalid ch:4 \n"},
      {{1, 32000, 0, 0, 0, 0}, "invalid rate:32000 \n"},   {{2, 48000, 150, 0, 0, 0}, "invalid value:150 \n"},
      {{3, 48000, 2700, 0, 0, 0}, "invalid value:2700 \n"}, {{3, 48000, -2700, 0, 0, 0}, "invalid value:-2700 \n"},
  };
  for (const auto& c : cases) {
    for (auto* fn : {qb_si5351_conf_inc, qb_si5351_conf_dec}) {
      SI5351_CONF_T bad = c.rec;
      testing::internal::CaptureStdout();
      EXPECT_EQ(fn(&bad), -1);
      EXPECT_EQ(testing::internal::GetCapturedStdout(), c.message);
      EXPECT_EQ(bad.value, c.rec.value);
    }
  }
  // A channel whose rate was set to an unknown value keeps it; its steps fail until a valid rate.
  testing::internal::CaptureStdout();
  qb_si5351_set_param(2, 22050);
  qb_si5351_increase(2);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "rate:22050 error\ninvalid rate:22050 \n");
  EXPECT_EQ(conf(2).rate, 22050);
  EXPECT_EQ(writes(), 0u);
}

// The step-wise return moves one step toward 0 per call from either side and stops there; the
// immediate reset programs nominal once and leaves a nominal channel alone.
TEST_F(Si5351Driver, ReturnToNominal) {
  for (int i = 0; i < 3; ++i) qb_si5351_increase(3);
  LogCapture log;
  for (int want : {600, 300, 0, 0}) {
    qb_si5351_reset_chn2(3);
    EXPECT_EQ(conf(3).value, want);
  }
  EXPECT_EQ(log.count("si5351 ch:3 rate:48000 reset to value:0 --[qb_si5351.cpp:"), 1);
  EXPECT_EQ(regs_of(bus_, 3), kNominal48k);
  qb_si5351_decrease(3);
  qb_si5351_decrease(3);
  for (int want : {-300, 0, 0}) {
    qb_si5351_reset_chn2(3);
    EXPECT_EQ(conf(3).value, want);
  }
  reset_channel(2, 176400);
  qb_si5351_increase(2);
  bus_.clear_records();
  qb_si5351_reset_chn(2);
  EXPECT_EQ(conf(2).value, 0);
  EXPECT_EQ(conf(2).rate, 176400);
  EXPECT_EQ(regs_of(bus_, 2), encode(22579000, 0));
  EXPECT_EQ(writes(), 8u);
  EXPECT_EQ(log.count("si5351 ch:2 rate:176400 reset --[qb_si5351.cpp:"), 1);
  qb_si5351_reset_chn(2);
  EXPECT_EQ(writes(), 8u) << "a channel at nominal is left alone";
}

// Power-up: 71 one-byte writes that start with the outputs off and end with them on, the same
// with or without the service thread.
TEST(Si5351PowerUp, OutputsOffFirstOnLast) {
  for (bool service_less_start : {false, true}) {
    am_test::I2cFake bus;
    EXPECT_EQ(service_less_start ? qb_si5351_start() : qb_si5351_init(), service_less_start ? 0 : 1);
    const auto w = bus.writes(kBus, kAddr);
    ASSERT_EQ(w.size(), 71u);
    EXPECT_EQ(bus.transfer_count(kBus, kAddr), 71u);
    EXPECT_EQ(w.front(), (std::pair<uint16_t, uint8_t>{3, 0xFF}));
    EXPECT_EQ(w.back(), (std::pair<uint16_t, uint8_t>{3, 0x00}));
    EXPECT_EQ(w[29], (std::pair<uint16_t, uint8_t>{42, 0x01}));
  }
}

}  // namespace
