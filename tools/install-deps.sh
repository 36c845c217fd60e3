#!/usr/bin/env bash
# Installs the Debian packages that building and testing zrx2dsticker needs.
# Run as root (or with sudo available). Skips apt when all are present.
# ca-certificates is libcurl's own CA store, which a minimal system lacks;
# zrx-fetch's build links it beside the executable for https stickers.
set -euo pipefail
packages=(cmake g++ make pkg-config libcurl4-openssl-dev libminizip-dev
          rapidjson-dev zlib1g-dev libgtest-dev python3 openssl zip unzip
          libarchive-tools binutils ca-certificates)
if [ "${1:-}" = "--extra" ]; then
  shift
  packages+=("$@")
fi
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "ok installed" ||
    missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0
sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
