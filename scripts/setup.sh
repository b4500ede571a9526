#!/usr/bin/env bash
# Installs what is missing on a fresh Debian machine, then configures and builds.
# Usage: scripts/setup.sh [BUILD_DIR] [TARGET...]
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-packages.sh cmake ninja-build g++ python3 libgtest-dev libgmock-dev \
  libbenchmark-dev qt6-base-dev lintian nlohmann-json3-dev libcli11-dev ser2net \
  libmbedtls-dev openssl ca-certificates libpq-dev postgresql-15

build=${1:-build}
shift || true
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo ${PALIMBO_CMAKE_ARGS:-} >&2
cmake --build "$build" -j2 ${1:+--target "$@"} >&2
