#!/usr/bin/env bash
# install_test.sh BUILD_DIR WORK_DIR CMAKE CC [CALLER_FLAGS]
set -euo pipefail
build=$1 work=$2 cmake=$3 cc=$4
read -ra extra <<<"${5:-}"
src=$(cd "$(dirname "$0")" && pwd)
rm -rf "$work" && mkdir -p "$work"
# Staged under DESTDIR, so that a destination that ignored the prefix shows
# up below the stage instead of landing on the machine.
stage=$work/stage
prefix=$stage/opt/qp
DESTDIR=$stage "$cmake" --install "$build" --prefix /opt/qp >/dev/null
outside=$(find "$stage" -type f -not -path "$prefix/*")
[ -z "$outside" ] || { echo "installed outside the prefix: $outside"; exit 1; }
lib=$(find "$prefix" -name libqoraprinter.so -printf '%h\n')
# A caller that runs and prints the model.
check() { out=$("$1"); [ "$out" = "Laser 100" ] || { echo "$1 printed '$out'"; exit 1; }; }

# pkg-config: no LD_LIBRARY_PATH or -rpath-link at link time; the stand-ins
# that the library needs are found through its RUNPATH.
export PKG_CONFIG_PATH=$lib/pkgconfig
read -ra flags < <(pkg-config --cflags --libs qoraprinter)
"$cc" -std=c99 -Wall -Wextra -Werror -pedantic "${extra[@]}" "$src/caller.c" -o "$work/caller-pc" "${flags[@]}"
# The header is C++ too.
read -ra cflags < <(pkg-config --cflags qoraprinter)
"$cc" -x c++ -std=c++20 -Wall -Wextra -Werror -pedantic -fsyntax-only "${cflags[@]}" "$src/caller.c"
LD_LIBRARY_PATH=$lib check "$work/caller-pc"

# CMake package: find_package in CONFIG mode, version checked.
mkdir -p "$work/app"
cp "$src/caller.c" "$work/app/"
cat > "$work/app/CMakeLists.txt" <<'CM'
cmake_minimum_required(VERSION 3.22)
project(caller C)
find_package(qoraprinter 6 CONFIG REQUIRED)
add_executable(caller caller.c)
target_link_libraries(caller PRIVATE qoraprinter::qoraprinter)
CM
"$cmake" -S "$work/app" -B "$work/app/build" -DCMAKE_C_COMPILER="$cc" \
    -DCMAKE_C_FLAGS="${5:-}" -DCMAKE_EXE_LINKER_FLAGS="${5:-}" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
"$cmake" --build "$work/app/build" >/dev/null
check "$work/app/build/caller"
# Hot-plug: the rule wants the unit by its installed name, and the unit
# passes systemd-analyze verify with its command installed where it says (a
# DESTDIR install keeps the configured paths, so below the stage).
rules=$(find "$prefix" -name 99-qoraprinter.rules)
unit=$(find "$prefix" -name 'qoraprinter-usb@.service')
grep -q 'TAG+="systemd", ENV{SYSTEMD_WANTS}+="qoraprinter-usb@%k.service"' "$rules"
DESTDIR=$work/root "$cmake" --install "$build" >/dev/null
bin=$(sed -n 's/^ExecStart=\([^ ]*\).*/\1/p' "$unit")
[ -x "$work/root$bin" ] || { echo "ExecStart names $bin, not installed there"; exit 1; }
mkdir -p "$work/units"
sed "s#=$bin #=$work/root$bin #" "$unit" >"$work/units/qoraprinter-usb@lp0.service"
/usr/bin/systemd-analyze verify --man=no "$work/units/qoraprinter-usb@lp0.service"
echo "install, pkg-config and CMake consumers, units: ok"
