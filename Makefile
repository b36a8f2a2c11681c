# The two commands a newcomer needs: `make demo` and `make test`. Each installs what is
# missing, configures, builds and runs.
PRESET ?= linux
BUILD  := build

.PHONY: all setup configure build test test-asan test-tsan ios-check demo bench soak fuzz clean

all: build

setup:
	@bash scripts/setup

configure: setup
	@cmake --preset $(PRESET) >/dev/null

build: configure
	@cmake --build --preset $(PRESET)

test: build
	@ctest --preset $(PRESET)

test-asan:
	@$(MAKE) --no-print-directory test PRESET=linux-asan

test-tsan:
	@$(MAKE) --no-print-directory test PRESET=linux-tsan

# The library compiled and link-checked against Apple's SDK (ZERLAN_APPLE_SDK, or ../shared's
# slice); `make test` runs it too.
ios-check:
ifneq ($(shell uname -s),Darwin)
	@bash scripts/setup
endif
	@bash scripts/ios-check

# Only what the demo runs: the library, the frame server and the two sample apps.
demo: configure
	@cmake --build --preset $(PRESET) --target ZerlanInject zerlan capture-app picker-app
	@$(BUILD)/bin/zerlan demo

bench: configure
	@bash scripts/setup --bench
	@cmake --build --preset $(PRESET)
	@bash bench/run

# The frame server under minutes of load (bench/soak/run.sh, about 5 minutes); in neither
# `make test` nor `make bench`.
soak: configure
	@bash scripts/setup --bench
	@cmake --build --preset $(PRESET) --target zerlan bench-fetch-latency
	@bash bench/soak/run.sh

# libFuzzer on the request parser, the control body, the library's fetch and the pictures it
# receives, FUZZ_SECONDS each.
fuzz: setup
	@bash scripts/fuzz

clean:
	rm -rf build build-asan build-tsan build-fuzz
