#!/usr/bin/env bash
# The Windows palimbo-cli.exe under Wine flashes through a secured port of Debian's ser2net on
# the loopback address, which admits only known stations, into a module served by the Linux
# simulate; a station of another CA is refused, with the reason.
# Usage: tls_e2e.sh WINDOWS_CLI LINUX_CLI HEX_FILE
set -euo pipefail
win_cli=$1 linux_cli=$2 hex=$3 protocol=direct
: "${WINEPREFIX:?a Wine prefix of the tests}"
wine=${PALIMBO_WINE:-/usr/lib/wine/wine64}

source "$(dirname "$0")/simulated_module.sh"
"$linux_cli" hex2bin "$hex" "$work/image.bin"
pki=$work/pki
sh "$(dirname "$0")/../support/make_pki.sh" "$pki"
start_module windows

port=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
cat >"$work/ser2net.yaml" <<YAML
%YAML 1.1
---
connection: &secured
  accepter: telnet(rfc2217),ssl(key=$pki/server.key,cert=$pki/server.crt,CA=$pki/ca.crt,clientauth),tcp(nodelay),127.0.0.1,$port
  connector: serialdev,$pts,57600n81,local
  options:
    chardelay: false
    authdir: $pki/auth
YAML
/usr/sbin/ser2net -n -d -c "$work/ser2net.yaml" -P "$work/ser2net.pid" >"$work/ser2net.log" 2>&1 &
pids+=($!)
# Listening, by the kernel's table: a probing connection would open the device.
for _ in $(seq 100); do
  grep -q ":$(printf '%04X' "$port") .* 0A " /proc/net/tcp && break
  sleep 0.05
done

windows_path() { printf 'Z:%s' "$(realpath "$1")" | tr / '\\'; }
url() { echo "rfc2217+tls://127.0.0.1:$port?ca=$(windows_path "$pki/ca.crt")&cert=$(windows_path "$pki/$1.crt")&key=$(windows_path "$pki/$1.key")"; }
if ! timeout 120 "$wine" "$win_cli" flash --port "$(url station)" "$(windows_path "$hex")" \
    >"$work/windows.log" 2>&1; then
  echo "Windows upload through the secured port failed:" >&2
  cat "$work/windows.log" >&2
  exit 1
fi
status=0
timeout 60 "$wine" "$win_cli" flash --port "$(url stranger)" "$(windows_path "$hex")" \
  >"$work/refused.log" 2>&1 || status=$?
if ((status != 1)) || ! grep -q "the server does not admit our certificate" "$work/refused.log"; then
  echo "a station of another CA was not refused as it should be (exit $status):" >&2
  cat "$work/refused.log" >&2
  exit 1
fi
check_flash windows
echo "secured upload: Windows build under Wine through ser2net's ssl layer"
