#!/usr/bin/env bash
# Follows files that are rotated, cut and flooded while it looks: run.sh PROGRAM
set -euo pipefail
program=$(realpath "$1")
folder=$(mktemp -d)
daemon="" next=1
# Whatever happens, the daemon goes, and with it what it has started.
finish() {
  local code=$?
  if [ -n "$daemon" ]; then kill -TERM "$daemon" 2>kill.txt || true; wait "$daemon" || true; fi
  if [ "$code" -ne 0 ]; then tail -n 9 sentry.log | cut -c 1-160 >&2; fi
  rm -rf "$folder"
}
trap finish EXIT; trap 'exit 1' INT TERM
fail() { echo "failed: $*" >&2; exit 1; }
awaits() {
  local i
  for ((i = 0; i < 1200; ++i)); do
    if "$@" >awaits.txt 2>&1; then return; fi
    sleep 0.05
  done
  fail "waited in vain for: $*"
}
told() { grep -q -- "$1" sentry.log; }
gone() { ! kill -0 "$1"; }
# Adds that many lines to standard output, each with a number of its own.
lines() { seq -f "a line of some length, id=%.0f" "$next" $(((next += $1) - 1)); }
# As many hits as keys: each line was counted, and none twice. A hang is a hit without a key.
awaitAll() { awaits told " $((next - 1 + ${1:-0})) hits, $((next - 1)) keys"; }
cd "$folder" && mkdir logs
echo 'sleep 1000 & echo $! >child; echo "$@" >alert; wait; sleep 1000' >alert.sh
cat >sentry.conf <<END
files=$folder/logs/*.txt
rule=line
line.pattern=line
line.key=id=[0-9]+
line.limit=1000000
line.window=1h
rule=hang
hang.pattern=hang
hang.limit=1
alert.command=/bin/sh -c 'cd "\$1"; shift; . ./alert.sh' sh $folder <rule> <key> "<count> times"
alert.timeout=2s
report=1
log=$folder/sentry.log
pid=$folder/sentry.pid
END
echo "an old line, id=0" >logs/a.txt
"$program" --config sentry.conf 2>errors.txt & daemon=$!
awaits told started
printf 'a new line' >>logs/b.txt  # It is counted when it has an end, and not before.
lines 1 >>logs/a.txt
awaitAll
echo ", id=$((next++))" >>logs/b.txt
awaitAll
for i in {1..5}; do
  exec 3>>logs/a.txt
  lines 1000 >&3
  awaitAll  # A file that comes and goes between two looks of the system would not be found.
  lines 20000 >&3
  mv logs/a.txt "logs/a.$i"
  lines 500 >&3  # A writer does not know at once that its file has been renamed.
done
for i in 1000 2000 500 4000; do
  awaitAll  # What is cut away before it is read is lost to everybody.
  cp logs/b.txt logs/b.copy
  : >logs/b.txt
  lines "$i" >>logs/b.txt
done
lines 100000 >>logs/flood.txt
awaitAll
awk '/^VmHWM/ && $2 > 200000 { exit 1 }' "/proc/$daemon/status" || fail "the memory grows"
if "$program" -c sentry.conf 2>second.txt; then fail "a second instance has started"; fi
grep -q "is held by process $daemon" second.txt
echo hang >>logs/a.txt
awaits told 'time was over'
awaits gone "$(cat child)"
[ "$(cat alert)" = "hang * 1 times" ] || fail "the alert command got: $(cat alert)"
sed -i.good "\$a rport=1" sentry.conf
mv sentry.log sentry.log.1
kill -HUP "$daemon"
awaits told 'not reloaded: .*sentry.conf:15: rport: '
lines 10 >>logs/a.txt
awaitAll 1
sed "s|^alert.timeout.*|alert.timeout=1h|; 1s|.*|&\nfiles=$folder/logs/*.log|" sentry.conf.good >sentry.conf
kill -HUP "$daemon"
awaits told ' reloaded'
lines 10 >>logs/new.log
lines 10 >>logs/a.txt
awaitAll 1
rm child && echo hang >>logs/a.txt && awaits test -s child
lines 100000 >>logs/flood.txt
kill -TERM "$daemon"; SECONDS=0
wait "$daemon" || fail "the daemon ended with $?"
daemon=
[ $SECONDS -le 5 ] || fail "the end took $SECONDS s"
awaits gone "$(cat child)"
if [ -e sentry.pid ] || [ -s errors.txt ] || ! told stopped; then fail "no clean end"; fi
