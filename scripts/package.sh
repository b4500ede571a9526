#!/usr/bin/env bash
# Makes the packages: build/palimbo_<version>_amd64.deb from the Linux build, and
# build-win/palimbo-cli-<version>-windows-x86_64.zip (palimbo-cli.exe and a README) from the
# Windows build. Installs what is missing, as the other scripts do.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh build
(cd build && cpack -G DEB -B "$PWD") >&2

scripts/install-packages.sh g++-mingw-w64-x86-64 googletest nlohmann-json3-dev libcli11-dev
cmake -S . -B build-win -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64-x86_64.cmake \
  -DCMAKE_BUILD_TYPE=Release -DPALIMBO_WINDOW=OFF -DPALIMBO_BENCH=OFF >&2
cmake --build build-win -j2 --target palimbo-cli >&2
(cd build-win && cpack -G ZIP -B "$PWD") >&2
ls build/palimbo_*_amd64.deb build-win/palimbo-cli-*-windows-x86_64.zip
