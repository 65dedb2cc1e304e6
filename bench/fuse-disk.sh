# Sourced by the benchmarks that run on a FUSE disk (tools/fusedisk). Set
# $fusedisk (the server) and $dir (a scratch folder) first.
#   start_disk SIZE [SERVER OPTIONS...]  serves a fresh disk, attached as $loop
#   stop_disk                            detaches and unmounts it
loop=
server=
stop_disk() {
  if [ -n "$loop" ]; then losetup -d "$loop" || true; loop=; fi
  if [ -n "$server" ]; then fusermount3 -u "$dir/mnt" 2>/dev/null || true; wait "$server" || true; server=; fi
}

start_disk() {
  local size=$1
  shift
  mkdir -p "$dir/mnt"
  "$fusedisk" "$dir/mnt" --size "$size" "$@" >/dev/null 2>&1 &
  server=$!
  for _ in $(seq 200); do
    [ "$(stat -c %s "$dir/mnt/disk" 2>/dev/null || echo 0)" = "$size" ] && break
    sleep 0.05
  done
  loop=$(losetup --find --show --direct-io=on "$dir/mnt/disk")
}
