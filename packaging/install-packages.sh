#!/usr/bin/env bash
# install-packages.sh FOLDER installs the packages of FOLDER into fresh Debian systems: piuparts looks
# at what they leave behind when they are removed, autopkgtest runs debian/tests with them.
set -euo pipefail
folder=$(cd "$1" && pwd)
cd "$(dirname "$0")/.."

not_run() {
  echo "not run: piuparts and autopkgtest, $1"
  exit
}
[ "$(id -u)" -eq 0 ] || not_run 'which need root'
# What is mounted below the systems goes with them.
[ "${2-}" = inside ] || {
  unshare --mount true 2>"$folder/log" || not_run "as nothing can be mounted: $(cat "$folder/log")"
  exec unshare --mount "packaging/${0##*/}" "$folder" inside
}

work=$(mktemp -d)
trap 'umount -l "$work/root/proc" 2>/dev/null || true; rm -rf --one-file-system "$work"' EXIT
quietly() { "$@" >"$folder/log" 2>&1 || { tail -n 100 "$folder/log" >&2; exit 1; }; }
packages=()
for package in "$folder"/*.deb; do
  case $package in *-dbgsym_*) ;; *) packages+=("$package") ;; esac
done

# shellcheck disable=SC1091
codename=$(. /etc/os-release && echo "$VERSION_CODENAME")
mapfile -t sources < <(find /etc/apt -name sources.list -o -name 'debian.sources' -o -name 'debian.list')
mmdebstrap --variant=minbase "$codename" "$work/base.tar.gz" "${sources[@]}" >"$folder/log" 2>&1 ||
  not_run "as no system could be made: $(tail -n 1 "$folder/log")"
quietly piuparts --basetgz="$work/base.tar.gz" --distribution="$codename" --keep-sources-list \
  --no-eatmydata "${packages[@]}"
echo 'piuparts passed'

mkdir "$work/root"
tar -xzf "$work/base.tar.gz" -C "$work/root"
mount -t proc proc "$work/root/proc"
git archive --prefix=vsupt/ HEAD | tar -x -C "$work"
mv "$work/vsupt/packaging/debian" "$work/vsupt/debian"
quietly autopkgtest --apt-upgrade --no-built-binaries "${packages[@]}" "$work/vsupt" -- chroot "$work/root"
echo 'autopkgtest passed'
