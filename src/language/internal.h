// Shared by the language reader's modules and its tests; not part of the public interface.
#pragma once

#include <stddef.h>

// Every allocation of the reader goes through here (calloc by default). Tests swap it to make one fail.
extern void* (*languageReaderCalloc)(size_t count, size_t size);
