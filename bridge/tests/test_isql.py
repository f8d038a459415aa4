"""isql, an ODBC 2 application, gives the same batch output directly and
through the bridge."""
import subprocess

import pytest

SESSIONS = {
    "types": [
        "create table isql_kinds(i integer primary key, r real, t text, b blob, d date)",
        "insert into isql_kinds values (1, 1.5, 'h\u00e9llo', x'00ff', '2024-02-29')",
        "insert into isql_kinds values (2, NULL, NULL, NULL, NULL)",
        "insert into isql_kinds values (3, -2.25e10, 'three', x'', '1999-12-31')",
        "select * from isql_kinds order by i",
        "select count(*), sum(r), max(t) from isql_kinds",
        "update isql_kinds set t = 'x' where i > 1",
        "delete from isql_kinds where i = 3",
        "select i, t from isql_kinds",
    ],
    "errors": [
        "create table isql_u(k integer primary key)",
        "insert into isql_u values (1)",
        "insert into isql_u values (1)",
        "selec nothing",
        "select * from isql_nowhere",
        "select k from isql_u",
    ],
}


def run_isql(dsn, lines, *flags):
    result = subprocess.run(["isql", "-b", *flags, dsn], input="\n".join(lines) + "\n",
                            capture_output=True, text=True, timeout=60)
    return result.returncode, result.stdout, result.stderr


@pytest.mark.parametrize("name", SESSIONS)
@pytest.mark.parametrize("flags", [(), ("-v",), ("-c", "-d|")], ids=["plain", "verbose", "delimited"])
def test_isql_batch_output_is_identical(setup, name, flags):
    direct = run_isql("direct", SESSIONS[name], *flags)
    run_isql("direct", [f"drop table isql_{t}" for t in ("kinds", "u")])
    bridged = run_isql("bridge", SESSIONS[name], *flags)
    run_isql("direct", [f"drop table isql_{t}" for t in ("kinds", "u")])
    assert bridged == direct


def test_isql_catalog_listing(setup):
    run_isql("direct", ["create table isql_listed(a integer, b text)"])
    try:
        for line in (["help"], ["help isql_listed"]):
            assert run_isql("bridge", line) == run_isql("direct", line)
    finally:
        run_isql("direct", ["drop table isql_listed"])
