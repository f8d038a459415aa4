"""The server under more clients than it serves: a client limit that refuses
with 08004, connections that never speak, and --inetd under a real socket
activator."""
import os
import shutil
import signal
import socket
import subprocess

import pyodbc
import pytest

from conftest import SERVER, Server, _die_with_parent, free_port, wait_until


def query(setup, port):
    conn = pyodbc.connect(setup.bridge_string(PORT=port), ansi=True)
    try:
        return conn.cursor().execute("select 40 + 2").fetchone()[0]
    finally:
        conn.close()


def test_a_client_beyond_the_limit_is_refused_with_08004_until_one_leaves(setup):
    server = Server("--max-clients", "1")
    try:
        first = pyodbc.connect(setup.bridge_string(PORT=server.port), ansi=True)
        with pytest.raises(pyodbc.Error) as e:
            pyodbc.connect(setup.bridge_string(PORT=server.port), ansi=True)
        assert e.value.args[0] == "08004"
        assert "server busy: 1 clients are connected (--max-clients)" in e.value.args[1]
        first.close()
        assert wait_until(lambda: not server.children())
        assert query(setup, server.port) == 42
    finally:
        server.stop()


def test_connections_that_never_speak_are_cut_off_and_bounded(setup):
    server = Server("--max-clients", "4", "--negotiation-timeout", "1")
    silent = []
    try:
        most = 0
        for _ in range(40):
            s = socket.create_connection(("127.0.0.1", server.port), timeout=5)
            silent.append(s)
            most = max(most, len(server.children()))
        assert most <= 4 + 8  # the serving limit and the few refusers
        # Every child is gone once the negotiation time-out has passed...
        assert wait_until(lambda: not server.children(), seconds=20)
        # ...and the server serves again.
        assert query(setup, server.port) == 42
    finally:
        for s in silent:
            s.close()
        server.stop()


def test_inetd_mode_under_a_socket_activator(setup):
    activator = shutil.which("systemd-socket-activate")
    if activator is None:
        pytest.skip("systemd-socket-activate is not installed")
    port = free_port()
    # The activator hands its children only the environment it is told to.
    passed = [arg for name in ("ODBCINI", "ODBCSYSINI", "LD_PRELOAD", "ASAN_OPTIONS")
              if name in os.environ for arg in ("-E", name)]
    proc = subprocess.Popen(
        [activator, "-l", f"127.0.0.1:{port}", "--accept", "--inetd", *passed, SERVER, "--inetd"],
        stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, start_new_session=True,
        preexec_fn=_die_with_parent)
    try:
        def listening():
            with socket.socket() as s:
                return s.connect_ex(("127.0.0.1", port)) == 0
        # A probe connection is served (and ended) like any other.
        assert wait_until(listening)
        assert [query(setup, port) for _ in range(2)] == [42, 42]  # one server per connection
    finally:
        os.killpg(proc.pid, signal.SIGTERM)
        proc.wait(timeout=10)
        proc.stderr.close()
