#!/usr/bin/env bash
# Sets everything up and runs the whole test suite three ways:
#   1. a plain build (with benchmarks and examples compiled), all tests;
#   2. AddressSanitizer + UndefinedBehaviorSanitizer, all tests;
#   3. ThreadSanitizer, the tests labelled "concurrent";
#   4. the libFuzzer targets, built with clang, each run briefly over its seed corpus.
# Usage: scripts/test.sh [plain|asan|tsan|fuzz]...   (default: all four)
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
jobs=${TARVEK_JOBS:-$(nproc)}

scripts/install-deps.sh

stages=("$@")
[ ${#stages[@]} -gt 0 ] || stages=(plain asan tsan fuzz)

configure() { # dir, extra cmake args...
  local dir=$1; shift
  # -O1 with light debug info: optimised code under test at half the compile time of -O2 -g.
  cmake -S "$root" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O1 -g1" -DCMAKE_C_FLAGS_RELWITHDEBINFO="-O1 -g1" "$@" >/dev/null
}

for stage in "${stages[@]}"; do
  echo "==> $stage"
  case $stage in
    plain)
      configure build/plain
      cmake --build build/plain -j "$jobs"
      ctest --test-dir build/plain -j "$jobs" --output-on-failure
      ;;
    asan)
      configure build/asan -DTARVEK_SANITIZE=address,undefined -DTARVEK_BUILD_BENCH=OFF
      cmake --build build/asan -j "$jobs"
      ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
        ctest --test-dir build/asan -j "$jobs" --output-on-failure
      ;;
    tsan)
      configure build/tsan -DTARVEK_SANITIZE=thread -DTARVEK_BUILD_BENCH=OFF -DTARVEK_BUILD_EXAMPLES=OFF
      # Only the concurrent test programs are built and run under ThreadSanitizer.
      mapfile -t targets < <(cmake --build build/tsan --target help | sed -n 's/^\.\.\. \(.*_concurrent_tests\)$/\1/p')
      if [ ${#targets[@]} -eq 0 ]; then
        echo "no concurrent tests"
        continue
      fi
      cmake --build build/tsan -j "$jobs" --target "${targets[@]}"
      TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
        ctest --test-dir build/tsan -j "$jobs" -L concurrent --output-on-failure
      ;;
    fuzz)
      # 20 s per target, with the seeds as starting corpus and a scratch one beside them; any crash, leak, timeout or
      # failed check fails the stage, and the input is kept in build/fuzz-work.
      TARVEK_FUZZ_SEED_ONLY=1 TARVEK_FUZZ_BUILD=build/fuzz TARVEK_FUZZ_WORK=build/fuzz-work TARVEK_JOBS=$jobs \
        scripts/fuzz.sh 20
      ;;
    *) echo "unknown stage $stage" >&2; exit 2 ;;
  esac
done
