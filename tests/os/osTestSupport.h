// The os tests swap entries of the library's system-call table; this puts the real ones back.
#pragma once

#include "os/internal.h"
#include "support/support.h"

struct SystemCallsGuard {
    OsSystemCalls saved = osSystemCalls;
    ~SystemCallsGuard() { osSystemCalls = saved; }
};
