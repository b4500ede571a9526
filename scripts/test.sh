#!/usr/bin/env bash
# Builds everything and runs all tests. PALIMBO_CMAKE_ARGS=-DPALIMBO_SANITIZE=ON with another
# build folder (scripts/test.sh build-asan) runs them under ASan and UBSan.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
scripts/setup.sh "$build"
ctest --test-dir "$build" --output-on-failure -j2
