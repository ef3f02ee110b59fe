# libFuzzer build (clang only): every library is instrumented for coverage and checked by ASan and
# UBSan; tests/fuzz/ adds one fuzz target per outside input. Configure with AM_FUZZ=ON,
# AM_BUILD_TESTS=OFF, AM_BUILD_SIM=OFF, AM_BUILD_BENCH=OFF (see the Makefile's fuzz target).
if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  message(FATAL_ERROR "AM_FUZZ=ON needs clang (CMAKE_CXX_COMPILER=clang++-14)")
endif()
add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer
                    -fno-sanitize-recover=undefined)
add_link_options(-fsanitize=address,undefined)
