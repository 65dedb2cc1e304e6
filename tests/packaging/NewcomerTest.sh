#!/bin/bash
# Does what the README tells a newcomer to do, on a fresh clone of the commit
# under test: runs the demo, then the Install section line by line, and checks
# the package it installed (PackageTest.sh). Needs root: it installs the
# package and removes it again.
# Usage: NewcomerTest.sh [REPOSITORY]
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
repo=$(realpath "${1:-$here/../..}")
work=$(mktemp -d /tmp/vellum-newcomer-XXXXXX)
trap 'rm -rf "$work"' EXIT

commit=$(git -C "$repo" rev-parse HEAD)
if [ -n "$(git -C "$repo" status --porcelain --untracked-files=no)" ]; then
  echo "NewcomerTest: uncommitted changes are not in the fresh clone; testing $commit" >&2
fi
git clone --quiet --no-checkout "$repo" "$work/vellum-check"
cd "$work/vellum-check"
git checkout --quiet "$commit"

echo "== bash scripts/demo.sh"
SECONDS=0
set +e
bash scripts/demo.sh </dev/null >"$work/demo.out" 2>&1
demo=$?
set -e
cat "$work/demo.out"
echo "== the demo took $SECONDS s"
{ [ "$demo" -eq 0 ] && grep -q "^Fake capacity" "$work/demo.out"; } ||
  { echo "NewcomerTest: scripts/demo.sh exited $demo without the fake card's verdict" >&2; exit 1; }

# The Install section's commands: the indented lines between its heading and
# the next one. As root there is no need for sudo (a fresh machine may not
# have it). apt answers yes, as the user would, and leaves out the recommended
# packages: they are optional and would start system services here.
mapfile -t lines < <(awk '/^## /{install = ($0 == "## Install")} install && /^    /{sub(/^    /, ""); print}' README.md)
[ ${#lines[@]} -gt 0 ] || { echo "NewcomerTest: no commands under '## Install' in README.md" >&2; exit 1; }
printf 'APT::Get::Assume-Yes "true";\nAPT::Install-Recommends "false";\n' >"$work/apt.conf"
export APT_CONFIG=$work/apt.conf DEBIAN_FRONTEND=noninteractive
for line in "${lines[@]}"; do
  [ "$(id -u)" -eq 0 ] && line=${line#sudo }
  echo "== $line"
  SECONDS=0
  bash -c "$line" </dev/null >"$work/step.log" 2>&1 ||
    { tail -n 60 "$work/step.log"; echo "NewcomerTest: the Install step failed: $line" >&2; exit 1; }
  echo "   took $SECONDS s"
done

debs=(build/*/vellum-check_*.deb)
[ ${#debs[@]} -eq 1 ] && [ -f "${debs[0]}" ] ||
  { echo "NewcomerTest: the Install section made no single package: ${debs[*]}" >&2; exit 1; }
bash "$here/PackageTest.sh" "${debs[0]}"
