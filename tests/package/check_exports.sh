#!/usr/bin/env bash
# The shared library exports exactly the functions tamrik.h declares, each under the version
# node of the header's major release, and its SONAME carries that release:
#   check_exports.sh LIBRARY INCLUDE_DIR...
# A function missing from the library or a symbol the header does not declare fails, by name.
set -euo pipefail
library=$1
shift
includes=()
for dir in "$@"; do includes+=("-I$dir"); done
work=$(mktemp -d "${TMPDIR:-/tmp}/tamrik-exports-XXXXXX")
trap 'rm -rf "$work"' EXIT

# The header as a compiler reads it: every name followed by "(" that starts with tamrik_ is a
# function (the types are tamrik_com, tamrik_config, ..., never followed by a parenthesis).
printf '#include <tamrik.h>\nint tamrik_major = TAMRIK_VERSION_MAJOR;\n' >"$work/probe.c"
cc -E -P "${includes[@]}" "$work/probe.c" >"$work/header.i"
grep -oE '\btamrik_[A-Za-z0-9_]+[[:space:]]*\(' "$work/header.i" | tr -d '( \t' | sort -u >"$work/declared"
major=$(sed -n 's/^int tamrik_major = \([0-9]*\);$/\1/p' "$work/header.i")
[ -n "$major" ] || { echo "tamrik.h gives no TAMRIK_VERSION_MAJOR"; exit 1; }
[ "$(wc -l <"$work/declared")" -gt 50 ] || { echo "too few functions found in tamrik.h"; exit 1; }

node="TAMRIK_$major"
nm -D --defined-only --with-symbol-versions "$library" | awk '{print $2, $3}' >"$work/defined"
# The version node itself is an absolute symbol of that name; every other symbol is a function.
grep -qx "A $node" "$work/defined" || { echo "no version node $node in $library"; exit 1; }
grep -vx "A $node" "$work/defined" | awk '{print $2}' | sort -u >"$work/exported"

status=0
missing=$(comm -23 <(sed "s/\$/@@$node/" "$work/declared") "$work/exported")
extra=$(comm -13 <(sed "s/\$/@@$node/" "$work/declared") "$work/exported")
if [ -n "$missing" ]; then
  echo "declared in tamrik.h but not exported (as $node):"; echo "$missing"; status=1
fi
if [ -n "$extra" ]; then
  echo "exported but not declared in tamrik.h:"; echo "$extra"; status=1
fi
kinds=$(grep -vx "A $node" "$work/defined" | awk '{print $1}' | sort -u | tr '\n' ' ')
[ "$kinds" = "T " ] || { echo "exported symbols of kinds other than functions: $kinds"; status=1; }

soname=$(readelf -d "$library" | sed -n 's/.*Library soname: \[\(.*\)\]/\1/p')
[ "$soname" = "libtamrik.so.$major" ] || { echo "SONAME $soname, header's major release $major"; status=1; }

[ $status -eq 0 ] && echo "exports: $(wc -l <"$work/declared") functions of tamrik.h under $node, SONAME $soname"
exit $status
