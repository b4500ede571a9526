#!/usr/bin/env bash
# Builds everything and runs all tests: the Linux build, the Windows build under Wine, the
# window for Windows under Wine (with Qt for Windows built once and cached), the whole suite
# again under ASan and UBSan, and each fuzzer for a bounded time (a crash fails).
# PALIMBO_TEST_PHASES picks some of them, e.g. PALIMBO_TEST_PHASES="native windows".
set -euo pipefail
cd "$(dirname "$0")/.."
phases=${PALIMBO_TEST_PHASES:-native windows window-win sanitize fuzz}

timed() {
  local started=$SECONDS
  "$@"
  echo "== $* took $((SECONDS - started)) s" >&2
}

native() {
  scripts/setup.sh build
  ctest --test-dir build --output-on-failure -j2
}

sanitize() {
  PALIMBO_CMAKE_ARGS="-DPALIMBO_SANITIZE=ON -DPALIMBO_BENCH=OFF" scripts/setup.sh build-asan
  ctest --test-dir build-asan --output-on-failure -j2
}

for phase in $phases; do
  case $phase in
    native) timed native ;;
    windows) timed scripts/test-windows.sh build ;;
    window-win) timed scripts/test-windows-window.sh build ;;
    sanitize) timed sanitize ;;
    fuzz) timed scripts/fuzz.sh 12 ;;
    *) echo "unknown phase '$phase'" >&2; exit 2 ;;
  esac
done
