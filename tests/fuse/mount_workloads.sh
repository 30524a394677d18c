#!/usr/bin/env bash
# Real Linux programs through `tervane mount`, as monitored processes (tervane
# exec) and as ordinary ones, each checked on the host layers afterwards.
# Needs /dev/fuse and fusermount3: where they are missing or unusable the
# test says so in one line and exits 77, which CTest reports as skipped.
# Usage: mount_workloads.sh TERVANE
set -u
tervane=$(realpath "$1")
skip() { echo "SKIP: $*"; exit 77; }
[[ -c /dev/fuse ]] || skip "/dev/fuse is missing: the FUSE mount tests need it"
command -v fusermount3 >/dev/null || skip "fusermount3 is missing (Debian package fuse3)"
for tool in tar make cc git sqlite3 python3; do
  command -v "$tool" >/dev/null || { echo "FAIL: $tool is not installed (scripts/setup.sh installs it)"; exit 1; }
done

work=$(mktemp -d)
mnt=$work/mnt vol=$work/vol
pack=$vol/layers/pack mid=$vol/layers/mid base=$vol/layers/base
daemon=""
cleanup() {
  mountpoint -q "$mnt" 2>/dev/null && fusermount3 -u "$mnt" 2>/dev/null
  [[ -n $daemon ]] && for _ in $(seq 100); do kill -0 "$daemon" 2>/dev/null || break; sleep 0.1; done
  rm -rf "$work"
}
trap cleanup EXIT

# The layers: an indexed base as installed, a middle layer with updates, an
# empty pack location, and a folder outside the view (excluded).
mkdir -p "$mnt" "$pack" "$mid" "$base"/{docs,src,many} "$vol/shared"
echo "base readme" > "$base/docs/readme.txt"
echo "base over" > "$base/over.txt"
echo "mid over" > "$mid/over.txt"
echo "doomed" > "$base/gone.txt"
head -c 4194304 /dev/urandom > "$base/big.bin"
printf '#include <stdio.h>\nint main(void) { puts("built from the base"); return 0; }\n' > "$base/src/hello.c"
printf 'hello: hello.c\n\tcc -o hello hello.c\n' > "$base/src/Makefile"
for i in $(seq 300); do echo "$i" > "$base/many/f$i.txt"; done
(cd "$vol/layers" && find base mid -type f -exec sha256sum {} + | sort) > "$work/lower.sum"
cat > "$work/setup.scn" <<'SCN'
volume C: vol
index vol/layers/base vol/idx/base.node vol/idx/base.name
load
ctl set-filters C:\layers\pack C:\layers\mid C:\layers\base
ctl load-index C:\idx\base.node C:\idx\base.name
ctl add-exclusions C:\shared
ctl start
expect "filtering=1"
SCN

if ! "$tervane" mount "$work/setup.scn" "$mnt" >"$work/mount.out" 2>"$work/mount.err"; then
  if grep -qiE "/dev/fuse|fuse:|cannot mount" "$work/mount.err"; then
    skip "FUSE is not usable here: $(tail -1 "$work/mount.err")"
  fi
  echo "FAIL: the mount did not start"; cat "$work/mount.out" "$work/mount.err"; exit 1
fi
daemon=$(sed -n 's/.*(process \([0-9]*\),.*/\1/p' "$work/mount.out")

failures=0
# check NAME WHO COMMAND EXPECTED [HOSTCHECK]: runs COMMAND in the mount as a
# monitored (m) or unmonitored (u) process; its output must be EXPECTED and
# HOSTCHECK (bash, run on the host) must hold.
check() {
  local name=$1 who=$2 cmd=$3 want=$4 host=${5:-true} out
  if [[ $who == m ]]; then
    out=$("$tervane" exec "$mnt" -- bash -c "cd '$mnt' && $cmd" 2>&1)
  else
    out=$(bash -c "cd '$mnt' && $cmd" 2>&1)
  fi
  if [[ $out != "$want" ]]; then
    echo "FAIL $name: printed [$out], expected [$want]"; failures=$((failures + 1))
  elif ! (cd "$vol" && eval "$host"); then
    echo "FAIL $name: on the host, $host does not hold"; failures=$((failures + 1))
  else
    echo "ok   $name"
  fi
}

sql="create table t(x); with recursive c(i) as (select 1 union all select i+1 from c where i<5000)
     insert into t select i from c; select count(*) from t;"
printf '%s\n' "a:b" "x*" "dot." "trail " "$(printf 'n%.0s' {1..256})" $'\xff\xfe' > "$work/bad.txt"

check "reads through the layers" m 'cat docs/readme.txt over.txt' $'base readme\nmid over'
check "append copies up" m 'echo more >> docs/readme.txt && cat docs/readme.txt' $'base readme\nmore' \
  '[[ $(cat layers/pack/docs/readme.txt) == $'"'"'base readme\nmore'"'"' ]]'
check "delete hides the lower copy" m 'rm gone.txt && ls' $'big.bin\ndocs\nmany\nover.txt\nsrc' \
  'test -f layers/base/gone.txt'
check "rename over an existing name" m 'echo new > a.tmp && mv a.tmp over.txt && cat over.txt' new \
  '[[ $(cat layers/pack/over.txt) == new && $(cat layers/mid/over.txt) == "mid over" ]]'
check "tar names each file once" m 'tar cf - . | tar tf - | sort | uniq -d | wc -l; tar cf - . | tar tf - | grep -c over.txt' \
  $'0\n1'
check "cp -a of a 4 MiB base file" m 'cp -a big.bin big.copy && cmp big.bin big.copy && echo same' same \
  'cmp layers/base/big.bin layers/pack/big.copy'
check "an excluded folder is the volume's" m 'echo ex > shared/note.txt && cat shared/note.txt' ex \
  'test -f shared/note.txt && ! test -e layers/pack/shared'
check "make and cc build from a lower layer" m 'make -s -C src && ./src/hello' "built from the base" \
  'test -f layers/pack/src/hello && ! test -e layers/base/src/hello'
check "git init, add, commit, status" m 'git init -q repo && cd repo && echo x > f && git add f &&
  git -c user.name=t -c user.email=t@t commit -qm one && git status --porcelain | wc -l' 0 \
  'test -d layers/pack/repo/.git/objects'
check "sqlite3 with 5000 rows" m "sqlite3 db.sqlite '$sql'" 5000 \
  '[[ $(sqlite3 layers/pack/db.sqlite "select sum(x) from t") == 12502500 ]]'
check "parallel appenders" m 'for i in 1 2 3 4; do (for j in $(seq 150); do echo "$i-$j" >> log.txt; done) & done; wait; wc -l < log.txt' \
  600 '[[ $(grep -cxE "[1-4]-[0-9]+" layers/pack/log.txt) == 600 ]]'
check "python os.replace" m 'python3 -c "import os; open(\"r.tmp\", \"w\").write(\"py\"); os.replace(\"r.tmp\", \"docs/readme.txt\"); print(open(\"docs/readme.txt\").read())"' \
  py '[[ $(cat layers/pack/docs/readme.txt) == py ]]'
check "find over 300 files" m 'find many -type f | wc -l' 300
check "a killed writer loses nothing written" m '{ bash -c "exec 3>killed.txt; echo part >&3; kill -9 \$\$"; } 2>/dev/null; cat killed.txt' part \
  '[[ $(cat layers/pack/killed.txt) == part ]]'
check "names NT cannot hold are refused" m "b=\$(ls -A); while IFS= read -r n; do touch -- \"\$n\" 2>&1 | sed 's/.*: //'; done < '$work/bad.txt'; [ \"\$(ls -A)\" = \"\$b\" ] && echo unchanged" \
  $'Invalid argument\nInvalid argument\nInvalid argument\nInvalid argument\nFile name too long\nInvalid or incomplete multibyte or wide character\nunchanged' \
  '! find layers/pack -name "*:*" -o -name "x\**" -o -name "*." -o -name "* " | grep -q .'
check "links and device nodes are refused" m 'ln -s over.txt sl 2>/dev/null || ln over.txt hl 2>/dev/null || mkfifo p 2>/dev/null || echo refused' refused
check "an unmonitored process sees the volume" u 'cat layers/base/docs/readme.txt && echo plain > plain.txt && ls layers' \
  $'base readme\nbase\nmid\npack' 'test -f plain.txt && ! test -e layers/pack/plain.txt'
# Mounts that cannot start say why and exit non-zero.
echo "bogus line" > "$work/bad.scn"
check "a busy mount point is refused" u "'$tervane' mount '$work/setup.scn' '$mnt' 2>&1; echo \$?" \
  "tervane mount: $mnt is busy: something is mounted there already"$'\n1'
check "a script error is named" u "'$tervane' mount '$work/bad.scn' '$work' 2>&1 | grep -c 'bad.scn:1:'; echo \${PIPESTATUS[0]}" $'1\n2'
sleep 1.5  # the mount ends gone processes every half second
check "ended processes leave the list" u "'$tervane' ctl '$mnt' process-count" $'STATUS_SUCCESS (0x00000000) info=4\n  count=0'

(cd "$vol/layers" && find base mid -type f -exec sha256sum {} + | sort) > "$work/lower.after"
if cmp -s "$work/lower.sum" "$work/lower.after"; then echo "ok   the lower layers are byte-identical"; else
  echo "FAIL the lower layers changed:"; diff "$work/lower.sum" "$work/lower.after"; failures=$((failures + 1)); fi

# The mount point detached lazily and removed under the daemon: it must still
# see the end of its mount, stop its processes and shut the machine down clean.
fusermount3 -uz "$mnt" && rmdir "$mnt"
for _ in $(seq 300); do kill -0 "$daemon" 2>/dev/null || break; sleep 0.1; done
if kill -0 "$daemon" 2>/dev/null; then echo "FAIL the daemon still runs after its mount point was removed"; failures=$((failures + 1))
elif grep -q "verifier: clean" "$work/mount.err"; then echo "ok   mount point removed, daemon ended, verifier clean"; else
  echo "FAIL the mount did not end clean:"; cat "$work/mount.err"; failures=$((failures + 1)); fi
daemon=""
echo "$failures failed"
[[ $failures == 0 ]]
