// The media format loader on any MediaFormats.xml. The input is the file in the working directory; it is
// loaded, every record is looked up again by each of its extensions, its MIME type and its parser plug-in,
// the plug-in list is made, and the table is released. A lookup by an extension of a record must find that
// record or an earlier one, and every text handed out must be the mapper's own terminated text.
#include <unistd.h>

#include <string>

#include "msplatform/mediaMapper.h"

#include "fuzz.h"

namespace {

std::string directory;
MediaMapper mapper;

void RemoveDirectory() {
    mapper.uninitialize();
    mapper.DeleteMutex();
    unlink((directory + "/MediaFormats.xml").c_str());
    rmdir(directory.c_str());
}

void CheckText(const char* text) {
    if (text) (void)strlen(text);
}

// The first record that lists `extension` among its comma-separated extensions, as the lookups compare:
// whole items, without regard to case.
bool Lists(const MediaFormatInfo* f, const std::string& extension) {
    if (!f->extensions) return false;
    const char* at = f->extensions;
    for (;;) {
        const char* comma = strchr(at, ',');
        const size_t n = comma ? static_cast<size_t>(comma - at) : strlen(at);
        if (n == extension.size() && strncasecmp(at, extension.c_str(), n) == 0) return true;
        if (!comma) return false;
        at = comma + 1;
    }
}

void LookUp(MediaFormatInfo* record) {
    if (record->extensions) {
        const char* at = record->extensions;
        for (int items = 0; items < 8; ++items) {
            const char* comma = strchr(at, ',');
            std::string extension(at, comma ? static_cast<size_t>(comma - at) : strlen(at));
            char* e = const_cast<char*>(extension.c_str());
            MediaFormatInfo* found = mapper.getFormatInfoByExtension(e);
            // Within the lookup's limits (an extension of at most 55 bytes without a leading dot, lists of at
            // most 1023 bytes) the record itself or an earlier one that lists the extension must be found.
            const bool plain = !extension.empty() && extension.size() <= 55 && extension[0] != '.' &&
                               strlen(record->extensions) <= 1023;
            FUZZ_CHECK(found || !plain);
            if (found && plain && strlen(found->extensions) <= 1023) {
                bool earlier = false;
                for (MediaFormatInfo* f = mapper.formatList; f; f = f->next) {
                    if (f == found) {
                        earlier = true;
                        break;
                    }
                    if (f == record) break;
                }
                FUZZ_CHECK(earlier && Lists(found, extension));
            }
            CheckText(mapper.getFormatNameByExtension(e));
            CheckText(mapper.getMimeTypeByExtension(e));
            CheckText(mapper.getDLNAClassByExtension(e));
            CheckText(mapper.getDLNAProfileByExtension(e));
            CheckText(mapper.getDAPNameByExtension(e));
            char type = 'x';
            CheckText(mapper.getParserNameByExtension(e, &type));
            (void)mapper.getTranscodeFlagByExtension(e);
            (void)mapper.getMediaTypeByExtension(e);
            if (!comma) break;
            at = comma + 1;
        }
    }
    if (record->mimeType) CheckText(mapper.getExtensionListByMimeType(record->mimeType));
    if (record->parserName) CheckText(mapper.getExtensionListByPluginName(record->parserName));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    const char* tmp = getenv("TMPDIR");
    std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/msplatform-fuzz-media-XXXXXX";
    FUZZ_CHECK(mkdtemp(&pattern[0]) != nullptr);
    directory = pattern;
    // The loader reads MediaFormats.xml from the working directory.
    FUZZ_CHECK(chdir(directory.c_str()) == 0);
    atexit(RemoveDirectory);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 1 << 16) return 0;
    FILE* f = fopen("MediaFormats.xml", "wb");
    FUZZ_CHECK(f != nullptr);
    FUZZ_CHECK(fwrite(data, 1, size, f) == size);
    FUZZ_CHECK(fclose(f) == 0);

    const int loaded = mapper.initialize();
    FUZZ_CHECK(loaded == 0 || loaded == 1);
    if (!loaded) {
        FUZZ_CHECK(mapper.formatList == nullptr && mapper.uniqueParserPlugins == nullptr);
        return 0;
    }
    int records = 0;
    for (MediaFormatInfo* r = mapper.formatList; r && records < 32; r = r->next, ++records) {
        FUZZ_CHECK(r->transcodeFlag <= 1);
        FUZZ_CHECK(r->mediaType == 0 || r->mediaType == 'a' || r->mediaType == 'v' || r->mediaType == 'i');
        LookUp(r);
    }
    CheckText(mapper.getUniqueParserPlugins());
    CheckText(mapper.getExtensionListByMimeType(const_cast<char*>("audio/mpeg")));
    mapper.uninitialize();
    FUZZ_CHECK(mapper.formatList == nullptr && !mapper.isInitialized);
    return 0;
}
