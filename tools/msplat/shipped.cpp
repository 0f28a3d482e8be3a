#include "shipped.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <vector>

#include "msplat.h"

namespace msplat {

std::string MakeTempDir(const char* what) {
    const char* root = getenv("TMPDIR");
    std::string pattern = std::string(root && *root ? root : "/tmp") + "/msplat-" + what + "-XXXXXX";
    std::vector<char> path(pattern.begin(), pattern.end());
    path.push_back('\0');
    if (!mkdtemp(path.data())) {
        Error("%s: %s", pattern.c_str(), strerror(errno));
        return "";
    }
    return path.data();
}

std::string WriteShipped(const char* name, const std::string& dir) {
    for (const ShippedFile* file = kShippedFiles; file->name; ++file) {
        if (strcmp(file->name, name) != 0) continue;
        std::string path = dir + "/" + name;
        FILE* stream = fopen(path.c_str(), "wb");
        bool written = stream && fwrite(file->bytes, 1, file->size, stream) == file->size;
        if (stream && fclose(stream) != 0) written = false;
        if (!written) {
            Error("%s: %s", path.c_str(), strerror(errno));
            return "";
        }
        return path;
    }
    Error("%s: not among the shipped files", name);
    return "";
}

void RemoveTempDir(const std::string& dir, const char* const* names) {
    if (dir.empty()) return;
    for (; *names; ++names) unlink((dir + "/" + *names).c_str());
    rmdir(dir.c_str());
}

}  // namespace msplat
