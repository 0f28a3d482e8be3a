// Dynamic libraries for the server processes' plug-ins, under plain (C) names.
//
// Thin wrappers over the dynamic loader; nothing inside the platform layer calls them. The library does not
// link the loader itself: a host that calls these is linked with it.
#pragma once

#include "msplatform/export.h"

MSP_EXTERN_C_BEGIN

// Opens a library with lazy binding. The handle, or null on failure.
MSP_EXPORT void* dlibLoadLibrary(const char* path);

// Closes a handle of dlibLoadLibrary. 0 on success, nonzero otherwise.
MSP_EXPORT int dlibFreeLibrary(void* handle);

// The address of `name` in the library, or null if it has none.
MSP_EXPORT void* dlibGetFunction(void* handle, const char* name);

MSP_EXTERN_C_END
