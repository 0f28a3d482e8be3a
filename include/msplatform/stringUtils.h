// String helpers of the platform layer.
//
// StrCaseCmp and StrnCaseCmp compare names without regard to ASCII case, as strcasecmp and strncasecmp do;
// configuration names and media format properties are compared through them.
#pragma once

#include <stddef.h>

#include "msplatform/export.h"

MSP_EXPORT int StrCaseCmp(const char* a, const char* b);
MSP_EXPORT int StrnCaseCmp(const char* a, const char* b, size_t length);

MSP_EXTERN_C_BEGIN

// Byte-wise helpers on zero-terminated strings, exported under their plain names. Arguments must be valid
// strings unless said otherwise; what a function returns from malloc belongs to the caller, who frees it.

// Position of the first (last) occurrence of `needle` in `text`, -1 if there is none. An empty needle is
// found at 0 (at the text's length), but IndexOf finds nothing at all in an empty text.
MSP_EXPORT int IndexOf(const char* text, const char* needle);
MSP_EXPORT int LastIndexOf(const char* text, const char* needle);

// A new copy of `text` (null gives an empty string), or null when memory runs out.
MSP_EXPORT char* MakeStrcpy(const char* text);

// Cuts `text` at its first carriage return or line feed, wherever it stands.
MSP_EXPORT void StrChomp(char* text);

// The whole file in a new buffer of its size plus a zero byte; `*count` receives the bytes read (also after
// a short read, which gives null). Null, with `*count` untouched, if the file can't be opened, its size
// can't be told or exceeds INT_MAX, or memory runs out. `count` may be null.
MSP_EXPORT char* cpyfilebuf(const char* path, int* count);

// The extension of the last path element, as a pointer into `path` at its dot; null if there is none or
// `path` is null. Both '/' and '\\' end the last element.
MSP_EXPORT char* GetFileExtension(char* path);

// 1 if `text` starts with `prefix` (ends with `suffix`), else 0; compared without regard to ASCII case if
// `ignoreCase` is set. An empty prefix or suffix always matches.
MSP_EXPORT int StartsWith(const char* text, const char* prefix, int ignoreCase);
MSP_EXPORT int EndsWith(const char* text, const char* suffix, int ignoreCase);

// Percent-escaping for HTTP URLs: letters, digits and / @ ; : = + $ - _ . * stand for themselves, every
// other byte becomes "%XX". HTTPUrlEscape has no bound: `destination` must hold HTTPUrlEscapeLength(source)
// bytes. Both give that count, terminator included.
MSP_EXPORT int HTTPUrlEscape(char* destination, const char* source);
MSP_EXPORT int HTTPUrlEscapeLength(const char* source);

// Decodes "%" and the two bytes behind it (read as strtol reads them in base 16, low 8 bits kept) in place
// and gives the decoded length. No terminator is written: the old bytes stay behind the decoded ones, so
// use the result, not strlen.
MSP_EXPORT int HTTPUrlUnEscape(char* text);

MSP_EXTERN_C_END
