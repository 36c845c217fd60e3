#!/usr/bin/env bash
# Runs the cross-built Windows tests under Wine, on the Linux machine that
# built them (bash tools/windows/build.sh builds them first if it hasn't).
# The tests' loopback servers and tools (python3, openssl, zip, bsdtar) run
# on the Linux side; Wine gets a prefix of its own in the build directory.
#
# Two passes, at two ANSI code pages (Wine takes it from the locale): the
# whole suite at 1252 (Western), then the suites whose names on the disk
# depend on the code page at 932 (Japanese, double-byte). Each pass tells
# the tests which page it means, and a test fails if the locale didn't give
# it; ctest's log of each pass is kept as
# build-win64/Testing/Temporary/LastTest-cp<page>.log.
#   bash tests/run-windows.sh
#   TESTS_REGEX=Pipeline bash tests/run-windows.sh   # a subset by test name
#   ZRX_CODE_PAGES=932 bash tests/run-windows.sh      # one pass only
set -euo pipefail
cd "$(dirname "$0")/.."
build="${BUILD_DIR:-build-win64}"

packages=(wine64 python3 openssl zip unzip libarchive-tools cmake locales)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "ok installed" ||
    missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  sudo=""
  [ "$(id -u)" -ne 0 ] && sudo="sudo"
  export DEBIAN_FRONTEND=noninteractive
  $sudo apt-get update -qq
  $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
[ -f "$build/tests/CTestTestfile.cmake" ] || bash tools/windows/build.sh

# Wine names Linux files in the locale's character set: a UTF-8 one, or no
# name outside ASCII can be made. C.UTF-8 gives code page 1252; 932 needs
# ja_JP.UTF-8, which must exist on the machine (without it Wine still says
# 932, but can't make any file whose name is outside ASCII).
export LC_ALL=C.UTF-8
code_pages="${ZRX_CODE_PAGES:-1252 932}"
if [[ " $code_pages " == *" 932 "* ]] &&
   ! locale -a 2>/dev/null | grep -qix 'ja_JP\.utf-\?8'; then
  echo "== generating the locale ja_JP.UTF-8 (code page 932 under Wine)"
  sudo=""
  [ "$(id -u)" -ne 0 ] && sudo="sudo"
  $sudo localedef -i ja_JP -f UTF-8 ja_JP.UTF-8
fi
wine="$(command -v wine64 || echo /usr/lib/wine/wine64)"
export WINEPREFIX="${WINEPREFIX:-$(pwd)/$build/wineprefix}"
export WINEDEBUG=-all
# No Mono and no Gecko: nothing here needs them, and their installers would
# wait for an answer.
export WINEDLLOVERRIDES="mscoree=;mshtml="
wineserver="$(dirname "$(readlink -f "$wine")")/wineserver64"
if [ ! -f "$WINEPREFIX/system.reg" ]; then
  echo "== making the Wine prefix $WINEPREFIX"
  "$wine" wineboot --init >/dev/null 2>&1
  "$wineserver" -w 2>/dev/null || true
fi
# One server and Wine's own services for the whole run, up before the first
# test: test processes that start together with them can hang on exit.
"$wineserver" -p 2>/dev/null || true
"$wine" wineboot >/dev/null 2>&1 || true
echo "== Windows tests under $("$wine" --version 2>/dev/null || echo Wine)"

jobs="$(nproc)"
[ "$jobs" -gt 2 ] && jobs=2
# The suites whose results depend on the code page: names in lists, on the
# disk and in archives, the default download path, zrx-fetch's runs.
cp932_labels='ListParserTest|PipelineTest|ZipReaderTest|ManagerTest|ZrxFetchTest'
status=0
for page in $code_pages; do
  case "$page" in
    1252) locale_name=C.UTF-8 labels="${TESTS_LABEL:-}" ;;
    932) locale_name=ja_JP.UTF-8 labels="${TESTS_LABEL:-$cp932_labels}" ;;
    *) echo "run-windows: no locale known for code page $page" >&2; exit 2 ;;
  esac
  echo "== code page $page (LC_ALL=$locale_name): ${labels:-the whole suite}"
  pass=0
  LC_ALL="$locale_name" ZRX_TEST_CODE_PAGE="$page" \
    ctest --test-dir "$build" --output-on-failure -j"$jobs" \
    ${TESTS_REGEX:+-R "$TESTS_REGEX"} ${labels:+-L "$labels"} || pass=$?
  log="$build/Testing/Temporary/LastTest.log"
  if [ -f "$log" ]; then
    cp "$log" "$build/Testing/Temporary/LastTest-cp$page.log"
    grep -m 1 -o 'narrow code page [0-9]*' "$log" |
      sed 's/^/== the tests ran at: /' || true
  fi
  [ "$pass" -ne 0 ] && status=$pass
done
"$wineserver" -k 2>/dev/null || true
exit $status
