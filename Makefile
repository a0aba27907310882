# usbmi: the two commands a newcomer needs are `make run` and `make test`.
# CMake does the building; this file only strings the steps together.

JOBS        ?= $(shell nproc)
BUILD       ?= build
BUILD_WIN   ?= build-win
BUILD_TSAN  ?= build-tsan
BUILD_BENCH ?= build-bench
BUILD_FUZZ  ?= build-fuzz
FUZZ_RUNS   ?= 20000
CMAKE_FLAGS ?= -DCMAKE_BUILD_TYPE=Debug

.PHONY: all deps build win run test test-host test-win test-tsan test-fuzz bench clean

all: build

# Installs what a fresh Debian machine lacks (as root), or says what is missing.
deps:
	@scripts/install-deps.sh

build: deps
	cmake -S . -B $(BUILD) $(CMAKE_FLAGS) >/dev/null
	cmake --build $(BUILD) -j $(JOBS)

# The Windows kernel driver (ruvo_mi_x64.sys) from the same sources, with mingw-w64.
win: deps
	cmake -S win -B $(BUILD_WIN) -DCMAKE_TOOLCHAIN_FILE=$(CURDIR)/win/mingw-w64-x86_64.cmake >/dev/null
	cmake --build $(BUILD_WIN) -j $(JOBS)

run: build
	$(BUILD)/tools/usbmi-sim/usbmi-sim

test-host: build
	ctest --test-dir $(BUILD) --output-on-failure -j $(JOBS)

test-win: win
	ctest --test-dir $(BUILD_WIN) --output-on-failure

# The race-sensitive tests again under ThreadSanitizer.
test-tsan: deps
	cmake -S . -B $(BUILD_TSAN) $(CMAKE_FLAGS) -DUSBMI_SANITIZE=thread -DUSBMI_BENCH=OFF >/dev/null
	cmake --build $(BUILD_TSAN) -j $(JOBS) --target libkn_tests wdmsim_tests
	TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" $(BUILD_TSAN)/tests/wdmsim_tests --gtest_brief=1 --gtest_filter='*Race*:*Threads*'
	TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" $(BUILD_TSAN)/tests/libkn_tests --gtest_brief=1 --gtest_filter='*Race*:*Threads*'

# A bounded libFuzzer run (clang, ASan+UBSan) seeded with the configuration sets of the device files.
test-fuzz: deps
	cmake -S fuzz -B $(BUILD_FUZZ) -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_C_COMPILER=clang >/dev/null
	cmake --build $(BUILD_FUZZ) -j $(JOBS) --target interface_enumeration_fuzz
	rm -rf $(BUILD_FUZZ)/corpus && fuzz/seed_corpus.py $(BUILD_FUZZ)/corpus tests/devices/*.bin
	$(BUILD_FUZZ)/interface_enumeration_fuzz -runs=$(FUZZ_RUNS) -max_len=4096 -artifact_prefix=$(BUILD_FUZZ)/ $(BUILD_FUZZ)/corpus

test: test-host test-win test-tsan test-fuzz

# Benchmarks are measured on an optimised build of their own.
bench: deps
	cmake -S . -B $(BUILD_BENCH) -DCMAKE_BUILD_TYPE=Release >/dev/null
	cmake --build $(BUILD_BENCH) -j $(JOBS) --target trace_format_bench
	@for b in $(BUILD_BENCH)/bench/*_bench; do echo "== $$b"; $$b; done

clean:
	rm -rf $(BUILD) $(BUILD_WIN) $(BUILD_TSAN) $(BUILD_BENCH) $(BUILD_FUZZ)
