#!/usr/bin/env bash
# Quick start on a fresh Debian machine, run as root (or with sudo):
#   bash examples/quickstart.sh
# Installs the Debian packages the build needs (only when some are missing),
# builds the library and zrx-fetch in ./build without the tests, and runs
# zrx-fetch twice on the sample catalogue into ./stickers: the first run
# fetches every missing sticker from zrx-fetch's built-in server on
# 127.0.0.1, the second finds all of them installed and fetches nothing.
# Safe to run again; it needs no network once the packages are there.
set -euo pipefail
cd "$(dirname "$0")/.."

packages=(cmake g++ make pkg-config libcurl4-openssl-dev libminizip-dev
          rapidjson-dev zlib1g-dev)
missing=()
for package in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null |
    grep -q "ok installed" || missing+=("$package")
done
if [ ${#missing[@]} -gt 0 ]; then
  sudo=""
  if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null || {
      echo "quickstart: run as root to install: ${missing[*]}" >&2
      exit 1
    }
    sudo="sudo"
  fi
  echo "== installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  $sudo apt-get update -qq
  $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" \
    >/dev/null
fi

echo "== building zrx2dsticker and zrx-fetch in ./build"
cmake -S . -B build -DZRX_BUILD_TESTS=OFF -DZRX_BUILD_EXAMPLES=ON >/dev/null
cmake --build build -j"$(nproc)" --target zrx-fetch >/dev/null

echo "== zrx-fetch: installing the sample catalogue into ./stickers"
./build/examples/zrx-fetch --dir ./stickers
echo
echo "== zrx-fetch again: everything is installed, nothing is fetched"
./build/examples/zrx-fetch --dir ./stickers
echo
echo "The stickers are in ./stickers, the library's log in ./stickers.log."
echo "Try: ./build/examples/zrx-fetch --help"
