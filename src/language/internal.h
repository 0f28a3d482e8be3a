// Shared by the language reader's modules and its tests; not part of the public interface.
#pragma once

#include <stddef.h>

// Allocates the term records and their texts. Tests swap it to make an allocation fail.
extern void* (*languageReaderCalloc)(size_t count, size_t size);
