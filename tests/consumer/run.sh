#!/usr/bin/env bash
# Installs the library from a build tree into a temporary prefix, then builds and runs
# the consumer against it twice, through CMake's find_package and through pkg-config, and
# builds the example service from its own folder, and the test fixture's example (find_package
# with the component "testing", and pkg-config tarvek-testing).
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
# The test fixture: the README's GoogleTest example, built through
# find_package(tarvek-core COMPONENTS testing) and through pkg-config, and run.
cmake -S "$here/../../examples/testing" -B "$work/testing" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/testing" -j "$(nproc)" >/dev/null
"$work/testing/counter_test" --gtest_brief=1
# shellcheck disable=SC2046
c++ -std=c++20 "$here/../../examples/testing/counter_test.cpp" -o "$work/counter-test-pc" \
  $(pkg-config --cflags --libs tarvek-testing gtest_main)
LD_LIBRARY_PATH=$libdir "$work/counter-test-pc" --gtest_brief=1
echo "consumer: find_package and pkg-config builds passed; tarvek-lamps and tarvek-thermostat built from their folders; the fixture's example passed"
