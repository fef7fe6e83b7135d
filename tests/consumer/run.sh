#!/usr/bin/env bash
# Installs the library from a build tree into a temporary prefix, then builds and runs
# the consumer against it twice, through CMake's find_package and through pkg-config, and
# builds the example service from its own folder.
# Usage: tests/consumer/run.sh BUILD_DIR
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=$(cd "$1" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

cmake --install "$build" --prefix "$prefix" >/dev/null
libdir=$(find "$prefix" -name 'libtarvek-core.so.0' -printf '%h\n' | head -n1)

cmake -S "$here" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake" >/dev/null
"$work/cmake/consumer"

export PKG_CONFIG_PATH=$libdir/pkgconfig
# shellcheck disable=SC2046
# No -std here: the .pc's Cflags carry it.
c++ "$here/consumer.cpp" -o "$work/consumer-pc" $(pkg-config --cflags --libs tarvek-core)
LD_LIBRARY_PATH=$libdir "$work/consumer-pc"
# The example service builds the same way from its own folder.
cmake -S "$here/../../examples/lamps" -B "$work/lamps" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/lamps" -j "$(nproc)" >/dev/null
LD_LIBRARY_PATH=$libdir "$work/lamps/tarvek-lamps" --lamps x 2>/dev/null && exit 1 || [ $? -eq 2 ]
cmake -S "$here/../../examples/thermostat" -B "$work/thermostat" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/thermostat" >/dev/null
# The lamps' unit, activation and bus policy files are installed under the prefix.
grep -q '^Type=notify$' "$prefix/lib/systemd/system/tarvek-lamps.service"
grep -q '^BusName=org.sample.Lamps$' "$prefix/lib/systemd/system/tarvek-lamps.service"
grep -q "^ExecStart=$prefix/bin/tarvek-lamps " "$prefix/lib/systemd/system/tarvek-lamps.service"
grep -q '^SystemdService=tarvek-lamps.service$' "$prefix/share/dbus-1/system-services/org.sample.Lamps.service"
grep -q 'own="org.sample.Lamps"' "$prefix/share/dbus-1/system.d/org.sample.Lamps.conf"
echo "consumer: find_package and pkg-config builds passed; tarvek-lamps and tarvek-thermostat built from their folders"
