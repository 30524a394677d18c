#!/usr/bin/env bash
# Runs one libFuzzer target for SECONDS (default 60) in the clang
# AddressSanitizer/UndefinedBehaviorSanitizer build of the fuzzers
# (build-fuzz, or BUILD_DIR), configuring and building it first when needed.
# The corpus grows in a temporary directory from the seeds in
# fuzz/corpus/TARGET; a crash leaves its input in
# fuzz/crash-TARGET-*: add it to fuzz/corpus/TARGET, where CTest replays it.
# Usage: scripts/fuzz.sh TARGET [SECONDS]
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
targets=(control index_pair scenario_lexer query names)
if (($# < 1)) || [[ ! " ${targets[*]} " == *" $1 "* ]]; then
  echo "fuzz: unknown target '${1:-}': the targets are ${targets[*]}" >&2
  echo "usage: scripts/fuzz.sh TARGET [SECONDS]" >&2
  exit 2
fi
target="$1"
seconds="${2:-60}"
if ! [[ "$seconds" =~ ^[0-9]+$ ]]; then
  echo "fuzz: SECONDS must be a whole number, not '$seconds'" >&2
  exit 2
fi
if ! command -v clang++-14 >/dev/null || ! command -v clang-14 >/dev/null; then
  echo "fuzz: the fuzzers need clang-14 and libclang-rt-14-dev (apt-get install clang-14 libclang-rt-14-dev)" >&2
  exit 2
fi
build="${BUILD_DIR:-$root/build-fuzz}"
if [[ ! -f "$build/CMakeCache.txt" ]]; then
  CC=clang-14 CXX=clang++-14 cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DTERVANE_SANITIZE=ON -DTERVANE_FUZZ=ON -DTERVANE_FUSE=OFF -DTERVANE_BENCH=OFF >/dev/null
elif ! grep -q '^TERVANE_FUZZ:BOOL=ON' "$build/CMakeCache.txt"; then
  echo "fuzz: $build is not a fuzzer build (configure it with CC=clang-14 CXX=clang++-14 -DTERVANE_FUZZ=ON)" >&2
  exit 2
fi
cmake --build "$build" -j"$(nproc)" --target "fuzz_$target"
work="$(mktemp -d /tmp/tervane-fuzz-corpus-XXXXXX)"
trap 'rm -rf "$work"' EXIT
export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"
"$build/fuzz/fuzz_$target" -max_total_time="$seconds" -print_final_stats=1 \
  -artifact_prefix="$root/fuzz/crash-$target-" "$work" "$root/fuzz/corpus/$target"
