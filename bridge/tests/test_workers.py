"""Server children serve one client after another: nothing of a client's
session reaches the next one, an idle worker that dies is replaced, and only
a few wait idle."""
import os
import signal

import pyodbc

from conftest import Server, wait_until


def serving_and_idle(server):
    return server.children(), server.children("idle")


def test_the_next_client_of_a_worker_starts_afresh(setup):
    server = Server()
    try:
        first = pyodbc.connect(setup.bridge_string(PORT=server.port))
        (worker,) = server.children()
        cur = first.cursor()
        cur.execute("create temp table scratch(v integer)")
        cur.execute("create table if not exists worker_tx(v integer)")
        first.commit()
        cur.execute("insert into worker_tx values (1)")
        first.close()  # uncommitted
        assert wait_until(lambda: serving_and_idle(server) == ([], [worker]))

        second = pyodbc.connect(setup.bridge_string(PORT=server.port))
        assert server.children() == [worker]
        cur = second.cursor()
        assert cur.execute("select count(*) from worker_tx").fetchone()[0] == 0
        try:
            cur.execute("select * from scratch")
            raise AssertionError("the first client's temporary table outlived it")
        except pyodbc.Error:
            pass
        cur.execute("drop table worker_tx")
        second.commit()
        second.close()
    finally:
        server.stop()


def test_an_idle_worker_that_died_is_replaced(setup):
    server = Server()
    try:
        pyodbc.connect(setup.bridge_string(PORT=server.port)).close()
        assert wait_until(lambda: len(server.children("idle")) == 1)
        (idle,) = server.children("idle")
        os.kill(idle, signal.SIGKILL)
        conn = pyodbc.connect(setup.bridge_string(PORT=server.port))
        assert conn.cursor().execute("select 40 + 2").fetchone()[0] == 42
        assert idle not in server.children()
        conn.close()
    finally:
        server.stop()


def test_few_workers_wait_idle(setup):
    server = Server()
    try:
        conns = [pyodbc.connect(setup.bridge_string(PORT=server.port)) for _ in range(7)]
        assert len(server.children()) == 7
        for conn in conns:
            conn.close()
        assert wait_until(lambda: not server.children())
        assert wait_until(lambda: len(server.children("idle")) == 4)
    finally:
        server.stop()


def test_a_worker_retires_after_200_clients(setup):
    server = Server()
    try:
        def serve_one():
            conn = pyodbc.connect(setup.bridge_string(PORT=server.port))
            (serving,) = server.children()
            conn.close()
            assert wait_until(lambda: not server.children())
            return serving

        first = {serve_one() for _ in range(200)}
        assert len(first) == 1
        assert wait_until(lambda: not server.children("idle"))  # it has gone
        assert serve_one() not in first
    finally:
        server.stop()
