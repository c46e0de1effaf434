#!/usr/bin/env bash
# What the library exports, compared with what the tree has stored, or stored there:
#
#   abi.sh check-names|accept-names BUILD   the names, those in support/exports.map
#   abi.sh check-types|accept-types BUILD   what stands behind them, packaging/libvsupt.abi.gz; BUILD
#                                           has debug information
set -euo pipefail
build=$2
cd "$(dirname "$0")"
map=../support/exports.map
most=1600
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export LC_ALL=C

# Compares what carries VSUPT_EXPORT with what the map lists: the linker hides what it does not.
compare_names() {
  find "$build/CMakeFiles/vsupt.dir" -name '*.o' -print0 | xargs -0 readelf -sW |
    awk '$5 != "LOCAL" && $6 == "DEFAULT" && $7 != "UND" &&
      $8 ~ /^_Z(NK?|TVN|TIN|TSN|Thn[0-9]+_NK?)11VarnSupport/ {print $8}' | sort -u >"$work/exported"
  awk '/^ *_Z/ {gsub(/[ ;]/, ""); print}' $map | sort >"$work/listed"
  comm -23 "$work/exported" "$work/listed" >"$work/new"
  comm -13 "$work/exported" "$work/listed" >"$work/gone"
}

# tell NAMES TEXT prints the text and the names, if there are any.
tell() {
  [ -s "$1" ] || return 0
  echo "$2"
  c++filt <"$1" | sed 's/^/  /'
}

# Puts new names into the last node, and drops those that are gone.
write_map() {
  local last
  last=$(grep -n '{$' $map | tail -n 1 | cut -d: -f1)
  {
    head -n "$last" $map
    { tail -n "+$((last + 1))" $map | sed '$d'; sed 's/.*/  &;/' "$work/new"; } | sort
    tail -n 1 $map
  } | grep -vwFf "$work/gone" >"$work/map"
  cat "$work/map" >$map
}

describe_types() {
  abidw --headers-dir ../include --exported-interfaces-only --no-corpus-path --no-comp-dir-path \
    --no-show-locs "$build/libvsupt.so"
}

case $1 in
  check-names)
    compare_names
    {
      tell "$work/new" 'exported, and in no version of support/exports.map; if they are meant to be: ./dev abi'
      tell "$work/gone" 'in support/exports.map, and exported no more; if nobody can call them: ./dev abi'
      [ "$(wc -l <"$work/exported")" -lt $most ] || echo "there are $most exported names, or more"
    } >"$work/faults"
    cat "$work/faults" >&2
    [ ! -s "$work/faults" ]
    ;;
  accept-names)
    compare_names
    write_map
    tell "$work/new" 'new in support/exports.map:'
    tell "$work/gone" 'no more in support/exports.map:'
    ;;
  check-types)
    gunzip -c libvsupt.abi.gz >"$work/before.abi"
    describe_types >"$work/now.abi"
    abidiff --no-added-syms "$work/before.abi" "$work/now.abi" >&2 || {
      echo 'the binary interface has changed; if it is meant to: ./dev abi' >&2
      exit 1
    }
    ;;
  accept-types) describe_types | gzip -9n >libvsupt.abi.gz ;;
esac
