#!/usr/bin/python3
"""Bridge speed against the same database reached directly: SQLite in-process,
and PostgreSQL over its own protocol (a throwaway cluster; needs root and
the postgresql and odbc-postgresql packages).

For each operation, runs the direct DSN (the database's ODBC driver in this
process) and the bridged one (libzephodbc.so to a local zephodbc-server),
interleaved, several times; prints medians, the bridged/direct ratio and the
round trips the bridge made per operation (counted with ZEPHODBC_CALL_LOG;
machine-independent). Client and server are pinned with sched_setaffinity:
first both on CPU 0, then client on CPU 0 and server on CPU 1.

  bench/bridge_bench.py DRIVER_SO SERVER_BINARY [--repeat N] [--backend sqlite|postgresql|both]
"""
import argparse
import glob
import os
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

parser = argparse.ArgumentParser()
parser.add_argument("driver")
parser.add_argument("server")
parser.add_argument("--repeat", type=int, default=5)
parser.add_argument("--backend", choices=("sqlite", "postgresql", "both"), default="both")
# Internal: counts one operation's round trips in a process of its own, so
# that the timed runs do not pay for the call log.
parser.add_argument("--count", nargs=3, metavar=("OP", "FAST", "CONNECT"), help=argparse.SUPPRESS)
args = parser.parse_args()
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "bridge", "tests"))
import pg_cluster  # noqa: E402

if args.count:
    work = os.environ["ODBCSYSINI"]
    calls_log = os.environ["ZEPHODBC_CALL_LOG"]
else:
    work = tempfile.mkdtemp(prefix="zephodbc-bench-")
    calls_log = os.path.join(work, "calls.log")
    os.environ["ODBCSYSINI"] = work
    os.environ["ODBCINI"] = os.path.join(work, "odbc.ini")
import pyodbc  # noqa: E402

pyodbc.pooling = False
sqlite_driver = glob.glob("/usr/lib/*/odbc/libsqlite3odbc.so")[0]
db = os.path.join(work, "bench.db")
if not args.count:
    with open(os.path.join(work, "odbcinst.ini"), "w") as f:
        f.write(f"[SQLite3]\nDriver={sqlite_driver}\n[zephodbc]\nDriver={os.path.abspath(args.driver)}\n")
        if pg_cluster.odbc_driver():
            f.write(f"[PostgreSQL Unicode]\nDriver={pg_cluster.odbc_driver()}\n")


def start_server(cpu):
    proc = subprocess.Popen([args.server, "--listen", "127.0.0.1:0"], stdout=subprocess.PIPE, text=True,
                            preexec_fn=lambda: os.sched_setaffinity(0, {cpu}))
    port = int(proc.stdout.readline().rsplit(":", 1)[1])
    # The driver manager caches odbc.ini: the bridge is reached by connection string.
    CONNECT["bridge"] = f"DRIVER={{zephodbc}};SERVER=127.0.0.1;PORT={port};TARGETDSN={CONNECT['target']}"
    return proc


CONNECT = {}


def write_dsns(pg):
    with open(os.environ["ODBCINI"], "w") as f:
        f.write(f"[direct]\nDriver=SQLite3\nDatabase={db}\n")
        if pg:
            f.write(f"[pg_direct]\nDriver=PostgreSQL Unicode\nServername=127.0.0.1\nPort={pg.port}\n"
                    f"Database={pg_cluster.DATABASE}\nUsername={pg_cluster.ROLE}\n")


def prepare(backend):
    target = "direct" if backend == "sqlite" else "pg_direct"
    CONNECT.update(direct="DSN=" + target, target=target)
    padded = "printf('%08d', n)" if backend == "sqlite" else "lpad(n::text, 8, '0')"
    double = "real" if backend == "sqlite" else "double precision"
    conn = pyodbc.connect(CONNECT["direct"])
    conn.execute(f"create table if not exists big(id integer primary key, a integer, b {double}, c text, d text)")
    conn.execute("delete from big")
    conn.execute("insert into big with recursive s(n) as (select 1 union all select n + 1 from s "
                 f"where n < 100000) select n, n * 3, n / 7.0, 'row ' || n, {padded} from s")
    conn.execute(f"create table if not exists sink(a integer, b text, c {double})")
    conn.commit()
    conn.close()


ROWS = [(i, f"name {i}", i * 0.5) for i in range(10000)]


def op_select_one(conn):
    cur = conn.cursor()
    start = time.perf_counter()
    for _ in range(2000):
        cur.execute("SELECT 1").fetchone()
    return (time.perf_counter() - start) / 2000 * 1e6, "µs"


def op_fetchall(conn):
    cur = conn.cursor()
    start = time.perf_counter()
    rows = cur.execute("select * from big").fetchall()
    return len(rows) / (time.perf_counter() - start) / 1000, "k rows/s"


def executemany(conn, fast):
    cur = conn.cursor()
    cur.fast_executemany = fast
    cur.execute("delete from sink")
    conn.commit()
    start = time.perf_counter()
    cur.executemany("insert into sink values (?, ?, ?)", ROWS)
    conn.commit()
    return len(ROWS) / (time.perf_counter() - start) / 1000, "k rows/s"


def op_connect(dsn):
    start = time.perf_counter()
    for _ in range(20):
        pyodbc.connect(CONNECT[dsn]).close()
    return (time.perf_counter() - start) / 20 * 1000, "ms"


def run(op, dsn, fast=False):
    if op == "connect + close":
        return op_connect(dsn)
    conn = pyodbc.connect(CONNECT[dsn])
    try:
        if op == "SELECT 1 + fetchone":
            return op_select_one(conn)
        if op == "fetchall 100k x 5":
            return op_fetchall(conn)
        return executemany(conn, fast)
    finally:
        conn.close()


def round_trips(op, fast=False):
    """Bridged calls for one operation, counted by a process of its own."""
    out = subprocess.run([sys.executable, os.path.abspath(__file__), args.driver, args.server, "--count", op,
                          str(int(fast)), CONNECT["bridge"]], capture_output=True, text=True, timeout=600,
                         env=dict(os.environ, ZEPHODBC_CALL_LOG=calls_log), check=True)
    return int(out.stdout)


def count_round_trips(op, fast=False):
    """Bridged calls for one operation (after the connection is open)."""
    conn = pyodbc.connect(CONNECT["bridge"])
    cur = conn.cursor()
    cur.fast_executemany = fast
    if op == "SELECT 1 + fetchone":  # the timed loop repeats it: count a repeat
        cur.execute("SELECT 1").fetchone()
    open(calls_log, "w").close()
    if op == "SELECT 1 + fetchone":
        cur.execute("SELECT 1").fetchone()
    elif op == "fetchall 100k x 5":
        cur.execute("select * from big").fetchall()
    elif op.startswith("executemany"):
        cur.executemany("insert into sink values (?, ?, ?)", ROWS)
        conn.rollback()
    n = sum(1 for _ in open(calls_log))
    conn.close()
    if op == "connect + close":
        open(calls_log, "w").close()
        pyodbc.connect(CONNECT["bridge"]).close()
        n = sum(1 for _ in open(calls_log))
    return n


OPS = [("SELECT 1 + fetchone", False), ("fetchall 100k x 5", False), ("executemany 10k", False),
       ("executemany 10k, fast", True), ("connect + close", False)]


def main():
    pg = None
    if args.backend != "sqlite":
        pg, missing = pg_cluster.start()
        if pg is None:
            print("PostgreSQL:", missing)
    write_dsns(pg)
    try:
        for backend in ("sqlite", "postgresql"):
            if args.backend in (backend, "both") and (backend == "sqlite" or pg):
                bench(backend)
    finally:
        if pg:
            pg.stop()
    print("ratio: bridged / direct (times: above 1 is slower; rates: below 1 is slower)")
    shutil.rmtree(work, ignore_errors=True)


def bench(backend):
    prepare(backend)
    print(f"--- {backend}")
    print(f"{'operation':26} {'placement':14} {'direct':>12} {'bridged':>12} {'ratio':>7} {'round trips':>12}")
    # psqlODBC describes text parameters with size 0, which pyodbc's
    # parameter arrays cannot bind (directly or bridged).
    ops = [o for o in OPS if backend == "sqlite" or not o[1]]
    for server_cpu in (0, 1):
        placement = "same CPU" if server_cpu == 0 else "two CPUs"
        os.sched_setaffinity(0, {0})
        server = start_server(server_cpu)
        try:
            for op, fast in ops:
                direct, bridged = [], []
                for _ in range(args.repeat):
                    # The SQLite driver crashes on parameter arrays: the fast
                    # path's direct baseline is the default path.
                    value, unit = run(op, "direct", fast=False)
                    direct.append(value)
                    bridged.append(run(op, "bridge", fast)[0])
                d, b = statistics.median(direct), statistics.median(bridged)
                ratio = b / d if unit in ("µs", "ms") else b / d
                trips = round_trips(op, fast)
                per = f"{trips / 10000:g}/row" if op.startswith("executemany") else (
                    f"{trips / 100000:g}/row" if op.startswith("fetchall") else str(trips))
                print(f"{op:26} {placement:14} {d:9.2f} {unit:<3}{b:9.2f} {unit:<3}{ratio:6.2f} {per:>12}",
                      flush=True)
        finally:
            server.terminate()
            server.wait(timeout=10)
            server.stdout.close()


if __name__ == "__main__":
    if args.count:
        CONNECT["bridge"] = args.count[2]
        print(count_round_trips(args.count[0], args.count[1] == "1"))
    else:
        main()
