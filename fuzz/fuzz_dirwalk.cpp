// The directory walker on names as other programs leave them on disk. The input is cut at line feeds into up
// to eight names of raw bytes; a file of each is made in an empty directory, which is then walked by wide
// names (normalising names on disk). No file may be lost or replaced by a rename, and every name reported
// must be terminated inside its record.
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <set>
#include <string>

#include "msplatform/dirWalk.h"
#include "msplatform/unicode.h"

#include "fuzz.h"

namespace {

std::string directory;

std::set<std::string> Entries() {
    std::set<std::string> names;
    DIR* d = opendir(directory.c_str());
    FUZZ_CHECK(d != nullptr);
    while (dirent* e = readdir(d)) {
        const std::string name = e->d_name;
        if (name != "." && name != "..") names.insert(name);
    }
    closedir(d);
    return names;
}

void Empty() {
    for (const std::string& name : Entries()) unlink((directory + "/" + name).c_str());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    const char* tmp = getenv("TMPDIR");
    std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/msplatform-fuzz-dirwalk-XXXXXX";
    FUZZ_CHECK(mkdtemp(&pattern[0]) != nullptr);
    directory = pattern;
    atexit([] {
        Empty();
        rmdir(directory.c_str());
    });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 4096) return 0;
    Empty();
    size_t at = 0;
    for (int made = 0; at < size && made < 8;) {
        size_t end = at;
        while (end < size && data[end] != '\n') ++end;
        std::string name(reinterpret_cast<const char*>(data) + at, end - at);
        at = end + 1;
        if (name.empty() || name.size() > 255 || name == "." || name == ".." ||
            name.find_first_of(std::string("/\0", 2)) != std::string::npos)
            continue;
        const int fd = open((directory + "/" + name).c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0600);
        if (fd < 0) continue;
        FUZZ_CHECK(write(fd, name.data(), name.size()) == static_cast<ssize_t>(name.size()));
        close(fd);
        ++made;
    }
    const size_t before = Entries().size();

    wchar_t path[1100];
    FUZZ_CHECK(Convert_CHAR_UCS(directory.c_str(), path) > 0);
    FileFindData entry;
    memset(&entry, 0x5A, sizeof entry);
    void* handle = Zv_FindFirst(path, &entry);
    FUZZ_CHECK(handle != nullptr);
    do {
        FUZZ_CHECK(wmemchr(entry.fileName, L'\0', 256) != nullptr);
        // Flag, size and time may stay as they were: a name whose old form is part of the new path is not
        // renamed, and the stat of the new path then fails, which the walk does not report.
        memset(&entry, 0x5A, sizeof entry);
    } while (Zv_FindNext(handle, path, &entry) == 0);
    FUZZ_CHECK(Zv_FindClose(handle) == 1);

    // Renames keep every file: as many as before, under some name. (What was reported is not counted against
    // them: a rename inside the walk may make the stream report an entry twice or not at all.)
    FUZZ_CHECK(Entries().size() == before);
    return 0;
}
