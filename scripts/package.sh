#!/usr/bin/env bash
# Makes the packages: build/palimbo_<version>_amd64.deb from the Linux build, and from the
# Windows build with the window build-win-window/palimbo-<version>-windows-x86_64.zip
# (palimbo.exe, palimbo-cli.exe and a README) and the installer package
# build-win-window/palimbo-<version>-windows-x86_64.msi. Installs what is missing, as the other
# scripts do; the first run builds Qt for Windows (scripts/qt-windows.sh).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh build
(cd build && cpack -G DEB -B "$PWD") >&2

scripts/install-packages.sh g++-mingw-w64-x86-64 googletest nlohmann-json3-dev libcli11-dev wixl
qt=$(scripts/qt-windows.sh | tail -n1)
scripts/configure-windows-window.sh "$qt" build-win-window -DCMAKE_BUILD_TYPE=Release >&2
cmake --build build-win-window -j2 --target palimbo_window palimbo-cli palimbo_msi >&2
(cd build-win-window && cpack -G ZIP -B "$PWD") >&2
cp build-win-window/packaging/palimbo-*-windows-x86_64.msi build-win-window/
ls build/palimbo_*_amd64.deb build-win-window/palimbo-*-windows-x86_64.{zip,msi}
