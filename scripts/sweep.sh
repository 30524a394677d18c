#!/usr/bin/env bash
# The whole allocation-failure sweep: every scenario script under tests/ and
# the demo's walk, each run again for every N with the Nth allocation refused
# and with each driver tag refused from its Nth allocation on. CI runs a
# fixed sample of it (CTest's sweep/sample); this runs all of it.
# Usage: scripts/sweep.sh [alloc_sweep options...]   (BUILD_DIR picks the build)
# A failure is named with its replay: alloc_sweep --fail-at N [--tag T] WORKLOAD
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${BUILD_DIR:-$root/build}"
[[ -x "$build/alloc_sweep" ]] || "$root/scripts/setup.sh" "$build"
mapfile -t scripts < <(find "$root/tests" -name '*.scn' | sort)
exec "$build/alloc_sweep" "$@" "${scripts[@]}" demo
