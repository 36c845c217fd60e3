#!/usr/bin/env bash
# Runs the cross-built Windows tests under Wine, on the Linux machine that
# built them (bash tools/windows/build.sh builds them first if it hasn't).
# The tests' loopback servers and tools (python3, openssl, zip, bsdtar) run
# on the Linux side; Wine gets a prefix of its own in the build directory.
#   bash tests/run-windows.sh
#   TESTS_REGEX=Pipeline bash tests/run-windows.sh   # a subset by test name
set -euo pipefail
cd "$(dirname "$0")/.."
build="${BUILD_DIR:-build-win64}"

packages=(wine64 python3 openssl zip unzip libarchive-tools cmake)
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
# name outside ASCII can be made.
if [ "$(locale charmap 2>/dev/null)" != "UTF-8" ]; then
  export LC_ALL=C.UTF-8
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
status=0
ctest --test-dir "$build" --output-on-failure -j"$jobs" \
  ${TESTS_REGEX:+-R "$TESTS_REGEX"} ${TESTS_LABEL:+-L "$TESTS_LABEL"} || status=$?
"$wineserver" -k 2>/dev/null || true
exit $status
