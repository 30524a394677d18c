#!/usr/bin/env bash
# The FUSE mount beside the host and two other union file systems: the same
# workloads on the bare host directory, on a tervane mount as a monitored
# and as an unmonitored process, and on fuse-overlayfs and unionfs-fuse over
# the same lower layer; one table of times and ratios. Not a test: no time
# is asserted. Needs /dev/fuse, fuse-overlayfs and unionfs-fuse.
# Usage: scripts/bench-mount.sh [--small]    (--small: trees a tenth the size)
#   TERVANE=PATH takes that tervane binary instead of a Release build in build-bench/.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${BENCH_BUILD_DIR:-$root/build-bench}"
scale=10
[[ ${1:-} == --small ]] && scale=1
for tool in fusermount3 fuse-overlayfs unionfs-fuse git make cc tar; do
  command -v "$tool" >/dev/null || { echo "bench-mount: $tool is missing (scripts/setup.sh installs it)" >&2; exit 2; }
done
[[ -c /dev/fuse ]] || { echo "bench-mount: /dev/fuse is missing" >&2; exit 2; }
tervane="${TERVANE:-}"
if [[ -z $tervane ]]; then
  cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DTERVANE_SANITIZE=OFF >/dev/null
  cmake --build "$build" -j"$(nproc)" --target tervane >/dev/null
  tervane="$build/tervane"
fi

work="$(mktemp -d "${TMPDIR:-/tmp}/tervane-bench-mount.XXXXXX")"
mounts=()
cleanup() {
  for m in "${mounts[@]}"; do mountpoint -q "$m" && fusermount3 -u "$m"; done
  sleep 1
  rm -rf "$work"
}
trap cleanup EXIT INT TERM
echo "bench-mount: $(nproc) cores, load average $(cut -d' ' -f1-3 /proc/loadavg)" >&2

# The lower layer: a project to build, a git repository of many files, a
# 256 MiB file to stream; and a source tree to untar.
lower=$work/lower
mkdir -p "$lower/proj" "$lower/repo" "$work/tree"
for i in $(seq $((4 * scale))); do
  printf 'int f%d(int x) { int s = 0; for (int i = 0; i < x; ++i) s += i * %d; return s; }\n' "$i" "$i" > "$lower/proj/f$i.c"
done
printf 'int main(void) { return 0; }\n' > "$lower/proj/main.c"
printf 'SRC := $(wildcard *.c)\nprog: $(SRC:.c=.o)\n\tcc -o $@ $^\n%%.o: %%.c\n\tcc -O0 -c $<\n' > "$lower/proj/Makefile"
for d in $(seq $((3 * scale))); do
  mkdir -p "$lower/repo/d$d" "$work/tree/src/d$d"
  for f in $(seq 100); do
    echo "$d $f" > "$lower/repo/d$d/f$f.txt"
    echo "/* $d $f */" > "$work/tree/src/d$d/f$f.c"
  done
done
git -C "$lower/repo" init -q && git -C "$lower/repo" add -A &&
  git -C "$lower/repo" -c user.name=b -c user.email=b@b commit -qm tree
tar cf "$work/tree.tar" -C "$work/tree" .
head -c $((256 << 20)) /dev/zero > "$lower/big.bin"

# The five places, each with a fresh copy of what is written.
mkdir -p "$work/bare" "$work/vol/layers/pack" "$work/vol/idx" "$work/ovl"/{up,wd,mnt} "$work/uni"/{up,mnt} "$work/mnt"
cp -a "$lower/." "$work/bare/"
cp -a "$lower" "$work/vol/layers/base"
cp -a "$lower" "$work/vol/plain"
cat > "$work/setup.scn" <<'SCN'
volume C: vol
index vol/layers/base vol/idx/base.node vol/idx/base.name
load
ctl set-filters C:\layers\pack C:\layers\base
ctl load-index C:\idx\base.node C:\idx\base.name
ctl start
SCN
"$tervane" mount "$work/setup.scn" "$work/mnt" >/dev/null
mounts+=("$work/mnt")
fuse-overlayfs -o "lowerdir=$lower,upperdir=$work/ovl/up,workdir=$work/ovl/wd" "$work/ovl/mnt"
mounts+=("$work/ovl/mnt")
unionfs-fuse -o cow "$work/uni/up=RW:$lower=RO" "$work/uni/mnt"
mounts+=("$work/uni/mnt")

names=(host monitored unmonitored fuse-overlayfs unionfs-fuse)
dirs=("$work/bare" "$work/mnt" "$work/mnt/plain" "$work/ovl/mnt" "$work/uni/mnt")
workloads=(untar build "git status" find "write 256 MiB" "read 256 MiB")
commands=(
  'mkdir -p untar && tar xf "$TREE" -C untar'
  'make -s -j2 -C proj'
  'git -C repo status --porcelain >/dev/null'
  'find . -type f >/dev/null'
  'dd if=/dev/zero of=stream.out bs=1M count=256 conv=fsync status=none'
  'dd if=big.bin of=/dev/null bs=1M status=none'
)
declare -A seconds
for p in "${!names[@]}"; do
  for w in "${!workloads[@]}"; do
    cmd="cd '${dirs[$p]}' && TREE='$work/tree.tar' && ${commands[$w]}"
    start=$(date +%s.%N)
    if [[ ${names[$p]} == monitored ]]; then
      "$tervane" exec "$work/mnt" -- bash -c "$cmd" || echo "bench-mount: ${workloads[$w]} failed on ${names[$p]}" >&2
    else
      bash -c "$cmd" || echo "bench-mount: ${workloads[$w]} failed on ${names[$p]}" >&2
    fi
    seconds[$p,$w]=$(awk -v a="$start" -v b="$(date +%s.%N)" 'BEGIN { printf "%.3f", b - a }')
  done
done

printf '%-14s' workload; for n in "${names[@]}"; do printf '%15s' "$n"; done
printf '%16s%16s\n' "mon/overlayfs" "unmon/overlayfs"
for w in "${!workloads[@]}"; do
  printf '%-14s' "${workloads[$w]}"
  for p in "${!names[@]}"; do printf '%14.2fs' "${seconds[$p,$w]}"; done
  awk -v m="${seconds[1,$w]}" -v u="${seconds[2,$w]}" -v o="${seconds[3,$w]}" \
    'BEGIN { printf "%15.2fx%15.2fx\n", m / o, u / o }'
done
