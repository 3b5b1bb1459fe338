# The two commands a newcomer needs: `make demo` and `make test`. Each installs
# missing packages, configures and builds on its own.
BUILD_DIR ?= build
JOBS ?= $(shell nproc 2>/dev/null || echo 2)
CMAKE_FLAGS ?=

.PHONY: all deps configure build test test-asan test-tsan soak bench demo package fuzz clean

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
ASAN_FLAGS = -DCMAKE_BUILD_TYPE=RelWithDebInfo -DLUMO_SANITIZE=address -DLUMO_BUILD_BENCH=OFF
TSAN_FLAGS = -DCMAKE_BUILD_TYPE=RelWithDebInfo -DLUMO_SANITIZE=thread -DLUMO_BUILD_BENCH=OFF

test-asan: deps
	$(MAKE) test BUILD_DIR=build-asan CMAKE_FLAGS="$(ASAN_FLAGS)"

test-tsan: deps
	$(MAKE) test BUILD_DIR=build-tsan CMAKE_FLAGS="$(TSAN_FLAGS)"

# The soak: one handle with a stereo feeder, a colour-and-pose feeder and
# getter threads, filters, alignment and point clouds on, for SOAK_FRAMES
# frames in each alignment direction; then a shorter, slower-fed run under
# ThreadSanitizer (which matches a frame in about a second).
SOAK_FRAMES ?= 5000
SOAK_TSAN_FRAMES ?= 600
soak: build
	$(BUILD_DIR)/tests/soak/lumo_soak --frames $(SOAK_FRAMES) --align-direction 1
	$(BUILD_DIR)/tests/soak/lumo_soak --frames $(SOAK_FRAMES) --align-direction 0
	cmake -S . -B build-tsan $(TSAN_FLAGS)
	cmake --build build-tsan --target lumo_soak -j$(JOBS)
	TSAN_OPTIONS=suppressions=$(CURDIR)/tests/support/tsan.supp:halt_on_error=1 \
	  build-tsan/tests/soak/lumo_soak --frames $(SOAK_TSAN_FRAMES) --frame-period-us 50000 --time-limit 900 --stall-limit 120 --rss-slack-mb 0

# Medians of interleaved repetitions: this kind of machine drifts in speed
# within a run, and a ratio of two figures taken minutes apart would drift too.
BENCH_FLAGS ?= --benchmark_repetitions=5 --benchmark_enable_random_interleaving=true

bench: build
	$(BUILD_DIR)/bench/lumo_bench $(BENCH_FLAGS)
	/usr/bin/python3 bench/python_overhead.py $(BUILD_DIR)

# The Debian package of the build (library with its links, header, CMake and
# pkg-config files, lumetra-depth), written into the build folder; not installed.
package: build
	cmake --build $(BUILD_DIR) --target package
	@echo "Contents: dpkg-deb -c $$(ls $(BUILD_DIR)/*.deb); install: apt install ./$$(ls $(BUILD_DIR)/*.deb)"

# The demo: render a sample sequence once (moving camera, pinhole rig, with
# ground truth), compute its depth with the command-line program, and check
# the accuracy against the ground truth; then place the scene's boxes and
# sphere in 3-D from their ground-truth boxes and print the distance errors.
TOOL = $(BUILD_DIR)/tools/lumetra-depth/lumetra-depth
SAMPLE ?= sample
DEMO_OUT ?= demo-out

demo: configure
	cmake --build $(BUILD_DIR) --target lumetra-depth -j$(JOBS)
	@test -f $(SAMPLE)/config.yaml || $(TOOL) synth --out $(SAMPLE) --frames 24 --width 640 --height 400 --moving
	@test -f $(SAMPLE)/boxes.csv || $(TOOL) synth --out $(SAMPLE) --frames 24 --width 640 --height 400 --moving
	rm -rf $(DEMO_OUT)
	$(TOOL) run $(SAMPLE)/config.yaml $(SAMPLE) --out $(DEMO_OUT) --cloud-every 8
	$(TOOL) eval $(DEMO_OUT) $(SAMPLE) --require-median 2
	$(TOOL) objects $(SAMPLE)/config.yaml $(DEMO_OUT) $(SAMPLE)/boxes.csv
	@echo "Pictures in $(DEMO_OUT)/: depth_colour_*.png (depth with its range), rectified_*.png"
	@echo "(rectified pair with guide lines), error_heatmap.png. Depth: depth_*.tiff (32-bit float,"
	@echo "metres, 0 = none) and depth_*.png (16-bit millimetres); point clouds: cloud_*.pcd and"
	@echo "cloud_*.ply (binary). The input frames and ground truth are in $(SAMPLE)/."

clean:
	rm -rf build build-asan build-tsan build-fuzz

# libFuzzer runs of the YAML reader, the typed readers and the two calibration
# imports (file and tracker record, with their checks, depth table and maps),
# FUZZ_SECONDS each, from the seeds in tests/fuzz/corpus (new inputs go
# to build-fuzz/corpus, the seeds stay as they are). A crash, a sanitizer
# report or a leak stops the run and leaves the input in build-fuzz/.
FUZZ_SECONDS ?= 60
fuzz:
	@bash scripts/install-deps.sh --fuzz
	CC=clang CXX=clang++ cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DLUMO_FUZZ=ON
	cmake --build build-fuzz -j$(JOBS) --target fuzz_yaml fuzz_readers fuzz_calibration fuzz_record
	@for target in yaml readers calibration record; do \
	  mkdir -p build-fuzz/corpus/$$target; \
	  echo "fuzz_$$target: $(FUZZ_SECONDS) s"; \
	  if build-fuzz/tests/fuzz/fuzz_$$target -max_total_time=$(FUZZ_SECONDS) -print_final_stats=1 \
	       -artifact_prefix=build-fuzz/$$target- build-fuzz/corpus/$$target tests/fuzz/corpus/$$target \
	       > build-fuzz/fuzz_$$target.log 2>&1; then \
	    grep -E "stat::number_of_executed_units" build-fuzz/fuzz_$$target.log; \
	  else \
	    tail -n 40 build-fuzz/fuzz_$$target.log; echo "fuzz_$$target: finding, see build-fuzz/"; exit 1; \
	  fi; \
	done
