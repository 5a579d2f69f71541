#!/bin/bash
# out_of_tree.sh WAY TREE EXAMPLES RUN_EXAMPLE CXX "FLAGS": builds each example as its reader would,
# against the library installed in TREE, in a fresh folder, and runs it. WAY is cmake, pkg-config or
# plain (a command line that names all it needs).
set -euo pipefail
way=$1 tree=$2 run_example=$4 cxx=$5 flags=$6
lib=$(dirname "$(find "$tree" -name libKivVeltro.so)")

folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cp -r "$3" "$folder/examples"  # nothing of the source tree can be found from there
cd "$folder"

# compile NAME ARGUMENTS...: one example, and the shared object beside it where it has one.
compile() {
  local name=$1 source=examples/$1.cpp
  shift
  # shellcheck disable=SC2086  # flags are words
  "$cxx" -std=c++17 $flags "$source" -o "built/$name" "$@"
  if grep -q '^#ifdef PLUGIN_SIDE' "$source"; then
    # shellcheck disable=SC2086
    "$cxx" -std=c++17 $flags -shared -fPIC -DPLUGIN_SIDE "$source" -o built/libGreeter.so "$@"
  fi
}

mkdir built
case $way in
  cmake)
    if ! { cmake -S examples -B built -G Ninja -DCMAKE_PREFIX_PATH="$tree" \
             -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_CXX_FLAGS="$flags" &&
             cmake --build built; } >log 2>&1; then
      cat log
      exit 1
    fi
    ;;
  pkg-config)
    export PKG_CONFIG_PATH=$lib/pkgconfig
    read -ra found <<<"$(pkg-config --cflags --libs KivVeltro)"
    for source in examples/*.cpp; do compile "$(basename "$source" .cpp)" "${found[@]}"; done
    ;;
  plain)
    for source in examples/*.cpp; do
      compile "$(basename "$source" .cpp)" -I "$tree/include" -D_FILE_OFFSET_BITS=64 \
        -L "$lib" -lKivVeltro -lSegMem -lkiv
    done
    ;;
esac

failed=0
export LD_LIBRARY_PATH=$lib
for source in examples/*.cpp; do
  name=$(basename "$source" .cpp) mode=
  [[ $name == counters ]] && mode=own-var
  status=0
  "$run_example" "built/$name" "$source" $mode || status=$?
  ((status == 0 || status == 77)) || { echo "$way: $name failed"; failed=1; }
done
exit $failed
