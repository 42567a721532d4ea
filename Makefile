# Two commands set up a fresh Debian/Ubuntu machine and run the library:
#   make demo   install what is missing, build, run the demo on the built-in scan
#   make test   install what is missing, build, run the test suite
# Further targets: make bench (benchmarks), make sanitize (tests under ASan+UBSan,
# with the portable kernels in place of the vector ones chosen at run time),
# make test-aarch64 (cross build for 64-bit ARM, tests run under qemu-user).
# CXX=clang++ make test builds with Clang, in its own folder (build-clang).

ifneq ($(findstring clang,$(notdir $(CXX))),)
BUILD ?= build-clang
else
BUILD ?= build
endif
JOBS ?= $(shell nproc 2>/dev/null || echo 2)
CMAKE_ARGS ?=

.PHONY: all setup configure build demo test bench sanitize setup-aarch64 test-aarch64 clean

all: build

setup:
	@bash scripts/setup.sh

configure: setup
	CXX=$(CXX) cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release $(CMAKE_ARGS)

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

# The cross build takes its own packages (arm64 libraries through multiarch),
# so plain make test never installs them. The demo and the benchmarks are left
# out: their libraries are not installed for arm64. The comparison of the
# labelling with OpenCV's on large random images is left out too: under
# emulation it runs for more than a quarter of an hour.
setup-aarch64:
	@bash scripts/setup-aarch64.sh

test-aarch64: setup-aarch64
	cmake -S . -B build-aarch64 -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake -DCMAKE_BUILD_TYPE=Release \
	  -DPA_BUILD_EXAMPLES=OFF -DPA_BUILD_BENCHMARKS=OFF $(CMAKE_ARGS)
	cmake --build build-aarch64 -j $(JOBS)
	cd build-aarch64 && ctest --output-on-failure -j $(JOBS) -E AgreesWithOpenCvOnRandomImages

clean:
	rm -rf build build-clang build-sanitize build-aarch64
