// Constant register data of the Si5351A: the power-up table and the multisynth step tables.
//
// Every multisynth parameter set follows the chip's encoding: for a multisynth frequency f,
// 900,000,000 / f = a + b/c with b/c in lowest terms (c = 1 when b = 0), and
//   P1 = 128a + floor(128b/c) - 512,  P2 = 128b - c * floor(128b/c),  P3 = c.
// Nominal multisynth frequencies: 24,576,000 Hz (48 kHz family) and 22,579,000 Hz (44.1 kHz
// family). Adjusting an output by v Hz sets the multisynth to nominal +/- v x R (R the output
// divider), so the shifts in use are 300..2400 (R 1), 600..4800 (R 2) and 1200..9600 (R 4) Hz:
// sixteen rows per direction and family. Nothing is computed at run time.
#pragma once

#include "qb_si5351.h"

// Power-up table for a 27 MHz crystal: PLLA at 900 MHz, CLK0/CLK1 at 24.576 MHz, CLK2 at
// 100 MHz, written in this order.
inline constexpr si5351a_revb_register_t si5351a_revb_registers_24576[] = {
    {3, 0xFF},  // all outputs disabled
    {16, 0x80}, {17, 0x80}, {18, 0x80}, {19, 0x80},  // CLK0-CLK7 powered down
    {20, 0x80}, {21, 0x80}, {22, 0x80}, {23, 0x80},
    {2, 0xFF},  // interrupt masks
    {4, 0x20}, {7, 0x0F},  // written with these values; their purpose is not published
    {15, 0x00},  // both PLLs fed from the crystal
    {16, 0x0D}, {17, 0x0D}, {18, 0x0D},  // CLK0-CLK2 up, fractional, PLLA, own multisynth, 4 mA
    {19, 0x8C}, {20, 0x8C}, {21, 0x8C}, {22, 0x8C}, {23, 0x8C},  // CLK3-CLK7 stay down
    // PLLA feedback 33 + 1/3: P3 = 3, P1 = 3754, P2 = 2
    {26, 0x00}, {27, 0x03}, {28, 0x00}, {29, 0x0E}, {30, 0xAA}, {31, 0x00}, {32, 0x00}, {33, 0x02},
    // MS0: P3 = 256, R 1, P1 = 4175, P2 = 128 (24,576,000 Hz)
    {42, 0x01}, {43, 0x00}, {44, 0x00}, {45, 0x10}, {46, 0x4F}, {47, 0x00}, {48, 0x00}, {49, 0x80},
    // MS1: the same
    {50, 0x01}, {51, 0x00}, {52, 0x00}, {53, 0x10}, {54, 0x4F}, {55, 0x00}, {56, 0x00}, {57, 0x80},
    // MS2: P3 = 1, P1 = 640, P2 = 0 (integer 9: 100,000,000 Hz)
    {58, 0x00}, {59, 0x01}, {60, 0x00}, {61, 0x02}, {62, 0x80}, {63, 0x00}, {64, 0x00}, {65, 0x00},
    {90, 0x00}, {91, 0x00},  // MS6, MS7
    // spread spectrum off
    {149, 0x00}, {150, 0x00}, {151, 0x00}, {152, 0x00}, {153, 0x00}, {154, 0x00}, {155, 0x00},
    {162, 0x00}, {163, 0x00}, {164, 0x00}, {165, 0x00}, {166, 0x00}, {167, 0x00},
    {183, 0x92},  // crystal load capacitance
    {177, 0xAC},  // PLL reset
    {3, 0x00},    // all outputs enabled
};
inline constexpr int SI5351A_REVB_REG_CONFIG_NUM_REGS =
    static_cast<int>(sizeof(si5351a_revb_registers_24576) / sizeof(si5351a_revb_registers_24576[0]));
static_assert(SI5351A_REVB_REG_CONFIG_NUM_REGS == 71, "power-up table has 71 rows");

// Nominal parameter sets (P1, P2, P3; div is set per rate).
inline constexpr mclk_msp_data_t mclk_msp_24576000_nominal = {0, 4175, 128, 256};
inline constexpr mclk_msp_data_t mclk_msp_22579000_nominal = {0, 4590, 1942, 22579};

// Multisynth shift in Hz of each step-table row.
inline constexpr qb_u32_t mclk_msp_shift_hz[MCLK_MSP_INC_MAX] = {
    300, 600, 900, 1200, 1500, 1800, 2100, 2400, 3000, 3600, 4200, 4800, 6000, 7200, 8400, 9600,
};

// mclk_msp_24576000_inc: multisynth at 24,576,000 plus the row's shift, from PLLA (900 MHz).
inline constexpr mclk_msp_data_t mclk_msp_24576000_inc[MCLK_MSP_INC_MAX] = {
    {MCLK_MSP_INC_300, 4175, 12091, 27307},  // 24,576,300 Hz
    {MCLK_MSP_INC_600, 4175, 15793, 40961},  // 24,576,600 Hz
    {MCLK_MSP_INC_900, 4175, 26899, 81923},  // 24,576,900 Hz
    {MCLK_MSP_INC_1200, 4175, 1851, 6827},  // 24,577,200 Hz
    {MCLK_MSP_INC_1500, 4175, 701, 3277},  // 24,577,500 Hz
    {MCLK_MSP_INC_1800, 4175, 6419, 40963},  // 24,577,800 Hz
    {MCLK_MSP_INC_2100, 4175, 2717, 27309},  // 24,578,100 Hz
    {MCLK_MSP_INC_2400, 4175, 433, 10241},  // 24,578,400 Hz
    {MCLK_MSP_INC_3000, 4174, 2534, 2731},  // 24,579,000 Hz
    {MCLK_MSP_INC_3600, 4174, 16662, 20483},  // 24,579,600 Hz
    {MCLK_MSP_INC_4200, 4174, 28638, 40967},  // 24,580,200 Hz
    {MCLK_MSP_INC_4800, 4174, 998, 1707},  // 24,580,800 Hz
    {MCLK_MSP_INC_6000, 4174, 1458, 4097},  // 24,582,000 Hz
    {MCLK_MSP_INC_7200, 4174, 1302, 10243},  // 24,583,200 Hz
    {MCLK_MSP_INC_8400, 4173, 6135, 6829},  // 24,584,400 Hz
    {MCLK_MSP_INC_9600, 4173, 1715, 2561},  // 24,585,600 Hz
};

// mclk_msp_24576000_dec: multisynth at 24,576,000 minus the row's shift, from PLLA (900 MHz).
inline constexpr mclk_msp_data_t mclk_msp_24576000_dec[MCLK_MSP_INC_MAX] = {
    {MCLK_MSP_DEC_300, 4175, 45647, 81919},  // 24,575,700 Hz
    {MCLK_MSP_DEC_600, 4175, 8389, 13653},  // 24,575,400 Hz
    {MCLK_MSP_DEC_900, 4175, 55021, 81917},  // 24,575,100 Hz
    {MCLK_MSP_DEC_1200, 4175, 14927, 20479},  // 24,574,800 Hz
    {MCLK_MSP_DEC_1500, 4175, 4293, 5461},  // 24,574,500 Hz
    {MCLK_MSP_DEC_1800, 4175, 34541, 40957},  // 24,574,200 Hz
    {MCLK_MSP_DEC_2100, 4175, 73769, 81913},  // 24,573,900 Hz
    {MCLK_MSP_DEC_2400, 4175, 3269, 3413},  // 24,573,600 Hz
    {MCLK_MSP_DEC_3000, 4176, 592, 8191},  // 24,573,000 Hz
    {MCLK_MSP_DEC_3600, 4176, 3824, 20477},  // 24,572,400 Hz
    {MCLK_MSP_DEC_4200, 4176, 4112, 13651},  // 24,571,800 Hz
    {MCLK_MSP_DEC_4800, 4176, 2128, 5119},  // 24,571,200 Hz
    {MCLK_MSP_DEC_6000, 4176, 176, 273},  // 24,570,000 Hz
    {MCLK_MSP_DEC_7200, 4176, 8944, 10237},  // 24,568,800 Hz
    {MCLK_MSP_DEC_8400, 4177, 2103, 20473},  // 24,567,600 Hz
    {MCLK_MSP_DEC_9600, 4177, 283, 853},  // 24,566,400 Hz
};

// mclk_msp_22579000_inc: multisynth at 22,579,000 plus the row's shift, from PLLA (900 MHz).
inline constexpr mclk_msp_data_t mclk_msp_22579000_inc[MCLK_MSP_INC_MAX] = {
    {MCLK_MSP_INC_300, 4590, 4114, 225793},  // 22,579,300 Hz
    {MCLK_MSP_INC_600, 4589, 53651, 56449},  // 22,579,600 Hz
    {MCLK_MSP_INC_900, 4589, 199301, 225799},  // 22,579,900 Hz
    {MCLK_MSP_INC_1200, 4589, 91999, 112901},  // 22,580,200 Hz
    {MCLK_MSP_INC_1500, 4589, 33739, 45161},  // 22,580,500 Hz
    {MCLK_MSP_INC_1800, 4589, 9587, 14113},  // 22,580,800 Hz
    {MCLK_MSP_INC_2100, 4589, 138089, 225811},  // 22,581,100 Hz
    {MCLK_MSP_INC_2400, 4589, 61393, 112907},  // 22,581,400 Hz
    {MCLK_MSP_INC_3000, 4589, 4609, 11291},  // 22,582,000 Hz
    {MCLK_MSP_INC_3600, 4589, 30787, 112913},  // 22,582,600 Hz
    {MCLK_MSP_INC_4200, 4589, 3871, 28229},  // 22,583,200 Hz
    {MCLK_MSP_INC_4800, 4589, 181, 112919},  // 22,583,800 Hz
    {MCLK_MSP_INC_6000, 4588, 3300, 4517},  // 22,585,000 Hz
    {MCLK_MSP_INC_7200, 4588, 51900, 112931},  // 22,586,200 Hz
    {MCLK_MSP_INC_8400, 4588, 21300, 112937},  // 22,587,400 Hz
    {MCLK_MSP_INC_9600, 4587, 103643, 112943},  // 22,588,600 Hz
};

// mclk_msp_22579000_dec: multisynth at 22,579,000 minus the row's shift, from PLLA (900 MHz).
inline constexpr mclk_msp_data_t mclk_msp_22579000_dec[MCLK_MSP_INC_MAX] = {
    {MCLK_MSP_DEC_300, 4590, 34726, 225787},  // 22,578,700 Hz
    {MCLK_MSP_DEC_600, 4590, 6254, 28223},  // 22,578,400 Hz
    {MCLK_MSP_DEC_900, 4590, 65338, 225781},  // 22,578,100 Hz
    {MCLK_MSP_DEC_1200, 4590, 40322, 112889},  // 22,577,800 Hz
    {MCLK_MSP_DEC_1500, 4590, 3838, 9031},  // 22,577,500 Hz
    {MCLK_MSP_DEC_1800, 4590, 27814, 56443},  // 22,577,200 Hz
    {MCLK_MSP_DEC_2100, 4590, 126562, 225769},  // 22,576,900 Hz
    {MCLK_MSP_DEC_2400, 4590, 70934, 112883},  // 22,576,600 Hz
    {MCLK_MSP_DEC_3000, 4590, 1078, 1411},  // 22,576,000 Hz
    {MCLK_MSP_DEC_3600, 4590, 101546, 112877},  // 22,575,400 Hz
    {MCLK_MSP_DEC_4200, 4591, 1989, 56437},  // 22,574,800 Hz
    {MCLK_MSP_DEC_4800, 4591, 19287, 112871},  // 22,574,200 Hz
    {MCLK_MSP_DEC_6000, 4591, 9981, 22573},  // 22,573,000 Hz
    {MCLK_MSP_DEC_7200, 4591, 80523, 112859},  // 22,571,800 Hz
    {MCLK_MSP_DEC_8400, 4591, 111141, 112853},  // 22,570,600 Hz
    {MCLK_MSP_DEC_9600, 4592, 28912, 112847},  // 22,569,400 Hz
};
