#!/usr/bin/env bash
# Installs the Debian packages that building and testing Vellum Check need,
# skipping those already present. Uses sudo when not run as root.
set -euo pipefail

packages=(
  build-essential cmake pkg-config clang libclang-rt-dev
  libgtest-dev libgmock-dev libbenchmark-dev nlohmann-json3-dev
  util-linux mount fdisk dosfstools exfatprogs mtools e2fsprogs pkexec
  fuse3 libfuse3-dev
  qt6-base-dev qt6-svg-dev libgl-dev fonts-dejavu-core poppler-utils
  libudev-dev xvfb xauth x11-apps netpbm xdotool desktop-file-utils appstream bc lintian
)

missing=()
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$package")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=()
[ "$(id -u)" -eq 0 ] || sudo=(sudo)
echo "Installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
"${sudo[@]}" apt-get update -qq
"${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
