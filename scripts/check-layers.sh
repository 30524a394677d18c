#!/usr/bin/env bash
# Checks that the driver's folders depend one way: a source may include its
# own folder's headers and those of the folders below it, never above.
#   core -> dispatch -> filemgr -> index -> control -> base -> platform
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
layers=(platform base control index filemgr dispatch core)

rank() {
  local i
  for i in "${!layers[@]}"; do
    [[ ${layers[$i]} == "$1" ]] && { echo "$i"; return; }
  done
  echo -1
}

bad=0
while IFS= read -r file; do
  rel="${file#"$root"/driver/}"
  own="${rel%%/*}"
  own_rank="$(rank "$own")"
  if ((own_rank < 0)); then
    echo "check-layers: driver/$rel is in no layer"
    bad=1
    continue
  fi
  while IFS= read -r target; do
    dir="${target%%/*}"
    [[ $dir == "$target" ]] && continue  # a header beside the source
    target_rank="$(rank "$dir")"
    if ((target_rank < 0)); then
      echo "check-layers: driver/$rel includes $target, which is in no layer"
      bad=1
    elif ((target_rank > own_rank)); then
      echo "check-layers: driver/$rel ($own) includes $target ($dir is above it)"
      bad=1
    fi
  done < <(sed -n 's/^[[:space:]]*#[[:space:]]*include[[:space:]]*"\([^"]*\)".*/\1/p' "$file")
done < <(find "$root/driver" \( -name '*.cpp' -o -name '*.h' \) | sort)
((bad == 0)) && echo "check-layers: the driver's folders depend one way"
exit "$bad"
