// Conversions between the three forms of text: CHAR (one byte per character, no encoding), UTF8 (UTF-8 bytes,
// as file names lie on disk) and UCS (one 32-bit wchar_t per character). Every form ends with a zero element.
//
// No function allocates and none is told the size of its output: the caller owns both buffers and sizes the
// output for the worst case, terminator included:
//   Convert_CHAR_UCS (two arguments)    strlen(source) + 1 units
//   Convert_CHAR_UCS (three arguments)  count + 1 units (1 unit for a count of zero or below)
//   Convert_UCS_UTF8                    3 bytes per source unit + 1 byte
//   Convert_UTF8_UCS                    strlen(source) + 1 units
//   Convert_UCS_CHAR                    wcslen(source) + 1 bytes
//
// Results leave the terminator out. A null source or destination gives -1 and writes nothing. Bad input is
// never reported: it converts as described below. No function keeps state; any thread may call them.
#pragma once

#include <wchar.h>

#include "msplatform/export.h"

// Widens each byte, taken as 0..255, to one unit; nothing is decoded. Ends at the source's terminator.
// Returns the units written.
MSP_EXPORT int Convert_CHAR_UCS(const char* source, wchar_t* destination);

// Widens exactly `count` bytes: a zero byte among them becomes a zero unit and doesn't end the copy.
// Returns the count, or 0 (only the terminator written) for a count of zero or below.
MSP_EXPORT int Convert_CHAR_UCS(const char* source, wchar_t* destination, int count);

// Encodes the low 16 bits of each unit as one to three bytes; four-byte sequences are never written, and
// 0xD800..0xDFFF encode like their neighbours. A unit whose low 16 bits are zero gives a zero byte, which is
// counted. Returns the bytes written.
MSP_EXPORT int Convert_UCS_UTF8(const wchar_t* source, unsigned char* destination);

// Decodes by lead byte, testing only the top bit of the byte after it. A byte that doesn't start a sequence
// (0x80..0xBF, or a lead byte followed by a byte below 0x80) stands for itself, so lone Latin-1 bytes keep
// their value. Leads 0xF0..0xFF take four bytes and can give units above 0xFFFF. A sequence cut by the end of
// the text takes each missing byte, and the terminator itself, as a zero byte; nothing behind the terminator
// is read. Returns the units written.
MSP_EXPORT int Convert_UTF8_UCS(const unsigned char* source, wchar_t* destination);

// Narrows each unit to its low 8 bits, without any mark for what is dropped. Returns the bytes written.
MSP_EXPORT int Convert_UCS_CHAR(const wchar_t* source, char* destination);

// Swaps the two low bytes of each unit in place, dropping bits 16..31, and stops at the first unit whose
// second byte is zero (it keeps only its low byte; the units behind it stay as they are). Returns the length
// the text had on entry; -1 for a null pointer.
MSP_EXPORT int Change_BOM(wchar_t* text);

// Counts the characters in `length` bytes of UTF-8 by lead bytes alone (0xF0..0xFF: 4 bytes, 0xE0..0xEF: 3,
// 0xC0..0xDF: 2, others: 1); the bytes behind a lead are never read and a zero byte counts as a character.
// Matches what Convert_UTF8_UCS gives for well-formed text only. 0 for a length of zero or below, or a null
// buffer.
MSP_EXPORT int UCS_Length(const unsigned char* buffer, int length);
