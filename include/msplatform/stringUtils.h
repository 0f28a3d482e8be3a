// String helpers of the platform layer.
//
// StrCaseCmp and StrnCaseCmp compare names without regard to ASCII case, as strcasecmp and strncasecmp do;
// configuration names and media format properties are compared through them.
#pragma once

#include <stddef.h>

#include "msplatform/export.h"

// These have C++ linkage: a C program sees only the helpers further down, and a call to these is flagged
// when it compiles, not when it links.
#ifdef __cplusplus

MSP_EXPORT int StrCaseCmp(const char* a, const char* b);
MSP_EXPORT int StrnCaseCmp(const char* a, const char* b, size_t length);

// Bounded conversions into and out of UTF-8. No state, no allocation.
//
// Every destination size is in units of the destination (bytes, or 16-bit units for Utf8ToWide) and must be
// at least 1; a smaller size writes nothing and gives 0. Otherwise the output always ends with a zero unit.
//
// Utf8ToAnsi keeps the two-byte sequences whose value fits one byte (Latin-1) and drops every other
// multi-byte sequence; Utf8ToWide keeps all that fits 16 bits and drops the four-byte sequences. Neither
// checks continuation bytes, neither reads behind the source's terminator: a sequence cut by the end gives
// what it would give with zero bytes in place of the missing ones, and the conversion ends there. Leads 0xF8
// to 0xFF are passed over as four-byte sequences. The result counts the units written, terminator excluded.
MSP_EXPORT int Utf8ToAnsi(char* destination, const char* source, int size);
MSP_EXPORT int Utf8ToWide(unsigned short* destination, const char* source, int size);

// One-byte (Latin-1) or 16-bit text (units of two bytes, low byte first, when `isWide` is set) up to UTF-8.
//
// strUtf8Len gives the bytes the UTF-8 form takes, terminator included; with `escape` set, the bytes of the
// URI form, in which all but letters, digits and . / : _ ? are written "%x" (lower case, no padding, so a
// tab is "%9"). Sums beyond INT_MAX give INT_MAX.
//
// _strToUtf8 writes that form into `destination` of `size` bytes and gives the length written, terminator
// excluded; `count`, if not null, receives the number of UTF-8 bytes converted before escaping. A character
// or escape is only begun when it fits with room to spare, and the last byte written before a stop is given
// back to the terminator: give strUtf8Len + 2 bytes for plain text, strUtf8Len bytes for the URI form. A size
// below 1 writes nothing to the destination and gives 0, with a count of 0.
MSP_EXPORT int strUtf8Len(const char* source, int isWide, int escape);
MSP_EXPORT int _strToUtf8(char* destination, const char* source, int size, int isWide, int* count,
                          int escape);
MSP_EXPORT int strToUtf8(char* destination, const char* source, int size, int isWide, int* count);
MSP_EXPORT int strToEscapedUri(char* destination, const char* source, int size, int isWide, int* count);

#endif  // __cplusplus

MSP_EXTERN_C_BEGIN

// Byte-wise helpers on zero-terminated strings, exported under their plain names. Arguments must be valid
// strings unless said otherwise; what a function returns from malloc belongs to the caller, who frees it.

// Position of the first (last) occurrence of `needle` in `text`, -1 if there is none. An empty needle is
// found at 0 (at the text's length), but IndexOf finds nothing at all in an empty text. Both take time
// linear in the two lengths.
MSP_EXPORT int IndexOf(const char* text, const char* needle);
MSP_EXPORT int LastIndexOf(const char* text, const char* needle);

// A new copy of `text` (null gives an empty string), or null when memory runs out.
MSP_EXPORT char* MakeStrcpy(const char* text);

// Cuts `text` at its first carriage return or line feed, wherever it stands.
MSP_EXPORT void StrChomp(char* text);

// The whole file in a new buffer of its size plus a zero byte; `*count` receives the bytes read (also after
// a short read, which gives null). Null, with `*count` untouched and nothing allocated, if the file can't be
// opened, is a directory, its size can't be told or exceeds INT_MAX; null, with `*count` untouched, if
// memory runs out. `count` may be null.
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
// bytes. Both give that count, terminator included, or -1 when it exceeds INT_MAX (a source of about 716 MB
// or more): no destination can be sized from the count then.
MSP_EXPORT int HTTPUrlEscape(char* destination, const char* source);
MSP_EXPORT int HTTPUrlEscapeLength(const char* source);

// Decodes "%" and the two bytes behind it (read as strtol reads them in base 16, low 8 bits kept) in place
// and gives the decoded length. No terminator is written: the old bytes stay behind the decoded ones, so
// use the result, not strlen.
MSP_EXPORT int HTTPUrlUnEscape(char* text);

MSP_EXTERN_C_END
