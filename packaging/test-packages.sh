#!/usr/bin/env bash
# test-packages.sh FOLDER installs the packages of FOLDER into a root of their own, builds the first
# program of the README against them with pkg-config and with CMake, runs hostwatch, and looks for
# what else they are to bring.
set -euo pipefail
packages=$(cd "$1" && pwd)
source=$(cd "$(dirname "$0")/.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
. "$source/tests/consumer/tools.sh"

for package in "$packages"/*.deb; do dpkg-deb -x "$package" "$work/root"; done
libraries=$(dirname "$(find "$work/root/usr/lib" -name libvsupt.so)")
export LD_LIBRARY_PATH=$libraries PKG_CONFIG_PATH=$libraries/pkgconfig

first_program "$source" "$work/greeter.cpp"
read -ra flags <<<"$(pkg-config --cflags --libs vsupt)"
quietly c++ -std=c++17 "$work/greeter.cpp" "${flags[@]}" -o "$work/greeter"
cat >"$work/CMakeLists.txt" <<'TEXT'
cmake_minimum_required(VERSION 3.25)
project(greeter LANGUAGES CXX)
find_package(VarnSupport 1 CONFIG REQUIRED COMPONENTS Runtime Development)
add_executable(greeter greeter.cpp)
target_link_libraries(greeter PRIVATE VarnSupport::vsupt)
TEXT
quietly cmake -S "$work" -B "$work/build" -DCMAKE_PREFIX_PATH="$work/root/usr"
quietly cmake --build "$work/build"
greets "$work/greeter"
greets "$work/build/greeter"

"$work/root/usr/bin/hostwatch" --once --config="$work/root/etc/hostwatch/hostwatch.conf" \
  --plugin=hostwatch_lines >"$work/out" || [ $? -eq 1 ]
grep -q '^load ' "$work/out"

for file in lib/systemd/system/hostwatch.service usr/share/man/man1/hostwatch.1.gz \
  usr/share/man/man7/vsupt.7.gz usr/share/doc/libvsupt-dev/docs/guide.md \
  usr/share/doc/libvsupt-dev/html/index.html; do
  [ -e "$work/root/$file" ] || { echo "no package has $file" >&2; exit 1; }
done
