// What the modules of the media format map share with each other and with their tests.
#pragma once

#include <stddef.h>

// Every allocation of a format record or of one of its texts goes through this pointer (malloc by
// default), so that tests can make it fail.
extern void* (*mediaMapperAlloc)(size_t size);
