#!/usr/bin/env bash
# The main job, from a fresh machine: installs what is missing, builds the
# host program, and runs it on the virtual camera with examples/demo.json for
# about ten seconds. It records an FLV file (H.264 + AAC), sends a vesk stream
# over UDP to a local receiver, keeps a JPEG snapshot, and shows what was made.
#
#   scripts/run.sh                 the demo (DEMO_SECONDS=10 by default)
#   scripts/run.sh ARGS...         vesk-camera ARGS... (e.g. run FILE --seconds 5)
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
BUILD_DIR=${BUILD_DIR:-build}
cmake -S . -B "$BUILD_DIR" -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$BUILD_DIR" -j"$(nproc)" --target vesk-camera
CAMERA="$BUILD_DIR/bin/vesk-camera"

if [ $# -gt 0 ]; then
  exec "$CAMERA" "$@"
fi

SECONDS_TO_RUN=${DEMO_SECONDS:-10}
OUT=/tmp/vesk-demo              # the destinations written in examples/demo.json
UDP=udp://127.0.0.1:5600
rm -rf "$OUT"
mkdir -p "$OUT"

echo "== the receiver of the vesk stream listens on $UDP"
"$CAMERA" receive "$UDP" "$OUT/received" >"$OUT/receiver.log" 2>&1 &
RECEIVER=$!
trap 'kill "$RECEIVER" 2>/dev/null || true' EXIT
sleep 0.3

echo "== vesk-camera run examples/demo.json --seconds $SECONDS_TO_RUN"
"$CAMERA" run examples/demo.json --seconds "$SECONDS_TO_RUN" --log-level warning
kill -TERM "$RECEIVER" 2>/dev/null || true
wait "$RECEIVER" || true
trap - EXIT
cat "$OUT/receiver.log"

# ffprobe's summary of a file: one line per audio/video stream, one for the file.
summary() {
  ffprobe -v error -count_frames \
    -show_entries stream=codec_type,codec_name,width,height,avg_frame_rate,sample_rate,channels,nb_read_frames \
    -show_entries format=duration,size -of compact=nokey=0 "$@" 2>&1 |
    grep -v 'codec_type=data' | sed 's/^/    /'
}

echo
echo "== what was produced"
echo "-- $OUT/recording.flv (FLV: H.264 + AAC)"
summary "$OUT/recording.flv"
if ffmpeg -v error -i "$OUT/recording.flv" -f null - 2>"$OUT/decode.log" && [ ! -s "$OUT/decode.log" ]; then
  echo "    decodes without errors"
else
  echo "    decoding reported:"; sed 's/^/      /' "$OUT/decode.log"
fi
echo "-- $OUT/received/video.h264 (the vesk stream's pictures, put back together)"
summary -f h264 "$OUT/received/video.h264"
echo "-- $OUT/received/audio.aac (the vesk stream's audio)"
summary -f aac "$OUT/received/audio.aac"
echo "-- $OUT/snapshot.jpg (the latest JPEG picture)"
summary "$OUT/snapshot.jpg"
echo
echo "Play the recording with: ffplay $OUT/recording.flv"
