#!/usr/bin/env bash
# What is built serves its users: run.sh BUILD SOURCE installs BUILD into a prefix of its own and
# builds programs against that alone, then against SOURCE as a subproject.
set -euo pipefail
build=$1 source=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
. "$source/tests/consumer/tools.sh"

quietly cmake --install "$build" --prefix "$work/first"
mv "$work/first" "$work/prefix"  # a prefix may be moved
export PKG_CONFIG_PATH LD_LIBRARY_PATH
LD_LIBRARY_PATH=$(dirname "$(find "$work/prefix" -name libvsupt.so)")
PKG_CONFIG_PATH=$LD_LIBRARY_PATH/pkgconfig

# The first program of the README, with pkg-config.
first_program "$source" "$work/first.cpp"
read -ra flags <<<"$(pkg-config --cflags --libs vsupt)"
quietly c++ -std=c++17 -Wall -Wextra -Werror "$work/first.cpp" "${flags[@]}" -o "$work/first"
greets "$work/first"

# hostwatch, with the CMake package.
cp -r "$source/examples/hostwatch" "$work/hostwatch"
quietly cmake -S "$work/hostwatch" -B "$work/build" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" \
  -DCMAKE_INSTALL_PREFIX="$work/own"
quietly cmake --build "$work/build"
quietly cmake --install "$work/build"
"$work/own/bin/hostwatch" --once --plugin=hostwatch_lines >"$work/out" || [ $? -eq 1 ]
grep -q '^load ' "$work/out"

# logsentry, the same way.
cp -r "$source/examples/logsentry" "$work/logsentry"
quietly cmake -S "$work/logsentry" -B "$work/sentry" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix"
quietly cmake --build "$work/sentry"
"$work/sentry/logsentry" --version >"$work/out"

# The library as a subproject.
mkdir "$work/consumer"
cp "$source/tests/consumer/CMakeLists.txt" "$work/first.cpp" "$work/consumer"
quietly cmake -S "$work/consumer" -B "$work/sub" -G Ninja -DVSUPT_SOURCE="$source"
quietly cmake --build "$work/sub"
quietly cmake --install "$work/sub" --prefix "$work/brought"
[ ! -e "$work/brought" ] || { echo 'the subproject installs something' >&2; exit 1; }
