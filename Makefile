# Front door: `make test` and `make demo` work on a fresh Debian 12 machine; both first install
# whatever system packages are missing.
BUILD_DIR ?= build
SANITIZE_DIR ?= build/sanitize
JOBS ?= $(shell nproc)

PREFIX ?= /usr/local

SHELL := /bin/bash

.PHONY: all deps build build-sanitize test test-plain test-sanitize demo bench install clean

all: build

deps:
	@./scripts/install-deps.sh

build: deps
	@cmake -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	@cmake --build $(BUILD_DIR) -j $(JOBS)

# The whole suite twice: against the shipped build, then against the agent and unit tests built
# with AddressSanitizer and UndefinedBehaviorSanitizer.
test: test-plain test-sanitize

test-plain: build
	@cd $(BUILD_DIR) && ctest --output-on-failure -j $(JOBS) --timeout 300

build-sanitize: deps
	@cmake -S . -B $(SANITIZE_DIR) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTALVEX_SANITIZE=ON >/dev/null
	@cmake --build $(SANITIZE_DIR) -j $(JOBS) --target talvex_unit_tests talvex_integration_tests

test-sanitize: build-sanitize
	@cd $(SANITIZE_DIR) && ctest --output-on-failure -j $(JOBS) --timeout 300

# Only what the demo runs: talvex-record (with both agents and clocks) and the probe it records.
demo: deps
	@cmake -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	@cmake --build $(BUILD_DIR) -j $(JOBS) --target talvex-record talvex-recorder recording_probe
	@./scripts/demo.sh $(BUILD_DIR)

install: build
	@cmake --install $(BUILD_DIR) --prefix $(PREFIX)

# Every bench, each with its baseline from the same run; the figures go to bench/RESULTS.md.
bench: build
	@set -o pipefail; cmake --build $(BUILD_DIR) --target bench 2>&1 | tee $(BUILD_DIR)/bench.out
	@grep -vE '^(\[|gmake|make|Built target|Scanning|Consolidate|Dependee)' $(BUILD_DIR)/bench.out \
	  | ./scripts/write-bench-results.sh bench/RESULTS.md

clean:
	rm -rf $(BUILD_DIR) $(SANITIZE_DIR)
