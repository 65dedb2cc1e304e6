#!/bin/bash
# Builds the Debian package from this build tree and checks that it holds
# everything a desktop needs, and that its desktop entry and AppStream file
# pass their validators.
# Usage: PackageTest.sh BUILD_DIR
set -euo pipefail
build=$1
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
cpack -G DEB --config "$build/CPackConfig.cmake" -B "$out" >/dev/null
deb=$(ls "$out"/vellum-check_*.deb)
contents=$(dpkg-deb -c "$deb" | awk '{print $6}')
status=0
for file in ./usr/bin/vellum-check ./usr/bin/vellum-check-gui \
  ./usr/libexec/vellum-check/vellum-authopen ./usr/libexec/vellum-check/vellum-format \
  ./usr/share/polkit-1/actions/org.vellum.check.authopen.policy \
  ./usr/share/polkit-1/actions/org.vellum.check.format.policy \
  ./usr/share/applications/org.vellum.check.desktop \
  ./usr/share/metainfo/org.vellum.check.metainfo.xml \
  ./usr/share/icons/hicolor/scalable/apps/org.vellum.check.svg \
  ./usr/share/man/man1/vellum-check.1 ./usr/share/man/man1/vellum-check-gui.1; do
  grep -qxF "$file" <<<"$contents" || { echo "missing from the package: $file"; status=1; }
done
# The policies must name the helpers where the package puts them.
dpkg-deb -x "$deb" "$out/root"
for helper in authopen format; do
  grep -q "/usr/libexec/vellum-check/vellum-$helper<" \
    "$out/root/usr/share/polkit-1/actions/org.vellum.check.$helper.policy" ||
    { echo "the $helper policy names another path"; status=1; }
done
depends=$(dpkg-deb -f "$deb" Depends)
for library in libqt6widgets6 libudev1 pkexec exfatprogs; do
  grep -q "$library" <<<"$depends" || { echo "not a dependency: $library"; status=1; }
done
desktop-file-validate "$out/root/usr/share/applications/org.vellum.check.desktop"
appstreamcli validate --no-net "$out/root/usr/share/metainfo/org.vellum.check.metainfo.xml" >/dev/null
echo "$(basename "$deb"): $(stat -c %s "$deb") bytes"
exit $status
