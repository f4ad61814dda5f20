#!/usr/bin/env bash
# Set-up, build, and run the host program on the virtual camera.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
BUILD_DIR=${BUILD_DIR:-build}
cmake -S . -B "$BUILD_DIR" -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$BUILD_DIR" -j"$(nproc)"
if [ -x "$BUILD_DIR/bin/vesk-camera" ]; then
  exec "$BUILD_DIR/bin/vesk-camera" "$@"
fi
echo "vesk-camera is not built yet; the library and its tests are in $BUILD_DIR" >&2
exit 1
