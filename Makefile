# Front door: `make test` and `make demo` work on a fresh Debian 12 machine; both first install
# whatever system packages are missing.
BUILD_DIR ?= build
JOBS ?= $(shell nproc)

.PHONY: all deps build test demo bench clean

all: build

deps:
	@./scripts/install-deps.sh

build: deps
	@cmake -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	@cmake --build $(BUILD_DIR) -j $(JOBS)

test: build
	@cd $(BUILD_DIR) && ctest --output-on-failure -j $(JOBS) --timeout 300

demo: build
	@./scripts/demo.sh $(BUILD_DIR)

bench: build
	@cmake --build $(BUILD_DIR) --target bench

clean:
	rm -rf $(BUILD_DIR)
