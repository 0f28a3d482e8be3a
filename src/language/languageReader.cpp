#include "msplatform/languageReader.h"

#include <limits.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <new>

#include "language/internal.h"
#include "msplatform/ZvCfgCtrlMgr.h"
#include "msplatform/mutex.h"
#include "os/mutexHold.h"
#include "os/openForReading.h"
#include "msplatform/xmlParser.h"

void* (*languageReaderCalloc)(size_t count, size_t size) = calloc;

namespace {

// The configuration functions take writable names; these are never written.
char kSection[] = "LANGUAGE";
char kPathKey[] = "languageFilePath";
char kLanguageKey[] = "currentLanguage";

// Bytes of the language file's path, terminator included.
constexpr int kPathSize = 256;

// Whether the node's name begins with `word` (names are not terminated).
bool nameStartsWith(const xml_node* node, const char* word) {
    size_t length = strlen(word);
    return node->nameLength >= 0 && static_cast<size_t>(node->nameLength) >= length &&
           memcmp(node->name, word, length) == 0;
}

bool endsLanguageScan(const xml_node* node) {
    return !node->isStart && nameStartsWith(node, "Languages");
}

bool isLanguageName(const xml_node* node) {
    return node->isStart && nameStartsWith(node, "Name");
}

// One "Name" start node of the scan, and what xml_ReadInnerXML gives for it.
struct NameRead {
    const xml_node* node;
    size_t level;  // open start nodes, itself included, where it stands
    size_t below;  // the read of the name open under it, or kNoRead
    char* inner;
    int length;  // 0: no inner text, or no closing node that matches
};
constexpr size_t kNoRead = SIZE_MAX;

// Finds what xml_ReadInnerXML gives for each of the `count` "Name" start nodes of the scan, in one walk:
// called per name, its walks nest, and those of nested unclosed names each run to the end of the list. The
// walk for a name ends at the closing node that brings the count of open start nodes back under the name's
// level; it matches if it bears the same name.
void readNames(const xml_node* first, NameRead* reads, size_t count) {
    size_t open = 0;
    size_t met = 0;
    size_t top = kNoRead;  // the innermost name still open
    for (const xml_node* node = first; node && (met < count || top != kNoRead); node = node->next) {
        if (node->isStart) {
            ++open;
            if (met < count && isLanguageName(node)) {
                reads[met] = {node, open, top, nullptr, 0};
                top = met++;
            }
            continue;
        }
        if (open == 0) continue;  // closes nothing that a name's walk counts
        if (top != kNoRead && reads[top].level == open) {
            NameRead& read = reads[top];
            const xml_node* name = read.node;
            if (node->nameLength == name->nameLength && node->name &&
                memcmp(node->name, name->name, static_cast<size_t>(name->nameLength)) == 0) {
                const ptrdiff_t length = node->position - name->position - 1;
                if (length > 0) {
                    read.inner = name->position;
                    read.length = length > INT_MAX ? INT_MAX : static_cast<int>(length);
                }
            }
            top = read.below;
        }
        --open;
    }
}

void releaseTerm(termInfo* term) {
    if (!term) return;
    free(term->id);
    free(term->value);
    free(term);
}

// A terminated, unescaped copy of `length` bytes at `source`; null if memory runs out.
char* unescapedCopy(const char* source, int length) {
    char* copy = static_cast<char*>(languageReaderCalloc(static_cast<size_t>(length) + 1, 1));
    if (!copy) return nullptr;
    memcpy(copy, source, static_cast<size_t>(length));
    xml_InPlaceXmlUnEscape(copy);
    return copy;
}

}  // namespace

ZvLanguageReader::ZvLanguageReader()
    : currentLanguage(nullptr),
      supportedLanguages(nullptr),
      languagesCount(0),
      termsCount(0),
      termInfoList(nullptr),
      languageInfoList(nullptr),
      mutex(new (std::nothrow) Mutex("languageReader")) {}

ZvLanguageReader::~ZvLanguageReader() {
    deinitialize();
}

int ZvLanguageReader::initialize(char* configPath) {
    MutexHold hold(mutex);
    char languageFilePath[kPathSize] = {};
    char* text = nullptr;
    xml_node* nodes = nullptr;
    int result = 0;
    try {
        if (loadConfigValues(configPath, languageFilePath) != 1)
            throw "Loading Configuration values Failed !!!";
        int size = copyXMLFileBuffer(languageFilePath, &text);
        if (size == 0 || !text) throw "Copying XML buffer Failed !!!";
        nodes = copyBufferToXMLNode(text, size);
        if (!nodes) throw "Copying buffer to xmlnode Failed !!!";
        languagesCount = loadLanguagesList(nodes);
        if (languagesCount == 0) throw "Supported Languages list not found !!!";
        termsCount = loadTermTableContents(nodes);
        if (termsCount == 0) throw "Listing TermTable contents failed !!!";
        result = 1;
    } catch (const char* why) {
        fprintf(stderr, "initialize exception : %s", why);
    }
    free(text);
    xml_DestructXMLNodeList(nodes);
    return result;
}

void ZvLanguageReader::deinitialize() {
    if (mutex) mutex->lock();
    free(currentLanguage);
    free(supportedLanguages);
    currentLanguage = nullptr;
    supportedLanguages = nullptr;
    languagesCount = 0;
    termsCount = 0;
    clearLanguageNodes();
    clearTermInfoNodes();
    if (mutex) {
        mutex->unlock();
        delete mutex;  // removes the semaphore for every process: the reader stays without a lock
    }
    mutex = nullptr;
    termInfoList = nullptr;
    languageInfoList = nullptr;
}

char* ZvLanguageReader::getTermInfobyID(char const* id) {
    if (!id) return nullptr;
    MutexHold hold(mutex);
    for (termInfo* term = termInfoList; term; term = term->next) {
        if (term->id && strcmp(term->id, id) == 0) return term->value;
    }
    return nullptr;
}

char* ZvLanguageReader::getSupportedLanguages() {
    return supportedLanguages;
}

int ZvLanguageReader::loadConfigValues(char* configPath, char* languageFilePath) {
    int initialized = 0;
    int result = 0;
    try {
        if (!configPath) throw "Configuration File Path empty !!!";
        initialized = initializeConfig(configPath);
        if (initialized != CFG_OK && initialized != CFG_ALREADY_INITIALIZED)
            throw "Initialization of config module failed !!!";
        int length = 0;
        if (getConfigStringLen(kSection, kPathKey, length) != CFG_OK)
            throw "GetConfigStringLen failed while getting language filepath !!!";
        // The copy writes length bytes and a terminator: a longer path would not fit the caller's buffer.
        if (length < 0 || length >= kPathSize) throw "Language file path too long !!!";
        if (getConfigString(kSection, kPathKey, reinterpret_cast<unsigned char*>(languageFilePath), length) !=
            CFG_OK)
            throw "GetConfigString failed while getting language filepath !!!";
        if (getConfigStringLen(kSection, kLanguageKey, length) != CFG_OK || length < 0)
            throw "GetConfigStringLen failed while getting current language !!!";
        free(currentLanguage);
        currentLanguage = static_cast<char*>(languageReaderCalloc(static_cast<size_t>(length) + 1, 1));
        if (!currentLanguage) throw "Not enough memory found !!!";
        if (getConfigString(kSection, kLanguageKey, reinterpret_cast<unsigned char*>(currentLanguage),
                            length) != CFG_OK)
            throw "GetConfigString failed while getting current language !!!";
        result = 1;
    } catch (const char* why) {
        fprintf(stderr, "loadConfigValues: %s", why);
        free(currentLanguage);
        currentLanguage = nullptr;
    }
    if (initialized == CFG_OK) deinitializeConfig();
    return result;
}

int ZvLanguageReader::copyXMLFileBuffer(char* path, char** text) {
    if (!text) return 0;
    FILE* file = nullptr;
    try {
        file = path ? OpenForReading(path) : nullptr;
        if (!file) throw "File Open Error";
        fseeko64(file, 0, SEEK_END);
        off64_t size = ftello64(file);
        fseeko64(file, 0, SEEK_SET);
        // A size that can't be told (a directory, a pipe) or that the int result can't carry is not a file to
        // load.
        if (size < 0 || size >= INT_MAX) throw "Language file read failed !!!";
        *text = static_cast<char*>(languageReaderCalloc(static_cast<size_t>(size) + 1, 1));
        if (!*text) throw "Not enough memory found !!!";
        if (fread(*text, 1, static_cast<size_t>(size), file) < static_cast<size_t>(size))
            throw "Language file read failed !!!";
        fclose(file);
        return static_cast<int>(size);
    } catch (const char* why) {
        fprintf(stderr, "copyXMLFileBuffer exception : %s", why);
        free(*text);
        *text = nullptr;
        if (file) fclose(file);
        return 0;
    }
}

xml_node* ZvLanguageReader::copyBufferToXMLNode(char* text, int length) {
    try {
        if (!text) throw "Buffer is NULL !!!";
        xml_node* nodes = xml_ParseXML(text, 0, length);
        if (!nodes) throw "xml_ParseXML Failed !!!";
        // An unbalanced file still loads what its links allow.
        xml_ProcessXMLNodeList(nodes);
        return nodes;
    } catch (const char* why) {
        fprintf(stderr, "copyBufferToXMLNode: %s", why);
        return nullptr;
    }
}

int ZvLanguageReader::loadLanguagesList(xml_node* first) {
    free(supportedLanguages);
    supportedLanguages = nullptr;
    // The scan takes every "Name" start node up to the first closing "Languages" node.
    size_t names = 0;
    for (const xml_node* node = first; node && !endsLanguageScan(node); node = node->next)
        names += isLanguageName(node) ? 1 : 0;
    if (names == 0) return 0;
    NameRead* reads = static_cast<NameRead*>(languageReaderCalloc(names, sizeof(NameRead)));
    if (!reads) return 0;
    readNames(first, reads, names);

    // Nested names overlap, so the texts may add up to more than the file, even beyond what a size can
    // hold: that is a list no memory holds.
    int count = 0;
    size_t bytes = 1;
    for (size_t i = 0; i < names && bytes != 0; ++i) {
        if (reads[i].length <= 0) continue;
        const size_t more = static_cast<size_t>(reads[i].length) + 1;
        bytes = more <= SIZE_MAX - bytes ? bytes + more : 0;
        ++count;
    }
    char* joined = count > 0 && bytes != 0 ? static_cast<char*>(languageReaderCalloc(bytes, 1)) : nullptr;
    if (joined) {
        char* end = joined;
        for (size_t i = 0; i < names; ++i) {
            if (reads[i].length <= 0) continue;
            memcpy(end, reads[i].inner, static_cast<size_t>(reads[i].length));
            end += reads[i].length;
            *end++ = '|';
        }
        supportedLanguages = joined;
    } else {
        count = 0;
    }
    free(reads);
    return count;
}

xml_node* ZvLanguageReader::skipHeaderTags(xml_node* first) {
    for (xml_node* node = first; node; node = node->next) {
        if (nameStartsWith(node, "Header")) return node->peer;
    }
    return nullptr;
}

int ZvLanguageReader::loadTermTableContents(xml_node* first) {
    xml_node* node = skipHeaderTags(first);
    if (!node) return 0;

    // Terms go behind those of earlier loads; the tail is found once, not per term.
    termInfo* tail = termInfoList;
    while (tail && tail->next) tail = tail->next;

    int count = 0;
    int depth = 0;
    xml_node* termClosing = nullptr;
    termInfo* current = nullptr;
    bool behindTerm = false;  // the node behind a term's closing tag is taken as a term, whatever its kind
    while (node) {
        if (!node->isStart && !behindTerm) {
            // The first child's closing tag completes the term; the rest of the term is skipped, its other
            // children are reached through the peer links.
            if (depth == 3 && current) {
                (tail ? tail->next : termInfoList) = current;
                tail = current;
                current = nullptr;
                ++count;
            }
            while (node && node != termClosing) node = node->next;
            if (!node) break;
            depth = 1;
            node = node->next;
            behindTerm = true;
            continue;
        }
        behindTerm = false;
        ++depth;
        if (depth == 2) {
            termClosing = node->closingTag;
            releaseTerm(current);
            current = static_cast<termInfo*>(languageReaderCalloc(1, sizeof(termInfo)));
            if (current) assignTermID(node, &current->id);
        } else if (depth == 3 && current) {
            assignTermValue(node, &current->value);
        }
        node = node->next;
    }
    releaseTerm(current);
    return count;
}

void ZvLanguageReader::assignTermID(xml_node* term, char** id) {
    // Only the last attribute counts: the list comes in reverse order.
    xml_attribute* attributes = xml_GetXMLAttributes(term);
    try {
        if (!attributes) throw "Attributes not found in the tag!!!";
        if (attributes->nameLength == 0 || attributes->valueLength == 0)
            throw "Attribute name or value is zero length !!!";
        if (strncmp(attributes->name, "ID", static_cast<size_t>(attributes->nameLength)) != 0)
            throw "ID Attribute not found in the tag !!!";
        // The value's first and last byte are its quotes, whatever they are; a value of one byte has no two
        // bytes to lose and gives the empty identifier.
        int length = attributes->valueLength >= 2 ? attributes->valueLength - 2 : 0;
        *id = unescapedCopy(attributes->value + 1, length);
    } catch (const char*) {
        // The term goes on without an identifier.
    }
    xml_DestructXMLAttributeList(attributes);
}

void ZvLanguageReader::assignTermValue(xml_node* firstChild, char** value) {
    if (!currentLanguage) return;
    size_t languageLength = strlen(currentLanguage);
    for (xml_node* child = firstChild; child; child = child->peer) {
        // "En" counts for "English", "EnglishUK" does not.
        if (child->nameLength < 0 || static_cast<size_t>(child->nameLength) > languageLength ||
            memcmp(child->name, currentLanguage, static_cast<size_t>(child->nameLength)) != 0)
            continue;
        char* inner = nullptr;
        int length = xml_ReadInnerXML(child, &inner);
        if (length > 0) *value = unescapedCopy(inner, length);
        return;
    }
}

void ZvLanguageReader::addTermInfoNode(termInfo* term) {
    termInfo** link = &termInfoList;
    while (*link) link = &(*link)->next;
    *link = term;
}

void ZvLanguageReader::clearTermInfoNodes() {
    while (termInfoList) {
        termInfo* next = termInfoList->next;
        releaseTerm(termInfoList);
        termInfoList = next;
    }
}

void ZvLanguageReader::addLanguageNode(languageInfo* language) {
    languageInfo** link = &languageInfoList;
    while (*link) link = &(*link)->next;
    *link = language;
}

void ZvLanguageReader::clearLanguageNodes() {
    while (languageInfoList) {
        languageInfo* next = languageInfoList->next;
        free(languageInfoList->languageName);
        free(languageInfoList);
        languageInfoList = next;
    }
}

xml_node* ZvLanguageReader::skipToNextTerm(xml_node* node) {
    for (int i = 0; i < languagesCount && node; ++i) {
        node = node->next;
        if (node) node = node->next;
    }
    return node;
}
