// ZvString: one zero-terminated narrow string on the heap, for the server processes.
//
// A plain wrapper: no capacity, no stored length, no locking (one thread at a time per object). It is in one
// of three states: null (no buffer: after default construction, erase, or assigning null), empty (a buffer
// holding one zero byte), or text. Null and empty differ: appending to a null string does nothing, a null
// string compares unequal to everything, and c_str() gives null for it.
//
// Ownership: the object owns its buffer (malloc). c_str() lends it; substr() hands out a new malloc buffer
// that the caller releases with free.
#pragma once

#include "msplatform/export.h"

class MSP_EXPORT ZvString {
public:
    // Null.
    ZvString();
    // A copy of `text`; null for a null argument.
    ZvString(char* text);
    // A copy of the other's text; null if the other is null.
    ZvString(ZvString& other);
    ~ZvString();

    // Moves, so that a result can be assigned or passed on (c = a + b): the buffer changes hands and the
    // other string is null afterwards. Inline, outside the library's binary interface.
    ZvString(ZvString&& other) noexcept : str(other.str) { other.str = nullptr; }
    ZvString& operator=(ZvString&& other) noexcept {
        if (&other != this) {
            InternalDeallocate(str);
            str = other.str;
            other.str = nullptr;
        }
        return *this;
    }

    // The object's own buffer, or null for a null string; valid until the next change.
    char* c_str();
    // strlen of the text; 0 for null.
    unsigned int length();
    // 1 for null or empty, else 0.
    int empty();
    // Frees the buffer: the string is null afterwards, not empty.
    void erase();

    // In-place edits; each returns the buffer (null for a null string).
    char* strrev();
    char* tolower();
    char* toupper();

    // Takes `set` as a set of bytes: the position of the first byte of the text that is in it, or the length
    // when none is (also for a null set). 0 for a null string.
    unsigned int find(char* set);

    // 1 if both are texts and strcmp gives 0; a null string equals nothing, not even another null string.
    int operator==(char* text);
    int operator==(ZvString& other);

    // The byte at `index` if index < length() - 1, else 0: the last byte can't be reached this way. 0 on a
    // null or empty string.
    char operator[](unsigned int index);

    // Copies `text` (null makes the string null). Assigning the string's own text, or a tail of it, keeps
    // that text. If memory runs out, the string is null afterwards.
    ZvString& operator=(char* text);
    ZvString& operator=(ZvString& other);

    // Appends into a new buffer of exact size; does nothing on a null string or a null argument. A string may
    // be appended to itself. If memory runs out, the string keeps its text.
    ZvString& operator+=(char* text);
    ZvString& operator+=(ZvString& other);
    ZvString& append(char* text);
    ZvString& append(ZvString& other);

    // A new string: a copy of this one with `right` appended. Null if this string is null.
    ZvString operator+(ZvString& right);
    ZvString operator+(char* right);

    // The bytes from `start` up to, not including, `end`, in a new zeroed buffer of 2 * length() + 1 bytes
    // that the caller frees with free. An empty text if start >= end. Positions are kept inside the text
    // (start below 0 counts as 0, end beyond the text as its length). A null string gives an empty text in a
    // one-byte buffer. Null only if memory runs out.
    char* substr(int start, int end);

    // A block of `size` zeroed bytes: realloc of `old` when it isn't null (its content is not kept), malloc
    // otherwise. Null if memory runs out, in which case `old` is still allocated.
    char* InternalAllocate(char* old, unsigned int size);
    // Frees `block` unless it is null.
    void InternalDeallocate(char* block);

private:
    char* str;  // the text in a malloc buffer owned by the object, or null
};
