# Two set-up commands matter: `make demo` and `make test` (see README.md).
SHELL := /bin/bash
JOBS ?= $(shell nproc)
BUILD ?= build
ASAN_BUILD ?= build-asan
CROSS_BUILD ?= build-aarch64
CMAKE_FLAGS ?= -DAM_WERROR=ON

.PHONY: all setup build test test-host test-asan test-cross cross asan demo bench clean

all: build

setup:
	bash scripts/setup

$(BUILD)/CMakeCache.txt:
	cmake -S . -B $(BUILD) $(CMAKE_FLAGS)

build: $(BUILD)/CMakeCache.txt
	cmake --build $(BUILD) -j $(JOBS)

asan:
	cmake -S . -B $(ASAN_BUILD) $(CMAKE_FLAGS) -DAM_SANITIZE=ON -DAM_BUILD_SIM=OFF -DAM_BUILD_BENCH=OFF -DCMAKE_BUILD_TYPE=Debug
	cmake --build $(ASAN_BUILD) -j $(JOBS)

cross:
	cmake -S . -B $(CROSS_BUILD) $(CMAKE_FLAGS) -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake -DAM_BUILD_SIM=OFF -DAM_BUILD_BENCH=OFF
	cmake --build $(CROSS_BUILD) -j $(JOBS)

test-host: build
	cd $(BUILD) && ctest --output-on-failure -L unit -j $(JOBS)
	cd $(BUILD) && ctest --output-on-failure -LE unit

test-asan: asan
	cd $(ASAN_BUILD) && ASAN_OPTIONS=detect_leaks=1 ctest --output-on-failure -L unit -j $(JOBS)

# Under qemu's user-mode emulation, tests that run threads against sockets or fork while threads
# run can livelock the emulator; the emulated run covers the support, EDID and clock-synthesiser
# programs (namespaces and child processes excluded). Every other program is built for aarch64
# above and runs natively in test-host.
QEMU := qemu-aarch64 -L /usr/aarch64-linux-gnu
test-cross: cross
	cd $(CROSS_BUILD)/bin && export AM_TEST_NO_NETNS=1 && \
	timeout 600 $(QEMU) ./am_test_edid --gtest_brief=1 && \
	timeout 600 $(QEMU) ./am_test_support --gtest_brief=1 --gtest_filter='-AmTestEnv.Process*' && \
	timeout 600 $(QEMU) ./am_test_si5351 --gtest_brief=1 \
	  --gtest_filter='-Si5351ClientNetns.*:Si5351Client.SetParamWaitsForTheServiceReply'

test: setup
	$(MAKE) test-host
	$(MAKE) test-asan
	$(MAKE) test-cross

# make demo [DEMO_SECONDS=N] [RECEIVERS=1..3] [DEMO_ARGS="--ppm 200 --loss 1"]
demo: setup build
	bash scripts/demo $(if $(DEMO_SECONDS),--seconds $(DEMO_SECONDS)) $(if $(RECEIVERS),--receivers $(RECEIVERS))

bench: build
	bash scripts/bench

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(CROSS_BUILD)
