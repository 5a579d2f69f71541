# shellcheck shell=bash
# Sourced by the other scripts: from here on the working directory is the top of the tree.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

say() { echo "${0##*/}: $*"; }
die() { say "$*" >&2; exit 1; }

# Prints the comment at the head of the script when its first argument is --help.
help_if_asked() {
  [[ ${1-} != --help && ${1-} != -h ]] && return
  sed -n '2,/^[^#]/s/^# \{0,1\}//p' "script/${0##*/}"
  exit 0
}

# configure_and_build PRESET [targets...]
configure_and_build() {
  local preset=$1
  shift
  cmake --preset "$preset" --log-level=WARNING >/dev/null
  cmake --build --preset "$preset" ${1+--target "$@"}
}
