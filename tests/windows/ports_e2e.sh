#!/usr/bin/env bash
# The Windows palimbo-cli.exe binds the vendor's library at run time: with the stand-in
# FTD2XX.DLL beside it, `ports` finds the controller and its COM number; without, the scan
# reports the library missing.
# Usage: ports_e2e.sh WINDOWS_CLI FAKE_FTD2XX_DLL
set -euo pipefail
win_cli=$1 dll=$2
: "${WINEPREFIX:?a Wine prefix of the tests}"
wine=${PALIMBO_WINE:-/usr/lib/wine/wine64}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

expect() {
  local what=$1 want_status=$2 want=$3 status=0
  (cd "$work" && "$wine" ./palimbo-cli.exe ports) >"$work/out" 2>&1 || status=$?
  tr -d '\r' <"$work/out" >"$work/out.txt"
  if [[ $status != "$want_status" ]] || ! grep -qxF "$want" "$work/out.txt"; then
    echo "$what: wanted status $want_status and the line '$want', got status $status:" >&2
    cat "$work/out.txt" >&2
    return 1
  fi
}

cp "$win_cli" "$work/palimbo-cli.exe"
expect "without the library" 1 "label: (Error: FTD2XX.DLL not found)"

cp "$dll" "$work/FTD2XX.DLL"
export PALIMBO_FAKE_D2XX="FT232R USB UART=3;KV PC-Kestrolar [A1]=7"
expect "with the library" 0 "label: KV PC-Kestrolar [A1] (COM7)"
grep -qxF "port: COM7" "$work/out.txt"

export PALIMBO_FAKE_D2XX="FT232R USB UART=3"
expect "with the library and no controller" 1 "label: (No device found)"
