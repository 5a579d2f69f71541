#!/bin/bash
# check_library.sh FILE CLASS "NEEDED..." EXPORTS LOADER
# Every fault is printed; any of them fails the test.
set -uo pipefail
file=$1 class=$2 may_need=${3//;/ } exports=$4 loader=$5
faults=0
fault() { echo "FAULT: $*"; faults=1; }

header=$(readelf -hlW "$file") || exit 1
dynamic=$(readelf -dW "$file") || exit 1
needed=$(sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' <<<"$dynamic")
symbols=$(nm -DC --defined-only "$file" | cut -d' ' -f3- | sed 's/@@\?[A-Z]*_0$//' | grep -vx '[A-Z]*_0')

grep -q "Class: *$class\$" <<<"$header" || fault "not of class $class"
grep -qF "Library soname: [$(basename "$file").0]" <<<"$dynamic" || fault "soname is not $(basename "$file").0"

# One way only: a library may need those below it, never those above.
while read -r library; do
  [[ " $may_need " == *" $library "* ]] || fault "needs $library"
done < <(grep -E '^lib(kiv|SegMem|nsjoin|KivVeltro)\.' <<<"$needed")

# libunwind before libgcc_s would take over every throw.
order=$(grep -E '^lib(gcc_s|unwind)\.' <<<"$needed" | sed 's/\..*//' | tr '\n' ' ')
case $(basename "$file"):$order in
  libKivVeltro.so:"libgcc_s libunwind ") ;;
  libKivVeltro.so:*) fault "libgcc_s does not stand before libunwind: '$order'" ;;
  *unwind*) fault "needs libunwind" ;;
esac

[[ -n $symbols ]] || fault "exports nothing"
alien=$(grep -vxE "$exports" <<<"$symbols") && fault "exports what is not its own:"$'\n'"$alien"

grep -q GNU_RELRO <<<"$header" || fault "no relocation read-only segment"
grep -Eq 'BIND_NOW|FLAGS.*NOW' <<<"$dynamic" || fault "not bound at load"
grep -q 'GNU_STACK.* RW ' <<<"$header" || fault "its stack is executable"
grep -q TEXTREL <<<"$dynamic" && fault "relocations in its text"

"$loader" "$file" || fault "does not load alone"
exit $faults
