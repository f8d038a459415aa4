// The 8-bit entry points: text arguments pass through as the application's
// bytes.
#include "driver/api.h"
#include "driver/entry.h"
#include "protocol/protocol.h"

using namespace zbd;

namespace {

OutBuf narrow(SQLPOINTER p, SQLLEN capacity) { return OutBuf{p, capacity, false, true}; }

Dbc *dbc_of(SQLHDBC h) { return as<Dbc>(h, Kind::Dbc); }
Stmt *stmt_of(SQLHSTMT h) { return as<Stmt>(h, Kind::Stmt); }

}  // namespace

ZBD_EXPORT SQLRETURN SQLConnect(SQLHDBC h, SQLCHAR *dsn, SQLSMALLINT dsn_len, SQLCHAR *uid,
                                SQLSMALLINT uid_len, SQLCHAR *pwd, SQLSMALLINT pwd_len) {
    Dbc *d = dbc_of(h);
    return guarded(d, [&]() -> SQLRETURN {
        d->wide = false;
        return connect_dsn(*d, in_text(dsn, dsn_len), in_text(uid, uid_len), in_text(pwd, pwd_len));
    });
}

ZBD_EXPORT SQLRETURN SQLDriverConnect(SQLHDBC h, SQLHWND, SQLCHAR *in, SQLSMALLINT in_len,
                                      SQLCHAR *out, SQLSMALLINT out_cap, SQLSMALLINT *out_len,
                                      SQLUSMALLINT) {
    Dbc *d = dbc_of(h);
    return guarded(d, [&]() -> SQLRETURN {
        d->wide = false;
        return connect_with(*d, in_text(in, in_len).value_or(""), narrow(out, out_cap), out_len);
    });
}

ZBD_EXPORT SQLRETURN SQLDisconnect(SQLHDBC h) {
    Dbc *d = dbc_of(h);
    return guarded(d, [&]() -> SQLRETURN { return disconnect(*d); });
}

ZBD_EXPORT SQLRETURN SQLSetConnectAttr(SQLHDBC h, SQLINTEGER attr, SQLPOINTER value, SQLINTEGER len) {
    Dbc *d = dbc_of(h);
    return guarded(d, [&]() -> SQLRETURN {
        return set_connect_attr(*d, attr, value, in_text(static_cast<SQLCHAR *>(value), len));
    });
}

ZBD_EXPORT SQLRETURN SQLGetConnectAttr(SQLHDBC h, SQLINTEGER attr, SQLPOINTER value, SQLINTEGER cap,
                                       SQLINTEGER *len) {
    Dbc *d = dbc_of(h);
    return guarded(d, [&]() -> SQLRETURN { return get_connect_attr(*d, attr, value, narrow(value, cap), len); });
}

ZBD_EXPORT SQLRETURN SQLGetInfo(SQLHDBC h, SQLUSMALLINT type, SQLPOINTER value, SQLSMALLINT cap,
                                SQLSMALLINT *len) {
    Dbc *d = dbc_of(h);
    return guarded(d, [&]() -> SQLRETURN { return get_info(*d, type, narrow(value, cap), len); });
}

ZBD_EXPORT SQLRETURN SQLEndTran(SQLSMALLINT type, SQLHANDLE h, SQLSMALLINT completion) {
    Handle *handle = type == SQL_HANDLE_ENV ? static_cast<Handle *>(as<Env>(h, Kind::Env))
                                            : static_cast<Handle *>(as<Dbc>(h, Kind::Dbc));
    return guarded(handle, [&]() -> SQLRETURN { return end_tran(type, h, completion); });
}

ZBD_EXPORT SQLRETURN SQLTransact(SQLHENV env, SQLHDBC dbc, SQLUSMALLINT completion) {
    if (dbc != SQL_NULL_HDBC) return SQLEndTran(SQL_HANDLE_DBC, dbc, static_cast<SQLSMALLINT>(completion));
    return SQLEndTran(SQL_HANDLE_ENV, env, static_cast<SQLSMALLINT>(completion));
}

ZBD_EXPORT SQLRETURN SQLNativeSql(SQLHDBC h, SQLCHAR *in, SQLINTEGER in_len, SQLCHAR *out,
                                  SQLINTEGER cap, SQLINTEGER *len) {
    Dbc *d = dbc_of(h);
    return guarded(d, [&]() -> SQLRETURN { return native_sql(*d, in_text(in, in_len).value_or(""), narrow(out, cap), len); });
}

ZBD_EXPORT SQLRETURN SQLSetStmtAttr(SQLHSTMT h, SQLINTEGER attr, SQLPOINTER value, SQLINTEGER) {
    Stmt *s = stmt_of(h);
    return guarded(s, [&]() -> SQLRETURN { return set_stmt_attr(*s, attr, value); });
}

ZBD_EXPORT SQLRETURN SQLGetStmtAttr(SQLHSTMT h, SQLINTEGER attr, SQLPOINTER value, SQLINTEGER,
                                    SQLINTEGER *len) {
    Stmt *s = stmt_of(h);
    return guarded(s, [&]() -> SQLRETURN {
        if (len) *len = sizeof(SQLULEN);
        return get_stmt_attr(*s, attr, value);
    });
}

ZBD_EXPORT SQLRETURN SQLPrepare(SQLHSTMT h, SQLCHAR *sql, SQLINTEGER len) {
    Stmt *s = stmt_of(h);
    return guarded(s, [&]() -> SQLRETURN { return prepare(*s, in_text(sql, len).value_or("")); });
}

ZBD_EXPORT SQLRETURN SQLExecute(SQLHSTMT h) {
    Stmt *s = stmt_of(h);
    return guarded(s, [&]() -> SQLRETURN { return execute(*s, std::nullopt); });
}

ZBD_EXPORT SQLRETURN SQLExecDirect(SQLHSTMT h, SQLCHAR *sql, SQLINTEGER len) {
    Stmt *s = stmt_of(h);
    return guarded(s, [&]() -> SQLRETURN { return execute(*s, in_text(sql, len).value_or("")); });
}

ZBD_EXPORT SQLRETURN SQLNumParams(SQLHSTMT h, SQLSMALLINT *count) {
    Stmt *s = stmt_of(h);
    return guarded(s, [&]() -> SQLRETURN {
        if (count) *count = s->prepared ? s->num_params : 0;
        return s->prepared ? s->num_params_rc : SQL_SUCCESS;
    });
}

ZBD_EXPORT SQLRETURN SQLDescribeParam(SQLHSTMT h, SQLUSMALLINT n, SQLSMALLINT *type, SQLULEN *size,
                                      SQLSMALLINT *digits, SQLSMALLINT *nullable) {
    Stmt *s = stmt_of(h);
    return guarded(s, [&]() -> SQLRETURN { return describe_param(*s, n, type, size, digits, nullable); });
}

ZBD_EXPORT SQLRETURN SQLBindParameter(SQLHSTMT h, SQLUSMALLINT n, SQLSMALLINT io, SQLSMALLINT c_type,
                                      SQLSMALLINT sql_type, SQLULEN size, SQLSMALLINT digits,
                                      SQLPOINTER data, SQLLEN cap, SQLLEN *ind) {
    Stmt *s = stmt_of(h);
    return guarded(s, [&]() -> SQLRETURN {
        if (n < 1) return add_diag(*s, "07009", "Invalid descriptor index");
        s->params[n] = ParamBinding{io, c_type, sql_type, digits, size, data, cap, ind};
        return SQL_SUCCESS;
    });
}

ZBD_EXPORT SQLRETURN SQLParamData(SQLHSTMT h, SQLPOINTER *token) {
    Stmt *s = stmt_of(h);
    return guarded(s, [&]() -> SQLRETURN { return param_data(*s, token); });
}

ZBD_EXPORT SQLRETURN SQLPutData(SQLHSTMT h, SQLPOINTER data, SQLLEN len) {
    Stmt *s = stmt_of(h);
    return guarded(s, [&]() -> SQLRETURN { return put_data(*s, data, len); });
}

ZBD_EXPORT SQLRETURN SQLNumResultCols(SQLHSTMT h, SQLSMALLINT *count) {
    Stmt *s = stmt_of(h);
    return guarded(s, [&]() -> SQLRETURN { return num_result_cols(*s, count); });
}

ZBD_EXPORT SQLRETURN SQLDescribeCol(SQLHSTMT h, SQLUSMALLINT col, SQLCHAR *name, SQLSMALLINT cap,
                                    SQLSMALLINT *name_len, SQLSMALLINT *type, SQLULEN *size,
                                    SQLSMALLINT *digits, SQLSMALLINT *nullable) {
    Stmt *s = stmt_of(h);
    return guarded(s, [&]() -> SQLRETURN {
        return describe_col(*s, col, narrow(name, cap), name_len, type, size, digits, nullable);
    });
}

ZBD_EXPORT SQLRETURN SQLColAttribute(SQLHSTMT h, SQLUSMALLINT col, SQLUSMALLINT field, SQLPOINTER text,
                                     SQLSMALLINT cap, SQLSMALLINT *len, SQLLEN *number) {
    Stmt *s = stmt_of(h);
    return guarded(s, [&]() -> SQLRETURN { return col_attribute(*s, col, field, narrow(text, cap), len, number); });
}

ZBD_EXPORT SQLRETURN SQLBindCol(SQLHSTMT h, SQLUSMALLINT col, SQLSMALLINT c_type, SQLPOINTER data,
                                SQLLEN cap, SQLLEN *ind) {
    Stmt *s = stmt_of(h);
    return guarded(s, [&]() -> SQLRETURN {
        if (data == nullptr && ind == nullptr) s->columns.erase(col);
        else s->columns[col] = ColumnBinding{c_type, data, cap, ind};
        return SQL_SUCCESS;
    });
}

ZBD_EXPORT SQLRETURN SQLFetch(SQLHSTMT h) {
    Stmt *s = stmt_of(h);
    return guarded(s, [&]() -> SQLRETURN { return fetch(*s, false, SQL_FETCH_NEXT, 0); });
}

ZBD_EXPORT SQLRETURN SQLFetchScroll(SQLHSTMT h, SQLSMALLINT orientation, SQLLEN offset) {
    Stmt *s = stmt_of(h);
    return guarded(s, [&]() -> SQLRETURN { return fetch(*s, true, orientation, offset); });
}

ZBD_EXPORT SQLRETURN SQLGetData(SQLHSTMT h, SQLUSMALLINT col, SQLSMALLINT c_type, SQLPOINTER data,
                                SQLLEN cap, SQLLEN *ind) {
    Stmt *s = stmt_of(h);
    return guarded(s, [&]() -> SQLRETURN { return get_data(*s, col, c_type, data, cap, ind); });
}

ZBD_EXPORT SQLRETURN SQLRowCount(SQLHSTMT h, SQLLEN *count) {
    Stmt *s = stmt_of(h);
    return guarded(s, [&]() -> SQLRETURN {
        if (count) *count = s->has_shape ? s->shape.row_count : -1;
        return s->has_shape ? s->shape.rowcount_rc : SQL_SUCCESS;
    });
}

ZBD_EXPORT SQLRETURN SQLMoreResults(SQLHSTMT h) {
    Stmt *s = stmt_of(h);
    return guarded(s, [&]() -> SQLRETURN { return more_results(*s); });
}

ZBD_EXPORT SQLRETURN SQLCloseCursor(SQLHSTMT h) {
    Stmt *s = stmt_of(h);
    return guarded(s, [&]() -> SQLRETURN { return close_cursor(*s); });
}

ZBD_EXPORT SQLRETURN SQLCancel(SQLHSTMT h) {
    Stmt *s = stmt_of(h);
    if (s == nullptr) return SQL_INVALID_HANDLE;
    std::unique_lock<std::recursive_mutex> idle(*s->lock, std::try_to_lock);
    if (!idle.owns_lock()) {
        // Another thread's call holds the connection. No diagnostics: the
        // statement's belong to that call.
        const SQLRETURN rc = cancel_from_outside(*s->dbc, s->remote);
        if (rc != SQL_NO_DATA) return rc == SQL_SUCCESS ? SQL_SUCCESS : SQL_ERROR;
        idle.lock();  // another statement's call: this one is cancelled as an idle one
    }
    return guarded(s, [&]() -> SQLRETURN { return cancel(*s); });
}

ZBD_EXPORT SQLRETURN SQLGetDiagRec(SQLSMALLINT type, SQLHANDLE h, SQLSMALLINT rec, SQLCHAR *state,
                                   SQLINTEGER *native, SQLCHAR *msg, SQLSMALLINT cap, SQLSMALLINT *len) {
    Handle *handle = diag_handle(type, h);
    if (handle == nullptr) return SQL_INVALID_HANDLE;
    return get_diag_rec(*handle, rec, narrow(state, 6), native, narrow(msg, cap), len);
}

ZBD_EXPORT SQLRETURN SQLGetDiagField(SQLSMALLINT type, SQLHANDLE h, SQLSMALLINT rec, SQLSMALLINT field,
                                     SQLPOINTER value, SQLSMALLINT cap, SQLSMALLINT *len) {
    Handle *handle = diag_handle(type, h);
    if (handle == nullptr) return SQL_INVALID_HANDLE;
    return get_diag_field(*handle, type, rec, field, value, narrow(value, cap), len);
}

ZBD_EXPORT SQLRETURN SQLError(SQLHENV env, SQLHDBC dbc, SQLHSTMT stmt, SQLCHAR *state,
                              SQLINTEGER *native, SQLCHAR *msg, SQLSMALLINT cap, SQLSMALLINT *len) {
    Handle *handle = stmt ? diag_handle(SQL_HANDLE_STMT, stmt)
                     : dbc ? diag_handle(SQL_HANDLE_DBC, dbc)
                           : diag_handle(SQL_HANDLE_ENV, env);
    if (handle == nullptr) return SQL_INVALID_HANDLE;
    return error_record(*handle, narrow(state, 6), native, narrow(msg, cap), len);
}

// Catalog functions.
#define ZBD_T(p, n) in_text(p, n)

ZBD_EXPORT SQLRETURN SQLGetTypeInfo(SQLHSTMT h, SQLSMALLINT type) {
    Stmt *s = stmt_of(h);
    return guarded(s, [&]() -> SQLRETURN { return catalog(*s, static_cast<int>(zb::CatalogFn::GetTypeInfo), {}, {type}); });
}

ZBD_EXPORT SQLRETURN SQLTables(SQLHSTMT h, SQLCHAR *c, SQLSMALLINT cl, SQLCHAR *sc, SQLSMALLINT sl,
                               SQLCHAR *t, SQLSMALLINT tl, SQLCHAR *ty, SQLSMALLINT tyl) {
    Stmt *s = stmt_of(h);
    return guarded(s, [&]() -> SQLRETURN {
        return catalog(*s, static_cast<int>(zb::CatalogFn::Tables),
                       {ZBD_T(c, cl), ZBD_T(sc, sl), ZBD_T(t, tl), ZBD_T(ty, tyl)}, {});
    });
}

ZBD_EXPORT SQLRETURN SQLColumns(SQLHSTMT h, SQLCHAR *c, SQLSMALLINT cl, SQLCHAR *sc, SQLSMALLINT sl,
                                SQLCHAR *t, SQLSMALLINT tl, SQLCHAR *co, SQLSMALLINT col) {
    Stmt *s = stmt_of(h);
    return guarded(s, [&]() -> SQLRETURN {
        return catalog(*s, static_cast<int>(zb::CatalogFn::Columns),
                       {ZBD_T(c, cl), ZBD_T(sc, sl), ZBD_T(t, tl), ZBD_T(co, col)}, {});
    });
}

ZBD_EXPORT SQLRETURN SQLPrimaryKeys(SQLHSTMT h, SQLCHAR *c, SQLSMALLINT cl, SQLCHAR *sc,
                                    SQLSMALLINT sl, SQLCHAR *t, SQLSMALLINT tl) {
    Stmt *s = stmt_of(h);
    return guarded(s, [&]() -> SQLRETURN {
        return catalog(*s, static_cast<int>(zb::CatalogFn::PrimaryKeys),
                       {ZBD_T(c, cl), ZBD_T(sc, sl), ZBD_T(t, tl)}, {});
    });
}

ZBD_EXPORT SQLRETURN SQLForeignKeys(SQLHSTMT h, SQLCHAR *pc, SQLSMALLINT pcl, SQLCHAR *ps,
                                    SQLSMALLINT psl, SQLCHAR *pt, SQLSMALLINT ptl, SQLCHAR *fc,
                                    SQLSMALLINT fcl, SQLCHAR *fs, SQLSMALLINT fsl, SQLCHAR *ft,
                                    SQLSMALLINT ftl) {
    Stmt *s = stmt_of(h);
    return guarded(s, [&]() -> SQLRETURN {
        return catalog(*s, static_cast<int>(zb::CatalogFn::ForeignKeys),
                       {ZBD_T(pc, pcl), ZBD_T(ps, psl), ZBD_T(pt, ptl), ZBD_T(fc, fcl),
                        ZBD_T(fs, fsl), ZBD_T(ft, ftl)},
                       {});
    });
}

ZBD_EXPORT SQLRETURN SQLStatistics(SQLHSTMT h, SQLCHAR *c, SQLSMALLINT cl, SQLCHAR *sc,
                                   SQLSMALLINT sl, SQLCHAR *t, SQLSMALLINT tl, SQLUSMALLINT unique,
                                   SQLUSMALLINT reserved) {
    Stmt *s = stmt_of(h);
    return guarded(s, [&]() -> SQLRETURN {
        return catalog(*s, static_cast<int>(zb::CatalogFn::Statistics),
                       {ZBD_T(c, cl), ZBD_T(sc, sl), ZBD_T(t, tl)},
                       {static_cast<int16_t>(unique), static_cast<int16_t>(reserved)});
    });
}

ZBD_EXPORT SQLRETURN SQLSpecialColumns(SQLHSTMT h, SQLUSMALLINT id, SQLCHAR *c, SQLSMALLINT cl,
                                       SQLCHAR *sc, SQLSMALLINT sl, SQLCHAR *t, SQLSMALLINT tl,
                                       SQLUSMALLINT scope, SQLUSMALLINT nullable) {
    Stmt *s = stmt_of(h);
    return guarded(s, [&]() -> SQLRETURN {
        return catalog(*s, static_cast<int>(zb::CatalogFn::SpecialColumns),
                       {ZBD_T(c, cl), ZBD_T(sc, sl), ZBD_T(t, tl)},
                       {static_cast<int16_t>(id), static_cast<int16_t>(scope), static_cast<int16_t>(nullable)});
    });
}

ZBD_EXPORT SQLRETURN SQLProcedures(SQLHSTMT h, SQLCHAR *c, SQLSMALLINT cl, SQLCHAR *sc,
                                   SQLSMALLINT sl, SQLCHAR *p, SQLSMALLINT pl) {
    Stmt *s = stmt_of(h);
    return guarded(s, [&]() -> SQLRETURN {
        return catalog(*s, static_cast<int>(zb::CatalogFn::Procedures),
                       {ZBD_T(c, cl), ZBD_T(sc, sl), ZBD_T(p, pl)}, {});
    });
}

ZBD_EXPORT SQLRETURN SQLProcedureColumns(SQLHSTMT h, SQLCHAR *c, SQLSMALLINT cl, SQLCHAR *sc,
                                         SQLSMALLINT sl, SQLCHAR *p, SQLSMALLINT pl, SQLCHAR *co,
                                         SQLSMALLINT col) {
    Stmt *s = stmt_of(h);
    return guarded(s, [&]() -> SQLRETURN {
        return catalog(*s, static_cast<int>(zb::CatalogFn::ProcedureColumns),
                       {ZBD_T(c, cl), ZBD_T(sc, sl), ZBD_T(p, pl), ZBD_T(co, col)}, {});
    });
}

ZBD_EXPORT SQLRETURN SQLTablePrivileges(SQLHSTMT h, SQLCHAR *c, SQLSMALLINT cl, SQLCHAR *sc,
                                        SQLSMALLINT sl, SQLCHAR *t, SQLSMALLINT tl) {
    Stmt *s = stmt_of(h);
    return guarded(s, [&]() -> SQLRETURN {
        return catalog(*s, static_cast<int>(zb::CatalogFn::TablePrivileges),
                       {ZBD_T(c, cl), ZBD_T(sc, sl), ZBD_T(t, tl)}, {});
    });
}

ZBD_EXPORT SQLRETURN SQLColumnPrivileges(SQLHSTMT h, SQLCHAR *c, SQLSMALLINT cl, SQLCHAR *sc,
                                         SQLSMALLINT sl, SQLCHAR *t, SQLSMALLINT tl, SQLCHAR *co,
                                         SQLSMALLINT col) {
    Stmt *s = stmt_of(h);
    return guarded(s, [&]() -> SQLRETURN {
        return catalog(*s, static_cast<int>(zb::CatalogFn::ColumnPrivileges),
                       {ZBD_T(c, cl), ZBD_T(sc, sl), ZBD_T(t, tl), ZBD_T(co, col)}, {});
    });
}
