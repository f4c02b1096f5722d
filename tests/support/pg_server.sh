#!/usr/bin/env bash
# A throwaway database server for the tests, on a Unix socket only.
#   pg_server.sh start FILE   starts one in a new temporary folder and writes
#                             its connection URI (database "postgres") to FILE
#   pg_server.sh stop FILE    stops the server FILE names and removes its folder
# As root the server runs as the packaged "postgres" user. With
# KAVREL_TEST_POSTGRES set, both do nothing: the tests use that server.
set -euo pipefail
action=${1:?start or stop}
file=${2:?file of the connection URI}
[ -n "${KAVREL_TEST_POSTGRES:-}" ] && exit 0

bindir=$(ls -d /usr/lib/postgresql/*/bin 2>/dev/null | sort -V | tail -n 1)
if [ -z "$bindir" ]; then
  echo "pg_server.sh: no PostgreSQL server installed" >&2
  exit 1
fi
as_owner() {
  if [ "$(id -u)" -eq 0 ]; then runuser -u postgres -- "$@"; else "$@"; fi
}

case "$action" in
  start)
    # A server a broken earlier run left behind goes first.
    [ -f "$file" ] && "$0" stop "$file"
    dir=$(mktemp -d /tmp/kavrel-pg-XXXXXX)
    chmod 755 "$dir"
    [ "$(id -u)" -eq 0 ] && chown postgres: "$dir"
    as_owner "$bindir/initdb" -D "$dir/data" -U kavrel --auth=trust -E UTF8 --locale=C.UTF-8 >"$dir/initdb.log" 2>&1 ||
      { cat "$dir/initdb.log" >&2; rm -rf "$dir"; exit 1; }
    as_owner "$bindir/pg_ctl" -D "$dir/data" -l "$dir/server.log" -w -s \
      -o "-c listen_addresses='' -k $dir -c fsync=off -c synchronous_commit=off -c full_page_writes=off -c max_connections=60" \
      start || { cat "$dir/server.log" >&2; rm -rf "$dir"; exit 1; }
    echo "postgresql:///postgres?host=$dir&user=kavrel" >"$file"
    ;;
  stop)
    [ -f "$file" ] || exit 0
    uri=$(cat "$file")
    dir=${uri#*host=}
    dir=${dir%%&*}
    case "$dir" in /tmp/kavrel-pg-*) ;; *) echo "pg_server.sh: not a test server: $dir" >&2; exit 1 ;; esac
    as_owner "$bindir/pg_ctl" -D "$dir/data" -m immediate -s stop || true
    rm -rf "$dir"
    rm -f "$file"
    ;;
  *) echo "pg_server.sh: unknown action $action" >&2; exit 2 ;;
esac
