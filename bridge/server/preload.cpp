// Loads the drivers of the data sources this server serves into the parent
// process, so that every forked child finds them already mapped and
// relocated: the driver manager's load of a driver is most of the cost of a
// connection otherwise.
#include <dlfcn.h>
#include <sql.h>
#include <sqlext.h>

#include <string>
#include <vector>

#include "server/session.h"
#include "server/wide.h"

namespace zbs {
namespace {

std::vector<std::string> served_dsns(const Config &config) {
    if (!config.allowed_dsns.empty()) return {config.allowed_dsns.begin(), config.allowed_dsns.end()};
    std::vector<std::string> names;
    SQLHENV env = SQL_NULL_HENV;
    if (!SQL_SUCCEEDED(SQLAllocHandle(SQL_HANDLE_ENV, SQL_NULL_HANDLE, &env))) return names;
    SQLSetEnvAttr(env, SQL_ATTR_ODBC_VERSION, reinterpret_cast<SQLPOINTER>(SQL_OV_ODBC3), 0);
    SQLCHAR name[SQL_MAX_DSN_LENGTH + 1], description[256];
    SQLSMALLINT name_len = 0, description_len = 0;
    for (SQLUSMALLINT direction = SQL_FETCH_FIRST;
         SQL_SUCCEEDED(SQLDataSources(env, direction, name, sizeof name, &name_len, description,
                                      sizeof description, &description_len));
         direction = SQL_FETCH_NEXT)
        names.emplace_back(reinterpret_cast<char *>(name));
    SQLFreeHandle(SQL_HANDLE_ENV, env);
    return names;
}

}  // namespace

void preload_drivers(const Config &config) {
    for (const std::string &dsn : served_dsns(config)) {
        const std::string driver = driver_library(dsn);
        if (driver.empty()) continue;
        // Kept loaded for the life of the process; a library that cannot be
        // loaded here is left for the connection to report.
        (void)dlopen(driver.c_str(), RTLD_NOW | RTLD_LOCAL);
    }
}

}  // namespace zbs
