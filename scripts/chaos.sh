#!/usr/bin/env bash
# The long form of the chaos test of tarvek-lamps: random traffic against the running
# service on a private bus for DURATION seconds, then a table of figures.
# Usage: scripts/chaos.sh [DURATION [SEED]] [--without CLASS,...] [--rss-slack-mib N]
#   DURATION in seconds (default 300), SEED a number (default: from the clock, printed).
#   CLASS: big, deep, empty, badsig, nobody, policy, signals, manager, disconnect.
# Builds the test in build/plain (as scripts/test.sh does) unless CHAOS_BUILD names
# another build directory that has it. Needs dbus-daemon; the nobody client needs root.
set -euo pipefail
cd "$(dirname "$0")/.."
duration=${1:-300}
seed=${2:-$(date +%s)}
shift $(( $# < 2 ? $# : 2 ))
case $duration in ''|*[!0-9.]*) echo "chaos.sh: duration must be a number of seconds" >&2; exit 2 ;; esac
case $seed in ''|*[!0-9]*) echo "chaos.sh: seed must be a number" >&2; exit 2 ;; esac

build=${CHAOS_BUILD:-build/plain}
if [ ! -x "$build/tests/chaos/chaos_tests" ] || [ -z "${CHAOS_BUILD:-}" ]; then
  if [ ! -f "$build/CMakeCache.txt" ]; then
    cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
      -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O1 -g1" -DCMAKE_C_FLAGS_RELWITHDEBINFO="-O1 -g1" >/dev/null
  fi
  cmake --build "$build" -j "${TARVEK_JOBS:-$(nproc)}" --target chaos_tests >/dev/null
fi
echo "chaos: seed $seed, $duration s" >&2
exec "$build/tests/chaos/chaos_tests" --seed "$seed" --duration "$duration" "$@"
