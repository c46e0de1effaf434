# shellcheck shell=bash disable=SC2154
# What the tests of installed libraries share; they source it with $work as their folder.
quietly() { "$@" >"$work/log" 2>&1 || { cat "$work/log" >&2; exit 1; }; }

# The first program of the README below SOURCE: first_program SOURCE FILE.
first_program() { awk '/^```cpp/ {code = 1; next} /^```/ {code = 0} code' "$1/README.md" >"$2"; }

# A service can be stopped properly once it catches SIGTERM.
catches_sigterm() { (((0x$(awk '/^SigCgt/ {print $2}' "/proc/$1/status") & 0x4000) != 0)); }

# Runs the first program until it is stopped.
greets() {
  "$1" >"$work/out" &
  until catches_sigterm $!; do kill -0 $! && sleep 0.05; done
  kill -TERM $!
  wait $!
  grep -q 'hello, world' "$work/out"
  grep -q 'good-bye' "$work/out"
}
