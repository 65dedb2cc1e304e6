#!/usr/bin/env bash
# Carving time on crafted 1 GiB images against 1 GiB of zeros: a JPEG header
# followed by 0xFF (what erased flash reads as), JPEG headers without an end
# marker every 512 bytes, and OLE2 headers every 512 bytes. The scan must
# stay linear in the image's size: each should be within a small factor of
# zeros. Images are read from the page cache.
# Usage: bench/carve-adversarial.sh BUILD_DIR [RUNS] [IMAGE_DIR]
set -euo pipefail
build=${1:?build directory (a Release build)}
runs=${2:-3}
dir=$(mktemp -d "${3:-/var/tmp}/vellum-adversarial-XXXXXX")
trap 'rm -rf "$dir"' EXIT

python3 - "$dir" <<'PY'
import struct, sys
size = 1 << 30
folder = sys.argv[1]
# A JPEG up to its start of scan: SOI, APP0, SOS with a minimal header.
jpeg = bytes([0xFF, 0xD8, 0xFF, 0xE0, 0x00, 0x10]) + b"JFIF\x00\x01\x01\x00\x00\x01\x00\x01\x00\x00" \
    + bytes([0xFF, 0xDA, 0x00, 0x08, 1, 1, 0, 0, 0x3F, 0])
ole = bytes([0xD0, 0xCF, 0x11, 0xE0, 0xA1, 0xB1, 0x1A, 0xE1]) + bytes(22) + struct.pack("<H", 9) \
    + bytes(12) + struct.pack("<I", 1)
def write(name, head, fill, every=None):
    block = bytearray(fill * (1 << 20))
    with open(f"{folder}/{name}.img", "wb") as out:
        for start in range(0, size, len(block)):
            chunk = bytearray(block)
            if every:
                for at in range(0, len(chunk), every):
                    chunk[at:at + len(head)] = head
            elif start == 0:
                chunk[:len(head)] = head
            out.write(chunk)
write("zeros", b"", b"\x00")
write("jpeg-then-ff", jpeg[:20], b"\xff")   # header markers, then 0xFF fill
write("jpeg-every-512", jpeg, b"\x00", 512)
write("ole2-every-512", ole, b"\x00", 512)
PY

for name in zeros jpeg-then-ff jpeg-every-512 ole2-every-512; do
  image="$dir/$name.img"
  cat "$image" >/dev/null
  median=$(for _ in $(seq "$runs"); do
    rm -rf "$dir/out"
    python3 "$(dirname "$0")/wall-seconds.py" "$build/apps/cli/vellum-check" carve "$image" \
      --out "$dir/out" --catalog
  done | sort -g | awk '{a[NR]=$1} END {print a[int((NR + 1) / 2)]}')
  printf '%-16s median of %d: %7.3f s\n' "$name" "$runs" "$median"
  rm -f "$image"
done
