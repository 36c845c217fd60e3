#!/usr/bin/env bash
# Installs the Debian packages of the Windows x64 cross build and builds the
# dependencies that Debian doesn't ship for mingw-w64 (libcurl with Schannel
# as a DLL, minizip, GoogleTest) from Debian's own sources into a prefix.
#
# The prefix is cached between runs under the cache directory, keyed by the
# source versions and by this script, so a second run only checks:
#   ${ZRX_CACHE_DIR:-$HOME/.cache/zrx2dsticker}/win64-deps-<key>
# Prints the prefix's path as its last line. Run as root (or with sudo).
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
triple=x86_64-w64-mingw32
jobs="$(nproc)"
[ "$jobs" -gt 2 ] && jobs=2

sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
export DEBIAN_FRONTEND=noninteractive

packages=(g++-mingw-w64-x86-64-posix gcc-mingw-w64-x86-64-posix
          binutils-mingw-w64-x86-64 libz-mingw-w64-dev wine64 rapidjson-dev
          googletest dpkg-dev cmake make pkg-config python3 openssl zip unzip
          libarchive-tools xz-utils)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "ok installed" ||
    missing+=("$p")
done

# `apt-get source` needs a deb-src entry for the archive this machine already
# uses: each deb stanza (or line) of the machine's sources, as deb-src.
src_list=/etc/apt/sources.list.d/zrx2dsticker-deb-src.sources
updated=0
if ! apt-get source --print-uris -qq curl >/dev/null 2>&1; then
  tmp_list="$(mktemp)"
  for f in /etc/apt/sources.list.d/*.sources; do
    [ -e "$f" ] && [ "$f" != "$src_list" ] || continue
    sed -n '/^Types:.*\bdeb\b/,/^$/p' "$f" |
      sed -e 's/^Types:.*/Types: deb-src/' >>"$tmp_list"
    echo >>"$tmp_list"
  done
  if [ -e /etc/apt/sources.list ]; then
    grep -E '^deb[[:space:]]' /etc/apt/sources.list |
      sed -e 's/^deb\([[:space:]]\)/deb-src\1/' \
        >/etc/apt/sources.list.d/zrx2dsticker-deb-src.list.tmp || true
    if [ -s /etc/apt/sources.list.d/zrx2dsticker-deb-src.list.tmp ]; then
      $sudo mv /etc/apt/sources.list.d/zrx2dsticker-deb-src.list.tmp \
        /etc/apt/sources.list.d/zrx2dsticker-deb-src.list
    else
      $sudo rm -f /etc/apt/sources.list.d/zrx2dsticker-deb-src.list.tmp
    fi
  fi
  if grep -q '^Types: deb-src' "$tmp_list"; then
    $sudo install -m 644 "$tmp_list" "$src_list"
  fi
  rm -f "$tmp_list"
  $sudo apt-get update -qq
  updated=1
fi
if [ ${#missing[@]} -gt 0 ]; then
  [ "$updated" = 1 ] || $sudo apt-get update -qq
  $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

# The newest source version the archive offers.
source_version() {
  local best="" v
  for v in $(apt-cache showsrc --only-source "$1" | sed -n 's/^Version: //p'); do
    if [ -z "$best" ] || dpkg --compare-versions "$v" gt "$best"; then
      best="$v"
    fi
  done
  echo "$best"
}
curl_version="$(source_version curl)"
minizip_version="$(source_version minizip)"
gtest_version="$(dpkg-query -W -f='${Version}' googletest)"
rapidjson_version="$(dpkg-query -W -f='${Version}' rapidjson-dev)"
zlib_version="$(dpkg-query -W -f='${Version}' libz-mingw-w64-dev)"
gcc_version="$(dpkg-query -W -f='${Version}' g++-mingw-w64-x86-64-posix)"
case "$curl_version" in
  7.88.1-*) ;;
  *) echo "deps: curl source $curl_version is not 7.88.1" >&2; exit 1 ;;
esac
script_sum="$(cat "$0" "$here/mingw-w64-x86_64.cmake" | sha256sum | cut -c1-10)"
key="curl-${curl_version}_minizip-${minizip_version}_gtest-${gtest_version}"
key="${key}_rapidjson-${rapidjson_version}_zlib-${zlib_version}"
key="${key}_gcc-${gcc_version}_${script_sum}"
key="$(echo "$key" | tr -c 'A-Za-z0-9._\n-' '_')"
cache="${ZRX_CACHE_DIR:-$HOME/.cache/zrx2dsticker}"
prefix="$cache/win64-deps-$key"
if [ -f "$prefix/.complete" ]; then
  echo "deps: cached in $prefix" >&2
  echo "$prefix"
  exit 0
fi

mkdir -p "$cache"
work="$(mktemp -d "$cache/win64-work.XXXXXX")"
trap 'rm -rf "$work"' EXIT
stage="$work/prefix"
mkdir -p "$stage/include" "$stage/lib/pkgconfig" "$stage/bin"
toolchain=(-DCMAKE_TOOLCHAIN_FILE="$here/mingw-w64-x86_64.cmake"
           -DZRX_WIN64_PREFIX="$stage" -DCMAKE_BUILD_TYPE=Release
           -DCMAKE_INSTALL_PREFIX="$stage")

echo "deps: fetching Debian sources curl $curl_version, minizip $minizip_version" >&2
(cd "$work" && apt-get source -qq "curl=$curl_version" "minizip=$minizip_version" \
   >/dev/null)

echo "deps: RapidJSON headers" >&2
cp -a /usr/include/rapidjson "$stage/include/"

# The sources and headers of Debian's own build for a mingw host (its
# Makefile.am), compiled into a static library that the DLL takes in whole.
echo "deps: minizip (static)" >&2
mz="$(find "$work" -maxdepth 1 -type d -name 'minizip-*' | head -n 1)"
mkdir -p "$work/mz-build" "$stage/include/minizip"
for c in ioapi mztools unzip zip iowin32; do
  $triple-gcc-posix -O2 -w -c "$mz/$c.c" -o "$work/mz-build/$c.o" -I"$mz"
done
$triple-ar rcs "$stage/lib/libminizip.a" "$work/mz-build"/*.o
cp "$mz"/{crypt,ioapi,mztools,unzip,zip,iowin32}.h "$stage/include/minizip/"
cat >"$stage/lib/pkgconfig/minizip.pc" <<PC
prefix=$stage
libdir=\${prefix}/lib
includedir=\${prefix}/include

Name: minizip
Description: minizip $minizip_version (Debian source), static, for $triple
Version: 1.1
Libs: -L\${libdir} -lminizip -lz
Cflags: -I\${includedir}/minizip
PC

echo "deps: libcurl (Schannel, DLL)" >&2
cu="$(find "$work" -maxdepth 1 -type d -name 'curl-*' | head -n 1)"
cmake -S "$cu" -B "$work/curl-build" "${toolchain[@]}" \
  -DBUILD_SHARED_LIBS=ON -DBUILD_CURL_EXE=OFF -DBUILD_TESTING=OFF \
  -DCURL_USE_SCHANNEL=ON -DCURL_USE_OPENSSL=OFF -DCURL_USE_LIBSSH2=OFF \
  -DCURL_USE_LIBPSL=OFF -DUSE_LIBIDN2=OFF -DUSE_NGHTTP2=OFF \
  -DCURL_BROTLI=OFF -DCURL_ZSTD=OFF -DCURL_ZLIB=ON -DCURL_DISABLE_LDAP=ON \
  -DCURL_DISABLE_LDAPS=ON -DENABLE_MANUAL=OFF -DCURL_CA_BUNDLE=none \
  -DCURL_CA_PATH=none >"$work/curl-configure.log" 2>&1 ||
  { cat "$work/curl-configure.log" >&2; exit 1; }
cmake --build "$work/curl-build" -j"$jobs" >"$work/curl-build.log" 2>&1 ||
  { tail -n 50 "$work/curl-build.log" >&2; exit 1; }
cmake --install "$work/curl-build" >/dev/null

echo "deps: GoogleTest $gtest_version" >&2
cmake -S /usr/src/googletest -B "$work/gtest-build" "${toolchain[@]}" \
  -DBUILD_GMOCK=OFF -DBUILD_SHARED_LIBS=OFF \
  >"$work/gtest-configure.log" 2>&1 ||
  { cat "$work/gtest-configure.log" >&2; exit 1; }
cmake --build "$work/gtest-build" -j"$jobs" >"$work/gtest-build.log" 2>&1 ||
  { tail -n 50 "$work/gtest-build.log" >&2; exit 1; }
cmake --install "$work/gtest-build" >/dev/null

# The runtime that every DLL and executable of the build shares: zlib and
# the toolchain's C++ runtime, one copy each in the process.
gcc_dir="$(dirname "$($triple-g++-posix -print-libgcc-file-name)")"
cp "$gcc_dir/libstdc++-6.dll" "$gcc_dir/libgcc_s_seh-1.dll" "$stage/bin/"
cp "/usr/$triple/lib/libwinpthread-1.dll" "/usr/$triple/lib/zlib1.dll" \
  "$stage/bin/"

# The prefix's own path is written into its CMake and pkg-config files:
# build in the staging directory, then rename it into place.
grep -rlF "$stage" "$stage" | while read -r f; do
  sed -i "s|$stage|$prefix|g" "$f"
done
touch "$stage/.complete"
rm -rf "$prefix"
mv "$stage" "$prefix"
echo "deps: built $prefix" >&2
echo "$prefix"
