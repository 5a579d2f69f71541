#!/bin/bash
# install_tree.sh CMAKE BUILD SOURCE TREE: installs the build into TREE, made anew, and sees that
# nothing in it remembers where it was built.
set -euo pipefail
cmake=$1 build=$2 source=$3 tree=$4

rm -rf "$tree"
"$cmake" --install "$build" --prefix "$tree" >/dev/null

[[ -f $tree/include/Veltro/Platform.h && -f $tree/include/Kiv/System.h ]]
if grep -rlF -e "$build" -e "$source" "$tree"; then
  echo "these files hold the path of the build or of the sources"
  exit 1
fi
