#!/usr/bin/env bash
# Makes a corpus of real files with Debian's tools, lays them into one image
# with random filler and a few broken files, carves it with vellum-check and
# prints per format how many came back byte-identical.
#
#   bench/carve-corpus.sh [VELLUM_CHECK] [WORKDIR] [--seed N]
#
# VELLUM_CHECK defaults to the binary in build-corpus (built when missing),
# WORKDIR to a fresh folder under /tmp (pass "" for either default). Exits 0
# unless the carve itself fails. The table is a measurement, not a test.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
repo=$(dirname "$here")
binary=${1:-}
workdir=${2:-}
shift $(( $# < 2 ? $# : 2 ))

# Debian package for each tool the corpus needs.
declare -A packages=(
  [/usr/bin/convert]=imagemagick
  [ffmpeg]=ffmpeg
  [lame]=lame
  [sox]=sox
  [exiftool]=libimage-exiftool-perl
  [tiffset]=libtiff-tools
  [gs]=ghostscript
  [qpdf]=qpdf
  [zip]=zip
  [jar]=default-jdk-headless
  [soffice]="libreoffice-writer-nogui libreoffice-calc-nogui libreoffice-impress-nogui"
)
missing=()
for tool in "${!packages[@]}"; do
  command -v "$tool" >/dev/null 2>&1 || missing+=(${packages[$tool]})
done
if ((${#missing[@]})); then
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo=sudo
  echo "Installing ${missing[*]}"
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends \
    "${missing[@]}" >/dev/null
fi

if [ -z "$binary" ]; then
  build="$repo/build-corpus"
  binary="$build/apps/cli/vellum-check"
  if [ ! -x "$binary" ]; then
    cmake -S "$repo" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
    make -C "$build" -j2 vellum-check >/dev/null
  fi
fi
if [ -z "$workdir" ]; then
  workdir=$(mktemp -d /tmp/carve-corpus.XXXXXX)
fi
echo "Working in $workdir"
exec python3 "$here/carve_corpus.py" "$binary" "$workdir" "$@"
