"""unixODBC's connection pooling in front of the bridge: a pooled connection
is reused, and one whose server side went away is detected and replaced
instead of being handed out dead."""
import os
import signal
import subprocess
import sys
import tempfile
import textwrap

from conftest import DRIVER, Server, sqlite_driver, wait_until

# The client runs in a process of its own: pooling is set up before the
# driver manager's first connection, which this test session made long ago.
CLIENT = textwrap.dedent("""
    import os, sys, pyodbc
    pyodbc.pooling = True
    connect_string = sys.argv[1]

    def query():
        conn = pyodbc.connect(connect_string, ansi=True)
        value = conn.cursor().execute("select 40 + 2").fetchone()[0]
        conn.close()  # back to the pool
        return value

    print(query(), flush=True)
    sys.stdin.readline()  # the test kills the server's side meanwhile
    print(query(), flush=True)
    sys.stdin.readline()
""")


def test_a_pooled_connection_the_server_dropped_is_replaced(setup):
    server = Server()
    config = tempfile.mkdtemp(prefix="zephodbc-pool-")
    with open(os.path.join(config, "odbcinst.ini"), "w") as f:
        f.write(f"[ODBC]\nPooling=Yes\n\n[SQLite3]\nDriver={sqlite_driver()}\n\n"
                f"[zephodbc]\nDriver={DRIVER}\nCPTimeout=120\n")
    env = dict(os.environ, ODBCSYSINI=config)
    client = subprocess.Popen([sys.executable, "-c", CLIENT, setup.bridge_string(PORT=server.port)],
                              stdin=subprocess.PIPE, stdout=subprocess.PIPE, env=env, text=True)
    try:
        assert client.stdout.readline().strip() == "42"
        # Closed by the application, the connection stays open in the pool.
        assert wait_until(lambda: len(server.children()) == 1)
        pooled = server.children()[0]
        os.kill(pooled, signal.SIGKILL)
        assert wait_until(lambda: not server.children())
        client.stdin.write("\n")
        client.stdin.flush()
        assert client.stdout.readline().strip() == "42"  # a fresh connection, not the dead one
        assert len(server.children()) == 1 and server.children()[0] != pooled
        client.stdin.write("\n")
        client.stdin.flush()
        assert client.wait(timeout=30) == 0
    finally:
        if client.poll() is None:
            client.kill()
            client.wait(timeout=10)
        server.stop()
