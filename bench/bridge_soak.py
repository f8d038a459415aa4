#!/usr/bin/python3
"""Soak: 32 client processes, each 2,000 mixed queries (reads, parameterised
inserts and updates in transactions, catalog calls), through one
zephodbc-server, against SQLite and (when this machine can run a cluster of
its own, as root) PostgreSQL. Every result is checked. Prints queries per
second, the server children's peak resident memory per connection, and the
parent's resident memory before and after.

  bench/bridge_soak.py DRIVER_SO SERVER_BINARY [--clients N] [--queries N]
"""
import argparse
import os
import shutil
import sys
import tempfile
import threading

parser = argparse.ArgumentParser()
parser.add_argument("driver")
parser.add_argument("server")
parser.add_argument("--clients", type=int, default=32)
parser.add_argument("--queries", type=int, default=2000)
args = parser.parse_args()

os.environ["ZEPHODBC_DRIVER"] = os.path.abspath(args.driver)
os.environ["ZEPHODBC_SERVER"] = os.path.abspath(args.server)
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "bridge", "tests"))

import pyodbc  # noqa: E402
import conftest  # noqa: E402  (the tests' configuration, server and cluster)
import load  # noqa: E402


def status_kib(pid, field):
    try:
        with open(f"/proc/{pid}/status") as f:
            return next(int(line.split()[1]) for line in f if line.startswith(field + ":"))
    except (OSError, StopIteration):
        return 0


def soak(setup, direct_dsn):
    conn = pyodbc.connect("DSN=" + direct_dsn)
    load.prepare(conn, args.clients)
    server = setup.server
    peaks, stop = {}, threading.Event()

    def sample(_):
        while not stop.is_set():
            for child in server.children():
                peaks[child] = max(peaks.get(child, 0), status_kib(child, "VmRSS"))
            stop.wait(0.1)

    before = status_kib(server.proc.pid, "VmRSS")
    sampler = threading.Thread(target=sample, args=(None,))
    sampler.start()
    try:
        stats, seconds = load.run(setup.bridge_string(TARGETDSN=direct_dsn), args.clients, args.queries)
    finally:
        stop.set()
        sampler.join()
    problems = load.check(conn, stats, args.queries)
    conn.close()
    after = status_kib(server.proc.pid, "VmRSS")
    total = args.clients * args.queries
    per_child = sorted(peaks.values())
    print(f"{direct_dsn:10} {total} queries in {seconds:6.1f} s: {total / seconds:8.0f} queries/s; "
          f"child peak RSS median {per_child[len(per_child) // 2] if per_child else 0} KiB "
          f"(max {max(per_child, default=0)}); parent RSS {before} -> {after} KiB; "
          f"{'all results checked' if not problems else problems[:3]}")
    return not problems


setup = conftest.Setup(tempfile.mkdtemp(prefix="zephodbc-soak-"))
ok = True
try:
    ok &= soak(setup, "direct")
    if setup.pg:
        ok &= soak(setup, "pg_direct")
    else:
        print("PostgreSQL:", setup.pg_missing)
finally:
    setup.server.stop()
    if setup.pg:
        setup.pg.stop()
    shutil.rmtree(setup.dir, ignore_errors=True)
    shutil.rmtree(conftest._config_dir, ignore_errors=True)
sys.exit(0 if ok else 1)
