# Two set-up commands matter: `make demo` and `make test` (see README.md).
SHELL := /bin/bash
JOBS ?= $(shell nproc)
BUILD ?= build
ASAN_BUILD ?= build-asan
TSAN_BUILD ?= build-tsan
CROSS_BUILD ?= build-aarch64
CMAKE_FLAGS ?= -DAM_WERROR=ON
# make install: programs, log configurations, systemd units and the dissector under PREFIX, staged
# under DESTDIR when given (make install DESTDIR=/tmp/image PREFIX=/usr).
PREFIX ?= /usr/local
DESTDIR ?=
# Where Wireshark looks for personal Lua plugins (tshark -G folders), ~/.local/lib/wireshark/plugins
# when tshark is not installed.
WIRESHARK_PLUGIN_DIR ?= $(or $(shell tshark -G folders 2>/dev/null | sed -n 's/^Personal Lua Plugins:[[:space:]]*//p'),$(HOME)/.local/lib/wireshark/plugins)

.PHONY: all setup build test test-host test-asan test-cross cross asan tsan fuzz demo bench coverage mutants \
        soak clean install wireshark-plugin

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
	python3 scripts/depcheck --build $(BUILD) --quiet
	cd $(BUILD) && ctest --output-on-failure -L unit -j $(JOBS)
	cd $(BUILD) && ctest --output-on-failure -LE unit

test-asan: asan
	cd $(ASAN_BUILD) && ASAN_OPTIONS=detect_leaks=1 ctest --output-on-failure -L unit -j $(JOBS)

# ThreadSanitizer build in build-tsan: every unit test, the virtual card's tests and the tests that
# run whole daemons or engines with their threads: commands, streaming with loss and a new format,
# the genlock service, the shutdown. The two-board bench (debug pipe while streaming, clock
# steering) and the short demo take three minutes more under the sanitizer: make tsan TSAN_LONG=1.
# Every process writes its reports to build-tsan/tsan-logs; one report fails the target.
TSAN_TESTS := Daemon|GenlockService|StreamEngine|SystemdNotify|Card\.|Amsim$(if $(TSAN_LONG),|StreamBoards|DemoShort)
TSAN_LOGS = $(abspath $(TSAN_BUILD))/tsan-logs
# die_after_fork=0: the engine tests fork a child into a network namespace from a test thread;
# the child starts the engine's threads.
TSAN_ENV = TSAN_OPTIONS="log_path=$(TSAN_LOGS)/report die_after_fork=0 second_deadlock_stack=1"
tsan:
	cmake -S . -B $(TSAN_BUILD) $(CMAKE_FLAGS) -DAM_TSAN=ON -DAM_BUILD_BENCH=OFF
	cmake --build $(TSAN_BUILD) -j $(JOBS)
	rm -rf $(TSAN_LOGS) && mkdir -p $(TSAN_LOGS)
	cd $(TSAN_BUILD) && $(TSAN_ENV) ctest --output-on-failure -L unit -j $(JOBS)
	cd $(TSAN_BUILD) && $(TSAN_ENV) ctest --output-on-failure -R '$(TSAN_TESTS)'
	@if grep -l "WARNING: ThreadSanitizer" $(TSAN_LOGS)/* 2>/dev/null; then \
	  echo "ThreadSanitizer reports in the files above"; exit 1; fi

# libFuzzer targets (tests/fuzz) built with clang in build-fuzz, each run from its seed corpus a
# fixed number of times, or FUZZ_SECONDS seconds each: make fuzz FUZZ_SECONDS=600.
fuzz:
	FUZZ_SECONDS=$(FUZZ_SECONDS) JOBS=$(JOBS) bash scripts/fuzz

# Under qemu's user-mode emulation, tests that run threads against sockets or fork while threads
# run can livelock the emulator; the emulated run covers the support, EDID and clock-synthesiser
# programs (namespaces and child processes excluded). Every other program is built for aarch64
# above and runs natively in test-host.
QEMU := qemu-aarch64 -L /usr/aarch64-linux-gnu
test-cross: cross
	cd $(CROSS_BUILD)/bin && export AM_TEST_NO_NETNS=1 && \
	timeout 600 $(QEMU) ./am_test_edid --gtest_brief=1 && \
	timeout 600 $(QEMU) ./am_test_support --gtest_brief=1 && \
	timeout 600 $(QEMU) ./am_test_si5351 --gtest_brief=1 \
	  --gtest_filter='-Si5351ClientNetns.*:Si5351Service.ClientCalls'

test: setup
	$(MAKE) test-host
	$(MAKE) test-asan
	$(MAKE) tsan
	$(MAKE) fuzz
	$(MAKE) test-cross

# make demo [DEMO_SECONDS=N] [RECEIVERS=1..3] [DEMO_ARGS="--ppm 200 --loss 1"]
demo: setup build
	bash scripts/demo $(if $(DEMO_SECONDS),--seconds $(DEMO_SECONDS)) $(if $(RECEIVERS),--receivers $(RECEIVERS))

# A long run of a streaming pair (not part of `make test`): make soak [SOAK_SECONDS=300]
soak: build
	SOAK_SECONDS=$(SOAK_SECONDS) bash scripts/soak

# Builds what the benchmarks run (build output in $(BUILD)/bench-build.log), then prints figures.
bench:
	@mkdir -p $(BUILD) && { cmake -S . -B $(BUILD) $(CMAKE_FLAGS) && \
	  cmake --build $(BUILD) -j $(JOBS) --target benchmarks; } >$(BUILD)/bench-build.log 2>&1 || \
	  { tail -n 30 $(BUILD)/bench-build.log; echo "build failed: $(BUILD)/bench-build.log"; exit 1; }
	@bash scripts/bench

# Measuring the tests (not part of `make test`): coverage of every test run, and how many seeded
# small faults the unit tests catch.
coverage:
	JOBS=$(JOBS) bash scripts/coverage

mutants:
	python3 scripts/mutants

install: $(BUILD)/CMakeCache.txt
	cmake -S . -B $(BUILD) -DCMAKE_INSTALL_PREFIX=$(PREFIX)
	cmake --build $(BUILD) -j $(JOBS) --target audio_manager qb_genlock amctl
	DESTDIR="$(DESTDIR)" cmake --install $(BUILD) --prefix $(PREFIX)

wireshark-plugin:
	install -D -m 0644 tools/wireshark/audio_manager.lua $(WIRESHARK_PLUGIN_DIR)/audio_manager.lua
	@echo "installed $(WIRESHARK_PLUGIN_DIR)/audio_manager.lua"

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(TSAN_BUILD) $(CROSS_BUILD) build-coverage build-mutants build-fuzz
