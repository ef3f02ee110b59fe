// Every multisynth parameter set the driver uses, recomputed from the chip's encoding and the
// frequency plan, and the power-up table as the chip receives it.
#include <gtest/gtest.h>

#include <utility>
#include <vector>

#include "qb_si5351_tables.h"
#include "si5351_test_util.h"

namespace {

using si5351_test::encode;
using si5351_test::ms_bytes;
using si5351_test::MsParams;

constexpr uint32_t kShifts[MCLK_MSP_INC_MAX] = {300,  600,  900,  1200, 1500, 1800, 2100, 2400,
                                                3000, 3600, 4200, 4800, 6000, 7200, 8400, 9600};

// The encoder itself, against the chip maker's worked values.
TEST(Si5351Rule, EncoderMatchesCheckValues) {
  const struct {
    uint64_t f;
    MsParams p;
  } cases[] = {
      {24576000, {4175, 128, 256}},       {22579000, {4590, 1942, 22579}},
      {24577200, {4175, 1851, 6827}},     {24566400, {4177, 283, 853}},
      {24575700, {4175, 45647, 81919}},   {22579300, {4590, 4114, 225793}},
      {22588600, {4587, 103643, 112943}}, {22578700, {4590, 34726, 225787}},
      {22569400, {4592, 28912, 112847}},  {100000000, {640, 0, 1}},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(encode(c.f), c.p) << c.f;
  }
}

// The four step tables, row by row: id = index, shift from the row's name, parameters by rule.
TEST(Si5351Rule, StepTablesFollowTheRule) {
  const struct {
    const char* name;
    const mclk_msp_data_t* table;
    uint64_t nominal;
    int sign;
  } tables[] = {
      {"mclk_msp_24576000_inc", mclk_msp_24576000_inc, 24576000, +1},
      {"mclk_msp_24576000_dec", mclk_msp_24576000_dec, 24576000, -1},
      {"mclk_msp_22579000_inc", mclk_msp_22579000_inc, 22579000, +1},
      {"mclk_msp_22579000_dec", mclk_msp_22579000_dec, 22579000, -1},
  };
  for (int i = 0; i < MCLK_MSP_INC_MAX; ++i) {
    ASSERT_EQ(mclk_msp_shift_hz[i], kShifts[i]) << "row " << i;
  }
  for (const auto& t : tables) {
    for (int i = 0; i < MCLK_MSP_INC_MAX; ++i) {
      const uint64_t f = t.nominal + static_cast<int64_t>(t.sign) * kShifts[i];
      const MsParams want = encode(f);
      const mclk_msp_data_t& row = t.table[i];
      EXPECT_EQ(row.id, static_cast<uint32_t>(i)) << t.name;
      EXPECT_EQ((MsParams{row.msp1, row.msp2, row.msp3}), want) << t.name << " row " << i;
      EXPECT_LT(row.msp3, 1u << 20) << t.name << " row " << i;
    }
  }
  EXPECT_EQ((MsParams{mclk_msp_24576000_nominal.msp1, mclk_msp_24576000_nominal.msp2,
                      mclk_msp_24576000_nominal.msp3}),
            encode(24576000));
  EXPECT_EQ((MsParams{mclk_msp_22579000_nominal.msp1, mclk_msp_22579000_nominal.msp2,
                      mclk_msp_22579000_nominal.msp3}),
            encode(22579000));
}

// What the chip receives for every (rate, step, direction), through the driver's own entry
// points, against the rule applied to f = nominal +/- v x R.
TEST(Si5351Rule, EveryAdjustmentProgramsTheRuleOnEveryChannel) {
  am_test::I2cFake bus;
  for (const auto& plan : si5351_test::rate_plans()) {
    for (int ch = 1; ch <= 3; ++ch) {
      ASSERT_EQ(qb_si5351_set(ch, plan.rate), 1);
      EXPECT_EQ(si5351_test::regs_of(bus, ch), ms_bytes(plan.div, encode(plan.nominal)))
          << "nominal rate " << plan.rate << " ch " << ch;
      for (int v = 300; v <= 2400; v += 300) {
        for (int sign : {+1, -1}) {
          const uint64_t f = plan.nominal + static_cast<int64_t>(sign) * v * plan.r;
          const MsParams want = encode(f);
          const int ok = sign > 0 ? qb_si5351_param_inc_set(ch, plan.rate, v)
                                  : qb_si5351_param_dec_set(ch, plan.rate, v);
          ASSERT_EQ(ok, 1) << plan.rate << " " << sign * v;
          const auto got = si5351_test::regs_of(bus, ch);
          ASSERT_EQ(got, ms_bytes(plan.div, want))
              << "rate " << plan.rate << " ch " << ch << " value " << sign * v;
        }
      }
    }
  }
}

// Every register byte goes out as its own one-byte write, in ascending order, to 0x60 on
// "/dev/i2c-1".
TEST(Si5351Rule, ChannelWriteIsEightSingleByteWritesInOrder) {
  am_test::I2cFake bus;
  ASSERT_EQ(qb_si5351_param_dec_set(3, 192000, 300), 1);
  const auto records = bus.records();
  ASSERT_EQ(records.size(), 8u);
  const uint8_t want[8] = {0x3F, 0xFF, 0x00, 0x10, 0x4F, 0x10, 0xB2, 0x4F};
  for (size_t i = 0; i < records.size(); ++i) {
    EXPECT_EQ(records[i].path, "/dev/i2c-1");
    EXPECT_EQ(records[i].addr, 0x60);
    EXPECT_FALSE(records[i].is_read);
    EXPECT_EQ(records[i].reg, 58 + i);
    ASSERT_EQ(records[i].bytes.size(), 1u);
    EXPECT_EQ(records[i].bytes[0], want[i]) << "register " << 58 + i;
  }
}

TEST(Si5351Rule, PowerUpTableIsWrittenInOrder) {
  const std::vector<std::pair<uint16_t, uint8_t>> want = {
      {3, 0xFF},   {16, 0x80},  {17, 0x80},  {18, 0x80},  {19, 0x80},  {20, 0x80},  {21, 0x80},
      {22, 0x80},  {23, 0x80},  {2, 0xFF},   {4, 0x20},   {7, 0x0F},   {15, 0x00},  {16, 0x0D},
      {17, 0x0D},  {18, 0x0D},  {19, 0x8C},  {20, 0x8C},  {21, 0x8C},  {22, 0x8C},  {23, 0x8C},
      {26, 0x00},  {27, 0x03},  {28, 0x00},  {29, 0x0E},  {30, 0xAA},  {31, 0x00},  {32, 0x00},
      {33, 0x02},  {42, 0x01},  {43, 0x00},  {44, 0x00},  {45, 0x10},  {46, 0x4F},  {47, 0x00},
      {48, 0x00},  {49, 0x80},  {50, 0x01},  {51, 0x00},  {52, 0x00},  {53, 0x10},  {54, 0x4F},
      {55, 0x00},  {56, 0x00},  {57, 0x80},  {58, 0x00},  {59, 0x01},  {60, 0x00},  {61, 0x02},
      {62, 0x80},  {63, 0x00},  {64, 0x00},  {65, 0x00},  {90, 0x00},  {91, 0x00},  {149, 0x00},
      {150, 0x00}, {151, 0x00}, {152, 0x00}, {153, 0x00}, {154, 0x00}, {155, 0x00}, {162, 0x00},
      {163, 0x00}, {164, 0x00}, {165, 0x00}, {166, 0x00}, {167, 0x00}, {183, 0x92}, {177, 0xAC},
      {3, 0x00},
  };
  ASSERT_EQ(want.size(), 71u);
  for (bool service_less_start : {false, true}) {
    am_test::I2cFake bus;
    EXPECT_EQ(service_less_start ? qb_si5351_start() : qb_si5351_init(), service_less_start ? 0 : 1);
    EXPECT_EQ(bus.writes(si5351_test::kBus, si5351_test::kAddr), want);
    for (const auto& record : bus.records()) {
      EXPECT_EQ(record.bytes.size(), 1u);
    }
  }
}

}  // namespace
