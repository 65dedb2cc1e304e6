#!/bin/bash
# Checks a Debian package the way a user meets it, after it was installed
# from PACKAGE.deb: Debian's checker accepts it, it holds what a desktop
# needs, both programs run from /usr/bin (the application's window appears on
# an Xvfb screen), and it removes cleanly. Needs root: it removes the package.
# Usage: PackageTest.sh PACKAGE.deb
set -euo pipefail
deb=$(realpath "$1")
out=$(mktemp -d)
app=
cleanup() {
  if [ -n "$app" ]; then kill "$app" 2>/dev/null || true; fi
  rm -rf "$out"
}
trap cleanup EXIT
status=0
fail() { echo "PackageTest: $*" >&2; status=1; }

# Debian's checker: no errors and no warnings. Pedantic and informational
# tags are shown, not counted.
if lintian --fail-on error,warning --display-level ">=pedantic" "$deb"; then
  echo "lintian: no errors or warnings"
else
  fail "lintian reports errors or warnings (above)"
fi

contents=$(dpkg-deb -c "$deb" | awk '{print $6}')
for file in ./usr/bin/vellum-check ./usr/bin/vellum-check-gui \
  ./usr/libexec/vellum-check/vellum-authopen ./usr/libexec/vellum-check/vellum-format \
  ./usr/share/polkit-1/actions/org.vellum.check.authopen.policy \
  ./usr/share/polkit-1/actions/org.vellum.check.format.policy \
  ./usr/share/applications/org.vellum.check.desktop \
  ./usr/share/metainfo/org.vellum.check.metainfo.xml \
  ./usr/share/icons/hicolor/scalable/apps/org.vellum.check.svg \
  ./usr/share/man/man1/vellum-check.1.gz ./usr/share/man/man1/vellum-check-gui.1.gz; do
  grep -qxF "$file" <<<"$contents" || fail "missing from the package: $file"
done
# The policies must name the helpers where the package puts them.
dpkg-deb -x "$deb" "$out/root"
for helper in authopen format; do
  grep -q "/usr/libexec/vellum-check/vellum-$helper<" \
    "$out/root/usr/share/polkit-1/actions/org.vellum.check.$helper.policy" ||
    fail "the $helper policy names another path"
done
depends=$(dpkg-deb -f "$deb" Depends)
for library in libqt6widgets6 libudev1 pkexec exfatprogs; do
  grep -q "$library" <<<"$depends" || fail "not a dependency: $library"
done
desktop-file-validate "$out/root/usr/share/applications/org.vellum.check.desktop" || fail "desktop entry"
appstreamcli validate --no-net "$out/root/usr/share/metainfo/org.vellum.check.metainfo.xml" \
  >/dev/null || fail "AppStream data"

version=$(dpkg-deb -f "$deb" Version)
installed=$(dpkg-query -W -f='${Status} ${Version}' vellum-check 2>/dev/null || true)
[ "$installed" = "install ok installed $version" ] ||
  { echo "PackageTest: $(basename "$deb") is not the installed vellum-check ($installed)" >&2; exit 1; }
[ "$(/usr/bin/vellum-check --version)" = "vellum-check ${version%%-*}" ] ||
  fail "vellum-check --version says '$(/usr/bin/vellum-check --version)'"
set +e
/usr/bin/vellum-check quick demo:fake >"$out/quick" 2>&1
quick=$?
set -e
# The fake demo card's verdict is not good: exit status 1.
{ [ "$quick" -eq 1 ] && grep -q "^Fake capacity" "$out/quick"; } ||
  { cat "$out/quick"; fail "vellum-check quick demo:fake exited $quick"; }

export OUT=$out
if ! xvfb-run -a -s "-screen 0 1024x900x24" bash -c '
  XDG_CONFIG_HOME=$OUT /usr/bin/vellum-check-gui --demo >"$OUT/gui.log" 2>&1 &
  app=$!
  timeout 30 xdotool search --sync --onlyvisible --name "^Vellum Check$" >/dev/null
  found=$?
  kill $app
  wait $app
  exit $found'; then
  cat "$out/gui.log"
  fail "the window of vellum-check-gui --demo did not appear within 30 seconds"
fi

DEBIAN_FRONTEND=noninteractive apt-get remove -y -qq --purge vellum-check >/dev/null
[ ! -e /usr/bin/vellum-check ] || fail "/usr/bin/vellum-check is still there after removal"
echo "$(basename "$deb"): $(stat -c %s "$deb") bytes, ran and removed"
exit $status
