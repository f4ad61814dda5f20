#!/usr/bin/env bash
# Set-up, build (Release) and run every test; the transports' threads also run
# under ThreadSanitizer (a small separate build of only those tests).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh

TSAN_DIR=${TSAN_DIR:-build-tsan}
cmake -S . -B "$TSAN_DIR" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVESK_SANITIZER=thread \
  -DVESK_BUILD_BENCH=OFF >/dev/null
cmake --build "$TSAN_DIR" -j"$(nproc)" --target vesk_tcp_tests
ctest --test-dir "$TSAN_DIR" -R "TransportTcp|SslLayer|TcpRealPeers" --output-on-failure -j"$(nproc)"

BUILD_DIR=${BUILD_DIR:-build}
cmake -S . -B "$BUILD_DIR" -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$BUILD_DIR" -j"$(nproc)"
ctest --test-dir "$BUILD_DIR" --output-on-failure -j"$(nproc)" "$@"
