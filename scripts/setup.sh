#!/usr/bin/env bash
# Installs what building and testing the library needs, on Debian/Ubuntu with
# apt-get; elsewhere it names what is missing and stops.
set -euo pipefail

# clang and its runtime: CXX=clang++ make test, make fuzz, make tsan;
# libhwy-dev: the vector kernels.
packages=(cmake g++ make pkg-config libopencv-core-dev libopencv-imgproc-dev libopencv-imgcodecs-dev libgtest-dev libbenchmark-dev
          clang libclang-rt-14-dev libhwy-dev)
# The Python module, its tests, wheel and example, for the system's own python3.
packages+=(python3-dev python3-numpy pybind11-dev python3-pytest python3-pip python3-venv python3-setuptools python3-wheel python3-matplotlib)
# libFuzzer for `make fuzz` (`setup.sh clang`).
if [ "${1:-}" = clang ]; then packages+=(libfuzzer-14-dev); fi

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done 2>/dev/null || true

if ! command -v dpkg-query >/dev/null 2>&1; then
  for tool in cmake g++ make pkg-config $([ "${1:-}" = clang ] && echo clang++); do
    command -v "$tool" >/dev/null 2>&1 || { echo "setup: '$tool' is missing; install it with your package manager" >&2; exit 1; }
  done
  pkg-config --exists opencv4 || [ -e /usr/include/opencv4/opencv2/core.hpp ] || { echo "setup: OpenCV (core, imgproc, imgcodecs) development files are missing" >&2; exit 1; }
  echo "setup: not a Debian/Ubuntu system: make sure GoogleTest and Google Benchmark are installed" >&2
  echo "setup: for the Python module: a python3 with numpy, its headers, pybind11, pytest, pip, venv, matplotlib" >&2
  exit 0
fi

[ ${#missing[@]} -eq 0 ] && exit 0

if ! command -v apt-get >/dev/null 2>&1; then
  echo "setup: missing packages: ${missing[*]} (no apt-get on this system; install them by hand)" >&2
  exit 1
fi

sudo=""
if [ "$(id -u)" -ne 0 ]; then
  if command -v sudo >/dev/null 2>&1; then sudo="sudo"; else
    echo "setup: missing packages: ${missing[*]}; run as root or install them by hand" >&2
    exit 1
  fi
fi

echo "setup: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
