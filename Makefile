# Two commands set up a fresh Debian/Ubuntu machine and run the library:
#   make demo   install what is missing, build, run the demo on the built-in scan
#   make test   install what is missing, build, run the test suite
# Further targets: make bench (benchmarks), make sanitize (tests under ASan+UBSan,
# with the portable kernels in place of the AVX2 ones chosen at run time),
# make fuzz (every fuzz target for FUZZ_SECONDS seconds, with Clang and
# libFuzzer), make tsan (concurrent calls of every routine under ThreadSanitizer).

BUILD ?= build
JOBS ?= $(shell nproc 2>/dev/null || echo 2)
CMAKE_ARGS ?=
FUZZ_SECONDS ?= 60

.PHONY: all setup configure build demo test bench sanitize fuzz tsan clean

all: build

setup:
	@bash scripts/setup.sh

configure: setup
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release $(CMAKE_ARGS)

build: configure
	cmake --build $(BUILD) -j $(JOBS)

demo: build
	./$(BUILD)/examples/profile_demo $(ARGS)

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

bench: build
	./$(BUILD)/bench/profile_bench $(ARGS)

sanitize:
	$(MAKE) test BUILD=build-sanitize CMAKE_ARGS="-DPA_SANITIZE=ON -DPA_PORTABLE_KERNELS=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo -DPA_BUILD_BENCHMARKS=OFF"

fuzz:
	FUZZ_SECONDS=$(FUZZ_SECONDS) bash scripts/fuzz.sh

tsan:
	bash scripts/setup.sh clang
	cmake -S . -B build-tsan -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo -DPA_SANITIZE_THREAD=ON \
	  -DPA_BUILD_BENCHMARKS=OFF -DPA_BUILD_EXAMPLES=OFF -DPA_PORTABLE_KERNELS=OFF $(CMAKE_ARGS)
	cmake --build build-tsan -j $(JOBS) --target test_concurrency
	TSAN_OPTIONS="halt_on_error=1 exitcode=66 $(TSAN_OPTIONS)" ./build-tsan/tests/test_concurrency

clean:
	rm -rf build build-sanitize build-fuzz build-tsan
