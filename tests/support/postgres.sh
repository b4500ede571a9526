#!/bin/sh
# A throwaway PostgreSQL 15 cluster of a test's own in DIR, made and run by the `postgres` user
# on PORT of the loopback address, with password authentication for the user postgres; with
# PKI (a folder of make_pki.sh), it takes TLS alone, with PKI's server certificate.
# Usage: postgres.sh init DIR PORT PASSWORD [PKI] | start DIR | stop DIR
set -e
bin=/usr/lib/postgresql/15/bin
as_postgres() { runuser -u postgres -- "$@"; }
dir=$2
case $1 in
init)
  mkdir -p "$dir"
  printf %s "$4" >"$dir/pw"
  chown postgres "$dir" "$dir/pw"
  as_postgres $bin/initdb -D "$dir/data" -U postgres --auth=scram-sha-256 --pwfile="$dir/pw" \
    --no-sync >/dev/null
  printf "port = %s\nlisten_addresses = '127.0.0.1'\nunix_socket_directories = '%s'\nfsync = off\n" \
    "$3" "$dir" >>"$dir/data/postgresql.conf"
  if [ -n "$5" ]; then
    # The server reads its key only when no one else may.
    install -o postgres -m 600 "$5/server.crt" "$5/server.key" "$dir/data"
    printf "ssl = on\nssl_cert_file = 'server.crt'\nssl_key_file = 'server.key'\n" \
      >>"$dir/data/postgresql.conf"
    # TLS or nothing over the network.
    sed -i 's/^host /hostssl /' "$dir/data/pg_hba.conf"
  fi
  ;;
start) as_postgres $bin/pg_ctl -D "$dir/data" -l "$dir/log" -w start >/dev/null ;;
stop) as_postgres $bin/pg_ctl -D "$dir/data" -m fast -w stop >/dev/null 2>&1 || true ;;
*) echo "usage: postgres.sh init DIR PORT PASSWORD [PKI] | start DIR | stop DIR" >&2; exit 2 ;;
esac
