#!/bin/bash
# with_tree.sh TREE CXX "FLAGS" COMMAND...: runs the command where the library installed in TREE is
# found as a system's would be, and g++ is CXX with these flags.
set -euo pipefail
tree=$1 cxx=$(command -v "$2") flags=$3  # a full path: g++ is redefined below
shift 3
lib=$(dirname "$(find "$tree" -name libKivVeltro.so)")

folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
printf '#!/bin/sh\nexec %s %s "$@"\n' "$cxx" "$flags" >"$folder/g++"
chmod +x "$folder/g++"
PATH=$folder:$tree/bin:$PATH CXX=$folder/g++ CMAKE_PREFIX_PATH=$tree TRACE='' \
  PKG_CONFIG_PATH=$lib/pkgconfig LD_LIBRARY_PATH=$lib "$@"
