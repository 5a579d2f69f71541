#!/bin/bash
# run_example.sh PROGRAM SOURCE [own-var]: runs an example in a fresh folder and compares what it
# prints with what the comment at the head of its source says. With own-var it sees an empty
# writable /var of its own; where this process may not make one, status 77 says "skipped".
set -uo pipefail
program=$(realpath "$1") source=$(realpath "$2") mode=${3-}

folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cd "$folder" || exit 1

runner=()
if [[ $mode == own-var ]]; then
  runner=(unshare --mount)
  ((EUID == 0)) || runner+=(--map-root-user)
  "${runner[@]}" true 2>/dev/null || { echo "may not make mounts of its own"; exit 77; }
  # shellcheck disable=SC2016  # for the inner shell
  runner+=(sh -c 'mount -t tmpfs none /var && exec "$0"')
fi

export LD_LIBRARY_PATH=${program%/*}${LD_LIBRARY_PATH+:$LD_LIBRARY_PATH}
TRACE='' "${runner[@]}" "$program" >printed
status=$?
sed -n '1,/^#include/{/^\/\/ Prints:/,/^#include/s/^\/\/   //p}' "$source" >expected
[[ -s expected ]] || { echo "$source does not say what it prints"; exit 1; }
((status == 0)) || echo "ended with status $status"
diff -u expected printed && ((status == 0))
