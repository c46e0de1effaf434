#!/usr/bin/env bash
# build-packages.sh FOLDER builds the Debian packages of the committed tree into FOLDER, and lets
# lintian look at them.
set -euo pipefail
cd "$(dirname "$0")/.."
mkdir -p "$1"
folder=$(cd "$1" && pwd)
rm -rf "${folder:?}"/*
git archive --prefix=vsupt/ HEAD | tar -x -C "$folder"
cd "$folder/vsupt"
mv packaging/debian debian
quietly() { "$@" >"$folder/log" 2>&1 || { cat "$folder/log" >&2; exit 1; }; }
quietly dpkg-buildpackage -b -us -uc
cd ..
rm -rf vsupt
quietly lintian --fail-on error,warning ./*.changes
ls ./*.deb
