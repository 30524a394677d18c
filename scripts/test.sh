#!/usr/bin/env bash
# Sets up, builds and runs every test: the emulator, the file system, the
# driver, the scenarios, and the 32-bit Windows build of the driver.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${BUILD_DIR:-$root/build}"
"$root/scripts/setup.sh" "$build"
"$root/scripts/build-sys.sh"
ctest --test-dir "$build" --output-on-failure -j"$(nproc)"
