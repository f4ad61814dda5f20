#!/usr/bin/env bash
# check_install.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build=$1
source=$2
work=$(mktemp -d /tmp/vesk-install-XXXXXX)
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --prefix "$work/prefix" >/dev/null
for f in include/vesk/encoder.h lib/cmake/VeskEncoder/VeskEncoderConfig.cmake \
         lib/pkgconfig/vesk_encoder.pc share/vesk/vesk-alsa.conf; do
  [ -e "$work/prefix/$f" ] || { echo "missing after install: $f"; exit 1; }
done

# The settings: one small H.264 stream recorded to a file, no audio.
cat > "$work/settings.json" <<JSON
{
  "chip": {"vin0": {"enabled": true},
           "chan0": {"enabled": true,
                     "buffer0": {"enabled": true,
                                 "max_output": {"width": 320, "height": 180},
                                 "output": {"width": 320, "height": 180}}}},
  "video": {"vinFps": 30,
            "video1": {"enabled": true, "streamId": 0, "sourceId": 0, "width": 320,
                       "height": 180, "fps": 15, "M": 1, "N": 15,
                       "avSerializer": {"type": "flv",
                                        "destinations": ["file://$work/out.flv?continuous"]}}}
}
JSON

# With CMake's find_package.
cmake -S "$source/examples/host" -B "$work/cmake-build" -G Ninja \
  -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
"$work/cmake-build/example-host" "$work/settings.json" 2 2>"$work/host.log" || { cat "$work/host.log"; exit 1; }
[ -s "$work/out.flv" ] || { echo "no recording from the CMake-built host"; exit 1; }
rm -f "$work/out.flv"

# With pkg-config.
flags=$(PKG_CONFIG_PATH="$work/prefix/lib/pkgconfig" pkg-config --cflags --libs vesk_encoder)
c++ "$source/examples/host/main.cpp" $flags -o "$work/pkg-host"
"$work/pkg-host" "$work/settings.json" 2 2>/dev/null
[ -s "$work/out.flv" ] || { echo "no recording from the pkg-config-built host"; exit 1; }
ffprobe -v error -show_streams "$work/out.flv" | grep -q "width=320"
echo "installed package: CMake and pkg-config hosts ran"
