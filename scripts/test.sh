#!/usr/bin/env bash
# Sets up, builds and runs every test: the emulator, the file system, the
# driver, the scenarios, the 32-bit Windows build of the driver, and the
# machine's record layouts against the DDK's.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${BUILD_DIR:-$root/build}"
"$root/scripts/setup.sh" "$build"
"$root/scripts/build-sys.sh"
"$root/scripts/check-layout.sh"
ctest --test-dir "$build" --output-on-failure -j"$(nproc)"
