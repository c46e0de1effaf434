#!/usr/bin/env bash
# test-packages.sh FOLDER extracts the packages of FOLDER into a root of their own, runs the tests of
# debian/tests there, and looks at what else they are to bring: the service exposes at most 3.0 of 10.
set -euo pipefail
packages=$(cd "$1" && pwd)
cd "$(dirname "$0")/.."
AUTOPKGTEST_TMP=$(mktemp -d)
trap 'rm -rf "$AUTOPKGTEST_TMP"' EXIT
root=$AUTOPKGTEST_TMP/root

for package in "$packages"/*.deb; do dpkg-deb -x "$package" "$root"; done
libraries=$(dirname "$(find "$root/usr/lib" -name libvsupt.so)")
export AUTOPKGTEST_TMP CMAKE_PREFIX_PATH=$root/usr LD_LIBRARY_PATH=$libraries \
  PATH=$root/usr/bin:$PATH PKG_CONFIG_PATH=$libraries/pkgconfig PKG_CONFIG_SYSROOT_DIR=$root
packaging/debian/tests/programs
packaging/debian/tests/hostwatch --config="$root/etc/hostwatch/hostwatch.conf" >/dev/null

exposure=$(systemd-analyze security --no-pager --offline=true --threshold=30 \
  "$root/lib/systemd/system/hostwatch.service") || {
  echo "$exposure" >&2
  exit 1
}

for file in lib/systemd/system/hostwatch.service usr/share/man/man1/hostwatch.1.gz \
  usr/share/man/man7/vsupt.7.gz usr/share/doc/libvsupt-dev/docs/guide.md \
  usr/share/doc/libvsupt-dev/html/index.html; do
  [ -e "$root/$file" ] || { echo "no package has $file" >&2; exit 1; }
done
