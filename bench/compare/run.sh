#!/usr/bin/env bash
# zrx2dsticker beside the tools a user would otherwise pick, in one run:
#   bash bench/compare/run.sh [--quick]
# Installs what it needs (Debian packages), builds the benchmarks in Release
# (build-bench/), starts nginx on 127.0.0.1 at a free port with a temporary
# configuration, makes the corpora in a temporary directory and measures
# every scenario (bench/compare/compare.py). Writes bench/results/latest.json,
# latest.md and ratios.svg. --quick runs two rounds only, to check the
# harness. About 15 minutes on a 2-core machine; needs about 3 GiB of disk.
set -euo pipefail
cd "$(dirname "$0")/../.."
root="$(pwd)"

bash tools/install-deps.sh --extra nginx curl wget aria2 unzip \
  libarchive-tools gnuplot-nox libbenchmark-dev time

build="${BUILD_DIR:-build-bench}"
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DZRX_BUILD_BENCH=ON \
  -DZRX_BUILD_TESTS=OFF -DZRX_BUILD_EXAMPLES=OFF >/dev/null
cmake --build "$build" -j2 --target zrx-bench-micro zrx-bench-host \
  zrx-bench-extract zrx-bench-floor zrx-bench-rusage >/dev/null

work="$(mktemp -d "${TMPDIR:-/tmp}/zrx-compare-XXXXXX")"

# What the fixed behaviour of a transfer costs: the host against a patched
# copy of the library, built in the temporary directory one patch at a time
# (nothing of it is committed; only the patched file recompiles). A patch
# that no longer applies skips its variant.
copy="$work/variant-src"
downloader="src/download/ZRX2DStickerResourceDownloader.cpp"
mkdir -p "$copy" "$work/variants"
cp -r CMakeLists.txt cmake include src bench "$copy/"
build_variant() {  # NAME SED-EXPRESSION CHECK-PATTERN
  cp "$downloader" "$copy/$downloader"
  sed -i "$2" "$copy/$downloader"
  if ! grep -q "$3" "$copy/$downloader"; then
    echo "variant $1: the patch no longer applies, skipped"
    return 0
  fi
  cmake -S "$copy" -B "$work/variant-build" -DCMAKE_BUILD_TYPE=Release \
    -DZRX_BUILD_BENCH=ON -DZRX_BUILD_TESTS=OFF -DZRX_BUILD_EXAMPLES=OFF \
    >/dev/null
  cmake --build "$work/variant-build" -j2 --target zrx-bench-host >/dev/null
  mkdir -p "$work/variants/$1"
  cp -P "$work/variant-build/bench/zrx-bench-host" \
    "$work/variant-build/libzrx2dsticker.so"* "$work/variants/$1/"
}
# curl's own receive buffer (100 KiB) instead of the fixed 16 KiB.
build_variant recv100k \
  's/kReceiveBufferSize = 16384;/kReceiveBufferSize = 102400;/' \
  'kReceiveBufferSize = 102400;'
# No flush after each chunk: a 1 MiB stdio buffer gathers the chunks.
build_variant noflush \
  's/^  std::fflush(file);$/  (void)0;/; s/if (file != nullptr) std::setvbuf(file, nullptr, _IONBF, 0);/static char variantBuffer[1 << 20]; if (file != nullptr) std::setvbuf(file, variantBuffer, _IOFBF, sizeof variantBuffer);/' \
  'variantBuffer, _IOFBF'
# A select wait of 1 s instead of the fixed 200 ms.
build_variant wait1s \
  's/kSelectWaitMicroseconds = 200000;/kSelectWaitMicroseconds = 1000000;/' \
  'kSelectWaitMicroseconds = 1000000;'
# No verbose trace.
build_variant noverbose \
  's/CURLOPT_VERBOSE, 1L/CURLOPT_VERBOSE, 0L/' 'CURLOPT_VERBOSE, 0L'
rm -rf "$copy" "$work/variant-build"
nginx_pid=""
cleanup() {
  if [ -n "$nginx_pid" ]; then
    kill "$nginx_pid" 2>/dev/null || true
    wait "$nginx_pid" 2>/dev/null || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT

# nginx's workers run as nobody: the served tree must be readable to them.
chmod 755 "$work"
mkdir -p "$work/www" "$work/nginx"
port="$(/usr/bin/python3 -c 'import socket; s = socket.socket()
s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')"
cat >"$work/nginx/nginx.conf" <<EOF
daemon off;
master_process on;
worker_processes 1;
pid $work/nginx/nginx.pid;
error_log $work/nginx/error.log warn;
events { worker_connections 1024; }
http {
  access_log off;
  default_type application/octet-stream;
  sendfile on;
  tcp_nopush on;
  keepalive_requests 100000;
  client_body_temp_path $work/nginx/body;
  proxy_temp_path $work/nginx/proxy;
  fastcgi_temp_path $work/nginx/fastcgi;
  uwsgi_temp_path $work/nginx/uwsgi;
  scgi_temp_path $work/nginx/scgi;
  server {
    listen 127.0.0.1:$port;
    root $work/www;
    location /slow/ { limit_rate 100k; }
  }
}
EOF
nginx -p "$work/nginx" -c "$work/nginx/nginx.conf" &
nginx_pid=$!
for _ in $(seq 50); do
  curl -s -o /dev/null "http://127.0.0.1:$port/" && break
  kill -0 "$nginx_pid" 2>/dev/null || { cat "$work/nginx/error.log"; exit 1; }
  sleep 0.1
done

{
  echo "nproc: $(nproc)"
  grep -m1 'model name' /proc/cpuinfo
  echo "kernel: $(uname -r)"
  echo "load at start: $(cut -d' ' -f1-3 /proc/loadavg)"
  echo "nginx port: $port"
} | tee "$work/machine.txt"

/usr/bin/python3 bench/compare/compare.py --work "$work" --out bench/results \
  --base "http://127.0.0.1:$port" --bin "$root/$build/bench" \
  --variants "$work/variants" "$@"
cp "$work/machine.txt" bench/results/machine.txt
