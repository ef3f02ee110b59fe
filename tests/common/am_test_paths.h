// Where the tests find the built programs, the source tree and the shared test data.
#pragma once

namespace am_test {
inline constexpr const char* kBinDir = AM_BIN_DIR;
inline constexpr const char* kLibDir = AM_LIB_DIR;
inline constexpr const char* kSourceDir = AM_SOURCE_DIR;
inline constexpr const char* kTestDataDir = AM_TESTDATA_DIR;
}  // namespace am_test
