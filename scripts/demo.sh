#!/usr/bin/env bash
# Sets everything up, builds the library and runs the demo.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake -S . -B build/plain -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build/plain -j "$(nproc)"
echo "libtarvek-core built in build/plain."
echo "The demo comes with the example service tarvek-lamps, which is not part of the tree yet."
