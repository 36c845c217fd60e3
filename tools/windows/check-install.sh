#!/usr/bin/env bash
# Checks the Windows install tree (build-win64/install, made by
# tools/windows/build.sh) as a host developer uses it: a host project
# (tests/consumer) cross-built with find_package and nothing but
# CMAKE_PREFIX_PATH pointing at the tree, run under Wine with the DLLs the
# package names, at code page 1252 and at 932. At each it installs a small
# list from a loopback server (on the Linux side), and its outcomes and the
# files on the disk must be those of that code page.
#   bash tools/windows/check-install.sh      # BUILD_DIR=build-win64 by default
set -euo pipefail
cd "$(dirname "$0")/../.."
root="$(pwd)"
build="${BUILD_DIR:-build-win64}"
install="$root/$build/install"
fail() { echo "check-install: $*" >&2; exit 1; }
[ -f "$install/lib/cmake/zrx2dsticker/zrx2dstickerConfig.cmake" ] ||
  bash tools/windows/build.sh

work=$(mktemp -d)
wine=$(command -v wine64 || echo /usr/lib/wine/wine64)
wineserver="$(dirname "$(readlink -f "$wine")")/wineserver64"
[ -x "$wineserver" ] || wineserver=$(command -v wineserver)
export WINEPREFIX="${WINEPREFIX:-$root/$build/wineprefix}" WINEDEBUG=-all
export WINEDLLOVERRIDES="mscoree=;mshtml="
server_pid=""
cleanup() {
  [ -n "$server_pid" ] && kill "$server_pid" 2>/dev/null || true
  "$wineserver" -k 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

echo "== host project built against $install"
cmake -S tests/consumer -B "$work/host" \
  -DCMAKE_TOOLCHAIN_FILE="$root/tools/windows/mingw-w64-x86_64.cmake" \
  -DCMAKE_PREFIX_PATH="$install" >/dev/null
cmake --build "$work/host" >/dev/null
for dll in zrx2dsticker.dll libcurl.dll zlib1.dll libstdc++-6.dll; do
  [ -f "$work/host/$dll" ] || fail "the package named no $dll for the host"
done

# What the host fetches: a plain file and an archive with a directory.
mkdir -p "$work/served"
python3 - "$work/served" <<'EOF'
import sys, zipfile
served = sys.argv[1]
open(served + "/a.png", "wb").write(b"\x89PNG not really")
with zipfile.ZipFile(served + "/pack.zip", "w") as z:
    z.writestr("img/", b"")
    z.writestr("img/x.png", b"x" * 300)
    z.writestr("info.txt", b"info")
EOF
python3 -u -m http.server --bind 127.0.0.1 --directory "$work/served" 0 \
  >"$work/server.out" 2>&1 &
server_pid=$!
for _ in $(seq 100); do
  port=$(sed -n 's/.* port \([0-9]*\).*/\1/p' "$work/server.out" | head -n 1)
  [ -n "$port" ] && break
  sleep 0.1
done
[ -n "${port:-}" ] || fail "the loopback server did not start"

# Code page 932 under Wine needs the locale ja_JP.UTF-8 (see
# tests/run-windows.sh), made from Debian's locales.
if ! locale -a 2>/dev/null | grep -qix 'ja_JP\.utf-\?8'; then
  sudo=""
  [ "$(id -u)" -ne 0 ] && sudo="sudo"
  if [ ! -f /usr/share/i18n/locales/ja_JP ]; then
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq \
      --no-install-recommends locales >/dev/null
  fi
  $sudo localedef -i ja_JP -f UTF-8 ja_JP.UTF-8
fi
[ -f "$WINEPREFIX/system.reg" ] || "$wine" wineboot --init >/dev/null 2>&1

for page in 1252 932; do
  case $page in
    1252) locale_name=C.UTF-8 ;;
    932) locale_name=ja_JP.UTF-8 ;;
  esac
  echo "== the host under Wine at code page $page"
  dir="$work/stickers-$page"
  LC_ALL=$locale_name "$wine" "$work/host/consumer_run.exe" \
    "http://127.0.0.1:$port" "Z:$dir" 2>"$work/run.err" |
    tr -d '\r' >"$work/run.out" ||
    fail "consumer_run failed: $(cat "$work/run.out" "$work/run.err")"
  # At 1252 "日" becomes '?', which no name may hold; at 932 "é" becomes its
  # look-alike "e". A device name fails everywhere.
  if [ $page = 1252 ]; then
    sun="sun failed -10003" acute="é.png" sun_file="" installed=2
  else
    sun="sun ok" acute="e.png" sun_file="日.png" installed=3
  fi
  expected="code page $page
acute ok
$sun
pack ok
device failed -10003
installed at the second start: $installed"
  [ "$(cat "$work/run.out")" = "$expected" ] ||
    fail "at $page the host printed:
$(cat "$work/run.out")
and not:
$expected"
  files=$(cd "$dir" && LC_ALL=C.UTF-8 find . -mindepth 1 | sort | tr '\n' ' ')
  want=$(printf '%s\n' ./$acute ${sun_file:+./$sun_file} ./pack.zip ./pack \
           ./pack/img ./pack/img/x.png ./pack/info.txt |
         LC_ALL=C.UTF-8 sort | tr '\n' ' ')
  [ "$files" = "$want" ] || fail "at $page the disk holds: $files, not: $want"
  echo "ok: $(tr '\n' ';' <"$work/run.out")"
done
echo "windows install: ok"
