# Two commands set up a fresh Debian/Ubuntu machine and run the library:
#   make demo   install what is missing, build, run the demo on the built-in scan
#   make test   install what is missing, build, run the test suite
# Further targets: make bench (benchmarks), make sanitize (tests under ASan+UBSan,
# with the portable kernels in place of the AVX2 ones chosen at run time),
# make package (Debian packages of the library, in build-package/).

BUILD ?= build
JOBS ?= $(shell nproc 2>/dev/null || echo 2)
CMAKE_ARGS ?=

.PHONY: all setup configure build demo test bench sanitize package clean

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

# The library alone, configured for /usr as a Debian build is, then CPack.
package: setup
	cmake -S . -B build-package -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
	  -DPA_BUILD_TESTS=OFF -DPA_BUILD_BENCHMARKS=OFF -DPA_BUILD_EXAMPLES=OFF $(CMAKE_ARGS)
	cmake --build build-package -j $(JOBS) --target package
	@ls -1 build-package/*.deb

clean:
	rm -rf build build-sanitize build-package
