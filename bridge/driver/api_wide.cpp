// The UTF-16 entry points. Text is converted here, surrogate pairs included,
// so that characters outside the Basic Multilingual Plane survive on their
// way to and from the target.
#include "driver/api.h"
#include "driver/entry.h"
#include "protocol/protocol.h"

using namespace zbd;

namespace {

OutBuf chars(SQLPOINTER p, SQLLEN capacity) { return OutBuf{p, capacity, true, false}; }
OutBuf bytes(SQLPOINTER p, SQLLEN capacity) { return OutBuf{p, capacity, true, true}; }

Dbc *dbc_of(SQLHDBC h) { return as<Dbc>(h, Kind::Dbc); }
Stmt *stmt_of(SQLHSTMT h) { return as<Stmt>(h, Kind::Stmt); }

Text wt(SQLWCHAR *p, SQLINTEGER n) { return in_wtext(p, n); }

SQLRETURN wide_catalog(SQLHSTMT h, zb::CatalogFn fn, std::vector<Text> texts, std::vector<int16_t> numbers) {
    Stmt *s = stmt_of(h);
    return guarded(s, [&]() -> SQLRETURN { return catalog(*s, static_cast<int>(fn), texts, numbers); });
}

}  // namespace

ZBD_EXPORT SQLRETURN SQLConnectW(SQLHDBC h, SQLWCHAR *dsn, SQLSMALLINT dl, SQLWCHAR *uid,
                                 SQLSMALLINT ul, SQLWCHAR *pwd, SQLSMALLINT pl) {
    Dbc *d = dbc_of(h);
    return guarded(d, [&]() -> SQLRETURN {
        d->wide = true;
        return connect_dsn(*d, wt(dsn, dl), wt(uid, ul), wt(pwd, pl));
    });
}

ZBD_EXPORT SQLRETURN SQLDriverConnectW(SQLHDBC h, SQLHWND, SQLWCHAR *in, SQLSMALLINT il, SQLWCHAR *out,
                                       SQLSMALLINT cap, SQLSMALLINT *len, SQLUSMALLINT) {
    Dbc *d = dbc_of(h);
    return guarded(d, [&]() -> SQLRETURN {
        d->wide = true;
        return connect_with(*d, wt(in, il).value_or(""), chars(out, cap), len);
    });
}

ZBD_EXPORT SQLRETURN SQLSetConnectAttrW(SQLHDBC h, SQLINTEGER attr, SQLPOINTER value, SQLINTEGER len) {
    Dbc *d = dbc_of(h);
    return guarded(d, [&]() -> SQLRETURN {
        SQLINTEGER n = len > 0 ? len / 2 : len;
        return set_connect_attr(*d, attr, value, in_wtext(static_cast<SQLWCHAR *>(value), n));
    });
}

ZBD_EXPORT SQLRETURN SQLGetConnectAttrW(SQLHDBC h, SQLINTEGER attr, SQLPOINTER value, SQLINTEGER cap,
                                        SQLINTEGER *len) {
    Dbc *d = dbc_of(h);
    return guarded(d, [&]() -> SQLRETURN { return get_connect_attr(*d, attr, value, bytes(value, cap), len); });
}

ZBD_EXPORT SQLRETURN SQLSetStmtAttrW(SQLHSTMT h, SQLINTEGER attr, SQLPOINTER value, SQLINTEGER) {
    Stmt *s = stmt_of(h);
    return guarded(s, [&]() -> SQLRETURN { return set_stmt_attr(*s, attr, value); });
}

ZBD_EXPORT SQLRETURN SQLGetStmtAttrW(SQLHSTMT h, SQLINTEGER attr, SQLPOINTER value, SQLINTEGER,
                                     SQLINTEGER *len) {
    Stmt *s = stmt_of(h);
    return guarded(s, [&]() -> SQLRETURN {
        if (len) *len = sizeof(SQLULEN);
        return get_stmt_attr(*s, attr, value);
    });
}

ZBD_EXPORT SQLRETURN SQLGetInfoW(SQLHDBC h, SQLUSMALLINT type, SQLPOINTER value, SQLSMALLINT cap,
                                 SQLSMALLINT *len) {
    Dbc *d = dbc_of(h);
    return guarded(d, [&]() -> SQLRETURN { return get_info(*d, type, bytes(value, cap), len); });
}

ZBD_EXPORT SQLRETURN SQLNativeSqlW(SQLHDBC h, SQLWCHAR *in, SQLINTEGER il, SQLWCHAR *out,
                                   SQLINTEGER cap, SQLINTEGER *len) {
    Dbc *d = dbc_of(h);
    return guarded(d, [&]() -> SQLRETURN { return native_sql(*d, wt(in, il).value_or(""), chars(out, cap), len); });
}

ZBD_EXPORT SQLRETURN SQLPrepareW(SQLHSTMT h, SQLWCHAR *sql, SQLINTEGER len) {
    Stmt *s = stmt_of(h);
    return guarded(s, [&]() -> SQLRETURN { return prepare(*s, wt(sql, len).value_or("")); });
}

ZBD_EXPORT SQLRETURN SQLExecDirectW(SQLHSTMT h, SQLWCHAR *sql, SQLINTEGER len) {
    Stmt *s = stmt_of(h);
    return guarded(s, [&]() -> SQLRETURN { return execute(*s, wt(sql, len).value_or("")); });
}

ZBD_EXPORT SQLRETURN SQLDescribeColW(SQLHSTMT h, SQLUSMALLINT col, SQLWCHAR *name, SQLSMALLINT cap,
                                     SQLSMALLINT *name_len, SQLSMALLINT *type, SQLULEN *size,
                                     SQLSMALLINT *digits, SQLSMALLINT *nullable) {
    Stmt *s = stmt_of(h);
    return guarded(s, [&]() -> SQLRETURN {
        return describe_col(*s, col, chars(name, cap), name_len, type, size, digits, nullable);
    });
}

ZBD_EXPORT SQLRETURN SQLColAttributeW(SQLHSTMT h, SQLUSMALLINT col, SQLUSMALLINT field, SQLPOINTER text,
                                      SQLSMALLINT cap, SQLSMALLINT *len, SQLLEN *number) {
    Stmt *s = stmt_of(h);
    return guarded(s, [&]() -> SQLRETURN { return col_attribute(*s, col, field, bytes(text, cap), len, number); });
}

ZBD_EXPORT SQLRETURN SQLGetDiagRecW(SQLSMALLINT type, SQLHANDLE h, SQLSMALLINT rec, SQLWCHAR *state,
                                    SQLINTEGER *native, SQLWCHAR *msg, SQLSMALLINT cap, SQLSMALLINT *len) {
    Handle *handle = diag_handle(type, h);
    if (handle == nullptr) return SQL_INVALID_HANDLE;
    return get_diag_rec(*handle, rec, chars(state, 6), native, chars(msg, cap), len);
}

ZBD_EXPORT SQLRETURN SQLGetDiagFieldW(SQLSMALLINT type, SQLHANDLE h, SQLSMALLINT rec, SQLSMALLINT field,
                                      SQLPOINTER value, SQLSMALLINT cap, SQLSMALLINT *len) {
    Handle *handle = diag_handle(type, h);
    if (handle == nullptr) return SQL_INVALID_HANDLE;
    return get_diag_field(*handle, type, rec, field, value, bytes(value, cap), len);
}

ZBD_EXPORT SQLRETURN SQLErrorW(SQLHENV env, SQLHDBC dbc, SQLHSTMT stmt, SQLWCHAR *state,
                               SQLINTEGER *native, SQLWCHAR *msg, SQLSMALLINT cap, SQLSMALLINT *len) {
    Handle *handle = stmt ? diag_handle(SQL_HANDLE_STMT, stmt)
                     : dbc ? diag_handle(SQL_HANDLE_DBC, dbc)
                           : diag_handle(SQL_HANDLE_ENV, env);
    if (handle == nullptr) return SQL_INVALID_HANDLE;
    return error_record(*handle, chars(state, 6), native, chars(msg, cap), len);
}

ZBD_EXPORT SQLRETURN SQLGetTypeInfoW(SQLHSTMT h, SQLSMALLINT type) {
    return wide_catalog(h, zb::CatalogFn::GetTypeInfo, {}, {type});
}

ZBD_EXPORT SQLRETURN SQLTablesW(SQLHSTMT h, SQLWCHAR *c, SQLSMALLINT cl, SQLWCHAR *sc, SQLSMALLINT sl,
                                SQLWCHAR *t, SQLSMALLINT tl, SQLWCHAR *ty, SQLSMALLINT tyl) {
    return wide_catalog(h, zb::CatalogFn::Tables, {wt(c, cl), wt(sc, sl), wt(t, tl), wt(ty, tyl)}, {});
}

ZBD_EXPORT SQLRETURN SQLColumnsW(SQLHSTMT h, SQLWCHAR *c, SQLSMALLINT cl, SQLWCHAR *sc, SQLSMALLINT sl,
                                 SQLWCHAR *t, SQLSMALLINT tl, SQLWCHAR *co, SQLSMALLINT col) {
    return wide_catalog(h, zb::CatalogFn::Columns, {wt(c, cl), wt(sc, sl), wt(t, tl), wt(co, col)}, {});
}

ZBD_EXPORT SQLRETURN SQLPrimaryKeysW(SQLHSTMT h, SQLWCHAR *c, SQLSMALLINT cl, SQLWCHAR *sc,
                                     SQLSMALLINT sl, SQLWCHAR *t, SQLSMALLINT tl) {
    return wide_catalog(h, zb::CatalogFn::PrimaryKeys, {wt(c, cl), wt(sc, sl), wt(t, tl)}, {});
}

ZBD_EXPORT SQLRETURN SQLForeignKeysW(SQLHSTMT h, SQLWCHAR *pc, SQLSMALLINT pcl, SQLWCHAR *ps,
                                     SQLSMALLINT psl, SQLWCHAR *pt, SQLSMALLINT ptl, SQLWCHAR *fc,
                                     SQLSMALLINT fcl, SQLWCHAR *fs, SQLSMALLINT fsl, SQLWCHAR *ft,
                                     SQLSMALLINT ftl) {
    return wide_catalog(h, zb::CatalogFn::ForeignKeys,
                        {wt(pc, pcl), wt(ps, psl), wt(pt, ptl), wt(fc, fcl), wt(fs, fsl), wt(ft, ftl)}, {});
}

ZBD_EXPORT SQLRETURN SQLStatisticsW(SQLHSTMT h, SQLWCHAR *c, SQLSMALLINT cl, SQLWCHAR *sc,
                                    SQLSMALLINT sl, SQLWCHAR *t, SQLSMALLINT tl, SQLUSMALLINT unique,
                                    SQLUSMALLINT reserved) {
    return wide_catalog(h, zb::CatalogFn::Statistics, {wt(c, cl), wt(sc, sl), wt(t, tl)},
                        {static_cast<int16_t>(unique), static_cast<int16_t>(reserved)});
}

ZBD_EXPORT SQLRETURN SQLSpecialColumnsW(SQLHSTMT h, SQLUSMALLINT id, SQLWCHAR *c, SQLSMALLINT cl,
                                        SQLWCHAR *sc, SQLSMALLINT sl, SQLWCHAR *t, SQLSMALLINT tl,
                                        SQLUSMALLINT scope, SQLUSMALLINT nullable) {
    return wide_catalog(h, zb::CatalogFn::SpecialColumns, {wt(c, cl), wt(sc, sl), wt(t, tl)},
                        {static_cast<int16_t>(id), static_cast<int16_t>(scope), static_cast<int16_t>(nullable)});
}

ZBD_EXPORT SQLRETURN SQLProceduresW(SQLHSTMT h, SQLWCHAR *c, SQLSMALLINT cl, SQLWCHAR *sc,
                                    SQLSMALLINT sl, SQLWCHAR *p, SQLSMALLINT pl) {
    return wide_catalog(h, zb::CatalogFn::Procedures, {wt(c, cl), wt(sc, sl), wt(p, pl)}, {});
}

ZBD_EXPORT SQLRETURN SQLProcedureColumnsW(SQLHSTMT h, SQLWCHAR *c, SQLSMALLINT cl, SQLWCHAR *sc,
                                          SQLSMALLINT sl, SQLWCHAR *p, SQLSMALLINT pl, SQLWCHAR *co,
                                          SQLSMALLINT col) {
    return wide_catalog(h, zb::CatalogFn::ProcedureColumns, {wt(c, cl), wt(sc, sl), wt(p, pl), wt(co, col)}, {});
}

ZBD_EXPORT SQLRETURN SQLTablePrivilegesW(SQLHSTMT h, SQLWCHAR *c, SQLSMALLINT cl, SQLWCHAR *sc,
                                         SQLSMALLINT sl, SQLWCHAR *t, SQLSMALLINT tl) {
    return wide_catalog(h, zb::CatalogFn::TablePrivileges, {wt(c, cl), wt(sc, sl), wt(t, tl)}, {});
}

ZBD_EXPORT SQLRETURN SQLColumnPrivilegesW(SQLHSTMT h, SQLWCHAR *c, SQLSMALLINT cl, SQLWCHAR *sc,
                                          SQLSMALLINT sl, SQLWCHAR *t, SQLSMALLINT tl, SQLWCHAR *co,
                                          SQLSMALLINT col) {
    return wide_catalog(h, zb::CatalogFn::ColumnPrivileges, {wt(c, cl), wt(sc, sl), wt(t, tl), wt(co, col)}, {});
}
