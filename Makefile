# Two commands set up a fresh Debian/Ubuntu machine and run the library:
#   make demo   install what is missing, build, run the demo on the built-in scan
#   make test   install what is missing, build, run the test suite
# Further targets: make bench (benchmarks), make sanitize (tests under ASan+UBSan,
# with the portable kernels in place of the vector ones chosen at run time),
# make python (the Python module, in build/python), make wheel (a wheel in dist/),
# make package (Debian packages of the library, in build-package/),
# make fuzz (every fuzz target for FUZZ_SECONDS seconds, with Clang and
# libFuzzer), make tsan (concurrent calls of every routine under ThreadSanitizer),
# make test-aarch64 (cross build for 64-bit ARM, tests run under qemu-user).
# CXX=clang++ make test builds with Clang, in its own folder (build-clang).

ifneq ($(findstring clang,$(notdir $(CXX))),)
BUILD ?= build-clang
else
BUILD ?= build
endif
JOBS ?= $(shell nproc 2>/dev/null || echo 2)
CMAKE_ARGS ?=
# The interpreter of the Python module: the first of /usr/bin/python3 and
# python3 that imports numpy (another python3 may come first on PATH).
PYTHON ?= $(shell for p in /usr/bin/python3 python3; do $$p -c 'import numpy' >/dev/null 2>&1 && { command -v $$p; break; }; done)
PYTHON_ARGS = $(if $(PYTHON),-DPython3_EXECUTABLE=$(PYTHON))

FUZZ_SECONDS ?= 60

.PHONY: all setup configure build demo test bench sanitize python wheel package fuzz tsan setup-aarch64 test-aarch64 clean

all: build

setup:
	@bash scripts/setup.sh

configure: setup
	CXX=$(CXX) cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release $(PYTHON_ARGS) $(CMAKE_ARGS)

build: configure
	cmake --build $(BUILD) -j $(JOBS)

demo: build
	./$(BUILD)/examples/profile_demo $(ARGS)

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

bench: build
	./$(BUILD)/bench/profile_bench $(ARGS)

python: configure
	cmake --build $(BUILD) -j $(JOBS) --target pa_python

wheel: setup
	@test -n "$(PYTHON)" || { echo "wheel: no python3 that imports numpy" >&2; exit 1; }
	$(PYTHON) -m pip wheel --no-deps --no-build-isolation . -w dist

sanitize:
	$(MAKE) test BUILD=build-sanitize CMAKE_ARGS="-DPA_SANITIZE=ON -DPA_PORTABLE_KERNELS=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo -DPA_BUILD_BENCHMARKS=OFF"

# The library alone, configured for /usr as a Debian build is, then CPack.
package: setup
	cmake -S . -B build-package -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
	  -DPA_BUILD_TESTS=OFF -DPA_BUILD_BENCHMARKS=OFF -DPA_BUILD_EXAMPLES=OFF $(CMAKE_ARGS)
	cmake --build build-package -j $(JOBS) --target package
	@ls -1 build-package/*.deb

fuzz:
	FUZZ_SECONDS=$(FUZZ_SECONDS) bash scripts/fuzz.sh

tsan:
	bash scripts/setup.sh clang
	cmake -S . -B build-tsan -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo -DPA_SANITIZE_THREAD=ON \
	  -DPA_BUILD_BENCHMARKS=OFF -DPA_BUILD_EXAMPLES=OFF -DPA_PORTABLE_KERNELS=OFF $(CMAKE_ARGS)
	cmake --build build-tsan -j $(JOBS) --target test_concurrency
	TSAN_OPTIONS="halt_on_error=1 exitcode=66 $(TSAN_OPTIONS)" ./build-tsan/tests/test_concurrency

# The cross build takes its own packages (arm64 libraries through multiarch),
# so plain make test never installs them. The demo and the benchmarks are left
# out: their libraries are not installed for arm64. The comparison of the
# labelling with OpenCV's on large random images is left out too: under
# emulation it runs for more than a quarter of an hour. So do the concurrent
# calls, whose race check runs natively under ThreadSanitizer (make tsan).
setup-aarch64:
	@bash scripts/setup-aarch64.sh

test-aarch64: setup-aarch64
	cmake -S . -B build-aarch64 -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake -DCMAKE_BUILD_TYPE=Release \
	  -DPA_BUILD_EXAMPLES=OFF -DPA_BUILD_BENCHMARKS=OFF -DPA_BUILD_PYTHON=OFF $(CMAKE_ARGS)
	cmake --build build-aarch64 -j $(JOBS)
	cd build-aarch64 && ctest --output-on-failure -j $(JOBS) -E "AgreesWithOpenCvOnRandomImages|ConcurrentCalls"

clean:
	rm -rf build build-clang build-sanitize build-aarch64 build-package build-wheel dist build-fuzz build-tsan
