// Configuration: getConfigInt and setConfigInt, each a locked read of the whole file (and for the set a
// write), against GLib's GKeyFile (load + get, load + set + save) and inih (parse + get) on the same file.
// The store's semaphore has a machine-wide key: bench/run holds the test suites' lock around these.
#include <stdlib.h>
#include <string.h>

#include <memory>

#include "bench.h"
#include "msplatform/ZvCfgCtrlMgr.h"

#ifdef MSPB_HAVE_GLIB
#include <glib.h>
#endif
#ifdef MSPB_HAVE_INIH
#include <ini.h>
#endif

namespace {

const int kSections = 20;
const int kKeys = 10;
// The key read and written: in the middle of the file, an integer key.
char kSection[] = "section10";
char kKey[] = "key4";

// Made on the first run of a row, not at registration: a run that filters these rows out never touches the
// store's semaphore.
struct Store {
    mspb::TempDir dir;
    std::string path = dir.file("MediaServer.cfg");
    std::string content = mspb::ConfigFile(kSections, kKeys);
    int expected = 0;  // the value of kSection/kKey in the file
    bool ready = false;

    void prepare();
};

#ifdef MSPB_HAVE_INIH
struct InihLookup {
    const char* section;
    const char* key;
    int value;
    bool found;
};

int InihHandler(void* user, const char* section, const char* name, const char* value) {
    InihLookup* lookup = static_cast<InihLookup*>(user);
    if (!lookup->found && strcasecmp(section, lookup->section) == 0 && strcasecmp(name, lookup->key) == 0) {
        lookup->value = static_cast<int>(strtol(value, nullptr, 10));
        lookup->found = true;
    }
    return 1;
}
#endif

void Store::prepare() {
    // The store is initialised once per process and may hold another row's file (the logger's): every row
    // points it at this file again.
    deinitializeConfig();
    const int rc = initializeConfig(path.c_str());
    if (rc != 1) mspb::Fail("initializeConfig gave " + std::to_string(rc));
    if (ready) return;
    ready = true;
    mspb::WriteFile(path, content);
    if (getConfigInt(kSection, kKey, expected) != 1) mspb::Fail("getConfigInt failed");
#ifdef MSPB_HAVE_GLIB
    {
        GKeyFile* file = g_key_file_new();
        GError* error = nullptr;
        if (!g_key_file_load_from_file(file, path.c_str(), G_KEY_FILE_NONE, &error) ||
            g_key_file_get_integer(file, kSection, kKey, &error) != expected || error)
            mspb::Fail("GKeyFile reads the file otherwise");
        g_key_file_free(file);
    }
#endif
#ifdef MSPB_HAVE_INIH
    {
        InihLookup lookup = {kSection, kKey, 0, false};
        if (ini_parse(path.c_str(), InihHandler, &lookup) != 0 || !lookup.found || lookup.value != expected)
            mspb::Fail("inih reads the file otherwise");
    }
#endif
}

void RegisterAll() {
    auto store = std::make_shared<Store>();
    const std::string input = std::to_string(kSections) + "x" + std::to_string(kKeys) + "_keys";

    mspb::Add("getConfigInt", input, "msplatform", [store](benchmark::State& state) {
        store->prepare();
        int value = 0;
        for (auto _ : state) {
            if (getConfigInt(kSection, kKey, value) != 1) state.SkipWithError("getConfigInt failed");
        }
        if (value != store->expected) state.SkipWithError("getConfigInt read another value");
    });
    mspb::Add("setConfigInt", input, "msplatform", [store](benchmark::State& state) {
        store->prepare();
        int i = 0;
        for (auto _ : state) {
            if (setConfigInt(kSection, kKey, store->expected + (i++ & 1)) != 1)
                state.SkipWithError("setConfigInt failed");
        }
        setConfigInt(kSection, kKey, store->expected);
    });

#ifdef MSPB_HAVE_GLIB
    mspb::Add("getConfigInt", input, "GKeyFile", [store](benchmark::State& state) {
        store->prepare();
        for (auto _ : state) {
            GKeyFile* file = g_key_file_new();
            g_key_file_load_from_file(file, store->path.c_str(), G_KEY_FILE_NONE, nullptr);
            benchmark::DoNotOptimize(g_key_file_get_integer(file, kSection, kKey, nullptr));
            g_key_file_free(file);
        }
    });
    mspb::Add("setConfigInt", input, "GKeyFile", [store](benchmark::State& state) {
        store->prepare();
        // A file of its own, so that the rows of this library keep reading theirs.
        const std::string path = store->dir.file("GKeyFile.cfg");
        mspb::WriteFile(path, store->content);
        int i = 0;
        for (auto _ : state) {
            GKeyFile* file = g_key_file_new();
            g_key_file_load_from_file(file, path.c_str(), G_KEY_FILE_KEEP_COMMENTS, nullptr);
            g_key_file_set_integer(file, kSection, kKey, store->expected + (i++ & 1));
            if (!g_key_file_save_to_file(file, path.c_str(), nullptr)) state.SkipWithError("save failed");
            g_key_file_free(file);
        }
    });
#endif

#ifdef MSPB_HAVE_INIH
    mspb::Add("getConfigInt", input, "inih", [store](benchmark::State& state) {
        store->prepare();
        for (auto _ : state) {
            InihLookup lookup = {kSection, kKey, 0, false};
            benchmark::DoNotOptimize(ini_parse(store->path.c_str(), InihHandler, &lookup));
        }
    });
#endif
}

mspb::Registrar registrar(RegisterAll);

}  // namespace
