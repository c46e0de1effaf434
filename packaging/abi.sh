#!/usr/bin/env bash
# abi.sh check|accept RELEASE DEBUG compares what the builds in the folders RELEASE and, with debug
# information, DEBUG export with what the tree has stored, or stores it.
set -euo pipefail
task=$1 release=$2/libvsupt.so debug=$3/libvsupt.so
cd "$(dirname "$0")"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

nm -D --defined-only "$release" | awk '$2 != "A" {sub(/@.*/, "", $3); print $3}' | LC_ALL=C sort >"$work/symbols"
if grep -v 11VarnSupport "$work/symbols"; then
  echo 'these symbols are not the interface of the library' >&2
  exit 1
fi
describe=(abidw --headers-dir ../include --exported-interfaces-only --no-corpus-path
  --no-comp-dir-path --no-show-locs "$debug")

if [ "$task" = accept ]; then
  cp "$work/symbols" symbols.txt
  "${describe[@]}" | gzip -9n >libvsupt.abi.gz
  exit
fi
diff symbols.txt "$work/symbols" >&2 || {
  echo 'the exported symbols differ from packaging/symbols.txt; if they are meant to: ./dev abi' >&2
  exit 1
}
gunzip -c libvsupt.abi.gz >"$work/before.abi"
"${describe[@]}" >"$work/now.abi"
abidiff --no-added-syms "$work/before.abi" "$work/now.abi" >&2 || {
  echo 'the binary interface has changed; if it is meant to: ./dev abi' >&2
  exit 1
}
