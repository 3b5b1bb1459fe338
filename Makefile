# The two commands a newcomer needs: `make demo` and `make test`. Each installs
# missing packages, configures and builds on its own.
BUILD_DIR ?= build
JOBS ?= $(shell nproc 2>/dev/null || echo 2)
CMAKE_FLAGS ?=

.PHONY: all deps configure build test test-asan test-tsan bench clean

all: build

deps:
	@bash scripts/install-deps.sh

configure: deps
	cmake -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=Release $(CMAKE_FLAGS)

build: configure
	cmake --build $(BUILD_DIR) -j$(JOBS)

test: build
	cd $(BUILD_DIR) && ctest --output-on-failure -j$(JOBS)

# The suite under AddressSanitizer + UndefinedBehaviorSanitizer, and under ThreadSanitizer.
test-asan: deps
	$(MAKE) test BUILD_DIR=build-asan CMAKE_FLAGS="-DCMAKE_BUILD_TYPE=RelWithDebInfo -DLUMO_SANITIZE=address -DLUMO_BUILD_BENCH=OFF"

test-tsan: deps
	$(MAKE) test BUILD_DIR=build-tsan CMAKE_FLAGS="-DCMAKE_BUILD_TYPE=RelWithDebInfo -DLUMO_SANITIZE=thread -DLUMO_BUILD_BENCH=OFF"

bench: build
	$(BUILD_DIR)/bench/lumo_bench

clean:
	rm -rf build build-asan build-tsan
