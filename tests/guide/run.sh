#!/usr/bin/env bash
# The guide keeps its word: run.sh BUILD SOURCE installs BUILD into a prefix of its own and does
# what SOURCE/docs/guide.md shows, against that alone.
#
# A fenced block whose first line is a comment with nothing but a file's name is that file. In a
# text block the lines after "$ " are commands, the others what they print; "..." stands for any
# lines. Dates and thread numbers in the headers of log records are not compared.
set -euo pipefail
build=$1 guide=$2/docs/guide.md
work=$(mktemp -d)
finish() {
  local file
  for file in "$work"/guide/*.pid; do
    [ ! -e "$file" ] || kill "$(cat "$file")" || true
  done
  rm -rf "$work"
}
trap finish EXIT
mkdir "$work/guide"

cmake --install "$build" --prefix "$work/prefix" >/dev/null
export CMAKE_PREFIX_PATH=$work/prefix PKG_CONFIG_PATH LD_LIBRARY_PATH
LD_LIBRARY_PATH=$(dirname "$(find "$work/prefix" -name libvsupt.so)")
PKG_CONFIG_PATH=$LD_LIBRARY_PATH/pkgconfig

awk -v folder="$work/guide/" '
  /^```/ { inside = !inside; first = inside; file = ""; next }
  first && NF == 2 && $1 ~ /^(\/\/|#)$/ && $2 ~ /^[A-Za-z_]+\.[a-z]+$/ { file = folder $2 }
  { first = 0 }
  file != "" { print > file }' "$guide"
awk '/^```/ { inside = /^```text/; print ""; next } inside' "$guide" >"$work/commands"

commonForm() {
  sed -E -e "s:$work/guide:/home/you/guide:g" \
    -e 's/^[0-9]{8}_[0-9:]{8} ([0-9] .*) \[-?[0-9]+\] /DATE \1 [THREAD] /'
}

# As a pattern, in which only "..." is special.
asPattern() { sed -E -e '/^\.\.\.$/!s/[][\\*?]/\\&/g' -e 's/^\.\.\.$/*/'; }

run() {
  [ -n "$command" ] || return 0
  local status=0 printed pattern
  (cd "$work/guide" && timeout 120 bash -c "$command") >"$work/printed" 2>&1 </dev/null || status=$?
  printed=$(commonForm <"$work/printed")
  pattern=$(commonForm <<<"$expected" | asPattern)
  # shellcheck disable=SC2053
  if [ $status -ge 124 ] || [[ $printed != $pattern ]]; then
    printf 'docs/guide.md: $ %s\nexit code %d; it prints\n%s\ninstead of\n%s\n' \
      "$command" $status "$printed" "$expected" >&2
    exit 1
  fi
}

command='' expected=''
while IFS= read -r line; do
  case $line in
    '' | '$ '*)
      run
      command=${line#'$ '}
      expected=''
      ;;
    *) expected+=${expected:+$'\n'}$line ;;
  esac
done <"$work/commands"
run
