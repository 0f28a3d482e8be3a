#include "msplatform/mediaMapper.h"

#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <mutex>
#include <new>

#include "media/internal.h"
#include "msplatform/mutex.h"
#include "msplatform/stringUtils.h"
#include "msplatform/xmlParser.h"

void* (*mediaMapperAlloc)(size_t size) = malloc;

namespace {

const char kFormatFile[] = "MediaFormats.xml";

std::mutex firstLoadLock;  // held through a load, by the threads of this process

// The lookup's work limits: an extension of at most 55 bytes, and the first 1023 bytes of a record's
// extension list. A joined plug-in list holds at most 1023 bytes with its last comma.
constexpr size_t kMaxExtension = 55;
constexpr size_t kMaxExtensionList = 1023;
constexpr size_t kMaxPluginList = 1023;

// Holds the mapper's lock for a scope; nothing happens while the mapper has no Mutex.
class MapperLock {
public:
    explicit MapperLock(MediaMapper& mapper) : mapper_(mapper) { mapper_.LockMutex(); }
    ~MapperLock() { mapper_.UnlockMutex(); }
    MapperLock(const MapperLock&) = delete;
    MapperLock& operator=(const MapperLock&) = delete;

private:
    MediaMapper& mapper_;
};

// The properties in the order they are tried: a tag matches the first property of which it is a
// case-independent prefix, so "M" is MimeType and "Med" is MediaType. A text property names the field
// that keeps its text; the values of the other two are mapped to a byte.
enum Treatment { kText, kMediaTypeValue, kTranscodeValue };
struct Property {
    const char* name;
    Treatment treatment;
    char* MediaFormatInfo::*field;  // for kText
};
const Property kProperties[] = {
    {"FormatName", kText, &MediaFormatInfo::formatName},
    {"Extensions", kText, &MediaFormatInfo::extensions},
    {"MimeType", kText, &MediaFormatInfo::mimeType},
    {"MediaType", kMediaTypeValue, nullptr},
    {"DLNA_Class", kText, &MediaFormatInfo::dlnaClass},
    {"DLNA_Profile", kText, &MediaFormatInfo::dlnaProfile},
    {"Transcode", kTranscodeValue, nullptr},
    {"Parser", kText, &MediaFormatInfo::parserName},
    {"DAP", kText, &MediaFormatInfo::dapName},
};

const struct {
    const char* value;
    char mediaType;
} kMediaTypes[] = {
    {"CLASS_AUDIO_ITEM", 'a'}, {"AUDIO", 'a'}, {"a", 'a'},  //
    {"CLASS_VIDEO_ITEM", 'v'}, {"VIDEO", 'v'}, {"v", 'v'},  //
    {"CLASS_IMAGE_ITEM", 'i'}, {"IMAGE", 'i'}, {"i", 'i'},
};

const char* const kTranscodeYes[] = {"Yes", "True", "1"};

// Whole, case-independent comparison of two texts of known lengths: what StrCaseCmp gives on terminated
// copies of them, without making the copies.
bool TokenEquals(const char* text, size_t length, const char* word, size_t wordLength) {
    return length == wordLength && StrnCaseCmp(text, word, length) == 0;
}

bool EqualsNoCase(const char* text, size_t length, const char* word) {
    return TokenEquals(text, length, word, strlen(word));
}

char* CopyText(const char* text, size_t length) {
    char* copy = static_cast<char*>(mediaMapperAlloc(length + 1));
    if (copy == nullptr) return nullptr;
    memcpy(copy, text, length);
    copy[length] = '\0';
    return copy;
}

// The null link that ends the list into which `link` leads.
MediaFormatInfo** LastLink(MediaFormatInfo** link) {
    while (*link != nullptr) link = &(*link)->next;
    return link;
}

// Releases the table without taking the lock: the failed load runs it while it holds the lock already.
void ReleaseTable(MediaMapper& mapper) {
    MediaFormatInfo* format = mapper.formatList;
    mapper.formatList = nullptr;
    while (format != nullptr) {
        MediaFormatInfo* next = format->next;
        mapper.clearFormatNode(format);
        format = next;
    }
    free(__atomic_exchange_n(&mapper.uniqueParserPlugins, nullptr, __ATOMIC_ACQ_REL));
}

}  // namespace

MediaMapper::MediaMapper()
    : isInitialized(0), uniqueParserPlugins(nullptr), formatList(nullptr), mutex(nullptr) {}

MediaMapper::~MediaMapper() {
    isInitialized = 0;
}

int MediaMapper::initialize() {
    if (__atomic_load_n(&isInitialized, __ATOMIC_ACQUIRE) == 1) return 1;
    // Threads of this process load one at a time, and a thread that waited here finds the table loaded: the
    // semaphore can't do that alone, since it is made right here and may be missing.
    std::lock_guard<std::mutex> loading(firstLoadLock);
    if (isInitialized == 1) return 1;
    if (mutex == nullptr) {
        mutex = new (std::nothrow) Mutex("MediaMapper");
        if (mutex == nullptr) puts("MediaMapper initialize failed to get mutex");
    }

    LockMutex();
    char* buffer = nullptr;
    xml_node* nodes = nullptr;
    MediaFormatInfo* current = nullptr;
    try {
        int count = 0;
        buffer = cpyfilebuf(kFormatFile, &count);
        if (buffer == nullptr) throw "\r\nCould not load the MediaFormat file...\r\n";
        nodes = xml_ParseXML(buffer, 0, count);
        if (nodes == nullptr) throw "\r\nCould not load XML file\r\n";
        // An unbalanced file still loads: the depth count below decides what is a record.
        xml_ProcessXMLNodeList(nodes);

        // Records go on at the tail, found once here rather than by a walk from the head for each record,
        // which made a load quadratic in the number of formats.
        MediaFormatInfo** tail = LastLink(&formatList);
        int depth = 0;
        for (xml_node* node = nodes; node != nullptr; node = node->next) {
            if (node->isStart != 0) {
                ++depth;
                if (depth == 2) {
                    clearFormatNode(current);
                    current = static_cast<MediaFormatInfo*>(mediaMapperAlloc(sizeof(MediaFormatInfo)));
                    if (current != nullptr) {
                        memset(current, 0, sizeof(MediaFormatInfo));
                    } else {
                        puts("\r\nError:  failed to create media format structure.\r");
                    }
                } else if (depth == 3 && current != nullptr) {
                    char* value = nullptr;
                    int length = xml_ReadInnerXML(node, &value);
                    if (length > 0)
                        assignFormatProperty(current, node->name, node->nameLength, value, length);
                }
            } else {
                if (depth == 2 && current != nullptr) {
                    *tail = current;
                    tail = LastLink(&current->next);
                    current = nullptr;
                }
                --depth;
            }
        }
        __atomic_store_n(&isInitialized, 1, __ATOMIC_RELEASE);
    } catch (...) {
        // The texts thrown above only choose the way out; the caller sees the result 0.
        ReleaseTable(*this);
    }
    // A record whose closing tag never came is not part of the table.
    clearFormatNode(current);
    free(buffer);
    xml_DestructXMLNodeList(nodes);
    UnlockMutex();
    return isInitialized;
}

void MediaMapper::uninitialize() {
    if (isInitialized == 0) return;
    clearFormatList();
    isInitialized = 0;
}

void MediaMapper::assignFormatProperty(MediaFormatInfo* format, char* tag, int tagLength, char* value,
                                       int valueLength) {
    // Empty texts are no exception: a tag of no bytes is a prefix of the first property, and an empty value
    // is stored as an empty text. The load itself passes over empty elements.
    if (format == nullptr || tag == nullptr || tagLength < 0 || value == nullptr || valueLength < 0) return;

    const Property* property = nullptr;
    for (const Property& candidate : kProperties) {
        // Over the tag's length only: a tag longer than the name meets the name's terminator and differs.
        if (StrnCaseCmp(tag, candidate.name, static_cast<size_t>(tagLength)) == 0) {
            property = &candidate;
            break;
        }
    }
    if (property == nullptr) return;

    // The value compares as a terminated copy would: up to its first zero byte.
    size_t length = strnlen(value, static_cast<size_t>(valueLength));
    if (property->treatment == kMediaTypeValue) {
        for (const auto& type : kMediaTypes) {
            if (EqualsNoCase(value, length, type.value)) {
                format->mediaType = type.mediaType;
                break;
            }
        }
        return;
    }
    if (property->treatment == kTranscodeValue) {
        unsigned char flag = 0;
        for (const char* yes : kTranscodeYes) {
            if (EqualsNoCase(value, length, yes)) flag = 1;
        }
        format->transcodeFlag = flag;
        return;
    }

    // Out of memory: the field keeps what it had.
    char* copy = CopyText(value, static_cast<size_t>(valueLength));
    if (copy == nullptr) return;
    char*& field = format->*property->field;
    free(field);
    field = copy;
}

void MediaMapper::addFormatToList(MediaFormatInfo* format) {
    // Whatever hangs on the record comes along.
    *LastLink(&formatList) = format;
}

void MediaMapper::clearFormatNode(MediaFormatInfo* format) {
    if (format == nullptr) return;
    free(format->formatName);
    free(format->extensions);
    free(format->mimeType);
    free(format->dlnaClass);
    free(format->dlnaProfile);
    free(format->parserName);
    free(format->dapName);
    free(format);
}

void MediaMapper::clearFormatList() {
    MapperLock hold(*this);
    ReleaseTable(*this);
}

void MediaMapper::LockMutex() {
    if (mutex != nullptr) mutex->lock();
}

void MediaMapper::UnlockMutex() {
    if (mutex != nullptr) mutex->unlock();
}

void MediaMapper::DeleteMutex() {
    if (mutex == nullptr) return;
    delete mutex;
    mutex = nullptr;
}

// ---- Queries ---------------------------------------------------------------------------------------------

MediaFormatInfo* MediaMapper::getFormatInfoByExtension(char* extension) {
    if (extension == nullptr || extension[0] == '\0') return nullptr;
    const char* wanted = extension[0] == '.' ? extension + 1 : extension;
    size_t wantedLength = strnlen(wanted, kMaxExtension + 1);
    // Too long for any format; and "." alone names none, since an empty token never counts.
    if (wantedLength == 0 || wantedLength > kMaxExtension) return nullptr;

    // Most tokens have another first letter: folded as the comparison folds it (by the locale, like
    // strncasecmp), it turns them away without a call.
    const int wantedFirst = tolower(static_cast<unsigned char>(wanted[0]));

    MapperLock hold(*this);
    for (MediaFormatInfo* format = formatList; format != nullptr; format = format->next) {
        const char* list = format->extensions;
        if (list == nullptr) continue;
        // Tokens between commas, blanks kept, in one pass. Only tokens that end within the list's first
        // 1023 bytes count: one cut by that limit must not match a shorter extension. So the limit is tested
        // behind the token test: a token ended by the byte at offset 1023 still counts.
        size_t start = 0;
        for (size_t i = 0;; ++i) {
            const unsigned char c = static_cast<unsigned char>(list[i]);
            // Only a comma or the terminator ends a token; the first test alone passes every byte above ','
            // (letters, digits, dots), which is nearly every byte.
            if (c <= ',' && (c == ',' || c == '\0')) {
                if (i - start == wantedLength &&
                    tolower(static_cast<unsigned char>(list[start])) == wantedFirst &&
                    StrnCaseCmp(list + start, wanted, wantedLength) == 0)
                    return format;
                if (c == '\0') break;
                start = i + 1;
            }
            if (i == kMaxExtensionList) break;
        }
    }
    return nullptr;
}

char* MediaMapper::getFormatNameByExtension(char* extension) {
    MediaFormatInfo* format = getFormatInfoByExtension(extension);
    return format != nullptr ? format->formatName : nullptr;
}

char* MediaMapper::getMimeTypeByExtension(char* extension) {
    MediaFormatInfo* format = getFormatInfoByExtension(extension);
    return format != nullptr ? format->mimeType : nullptr;
}

char* MediaMapper::getDLNAClassByExtension(char* extension) {
    MediaFormatInfo* format = getFormatInfoByExtension(extension);
    return format != nullptr ? format->dlnaClass : nullptr;
}

char* MediaMapper::getDLNAProfileByExtension(char* extension) {
    MediaFormatInfo* format = getFormatInfoByExtension(extension);
    return format != nullptr ? format->dlnaProfile : nullptr;
}

char* MediaMapper::getDAPNameByExtension(char* extension) {
    MediaFormatInfo* format = getFormatInfoByExtension(extension);
    return format != nullptr ? format->dapName : nullptr;
}

char* MediaMapper::getParserNameByExtension(char* extension, char* mediaType) {
    MediaFormatInfo* format = getFormatInfoByExtension(extension);
    if (format == nullptr) return nullptr;
    if (mediaType != nullptr) *mediaType = format->mediaType;
    return format->parserName;
}

unsigned char MediaMapper::getTranscodeFlagByExtension(char* extension) {
    MediaFormatInfo* format = getFormatInfoByExtension(extension);
    return format != nullptr ? format->transcodeFlag : 0;
}

char MediaMapper::getMediaTypeByExtension(char* extension) {
    MediaFormatInfo* format = getFormatInfoByExtension(extension);
    return format != nullptr ? format->mediaType : 0;
}

char* MediaMapper::getExtensionListByMimeType(char* mimeType) {
    if (mimeType == nullptr) return nullptr;
    MapperLock hold(*this);
    for (MediaFormatInfo* format = formatList; format != nullptr; format = format->next) {
        if (format->mimeType != nullptr && StrCaseCmp(format->mimeType, mimeType) == 0)
            return format->extensions;
    }
    return nullptr;
}

char* MediaMapper::getExtensionListByPluginName(char* pluginName) {
    if (pluginName == nullptr) return nullptr;
    MapperLock hold(*this);
    for (MediaFormatInfo* format = formatList; format != nullptr; format = format->next) {
        if (format->parserName != nullptr && StrCaseCmp(format->parserName, pluginName) == 0) {
            return format->extensions;
        }
    }
    return nullptr;
}

char* MediaMapper::getUniqueParserPlugins() {
    char* cached = __atomic_load_n(&uniqueParserPlugins, __ATOMIC_ACQUIRE);
    if (cached != nullptr) return cached;

    MapperLock hold(*this);
    // Another thread may have built the list while this one waited for the lock.
    cached = __atomic_load_n(&uniqueParserPlugins, __ATOMIC_ACQUIRE);
    if (cached != nullptr) return cached;

    char joined[kMaxPluginList + 1];
    size_t used = 0;
    joined[0] = '\0';
    for (MediaFormatInfo* format = formatList; format != nullptr; format = format->next) {
        const char* name = format->parserName;
        if (name == nullptr) continue;
        // A substring test, case-sensitive: a name inside one already listed is not listed again.
        if (used > 0 && strstr(joined, name) != nullptr) continue;
        size_t length = strlen(name);
        // The list is cut behind the last name that fits whole with its comma.
        if (length + 1 > kMaxPluginList - used) break;
        memcpy(joined + used, name, length);
        used += length;
        joined[used++] = ',';
        joined[used] = '\0';
    }
    if (used == 0) return nullptr;

    char* result = CopyText(joined, used - 1);  // without the last comma
    __atomic_store_n(&uniqueParserPlugins, result, __ATOMIC_RELEASE);
    return result;
}
