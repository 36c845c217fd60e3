#!/usr/bin/env bash
# Makes the Windows zip from the cross build (tools/windows/build.sh) and
# checks it as a host developer meets it: unpacked into a new directory, a
# consumer cross-built against it with find_package and with pkg-config, and
# run under Wine with nothing but the DLLs of the zip's bin/ beside it.
#   bash tools/windows/check-zip.sh      # BUILD_DIR=build-win64 by default
# Leaves the zip in build-win64/packages/.
set -euo pipefail
cd "$(dirname "$0")/../.."
root="$(pwd)"
build="${BUILD_DIR:-build-win64}"
fail() { echo "check-zip: $*" >&2; exit 1; }

rm -rf "$build/packages"
(cd "$build" && cpack -G ZIP >/dev/null)
zip=$(ls "$build"/packages/zrx2dsticker-*-win64.zip)
name=$(basename "$zip" .zip)
version=${name#zrx2dsticker-}
version=${version%-win64}
echo "== $zip ($(stat -c %s "$zip") bytes)"

work=$(mktemp -d)
wine=$(command -v wine64 || command -v wine || echo /usr/lib/wine/wine64)
wineserver=$(command -v wineserver ||
             echo "$(dirname "$(readlink -f "$wine")")/wineserver")
export WINEPREFIX="$work/wineprefix" WINEDEBUG=-all
trap '"$wineserver" -k 2>/dev/null || true; rm -rf "$work"' EXIT
unzip -q "$zip" -d "$work"
top="$work/$name"
for f in bin/zrx2dsticker.dll lib/libzrx2dsticker.dll.a \
         include/zrx2dsticker/Version.h \
         include/zrx2dsticker/ZRResourceDownloadManager.h \
         lib/cmake/zrx2dsticker/zrx2dstickerConfig.cmake \
         lib/pkgconfig/zrx2dsticker.pc; do
  [ -f "$top/$f" ] || fail "the zip lacks $f"
done
# Every DLL that a DLL of bin/ imports is in bin/ or part of Windows.
for dll in "$top"/bin/*.dll; do
  for import in $(x86_64-w64-mingw32-objdump -p "$dll" |
                  sed -n 's/^[[:space:]]*DLL Name: //p'); do
    [ -f "$top/bin/$import" ] && continue
    [ -f "/usr/lib/x86_64-linux-gnu/wine/x86_64-windows/${import,,}" ] ||
      [ -f "/usr/lib/wine/x86_64-windows/${import,,}" ] ||
      fail "$(basename "$dll") imports $import, which is not in bin/"
  done
done

echo "== consumer with find_package"
cmake -S tests/consumer -B "$work/cmake" \
  -DCMAKE_TOOLCHAIN_FILE="$root/tools/windows/mingw-w64-x86_64.cmake" \
  -Dzrx2dsticker_DIR="$top/lib/cmake/zrx2dsticker" \
  -DZRX_EXPECT_VERSION="$version" >/dev/null
cmake --build "$work/cmake" >/dev/null
echo "== consumer with pkg-config"
[ "$(PKG_CONFIG_LIBDIR="$top/lib/pkgconfig" pkg-config --modversion \
     zrx2dsticker)" = "$version" ] || fail "pkg-config reports another version"
# shellcheck disable=SC2046
x86_64-w64-mingw32-g++-posix -std=c++17 tests/consumer/main.cpp \
  -o "$work/consumer-pc.exe" \
  $(PKG_CONFIG_LIBDIR="$top/lib/pkgconfig" pkg-config --cflags --libs \
    zrx2dsticker)

echo "== both under Wine"
mkdir "$work/run"
cp "$work/cmake/consumer.exe" "$work/consumer-pc.exe" "$top"/bin/*.dll \
  "$work/run/"
for exe in consumer consumer-pc; do
  "$wine" "$work/run/$exe.exe" 2>"$work/$exe.err" | tr -d '\r' \
    >"$work/$exe.out" || fail "$exe.exe failed: $(cat "$work/$exe.err")"
  [ "$(head -n 1 "$work/$exe.out")" = "zrx2dsticker $version" ] ||
    fail "$exe.exe: $(head -n 3 "$work/$exe.out")"
done
cmp -s "$work/consumer.out" "$work/consumer-pc.out" ||
  fail "the two consumers disagree"
echo "windows zip $version: ok"
