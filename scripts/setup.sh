#!/usr/bin/env bash
# Installs what the build needs (Debian packages), configures and builds.
# Usage: scripts/setup.sh [BUILD_DIR] [extra cmake arguments...]
#        scripts/setup.sh --packages-only
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${1:-$root/build}"
shift || true

# g++-multilib and googletest (its sources) serve the 32-bit build, build-32.sh.
packages=(cmake g++ make libgtest-dev libgmock-dev libbenchmark-dev nlohmann-json3-dev libcli11-dev
          libreadline-dev libattr1-dev groff-base g++-mingw-w64-i686 mingw-w64-i686-dev binutils-mingw-w64-i686
          fuse3 libfuse3-dev pkg-config tar git sqlite3 python3 fuse-overlayfs unionfs-fuse
          g++-multilib googletest clang-14 libclang-rt-14-dev)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
  echo "setup: installing ${missing[*]}"
  sudo_cmd=""
  [[ $(id -u) -ne 0 ]] && sudo_cmd="sudo"
  $sudo_cmd apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq "${missing[@]}" >/dev/null
fi

[[ "$build" == "--packages-only" ]] && exit 0

cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
cmake --build "$build" -j"$(nproc)"
