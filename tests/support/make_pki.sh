#!/bin/sh
# Certificates for the tests of secured network ports, in DIR: a CA (ca), a server certificate
# for 127.0.0.1 and localhost (server), the same key named otherwise (dnsonly: 127.0.0.1 as a
# name; cnonly: in its CN; otherip: 127.0.0.2), a station the server admits (station, CN
# station3: ser2net finds the CA in auth/station3/allowed_certs), its key under a passphrase
# (locked), and a station of another CA (stranger, of other).
# Usage: make_pki.sh DIR
set -e
mkdir -p "$1"
cd "$1"
key() {
  openssl req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj "/CN=$2" \
    -keyout "$1.key" -out "$1.csr" 2>/dev/null
}
ca() {
  openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2 \
    -subj "/CN=$2" -keyout "$1.key" -out "$1.crt" 2>/dev/null
}
sign() {
  printf '%s\n' "$3" >"$1.ext"
  openssl x509 -req -in "${4:-$1}.csr" -CA "$2.crt" -CAkey "$2.key" -CAcreateserial -days 2 \
    -extfile "$1.ext" -out "$1.crt" 2>/dev/null
}
ca ca "Palimbo test CA"
ca other "Other CA"
key server 127.0.0.1
sign server ca subjectAltName=IP:127.0.0.1,DNS:localhost
sign dnsonly ca subjectAltName=DNS:127.0.0.1 server
sign cnonly ca basicConstraints=CA:FALSE server
sign otherip ca subjectAltName=IP:127.0.0.2 server
key station station3
sign station ca extendedKeyUsage=clientAuth
openssl pkey -in station.key -aes256 -passout pass:secret -out locked.key
key stranger stranger
sign stranger other extendedKeyUsage=clientAuth
mkdir -p auth/station3/allowed_certs
cp ca.crt "auth/station3/allowed_certs/$(openssl x509 -hash -noout -in ca.crt).0"
