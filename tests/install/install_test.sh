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

# pkg-config: no LD_LIBRARY_PATH or -rpath-link at link time; the stand-ins
# that the library needs are found through its RUNPATH.
export PKG_CONFIG_PATH=$lib/pkgconfig
read -ra flags < <(pkg-config --cflags --libs qoraprinter)
"$cc" -std=c99 -Wall -Wextra -Werror -pedantic "${extra[@]}" "$src/caller.c" -o "$work/caller-pc" "${flags[@]}"
# The header is C++ too.
read -ra cflags < <(pkg-config --cflags qoraprinter)
"$cc" -x c++ -std=c++20 -Wall -Wextra -Werror -pedantic -fsyntax-only "${cflags[@]}" "$src/caller.c"
out=$(LD_LIBRARY_PATH=$lib "$work/caller-pc")
[ "$out" = "Laser 100" ] || { echo "pkg-config caller printed '$out'"; exit 1; }

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
out=$("$work/app/build/caller")
[ "$out" = "Laser 100" ] || { echo "CMake caller printed '$out'"; exit 1; }
# Hot-plug: the rule wants the unit by its installed name, and the unit
# passes systemd-analyze verify (a DESTDIR install keeps the configured
# paths, so the command is where the unit says it is below the stage).
rules=$(find "$prefix" -name 99-qoraprinter.rules)
unit=$(find "$prefix" -name 'qoraprinter-usb@.service')
grep -q 'TAG+="systemd", ENV{SYSTEMD_WANTS}+="qoraprinter-usb@%k.service"' "$rules"
if ! command -v systemd-analyze >/dev/null; then
    echo "systemd-analyze missing: units not verified"; exit 77
fi
DESTDIR=$work/root "$cmake" --install "$build" >/dev/null
unitdir=$(dirname "$(find "$work/root" -name 'qoraprinter-usb@.service')")
bin=$(sed -n 's/^ExecStart=\([^ ]*\).*/\1/p' "$unit")
[ -x "$work/root$bin" ] || { echo "ExecStart names $bin, not installed there"; exit 1; }
# Verified as installed for lp0, with only the command's path moved into the
# stage.
mkdir -p "$work/units"
sed "s#=$bin #=$work/root$bin #" "$unitdir/qoraprinter-usb@.service" > "$work/units/qoraprinter-usb@lp0.service"
systemd-analyze verify --man=no "$work/units/qoraprinter-usb@lp0.service"
echo "install, pkg-config and CMake consumers, units: ok"
