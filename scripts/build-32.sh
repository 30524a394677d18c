#!/usr/bin/env bash
# Builds the emulated machine, the driver, the tool and the tests as 32-bit x86
# programs into build-32/ (GoogleTest built from Debian's sources at -m32): the
# machine that runs the driver image built by scripts/build-sys.sh, which the
# scenarios and the demo then also run against.
# Usage: scripts/build-32.sh [extra cmake arguments...]
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${BUILD32_DIR:-$root/build-32}"
"$root/scripts/setup.sh" --packages-only
# The driver image the scenarios and the demo run against here as well.
"$root/scripts/build-sys.sh"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_TOOLCHAIN_FILE="$root/cmake/linux-i686.cmake" \
  -DTERVANE_GTEST_SOURCE=/usr/src/googletest -DTERVANE_READLINE=OFF -DTERVANE_BENCH=OFF -DTERVANE_FUSE=OFF \
  -DTERVANE_SYS_IMAGE="${SYS_BUILD_DIR:-$root/build-sys}/driver/tervane.sys" "$@" >/dev/null
cmake --build "$build" -j"$(nproc)"
