"""Real clients against SQLite, directly and through the bridge.

Every test gets its own ODBC configuration (ODBCSYSINI/ODBCINI in a temporary
directory) with two data sources over the same database file: "direct", the
SQLite ODBC driver in-process, and "bridge", the bridge driver reaching the
same DSN through a zephodbc-server started here on a free loopback port.
"""
import ctypes
import glob
import os
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time

import pytest

DRIVER = os.environ["ZEPHODBC_DRIVER"]
SERVER = os.environ["ZEPHODBC_SERVER"]
# The sanitizer build: its runtime is preloaded into every client.
SANITIZED = "LD_PRELOAD" in os.environ

_config_dir = tempfile.mkdtemp(prefix="zephodbc-test-")
os.environ["ODBCSYSINI"] = _config_dir
os.environ["ODBCINI"] = os.path.join(_config_dir, "odbc.ini")

import pyodbc  # noqa: E402  (after the configuration is in place)

import pg_cluster  # noqa: E402

pyodbc.pooling = False


def sqlite_driver():
    for pattern in ("/usr/lib/*/odbc/libsqlite3odbc.so", "/usr/lib/odbc/libsqlite3odbc.so",
                    "/usr/local/lib/libsqlite3odbc.so"):
        found = glob.glob(pattern)
        if found:
            return found[0]
    pytest.exit("the SQLite ODBC driver (libsqliteodbc) is not installed", 2)


_libc = ctypes.CDLL(None, use_errno=True)
PR_SET_PDEATHSIG = 1


def _die_with_parent():
    # Should this test process die before its fixtures stop the server (a
    # crash, a kill), the server is told to stop too.
    _libc.prctl(PR_SET_PDEATHSIG, signal.SIGTERM)


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def wait_until(predicate, seconds=15):
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline:
        if predicate():
            return True
        time.sleep(0.05)
    return predicate()


class Server:
    """A zephodbc-server process; stopped (with its children) by stop()."""

    def __init__(self, *extra):
        self.log = tempfile.TemporaryFile(mode="w+")
        env = dict(os.environ)
        if SANITIZED:  # the server is ours: check it for leaks too
            env["ASAN_OPTIONS"] = "detect_leaks=1:abort_on_error=0"
        self.proc = subprocess.Popen(
            [SERVER, "--listen", "127.0.0.1:0", *extra],
            stdout=subprocess.PIPE, stderr=self.log, text=True,
            start_new_session=True, env=env, preexec_fn=_die_with_parent)
        line = self.proc.stdout.readline()
        if "listening on" not in line:
            self.stop()
            raise RuntimeError("server did not start: " + line)
        self.port = int(line.rsplit(":", 1)[1])

    def children(self, state="serving"):
        """Live (not yet reaped) children of the server, read from /proc:
        those serving a client, or (state="idle") workers waiting for one."""
        found = []
        for entry in os.listdir("/proc"):
            if not entry.isdigit():
                continue
            try:
                with open(f"/proc/{entry}/stat") as f:
                    name, fields = f.read().split(" (", 1)[1].rsplit(")", 1)
            except OSError:
                continue
            fields = fields.split()
            idle = name == "zephodbc-idle"
            if int(fields[1]) == self.proc.pid and fields[0] != "Z" and idle == (state == "idle"):
                found.append(int(entry))
        return found

    def stop(self):
        if self.proc.poll() is None:
            self.proc.send_signal(signal.SIGTERM)
            try:
                self.proc.wait(timeout=10)
            except subprocess.TimeoutExpired:
                os.killpg(self.proc.pid, signal.SIGKILL)
                self.proc.wait(timeout=10)
        self.proc.stdout.close()
        self.log.seek(0)
        text = self.log.read()
        self.log.close()
        # The sanitizer build reports into the server's standard error.
        for marker in ("ERROR: AddressSanitizer", "runtime error:", "ERROR: LeakSanitizer"):
            assert marker not in text, text


class Setup:
    """The configuration files, the database and the server of one test."""

    current = None  # the session's, for failure reports

    def __init__(self, directory):
        Setup.current = self
        self.dir = directory
        self.db = os.path.join(directory, "test.db")
        self.server = Server()
        # PostgreSQL behind the bridge too, when this machine can run a cluster.
        self.pg, self.pg_missing = pg_cluster.start()
        with open(os.path.join(_config_dir, "odbcinst.ini"), "w") as f:
            f.write(f"[SQLite3]\nDriver={sqlite_driver()}\n\n[zephodbc]\nDriver={DRIVER}\n")
            if self.pg:
                f.write(f"\n[PostgreSQL Unicode]\nDriver={pg_cluster.odbc_driver()}\n")
        self.write_dsns()

    def write_dsns(self, port=None):
        with open(os.environ["ODBCINI"], "w") as f:
            f.write(f"[direct]\nDriver=SQLite3\nDatabase={self.db}\nTimeout=2000\n\n")
            f.write(f"[bridge]\nDriver=zephodbc\nServer=127.0.0.1\n"
                    f"Port={port or self.server.port}\nTargetDSN=direct\nTimeout=20\n")
            if self.pg:
                f.write(f"\n[pg_direct]\nDriver=PostgreSQL Unicode\nServername=127.0.0.1\n"
                        f"Port={self.pg.port}\nDatabase={pg_cluster.DATABASE}\n"
                        f"Username={pg_cluster.ROLE}\n")
                f.write(f"\n[pg_bridge]\nDriver=zephodbc\nServer=127.0.0.1\n"
                        f"Port={port or self.server.port}\nTargetDSN=pg_direct\nTimeout=20\n")

    def connect(self, kind, **kw):
        return pyodbc.connect("DSN=" + kind, **kw)

    def bridge_string(self, **extra):
        parts = {"DRIVER": DRIVER, "SERVER": "127.0.0.1", "PORT": str(self.server.port),
                 "TARGETDSN": "direct", "TIMEOUT": "20", **extra}
        return ";".join(f"{k}={v}" for k, v in parts.items())


@pytest.fixture(scope="session")
def setup():
    # One configuration for the whole run: the driver manager caches odbc.ini
    # by modification time, so its contents must not change under it. Tests
    # use tables of their own names in the one database.
    directory = tempfile.mkdtemp(prefix="zephodbc-db-")
    s = Setup(directory)
    try:
        yield s
    finally:
        s.server.stop()
        if s.pg:
            s.pg.stop()
    shutil.rmtree(directory, ignore_errors=True)


def pytest_sessionfinish(session, exitstatus):
    shutil.rmtree(_config_dir, ignore_errors=True)


def both(setup, scenario, **kw):
    """Runs scenario(connection) directly and through the bridge; returns both results."""
    results = []
    for kind in ("direct", "bridge"):
        try:
            conn = setup.connect(kind, **kw)
            try:
                results.append(scenario(conn))
            finally:
                conn.close()
        except Exception:
            if kind == "bridge":  # shown with the failure: what the server said
                server = Setup.current.server
                server.log.seek(0)
                sys.stderr.write("server log, last 4 KB:\n" + server.log.read()[-4096:])
            raise
    return results


def outcome(fn):
    """A call's result, or its exception reduced to class, SQLSTATE and text."""
    try:
        return ("ok", fn())
    except pyodbc.Error as e:
        return (type(e).__name__, e.args[0], e.args[1])
