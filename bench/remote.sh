#!/usr/bin/env bash
# The same upload into one simulated module five ways: straight on its pseudo-terminal, and
# through Debian's ser2net on the loopback address by RFC 2217 and as a raw TCP stream, each
# plain and secured by TLS with a station's certificate (tests/support/make_pki.sh). Wall
# seconds of each (median of RUNS) and their ratio to the straight upload; for the secured
# ports also the milliseconds from the job's start to its first write (the open, handshake
# included, and the 1 s settling drain) against the plain port's.
# Usage: bench/remote.sh [PALIMBO_CLI] [HEX_FILE] [RUNS]
set -euo pipefail
cd "$(dirname "$0")/.."
cli=${1:-build/src/cli/palimbo-cli}
hex=${2:-examples/example.hex}
runs=${3:-5}
work=$(mktemp -d)
trap 'pkill -P $$ 2>/dev/null || true; rm -rf "$work"' EXIT

"$cli" simulate >"$work/port" 2>/dev/null &
for _ in $(seq 100); do [[ -s $work/port ]] && break; sleep 0.05; done
pty=$(head -n 1 "$work/port")
free_port() { python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'; }
telnet=$(free_port) raw=$(free_port) telnet_tls=$(free_port) raw_tls=$(free_port)
pki=$work/pki
sh tests/support/make_pki.sh "$pki"
ssl="ssl(key=$pki/server.key,cert=$pki/server.crt,CA=$pki/ca.crt,clientauth)"
# ser2net holds what the line sends for a character time or two (chardelay) and its TCP side
# waits to fill a segment (no nodelay): each short answer of the module comes late. A
# bootloader's exchange is all short answers, so both are off.
cat >"$work/ser2net.yaml" <<YAML
%YAML 1.1
---
connection: &telnet
  accepter: telnet(rfc2217),tcp(nodelay),127.0.0.1,$telnet
  connector: serialdev,$pty,57600n81,local
  options:
    chardelay: false
connection: &raw
  accepter: tcp(nodelay),127.0.0.1,$raw
  connector: serialdev,$pty,57600n81,local
  options:
    chardelay: false
connection: &telnet_tls
  accepter: telnet(rfc2217),$ssl,tcp(nodelay),127.0.0.1,$telnet_tls
  connector: serialdev,$pty,57600n81,local
  options:
    chardelay: false
    authdir: $pki/auth
connection: &raw_tls
  accepter: $ssl,tcp(nodelay),127.0.0.1,$raw_tls
  connector: serialdev,$pty,57600n81,local
  options:
    chardelay: false
    authdir: $pki/auth
YAML
/usr/sbin/ser2net -n -d -c "$work/ser2net.yaml" -P "$work/ser2net.pid" >/dev/null 2>&1 &
sleep 1

median() { sort -n | sed -n "$(((runs + 1) / 2))p"; }
seconds() {
  for _ in $(seq "$runs"); do
    /usr/bin/time -f "%e" -o "$work/time" "$cli" flash --port "$1" "$hex" >/dev/null 2>&1
    cat "$work/time"
  done | median
}
direct=$(seconds "$pty")
printf '%-36s %8s %s\n' port "wall s" "against the pseudo-terminal"
printf '%-36s %8s %s\n' "$pty" "$direct" 1
station="?ca=$pki/ca.crt&cert=$pki/station.crt&key=$pki/station.key"
for port in "rfc2217://127.0.0.1:$telnet" "socket://127.0.0.1:$raw" \
  "rfc2217+tls://127.0.0.1:$telnet_tls$station" "socket+tls://127.0.0.1:$raw_tls$station"; do
  s=$(seconds "$port")
  printf '%-36s %8s %.3f\n' "${port%%\?*}" "$s" "$(awk "BEGIN { print $s / $direct }")"
done
# The first write leaves after the open and the settling drain: the trace's first line.
first_write() {
  for _ in $(seq "$runs"); do
    "$cli" flash --trace "$work/trace" --port "$1" "$hex" >/dev/null 2>&1
    head -n 1 "$work/trace" | cut -d' ' -f1
  done | median
}
for kind in rfc2217 socket; do
  plain_port=$([[ $kind == rfc2217 ]] && echo "$telnet" || echo "$raw")
  tls_port=$([[ $kind == rfc2217 ]] && echo "$telnet_tls" || echo "$raw_tls")
  printf '%-36s first write at %s ms, plain %s ms\n' "$kind+tls" \
    "$(first_write "$kind+tls://127.0.0.1:$tls_port$station")" \
    "$(first_write "$kind://127.0.0.1:$plain_port")"
done
echo "(medians of $runs runs of $hex)"
