#include "protocol/odbc_kinds.h"

#include <sql.h>
#include <sqlext.h>

namespace zb {

ValueKind info_kind(int t) {
    switch (t) {
    case SQL_ACCESSIBLE_PROCEDURES: case SQL_ACCESSIBLE_TABLES: case SQL_CATALOG_NAME:
    case SQL_CATALOG_NAME_SEPARATOR: case SQL_CATALOG_TERM: case SQL_COLLATION_SEQ:
    case SQL_COLUMN_ALIAS: case SQL_DATA_SOURCE_NAME: case SQL_DATA_SOURCE_READ_ONLY:
    case SQL_DATABASE_NAME: case SQL_DBMS_NAME: case SQL_DBMS_VER: case SQL_DESCRIBE_PARAMETER:
    case SQL_DM_VER: case SQL_DRIVER_NAME: case SQL_DRIVER_ODBC_VER: case SQL_DRIVER_VER:
    case SQL_EXPRESSIONS_IN_ORDERBY: case SQL_IDENTIFIER_QUOTE_CHAR: case SQL_INTEGRITY:
    case SQL_KEYWORDS: case SQL_LIKE_ESCAPE_CLAUSE: case SQL_MAX_ROW_SIZE_INCLUDES_LONG:
    case SQL_MULT_RESULT_SETS: case SQL_MULTIPLE_ACTIVE_TXN: case SQL_NEED_LONG_DATA_LEN:
    case SQL_ODBC_VER: case SQL_ORDER_BY_COLUMNS_IN_SELECT: case SQL_OUTER_JOINS:
    case SQL_PROCEDURE_TERM: case SQL_PROCEDURES: case SQL_ROW_UPDATES: case SQL_SCHEMA_TERM:
    case SQL_SEARCH_PATTERN_ESCAPE: case SQL_SERVER_NAME: case SQL_SPECIAL_CHARACTERS:
    case SQL_TABLE_TERM: case SQL_USER_NAME: case SQL_XOPEN_CLI_YEAR:
        return ValueKind::Text;
    case SQL_ACTIVE_ENVIRONMENTS: case SQL_CATALOG_LOCATION: case SQL_CONCAT_NULL_BEHAVIOR:
    case SQL_CORRELATION_NAME: case SQL_CURSOR_COMMIT_BEHAVIOR: case SQL_CURSOR_ROLLBACK_BEHAVIOR:
    case SQL_FILE_USAGE: case SQL_GROUP_BY: case SQL_IDENTIFIER_CASE:
    case SQL_MAX_CATALOG_NAME_LEN: case SQL_MAX_COLUMN_NAME_LEN: case SQL_MAX_COLUMNS_IN_GROUP_BY:
    case SQL_MAX_COLUMNS_IN_INDEX: case SQL_MAX_COLUMNS_IN_ORDER_BY: case SQL_MAX_COLUMNS_IN_SELECT:
    case SQL_MAX_COLUMNS_IN_TABLE: case SQL_MAX_CONCURRENT_ACTIVITIES: case SQL_MAX_CURSOR_NAME_LEN:
    case SQL_MAX_DRIVER_CONNECTIONS: case SQL_MAX_IDENTIFIER_LEN: case SQL_MAX_PROCEDURE_NAME_LEN:
    case SQL_MAX_SCHEMA_NAME_LEN: case SQL_MAX_TABLE_NAME_LEN: case SQL_MAX_TABLES_IN_SELECT:
    case SQL_MAX_USER_NAME_LEN: case SQL_NON_NULLABLE_COLUMNS: case SQL_NULL_COLLATION:
    case SQL_QUOTED_IDENTIFIER_CASE: case SQL_TXN_CAPABLE: case SQL_ODBC_API_CONFORMANCE:
    case SQL_ODBC_SQL_CONFORMANCE: case SQL_ODBC_SAG_CLI_CONFORMANCE:
        return ValueKind::Int16;
    case SQL_DRIVER_HDBC: case SQL_DRIVER_HENV: case SQL_DRIVER_HSTMT: case SQL_DRIVER_HDESC:
    case SQL_DRIVER_HLIB:
        return ValueKind::Word;
    default:
        return ValueKind::Int32;
    }
}

bool col_attribute_is_text(int f) {
    switch (f) {
    case SQL_DESC_BASE_COLUMN_NAME: case SQL_DESC_BASE_TABLE_NAME: case SQL_DESC_CATALOG_NAME:
    case SQL_DESC_LABEL: case SQL_DESC_LITERAL_PREFIX: case SQL_DESC_LITERAL_SUFFIX:
    case SQL_DESC_LOCAL_TYPE_NAME: case SQL_DESC_NAME: case SQL_DESC_SCHEMA_NAME:
    case SQL_DESC_TABLE_NAME: case SQL_DESC_TYPE_NAME: case SQL_COLUMN_NAME:
        return true;
    default:
        return false;
    }
}

bool connect_attr_is_text(int a) {
    return a == SQL_ATTR_CURRENT_CATALOG || a == SQL_ATTR_TRACEFILE || a == SQL_ATTR_TRANSLATE_LIB;
}

bool stmt_attr_is_local(int a) {
    switch (a) {
    case SQL_ATTR_ROW_ARRAY_SIZE: case SQL_ATTR_ROW_BIND_TYPE: case SQL_ATTR_ROW_BIND_OFFSET_PTR:
    case SQL_ATTR_ROW_STATUS_PTR: case SQL_ATTR_ROWS_FETCHED_PTR: case SQL_ATTR_PARAMSET_SIZE:
    case SQL_ATTR_PARAM_BIND_TYPE: case SQL_ATTR_PARAM_BIND_OFFSET_PTR:
    case SQL_ATTR_PARAM_STATUS_PTR: case SQL_ATTR_PARAMS_PROCESSED_PTR:
    case SQL_ATTR_APP_ROW_DESC: case SQL_ATTR_APP_PARAM_DESC: case SQL_ATTR_IMP_ROW_DESC:
    case SQL_ATTR_IMP_PARAM_DESC:
        return true;
    default:
        return false;
    }
}

// ODBC 3.8 attributes these headers may not name.
constexpr int kAsyncStmtPcallback = 30, kAsyncStmtPcontext = 31;
constexpr int kDbcInfoToken = 118, kAsyncDbcEvent = 119, kAsyncDbcPcallback = 120,
              kAsyncDbcPcontext = 121;

bool stmt_attr_is_refused(int a) {
    return stmt_attr_is_local(a) || a == SQL_ATTR_FETCH_BOOKMARK_PTR || a == SQL_ATTR_ROW_OPERATION_PTR ||
           a == SQL_ATTR_ASYNC_STMT_EVENT || a == kAsyncStmtPcallback || a == kAsyncStmtPcontext;
}

bool connect_attr_is_refused(int a) {
    switch (a) {
    case SQL_ATTR_TRACE: case SQL_ATTR_TRACEFILE: case SQL_ATTR_TRANSLATE_LIB:
    case SQL_ATTR_TRANSLATE_OPTION: case SQL_ATTR_QUIET_MODE: case SQL_ATTR_ENLIST_IN_DTC:
    case SQL_ATTR_ENLIST_IN_XA: case kDbcInfoToken: case kAsyncDbcEvent: case kAsyncDbcPcallback:
    case kAsyncDbcPcontext:
        return true;
    default:
        return false;
    }
}

int c_type_fixed_size(int c) {
    switch (c) {
    case SQL_C_BIT: case SQL_C_TINYINT: case SQL_C_STINYINT: case SQL_C_UTINYINT:
        return 1;
    case SQL_C_SHORT: case SQL_C_SSHORT: case SQL_C_USHORT:
        return 2;
    case SQL_C_LONG: case SQL_C_SLONG: case SQL_C_ULONG: case SQL_C_FLOAT:
        return 4;
    case SQL_C_SBIGINT: case SQL_C_UBIGINT: case SQL_C_DOUBLE:
        return 8;
    case SQL_C_DATE: case SQL_C_TYPE_DATE: case SQL_C_TIME: case SQL_C_TYPE_TIME:
        return 6;
    case SQL_C_TIMESTAMP: case SQL_C_TYPE_TIMESTAMP:
        return static_cast<int>(sizeof(SQL_TIMESTAMP_STRUCT));
    case SQL_C_NUMERIC:
        return static_cast<int>(sizeof(SQL_NUMERIC_STRUCT));
    case SQL_C_GUID:
        return static_cast<int>(sizeof(SQLGUID));
    default:
        if (c >= SQL_C_INTERVAL_YEAR && c <= SQL_C_INTERVAL_MINUTE_TO_SECOND)
            return static_cast<int>(sizeof(SQL_INTERVAL_STRUCT));
        return 0;
    }
}

}  // namespace zb
