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
