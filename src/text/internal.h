// What the modules of text/ share with their tests.
#pragma once

#include <stddef.h>

namespace msptext {

// Every block ZvString takes comes through here, with realloc's contract (a null `old` asks for a fresh
// block). The tests swap it to make memory run out.
using Reallocate = void* (*)(void* old, size_t size);
extern Reallocate zvStringReallocate;

}  // namespace msptext
