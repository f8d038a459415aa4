"""Bound columns fetched in row arrays, column-wise and row-wise, with a
bind offset: the driver writes the application's buffers itself. No Python
client binds columns, so this drives the driver manager through ctypes,
directly and through the bridge, and compares what lands in the buffers."""
import ctypes
import ctypes.util

import pytest

odbc = ctypes.CDLL(ctypes.util.find_library("odbc"))
SQLHANDLE, SQLLEN = ctypes.c_void_p, ctypes.c_int64
SQL_HANDLE_ENV, SQL_HANDLE_DBC, SQL_HANDLE_STMT = 1, 2, 3
SQL_ATTR_ODBC_VERSION, SQL_OV_ODBC3 = 200, 3
SQL_ATTR_ROW_ARRAY_SIZE, SQL_ATTR_ROW_BIND_TYPE, SQL_ATTR_ROW_BIND_OFFSET_PTR = 27, 5, 23
SQL_ATTR_ROWS_FETCHED_PTR, SQL_ATTR_ROW_STATUS_PTR, SQL_ATTR_ROW_NUMBER = 26, 25, 14
SQL_C_SLONG, SQL_C_CHAR, SQL_FETCH_NEXT, SQL_NTS, SQL_NO_DATA = -16, 1, 1, -3, 100
for name in ("SQLSetStmtAttr", "SQLBindCol", "SQLFetch", "SQLGetData", "SQLGetStmtAttr", "SQLExecDirect", "SQLFetchScroll", "SQLSetEnvAttr",
             "SQLDriverConnect", "SQLAllocHandle", "SQLFreeHandle", "SQLDisconnect"):
    getattr(odbc, name).restype = ctypes.c_short
odbc.SQLSetStmtAttr.argtypes = [SQLHANDLE, ctypes.c_int, ctypes.c_void_p, ctypes.c_int]
odbc.SQLBindCol.argtypes = [SQLHANDLE, ctypes.c_ushort, ctypes.c_short, ctypes.c_void_p, SQLLEN, ctypes.c_void_p]
odbc.SQLFetchScroll.argtypes = [SQLHANDLE, ctypes.c_short, SQLLEN]
odbc.SQLFetch.argtypes = [SQLHANDLE]
odbc.SQLGetData.argtypes = [SQLHANDLE, ctypes.c_ushort, ctypes.c_short, ctypes.c_void_p, SQLLEN, ctypes.c_void_p]
odbc.SQLGetStmtAttr.argtypes = [SQLHANDLE, ctypes.c_int, ctypes.c_void_p, ctypes.c_int, ctypes.c_void_p]
odbc.SQLExecDirect.argtypes = [SQLHANDLE, ctypes.c_char_p, ctypes.c_int]
odbc.SQLSetEnvAttr.argtypes = [SQLHANDLE, ctypes.c_int, ctypes.c_void_p, ctypes.c_int]
odbc.SQLAllocHandle.argtypes = [ctypes.c_short, SQLHANDLE, ctypes.POINTER(SQLHANDLE)]
odbc.SQLFreeHandle.argtypes = [ctypes.c_short, SQLHANDLE]
odbc.SQLDisconnect.argtypes = [SQLHANDLE]
odbc.SQLDriverConnect.argtypes = [SQLHANDLE, ctypes.c_void_p, ctypes.c_char_p, ctypes.c_short,
                                  ctypes.c_void_p, ctypes.c_short, ctypes.c_void_p, ctypes.c_ushort]

ROWS, TEXT = 3, 8  # rows per fetch; room for a text value (longer ones are cut)


class Row(ctypes.Structure):  # one row of a row-wise binding
    _fields_ = [("n", ctypes.c_int32), ("n_ind", SQLLEN), ("t", ctypes.c_char * TEXT), ("t_ind", SQLLEN)]


def ok(rc):
    assert rc in (0, 1), rc  # SQL_SUCCESS or SQL_SUCCESS_WITH_INFO
    return rc


def connect(connection_string):
    env, dbc = SQLHANDLE(), SQLHANDLE()
    ok(odbc.SQLAllocHandle(SQL_HANDLE_ENV, None, ctypes.byref(env)))
    ok(odbc.SQLSetEnvAttr(env, SQL_ATTR_ODBC_VERSION, SQL_OV_ODBC3, 0))
    ok(odbc.SQLAllocHandle(SQL_HANDLE_DBC, env, ctypes.byref(dbc)))
    ok(odbc.SQLDriverConnect(dbc, None, connection_string.encode(), SQL_NTS, None, 0, None, 0))
    return env, dbc


def disconnect(env, dbc):
    odbc.SQLDisconnect(dbc)
    odbc.SQLFreeHandle(SQL_HANDLE_DBC, dbc)
    odbc.SQLFreeHandle(SQL_HANDLE_ENV, env)


def fetch_all(connection_string, row_wise, rowset=ROWS, runs=1):
    env, dbc = connect(connection_string)
    out = []
    for _ in range(runs):  # a statement handle per run, binding after each execute
        out += fetch_one_result(dbc, row_wise, rowset)
    disconnect(env, dbc)
    return out


def fetch_one_result(dbc, row_wise, rowset):
    stmt = SQLHANDLE()
    ok(odbc.SQLAllocHandle(SQL_HANDLE_STMT, dbc, ctypes.byref(stmt)))
    ok(odbc.SQLExecDirect(stmt, b"with recursive s(n) as (select 1 union all select n + 1 from s where n < 7) "
                                b"select n, case when n % 3 = 0 then null else 'value number ' || n end from s",
                          SQL_NTS))
    fetched = ctypes.c_uint64()
    status = (ctypes.c_uint16 * ROWS)()
    offset = SQLLEN(0)
    ok(odbc.SQLSetStmtAttr(stmt, SQL_ATTR_ROW_ARRAY_SIZE, rowset, 0))
    ok(odbc.SQLSetStmtAttr(stmt, SQL_ATTR_ROWS_FETCHED_PTR, ctypes.addressof(fetched), 0))
    ok(odbc.SQLSetStmtAttr(stmt, SQL_ATTR_ROW_STATUS_PTR, ctypes.addressof(status), 0))
    if row_wise:
        # Two row arrays; the bind offset moves the binding onto the second.
        rows = (Row * (2 * ROWS))()
        ok(odbc.SQLSetStmtAttr(stmt, SQL_ATTR_ROW_BIND_TYPE, ctypes.sizeof(Row), 0))
        ok(odbc.SQLSetStmtAttr(stmt, SQL_ATTR_ROW_BIND_OFFSET_PTR, ctypes.addressof(offset), 0))
        offset.value = rowset * ctypes.sizeof(Row)
        base = ctypes.addressof(rows)
        ok(odbc.SQLBindCol(stmt, 1, SQL_C_SLONG, base + Row.n.offset, 4, base + Row.n_ind.offset))
        ok(odbc.SQLBindCol(stmt, 2, SQL_C_CHAR, base + Row.t.offset, TEXT, base + Row.t_ind.offset))
        read = lambda i: (rows[rowset + i].n, rows[rowset + i].n_ind, rows[rowset + i].t, rows[rowset + i].t_ind)  # noqa: E731
    else:
        n, n_ind = (ctypes.c_int32 * ROWS)(), (SQLLEN * ROWS)()
        t, t_ind = (ctypes.c_char * (TEXT * ROWS))(), (SQLLEN * ROWS)()
        ok(odbc.SQLBindCol(stmt, 1, SQL_C_SLONG, n, 4, n_ind))
        ok(odbc.SQLBindCol(stmt, 2, SQL_C_CHAR, t, TEXT, t_ind))
        read = lambda i: (n[i], n_ind[i], t[i * TEXT:(i + 1) * TEXT].split(b"\0")[0], t_ind[i])  # noqa: E731
    out = []
    while True:
        rc = odbc.SQLFetchScroll(stmt, SQL_FETCH_NEXT, 0)
        if rc == SQL_NO_DATA:
            break
        ok(rc)
        out.append((rc, fetched.value, [status[i] for i in range(fetched.value)],
                    [read(i) for i in range(fetched.value)]))
    odbc.SQLFreeHandle(SQL_HANDLE_STMT, stmt)
    return out


@pytest.mark.parametrize("row_wise", [False, True], ids=["column-wise", "row-wise with offset"])
def test_bound_row_arrays_fill_the_same_buffers(setup, row_wise):
    direct = fetch_all("DSN=direct", row_wise)
    bridged = fetch_all(setup.bridge_string(), row_wise)
    assert bridged == direct
    assert [len(batch[3]) for batch in direct] == [3, 3, 1]
    assert direct[0][0] == 1  # text cut to the buffer: SQL_SUCCESS_WITH_INFO


@pytest.mark.parametrize("row_wise", [False, True], ids=["column-wise", "row-wise with offset"])
def test_one_row_fetches_into_bound_columns_read_ahead(setup, row_wise):
    """One row per fetch: rows after the first arrive read ahead, filled for
    the bound columns; the same text run again binds after its execute."""
    direct = fetch_all("DSN=direct", row_wise, rowset=1, runs=2)
    bridged = fetch_all(setup.bridge_string(), row_wise, rowset=1, runs=2)
    assert bridged == direct
    assert len(direct) == 14


def read_with_row_numbers(connection_string):
    """Row by row with SQLGetData, asking SQL_ATTR_ROW_NUMBER at each row."""
    env, dbc = connect(connection_string)
    stmt = SQLHANDLE()
    ok(odbc.SQLAllocHandle(SQL_HANDLE_STMT, dbc, ctypes.byref(stmt)))
    ok(odbc.SQLExecDirect(stmt, b"with recursive s(n) as (select 1 union all select n + 1 from s where n < 7) "
                                b"select n from s", SQL_NTS))
    out = []
    value, ind, number = ctypes.c_int32(), SQLLEN(), ctypes.c_uint64()
    while odbc.SQLFetch(stmt) != SQL_NO_DATA:
        ok(odbc.SQLGetData(stmt, 1, SQL_C_SLONG, ctypes.byref(value), 4, ctypes.byref(ind)))
        ok(odbc.SQLGetStmtAttr(stmt, SQL_ATTR_ROW_NUMBER, ctypes.byref(number), 8, None))
        out.append((value.value, number.value))
    odbc.SQLFreeHandle(SQL_HANDLE_STMT, stmt)
    disconnect(env, dbc)
    return out


def test_row_number_is_the_targets_for_the_applications_row(setup):
    direct = read_with_row_numbers("DSN=direct")
    assert read_with_row_numbers(setup.bridge_string()) == direct
    assert [v for v, _ in direct] == list(range(1, 8))


# Results of one shape, each read its own way: the columns bound before the
# first fetch, then the SQLGetData calls on every row. The last text is the
# first one again.
READS = [
    ([], [(1, SQL_C_SLONG)]),
    ([], [(1, SQL_C_SLONG), (2, SQL_C_CHAR)]),
    ([], [(2, SQL_C_CHAR), (1, SQL_C_SLONG)]),
    ([1], [(2, SQL_C_CHAR)]),
    ([], [(2, SQL_C_CHAR)]),
    ([], [(1, SQL_C_CHAR), (2, SQL_C_CHAR)]),
]


def read_each_way(connection_string):
    env, dbc = connect(connection_string)
    out = []
    for i, (bound, calls) in enumerate(READS):
        stmt = SQLHANDLE()
        ok(odbc.SQLAllocHandle(SQL_HANDLE_STMT, dbc, ctypes.byref(stmt)))
        rows = 4 + i % 5  # the last run repeats the first text
        ok(odbc.SQLExecDirect(stmt, f"with recursive s(n) as (select 1 union all select n + 1 from s where n < {rows}) "
                                    f"select n, 'value ' || n from s".encode(), SQL_NTS))
        n, n_ind = ctypes.c_int32(), SQLLEN()
        for column in bound:
            ok(odbc.SQLBindCol(stmt, column, SQL_C_SLONG, ctypes.byref(n), 4, ctypes.byref(n_ind)))
        result = []
        while odbc.SQLFetch(stmt) != SQL_NO_DATA:
            row = [n.value for _ in bound]
            for column, c_type in calls:
                buffer, ind = ctypes.create_string_buffer(32), SQLLEN()
                rc = odbc.SQLGetData(stmt, column, c_type, buffer, 32, ctypes.byref(ind))
                row.append((rc, ctypes.cast(buffer, ctypes.POINTER(ctypes.c_int32))[0] if c_type == SQL_C_SLONG
                            else buffer.value))
            result.append(row)
        out.append(result)
        odbc.SQLFreeHandle(SQL_HANDLE_STMT, stmt)
    disconnect(env, dbc)
    return out


def test_each_result_of_a_shape_read_its_own_way(setup):
    """How the results of a shape were read before is a guess for the next
    one's first row: a first row read otherwise, with some columns bound or
    in another order, reads as it does directly."""
    direct = read_each_way("DSN=direct")
    assert read_each_way(setup.bridge_string()) == direct
    assert [len(r) for r in direct] == [4, 5, 6, 7, 8, 4]
