#!/usr/bin/env bash
# Compares the NT record layouts of the emulated machine at -m32 with those of
# the DDK for 32-bit Windows: tests/layout/layout_probe.cpp is compiled to
# assembly with each set of headers, and the offsets, sizes and alignments it
# lists must be identical. Nothing is linked or run.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
probe="$root/tests/layout/layout_probe.cpp"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

i686-w64-mingw32-g++ -std=c++17 -S -o "$work/ddk.s" -ffreestanding -fno-exceptions -fno-rtti \
  -D__INTRINSIC_DEFINED_InterlockedBitTestAndSet -D__INTRINSIC_DEFINED_InterlockedBitTestAndReset \
  -I/usr/share/mingw-w64/include/ddk "$probe"
g++ -m32 -std=c++20 -fshort-wchar -S -o "$work/emu.s" -I"$root/emu/include" "$probe"

listing() { sed -n 's/^[[:space:]]*# LAYOUT //p' "$1"; }
listing "$work/ddk.s" >"$work/ddk.txt"
listing "$work/emu.s" >"$work/emu.txt"
count="$(wc -l <"$work/ddk.txt")"
if [[ "$count" -eq 0 ]]; then
  echo "check-layout: the probe listed nothing"; exit 1
fi
if ! diff -U0 --label "DDK (i686-w64-mingw32)" --label "machine (g++ -m32)" "$work/ddk.txt" "$work/emu.txt"; then
  echo "check-layout: the machine's records differ from the DDK's at -m32 (lines above: - DDK, + machine)"
  exit 1
fi
echo "check-layout: $count layouts identical to the DDK's"
