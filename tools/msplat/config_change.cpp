// msplat config apply and config edit: several changes to MediaServer.cfg in one step, under the lock
// "cfgCtrlMgr" that the server processes hold, so that they never read a mix of old and new and no change of
// theirs is lost.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include <CLI/CLI.hpp>
#include <msplatform/cfgCtrlMgr.h>

#include "cfglines.h"
#include "msplat.h"
#include "shipped.h"

namespace msplat {
namespace {

// A manager of the tool's own, for one locked read and one write of the whole file. It stays reachable
// until exit, with its lock object.
ZvConfigCtrlMgr& Manager() {
    static ZvConfigCtrlMgr manager;
    return manager;
}

int OpenManager(const std::string& path) {
    if (!CheckCfgPath(path)) return kFailure;
    int result = Manager().initialize(path.c_str());
    if (result != CFG_OK) {
        Error("%s: %s", path.c_str(), CfgResultText(result));
        return kFailure;
    }
    return kOk;
}

// Holds "cfgCtrlMgr" for a scope. Nothing that can block on the user (standard input, a terminal, a full
// pipe on standard error) runs while it is held: every server waits for it.
class Hold {
public:
    Hold() { Manager().LockMutex(); }
    ~Hold() { Manager().UnlockMutex(); }
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;
};

// Reads a whole descriptor; false on a read error, with errno set.
bool ReadAll(int fd, std::string& bytes) {
    bytes.clear();
    char buffer[64 * 1024];
    for (;;) {
        ssize_t n = read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return false;
        if (n == 0) return true;
        bytes.append(buffer, static_cast<size_t>(n));
    }
}

bool ReadPath(const std::string& path, std::string& bytes) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    bool read = ReadAll(fd, bytes);
    int error = errno;
    close(fd);
    errno = error;
    return read;
}

// Writes the whole file. An existing one is rewritten in place, as the store does, so that its owner, mode
// and links stay.
bool WriteAll(const std::string& path, const std::string& bytes, int flags) {
    int fd = open(path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC | flags, 0600);
    if (fd < 0) return false;
    for (size_t done = 0; done < bytes.size();) {
        ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            int error = n < 0 ? errno : ENOSPC;
            close(fd);
            errno = error;
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return close(fd) == 0;
}

std::string Quoted(const CfgLine& line) {
    return line.kind == CfgLine::kInt ? std::to_string(line.intValue) : "\"" + line.value + "\"";
}

std::string Quoted(const keyInfo& key) {
    return key.type == dtypeInt ? std::to_string(key.intValue)
                                : "\"" + std::string(reinterpret_cast<const char*>(key.stringValue)) + "\"";
}

bool BlankAtEdge(const std::string& name) {
    auto blank = [](char c) { return c == ' ' || c == '\t'; };
    return blank(name.front()) || blank(name.back());
}

// ---- apply ----

struct ApplyArgs {
    std::string input;  // empty or "-": standard input
    bool dryRun = false;
};

// The changes of one transaction on the sections of one locked read: in words for --dry-run, or the lines
// that can't be applied.
class Changes {
public:
    explicit Changes(const std::string& source) : source_(source) {}

    // False when memory ran out; the sections are then not all as the lines want them.
    bool Apply(const std::vector<CfgLine>& lines) {
        Section* section = nullptr;
        for (const CfgLine& line : lines) {
            if (line.kind == CfgLine::kSection) {
                if (!FindOrAdd(line, section)) return false;
            } else if (section && line.kind != CfgLine::kNothing && !SetOrCreate(*section, line)) {
                return false;
            }
        }
        return true;
    }

    const std::vector<std::string>& done() const { return done_; }
    const std::vector<std::string>& refused() const { return refused_; }

private:
    using KeyIndex = std::unordered_map<std::string, keyInfo*>;

    void Refuse(const CfgLine& line, const std::string& why) {
        refused_.push_back(source_ + " line " + std::to_string(line.number) + " (" + line.text + "): " + why);
    }

    // The section that a section line names, made when the store has none; null when refused, false when
    // memory ran out. Each section gets an index of its keys, so that the lines cost no walk of the list
    // each under the lock.
    bool FindOrAdd(const CfgLine& line, Section*& section) {
        section = Manager().getSectionNode(C(line.name));
        if (!section) {
            if (BlankAtEdge(line.name)) {
                Refuse(line, "a new section whose name begins or ends with a blank");
                return true;
            }
            std::string header = "[" + line.name + "]";
            if (Manager().addSection(&header[0]) != CFG_OK) return false;
            section = Manager().getSectionNode(C(line.name));
            if (!section) return false;
            done_.push_back("[" + line.name + "] (new section)");
        }
        auto [entry, added] = keys_.try_emplace(section);
        if (added)
            for (keyInfo* key = section->firstKey; key != section->lastKey; key = key->next)
                entry->second.emplace(FoldCase(key->name), key);
        return true;
    }

    bool SetOrCreate(Section& section, const CfgLine& line) {
        KeyIndex& index = keys_[&section];
        const std::string folded = FoldCase(line.name);
        const bool isInt = line.kind == CfgLine::kInt;
        const std::string where = "[" + std::string(section.name) + "] ";
        auto found = index.find(folded);
        if (found == index.end()) {
            if (BlankAtEdge(line.name)) {
                Refuse(line, "a new key whose name begins or ends with a blank");
                return true;
            }
            keyInfo* node = section.lastKey;  // a new key fills the end node
            int result = isInt ? section.createIntKey(C(line.name), line.intValue)
                               : section.createUTF8Key(C(line.name), U(line.value),
                                                       static_cast<int>(line.value.size()));
            if (result != CFG_OK) return false;
            index.emplace(folded, node);
            done_.push_back(where + line.name + "=" + Quoted(line) + " (new key)");
            return true;
        }
        keyInfo& key = *found->second;
        if ((key.type == dtypeInt) != isInt) {
            Refuse(line, where + key.name + " is " + (isInt ? "a string key" : "an int key") +
                             ": a key keeps its type");
            return true;
        }
        const std::string was = Quoted(key);
        if (was == Quoted(line)) return true;
        int result =
            isInt ? section.setIntKeyValue(key.name, line.intValue)
                  : section.setUTF8KeyValue(key.name, U(line.value), static_cast<int>(line.value.size()));
        if (result != CFG_OK) return false;
        done_.push_back(where + key.name + "=" + Quoted(line) + " (was " + was + ")");
        return true;
    }

    std::string source_;
    std::unordered_map<Section*, KeyIndex> keys_;  // folded key names of each section met
    std::vector<std::string> done_;
    std::vector<std::string> refused_;
};

int Apply(const std::string& file, const ApplyArgs& args) {
    const bool fromStdin = args.input.empty() || args.input == "-";
    const std::string source = fromStdin ? "standard input" : args.input;
    std::string text;
    if (!fromStdin) {
        int status = CheckRegularFile(args.input);
        if (status != kOk) return status;
    }
    if (fromStdin ? !ReadAll(STDIN_FILENO, text) : !ReadPath(args.input, text)) {
        Error("%s: %s", source.c_str(), strerror(errno));
        return kFailure;
    }
    // Bad lines are found before the lock is taken; the types need the store.
    std::vector<CfgLine> lines = ReadCfgLines(text, true);
    bool bad = false;
    for (const CfgLine& line : lines) {
        if (line.problem.empty()) continue;
        Error("%s line %zu (%s): %s", source.c_str(), line.number, line.text.c_str(), line.problem.c_str());
        bad = true;
    }
    if (bad) {
        Error("%s: nothing written", file.c_str());
        return kFailure;
    }
    struct stat st;
    if (stat(file.c_str(), &st) == 0 && !S_ISREG(st.st_mode)) {
        Error("%s: not a regular file", file.c_str());
        return kFailure;
    }
    int status = OpenManager(file);
    if (status != kOk) return status;

    Changes changes(source);
    int result = CFG_OK;
    bool readWhole = true, applied = true;
    {
        Hold hold;
        if (Manager().readCfgValues() != CFG_OK) {
            // Only a missing file is an empty store; one that can't be read whole would lose keys.
            readWhole = stat(file.c_str(), &st) != 0 && errno == ENOENT;
        }
        if (readWhole) applied = changes.Apply(lines);
        if (readWhole && applied && changes.refused().empty() && !changes.done().empty() && !args.dryRun)
            result = Manager().writeCfgValues();
    }
    // Messages only once the lock is free.
    if (!readWhole) {
        Error("%s: could not be read whole: nothing written", file.c_str());
        return kFailure;
    }
    if (!applied) {
        Error("%s: out of memory: nothing written", file.c_str());
        return kFailure;
    }
    for (const std::string& refused : changes.refused()) Error("%s", refused.c_str());
    if (!changes.refused().empty()) {
        Error("%s: nothing written", file.c_str());
        return kFailure;
    }
    if (result != CFG_OK) {
        Error("%s: %s", file.c_str(), CfgResultText(result));
        return kFailure;
    }
    if (args.dryRun)
        for (const std::string& change : changes.done()) Puts(change.c_str());
    return kOk;
}

// ---- edit ----

// Runs the editor on `path` and waits for it; its exit status, or -1 when it could not run or was killed.
int RunEditor(const std::string& path) {
    const char* editor = nullptr;
    for (const char* name : {"VISUAL", "EDITOR"}) {
        const char* value = getenv(name);
        if (!editor && value && *value) editor = value;
    }
    const std::string command = std::string(editor ? editor : "vi") + " \"$1\"";
    // A ^C at the terminal is for the editor; msplat waits for it to end and then cleans up.
    struct sigaction ignore = {}, oldInt = {}, oldQuit = {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGINT, &ignore, &oldInt);
    sigaction(SIGQUIT, &ignore, &oldQuit);
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        sigaction(SIGINT, &oldInt, nullptr);
        sigaction(SIGQUIT, &oldQuit, nullptr);
        signal(SIGXFSZ, SIG_DFL);
        // The editor writes to the terminal that msplat was given, not where the library's lines go.
        dup2(fileno(Out()), STDOUT_FILENO);
        execl("/bin/sh", "sh", "-c", command.c_str(), "sh", path.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    int status = -1;
    if (pid > 0)
        while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
    sigaction(SIGINT, &oldInt, nullptr);
    sigaction(SIGQUIT, &oldQuit, nullptr);
    return pid > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int Edit(const std::string& file) {
    if (!CheckCfgPath(file)) return kFailure;
    int status = CheckRegularFile(file);
    if (status != kOk) return status;
    status = OpenManager(file);
    if (status != kOk) return status;
    std::string before;
    bool read;
    {
        Hold hold;  // a server's rewrite is never taken half done
        read = ReadPath(file, before);
    }
    if (!read) {
        Error("%s: %s", file.c_str(), strerror(errno));
        return kFailure;
    }
    const std::string dir = MakeTempDir("edit");
    if (dir.empty()) return kFailure;
    const size_t slash = file.rfind('/');
    const std::string name = slash == std::string::npos ? file : file.substr(slash + 1);
    const std::string copy = dir + "/" + name;
    const char* const names[] = {name.c_str(), nullptr};
    if (!WriteAll(copy, before, O_CREAT | O_EXCL)) {
        Error("%s: %s", copy.c_str(), strerror(errno));
        RemoveTempDir(dir, names);
        return kFailure;
    }

    int edited = RunEditor(copy);
    std::string after;
    if (edited != 0) {
        Error("edit: the editor failed (status %d): nothing written; the copy stays at %s", edited,
              copy.c_str());
        return kFailure;
    }
    if (!ReadPath(copy, after)) {
        Error("edit: %s: %s: nothing written", copy.c_str(), strerror(errno));
        return kFailure;
    }
    for (const CfgLine& line : ReadCfgLines(after, false))
        if (!line.problem.empty())
            Error("warning: %s line %zu (%s): %s", file.c_str(), line.number, line.text.c_str(),
                  line.problem.c_str());
    if (after == before) {
        RemoveTempDir(dir, names);
        return kOk;
    }
    std::string now;
    bool unchanged, written = false, restored = false;
    {
        Hold hold;
        unchanged = ReadPath(file, now) && now == before;
        if (unchanged) {
            written = WriteAll(file, after, 0);
            // A short write (a full disk) would leave a cut file: the old bytes go back.
            if (!written) restored = WriteAll(file, before, 0);
        }
    }
    if (!unchanged) {
        Error("edit: %s changed while it was edited: nothing written; the edited copy stays at %s",
              file.c_str(), copy.c_str());
        return kFailure;
    }
    if (!written) {
        Error("edit: %s: %s: %s; the edited copy stays at %s", file.c_str(), strerror(errno),
              restored ? "nothing written" : "the file may be cut", copy.c_str());
        return kFailure;
    }
    RemoveTempDir(dir, names);
    return kOk;
}

}  // namespace

void AddConfigChangeCommands(CLI::App* config, const std::shared_ptr<std::string>& file, int& status) {
    auto args = std::make_shared<ApplyArgs>();
    CLI::App* apply = config->add_subcommand(
        "apply", "Apply lines in the file's own format as one transaction: all of them or none");
    apply->fallthrough();
    apply->add_option("FILE", args->input, "The lines; standard input when none is given, or for \"-\"");
    apply->add_flag("--dry-run", args->dryRun, "Print what would change and write nothing");
    apply->footer(
        "Lines: [section], key=\"text\", key=number (a decimal int), empty lines. Under one hold of\n"
        "the lock \"cfgCtrlMgr\": one read of the file, every change (a missing section or key is\n"
        "created, an existing key is set and keeps its type), one write. A section line names the\n"
        "section for the lines behind it. Nothing is written when a line is one that the store would\n"
        "drop or read otherwise (no \"=\", a key ahead of the first section, a repeated key, a number\n"
        "with other text, a string without its closing quote), when a value's type is not the key's, or\n"
        "when a new name begins or ends with a blank; the message names the line.\n"
        "--dry-run prints each change: [section] key=value (was old value), (new key) or (new section).");
    apply->callback([&status, file, args] { status = Apply(*file, *args); });

    CLI::App* edit = config->add_subcommand(
        "edit", "Edit a copy in $VISUAL, $EDITOR or vi; write it back unless the file changed meanwhile");
    edit->fallthrough();
    edit->footer(
        "The copy is taken under the lock \"cfgCtrlMgr\"; the editor runs without it. The edited copy is\n"
        "written back under the lock only if the file still holds what was copied; otherwise nothing is\n"
        "written and the edited copy stays where msplat says. Lines that the store will drop or read\n"
        "otherwise are shown as warnings.");
    edit->callback([&status, file] { status = Edit(*file); });
}

}  // namespace msplat
