// msplat config: reads and changes MediaServer.cfg through the library, under the lock "cfgCtrlMgr" that the
// server processes hold, with the store's own rules.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <memory>
#include <string>

#include <CLI/CLI.hpp>
#include <msplatform/ZvCfgCtrlMgr.h>
#include <msplatform/cfgCtrlMgr.h>
#include <msplatform/stringUtils.h>

#include "msplat.h"

namespace msplat {
namespace {

struct ConfigArgs {
    std::string file = "MediaServer.cfg";
    std::string section;
    std::string key;
    std::string value;
    bool asInt = false;
    bool asString = false;
};

// The tool refuses to write what the store could not read back as written: a line end inside a name or
// value starts a new line of the file (a value could even start a section), and an "=" in a key name makes
// the key read back under a shorter name.
bool CheckWritable(const ConfigArgs& args, bool withValue) {
    auto hasLineEnd = [](const std::string& text) { return text.find_first_of("\r\n") != std::string::npos; };
    if (args.section.empty() || args.key.empty()) {
        Error("config: empty section or key name");
        return false;
    }
    if (hasLineEnd(args.section) || hasLineEnd(args.key) || (withValue && hasLineEnd(args.value))) {
        Error("config: a line end can't stand in a section, key or value");
        return false;
    }
    if (args.key.find('=') != std::string::npos) {
        Error("config: a key name can't hold \"=\"");
        return false;
    }
    return true;
}

void ReportKey(const ConfigArgs& args, int result) {
    if (result == CFG_SECTION_NOT_FOUND)
        Error("%s: [%s]: %s", args.file.c_str(), args.section.c_str(), CfgResultText(result));
    else
        Error("%s: [%s] %s: %s", args.file.c_str(), args.section.c_str(), args.key.c_str(),
              CfgResultText(result));
}

// The reads (get, type, dump) go through a manager of the tool's own: one locked read of the whole file
// gives a value together with its type, where the flat functions would need two reads, between which
// another process could change the key. The manager stays reachable until exit, with its lock object.
class Snapshot {
public:
    // kOk with the file read, or the exit status after a message.
    int Load(const std::string& path) {
        if (!CheckCfgPath(path)) return kFailure;
        int status = CheckRegularFile(path);
        if (status != kOk) return status;
        int result = manager_.initialize(path.c_str());
        if (result != CFG_OK) {
            Error("%s: %s", path.c_str(), CfgResultText(result));
            return kFailure;
        }
        manager_.LockMutex();
        int read = manager_.readCfgValues();
        first_ = read == 1 ? FindFirst(path) : nullptr;
        manager_.UnlockMutex();
        if (read != 1) {
            Error("%s: %s", path.c_str(), CfgResultText(CFG_FILE_ERROR));
            return kFailure;
        }
        return kOk;
    }

    Section* Find(const std::string& name) { return manager_.getSectionNode(C(name)); }

    // The store's sections in file order; null when there are none.
    Section* First() const { return first_; }

private:
    // The manager hands out no list head, so the first named section line of the file, found with the
    // store's own line reader under the same hold of the lock, leads to it. Nameless sections ("[]")
    // ahead of it hold nothing.
    Section* FindFirst(const std::string& path) {
        FILE* stream = fopen(path.c_str(), "rb");
        if (!stream) return nullptr;
        Section* found = nullptr;
        char* line = nullptr;
        while (!found && manager_.getLineInfo(stream, &line)) {
            size_t length = strlen(line);
            if (length > 2 && manager_.isLineInfoASection(line)) {
                line[length - 1] = '\0';
                found = manager_.getSectionNode(line + 1);
            }
            free(line);
            line = nullptr;
        }
        fclose(stream);
        return found;
    }

    ZvConfigCtrlMgr manager_;
    Section* first_ = nullptr;
};

Snapshot& TheSnapshot() {
    static Snapshot snapshot;
    return snapshot;
}

void PrintValue(const keyInfo& key) {
    if (key.type == dtypeInt)
        Printf("%d", key.intValue);
    else
        fputs(reinterpret_cast<const char*>(key.stringValue), Out());
}

// Finds a key in a fresh read; kOk with *found set, or the exit status after a message.
int FindKey(const ConfigArgs& args, keyInfo*& found) {
    Snapshot& snapshot = TheSnapshot();
    int status = snapshot.Load(args.file);
    if (status != kOk) return status;
    Section* section = snapshot.Find(args.section);
    if (!section) {
        ReportKey(args, CFG_SECTION_NOT_FOUND);
        return kMissing;
    }
    for (keyInfo* key = section->firstKey; key != section->lastKey; key = key->next) {
        if (StrCaseCmp(key->name, args.key.c_str()) == 0) {
            found = key;
            return kOk;
        }
    }
    ReportKey(args, CFG_KEY_NOT_FOUND);
    return kMissing;
}

int Get(const ConfigArgs& args) {
    keyInfo* key = nullptr;
    int status = FindKey(args, key);
    if (status != kOk) return status;
    PrintValue(*key);
    Putc('\n');
    return kOk;
}

int Type(const ConfigArgs& args) {
    keyInfo* key = nullptr;
    int status = FindKey(args, key);
    if (status != kOk) return status;
    Puts(key->type == dtypeInt ? "int" : "string");
    return kOk;
}

int Dump(const ConfigArgs& args) {
    Snapshot& snapshot = TheSnapshot();
    int status = snapshot.Load(args.file);
    if (status != kOk) return status;
    bool firstOut = true;
    for (Section* section = snapshot.First(); section; section = section->next) {
        if (!section->name || !section->firstKey) continue;  // a nameless "[]" holds no key
        Printf("%s[%s]\n", firstOut ? "" : "\n", section->name);
        firstOut = false;
        for (keyInfo* key = section->firstKey; key != section->lastKey; key = key->next) {
            Printf(key->type == dtypeInt ? "%s=" : "%s=\"", key->name);
            PrintValue(*key);
            Puts(key->type == dtypeInt ? "" : "\"");
        }
    }
    return kOk;
}

// The writes go through the flat functions, each of which is one locked read, change and write.
int OpenStore(const std::string& path) {
    if (!CheckCfgPath(path)) return kFailure;
    int result = initializeConfig(path.c_str());
    if (result != CFG_OK) {
        Error("%s: %s", path.c_str(), CfgResultText(result));
        return kFailure;
    }
    return kOk;
}

int Set(const ConfigArgs& args) {
    if (!CheckWritable(args, true)) return kFailure;
    int status = CheckRegularFile(args.file);
    if (status != kOk) return status;
    status = OpenStore(args.file);
    if (status != kOk) return status;
    // The key's type decides how the value is read; a key never changes its type.
    int current = 0;
    int result = getConfigInt(C(args.section), C(args.key), current);
    if (result == CFG_OK) {
        int value = 0;
        if (!ParseInt(args.value, value)) {
            Error("[%s] %s is an int key: \"%s\" is no int", args.section.c_str(), args.key.c_str(),
                  args.value.c_str());
            status = kFailure;
        } else {
            result = setConfigInt(C(args.section), C(args.key), value);
        }
    } else if (result == CFG_TYPE_MISMATCH) {
        result =
            setConfigString(C(args.section), C(args.key), U(args.value), static_cast<int>(args.value.size()));
    }
    if (status == kOk && result != CFG_OK) {
        ReportKey(args, result);
        status = CfgResultStatus(result);
    }
    deinitializeConfig();
    return status;
}

int Create(const ConfigArgs& args) {
    if (!CheckWritable(args, true)) return kFailure;
    struct stat st;
    if (stat(args.file.c_str(), &st) == 0 && !S_ISREG(st.st_mode)) {
        Error("%s: not a regular file", args.file.c_str());
        return kFailure;
    }
    int value = 0;
    if (args.asInt && !ParseInt(args.value, value)) {
        Error("\"%s\" is no int", args.value.c_str());
        return kFailure;
    }
    int status = OpenStore(args.file);
    if (status != kOk) return status;
    int result = args.asInt ? createConfigInt(C(args.section), C(args.key), value)
                            : createConfigString(C(args.section), C(args.key), U(args.value),
                                                 static_cast<int>(args.value.size()));
    if (result != CFG_OK) {
        ReportKey(args, result);
        status = result == CFG_KEY_EXISTS ? kFailure : CfgResultStatus(result);
    }
    deinitializeConfig();
    return status;
}

}  // namespace

void AddConfigCommands(CLI::App& app, int& status) {
    auto args = std::make_shared<ConfigArgs>();
    CLI::App* config =
        app.add_subcommand("config", "Read and change MediaServer.cfg, under the store's lock");
    config->require_subcommand(1);
    config->add_option("--file", args->file, "The configuration file")->capture_default_str();
    config->footer(
        "--file PATH (default MediaServer.cfg) may stand before or after the command.\n"
        "Every command reads the whole file afresh under the lock \"cfgCtrlMgr\" that the server processes\n"
        "hold; set and create write it back whole. Names match without regard to case.\n"
        "Exit status: 0 done, 1 no such file, section or key, 2 bad usage or failure.");

    auto addNames = [&](CLI::App* command) {
        command->fallthrough();  // --file may also stand behind the command
        command->add_option("SECTION", args->section, "Section name")->required();
        command->add_option("KEY", args->key, "Key name")->required();
    };

    CLI::App* get = config->add_subcommand("get", "Print a key's value");
    addNames(get);
    get->callback([&status, args] { status = Get(*args); });

    CLI::App* type = config->add_subcommand("type", "Print a key's type: int or string");
    addNames(type);
    type->callback([&status, args] { status = Type(*args); });

    CLI::App* set = config->add_subcommand("set", "Change the value of an existing key (of either type)");
    addNames(set);
    set->add_option("VALUE", args->value, "New value: a decimal int for an int key")->required();
    set->callback([&status, args] { status = Set(*args); });

    CLI::App* create = config->add_subcommand(
        "create", "Add a key, and its section if need be; the file is made if there is none");
    addNames(create);
    create->add_option("VALUE", args->value, "Value: a decimal int with --int")->required();
    auto* asInt = create->add_flag("--int", args->asInt, "The key holds an int");
    auto* asString = create->add_flag("--string", args->asString, "The key holds a string");
    asInt->excludes(asString);
    create->callback([&status, args, create] {
        if (!args->asInt && !args->asString)
            throw CLI::RequiredError(create->get_name() + ": --int or --string");
        status = Create(*args);
    });

    CLI::App* dump = config->add_subcommand("dump", "Print the sections and keys as the store reads them");
    dump->fallthrough();
    dump->callback([&status, args] { status = Dump(*args); });

    AddConfigChangeCommands(config, std::shared_ptr<std::string>(args, &args->file), status);
}

}  // namespace msplat
