// The table of media formats: one record per format of MediaFormats.xml, in the file's order.
//
// MediaMapper::initialize loads MediaFormats.xml from the working directory under the semaphore
// "MediaMapper", which all processes share; uninitialize releases the table. The queries hand out texts
// that the mapper owns: the caller must neither change nor free them, and they stay valid until the table
// is released. Results: 1 or 0 for the load; null or 0 when nothing is found.
#pragma once

#include "msplatform/export.h"

class Mutex;

// One media format, a node of the mapper's list. Every text is the mapper's own, or null when the file
// does not give it.
struct MediaFormatInfo {
    char* formatName;             // FormatName
    char* extensions;             // Extensions: comma-separated, no leading dots
    char* mimeType;               // MimeType
    char* dlnaClass;              // DLNA_Class
    char* dlnaProfile;            // DLNA_Profile
    char* parserName;             // Parser: name of the parser plug-in
    char* dapName;                // DAP
    unsigned char transcodeFlag;  // 1 if the format is to be transcoded, else 0
    char mediaType;               // 'a' audio, 'v' video, 'i' image, 0 unknown
    MediaFormatInfo* next;        // next record in file order, null at the end
};

class MSP_EXPORT MediaMapper {
public:
    MediaMapper();
    // Clears isInitialized only: neither the table nor the lock is released at exit.
    ~MediaMapper();
    MediaMapper(const MediaMapper&) = delete;
    MediaMapper& operator=(const MediaMapper&) = delete;

    // Loads MediaFormats.xml. 1 when a table is loaded (at once if one already is), 0 on failure. Threads of
    // one process that call it together load once: the others wait and find the table loaded.
    int initialize();
    // Releases the table if one is loaded; the lock stays for the next load.
    void uninitialize();

    // Lookups by extension, with or without one leading dot, independent of case. The first format of
    // the file that lists the extension answers. Extensions longer than 55 bytes are never found.
    MediaFormatInfo* getFormatInfoByExtension(char* extension);
    char* getFormatNameByExtension(char* extension);
    char* getMimeTypeByExtension(char* extension);
    char* getDLNAClassByExtension(char* extension);
    char* getDLNAProfileByExtension(char* extension);
    char* getDAPNameByExtension(char* extension);
    // Returns parserName and stores mediaType through mediaType (if not null); nothing is stored for an
    // unknown extension.
    char* getParserNameByExtension(char* extension, char* mediaType);
    unsigned char getTranscodeFlagByExtension(char* extension);
    char getMediaTypeByExtension(char* extension);

    // The extensions of the first format with that MIME type or parser plug-in, or null.
    char* getExtensionListByMimeType(char* mimeType);
    char* getExtensionListByPluginName(char* pluginName);
    // The parser plug-ins of the table, each once, in order of first appearance, joined by commas; null
    // if the table names none. Computed once per loaded table.
    char* getUniqueParserPlugins();

    // Pieces of the load, open to callers that build a table of their own. assignFormatProperty applies the
    // tag and value rules to texts of any length, empty ones included (the load passes over empty elements
    // itself); addFormatToList appends the record at the tail, with whatever hangs on its next link.
    void assignFormatProperty(MediaFormatInfo* format, char* tag, int tagLength, char* value,
                              int valueLength);
    void addFormatToList(MediaFormatInfo* format);
    void clearFormatNode(MediaFormatInfo* format);
    void clearFormatList();

    void LockMutex();
    void UnlockMutex();
    // Removes the semaphore "MediaMapper" for every process. Nothing in the library calls it.
    void DeleteMutex();

    unsigned char isInitialized;  // 1 while a table is loaded
    char* uniqueParserPlugins;    // cached result of getUniqueParserPlugins, or null
    MediaFormatInfo* formatList;  // head of the table, guarded by mutex; null when empty
    Mutex* mutex;                 // the lock "MediaMapper", made by the first initialize
};
