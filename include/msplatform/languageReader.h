// The language reader: the translated terms of one language, loaded from an XML language file.
//
// `initialize` reads "LANGUAGE"/"languageFilePath" and "LANGUAGE"/"currentLanguage" from the configuration,
// loads the file once and keeps copies of the terms of the current language. Texts handed out stay the
// reader's own, valid until `deinitialize`. A lock named "languageReader", shared by every process on the
// machine, guards loads and lookups; `deinitialize` removes it for good.
#pragma once

#include "msplatform/export.h"

class Mutex;
struct xml_node;

// One term of the current language.
struct termInfo {
    char* id;        // terminated, unescaped identifier; null if the tag gave no usable ID
    char* value;     // terminated, unescaped text in the current language; null if there is none
    termInfo* next;  // next term, in file order
};

// A language name; nothing in the library fills this list.
struct languageInfo {
    char* languageName;  // released with the record if not null
    languageInfo* next;
};

class MSP_EXPORT ZvLanguageReader {
public:
    ZvLanguageReader();
    ~ZvLanguageReader();
    ZvLanguageReader(const ZvLanguageReader&) = delete;
    ZvLanguageReader& operator=(const ZvLanguageReader&) = delete;

    // Loads the language file named in the configuration at `configPath`. 1 on success, 0 on failure, with
    // the reason printed to stderr.
    int initialize(char* configPath);
    // Releases every term and removes the lock for all processes; later calls run without a lock.
    void deinitialize();

    // The text of the term `id` (not null) in the current language; null if it has none or does not exist.
    char* getTermInfobyID(char const* id);
    // Every language name of the file, each followed by '|'; null if there is none.
    char* getSupportedLanguages();

    // The steps of a load, in the order `initialize` runs them.
    int loadConfigValues(char* configPath, char* languageFilePath);
    int copyXMLFileBuffer(char* path, char** text);
    xml_node* copyBufferToXMLNode(char* text, int length);
    int loadLanguagesList(xml_node* first);
    xml_node* skipHeaderTags(xml_node* first);
    int loadTermTableContents(xml_node* first);
    void assignTermID(xml_node* term, char** id);
    void assignTermValue(xml_node* firstChild, char** value);

    void addTermInfoNode(termInfo* term);
    void clearTermInfoNodes();
    void addLanguageNode(languageInfo* language);
    void clearLanguageNodes();
    xml_node* skipToNextTerm(xml_node* node);

    char* currentLanguage;           // the currentLanguage setting; null before a load
    char* supportedLanguages;        // "English|Deutsch|"; null if the file names none
    int languagesCount;              // names in supportedLanguages
    int termsCount;                  // terms the last load added
    termInfo* termInfoList;          // guarded by mutex; file order, earlier loads first
    languageInfo* languageInfoList;  // guarded by mutex
    Mutex* mutex;                    // "languageReader"; null after deinitialize
};
