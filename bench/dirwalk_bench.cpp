// Directory walk: Zv_FindFirst/Zv_FindNext/Zv_FindClose over a directory of 10,000 files, against the plain
// walk that the same information takes, opendir + readdir64 + stat64 on "<directory>/<name>".
#include <dirent.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include <memory>
#include <vector>

#include "bench.h"
#include "msplatform/dirWalk.h"
#include "msplatform/unicode.h"

namespace {

const char kOperation[] = "Zv_FindFirst+FindNext";

struct Tree {
    mspb::TempDir dir;
    std::vector<wchar_t> widePath;
    size_t entries = 0;  // what readdir gives, "." and ".." included
};

// Files of a media share: ASCII names with some accented ones in UTF-8, which the walk leaves as they are.
std::shared_ptr<Tree> MakeTree(size_t files) {
    auto tree = std::make_shared<Tree>();
    mspb::Random random(0x5EED0007);
    for (size_t i = 0; i < files; ++i) {
        char name[64];
        snprintf(name, sizeof name, "%s %05zu%s.mp3", random.below(10) == 0 ? "Caf\xC3\xA9" : "Track", i,
                 random.below(2) ? " (live)" : "");
        mspb::WriteFile(tree->dir.file(name), std::string(random.below(200), 'x'));
    }
    tree->entries = files + 2;
    tree->widePath.resize(tree->dir.path().size() + 1);
    Convert_UTF8_UCS(reinterpret_cast<const unsigned char*>(tree->dir.path().c_str()), tree->widePath.data());
    return tree;
}

size_t WalkOurs(Tree& tree) {
    FileFindData data;
    size_t count = 0;
    void* handle = Zv_FindFirst(tree.widePath.data(), &data);
    if (!handle) return 0;
    ++count;
    while (Zv_FindNext(handle, tree.widePath.data(), &data) == 0) ++count;
    Zv_FindClose(handle);
    return count;
}

size_t WalkPlain(const std::string& directory) {
    DIR* stream = opendir(directory.c_str());
    if (!stream) return 0;
    size_t count = 0;
    char path[1024];
    struct stat64 info;
    unsigned long long bytes = 0;
    for (struct dirent64* entry; (entry = readdir64(stream)) != nullptr;) {
        snprintf(path, sizeof path, "%s/%s", directory.c_str(), entry->d_name);
        if (stat64(path, &info) == 0 && !S_ISDIR(info.st_mode))
            bytes += static_cast<unsigned long long>(info.st_size);
        ++count;
    }
    closedir(stream);
    benchmark::DoNotOptimize(bytes);
    return count;
}

void RegisterAll() {
    const size_t files = mspb::Size(10000, 20);
    const std::string input = std::to_string(files) + "_files";
    // Made on the first run: 10,000 files are not written for a run that filters these rows out.
    auto tree = std::make_shared<std::shared_ptr<Tree>>();
    auto get = [tree, files]() -> Tree& {
        if (!*tree) {
            *tree = MakeTree(files);
            if (WalkOurs(**tree) != (*tree)->entries || WalkPlain((*tree)->dir.path()) != (*tree)->entries)
                mspb::Fail("the walks count other entries");
        }
        return **tree;
    };
    mspb::Add(kOperation, input, "msplatform", [get](benchmark::State& state) {
        Tree& t = get();
        for (auto _ : state) benchmark::DoNotOptimize(WalkOurs(t));
        state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * t.entries));
    });
    mspb::Add(kOperation, input, "readdir64+stat64", [get](benchmark::State& state) {
        Tree& t = get();
        for (auto _ : state) benchmark::DoNotOptimize(WalkPlain(t.dir.path()));
        state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * t.entries));
    });
}

mspb::Registrar registrar(RegisterAll);

}  // namespace
