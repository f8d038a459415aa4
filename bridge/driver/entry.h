// The one place where an ODBC entry point turns internal failure into a
// return code: no exception leaves the driver.
#pragma once

#include <mutex>
#include <new>
#include <stdexcept>

#include "driver/remote.h"

namespace zbd {

// Runs body for handle h (cleared of the previous call's diagnostics), with
// the calls on its connection (or environment) held off.
// REQUIRES: h is a live handle of the kind the entry point takes, or null.
template <typename Body>
SQLRETURN guarded(Handle *h, Body &&body) {
    if (h == nullptr) return SQL_INVALID_HANDLE;
    const CallLock lock = h->lock;  // a free of h leaves it to us
    std::lock_guard<std::recursive_mutex> one_at_a_time(*lock);
    h->diag.clear();
    try {
        return body();  // h may be gone now (a free)
    } catch (const std::bad_alloc &) {
        return add_diag(*h, "HY001", "Memory allocation error");
    } catch (const std::exception &e) {
        return add_diag(*h, "HY000", e.what());
    } catch (...) {
        return add_diag(*h, "HY000", "internal error");
    }
}

}  // namespace zbd

// Entry points are exported with C linkage under their ODBC names.
#define ZBD_EXPORT extern "C" __attribute__((visibility("default")))
