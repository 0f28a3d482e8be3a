// The configuration store on any file content. The input is written as MediaServer.cfg in a temporary
// directory; the store is initialised on it, and every section and key name that the lines suggest is read,
// written back with the value read and read again. What a get answers must agree with the key's type, and
// a rewrite of what the reader kept must read back to the same bytes.
#include <unistd.h>

#include <string>
#include <vector>

#include "msplatform/ZvCfgCtrlMgr.h"

#include "fuzz.h"

namespace {

std::string directory;
std::string path;

void RemoveDirectory() {
    unlink(path.c_str());
    rmdir(directory.c_str());
}

void WriteBytes(const uint8_t* data, size_t size) {
    FILE* f = fopen(path.c_str(), "wb");
    FUZZ_CHECK(f != nullptr);
    FUZZ_CHECK(fwrite(data, 1, size, f) == size);
    FUZZ_CHECK(fclose(f) == 0);
}

std::string ReadBytes() {
    std::string bytes;
    FILE* f = fopen(path.c_str(), "rb");
    FUZZ_CHECK(f != nullptr);
    char chunk[4096];
    size_t n;
    while ((n = fread(chunk, 1, sizeof chunk, f)) > 0) bytes.append(chunk, n);
    fclose(f);
    return bytes;
}

char* C(const std::string& s) {
    return const_cast<char*>(s.c_str());
}

struct Name {
    std::string section;
    std::string key;
};

// Section and key names as the lines suggest them; the reader's own rules (a CR that swallows a byte, the
// first "=" only) may disagree, which only turns some lookups into "not found".
std::vector<Name> Names(const uint8_t* data, size_t size) {
    constexpr size_t kMaxNames = 12;
    std::vector<Name> names;
    std::string section;
    size_t at = 0;
    while (at < size && names.size() < kMaxNames) {
        size_t end = at;
        while (end < size && data[end] != '\n' && data[end] != '\r') ++end;
        std::string line(reinterpret_cast<const char*>(data) + at, end - at);
        line = line.c_str();  // the store sees a line up to its first zero byte
        at = end + 1;
        if (line.size() >= 2 && line.front() == '[' && line.back() == ']') {
            section = line.substr(1, line.size() - 2);
        } else {
            const size_t eq = line.find('=');
            if (eq != std::string::npos && !section.empty() && eq > 0)
                names.push_back({section, line.substr(0, eq)});
        }
    }
    return names;
}

// Reads a key, writes the value read back unchanged and reads it again.
void RoundTrip(const Name& n) {
    int length = -1;
    const int rc = getConfigStringLen(C(n.section), C(n.key), length);
    if (rc == CFG_OK) {
        FUZZ_CHECK(length >= 0);
        mspfuzz::Block<unsigned char> value = mspfuzz::Alloc<unsigned char>(static_cast<size_t>(length) + 1);
        FUZZ_CHECK(getConfigString(C(n.section), C(n.key), value.get(), length) == CFG_OK);
        FUZZ_CHECK(value[static_cast<size_t>(length)] == 0);
        FUZZ_CHECK(strlen(reinterpret_cast<char*>(value.get())) == static_cast<size_t>(length));
        dtype type = dtypeNone;
        FUZZ_CHECK(getKeyType(C(n.section), C(n.key), type) == CFG_OK && type == dtypeUTF8);
        FUZZ_CHECK(setConfigString(C(n.section), C(n.key), value.get(), length) == CFG_OK);
        int again = -1;
        FUZZ_CHECK(getConfigStringLen(C(n.section), C(n.key), again) == CFG_OK && again == length);
        mspfuzz::Block<unsigned char> reread = mspfuzz::Alloc<unsigned char>(static_cast<size_t>(length) + 1);
        FUZZ_CHECK(getConfigString(C(n.section), C(n.key), reread.get(), length) == CFG_OK);
        FUZZ_CHECK(memcmp(reread.get(), value.get(), static_cast<size_t>(length) + 1) == 0);
    } else if (rc == CFG_TYPE_MISMATCH) {
        int v = 0;
        FUZZ_CHECK(getConfigInt(C(n.section), C(n.key), v) == CFG_OK);
        FUZZ_CHECK(setConfigInt(C(n.section), C(n.key), v) == CFG_OK);
        int again = ~v;
        FUZZ_CHECK(getConfigInt(C(n.section), C(n.key), again) == CFG_OK && again == v);
        dtype type = dtypeNone;
        FUZZ_CHECK(getKeyType(C(n.section), C(n.key), type) == CFG_OK && type == dtypeInt);
    } else {
        FUZZ_CHECK(rc == CFG_KEY_NOT_FOUND || rc == CFG_SECTION_NOT_FOUND || rc == CFG_BAD_ARGUMENT);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    const char* tmp = getenv("TMPDIR");
    std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/msplatform-fuzz-config-XXXXXX";
    FUZZ_CHECK(mkdtemp(&pattern[0]) != nullptr);
    directory = pattern;
    path = directory + "/MediaServer.cfg";
    atexit(RemoveDirectory);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 1 << 16) return 0;
    WriteBytes(data, size);
    deinitializeConfig();
    FUZZ_CHECK(initializeConfig(path.c_str()) == CFG_OK);

    // A new section makes the store write back all it read; a set of the same value then rewrites the
    // file, which must come out byte for byte as before.
    static const std::string kSection = "fuzz section";
    static const std::string kKey = "fuzz key";
    int rc = createConfigInt(C(kSection), C(kKey), 7);
    if (rc == CFG_OK) {
        const std::string first = ReadBytes();
        FUZZ_CHECK(setConfigInt(C(kSection), C(kKey), 7) == CFG_OK);
        FUZZ_CHECK(ReadBytes() == first);
    } else {
        FUZZ_CHECK(rc == CFG_KEY_EXISTS);
    }

    for (const Name& n : Names(data, size)) RoundTrip(n);

    // A value made of the input's bytes, lines and zero bytes included, goes in by its length.
    const int length = static_cast<int>(size < 64 ? size : 64);
    mspfuzz::Block<unsigned char> value = mspfuzz::Alloc<unsigned char>(static_cast<size_t>(length) + 1);
    if (length) memcpy(value.get(), data, static_cast<size_t>(length));
    rc = createConfigString(C(kSection), C("fuzz value"), value.get(), length);
    FUZZ_CHECK(rc == CFG_OK || rc == CFG_KEY_EXISTS || rc == CFG_TYPE_MISMATCH);
    int stored = -1;
    rc = getConfigStringLen(C(kSection), C("fuzz value"), stored);
    FUZZ_CHECK(rc == CFG_OK || rc == CFG_TYPE_MISMATCH || rc == CFG_KEY_NOT_FOUND ||
               rc == CFG_SECTION_NOT_FOUND);
    if (rc == CFG_OK) FUZZ_CHECK(stored >= 0 && stored <= length);
    deinitializeConfig();
    return 0;
}
