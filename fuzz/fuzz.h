// What the fuzz targets share: inputs in heap blocks of exactly their size, so that the address sanitizer
// stops a read one byte past them, and a check that stops the run with a message.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <memory>

namespace mspfuzz {

struct FreeDeleter {
    void operator()(void* p) const { free(p); }
};
template <class T>
using Block = std::unique_ptr<T[], FreeDeleter>;

// `count` elements of T on the heap, zeroed; at least one byte is allocated, so that a block of none still
// has an address the sanitizer watches.
template <class T>
Block<T> Alloc(size_t count) {
    void* p = calloc(count ? count : 1, sizeof(T));
    if (!p) abort();
    return Block<T>(static_cast<T*>(p));
}

// The bytes as they are, in a block of exactly their size.
inline Block<char> Exact(const uint8_t* data, size_t size) {
    Block<char> b = Alloc<char>(size);
    if (size) memcpy(b.get(), data, size);
    return b;
}

// The bytes with a terminator behind them; a zero byte inside ends the text early.
inline Block<char> Terminated(const uint8_t* data, size_t size) {
    Block<char> b = Alloc<char>(size + 1);
    if (size) memcpy(b.get(), data, size);
    return b;
}

[[noreturn]] inline void Fail(const char* file, int line, const char* what) {
    fprintf(stderr, "%s:%d: check failed: %s\n", file, line, what);
    abort();
}

}  // namespace mspfuzz

#define FUZZ_CHECK(cond) ((cond) ? (void)0 : ::mspfuzz::Fail(__FILE__, __LINE__, #cond))
