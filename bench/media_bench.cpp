// Media format map: MF_Initialize (load of MediaFormats.xml) and extension lookups, on a generated 1 MB table
// and on the shipped one, against pugixml's load into a std::unordered_map keyed by extension, and the
// lookup against its floor: the lock pair around a hash lookup, what a lookup under the map's lock costs at
// the least.
// The map's semaphore has a machine-wide key: bench/run holds the test suites' lock around these.
#include <ctype.h>
#include <stdio.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "bench.h"
#include "msplatform/mediaFormats.h"
#include "msplatform/mutex.h"

#ifdef MSPB_HAVE_PUGIXML
#include <pugixml.hpp>
#endif

namespace {

struct Table {
    mspb::TempDir dir;
    std::string content;
    std::vector<std::string> lookups;  // extensions to look up, picked with a fixed seed
};

const int kLookups = 1000;

std::string ReadWhole(const char* path) {
    std::string content;
    FILE* file = fopen(path, "rb");
    if (!file) mspb::Fail(std::string("cannot read ") + path);
    char chunk[65536];
    for (size_t n; (n = fread(chunk, 1, sizeof chunk, file)) > 0;) content.append(chunk, n);
    fclose(file);
    return content;
}

// The extensions of every format, from the text between <Extensions> and </Extensions>.
std::vector<std::string> Extensions(const std::string& content) {
    std::vector<std::string> all;
    const std::string open = "<Extensions>", close = "</Extensions>";
    for (size_t at = content.find(open); at != std::string::npos; at = content.find(open, at)) {
        at += open.size();
        const size_t end = content.find(close, at);
        std::string list = content.substr(at, end - at);
        for (size_t start = 0;;) {
            const size_t comma = list.find(',', start);
            all.push_back(list.substr(start, comma - start));
            if (comma == std::string::npos) break;
            start = comma + 1;
        }
    }
    return all;
}

std::shared_ptr<Table> MakeTable(const std::string& content) {
    auto table = std::make_shared<Table>();
    table->content = content;
    mspb::WriteFile(table->dir.file("MediaFormats.xml"), content);
    const std::vector<std::string> all = Extensions(content);
    if (all.empty()) mspb::Fail("a format table without extensions");
    mspb::Random random(0x5EED0008);
    for (int i = 0; i < kLookups; ++i)
        table->lookups.push_back(all[random.below(static_cast<uint32_t>(all.size()))]);
    return table;
}

// The map loads from the working directory: each run goes into the table's directory and back.
class InDirectory {
public:
    explicit InDirectory(const std::string& path) {
        if (!getcwd(previous_, sizeof previous_) || chdir(path.c_str()) != 0) mspb::Fail("chdir");
    }
    ~InDirectory() {
        if (chdir(previous_) != 0) mspb::Fail("chdir back");
    }

private:
    char previous_[4096];
};

// The extension folded to lower case, in `lower` (at least 64 bytes); what both hash maps look up.
std::string Lower(const char* extension, char* lower) {
    size_t n = 0;
    for (; extension[n] && n < 63; ++n)
        lower[n] = static_cast<char>(tolower(static_cast<unsigned char>(extension[n])));
    return std::string(lower, n);
}

#ifdef MSPB_HAVE_PUGIXML
struct Format {
    std::string formatName, extensions, mimeType, dlnaClass, dlnaProfile, parserName, dapName, mediaType,
        transcode;
};

// What a server would write with pugixml: read the file, parse it in place, copy every format's texts and
// index them by lower-case extension.
struct PugiMap {
    std::vector<Format> formats;
    std::unordered_map<std::string, size_t> byExtension;

    void load(const char* path) {
        std::string text = ReadWhole(path);
        pugi::xml_document document;
        if (!document.load_buffer_inplace(&text[0], text.size())) mspb::Fail("pugixml refuses the table");
        formats.clear();
        byExtension.clear();
        for (pugi::xml_node node : document.document_element().children()) {
            Format f;
            f.formatName = node.child_value("FormatName");
            f.extensions = node.child_value("Extensions");
            f.mimeType = node.child_value("MimeType");
            f.mediaType = node.child_value("MediaType");
            f.dlnaClass = node.child_value("DLNA_Class");
            f.dlnaProfile = node.child_value("DLNA_Profile");
            f.transcode = node.child_value("Transcode");
            f.parserName = node.child_value("Parser");
            f.dapName = node.child_value("DAP");
            formats.push_back(std::move(f));
            const std::string& list = formats.back().extensions;
            for (size_t start = 0;;) {
                const size_t comma = list.find(',', start);
                std::string extension = list.substr(start, comma - start);
                for (char& c : extension) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
                byExtension.emplace(std::move(extension), formats.size() - 1);  // the first format wins
                if (comma == std::string::npos) break;
                start = comma + 1;
            }
        }
    }

    const char* mimeType(const char* extension) const {
        char lower[64];
        const auto hit = byExtension.find(Lower(extension, lower));
        return hit == byExtension.end() ? nullptr : formats[hit->second].mimeType.c_str();
    }
};
#endif

void RegisterTable(const std::string& input, std::function<std::string()> content) {
    // Made on the first run: a run that filters these rows out writes nothing and takes no semaphore.
    auto table = std::make_shared<std::shared_ptr<Table>>();
    auto get = [table, content]() -> Table& {
        if (!*table) *table = MakeTable(content());
        return **table;
    };

    mspb::Add("MF_Initialize", input, "msplatform", [get](benchmark::State& state) {
        Table& t = get();
        InDirectory here(t.dir.path());
        MF_UnInitialize();
        for (auto _ : state) {
            if (MF_Initialize() != 1) state.SkipWithError("MF_Initialize failed");
            MF_UnInitialize();
        }
    });
    mspb::Add(
        "MF_extension_lookup", input, "msplatform",
        [get](benchmark::State& state) {
            Table& t = get();
            InDirectory here(t.dir.path());
            MF_UnInitialize();
            if (MF_Initialize() != 1) {
                state.SkipWithError("MF_Initialize failed");
                return;
            }
            std::vector<std::vector<char>> keys;
            for (const std::string& e : t.lookups) keys.emplace_back(e.c_str(), e.c_str() + e.size() + 1);
            for (auto _ : state) {
                for (auto& key : keys) benchmark::DoNotOptimize(MF_GetMimeTypeByExtension(key.data()));
            }
            MF_UnInitialize();
        },
        kLookups);

    // The floor: every extension of the table in a std::unordered_map (to its position), looked up under a
    // semaphore of the same kind as "MediaMapper", a private one.
    mspb::Add(
        "MF_extension_lookup", input, "floor:lock+unordered_map",
        [get](benchmark::State& state) {
            Table& t = get();
            std::unordered_map<std::string, size_t> index;
            char lower[64];
            for (const std::string& e : Extensions(t.content))
                index.emplace(Lower(e.c_str(), lower), index.size());
            Mutex mutex;
            if (mutex.getid() <= 0) {
                state.SkipWithError("no semaphore set");
                return;
            }
            for (auto _ : state) {
                for (const std::string& e : t.lookups) {
                    mutex.lock();
                    const auto hit = index.find(Lower(e.c_str(), lower));
                    benchmark::DoNotOptimize(hit == index.end() ? nullptr : &hit->second);
                    mutex.unlock();
                }
            }
        },
        kLookups);

#ifdef MSPB_HAVE_PUGIXML
    mspb::Add("MF_Initialize", input, "pugixml+unordered_map", [get](benchmark::State& state) {
        Table& t = get();
        const std::string path = t.dir.file("MediaFormats.xml");
        for (auto _ : state) {
            PugiMap map;
            map.load(path.c_str());
            benchmark::DoNotOptimize(map.byExtension.size());
        }
    });
    mspb::Add(
        "MF_extension_lookup", input, "pugixml+unordered_map",
        [get](benchmark::State& state) {
            Table& t = get();
            PugiMap map;
            map.load(t.dir.file("MediaFormats.xml").c_str());
            {
                // Both sides must give the same MIME type for every extension looked up.
                InDirectory here(t.dir.path());
                MF_UnInitialize();
                if (MF_Initialize() != 1) mspb::Fail("MF_Initialize failed");
                for (const std::string& e : t.lookups) {
                    std::vector<char> key(e.c_str(), e.c_str() + e.size() + 1);
                    const char* ours = MF_GetMimeTypeByExtension(key.data());
                    const char* theirs = map.mimeType(e.c_str());
                    if (!ours || !theirs || std::string(ours) != theirs)
                        mspb::Fail("the maps disagree on " + e);
                }
                MF_UnInitialize();
            }
            for (auto _ : state) {
                for (const std::string& e : t.lookups) benchmark::DoNotOptimize(map.mimeType(e.c_str()));
            }
        },
        kLookups);
#endif
}

void RegisterAll() {
    const size_t size = mspb::Size(1 << 20, 4096);
    RegisterTable(mspb::SizeName(size) + "_table", [size]() { return mspb::FormatTable(size); });
    RegisterTable("shipped_table", []() { return ReadWhole(MSPB_SHIPPED_FORMATS); });
}

mspb::Registrar registrar(RegisterAll);

}  // namespace
