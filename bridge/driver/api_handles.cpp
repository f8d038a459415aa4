// Handle allocation and release, environment attributes, SQLGetFunctions.
#include <cstring>

#include "driver/api.h"
#include "driver/entry.h"

using namespace zbd;

namespace {

SQLRETURN alloc_handle(SQLSMALLINT type, SQLHANDLE input, SQLHANDLE *output) {
    if (output == nullptr) return SQL_ERROR;
    switch (type) {
    case SQL_HANDLE_ENV:
        *output = new (std::nothrow) Env();
        return *output != nullptr ? SQL_SUCCESS : SQL_ERROR;
    case SQL_HANDLE_DBC: {
        Env *env = as<Env>(input, Kind::Env);
        if (env == nullptr) return SQL_INVALID_HANDLE;
        return guarded(env, [&]() -> SQLRETURN {
            auto *dbc = new Dbc(env);
            env->connections.insert(dbc);
            *output = dbc;
            return SQL_SUCCESS;
        });
    }
    case SQL_HANDLE_STMT: {
        Dbc *dbc = as<Dbc>(input, Kind::Dbc);
        return guarded(dbc, [&]() -> SQLRETURN { return alloc_stmt(*dbc, output); });
    }
    case SQL_HANDLE_DESC: {
        Dbc *dbc = as<Dbc>(input, Kind::Dbc);
        return guarded(dbc, [&]() -> SQLRETURN { return add_diag(*dbc, "HYC00", "Optional feature not implemented"); });
    }
    default:
        return SQL_ERROR;
    }
}

SQLRETURN free_handle(SQLSMALLINT type, SQLHANDLE h) {
    switch (type) {
    case SQL_HANDLE_ENV: {
        Env *env = as<Env>(h, Kind::Env);
        return guarded(env, [&]() -> SQLRETURN {
            if (!env->connections.empty()) return add_diag(*env, "HY010", "Function sequence error");
            env->kind = Kind{};
            delete env;
            return SQL_SUCCESS;
        });
    }
    case SQL_HANDLE_DBC: {
        Dbc *dbc = as<Dbc>(h, Kind::Dbc);
        if (dbc == nullptr) return SQL_INVALID_HANDLE;
        std::lock_guard<std::recursive_mutex> environment(*dbc->env->lock);
        return guarded(dbc, [&]() -> SQLRETURN {
            if (dbc->rpc != nullptr) return add_diag(*dbc, "HY010", "Function sequence error");
            dbc->env->connections.erase(dbc);
            dbc->kind = Kind{};
            delete dbc;
            return SQL_SUCCESS;
        });
    }
    case SQL_HANDLE_STMT: {
        Stmt *s = as<Stmt>(h, Kind::Stmt);
        if (s == nullptr) return SQL_INVALID_HANDLE;
        Dbc *dbc = s->dbc;
        // The statement is gone afterwards: report through the connection.
        SQLRETURN rc = guarded(s, [&]() -> SQLRETURN { return free_stmt(*s, SQL_DROP); });
        (void)dbc;
        return rc;
    }
    default:
        return SQL_ERROR;
    }
}

// The functions this driver exports.
constexpr SQLUSMALLINT kFunctions[] = {
    SQL_API_SQLALLOCHANDLE, SQL_API_SQLALLOCCONNECT, SQL_API_SQLALLOCENV, SQL_API_SQLALLOCSTMT,
    SQL_API_SQLFREEHANDLE, SQL_API_SQLFREECONNECT, SQL_API_SQLFREEENV, SQL_API_SQLFREESTMT,
    SQL_API_SQLSETENVATTR, SQL_API_SQLGETENVATTR, SQL_API_SQLCONNECT, SQL_API_SQLDRIVERCONNECT,
    SQL_API_SQLDISCONNECT, SQL_API_SQLGETFUNCTIONS, SQL_API_SQLGETINFO, SQL_API_SQLSETCONNECTATTR,
    SQL_API_SQLGETCONNECTATTR, SQL_API_SQLSETSTMTATTR, SQL_API_SQLGETSTMTATTR, SQL_API_SQLPREPARE,
    SQL_API_SQLEXECUTE, SQL_API_SQLEXECDIRECT, SQL_API_SQLNUMPARAMS, SQL_API_SQLDESCRIBEPARAM,
    SQL_API_SQLBINDPARAMETER, SQL_API_SQLPARAMDATA, SQL_API_SQLPUTDATA, SQL_API_SQLNUMRESULTCOLS,
    SQL_API_SQLDESCRIBECOL, SQL_API_SQLCOLATTRIBUTE, SQL_API_SQLFETCH, SQL_API_SQLGETDATA,
    SQL_API_SQLROWCOUNT, SQL_API_SQLMORERESULTS, SQL_API_SQLENDTRAN, SQL_API_SQLERROR,
    SQL_API_SQLGETDIAGREC, SQL_API_SQLGETDIAGFIELD, SQL_API_SQLGETTYPEINFO, SQL_API_SQLTABLES,
    SQL_API_SQLCOLUMNS, SQL_API_SQLBINDCOL, SQL_API_SQLFETCHSCROLL, SQL_API_SQLCLOSECURSOR,
    SQL_API_SQLCANCEL, SQL_API_SQLNATIVESQL, SQL_API_SQLPRIMARYKEYS, SQL_API_SQLFOREIGNKEYS,
    SQL_API_SQLSTATISTICS, SQL_API_SQLSPECIALCOLUMNS, SQL_API_SQLPROCEDURES,
    SQL_API_SQLPROCEDURECOLUMNS, SQL_API_SQLTABLEPRIVILEGES, SQL_API_SQLCOLUMNPRIVILEGES,
};

bool supported(SQLUSMALLINT id) {
    for (auto f : kFunctions)
        if (f == id) return true;
    return false;
}

}  // namespace

ZBD_EXPORT SQLRETURN SQLAllocHandle(SQLSMALLINT type, SQLHANDLE input, SQLHANDLE *output) {
    return alloc_handle(type, input, output);
}
ZBD_EXPORT SQLRETURN SQLAllocEnv(SQLHENV *env) { return alloc_handle(SQL_HANDLE_ENV, nullptr, env); }
ZBD_EXPORT SQLRETURN SQLAllocConnect(SQLHENV env, SQLHDBC *dbc) { return alloc_handle(SQL_HANDLE_DBC, env, dbc); }
ZBD_EXPORT SQLRETURN SQLAllocStmt(SQLHDBC dbc, SQLHSTMT *stmt) { return alloc_handle(SQL_HANDLE_STMT, dbc, stmt); }
ZBD_EXPORT SQLRETURN SQLFreeHandle(SQLSMALLINT type, SQLHANDLE h) { return free_handle(type, h); }
ZBD_EXPORT SQLRETURN SQLFreeEnv(SQLHENV env) { return free_handle(SQL_HANDLE_ENV, env); }
ZBD_EXPORT SQLRETURN SQLFreeConnect(SQLHDBC dbc) { return free_handle(SQL_HANDLE_DBC, dbc); }

ZBD_EXPORT SQLRETURN SQLFreeStmt(SQLHSTMT h, SQLUSMALLINT option) {
    Stmt *s = as<Stmt>(h, Kind::Stmt);
    if (option == SQL_DROP) return free_handle(SQL_HANDLE_STMT, h);
    return guarded(s, [&]() -> SQLRETURN { return free_stmt(*s, option); });
}

ZBD_EXPORT SQLRETURN SQLSetEnvAttr(SQLHENV h, SQLINTEGER attr, SQLPOINTER value, SQLINTEGER) {
    Env *env = as<Env>(h, Kind::Env);
    return guarded(env, [&]() -> SQLRETURN {
        const auto v = static_cast<SQLINTEGER>(reinterpret_cast<intptr_t>(value));
        if (attr == SQL_ATTR_ODBC_VERSION) env->odbc_version = v;
        else if (attr != SQL_ATTR_OUTPUT_NTS && attr != SQL_ATTR_CONNECTION_POOLING &&
                 attr != SQL_ATTR_CP_MATCH)
            return add_diag(*env, "HY092", "Invalid attribute/option identifier");
        return SQL_SUCCESS;
    });
}

ZBD_EXPORT SQLRETURN SQLGetEnvAttr(SQLHENV h, SQLINTEGER attr, SQLPOINTER value, SQLINTEGER,
                                   SQLINTEGER *length) {
    Env *env = as<Env>(h, Kind::Env);
    return guarded(env, [&]() -> SQLRETURN {
        SQLINTEGER v = attr == SQL_ATTR_ODBC_VERSION ? env->odbc_version
                       : attr == SQL_ATTR_OUTPUT_NTS  ? SQL_TRUE
                                                      : 0;
        if (value) *static_cast<SQLINTEGER *>(value) = v;
        if (length) *length = sizeof v;
        return SQL_SUCCESS;
    });
}

ZBD_EXPORT SQLRETURN SQLGetFunctions(SQLHDBC h, SQLUSMALLINT id, SQLUSMALLINT *out) {
    Dbc *dbc = as<Dbc>(h, Kind::Dbc);
    return guarded(dbc, [&]() -> SQLRETURN {
        if (out == nullptr) return SQL_SUCCESS;
        if (id == SQL_API_ODBC3_ALL_FUNCTIONS) {
            std::memset(out, 0, SQL_API_ODBC3_ALL_FUNCTIONS_SIZE * sizeof(SQLUSMALLINT));
            for (auto f : kFunctions) out[f >> 4] |= static_cast<SQLUSMALLINT>(1 << (f & 0xF));
        } else if (id == SQL_API_ALL_FUNCTIONS) {
            std::memset(out, 0, 100 * sizeof(SQLUSMALLINT));
            for (auto f : kFunctions)
                if (f < 100) out[f] = SQL_TRUE;
        } else {
            *out = supported(id) ? SQL_TRUE : SQL_FALSE;
        }
        return SQL_SUCCESS;
    });
}
