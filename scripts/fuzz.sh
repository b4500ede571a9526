#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, ASan and UBSan) in build-fuzz and runs each for a bounded
# time from its committed seeds; stops with a non-zero status at the first target that fails.
# Usage: scripts/fuzz.sh [SECONDS_PER_TARGET]   (default 12: about a minute and a half for all six)
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-12}
build=build-fuzz
targets=(hex_reader direct_exchange ccb_exchange entry_poll line_settings telnet)

scripts/install-packages.sh clang-14 libclang-rt-14-dev cmake ninja-build libmbedtls-dev libpq-dev

CC=clang-14 CXX=clang++-14 cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DPALIMBO_FUZZ=ON -DPALIMBO_TESTS=OFF -DPALIMBO_WINDOW=OFF -DPALIMBO_BENCH=OFF >&2
cmake --build "$build" -j2 --target fuzzers >&2

mkdir -p "$build/artifacts"
for t in "${targets[@]}"; do
  # What the fuzzer adds goes to the build folder; the committed seeds stay as they are.
  mkdir -p "$build/corpus/$t"
  log="$build/fuzz_$t.log"
  if ! "$build/fuzz/fuzz_$t" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
    -artifact_prefix="$build/artifacts/fuzz_$t-" "$build/corpus/$t" "fuzz/corpus/$t" 2>"$log"; then
    tail -n 40 "$log" >&2
    echo "fuzz_$t failed; the input is in $build/artifacts/" >&2
    exit 1
  fi
  echo "fuzz_$t: $(grep -o 'Done [0-9]* runs in [0-9]* second(s)' "$log")"
done
