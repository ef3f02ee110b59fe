// Chip driver: nominal and adjusted programming, stepping limits, return to nominal, refusals.
#include <gtest/gtest.h>

#include <array>
#include <string>

#include "si5351_test_util.h"

namespace {

using si5351_test::conf;
using si5351_test::kAddr;
using si5351_test::kBus;
using si5351_test::regs_of;
using si5351_test::reset_channel;
using Bytes = std::array<uint8_t, 8>;

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
  EXPECT_EQ(qb_si5351_set(1, 48000), 1);
  EXPECT_EQ(regs_of(bus_, 1), (Bytes{0x01, 0x00, 0x20, 0x10, 0x4F, 0x00, 0x00, 0x80}));
  EXPECT_EQ(qb_si5351_set(3, 192000), 1);
  EXPECT_EQ(regs_of(bus_, 3), (Bytes{0x01, 0x00, 0x00, 0x10, 0x4F, 0x00, 0x00, 0x80}));
  EXPECT_EQ(qb_si5351_set(2, 44100), 1);
  EXPECT_EQ(regs_of(bus_, 2), (Bytes{0x58, 0x33, 0x20, 0x11, 0xEE, 0x00, 0x07, 0x96}));
  EXPECT_EQ(qb_si5351_set(2, 96000), 1);
  EXPECT_EQ(regs_of(bus_, 2), (Bytes{0x01, 0x00, 0x10, 0x10, 0x4F, 0x00, 0x00, 0x80}));
}

TEST_F(Si5351Driver, UnknownRateWritesNothing) {
  testing::internal::CaptureStdout();
  EXPECT_EQ(qb_si5351_set(1, 32000), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "rate:32000 error\n");
  EXPECT_EQ(qb_si5351_param_inc_set(1, 32000, 300), 0);
  EXPECT_EQ(qb_si5351_param_dec_set(1, 0, 300), 0);
  EXPECT_EQ(writes(), 0u);
}

TEST_F(Si5351Driver, AdjustedSettingRefusesStepsOutsideTheTable) {
  for (int step : {0, 150, 299, 2700, 3000, -300}) {
    EXPECT_EQ(qb_si5351_param_inc_set(1, 48000, step), 0) << step;
    EXPECT_EQ(qb_si5351_param_dec_set(1, 44100, step), 0) << step;
  }
  EXPECT_EQ(writes(), 0u);
}

// The 44.1 kHz family row picker copies P1-P3 only; the divider stays as it was.
TEST_F(Si5351Driver, FamilyRowCopiesParametersNotDivider) {
  ASSERT_EQ(qb_si5351_set(1, 192000), 1);  // div 0
  EXPECT_EQ(qb_si5351_param_44100x_inc_set(300, 44100), 1);  // row 1200
  si5351_channel_param_set(1);
  EXPECT_EQ(regs_of(bus_, 1), (Bytes{0xB9, 0x05, 0x00, 0x11, 0xED, 0x11, 0x67, 0x5F}));
  EXPECT_EQ(qb_si5351_param_44100x_dec_set(2400, 176400), 1);  // row DEC_2400
  si5351_channel_param_set(1);
  EXPECT_EQ(regs_of(bus_, 1),
            si5351_test::ms_bytes(0, si5351_test::encode(22579000 - 2400)));
  EXPECT_EQ(qb_si5351_param_44100x_inc_set(2700, 44100), 0);
  EXPECT_EQ(qb_si5351_param_44100x_dec_set(0, 88200), 0);
  EXPECT_EQ(qb_si5351_param_44100x_inc_set(300, 48000), 0);
}

TEST_F(Si5351Driver, OneStepFromNominal) {
  reset_channel(1, 44100);
  EXPECT_EQ(qb_si5351_increase(1), 0);
  EXPECT_EQ(conf(1).value, 300);
  EXPECT_EQ(regs_of(bus_, 1), (Bytes{0xB9, 0x05, 0x20, 0x11, 0xED, 0x11, 0x67, 0x5F}));

  reset_channel(3, 192000);
  EXPECT_EQ(qb_si5351_decrease(3), 0);
  EXPECT_EQ(conf(3).value, -300);
  EXPECT_EQ(regs_of(bus_, 3), (Bytes{0x3F, 0xFF, 0x00, 0x10, 0x4F, 0x10, 0xB2, 0x4F}));
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
    const Bytes at_limit = regs_of(bus_, 2);
    c.step(2);
    EXPECT_EQ(conf(2).value, c.limit);
    EXPECT_EQ(writes(), 64u) << "no chip write past the limit";
    EXPECT_EQ(regs_of(bus_, 2), at_limit);
  }
}

TEST_F(Si5351Driver, ConfStepResults) {
  SI5351_CONF_T rec = {1, 48000, 2100, QB_SI5351_SET_INC, 0, 0};
  EXPECT_EQ(qb_si5351_conf_inc(&rec), 0);
  EXPECT_EQ(rec.value, 2400);
  EXPECT_EQ(qb_si5351_conf_inc(&rec), 1);
  EXPECT_EQ(rec.value, 2400);
  rec.value = -2100;
  EXPECT_EQ(qb_si5351_conf_dec(&rec), 0);
  EXPECT_EQ(qb_si5351_conf_dec(&rec), 1);
  EXPECT_EQ(rec.value, -2400);
  EXPECT_EQ(qb_si5351_conf_inc(nullptr), -1);
  EXPECT_EQ(qb_si5351_conf_dec(nullptr), -1);
  EXPECT_EQ(qb_si5351_param_inc_dec2(nullptr), -1);
}

TEST_F(Si5351Driver, InvalidRecordsAreRefusedWithTheirMessage) {
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
      SI5351_CONF_T rec = c.rec;
      testing::internal::CaptureStdout();
      EXPECT_EQ(fn(&rec), -1);
      EXPECT_EQ(testing::internal::GetCapturedStdout(), c.message);
      EXPECT_EQ(rec.value, c.rec.value);
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
  EXPECT_EQ(conf(2).value, 0);
  EXPECT_EQ(writes(), 0u);
}

TEST_F(Si5351Driver, IncreaseFromMinus300ProgramsNominal) {
  reset_channel(1, 88200);
  qb_si5351_decrease(1);
  ASSERT_EQ(conf(1).value, -300);
  qb_si5351_increase(1);
  EXPECT_EQ(conf(1).value, 0);
  EXPECT_EQ(regs_of(bus_, 1), (Bytes{0x58, 0x33, 0x10, 0x11, 0xEE, 0x00, 0x07, 0x96}));
}

TEST_F(Si5351Driver, StepIsLoggedWithTheRecord) {
  si5351_test::LogCapture log;
  reset_channel(1, 48000);
  set_chn_stat(1, QB_SI5351_SET_DEC);
  qb_si5351_decrease(1);
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(log.lines()[0].rfind("si5351 ch:1 rate:48000 value:-300 status:decrease --[qb_si5351.cpp:", 0),
            0u)
      << log.lines()[0];
}

TEST_F(Si5351Driver, ResetWalkTakesOneStepPerCall) {
  reset_channel(3, 48000);
  for (int i = 0; i < 3; ++i) {
    qb_si5351_increase(3);
  }
  ASSERT_EQ(conf(3).value, 900);
  si5351_test::LogCapture log;
  for (int want : {600, 300, 0}) {
    qb_si5351_reset_chn2(3);
    EXPECT_EQ(conf(3).value, want);
  }
  EXPECT_EQ(log.count("si5351 ch:3 rate:48000 reset to value:0 --[qb_si5351.cpp:"), 1);
  EXPECT_EQ(regs_of(bus_, 3), (Bytes{0x01, 0x00, 0x20, 0x10, 0x4F, 0x00, 0x00, 0x80}));
  bus_.clear_records();
  qb_si5351_reset_chn2(3);
  EXPECT_EQ(conf(3).value, 0);
  EXPECT_EQ(writes(), 0u);

  // From below zero it walks up and stops at zero.
  qb_si5351_decrease(3);
  qb_si5351_decrease(3);
  qb_si5351_reset_chn2(3);
  EXPECT_EQ(conf(3).value, -300);
  qb_si5351_reset_chn2(3);
  qb_si5351_reset_chn2(3);
  EXPECT_EQ(conf(3).value, 0);
}

TEST_F(Si5351Driver, ResetChannelAtOnce) {
  reset_channel(2, 176400);
  qb_si5351_increase(2);
  qb_si5351_increase(2);
  si5351_test::LogCapture log;
  bus_.clear_records();
  qb_si5351_reset_chn(2);
  EXPECT_EQ(conf(2).value, 0);
  EXPECT_EQ(conf(2).rate, 176400);
  EXPECT_EQ(regs_of(bus_, 2), (Bytes{0x58, 0x33, 0x00, 0x11, 0xEE, 0x00, 0x07, 0x96}));
  EXPECT_EQ(writes(), 8u);
  EXPECT_EQ(log.count("si5351 ch:2 rate:176400 reset --[qb_si5351.cpp:"), 1);
  bus_.clear_records();
  qb_si5351_reset_chn(2);
  EXPECT_EQ(writes(), 0u) << "a channel at nominal is left alone";
}

TEST_F(Si5351Driver, ChannelsOutsideOneToThreeAreIgnored) {
  const SI5351_CONF_T before[3] = {conf(1), conf(2), conf(3)};
  for (int ch : {0, 4, -1}) {
    EXPECT_EQ(qb_si5351_set(ch, 48000), 1);
    EXPECT_EQ(qb_si5351_param_inc_set(ch, 48000, 300), 1);
    EXPECT_EQ(qb_si5351_increase(ch), 0);
    EXPECT_EQ(qb_si5351_decrease(ch), 0);
    EXPECT_EQ(qb_si5351_set_conf(ch, 96000), 0);
    EXPECT_EQ(qb_si5351_set_param(ch, 96000), 0);
    EXPECT_EQ(qb_si5351_reset_chn(ch), 0);
    EXPECT_EQ(qb_si5351_reset_chn2(ch), 0);
    EXPECT_EQ(set_fifo_stat(ch, 1, 2), 0);
    EXPECT_EQ(set_chn_stat(ch, QB_SI5351_SET_INC), 0);
    si5351_channel_param_set(ch);
    SI5351_CONF_T out{};
    EXPECT_FALSE(qb_si5351_conf_get(ch, &out));
  }
  EXPECT_EQ(writes(), 0u);
  for (int ch = 1; ch <= 3; ++ch) {
    const SI5351_CONF_T now = conf(ch);
    EXPECT_EQ(now.rate, before[ch - 1].rate);
    EXPECT_EQ(now.value, before[ch - 1].value);
    EXPECT_EQ(now.state, before[ch - 1].state);
    EXPECT_EQ(now.fifoTotal, before[ch - 1].fifoTotal);
  }
}

TEST_F(Si5351Driver, ValueZeroOrNoRateInIncDec) {
  EXPECT_EQ(qb_si5351_param_inc_dec(1, 0, 300), 0);
  EXPECT_EQ(qb_si5351_param_inc_dec(1, -5, 0), 0);
  EXPECT_EQ(writes(), 0u);
  EXPECT_EQ(qb_si5351_param_inc_dec(1, 192000, -1200), 0);
  EXPECT_EQ(regs_of(bus_, 1), si5351_test::ms_bytes(0, si5351_test::encode(24576000 - 1200)));
  EXPECT_EQ(qb_si5351_param_inc_dec(1, 192000, 0), 0);
  EXPECT_EQ(regs_of(bus_, 1), (Bytes{0x01, 0x00, 0x00, 0x10, 0x4F, 0x00, 0x00, 0x80}));
}

TEST(Si5351Status, StateTexts) {
  EXPECT_STREQ(get_status_si53512(QB_SI5351_SET_PARAM), "set param");
  EXPECT_STREQ(get_status_si53512(QB_SI5351_SET_INC), "increase");
  EXPECT_STREQ(get_status_si53512(QB_SI5351_SET_DEC), "decrease");
  EXPECT_STREQ(get_status_si53512(QB_SI5351_SET_RESET), "reset");
  EXPECT_STREQ(get_status_si53512(QB_FIFO_REPORT), "unknonw");
  EXPECT_STREQ(get_status_si53512(0), "unknonw");
}

}  // namespace

namespace {

// Starting without the service thread programs the power-up table only.
TEST(Si5351Start, StartProgramsThePowerUpTable) {
  am_test::I2cFake bus;
  EXPECT_EQ(qb_si5351_start(), 0);
  const auto writes = bus.writes(si5351_test::kBus, si5351_test::kAddr);
  ASSERT_EQ(writes.size(), 71u);
  EXPECT_EQ(writes.front(), (std::pair<uint16_t, uint8_t>{3, 0xFF}));
  EXPECT_EQ(writes.back(), (std::pair<uint16_t, uint8_t>{3, 0x00}));
}

}  // namespace
