#!/usr/bin/env bash
# The DLL exports the same names as the Linux shared library: the dynamic
# symbols of the one and the export table of the other, demangled alike
# (mingw-w64 mangles C++ names as on Linux), must be equal.
#   bash tools/windows/check-exports.sh [build/libzrx2dsticker.so [build-win64/zrx2dsticker.dll]]
set -euo pipefail
cd "$(dirname "$0")/../.."
so="${1:-build/libzrx2dsticker.so}"
dll="${2:-build-win64/zrx2dsticker.dll}"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
nm -DC --defined-only "$so" | sed -E 's/^[0-9a-f]+ [A-Za-z] //' |
  sort >"$work/so"
x86_64-w64-mingw32-objdump -p "$dll" |
  sed -n '/\[Ordinal\/Name Pointer\] Table/,/^$/s/^[[:space:]]*\[ *[0-9]*\] //p' |
  c++filt | sort >"$work/dll"
if ! diff -u "$work/so" "$work/dll"; then
  echo "check-exports: $dll and $so export different names" >&2
  exit 1
fi
echo "exports: the DLL's $(wc -l <"$work/dll") names are the shared library's"
