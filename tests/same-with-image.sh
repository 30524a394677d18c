#!/usr/bin/env bash
# Runs a scenario with the built-in driver and again with `load` loading a
# driver image, in the same work directory, and fails unless both runs print
# the same and end the same way.
# Usage: same-with-image.sh TERVANE IMAGE SCENARIO
set -uo pipefail
tervane="$1" image="$2" scenario="$3"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
# What the host decides differs from run to run: file times and file ids.
# (pipefail: a run's status is that of tervane, not of the filter.)
steady() { sed -E 's/(Time|IndexNumber|FileId)=[0-9]+( \([^)]*\))?/\1=N/g'; }
builtin="$("$tervane" run --workdir "$work/run" "$scenario" 2>&1 | steady)"; builtin_code=$?
rm -rf "$work/run"
loaded="$("$tervane" run --workdir "$work/run" --sys "$image" "$scenario" 2>&1 | steady)"; loaded_code=$?
if [[ "$loaded" != "$builtin" || $loaded_code -ne $builtin_code ]]; then
  echo "$scenario: the image differs from the built-in driver (exit $loaded_code, built-in $builtin_code):"
  diff <(echo "$builtin") <(echo "$loaded") | head -40
  exit 1
fi
echo "$loaded"
exit "$loaded_code"
