"""Round trips are a bridge's cost: calls the driver can answer from what it
already knows must not reach the server. Counted with ZEPHODBC_CALL_LOG in a
client process of its own (the driver reads the variable once)."""
import json
import os
import subprocess
import sys
import tempfile

CLIENT = r"""
import json, sys, pyodbc
pyodbc.pooling = False
log = sys.argv[2]
def calls():
    with open(log) as f:
        return [line.strip() for line in f]
def mark():
    open(log, "w").close()
conn = pyodbc.connect(sys.argv[1])
cur = conn.cursor()
cur.execute("create table rt(a integer, b text, c real)")
cur.executemany("insert into rt values (?, ?, ?)", [(i, str(i), i / 2) for i in range(3)])
conn.commit()
out = {}
mark(); cur.execute("select 1").fetchone(); out["select 1, first"] = calls()
mark(); cur.execute("select 1").fetchone(); out["select 1, reused cursor"] = calls()
mark(); conn.cursor().execute("select 1").fetchone(); out["select 1, fresh cursor"] = calls()
mark(); conn.cursor().execute("select 1").fetchone(); out["select 1, another fresh cursor"] = calls()
mark(); cur.execute("select  1").fetchone(); out["same shape, other text"] = calls()
mark(); cur.execute("select a, b, c from rt").fetchall(); out["3 rows"] = calls()
mark(); cur.execute("select a, b, c from rt").fetchall(); out["3 rows again"] = calls()
mark(); d = cur.execute("select a, b, c from rt").description; out["description"] = calls()
cur.execute("drop table rt")
conn.commit()
mark(); pyodbc.connect(sys.argv[1]).close(); out["connect + close"] = calls()
print(json.dumps(out))
"""


def test_calls_the_driver_answers_itself_make_no_round_trip(setup):
    with tempfile.NamedTemporaryFile() as log:
        env = dict(os.environ, ZEPHODBC_CALL_LOG=log.name)
        out = subprocess.run([sys.executable, "-c", CLIENT, setup.bridge_string(), log.name],
                             capture_output=True, text=True, env=env, timeout=60)
    assert out.returncode == 0, out.stderr
    calls = json.loads(out.stdout)
    # Execute brings the column descriptions, row count and SQL_DESC_UNSIGNED;
    # the cursor close before a re-execute travels with the execute. A first
    # row is read live; the fetch after it brings the remaining rows read the
    # same way. A statement text that opened a result before gets its rows
    # with the execute, read as its first row was; a result of a shape read
    # before (from another text) gets them with the first fetch.
    assert calls["select 1, first"] == ["zb_execute", "zb_fetch", "zb_get_data"]
    assert calls["select 1, reused cursor"] == ["zb_execute"]
    # A freed statement goes back to the connection's spares, unclosed: the
    # next cursor takes it, and its execute carries the close.
    assert calls["select 1, fresh cursor"] == ["zb_alloc_stmt", "zb_execute"]
    assert calls["select 1, another fresh cursor"] == ["zb_execute"]
    assert calls["same shape, other text"] == ["zb_execute", "zb_fetch"]
    assert calls["description"] == ["zb_execute"]
    assert calls["3 rows"] == ["zb_execute", "zb_fetch"] + ["zb_get_data"] * 3 + ["zb_fetch"]
    assert calls["3 rows again"] == ["zb_execute"]
    # The connect brings the information pyodbc asks next; what is left is
    # its autocommit setting and the rollback before closing.
    assert calls["connect + close"] == ["zb_connect", "zb_set_connect_attr", "zb_end_tran", "zb_disconnect"]


def test_isql_repeating_a_query_makes_three_round_trips(setup):
    """isql prepares, executes, reads 3 rows of 9 columns with their
    attributes and asks for more results; a statement it frees in a clean
    state is reused for the next one."""
    query = ("with recursive s(n) as (select 1 union all select n + 1 from s where n < 3) "
             "select n, n * 2, n * 3, 'a' || n, 'b' || n, n / 2.0, n % 2, null, 'c' from s")
    with tempfile.NamedTemporaryFile() as log:
        env = dict(os.environ, ZEPHODBC_CALL_LOG=log.name)
        out = subprocess.run(["isql", "-b", "bridge"], input=f"{query}\n{query}\n", capture_output=True,
                             text=True, env=env, timeout=60)
        calls = [line.strip() for line in open(log.name)]
    assert out.returncode == 0, out.stderr
    assert out.stdout.count("3 rows fetched") == 2
    second = calls[calls.index("zb_more_results") + 1:]
    assert second == ["zb_prepare", "zb_execute", "zb_more_results", "zb_disconnect"]
