// What the string helpers share with their tests, never with callers (hidden symbols).
#pragma once

#include <stddef.h>

namespace mspstring {

// Every block the string helpers hand out comes from here (malloc by default); the tests swap it to make
// memory run out.
extern void* (*allocate)(size_t size);

}  // namespace mspstring
