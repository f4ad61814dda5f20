#!/usr/bin/env bash
# Installs the Debian packages the project needs, when any is missing.
# Idempotent, and quiet when everything is already there.
set -euo pipefail

PACKAGES=(
  build-essential cmake ninja-build pkg-config
  libssl-dev openssl
  libasound2-dev alsa-utils
  nlohmann-json3-dev
  libgtest-dev libgmock-dev googletest libbenchmark-dev
  ffmpeg libavcodec-dev libavutil-dev libavformat-dev libswscale-dev libx264-dev
  g++-arm-linux-gnueabihf qemu-user   # the camera CPU's NEON path, checked under emulation
)

missing=()
for p in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "setup: installing ${missing[*]}"
SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
