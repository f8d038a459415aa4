#!/usr/bin/env bash
# Builds everything, makes a small SQLite database, serves it with
# zephodbc-server, and reads and writes it through the bridge with isql and
# with a short pyodbc script. Stops the server at the end; nothing is left
# running. (scripts/example.sh runs the library's own example instead.)
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh

dir=build/demo
cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZEPHRPC_BUILD_TESTS=OFF >/dev/null
cmake --build "$dir" -j "$(nproc)"
driver=$PWD/$dir/bridge/libzephodbc.so
server_bin=$PWD/$dir/bridge/zephodbc-server
sqlite_driver=$(ls /usr/lib/*/odbc/libsqlite3odbc.so 2>/dev/null | head -n1)
[ -n "$sqlite_driver" ] || { echo "demo: the SQLite ODBC driver is missing" >&2; exit 1; }

work=$(mktemp -d)
server_pid=""
cleanup() {
  if [ -n "$server_pid" ]; then
    kill "$server_pid" 2>/dev/null || true
    wait "$server_pid" 2>/dev/null || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT

echo "=== a SQLite database: $work/orders.db"
sqlite3 "$work/orders.db" <<'SQL'
create table orders(id integer primary key, customer text, amount real, placed date);
insert into orders values (1, 'Ada', 12.5, '2026-11-01'), (2, 'Grace', 99.0, '2026-11-15'),
                          (3, 'Zoë', 7.25, '2026-11-20');
SQL

# The server's side: the data source it serves, in the usual unixODBC files.
mkdir -p "$work/server" "$work/client"
cat > "$work/server/odbcinst.ini" <<INI
[SQLite3]
Driver = $sqlite_driver
INI
cat > "$work/server/odbc.ini" <<INI
[orders]
Driver   = SQLite3
Database = $work/orders.db
INI

echo "=== zephodbc-server serving [orders]"
ODBCSYSINI=$work/server ODBCINI=$work/server/odbc.ini \
  "$server_bin" --listen 127.0.0.1:0 --allow-dsn orders > "$work/server.out" &
server_pid=$!
port=""
for _ in $(seq 100); do
  port=$(sed -n 's/.*listening on .*:\([0-9]*\)$/\1/p' "$work/server.out")
  [ -n "$port" ] && break
  sleep 0.1
done
[ -n "$port" ] || { echo "demo: the server did not start" >&2; exit 1; }
cat "$work/server.out"

# The client's side: the bridge driver and a data source that reaches
# [orders] on that server.
cat > "$work/client/odbcinst.ini" <<INI
[zephodbc]
Driver = $driver
INI
cat > "$work/client/odbc.ini" <<INI
[orders]
Driver    = zephodbc
Server    = 127.0.0.1
Port      = $port
TargetDSN = orders
Timeout   = 30
INI
export ODBCSYSINI=$work/client ODBCINI=$work/client/odbc.ini

echo "=== isql through the bridge"
timeout 60 isql -v -b orders <<'SQL'
insert into orders values (4, 'Linus', 42.0, '2026-11-23')
select id, customer, amount, placed from orders order by id
SQL

echo "=== pyodbc through the bridge"
timeout 60 /usr/bin/python3 - <<'PY'
import pyodbc
conn = pyodbc.connect("DSN=orders")
cur = conn.cursor()
cur.execute("update orders set amount = amount * ? where customer = ?", 2, "Zoë")
print("updated", cur.rowcount, "row")
cur.execute("insert into orders values (?, ?, ?, ?)", 5, "Mañana \U0001F600", 3.5, "2026-12-01")
conn.commit()
for row in cur.execute("select id, customer, amount, placed from orders order by id"):
    print(tuple(row))
print("DBMS:", conn.getinfo(pyodbc.SQL_DBMS_NAME), "via", conn.getinfo(pyodbc.SQL_DRIVER_NAME))
conn.close()
PY

echo "=== stopping the server"
kill "$server_pid"
wait "$server_pid" || true
server_pid=""
echo "=== demo finished"
