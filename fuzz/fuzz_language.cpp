// The language reader on any language file. The input is the file that the configuration names; a reader is
// built, loaded, asked for every term identifier the text seems to hold and for the language list, and
// destroyed. Whatever it hands out must be a terminated text of its own or the caller's fallback.
#include <fcntl.h>
#include <unistd.h>

#include <string>

#include "msplatform/ZvCfgCtrlMgr.h"
#include "msplatform/languageReader.h"

#include "fuzz.h"

namespace {

std::string directory;
std::string configPath;
std::string languagePath;
int devNull = -1;

void RemoveDirectory() {
    unlink(configPath.c_str());
    unlink(languagePath.c_str());
    rmdir(directory.c_str());
}

void WriteBytes(const std::string& path, const void* data, size_t size) {
    FILE* f = fopen(path.c_str(), "wb");
    FUZZ_CHECK(f != nullptr);
    FUZZ_CHECK(fwrite(data, 1, size, f) == size);
    FUZZ_CHECK(fclose(f) == 0);
}

// The reader prints why a load failed; that would drown the fuzzer's own output.
int LoadQuietly(ZvLanguageReader& reader) {
    fflush(stderr);
    const int saved = dup(2);
    dup2(devNull, 2);
    const int result = reader.initialize(const_cast<char*>(configPath.c_str()));
    fflush(stderr);
    dup2(saved, 2);
    close(saved);
    return result;
}

void CheckText(const char* text) {
    FUZZ_CHECK(text != nullptr);
    (void)strlen(text);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    const char* tmp = getenv("TMPDIR");
    std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/msplatform-fuzz-language-XXXXXX";
    FUZZ_CHECK(mkdtemp(&pattern[0]) != nullptr);
    directory = pattern;
    configPath = directory + "/MediaServer.cfg";
    languagePath = directory + "/lang.xml";
    const std::string config =
        "[LANGUAGE]\r\nlanguageFilePath=\"" + languagePath + "\"\r\ncurrentLanguage=\"English\"\r\n\r\n";
    WriteBytes(configPath, config.data(), config.size());
    devNull = open("/dev/null", O_WRONLY);
    FUZZ_CHECK(devNull >= 0);
    atexit(RemoveDirectory);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 1 << 16) return 0;
    WriteBytes(languagePath, data, size);
    ZvLanguageReader reader;
    const int loaded = LoadQuietly(reader);
    FUZZ_CHECK(loaded == 0 || loaded == 1);
    if (loaded) {
        int terms = 0;
        for (termInfo* t = reader.termInfoList; t; t = t->next) {
            ++terms;
            if (t->id) CheckText(t->id);
            if (t->value) CheckText(t->value);
        }
        FUZZ_CHECK(terms == reader.termsCount && terms > 0);
        const char* languages = reader.getSupportedLanguages();
        CheckText(languages);
        // The names are joined with "|" behind each; a name may itself hold a "|" or a zero byte, so the
        // text tells nothing exact about the count.
        FUZZ_CHECK(reader.languagesCount > 0);
    }

    // Every ID="..." of the text, looked up as the server would.
    const std::string text(reinterpret_cast<const char*>(data), size);
    int asked = 0;
    for (size_t at = text.find("ID=\""); at != std::string::npos && asked < 16;
         at = text.find("ID=\"", at + 1)) {
        const size_t end = text.find('"', at + 4);
        if (end == std::string::npos) break;
        const std::string id = text.substr(at + 4, end - at - 4);
        char* value = reader.getTermInfobyID(id.c_str());
        if (value) CheckText(value);
        ++asked;
    }
    reader.deinitialize();
    return 0;
}
