#!/usr/bin/env bash
# Installs what the aarch64 cross build (make test-aarch64) needs on a
# Debian/Ubuntu x86-64 machine: the cross compiler, qemu-user to run the tests,
# and OpenCV, Highway and GoogleTest for arm64 through multiarch. Only OpenCV's
# per-module packages install beside the amd64 ones (the all-modules package
# does not), so core and imgproc (which the tests use) are taken.
set -euo pipefail

packages=(g++-aarch64-linux-gnu qemu-user libopencv-core-dev:arm64 libopencv-imgproc-dev:arm64 libgtest-dev:arm64
          libhwy-dev:arm64)

installed() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q "install ok installed"; }

missing=()
for p in "${packages[@]}"; do installed "$p" || missing+=("$p"); done
[ ${#missing[@]} -eq 0 ] && exit 0

if ! command -v apt-get >/dev/null 2>&1; then
  echo "setup-aarch64: missing packages: ${missing[*]} (no apt-get on this system; install them by hand)" >&2
  exit 1
fi
sudo=""
if [ "$(id -u)" -ne 0 ]; then
  if command -v sudo >/dev/null 2>&1; then sudo="sudo"; else
    echo "setup-aarch64: missing packages: ${missing[*]}; run as root or install them by hand" >&2
    exit 1
  fi
fi

echo "setup-aarch64: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
if ! dpkg --print-foreign-architectures | grep -qx arm64; then
  $sudo dpkg --add-architecture arm64
fi
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
