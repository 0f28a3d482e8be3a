#include "msplatform/ZvLanguageReader.h"

// Built at load after the configuration manager and the event logger.
ZvLanguageReader languageReader __attribute__((init_priority(1003)));

int initializeLanguageReader(char* configPath) {
    return languageReader.initialize(configPath);
}

void deinitializeLanguageReader() {
    languageReader.deinitialize();
}

char* getSupportedLanguages() {
    return languageReader.getSupportedLanguages();
}

char const* Tx(char const* fallback, char const* id) {
    char const* text = languageReader.getTermInfobyID(id);
    return text ? text : fallback;
}
