// Flat functions over the process's one language reader, `languageReader`.
//
// A server process calls initializeLanguageReader once with its configuration file, then Tx as often as it
// likes. The texts Tx gives are the reader's own, valid until deinitializeLanguageReader.
#pragma once

#include "msplatform/export.h"
#include "msplatform/languageReader.h"

MSP_EXPORT extern ZvLanguageReader languageReader;

// 1 on success, 0 on failure (the reason goes to stderr).
MSP_EXPORT int initializeLanguageReader(char* configPath);
MSP_EXPORT void deinitializeLanguageReader();
// "English|Deutsch|": borrowed from the reader; null before a load.
MSP_EXPORT char* getSupportedLanguages();
// The text of term `id` in the current language, else `fallback` itself. `id` must not be null.
MSP_EXPORT char const* Tx(char const* fallback, char const* id);
