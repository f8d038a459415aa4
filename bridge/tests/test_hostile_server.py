"""A server that lies (lying_server.cpp): the driver runs inside the
application, so whatever a server answers must not write past the
application's buffers. The client runs in a process of its own, so that a
driver writing past them fails the test instead of the suite."""
import os
import subprocess
import sys

from conftest import _die_with_parent

CLIENT = r"""
import sys, pyodbc
conn = pyodbc.connect(sys.argv[1], autocommit=True)
# Every information value comes 16 KiB long.
print(conn.getinfo(pyodbc.SQL_TXN_CAPABLE), conn.getinfo(pyodbc.SQL_DEFAULT_TXN_ISOLATION),
      len(conn.getinfo(pyodbc.SQL_DBMS_NAME)))
"""


def test_values_longer_than_their_type_reach_the_application_cut_to_it(setup):
    server = subprocess.Popen([os.environ["ZEPHODBC_LYING_SERVER"]], stdout=subprocess.PIPE,
                              text=True, preexec_fn=_die_with_parent)
    try:
        port = int(server.stdout.readline())
        out = subprocess.run([sys.executable, "-c", CLIENT, setup.bridge_string(PORT=port)],
                             capture_output=True, text=True, timeout=60)
    finally:
        server.kill()
        server.wait(timeout=10)
        server.stdout.close()
    assert out.returncode == 0, out.stderr
    # 16-bit and 32-bit values of the first bytes ("AA..."); text cut to
    # pyodbc's buffer.
    txn, isolation, name_length = map(int, out.stdout.split())
    assert (txn, isolation) == (0x4141, 0x41414141)
    assert 0 < name_length < 16384
