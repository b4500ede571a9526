#!/usr/bin/env bash
# Builds everything and runs all tests: the Linux build, the Windows build under Wine, the
# window for Windows under Wine (with Qt for Windows built once and cached), the whole suite
# again under ASan and UBSan, and each fuzzer for a bounded time (a crash fails).
# PALIMBO_TEST_PHASES picks some of them, e.g. PALIMBO_TEST_PHASES="native windows".
# The phase "mutation" (not among the defaults: it takes a while) plants the faults of
# scripts/mutants.txt one at a time and tells which of them the native suite let through.
# The last line counts the tests of every phase that ran: "N passed, N failed[, N skipped]".
set -euo pipefail
cd "$(dirname "$0")/.."
phases=${PALIMBO_TEST_PHASES:-native windows window-win sanitize fuzz}

# Everything the phases print also goes here, for the count at the end.
log=$(mktemp)
phase_failed=0

timed() {
  local started=$SECONDS status=0
  "$@" 2>&1 | tee -a "$log" || status=$?
  echo "== $* took $((SECONDS - started)) s" >&2
  if ((status != 0)); then
    # A phase that stopped before its tests told their count still counts as one failure.
    grep -q 'tests failed out of\|^fuzz_.* failed' "$log" || phase_failed=1
    exit "$status"
  fi
}

# Counts the tests of every ctest run (whichever phase ran it), every fuzzer and every mutant.
summary() {
  awk -v phase_failed="$phase_failed" '
    / tests failed out of / { failed += $(NF - 5); total += $NF }
    /\*\*\*Skipped/ { skipped++ }
    /^fuzz_[a-z_]*: Done/ || /^mutant .*: (killed|accounted for)/ { other++ }
    /^fuzz_[a-z_]* failed/ || /^mutant .*: SURVIVED/ { failed++; total++ }
    END {
      line = (total - failed - skipped + other) " passed, " (failed + phase_failed) " failed"
      if (skipped) line = line ", " skipped " skipped"
      print line
    }' "$log"
  rm -f "$log"
}
trap summary EXIT

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
    mutation) timed scripts/mutate.sh ;;
    *) echo "unknown phase '$phase'" >&2; exit 2 ;;
  esac
done
