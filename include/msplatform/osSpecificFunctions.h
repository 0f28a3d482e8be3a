// Sleep wrapper of the platform layer.
#pragma once

#include "msplatform/export.h"

// Sleeps the calling thread for `microseconds` (not milliseconds), as usleep does. 0 or -1.
MSP_EXPORT int OS_Sleep(int microseconds);
