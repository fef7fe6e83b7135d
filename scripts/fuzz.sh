#!/usr/bin/env bash
# Builds the libFuzzer targets (tests/fuzz) with clang 14 and runs each for a while.
# Usage: scripts/fuzz.sh [seconds-per-target] [target...]
#   seconds-per-target  default 60; targets default to all of them, named as their
#                       corpus folders: json_deserializer storage_documents vrel2_policy
#                       bus_arguments.
# Environment: TARVEK_FUZZ_BUILD (build directory, default build/fuzz),
#   TARVEK_FUZZ_WORK (corpora and crash files, default ${XDG_CACHE_HOME:-~/.cache}/tarvek-fuzz),
#   TARVEK_JOBS (build jobs), TARVEK_FUZZ_ARGS (further libFuzzer options),
#   TARVEK_FUZZ_SEED_ONLY=1 (run over the committed seeds only and keep nothing; what CI does).
#
# The corpus of each target grows in the work directory, outside the repository, seeded
# from tests/fuzz/corpus/<target>. A crash leaves its input in <work>/<target>/crashes and
# ends the script with a failure; replay it with <build>/tests/fuzz/<target>_fuzz <file>,
# with UBSAN_OPTIONS=suppressions=tests/fuzz/ubsan.supp as this script sets it.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
jobs=${TARVEK_JOBS:-$(nproc)}
build=${TARVEK_FUZZ_BUILD:-build/fuzz}
work=${TARVEK_FUZZ_WORK:-${XDG_CACHE_HOME:-$HOME/.cache}/tarvek-fuzz}

seconds=${1:-60}
shift || true
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  mapfile -t targets < <(find tests/fuzz/corpus -mindepth 1 -maxdepth 1 -type d -printf '%f\n' | sort)
fi

launcher=()
if command -v ccache >/dev/null; then
  launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
fi
# Only what the fuzz targets need; the rest can't link against fuzz-instrumented objects.
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_C_COMPILER=clang-14 -DCMAKE_CXX_COMPILER=clang++-14 \
  -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O1 -g1" -DCMAKE_C_FLAGS_RELWITHDEBINFO="-O1 -g1" \
  -DTARVEK_BUILD_FUZZ=ON -DTARVEK_BUILD_TESTS=OFF -DTARVEK_BUILD_BENCH=OFF -DTARVEK_BUILD_EXAMPLES=OFF \
  "${launcher[@]}" >/dev/null
cmake --build "$build" -j "$jobs" --target "${targets[@]/%/_fuzz}"

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1:suppressions=$root/tests/fuzz/ubsan.supp}
# shellcheck disable=SC2206
extra=(${TARVEK_FUZZ_ARGS:-})

mkdir -p "$work"
failed=()
for target in "${targets[@]}"; do
  seeds=tests/fuzz/corpus/$target
  [ -d "$seeds" ] || { echo "no seed corpus $seeds" >&2; exit 2; }
  if [ "${TARVEK_FUZZ_SEED_ONLY:-0}" = 1 ]; then
    corpus=$(mktemp -d)
    crashes=$corpus
  else
    corpus=$work/$target/corpus
    crashes=$work/$target/crashes
    mkdir -p "$corpus" "$crashes"
  fi
  echo "==> $target: ${seconds}s (log in $work/$target.log)"
  # New units go into the first folder only; the seeds are read and never written.
  if ! "$build/tests/fuzz/${target}_fuzz" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
      -print_final_stats=1 -artifact_prefix="$crashes/" "${extra[@]}" "$corpus" "$seeds" \
      > "$work/$target.log" 2>&1; then
    tail -n 60 "$work/$target.log" >&2
    failed+=("$target")
    if [ "${TARVEK_FUZZ_SEED_ONLY:-0}" = 1 ]; then
      mkdir -p "$work/$target/crashes"
      cp "$crashes"/crash-* "$crashes"/leak-* "$crashes"/timeout-* "$crashes"/oom-* "$work/$target/crashes/" 2>/dev/null || true
    fi
  else
    grep -E '^(Done|stat::(number_of_executed_units|new_units_added|peak_rss_mb))' "$work/$target.log" || true
  fi
  if [ "${TARVEK_FUZZ_SEED_ONLY:-0}" = 1 ]; then
    rm -rf "$corpus"
  fi
done

if [ ${#failed[@]} -gt 0 ]; then
  echo "fuzz: failures in ${failed[*]}; inputs in $work/<target>/crashes" >&2
  exit 1
fi
echo "fuzz: no failures"
