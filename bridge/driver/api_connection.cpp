// Connections: connect through the bridge server, connection attributes,
// information about the target, transactions.
#include <strings.h>

#include <algorithm>
#include <cstring>
#include <iterator>

#include "driver/api.h"
#include "driver/connstr.h"
#include "driver/remote.h"
#include "protocol/odbc_kinds.h"

namespace zbd {
namespace {

constexpr const char *kDriverName = "libzephodbc.so";
constexpr const char *kDriverVersion = "01.00.0000";
constexpr const char *kDriverOdbcVersion = "03.51";

// Information types applications ask right after connecting (pyodbc, the
// driver manager): their answers come with the connect.
constexpr SQLUSMALLINT kInfoAtConnect[] = {
    SQL_DRIVER_ODBC_VER, SQL_DESCRIBE_PARAMETER, SQL_NEED_LONG_DATA_LEN, SQL_CURSOR_COMMIT_BEHAVIOR,
    SQL_CURSOR_ROLLBACK_BEHAVIOR, SQL_DBMS_NAME, SQL_DBMS_VER, SQL_TXN_CAPABLE, SQL_GETDATA_EXTENSIONS,
    SQL_IDENTIFIER_QUOTE_CHAR,
};

SQLRETURN open_remote(Dbc &dbc, const Settings &s) {
    if (dbc.rpc != nullptr) return add_diag(dbc, "08002", "Connection name in use");
    if (s.target_dsn.empty())
        return add_diag(dbc, "08001", "no TargetDSN: name the data source on the server's side");
    dbc.timeout = s.timeout;
    if (SQLRETURN rc = open_transport(dbc, s.server, s.port); rc != SQL_SUCCESS) return rc;
    zb::Writer w;
    w.i32(dbc.env->odbc_version);
    w.u32(static_cast<uint32_t>(dbc.pending.size()));
    for (const auto &a : dbc.pending) {
        w.i32(a.attribute);
        w.u8(a.text);
        if (a.text) w.str(a.str);
        else w.i64(a.value);
    }
    w.str(s.target_dsn);
    w.u32(static_cast<uint32_t>(s.pass_through.size()));
    for (const auto &[k, v] : s.pass_through) {
        w.str(k);
        w.str(v);
    }
    w.u8(dbc.wide);
    w.u32(static_cast<uint32_t>(std::size(kInfoAtConnect)));
    for (SQLUSMALLINT type : kInfoAtConnect) w.i32(type);
    Reply r = call(dbc, zb::Op::Connect, 0, w);
    SQLRETURN rc = adopt(dbc, r);
    if (SQL_SUCCEEDED(rc)) dbc.remote = r.in.u64();
    if (SQL_SUCCEEDED(rc) && dbc.remote != 0 && !r.in.done()) {
        for (uint32_t n = r.in.u32(); n > 0; --n) {
            const auto type = static_cast<SQLUSMALLINT>(r.in.i32());
            const SQLRETURN info_rc = r.in.i16();
            auto value = r.in.bytes();
            if (info_rc == SQL_SUCCESS) dbc.info[type] = {info_rc, {value.begin(), value.end()}};
        }
        if (!r.in.done() && r.in.u8() != 0) dbc.cancel_key = zb::get_cancel_key(r.in);
    }
    if (!SQL_SUCCEEDED(rc) || dbc.remote == 0) {
        close_transport(dbc);
        dbc.broken = false;
        return SQL_SUCCEEDED(rc) ? add_diag(dbc, "08001", "the server opened no connection") : rc;
    }
    return rc;
}

// The target's answer for an information type, asked once per connection.
std::pair<SQLRETURN, std::vector<uint8_t>> target_info(Dbc &dbc, SQLUSMALLINT type) {
    if (auto it = dbc.info.find(type); it != dbc.info.end()) return it->second;
    zb::Writer w;
    w.i32(type);
    Reply r = call(dbc, zb::Op::GetInfo, dbc.remote, w);
    SQLRETURN rc = adopt(dbc, r);
    std::vector<uint8_t> value;
    if (SQL_SUCCEEDED(rc)) {
        auto b = r.in.bytes();
        value.assign(b.begin(), b.end());
        if (rc == SQL_SUCCESS) dbc.info[type] = {rc, value};
    }
    return {rc, value};
}

}  // namespace

SQLRETURN connect_with(Dbc &dbc, const std::string &connection_string, const OutBuf &out,
                       SQLSMALLINT *out_length) {
    SQLRETURN rc = open_remote(dbc, resolve_settings(parse_connection_string(connection_string)));
    if (!SQL_SUCCEEDED(rc)) return rc;
    dbc.out_connection = connection_string;
    SQLRETURN t = write_text(dbc, connection_string, out, out_length);
    return t == SQL_SUCCESS ? rc : t;
}

SQLRETURN connect_dsn(Dbc &dbc, const Text &dsn, const Text &uid, const Text &pwd) {
    Pairs keywords;
    keywords.emplace_back("DSN", dsn.value_or(""));
    if (uid && !uid->empty()) keywords.emplace_back("UID", *uid);
    if (pwd && !pwd->empty()) keywords.emplace_back("PWD", *pwd);
    return open_remote(dbc, resolve_settings(keywords));
}

SQLRETURN disconnect(Dbc &dbc) {
    if (dbc.rpc == nullptr) return add_diag(dbc, "08003", "Connection not open");
    SQLRETURN rc = SQL_SUCCESS;
    if (!dbc.broken) {
        zb::Writer w;
        w.u32(static_cast<uint32_t>(dbc.spare_statements.size()));
        for (const auto &spare : dbc.spare_statements) w.u64(spare.first);
        dbc.spare_statements.clear();  // freed on the server whatever the disconnect says
        Reply r = call(dbc, zb::Op::Disconnect, dbc.remote, w);
        rc = adopt(dbc, r);
        if (rc == SQL_ERROR && !dbc.broken) return rc;  // e.g. 25000: a transaction is open
    }
    for (Stmt *s : dbc.statements) delete s;
    dbc.statements.clear();
    dbc.spare_statements.clear();
    dbc.info.clear();
    close_transport(dbc);
    dbc.broken = false;
    return rc == SQL_ERROR ? SQL_SUCCESS_WITH_INFO : rc;
}

SQLRETURN set_connect_attr(Dbc &dbc, SQLINTEGER attr, SQLPOINTER value, const Text &text) {
    const bool is_text = zb::connect_attr_is_text(attr);
    ConnectAttr a{attr, is_text, static_cast<int64_t>(reinterpret_cast<intptr_t>(value)),
                  is_text ? text.value_or("") : std::string()};
    if (attr == SQL_ATTR_QUIET_MODE) {
        dbc.quiet_mode = a.value;
        return SQL_SUCCESS;
    }
    if (!dbc.connected()) {
        std::erase_if(dbc.pending, [&](const ConnectAttr &p) { return p.attribute == attr; });
        dbc.pending.push_back(a);
        return SQL_SUCCESS;
    }
    zb::Writer w;
    w.i32(attr);
    w.u8(is_text);
    if (is_text) w.str(a.str);
    else w.i64(a.value);
    Reply r = call(dbc, zb::Op::SetConnectAttr, dbc.remote, w);
    return adopt(dbc, r);
}

SQLRETURN get_connect_attr(Dbc &dbc, SQLINTEGER attr, SQLPOINTER value, const OutBuf &out,
                           SQLINTEGER *length) {
    const bool is_text = zb::connect_attr_is_text(attr);
    if (attr == SQL_ATTR_QUIET_MODE) {
        if (value != nullptr) *static_cast<SQLULEN *>(value) = static_cast<SQLULEN>(dbc.quiet_mode);
        return SQL_SUCCESS;
    }
    if (attr == SQL_ATTR_CONNECTION_DEAD) {
        // Asked by connection pools before they hand a connection out again:
        // a round trip finds a server that dropped it meanwhile.
        bool dead = !dbc.connected() || dbc.broken;
        if (!dead) {
            zb::Writer w;
            w.i32(attr);
            (void)call(dbc, zb::Op::GetConnectAttr, dbc.remote, w);  // the target's answer is not needed
            dead = dbc.broken;
        }
        if (value != nullptr) *static_cast<SQLUINTEGER *>(value) = dead ? SQL_CD_TRUE : SQL_CD_FALSE;
        return SQL_SUCCESS;
    }
    if (!dbc.connected()) {
        auto it = std::find_if(dbc.pending.begin(), dbc.pending.end(),
                               [&](const ConnectAttr &p) { return p.attribute == attr; });
        if (it == dbc.pending.end()) {
            if (attr == SQL_ATTR_AUTOCOMMIT && value != nullptr) {
                *static_cast<SQLUINTEGER *>(value) = SQL_AUTOCOMMIT_ON;
                return SQL_SUCCESS;
            }
            return add_diag(dbc, "08003", "Connection not open");
        }
        if (it->text) return write_text(dbc, it->str, out, length);
        if (value != nullptr) *static_cast<SQLUINTEGER *>(value) = static_cast<SQLUINTEGER>(it->value);
        return SQL_SUCCESS;
    }
    zb::Writer w;
    w.i32(attr);
    Reply r = call(dbc, zb::Op::GetConnectAttr, dbc.remote, w);
    SQLRETURN rc = adopt(dbc, r);
    if (!SQL_SUCCEEDED(rc)) return rc;
    if (is_text) {
        SQLRETURN t = write_text(dbc, r.in.str(), out, length);
        return t == SQL_SUCCESS ? rc : t;
    }
    uint64_t v = r.in.u64();
    if (value != nullptr) *static_cast<SQLUINTEGER *>(value) = static_cast<SQLUINTEGER>(v);
    if (length != nullptr) *length = sizeof(SQLUINTEGER);
    return rc;
}

SQLRETURN get_info(Dbc &dbc, SQLUSMALLINT type, const OutBuf &out, SQLSMALLINT *length) {
    if (!dbc.connected()) return add_diag(dbc, "08003", "Connection not open");
    std::string local;
    if (type == SQL_DRIVER_NAME) local = kDriverName;
    if (type == SQL_DRIVER_VER) local = kDriverVersion;
    if (type == SQL_DRIVER_ODBC_VER) {
        auto [rc, v] = target_info(dbc, type);
        std::string theirs(v.begin(), v.end());
        local = SQL_SUCCEEDED(rc) && theirs < kDriverOdbcVersion ? theirs : kDriverOdbcVersion;
        dbc.diag.clear();
    }
    if (!local.empty()) return write_text(dbc, local, out, length);

    auto [rc, value] = target_info(dbc, type);
    if (!SQL_SUCCEEDED(rc)) return rc;
    if (zb::info_kind(type) == zb::ValueKind::Text) {
        SQLRETURN t = write_text(dbc, std::string(value.begin(), value.end()), out, length);
        return t == SQL_SUCCESS ? rc : t;
    }
    // No more than the type's width reaches the application's buffer,
    // whatever the server sent.
    const zb::ValueKind kind = zb::info_kind(type);
    const size_t n = std::min<size_t>(value.size(), kind == zb::ValueKind::Int16   ? sizeof(SQLUSMALLINT)
                                                    : kind == zb::ValueKind::Int32 ? sizeof(SQLUINTEGER)
                                                                                   : sizeof(SQLULEN));
    if (out.data != nullptr) std::memcpy(out.data, value.data(), n);
    if (length != nullptr) *length = static_cast<SQLSMALLINT>(n);
    return rc;
}

SQLRETURN end_tran(SQLSMALLINT type, SQLHANDLE h, SQLSMALLINT completion) {
    if (type == SQL_HANDLE_ENV) {
        auto *env = static_cast<Env *>(h);
        SQLRETURN rc = SQL_SUCCESS;
        for (Dbc *dbc : env->connections) {
            std::lock_guard<std::recursive_mutex> one_at_a_time(*dbc->lock);
            if (!dbc->connected()) continue;
            dbc->diag.clear();
            if (end_tran(SQL_HANDLE_DBC, dbc, completion) == SQL_ERROR) rc = SQL_ERROR;
        }
        return rc;
    }
    auto &dbc = *static_cast<Dbc *>(h);
    if (!dbc.connected()) return add_diag(dbc, "08003", "Connection not open");
    zb::Writer w;
    w.i16(completion);
    Reply r = call(dbc, zb::Op::EndTran, dbc.remote, w);
    return adopt(dbc, r);
}

SQLRETURN native_sql(Dbc &dbc, const std::string &sql, const OutBuf &out, SQLINTEGER *length) {
    if (!dbc.connected()) return add_diag(dbc, "08003", "Connection not open");
    zb::Writer w;
    w.str(sql);
    Reply r = call(dbc, zb::Op::NativeSql, dbc.remote, w);
    SQLRETURN rc = adopt(dbc, r);
    if (!SQL_SUCCEEDED(rc)) return rc;
    SQLRETURN t = write_text(dbc, r.in.str(), out, length);
    return t == SQL_SUCCESS ? rc : t;
}

}  // namespace zbd
