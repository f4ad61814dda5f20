#!/usr/bin/env bash
# Set-up, build (Release) and run every test. The suites whose objects cross
# threads (transports, audio worker, motion thread, encoder pump, runtime
# changes) also run under ThreadSanitizer, in a separate build; any race it
# reports fails them.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh

TSAN_DIR=${TSAN_DIR:-build-tsan}
TSAN_SUITES="vesk_tcp_tests vesk_audio_tests vesk_video_tests vesk_encoder_tests vesk_runtime_tests"
cmake -S . -B "$TSAN_DIR" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVESK_SANITIZER=thread \
  -DVESK_BUILD_BENCH=OFF >/dev/null
# shellcheck disable=SC2086
cmake --build "$TSAN_DIR" -j"$(nproc)" --target $TSAN_SUITES
for suite in $TSAN_SUITES; do
  echo "== $suite under ThreadSanitizer"
  TSAN_OPTIONS="halt_on_error=1 ${TSAN_OPTIONS:-}" "$TSAN_DIR/bin/$suite" --gtest_brief=1
done

BUILD_DIR=${BUILD_DIR:-build}
cmake -S . -B "$BUILD_DIR" -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$BUILD_DIR" -j"$(nproc)"
ctest --test-dir "$BUILD_DIR" --output-on-failure -j"$(nproc)" "$@"
