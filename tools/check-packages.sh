#!/usr/bin/env bash
# Checks the Debian packages as a host developer meets them: their contents,
# `apt-get install ./...` pulling every library they need, and a consumer
# built with find_package and with pkg-config against the installed packages
# that runs and reports the packages' version. As root:
#   bash tools/check-packages.sh [DIR]   # DIR: build-pkg/packages by default
# The packages are purged at the end unless KEEP=1.
set -euo pipefail
cd "$(dirname "$0")/.."
dir="$(cd "${1:-build-pkg/packages}" && pwd)"
fail() { echo "check-packages: $*" >&2; exit 1; }

runtime=$(ls "$dir"/libzrx2dsticker[0-9]*_*.deb)
dev=$(ls "$dir"/libzrx2dsticker-dev_*.deb)
version=$(dpkg-deb -f "$dev" Version)
upstream=${version%-*}
major=${upstream%%.*}
[ "$(dpkg-deb -f "$runtime" Package)" = "libzrx2dsticker$major" ] ||
  fail "the runtime package is not named after SONAME $major"
[ "$(dpkg-deb -f "$runtime" Version)" = "$version" ] ||
  fail "the two packages' versions differ"

# Files (not directories) of a package, one a line, sorted.
files() { dpkg-deb -c "$1" | awk '$1 !~ /^d/ {print $6}' | sed 's|^\./||' | sort; }
libdir=$(files "$runtime" | sed -n "s|/libzrx2dsticker\.so\.$major\$||p")
[ -n "$libdir" ] || fail "the runtime package lacks libzrx2dsticker.so.$major"
expected_runtime="$libdir/libzrx2dsticker.so.$major
$libdir/libzrx2dsticker.so.$upstream"
[ "$(files "$runtime")" = "$expected_runtime" ] ||
  fail "the runtime package must hold the library under its SONAME only:
$(files "$runtime")"
for f in usr/include/zrx2dsticker/Version.h \
         usr/include/zrx2dsticker/ZRResourceDownloadManager.h \
         $libdir/libzrx2dsticker.so $libdir/pkgconfig/zrx2dsticker.pc \
         $libdir/cmake/zrx2dsticker/zrx2dstickerConfig.cmake; do
  files "$dev" | grep -qx "$f" || fail "the dev package lacks $f"
done

export DEBIAN_FRONTEND=noninteractive
cleanup() {
  [ "${KEEP:-0}" = 1 ] ||
    apt-get purge -y -qq libzrx2dsticker-dev "libzrx2dsticker$major" >/dev/null
}
trap cleanup EXIT
ls /var/lib/apt/lists/*_Packages >/dev/null 2>&1 || apt-get update -qq
echo "== apt-get install ./$(basename "$runtime") ./$(basename "$dev")"
apt-get install -y -qq --no-install-recommends "$runtime" "$dev" >/dev/null
missing=$(ldd "/$libdir/libzrx2dsticker.so.$major" | grep 'not found' || true)
[ -z "$missing" ] || fail "libraries the packages did not pull in: $missing"

# Only now the tools to build a host: they must not hide a missing dependency.
need=()
for p in g++ make cmake pkg-config; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "ok installed" ||
    need+=("$p")
done
if [ ${#need[@]} -gt 0 ]; then
  apt-get install -y -qq --no-install-recommends "${need[@]}" >/dev/null
fi

work=$(mktemp -d)
trap 'rm -rf "$work"; cleanup' EXIT
echo "== consumer with find_package"
cmake -S tests/consumer -B "$work/cmake" -DZRX_EXPECT_VERSION="$upstream" \
  >/dev/null
cmake --build "$work/cmake" >/dev/null
"$work/cmake/consumer" >"$work/cmake.out"
echo "== consumer with pkg-config"
[ "$(pkg-config --modversion zrx2dsticker)" = "$upstream" ] ||
  fail "pkg-config reports version $(pkg-config --modversion zrx2dsticker)"
# shellcheck disable=SC2046
g++ -std=c++17 tests/consumer/main.cpp -o "$work/consumer-pc" \
  $(pkg-config --cflags --libs zrx2dsticker)
"$work/consumer-pc" >"$work/pc.out"
for out in "$work/cmake.out" "$work/pc.out"; do
  [ "$(head -n 1 "$out")" = "zrx2dsticker $upstream" ] ||
    fail "the installed headers are not version $upstream: $(head -n 1 "$out")"
done
cmp -s "$work/cmake.out" "$work/pc.out" ||
  fail "the two consumers disagree"
echo "packages $version: ok"
