#!/usr/bin/env bash
# What Doxygen does not look at: every exported class has a comment or is the one that its header's
# opening comment describes, and what the Markdown files link to exists.
set -euo pipefail
cd "$(dirname "$0")/.."

awk '
  FNR == 1 { name = FILENAME; sub(/.*\//, "", name); sub(/\.h$/, "", name) }
  /^ *(class|struct) VSUPT_EXPORT.*[{]$/ && above !~ /^ *\/\// && $0 !~ "[ )]" name "[ :{]" {
    print FILENAME ":" FNR ": this class has no contract"
    faults = 1
  }
  !/^ *template/ { above = $0 }
  END { exit faults }' include/VarnSupport/*.h

# The links of a Markdown file, without those in code.
linksOf() {
  awk '/^```/ { code = !code } !code { gsub(/`[^`]*`/, ""); print }' "$1" |
    grep -oE '\]\([^) ]+\)' | sed -E 's/^\]\((.*)\)$/\1/'
}

# The anchors of its headings.
anchorsOf() {
  awk '/^```/ { code = !code } !code && /^#+ / { sub(/^#+ /, ""); print tolower($0) }' "$1" |
    sed -E 's/[^a-z0-9 _-]//g; s/ /-/g'
}

faults=0

# The plan of the inside names every internal header, and is kept to: a folder includes folders of its
# floor and below, and the lowest names no family.
plan=docs/inside.md
floors=$(sed -nE 's/^\| ([0-9]+) \| .([a-z]+). .*/\2 \1/p' $plan)
floorOf() { awk -v folder="$1" '$1 == folder { print $2 }' <<<"$floors"; }
for file in support/*/*; do
  folder=$(basename "$(dirname "$file")")
  name=$(basename "${file%.*}")
  if [[ $file == *.h ]] && ! grep -qw "$name" $plan; then
    echo "$file: not in $plan"
    faults=1
  fi
  floor=$(floorOf "$folder")
  while IFS= read -r included; do
    below=$(floorOf "$included")
    [ "${below:-9}" -gt "${floor:--1}" ] || continue
    echo "$file: includes $included, which stands above $folder in $plan"
    faults=1
  done < <(sed -nE 's|^#include "([a-z]+)/.*|\1|p' "$file")
done
! sed -E 's|//.*||' support/runtime/* | grep -nE '\bVarn[A-Z]' | grep -vE 'namespace|VarnExport' || {
  echo 'support/runtime: names a family'
  faults=1
}

# The manual page names every header that is a family's.
for file in include/VarnSupport/*.h; do
  name=${file##*/}
  [ "$name" = VarnExport.h ] || grep -qw "$name" docs/man/vsupt.7 || {
    echo "$name: not in docs/man/vsupt.7"
    faults=1
  }
done

while IFS= read -r file; do
  while IFS= read -r link; do
    [[ $link != *:* ]] || continue
    target=$file anchor=''
    [[ $link == '#'* ]] || target=$(dirname "$file")/${link%%#*}
    [[ $link != *'#'* ]] || anchor=${link#*#}
    if [ -e "$target" ]; then
      [ -n "$anchor" ] || continue
      ! anchorsOf "$target" | grep -xF -- "$anchor" >/dev/null || continue
    fi
    echo "$file: $link leads nowhere"
    faults=1
  done < <(linksOf "$file")
done < <(git ls-files -co --exclude-standard -- '*.md')
exit $faults
