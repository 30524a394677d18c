#!/usr/bin/env bash
# Builds the driver for 32-bit Windows as tervane.sys and checks the image: a
# native-subsystem PE that imports from ntoskrnl.exe and hal.dll only. Builds
# the Windows tools beside it (tervanectl.exe, tervane-index.exe) and checks
# that they are console programs importing only what every Windows has.
# Nothing built here is run.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${SYS_BUILD_DIR:-$root/build-sys}"
cmake -S "$root" -B "$build" -DCMAKE_TOOLCHAIN_FILE="$root/cmake/mingw-i686.cmake" -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$build" -j"$(nproc)"
sys="$build/driver/tervane.sys"
dump="$(i686-w64-mingw32-objdump -p "$sys")"
grep -q "Subsystem.*00000001" <<<"$dump" || { echo "build-sys: $sys is not a native-subsystem image"; exit 1; }
dlls="$(grep "DLL Name" <<<"$dump" | awk '{print $3}' | sort -u)"
for dll in $dlls; do
  case "${dll,,}" in  # the loader matches DLL names without regard to case
    ntoskrnl.exe|hal.dll) ;;
    *) echo "build-sys: $sys imports from $dll"; exit 1 ;;
  esac
done
echo "build-sys: $sys is a native driver importing only from: $(echo $dlls)"

for exe in "$build/win/tervanectl.exe" "$build/win/tervane-index.exe"; do
  dump="$(i686-w64-mingw32-objdump -p "$exe")"
  grep -q "Subsystem.*00000003" <<<"$dump" || { echo "build-sys: $exe is not a console program"; exit 1; }
  dlls="$(grep "DLL Name" <<<"$dump" | awk '{print tolower($3)}' | sort -u)"
  for dll in $dlls; do
    case "$dll" in
      kernel32.dll|msvcrt.dll|ntdll.dll) ;;
      *) echo "build-sys: $exe imports from $dll"; exit 1 ;;
    esac
  done
  echo "build-sys: $exe is a console program importing only from: $(echo $dlls)"
done
