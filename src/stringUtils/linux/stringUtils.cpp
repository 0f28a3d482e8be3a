#include "msplatform/stringUtils.h"

#include <strings.h>

int StrCaseCmp(const char* a, const char* b) { return ::strcasecmp(a, b); }

int StrnCaseCmp(const char* a, const char* b, size_t length) { return ::strncasecmp(a, b, length); }
