#!/usr/bin/env bash
# Builds the benchmark suite in Release and runs it: one table of figures and
# ratios, measured side by side in one run.
# Usage: scripts/bench.sh [--json] [--smoke] [--repetitions N] [--min-time S] [GROUP...]
#   groups: open io copy index list pool scale threads log (default: all)
# The temporary trees go below $TMPDIR (or /tmp) and are removed at the end,
# also when the run fails or is interrupted.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${BENCH_BUILD_DIR:-$root/build-bench}"

known=" open io copy index list pool scale threads log "
for arg in "$@"; do
  case "$arg" in
    -*|[0-9]*) ;;
    *) if [[ "$known" != *" $arg "* ]]; then
         echo "bench: unknown benchmark group '$arg' (known:$known)" >&2
         exit 2
       fi ;;
  esac
done

if ! cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DTERVANE_SANITIZE=OFF >/dev/null; then
  echo "bench: cannot configure the build; scripts/setup.sh installs what it needs" >&2
  exit 2
fi
cmake --build "$build" -j"$(nproc)" --target tervane_bench >/dev/null

parent="${TMPDIR:-/tmp}"
work="$(mktemp -d "$parent/tervane-bench-run.XXXXXX")" || { echo "bench: cannot make a directory in $parent" >&2; exit 2; }
trap 'rm -rf "$work"' EXIT INT TERM
echo "bench: $(nproc) cores, load average $(cut -d' ' -f1-3 /proc/loadavg)" >&2
"$build/tervane_bench" --dir "$work" "$@"
