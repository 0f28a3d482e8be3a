// String helpers of the platform layer.
//
// StrCaseCmp and StrnCaseCmp compare names without regard to ASCII case, as strcasecmp and strncasecmp do;
// configuration names and media format properties are compared through them.
#pragma once

#include <stddef.h>

#include "msplatform/export.h"

MSP_EXPORT int StrCaseCmp(const char* a, const char* b);
MSP_EXPORT int StrnCaseCmp(const char* a, const char* b, size_t length);
