"""Failures a bridge must survive: dead servers, wrong ports, clients killed
mid-transaction, refused data sources."""
import os
import signal
import socket
import subprocess
import sys
import threading

import pyodbc
import pytest

from conftest import DRIVER, SERVER, Server, _die_with_parent, free_port, wait_until

COUNTING = ("with recursive s(n) as (select 1 union all select n + 1 from s where n < 100000) "
            "select n from s")


def state_of(excinfo):
    return excinfo.value.args[0]


def still_serves(setup):
    conn = pyodbc.connect(setup.bridge_string())
    value = conn.cursor().execute("select 41 + 1").fetchone()[0]
    conn.close()
    return value == 42


def test_wrong_port_is_08001(setup):
    with pytest.raises(pyodbc.Error) as e:
        pyodbc.connect(setup.bridge_string(PORT=free_port()))
    assert state_of(e) == "08001"
    assert "Connection refused" in e.value.args[1]


def test_server_killed_mid_fetch_is_08s01(setup):
    server = Server()
    try:
        # No Timeout: only noticing the dead peer can end the fetch.
        conn = pyodbc.connect(setup.bridge_string(PORT=server.port, TIMEOUT=0))
        cur = conn.cursor()
        cur.execute(COUNTING)
        assert [cur.fetchone()[0] for _ in range(3)] == [1, 2, 3]
        for child in server.children():
            os.kill(child, signal.SIGKILL)
        server.proc.kill()
        with pytest.raises(pyodbc.Error) as e:
            cur.fetchall()
        assert state_of(e) == "08S01"
        with pytest.raises(pyodbc.Error) as e:
            conn.cursor().execute("select 1")
        assert state_of(e) == "08S01"
        conn.close()
    finally:
        server.stop()
    assert still_serves(setup)


def test_a_server_that_stops_answering_fails_the_call_after_the_timeout(setup):
    server = Server()
    conn = None
    try:
        conn = pyodbc.connect(setup.bridge_string(PORT=server.port, TIMEOUT=1))
        (child,) = server.children()
        os.kill(child, signal.SIGSTOP)  # alive, connected, silent
        with pytest.raises(pyodbc.Error) as e:
            conn.cursor().execute("select 1")
        assert state_of(e) == "08S01"
        os.kill(child, signal.SIGKILL)
    finally:
        if conn is not None:
            conn.close()
        server.stop()


CLIENT = """
import sys, pyodbc
conn = pyodbc.connect(sys.argv[1])
conn.cursor().execute("insert into fault_tx values (1)")
print("inserted", flush=True)
sys.stdin.read()
"""


def test_client_killed_mid_transaction_leaves_nothing(setup):
    direct = pyodbc.connect("DSN=direct", autocommit=True)
    direct.execute("create table fault_tx(v integer)")
    before = set(setup.server.children())
    client = subprocess.Popen([sys.executable, "-c", CLIENT, setup.bridge_string()],
                              stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
    try:
        assert client.stdout.readline().strip() == "inserted"
        assert len(set(setup.server.children()) - before) == 1
    finally:
        client.kill()
        client.wait(timeout=10)
        client.stdin.close()
        client.stdout.close()
    assert wait_until(lambda: set(setup.server.children()) <= before)
    assert direct.execute("select count(*) from fault_tx").fetchone()[0] == 0
    direct.execute("drop table fault_tx")
    direct.close()
    assert still_serves(setup)


LONG_QUERY_CLIENT = """
import sys, pyodbc
conn = pyodbc.connect(sys.argv[1])
print("connected", flush=True)
conn.cursor().execute("with recursive c(x) as (select 1 union all select x + 1 from c where x < 2000000000) "
                      "select count(*) from c").fetchall()
"""


def cpu_seconds(pid):
    with open(f"/proc/{pid}/stat") as f:
        fields = f.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def test_a_client_killed_mid_query_has_its_query_cancelled(setup):
    # Otherwise the child would go on with a query nobody waits for, for
    # minutes, holding the target and the client's place.
    before = set(setup.server.children())
    client = subprocess.Popen([sys.executable, "-c", LONG_QUERY_CLIENT, setup.bridge_string()],
                              stdout=subprocess.PIPE, text=True)
    try:
        assert client.stdout.readline().strip() == "connected"
        assert wait_until(lambda: len(set(setup.server.children()) - before) == 1)
        child = (set(setup.server.children()) - before).pop()
        assert wait_until(lambda: cpu_seconds(child) > 0.5)  # the query runs
    finally:
        client.kill()
        client.wait(timeout=10)
        client.stdout.close()
    assert wait_until(lambda: set(setup.server.children()) <= before)
    assert still_serves(setup)


def keepalive_seconds(port):
    """Seconds left on the keepalive timers of the established loopback
    sockets whose local port is the given one (None: no such timer)."""
    found = []
    with open("/proc/net/tcp") as f:
        for line in list(f)[1:]:
            fields = line.split()
            local, state, timer = fields[1], fields[3], fields[5]
            if int(local.split(":")[1], 16) == port and state == "01":
                kind, when = timer.split(":")
                found.append(int(when, 16) / os.sysconf("SC_CLK_TCK") if kind == "02" else None)
    return found


def test_an_idle_client_connection_is_probed_within_a_minute(setup):
    # A client whose machine vanishes must not hold its child and the
    # target's transaction for ever: the server's side of each connection
    # probes the peer after a minute of silence (the system default is two hours).
    conn = setup.connect("bridge")
    conn.execute("select 1").fetchall()
    try:
        # Until the client acknowledges the last reply the timer shown is the
        # retransmission one.
        assert wait_until(lambda: None not in keepalive_seconds(setup.server.port), 5)
        timers = keepalive_seconds(setup.server.port)
        assert len(timers) == 1 and 0 < timers[0] <= 60, timers
    finally:
        conn.close()


def test_data_sources_outside_the_allowed_list_are_refused(setup):
    server = Server("--allow-dsn", "elsewhere")
    try:
        with pytest.raises(pyodbc.Error) as e:
            pyodbc.connect(setup.bridge_string(PORT=server.port))
        assert state_of(e) == "08004"
        assert "'direct' is not served here" in e.value.args[1]
    finally:
        server.stop()


def test_inetd_mode_serves_the_connection_on_its_standard_input(setup):
    listener = socket.socket()
    listener.bind(("127.0.0.1", 0))
    listener.listen(1)
    result = {}

    def client():
        try:
            conn = pyodbc.connect(setup.bridge_string(PORT=listener.getsockname()[1]))
            result["value"] = conn.cursor().execute("select 'inetd'").fetchone()[0]
            conn.close()
        except pyodbc.Error as e:
            result["error"] = e

    thread = threading.Thread(target=client)
    thread.start()
    accepted, _ = listener.accept()
    server = subprocess.Popen([SERVER, "--inetd"], stdin=accepted, stderr=subprocess.PIPE,
                              preexec_fn=_die_with_parent)
    accepted.close()
    listener.close()
    thread.join(timeout=30)
    assert server.wait(timeout=30) == 0
    server.stderr.close()
    assert result == {"value": "inetd"}


def test_protocol_version_mismatch_is_08001(setup):
    example = os.environ.get("ZEPHRPC_EXAMPLE_SERVER")
    if not example:
        pytest.skip("the library's example server is not built")
    port = free_port()
    other = subprocess.Popen([example, str(port)], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        assert wait_until(lambda: listening(port))
        # ansi: one connect attempt (pyodbc retries a failed wide one), and
        # the example server takes one client only.
        with pytest.raises(pyodbc.Error) as e:
            pyodbc.connect(setup.bridge_string(PORT=port), ansi=True)
        assert state_of(e) == "08001"
        assert "bridge protocol version mismatch" in e.value.args[1]
    finally:
        other.kill()
        other.wait(timeout=10)


def listening(port):
    """Whether something listens on the loopback port, asked without connecting."""
    with open("/proc/net/tcp") as f:
        return any(line.split()[1].endswith(f":{port:04X}") and line.split()[3] == "0A"
                   for line in list(f)[1:])
