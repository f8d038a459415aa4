"""Many clients at once through one server, for each backend: every result
checked, nothing lost or mixed between clients, no serving child or descriptor
left behind, the parent's memory flat; then server children killed mid-run."""
import os
import random
import signal
import threading

import pytest

import load
from conftest import Server, wait_until

CLIENTS, QUERIES = 32, 200  # the soak in bench/ runs 2,000 each


@pytest.fixture(params=["sqlite", "postgresql"])
def backend(request, setup):
    if request.param == "postgresql" and setup.pg is None:
        pytest.skip(setup.pg_missing)
    return ("direct", "direct") if request.param == "sqlite" else ("pg_direct", "pg_direct")


def resident_kib(pid):
    with open(f"/proc/{pid}/status") as f:
        return next(int(line.split()[1]) for line in f if line.startswith("VmRSS:"))


def descriptors(pid):
    return len(os.listdir(f"/proc/{pid}/fd"))


def prepared(setup, backend):
    import pyodbc
    conn = pyodbc.connect("DSN=" + backend[0])
    load.prepare(conn, CLIENTS)
    return conn


def test_many_clients_at_once(setup, backend):
    check_conn = prepared(setup, backend)
    server = Server()
    try:
        target = setup.bridge_string(PORT=server.port, TARGETDSN=backend[1])
        load.run(target, 2, 20)  # the parent's first connections size its heap
        load.prepare(check_conn, CLIENTS)
        assert wait_until(lambda: not server.children())
        # The parent holds one descriptor per idle worker (at most 4) besides its own.
        own_fds = lambda: descriptors(server.proc.pid) - len(server.children("idle"))
        rss, fds = resident_kib(server.proc.pid), own_fds()
        stats, _ = load.run(target, CLIENTS, QUERIES)
        assert load.check(check_conn, stats, QUERIES) == []
        assert all(s["reconnects"] == 0 and s["uncertain"] == 0 for s in stats)
        assert sum(s["committed"] for s in stats) > CLIENTS * QUERIES // 4
        assert wait_until(lambda: not server.children())
        assert own_fds() == fds and len(server.children("idle")) <= 4
        assert resident_kib(server.proc.pid) - rss < 2048
    finally:
        check_conn.close()
        server.stop()


def test_children_killed_mid_run_affect_only_their_clients(setup, backend):
    check_conn = prepared(setup, backend)
    server = Server()
    killed = []

    def killer(procs):
        rng = random.Random(7)

        def go():
            for _ in range(4):
                threading.Event().wait(rng.uniform(0.2, 0.6))
                children = server.children()
                if children:
                    victim = rng.choice(children)
                    os.kill(victim, signal.SIGKILL)
                    killed.append(victim)
        thread = threading.Thread(target=go)
        thread.start()
        thread.join()

    try:
        target = setup.bridge_string(PORT=server.port, TARGETDSN=backend[1])
        stats, _ = load.run(target, 16, QUERIES, seed=2, during=killer)
        assert killed
        assert load.check(check_conn, stats, QUERIES) == []
        hit = [s for s in stats if s["reconnects"]]
        assert 1 <= len(hit) <= len(killed)
        assert sum(s["reconnects"] for s in stats) <= len(killed)
        assert wait_until(lambda: not server.children())
    finally:
        check_conn.close()
        server.stop()
