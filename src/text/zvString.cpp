#include "msplatform/zvString.h"

#include <limits.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <cctype>

#include "text/internal.h"

namespace msptext {

namespace {
void* SystemReallocate(void* old, size_t size) {
    return old != nullptr ? ::realloc(old, size) : ::malloc(size);
}
}  // namespace

Reallocate zvStringReallocate = SystemReallocate;

}  // namespace msptext

namespace {

// A block without the wipe: for callers that overwrite every byte anyway.
char* RawAllocate(char* old, size_t size) {
    return static_cast<char*>(msptext::zvStringReallocate(old, size));
}

// Whether `p` points into the text of `own` (its terminator included). Scans at most up to p, and never
// beyond own's terminator.
bool PointsIntoText(const char* own, const char* p) {
    const uintptr_t base = reinterpret_cast<uintptr_t>(own);
    const uintptr_t at = reinterpret_cast<uintptr_t>(p);
    if (own == nullptr || at < base) return false;
    const size_t offset = at - base;
    return ::strnlen(own, offset) == offset;
}

}  // namespace

ZvString::ZvString() : str(nullptr) {}

ZvString::ZvString(char* text) : str(nullptr) {
    *this = text;
}

ZvString::ZvString(ZvString& other) : str(nullptr) {
    *this = other.str;
}

ZvString::~ZvString() {
    InternalDeallocate(str);
    str = nullptr;
}

char* ZvString::c_str() {
    return str;
}

unsigned int ZvString::length() {
    return str != nullptr ? static_cast<unsigned int>(::strlen(str)) : 0;
}

int ZvString::empty() {
    return str == nullptr || str[0] == 0 ? 1 : 0;
}

void ZvString::erase() {
    InternalDeallocate(str);
    str = nullptr;
}

char* ZvString::strrev() {
    if (str == nullptr || str[0] == 0) return str;
    char* low = str;
    char* high = str + ::strlen(str) - 1;
    while (low < high) {
        const char byte = *low;
        *low++ = *high;
        *high-- = byte;
    }
    return str;
}

char* ZvString::tolower() {
    if (str == nullptr) return str;
    for (char* p = str; *p != 0; ++p) {
        const unsigned char byte = static_cast<unsigned char>(*p);
        if (std::isupper(byte)) *p = static_cast<char>(std::tolower(byte));
    }
    return str;
}

char* ZvString::toupper() {
    if (str == nullptr) return str;
    for (char* p = str; *p != 0; ++p) {
        const unsigned char byte = static_cast<unsigned char>(*p);
        if (std::islower(byte)) *p = static_cast<char>(std::toupper(byte));
    }
    return str;
}

unsigned int ZvString::find(char* set) {
    if (str == nullptr) return 0;
    // An absent set holds no byte: no byte of the text is in it.
    if (set == nullptr) return static_cast<unsigned int>(::strlen(str));
    return static_cast<unsigned int>(::strcspn(str, set));
}

int ZvString::operator==(char* text) {
    return str != nullptr && text != nullptr && ::strcmp(str, text) == 0 ? 1 : 0;
}

int ZvString::operator==(ZvString& other) {
    return *this == other.str;
}

char ZvString::operator[](unsigned int index) {
    // index < length - 1 holds exactly when the bytes up to index + 1 are all text; strnlen checks that
    // without measuring the whole string. The top two indexes can't pass on any string.
    if (str == nullptr || index >= UINT_MAX - 1) return 0;
    const size_t needed = static_cast<size_t>(index) + 2;
    return ::strnlen(str, needed) == needed ? str[index] : 0;
}

ZvString& ZvString::operator=(char* text) {
    if (text == nullptr) {
        erase();
        return *this;
    }
    if (text == str) return *this;  // s = s, s = s.c_str(): the text is already there
    const size_t size = ::strlen(text) + 1;
    if (PointsIntoText(str, text)) {
        // A tail of the own text: reallocating would wipe or move it before the copy.
        ::memmove(str, text, size);
        return *this;
    }
    char* block = RawAllocate(str, size);
    if (block == nullptr) {
        // Out of memory: realloc left the old block in place; the string becomes null.
        InternalDeallocate(str);
        str = nullptr;
        return *this;
    }
    ::memcpy(block, text, size);
    str = block;
    return *this;
}

ZvString& ZvString::operator=(ZvString& other) {
    return *this = other.str;
}

ZvString& ZvString::operator+=(char* text) {
    if (str == nullptr || text == nullptr) return *this;
    const size_t own = ::strlen(str);
    const size_t added = ::strlen(text);
    if (added > SIZE_MAX - 1 - own) return *this;  // can't be held: same as running out of memory
    char* block = RawAllocate(nullptr, own + added + 1);
    if (block == nullptr) return *this;  // out of memory: the text stays as it was
    // The old buffer goes only after the copy, so `text` may be (a part of) this very string.
    ::memcpy(block, str, own);
    ::memcpy(block + own, text, added + 1);
    InternalDeallocate(str);
    str = block;
    return *this;
}

ZvString& ZvString::operator+=(ZvString& other) {
    return *this += other.str;
}

ZvString& ZvString::append(char* text) {
    return *this += text;
}

ZvString& ZvString::append(ZvString& other) {
    return *this += other.str;
}

ZvString ZvString::operator+(ZvString& right) {
    return *this + right.str;
}

ZvString ZvString::operator+(char* right) {
    ZvString result(str);
    result += right;
    return result;
}

char* ZvString::substr(int start, int end) {
    const size_t length = str != nullptr ? ::strlen(str) : 0;
    if (length > (UINT_MAX - 1) / 2) return nullptr;  // the size wouldn't fit the allocator's argument
    char* block = InternalAllocate(nullptr, static_cast<unsigned int>(2 * length + 1));
    if (block == nullptr) return nullptr;
    // Kept inside the text, so that no position read lies outside the own buffer.
    const size_t from = start > 0 ? static_cast<size_t>(start) : 0;
    const size_t to = end > 0 ? (static_cast<size_t>(end) < length ? static_cast<size_t>(end) : length) : 0;
    if (from < to) ::memcpy(block, str + from, to - from);
    return block;
}

char* ZvString::InternalAllocate(char* old, unsigned int size) {
    // At least one byte: realloc to zero bytes would free `old` and give null, which would read as running
    // out of memory with `old` still held.
    char* block = RawAllocate(old, size > 0 ? size : 1);
    if (block != nullptr) ::memset(block, 0, size);
    return block;
}

void ZvString::InternalDeallocate(char* block) {
    if (block != nullptr) ::free(block);
}
