// Handlers for operations on the target connection.
#include <algorithm>
#include <cctype>

#include "protocol/odbc_kinds.h"
#include "server/cancel.h"
#include "server/ops.h"
#include "server/wide.h"

namespace zbs {
namespace {

std::string upper(std::string s) {
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return std::toupper(c); });
    return s;
}

// Keywords that would choose another data source, load another driver or
// write files on this machine; and keys that are no single keyword (a key
// holding ";" or "=" would smuggle further keywords past this check).
bool forbidden_keyword(const std::string &key) {
    const std::string k = upper(key);
    return k == "DSN" || k == "DRIVER" || k == "FILEDSN" || k == "SAVEFILE" || k.empty() ||
           k.find_first_of(";={}") != std::string::npos || std::isspace(static_cast<unsigned char>(k.front())) ||
           std::isspace(static_cast<unsigned char>(k.back()));
}

std::string braced(const std::string &v) {
    if (v.find_first_of(";{}") == std::string::npos && (v.empty() || v.front() != ' ')) return v;
    std::string out = "{";
    for (char c : v) {
        out += c;
        if (c == '}') out += '}';
    }
    return out + "}";
}

void set_attr(SQLHDBC dbc, SQLINTEGER attr, bool text, int64_t value, const std::string &s,
              Outcome &out) {
    if (zb::connect_attr_is_refused(attr)) {
        out.fail("HYC00",
                 "connection attribute " + std::to_string(attr) + " is not set through the bridge");
        return;
    }
    SQLRETURN rc;
    if (text && wide_calls()) {
        std::u16string w = to_wide(s);
        rc = SQLSetConnectAttrW(dbc, attr, wide_ptr(w), static_cast<SQLINTEGER>(2 * w.size()));
    } else {
        rc = text ? SQLSetConnectAttr(dbc, attr, (SQLPOINTER)s.c_str(), static_cast<SQLINTEGER>(s.size()))
                  : SQLSetConnectAttr(dbc, attr, (SQLPOINTER)(intptr_t)value, 0);
    }
    collect_diags(SQL_HANDLE_DBC, dbc, rc, out);
}

}  // namespace

// SQLGetInfo's answer, as the value bytes of its kind.
static SQLRETURN put_info(Connection *c, int32_t type, zb::Writer &w, Outcome &out);

void op_connect(Session &s, void *, zb::Reader &in, zb::Writer &w, Outcome &out) {
    const int32_t odbc_version = in.i32();
    struct Attr {
        int32_t attr;
        bool text;
        int64_t value;
        std::string s;
    };
    std::vector<Attr> attrs(in.count(9));
    for (auto &a : attrs) {
        a.attr = in.i32();
        a.text = in.u8() != 0;
        if (a.text) a.s = in.str();
        else a.value = in.i64();
    }
    const std::string dsn = in.str();
    std::string connect = "DSN=" + braced(dsn) + ";";
    for (uint32_t n = in.count(8); n > 0; --n) {
        std::string key = in.str(), value = in.str();
        if (forbidden_keyword(key)) {
            out.fail("08004", "keyword " + key + " is not accepted");
            return;
        }
        connect += key + "=" + braced(value) + ";";
    }
    use_wide_calls(in.u8() != 0 && driver_has_wide_calls(dsn));
    // Information types the driver answers from now on without asking.
    std::vector<int32_t> infos(in.done() ? 0 : in.count(4));
    for (auto &t : infos) t = in.i32();
    if (!s.config().busy.empty()) {
        out.fail("08004", s.config().busy);
        return;
    }
    const auto &allowed = s.config().allowed_dsns;
    if (!allowed.empty() && allowed.count(dsn) == 0) {
        out.fail("08004", "data source '" + dsn + "' is not served here");
        return;
    }
    if (s.connection() != nullptr) {
        out.fail("08002", "connection already open");
        return;
    }
    SQLRETURN rc = s.ensure_env(odbc_version);
    if (!SQL_SUCCEEDED(rc)) {
        collect_diags(SQL_HANDLE_ENV, s.env(), rc, out);
        return;
    }
    Connection *c = s.open_connection();
    rc = SQLAllocHandle(SQL_HANDLE_DBC, s.env(), &c->h);
    if (!SQL_SUCCEEDED(rc)) {
        collect_diags(SQL_HANDLE_ENV, s.env(), rc, out);
        return;
    }
    for (const auto &a : attrs) {
        Outcome ignored;
        set_attr(c->h, a.attr, a.text, a.value, a.s, ignored);
    }
    // The way the application connected: a driver such as psqlODBC reports
    // wide column types only to a connection made through the wide calls.
    SQLSMALLINT len = 0;
    if (wide_calls()) {
        std::u16string text = to_wide(connect);
        rc = SQLDriverConnectW(c->h, nullptr, wide_ptr(text),
                               static_cast<SQLSMALLINT>(text.size()), nullptr, 0, &len,
                               SQL_DRIVER_NOPROMPT);
    } else {
        rc = SQLDriverConnect(c->h, nullptr, (SQLCHAR *)connect.c_str(), SQL_NTS, nullptr, 0,
                              &len, SQL_DRIVER_NOPROMPT);
    }
    collect_diags(SQL_HANDLE_DBC, c->h, rc, out);
    c->connected = SQL_SUCCEEDED(rc);
    w.u64(reinterpret_cast<uintptr_t>(c->connected ? c : nullptr));
    if (!c->connected) return;
    w.u32(static_cast<uint32_t>(infos.size()));
    for (int32_t type : infos) {
        Outcome ignored;
        zb::Writer value;
        const SQLRETURN info_rc = put_info(c, type, value, ignored);
        w.i32(type);
        w.i16(info_rc);
        w.data().insert(w.data().end(), value.data().begin(), value.data().end());
    }
    // What a second connection needs to cancel this one's running call.
    const auto &key = current_cancel_key();
    w.u8(key.has_value());
    if (key) zb::put_cancel_key(w, *key);
}

void op_disconnect(Session &s, void *obj, zb::Reader &in, zb::Writer &, Outcome &out) {
    auto *c = static_cast<Connection *>(obj);
    // Statements the application freed that the driver kept for reuse go
    // first, as they would have before a direct disconnect.
    for (uint32_t n = in.done() ? 0 : in.count(8); n > 0; --n) {
        Statement *spare = s.find_statement(reinterpret_cast<void *>(static_cast<uintptr_t>(in.u64())));
        if (spare != nullptr && SQL_SUCCEEDED(SQLFreeHandle(SQL_HANDLE_STMT, spare->h))) s.drop_statement(spare);
    }
    SQLRETURN rc = SQLDisconnect(c->h);
    collect_diags(SQL_HANDLE_DBC, c->h, rc, out);
    if (SQL_SUCCEEDED(rc)) {
        c->connected = false;
        s.forget_statements();  // freed with the connection: freeing them again would crash
        s.close_all();
    }
}

void op_set_connect_attr(Session &, void *obj, zb::Reader &in, zb::Writer &, Outcome &out) {
    auto *c = static_cast<Connection *>(obj);
    int32_t attr = in.i32();
    bool text = in.u8() != 0;
    int64_t value = 0;
    std::string str;
    if (text) str = in.str();
    else value = in.i64();
    set_attr(c->h, attr, text, value, str, out);
}

void op_get_connect_attr(Session &, void *obj, zb::Reader &in, zb::Writer &w, Outcome &out) {
    auto *c = static_cast<Connection *>(obj);
    int32_t attr = in.i32();
    std::vector<char> buf(4096, 0);
    SQLINTEGER len = 0;
    const bool text = zb::connect_attr_is_text(attr);
    SQLRETURN rc = text && wide_calls()
                       ? SQLGetConnectAttrW(c->h, attr, buf.data(), static_cast<SQLINTEGER>(buf.size() - 2), &len)
                       : SQLGetConnectAttr(c->h, attr, buf.data(), static_cast<SQLINTEGER>(buf.size()), &len);
    collect_diags(SQL_HANDLE_DBC, c->h, rc, out);
    if (text && wide_calls()) {
        w.str(from_wide(reinterpret_cast<SQLWCHAR *>(buf.data()), static_cast<size_t>(std::clamp<SQLINTEGER>(len, 0, 4092)) / 2));
    } else if (text) {
        w.str(std::string(buf.data(), std::clamp<SQLINTEGER>(len, 0, 4095)));
    } else {
        SQLULEN v = 0;
        std::memcpy(&v, buf.data(), sizeof v);
        w.u64(v);
    }
}

static SQLRETURN put_info(Connection *c, int32_t type, zb::Writer &w, Outcome &out) {
    std::vector<char> buf(8192, 0);
    SQLSMALLINT len = 0;
    const bool wide = wide_calls() && zb::info_kind(type) == zb::ValueKind::Text;
    SQLRETURN rc = wide ? SQLGetInfoW(c->h, static_cast<SQLUSMALLINT>(type), buf.data(),
                                      static_cast<SQLSMALLINT>(buf.size() - 2), &len)
                        : SQLGetInfo(c->h, static_cast<SQLUSMALLINT>(type), buf.data(),
                                     static_cast<SQLSMALLINT>(buf.size()), &len);
    collect_diags(SQL_HANDLE_DBC, c->h, rc, out);
    switch (zb::info_kind(type)) {
    case zb::ValueKind::Text:
        if (wide) {
            const std::string text = from_wide(reinterpret_cast<SQLWCHAR *>(buf.data()),
                                               static_cast<size_t>(std::clamp<SQLSMALLINT>(len, 0, 8188)) / 2);
            w.bytes(text.data(), text.size());
        } else {
            w.bytes(buf.data(), static_cast<size_t>(std::clamp<SQLSMALLINT>(len, 0, 8191)));
        }
        break;
    case zb::ValueKind::Int16:
        w.bytes(buf.data(), 2);
        break;
    case zb::ValueKind::Int32:
        w.bytes(buf.data(), 4);
        break;
    case zb::ValueKind::Word:
        w.bytes(buf.data(), 8);
        break;
    }
    return rc;
}

void op_get_info(Session &, void *obj, zb::Reader &in, zb::Writer &w, Outcome &out) {
    put_info(static_cast<Connection *>(obj), in.i32(), w, out);
}

void op_end_tran(Session &, void *obj, zb::Reader &in, zb::Writer &, Outcome &out) {
    auto *c = static_cast<Connection *>(obj);
    SQLRETURN rc = SQLEndTran(SQL_HANDLE_DBC, c->h, in.i16());
    collect_diags(SQL_HANDLE_DBC, c->h, rc, out);
}

void op_native_sql(Session &, void *obj, zb::Reader &in, zb::Writer &w, Outcome &out) {
    auto *c = static_cast<Connection *>(obj);
    std::string sql = in.str();
    SQLINTEGER len = 0;
    if (wide_calls()) {
        std::u16string text = to_wide(sql);
        std::vector<SQLWCHAR> buf(text.size() * 2 + 1024);
        SQLRETURN rc = SQLNativeSqlW(c->h, wide_ptr(text), static_cast<SQLINTEGER>(text.size()), buf.data(),
                                     static_cast<SQLINTEGER>(buf.size()), &len);
        collect_diags(SQL_HANDLE_DBC, c->h, rc, out);
        w.str(from_wide(buf.data(), std::clamp<size_t>(static_cast<size_t>(std::max(len, 0)), 0, buf.size() - 1)));
        return;
    }
    std::vector<char> buf(sql.size() * 2 + 1024);
    SQLRETURN rc = SQLNativeSql(c->h, (SQLCHAR *)sql.data(), static_cast<SQLINTEGER>(sql.size()),
                                (SQLCHAR *)buf.data(), static_cast<SQLINTEGER>(buf.size()), &len);
    collect_diags(SQL_HANDLE_DBC, c->h, rc, out);
    w.str(std::string(buf.data(), std::clamp<size_t>(static_cast<size_t>(std::max(len, 0)), 0,
                                                     buf.size() - 1)));
}

void op_alloc_stmt(Session &s, void *obj, zb::Reader &, zb::Writer &w, Outcome &out) {
    auto *c = static_cast<Connection *>(obj);
    SQLHSTMT h = SQL_NULL_HSTMT;
    SQLRETURN rc = SQLAllocHandle(SQL_HANDLE_STMT, c->h, &h);
    collect_diags(SQL_HANDLE_DBC, c->h, rc, out);
    w.u64(SQL_SUCCEEDED(rc) ? reinterpret_cast<uintptr_t>(s.add_statement(h)) : 0);
}

}  // namespace zbs
