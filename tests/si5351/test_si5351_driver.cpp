// Chip driver: nominal and adjusted programming, stepping limits, return to nominal, refusals.
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <string>
#include <utility>

#include "si5351_test_util.h"

namespace {

using si5351_test::conf;
using si5351_test::kAddr;
using si5351_test::kBus;
using si5351_test::regs_of;
using si5351_test::reset_channel;
using Bytes = std::array<uint8_t, 8>;

const Bytes kNominal48k = {0x01, 0x00, 0x20, 0x10, 0x4F, 0x00, 0x00, 0x80};

class Si5351Driver : public ::testing::Test {
 protected:
  void SetUp() override {
    for (int ch = 1; ch <= 3; ++ch) {
      reset_channel(ch, 48000);
    }
    bus_.clear_records();
  }
  size_t writes() const { return bus_.transfer_count(kBus, kAddr); }

  am_test::I2cFake bus_;
};

TEST_F(Si5351Driver, NominalRegisters) {
  const struct {
    int ch, rate;
    Bytes regs;
  } cases[] = {
      {1, 48000, kNominal48k},
      {3, 192000, {0x01, 0x00, 0x00, 0x10, 0x4F, 0x00, 0x00, 0x80}},
      {2, 44100, {0x58, 0x33, 0x20, 0x11, 0xEE, 0x00, 0x07, 0x96}},
      {2, 96000, {0x01, 0x00, 0x10, 0x10, 0x4F, 0x00, 0x00, 0x80}},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(qb_si5351_set(c.ch, c.rate), 1);
    EXPECT_EQ(regs_of(bus_, c.ch), c.regs) << c.rate;
  }
}

// Unknown rates and steps outside 300..2400 in 300s write nothing.
TEST_F(Si5351Driver, UnknownRateOrStepWritesNothing) {
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
  EXPECT_EQ(writes(), 0u);
}

// The 44.1 kHz family row picker copies P1-P3 only; the divider stays as it was.
TEST_F(Si5351Driver, FamilyRowCopiesParametersNotDivider) {
  ASSERT_EQ(qb_si5351_set(1, 192000), 1);  // div 0
  EXPECT_EQ(qb_si5351_param_44100x_inc_set(300, 44100), 1);  // row 1200
  si5351_channel_param_set(1);
  EXPECT_EQ(regs_of(bus_, 1), (Bytes{0xB9, 0x05, 0x00, 0x11, 0xED, 0x11, 0x67, 0x5F}));
  EXPECT_EQ(qb_si5351_param_44100x_inc_set(2700, 44100), 0);
  EXPECT_EQ(qb_si5351_param_44100x_dec_set(0, 88200), 0);
}

// One step each way from nominal, and back: from -300 an increase programs exactly nominal.
TEST_F(Si5351Driver, OneStepFromNominal) {
  reset_channel(1, 44100);
  EXPECT_EQ(qb_si5351_increase(1), 0);
  EXPECT_EQ(conf(1).value, 300);
  EXPECT_EQ(regs_of(bus_, 1), (Bytes{0xB9, 0x05, 0x20, 0x11, 0xED, 0x11, 0x67, 0x5F}));

  reset_channel(3, 192000);
  EXPECT_EQ(qb_si5351_decrease(3), 0);
  EXPECT_EQ(conf(3).value, -300);
  EXPECT_EQ(regs_of(bus_, 3), (Bytes{0x3F, 0xFF, 0x00, 0x10, 0x4F, 0x10, 0xB2, 0x4F}));
  qb_si5351_increase(3);
  EXPECT_EQ(conf(3).value, 0);
  EXPECT_EQ(regs_of(bus_, 3), (Bytes{0x01, 0x00, 0x00, 0x10, 0x4F, 0x00, 0x00, 0x80}));
}

TEST_F(Si5351Driver, StepsStopAtTheLimits) {
  struct Case {
    int (*step)(int);
    int limit;
  };
  for (const Case& c : {Case{qb_si5351_increase, 2400}, Case{qb_si5351_decrease, -2400}}) {
    reset_channel(2, 96000);
    bus_.clear_records();
    for (int i = 0; i < 8; ++i) {
      c.step(2);
    }
    EXPECT_EQ(conf(2).value, c.limit);
    EXPECT_EQ(writes(), 64u);
    c.step(2);
    EXPECT_EQ(conf(2).value, c.limit);
    EXPECT_EQ(writes(), 64u) << "no chip write past the limit";
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
  EXPECT_EQ(qb_si5351_param_inc_dec2(nullptr), -1);
  const struct {
    SI5351_CONF_T rec;
    const char* message;
  } cases[] = {
      {{0, 48000, 0, 0, 0, 0}, "invalid ch:0 \n"},
      {{4, 48000, 0, 0, 0, 0}, "invalid ch:4 \n"},
      {{1, 32000, 0, 0, 0, 0}, "invalid rate:32000 \n"},
      {{2, 48000, 150, 0, 0, 0}, "invalid value:150 \n"},
      {{3, 48000, 2700, 0, 0, 0}, "invalid value:2700 \n"},
      {{3, 48000, -2700, 0, 0, 0}, "invalid value:-2700 \n"},
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
  EXPECT_EQ(writes(), 0u);
}

// A channel whose rate was set to an unknown value keeps it, and its steps fail until a valid
// rate is set.
TEST_F(Si5351Driver, UnknownRateRecordedThenStepsFail) {
  testing::internal::CaptureStdout();
  qb_si5351_set_param(2, 22050);
  qb_si5351_increase(2);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "rate:22050 error\ninvalid rate:22050 \n");
  EXPECT_EQ(conf(2).rate, 22050);
  EXPECT_EQ(writes(), 0u);
}

TEST_F(Si5351Driver, StepIsLoggedWithTheRecord) {
  si5351_test::LogCapture log;
  set_chn_stat(1, QB_SI5351_SET_DEC);
  qb_si5351_decrease(1);
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(log.lines()[0].rfind("si5351 ch:1 rate:48000 value:-300 status:decrease --[qb_si5351.cpp:", 0),
            0u)
      << log.lines()[0];
}

// The step-wise return moves one step toward 0 per call from either side and stops there; the
// immediate reset programs nominal once and leaves a nominal channel alone.
TEST_F(Si5351Driver, ReturnToNominal) {
  for (int i = 0; i < 3; ++i) {
    qb_si5351_increase(3);
  }
  si5351_test::LogCapture log;
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
  EXPECT_EQ(regs_of(bus_, 2), (Bytes{0x58, 0x33, 0x00, 0x11, 0xEE, 0x00, 0x07, 0x96}));
  EXPECT_EQ(writes(), 8u);
  EXPECT_EQ(log.count("si5351 ch:2 rate:176400 reset --[qb_si5351.cpp:"), 1);
  qb_si5351_reset_chn(2);
  EXPECT_EQ(writes(), 8u) << "a channel at nominal is left alone";
}

TEST_F(Si5351Driver, ChannelsOutsideOneToThreeAreIgnored) {
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
  EXPECT_EQ(writes(), 0u);
  for (int ch = 1; ch <= 3; ++ch) {
    const SI5351_CONF_T now = conf(ch);
    EXPECT_EQ(memcmp(&before[ch - 1], &now, sizeof(now)), 0) << ch;
  }
}

TEST(Si5351Status, StateTexts) {
  const std::pair<int, const char*> cases[] = {
      {QB_SI5351_SET_PARAM, "set param"}, {QB_SI5351_SET_INC, "increase"},
      {QB_SI5351_SET_DEC, "decrease"},    {QB_SI5351_SET_RESET, "reset"},
      {QB_FIFO_REPORT, "unknonw"},        {0, "unknonw"},
  };
  for (const auto& c : cases) {
    EXPECT_STREQ(get_status_si53512(c.first), c.second);
  }
}

}  // namespace
