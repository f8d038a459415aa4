"""A client that speaks the bridge's calls through the library itself, as
anyone who reaches the port can: handles the server never issued, and
requests whose counts promise far more than they hold. The server answers
each with an error, stays small and goes on serving."""
import ctypes
import os
import struct

import pyodbc
import pytest

from conftest import Server

SQL_ERROR = -1
SQL_INVALID_HANDLE = -2


class MemDesc(ctypes.Structure):
    _fields_ = [("flags", ctypes.c_uint32), ("pad0", ctypes.c_uint32), ("name", ctypes.c_char_p),
                ("length", ctypes.c_int32), ("pad1", ctypes.c_int32), ("value", ctypes.c_void_p),
                ("extra", ctypes.c_void_p * 2)]


def text(s):
    return struct.pack("<I", len(s)) + s


class RawClient:
    def __init__(self, port):
        self.rpc = ctypes.CDLL(os.environ["ZEPHRPC_LIBRARY"])
        self.rpc.RPCAllocHandle.restype = ctypes.c_void_p
        self.h = ctypes.c_void_p(self.rpc.RPCAllocHandle())
        assert self.rpc.RPCInitialise(self.h, 1, 0) == 0
        name, description = ctypes.c_char_p(), ctypes.c_char_p()
        bsd = next(i for i in range(4)
                   if self.rpc.RPCEnumerateTransports(self.h, i, ctypes.byref(name),
                                                      ctypes.byref(description)) == 0
                   and b"BSD" in name.value)
        assert self.rpc.RPCSetTransportOpts(self.h, bsd, b"127.0.0.1", str(port).encode(),
                                            None, None, None, None, None) == 0
        # The bridge protocol's version and revision (bridge/protocol/protocol.h).
        assert self.rpc.RPCConnect(self.h, 1, 1, b"zephodbc") == 0

    def call(self, function, handle, payload=b""):
        """(return code, diagnostics as (state, message), rest of the reply)"""
        data = ctypes.create_string_buffer(payload, max(len(payload), 1))
        request = MemDesc(value=ctypes.cast(data, ctypes.c_void_p), length=len(payload))
        reply, rc = MemDesc(), ctypes.c_int16(0)
        assert self.rpc.RPCExec(self.h, function, ctypes.c_void_p(handle), ctypes.byref(request),
                                ctypes.byref(rc), ctypes.byref(reply)) == 0
        raw = ctypes.string_at(reply.value, reply.length) if reply.value and reply.length > 0 else b""
        ctypes.CDLL(None).free(ctypes.c_void_p(reply.value))
        diags, at = [], 4
        for _ in range(struct.unpack_from("<I", raw)[0] if raw else 0):
            fields = []
            for kind in "sisss":
                if kind == "i":
                    at += 4
                    continue
                n = struct.unpack_from("<I", raw, at)[0]
                fields.append(raw[at + 4:at + 4 + n].decode())
                at += 4 + n
            diags.append((fields[0], fields[1]))
        return rc.value, diags, raw[at:]

    def connect(self, dsn=b"direct"):
        rc, diags, rest = self.call(b"zb_connect", 0, struct.pack("<iI", 3, 0) + text(dsn) +
                                    struct.pack("<IB", 0, 0))
        assert rc == 0, diags
        return struct.unpack_from("<Q", rest)[0]

    def statement(self, dbc):
        rc, diags, rest = self.call(b"zb_alloc_stmt", dbc)
        assert rc == 0, diags
        return struct.unpack_from("<Q", rest)[0]

    def close(self):
        self.rpc.RPCDisconnect(self.h)
        self.rpc.RPCTerminate(self.h)
        self.rpc.RPCFreeHandle(self.h)


@pytest.fixture
def raw(setup):
    """A raw client of a server of its own, whose one serving child is its."""
    server = Server()
    try:
        client = RawClient(server.port)
        client.server = server
        yield client
        client.close()
        conn = pyodbc.connect(setup.bridge_string(PORT=server.port))
        assert conn.cursor().execute("select 41 + 1").fetchone()[0] == 42
        conn.close()
    finally:
        server.stop()


def test_forged_handles_are_invalid_handles(raw):
    for function in (b"zb_fetch", b"zb_free_stmt", b"zb_get_data", b"zb_disconnect", b"zb_alloc_stmt"):
        for forged in (0xDEADBEEF, 8, 0):
            assert raw.call(function, forged)[0] == SQL_INVALID_HANDLE, (function, forged)


SELECT = b"\x00\x01" + text(b"select ?")  # keep the cursor, execute directly
# An output parameter (SQL_PARAM_OUTPUT, SQL_C_CHAR, SQL_VARCHAR, size 10).
OUTPUT = struct.pack("<hhhhQh", 1, 4, 1, 12, 10, 0)

# Each a few dozen bytes; read as they announce, each would make the server
# set aside gigabytes. Counts the request cannot hold are malformed (HY000);
# buffers a fetch would bind beyond the server's limit are refused (HY001).
BOASTS = {
    "parameters": (b"zb_execute", SELECT + struct.pack("<I", 100_000_000), "HY000"),
    "parameter sets": (b"zb_execute", SELECT + struct.pack("<I", 1) + OUTPUT +
                       struct.pack("<qQ", 0, 1_000_000_000), "HY000"),
    "catalog texts": (b"zb_catalog", struct.pack("<BiI", 0, 0, 50_000_000), "HY000"),
    "fetch columns": (b"zb_fetch", struct.pack("<BhqQI", 0, 1, 0, 1, 100_000_000), "HY000"),
    "attribute fields": (b"zb_col_attribute", struct.pack("<hI", 1, 1_000_000_000), "HY000"),
    "connect attributes": (b"zb_connect", struct.pack("<iI", 3, 50_000_000), "HY000"),
    "rowset": (b"zb_fetch", struct.pack("<BhqQI", 0, 1, 0, 1 << 31, 0), "HY001"),
    "bound buffers": (b"zb_fetch", struct.pack("<BhqQI", 0, 1, 0, 1, 5) +
                      struct.pack("<hhq", 1, 1, 256 << 20) * 5, "HY001"),
}


@pytest.mark.parametrize("case", BOASTS)
def test_requests_announcing_more_than_they_hold_are_refused_without_reserving_memory(raw, case):
    function, payload, state = BOASTS[case]
    stmt = raw.statement(raw.connect())
    rc, diags, _ = raw.call(function, 0 if function == b"zb_connect" else stmt, payload)
    assert peak_resident_mb(raw) < 256
    assert rc == SQL_ERROR
    assert diags[0][0] == state and "more" in diags[0][1], diags


def test_an_output_buffer_is_no_larger_than_one_value_can_need(raw):
    # 8 GiB announced for one output parameter: the server binds 256 MiB.
    stmt = raw.statement(raw.connect())
    rc, diags, _ = raw.call(b"zb_execute", stmt, SELECT + struct.pack("<I", 1) + OUTPUT[:-2] +
                            struct.pack("<hq", 0, 8 << 30) + struct.pack("<QqI", 1, 0, 0))
    assert rc != SQL_INVALID_HANDLE, diags
    assert peak_resident_mb(raw) < 768


def peak_resident_mb(raw):
    """VmHWM of the child serving `raw`."""
    (child,) = raw.server.children()
    with open(f"/proc/{child}/status") as f:
        line = next(l for l in f if l.startswith("VmHWM:"))
    return int(line.split()[1]) // 1024


def run(raw, stmt, sql):
    rc, diags, _ = raw.call(b"zb_execute", stmt, b"\x00\x01" + text(sql) + struct.pack("<IQ", 0, 1))
    assert rc == 0, diags


def fetch(raw, stmt):
    """One row through the target's own fetch, nothing bound."""
    rc, diags, _ = raw.call(b"zb_fetch", stmt, struct.pack("<BhqQI", 0, 1, 0, 1, 0))
    assert rc == 0, diags


# Attributes whose value is an address (the target would write through it in
# the server), the shape of buffers the server binds itself, or a file or
# library on the server's machine.
STATEMENT_ATTRIBUTES = {"row status array": (25, 0xDEAD0000), "rows fetched": (26, 0xDEAD0000),
                        "row array size": (27, 100), "bookmark": (16, 0xDEAD0000),
                        "row descriptor": (10010, 0xDEAD0000), "parameter sets": (22, 100)}


@pytest.mark.parametrize("case", STATEMENT_ATTRIBUTES)
def test_statement_attributes_that_reach_into_the_server_are_refused(raw, case):
    attribute, value = STATEMENT_ATTRIBUTES[case]
    stmt = raw.statement(raw.connect())
    run(raw, stmt, b"select 1 union all select 2 union all select 3")
    fetch(raw, stmt)
    rc, diags, _ = raw.call(b"zb_set_stmt_attr", stmt, struct.pack("<iq", attribute, value))
    assert (rc, [d[0] for d in diags]) == (SQL_ERROR, ["HYC00"])
    fetch(raw, stmt)  # the server's own bindings are as they were


def test_trace_files_and_translation_libraries_are_refused(raw, tmp_path):
    dbc = raw.connect()
    trace = str(tmp_path / "trace").encode()
    for payload in (struct.pack("<iB", 105, 1) + text(trace), struct.pack("<iBq", 104, 0, 1),
                    struct.pack("<iB", 106, 1) + text(b"/nonexistent/translate.so")):
        rc, diags, _ = raw.call(b"zb_set_connect_attr", dbc, payload)
        assert (rc, [d[0] for d in diags]) == (SQL_ERROR, ["HYC00"])
    run(raw, raw.statement(dbc), b"select 1")
    assert not (tmp_path / "trace").exists()


@pytest.mark.parametrize("key", [b"DRIVER", b"SaveFile", b"filedsn", b" DSN", b"A=b;SAVEFILE", b"{x}"])
def test_connection_keywords_that_reach_past_the_data_source_are_refused(raw, key):
    payload = (struct.pack("<iI", 3, 0) + text(b"direct") + struct.pack("<I", 1) + text(key) +
               text(b"/tmp/zephodbc-hostile") + struct.pack("<BI", 0, 0))
    rc, diags, _ = raw.call(b"zb_connect", 0, payload)
    assert (rc, [d[0] for d in diags]) == (SQL_ERROR, ["08004"])
