"""Many clients at once through one zephodbc-server: each a process of its
own running a seeded mix of reads, parameterised inserts and updates in
transactions, and catalog calls, checking every result as it goes. Used by
the load tests and by the soak in bench/."""
import multiprocessing
import queue
import random
import time

import pyodbc

ITEMS = 100


def prepare(conn, clients):
    cur = conn.cursor()
    for table in ("load_items", "load_counters", "load_log"):
        try:
            cur.execute(f"drop table {table}")
            conn.commit()
        except pyodbc.Error:
            conn.rollback()
    cur.execute("create table load_items(k integer primary key, v varchar(40))")
    cur.execute("create table load_counters(client integer primary key, n integer)")
    cur.execute("create table load_log(client integer, seq integer)")
    cur.executemany("insert into load_items values (?, ?)", [(k, f"item {k}") for k in range(ITEMS)])
    cur.executemany("insert into load_counters values (?, 0)", [(c,) for c in range(clients)])
    conn.commit()


def _busy(error):
    text = str(error).lower()
    return "locked" in text or "busy" in text


def _connect(connect_string, stats):
    """Connects; a server child lost during the connect (08S01) is retried."""
    for attempt in range(5):
        try:
            # Reads outside transactions: a reader must not hold SQLite's lock.
            return pyodbc.connect(connect_string, ansi=True, autocommit=True)
        except pyodbc.Error as e:
            if e.args[0] != "08S01" or attempt == 4:
                raise
            stats["reconnects"] += 1
            time.sleep(0.1)


def _rollback(conn):
    """Ends a failed transaction; False when even that fails."""
    for _ in range(5):
        try:
            conn.rollback()
            conn.autocommit = True
            return True
        except pyodbc.Error:
            time.sleep(0.05)
    return False


def _counts(number):
    return {"client": number, "reads": 0, "committed": 0, "uncertain": 0, "catalog": 0,
            "busy": 0, "reconnects": 0, "errors": []}


def client(connect_string, number, queries, seed, results):
    """One client process: returns its counts through the results queue,
    whatever happens."""
    stats = _counts(number)
    try:
        _run_client(connect_string, number, queries, random.Random(seed), stats)
    except Exception as e:  # reported, never lost with the process
        stats["errors"].append(f"gave up: {e!r}")
    results.put(stats)


def _run_client(connect_string, number, queries, rng, stats):
    conn = _connect(connect_string, stats)
    for seq in range(queries):
        kind = rng.random()
        committing = False
        try:
            cur = conn.cursor()
            if kind < 0.5:
                k = rng.randrange(ITEMS)
                value = cur.execute("select v from load_items where k = ?", k).fetchone()[0]
                if value != f"item {k}":
                    stats["errors"].append(f"read {k}: {value!r}")
                stats["reads"] += 1
            elif kind < 0.9:
                conn.autocommit = False
                cur.execute("insert into load_log values (?, ?)", number, seq)
                cur.execute("update load_counters set n = n + 1 where client = ?", number)
                committing = True
                conn.commit()
                stats["committed"] += 1
                conn.autocommit = True
            else:
                rows = cur.tables(table="load_items").fetchall()
                if len(rows) != 1:
                    stats["errors"].append(f"tables: {len(rows)} rows")
                stats["catalog"] += 1
            cur.close()
        except pyodbc.Error as e:
            if e.args[0] == "08S01":  # the server's side went away: start again
                stats["uncertain"] += committing
                stats["reconnects"] += 1
                try:
                    conn.close()
                except pyodbc.Error:
                    pass
                conn = _connect(connect_string, stats)
            elif _busy(e):
                stats["busy"] += 1
                if not _rollback(conn):
                    stats["errors"].append(f"{seq}: no rollback after {e}")
            else:
                stats["errors"].append(f"{seq}: {e}")
                _rollback(conn)
    conn.close()


def run(connect_string, clients, queries, seed=1, during=None):
    """Runs the clients at once; `during(processes)` runs meanwhile. Returns
    every client's counts and the seconds taken."""
    ctx = multiprocessing.get_context("fork")
    results = ctx.Queue()
    procs = [ctx.Process(target=client, args=(connect_string, n, queries, seed * 1000 + n, results))
             for n in range(clients)]
    start = time.monotonic()
    for p in procs:
        p.start()
    if during:
        during(procs)
    stats = []
    deadline = time.monotonic() + 600
    while len(stats) < len(procs) and time.monotonic() < deadline:
        try:
            stats.append(results.get(timeout=1))
        except queue.Empty:
            if not any(p.is_alive() for p in procs) and results.empty():
                break  # a client died without reporting: its number is missing
    for p in procs:
        p.join(timeout=60)
        if p.is_alive():
            p.kill()
    reported = {s["client"] for s in stats}
    stats += [dict(_counts(n), errors=["never reported"]) for n in range(clients) if n not in reported]
    return sorted(stats, key=lambda s: s["client"]), time.monotonic() - start


def check(conn, stats, queries):
    """Every client's rows are its own and as many as it committed (a commit
    cut off by a lost connection may or may not have landed)."""
    problems = []
    cur = conn.cursor()
    counters = dict(cur.execute("select client, n from load_counters").fetchall())
    for s in stats:
        n = s["client"]
        seqs = [r[0] for r in cur.execute("select seq from load_log where client = ?", n).fetchall()]
        low, high = s["committed"], s["committed"] + s["uncertain"]
        if not low <= len(seqs) <= high or counters.get(n) != len(seqs):
            problems.append(f"client {n}: {len(seqs)} rows, counter {counters.get(n)}, committed {low}..{high}")
        if len(set(seqs)) != len(seqs) or any(not 0 <= q < queries for q in seqs):
            problems.append(f"client {n}: sequence numbers not its own")
        problems += [f"client {n}: {e}" for e in s["errors"]]
    return problems
