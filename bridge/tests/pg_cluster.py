"""A throwaway PostgreSQL cluster of the tests' own: initdb and pg_ctl run as
the postgres user (through runuser) on a temporary directory, listening on
127.0.0.1 at a free port. Never a system cluster; stopped and deleted by
stop(), which every exit path of the session reaches. A session that
crashed cannot: the next one stops the clusters whose owner is gone."""
import glob
import os
import pwd
import shutil
import socket
import subprocess
import tempfile

DATABASE = "zephodbc"
ROLE = "zephodbc"


def odbc_driver():
    """psqlODBC's Unicode driver, or None."""
    found = glob.glob("/usr/lib/*/odbc/psqlodbcw.so") + glob.glob("/usr/lib/odbc/psqlodbcw.so")
    return found[0] if found else None


def _bin_dir():
    found = sorted(glob.glob("/usr/lib/postgresql/*/bin/initdb"))
    return os.path.dirname(found[-1]) if found else None


def _free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class PgCluster:
    def __init__(self, bin_dir, user):
        self.bin = bin_dir
        self.dir = tempfile.mkdtemp(prefix="zephodbc-pg-")
        self.data = os.path.join(self.dir, "data")
        self.port = _free_port()
        os.chown(self.dir, user.pw_uid, user.pw_gid)
        with open(os.path.join(self.dir, "owner"), "w") as f:
            f.write(str(os.getpid()))
        self._run("initdb", "-D", self.data, "-A", "trust", "-U", "postgres", "-E", "UTF8",
                  "--locale=C.UTF-8")
        options = f"-p {self.port} -k {self.dir} -c listen_addresses=127.0.0.1 -c fsync=off"
        self._run("pg_ctl", "-D", self.data, "-o", options, "-w", "-t", "30", "-l",
                  os.path.join(self.dir, "log"), "start")
        self._sql(f"create role {ROLE} login superuser")
        self._sql(f"create database {DATABASE} owner {ROLE}")

    def _run(self, program, *args):
        # Not the sanitizer runtime the tests may preload into their clients.
        env = {k: v for k, v in os.environ.items() if k not in ("LD_PRELOAD", "ASAN_OPTIONS")}
        subprocess.run(["runuser", "-u", "postgres", "--", os.path.join(self.bin, program), *args],
                       check=True, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, timeout=60,
                       cwd=self.dir, env=env)

    def _sql(self, statement):
        self._run("psql", "-h", "127.0.0.1", "-p", str(self.port), "-U", "postgres", "-d",
                  "postgres", "-v", "ON_ERROR_STOP=1", "-c", statement)

    def stop(self):
        try:
            self._run("pg_ctl", "-D", self.data, "-m", "immediate", "-w", "-t", "30", "stop")
        except (subprocess.SubprocessError, OSError):
            pass
        shutil.rmtree(self.dir, ignore_errors=True)


def _stop_orphans(bin_dir):
    for owner in glob.glob(os.path.join(tempfile.gettempdir(), "zephodbc-pg-*", "owner")):
        try:
            with open(owner) as f:
                os.kill(int(f.read()), 0)
            continue  # its session still runs
        except ProcessLookupError:
            pass
        except (OSError, ValueError):
            continue
        orphan = PgCluster.__new__(PgCluster)
        orphan.bin, orphan.dir = bin_dir, os.path.dirname(owner)
        orphan.data = os.path.join(orphan.dir, "data")
        orphan.stop()


def start():
    """A running cluster, or the reason there is none."""
    bin_dir = _bin_dir()
    if bin_dir is None or odbc_driver() is None:
        return None, "postgresql and odbc-postgresql are not installed"
    if os.geteuid() != 0 or shutil.which("runuser") is None:
        return None, "starting a cluster as the postgres user needs root (runuser)"
    try:
        user = pwd.getpwnam("postgres")
    except KeyError:
        return None, "there is no postgres user"
    _stop_orphans(bin_dir)
    return PgCluster(bin_dir, user), None
