// msplat log list and log follow: a module's log files, in the order the logger made them, and their lines
// as they are written, across the logger's rotations and deletions.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include <CLI/CLI.hpp>
#include <msplatform/ZvCfgCtrlMgr.h>
#include <msplatform/eventLogger.h>

#include "msplat.h"

namespace msplat {
namespace {

constexpr int kPollMs = 100;

struct FilesArgs {
    std::string config;
    std::string dir;
    std::string module;
    int lines = 0;
    int pid = 0;
};

// The time that a file's name gives: date, then hour, minute, second, millisecond.
using NameTime = std::tuple<int, int, int, int, int, int, int>;

struct LogFile {
    std::string name;
    struct stat st;
    NameTime named;

    // A file's name is no safe order: its seconds and milliseconds are two clock readings, so a file made
    // at the turn of a second can carry a smaller time than an older one, and months come before years.
    // The logger writes no line to a file once it has made the next one, so the last write orders them;
    // the name decides between files written within one tick of the file system's clock.
    bool operator<(const LogFile& other) const {
        return std::tie(st.st_mtim.tv_sec, st.st_mtim.tv_nsec, named, name) <
               std::tie(other.st.st_mtim.tv_sec, other.st.st_mtim.tv_nsec, other.named, other.name);
    }
};

// Digits at `text`, as a number; -1 unless all `count` of them are digits.
int Digits(const char* text, size_t count) {
    int value = 0;
    for (size_t i = 0; i < count; ++i) {
        if (text[i] < '0' || text[i] > '9') return -1;
        value = value * 10 + (text[i] - '0');
    }
    return value;
}

// The names of a module's files, "serverLog.<module>.MM-DD-YYYY.HHMMSS.mmm.txt" by the logger's own format.
// Another module's files are none of them, though the logger counts and deletes them all.
class ModuleNames {
public:
    explicit ModuleNames(const std::string& module) {
        const std::string format = EventLogger_FileName;  // "serverLog.%s.%s.%s.txt"
        const size_t first = format.find("%s"), last = format.rfind("%s");
        prefix_ = format.substr(0, first) + module + format.substr(first + 2, 1);
        suffix_ = format.substr(last + 2);
    }

    // Whether `name` is one; its time when it is.
    bool Match(const char* name, NameTime& named) const {
        const size_t fields = 10 + 1 + 10;  // "MM-DD-YYYY", ".", "HHMMSS.mmm"
        const size_t length = strlen(name);
        if (length != prefix_.size() + fields + suffix_.size() ||
            prefix_.compare(0, prefix_.size(), name, prefix_.size()) != 0 ||
            suffix_.compare(name + length - suffix_.size()) != 0)
            return false;
        const char* f = name + prefix_.size();
        if (f[2] != '-' || f[5] != '-' || f[10] != '.' || f[17] != '.') return false;
        named = {Digits(f + 6, 4),  Digits(f, 2),      Digits(f + 3, 2), Digits(f + 11, 2),
                 Digits(f + 13, 2), Digits(f + 15, 2), Digits(f + 18, 3)};
        const auto& [y, mo, d, h, mi, s, ms] = named;
        return y >= 0 && mo >= 0 && d >= 0 && h >= 0 && mi >= 0 && s >= 0 && ms >= 0;
    }

private:
    std::string prefix_;  // "serverLog.<module>."
    std::string suffix_;  // ".txt"
};

// The module's files in `dir`, oldest first; false (errno set) when the directory can't be read. Files
// that vanish while they are listed are left out.
bool ListFiles(const std::string& dir, const ModuleNames& names, std::vector<LogFile>& files) {
    files.clear();
    DIR* stream = opendir(dir.c_str());
    if (!stream) return false;
    errno = 0;
    LogFile file;
    while (struct dirent* entry = readdir(stream)) {
        if (names.Match(entry->d_name, file.named) &&
            stat((dir + "/" + entry->d_name).c_str(), &file.st) == 0 && S_ISREG(file.st.st_mode)) {
            file.name = entry->d_name;
            files.push_back(file);
        }
        errno = 0;
    }
    int error = errno;
    closedir(stream);
    errno = error;
    std::sort(files.begin(), files.end());
    return error == 0;
}

// The log directory: --dir, or logFilePath of the module's section in --config. kOk or the exit status.
int FindDir(const FilesArgs& args, std::string& dir) {
    if (args.config.empty() == args.dir.empty()) {
        Error("log: give --config PATH or --dir DIR, with --module");
        return kFailure;
    }
    if (!args.dir.empty()) {
        dir = args.dir;
        return kOk;
    }
    int status = CheckRegularFile(args.config);
    if (status != kOk) return status;
    int result = initializeConfig(args.config.c_str());
    if (result != CFG_OK) {
        Error("%s: %s", args.config.c_str(), CfgResultText(result));
        return kFailure;
    }
    status = ReadConfigString(args.config, args.module.c_str(), "logFilePath", dir);
    deinitializeConfig();
    return status;
}

int OpenDir(const FilesArgs& args, std::string& dir, std::vector<LogFile>& files) {
    int status = FindDir(args, dir);
    if (status != kOk) return status;
    if (!ListFiles(dir, ModuleNames(args.module), files)) {
        int error = errno;
        Error("log: %s: %s", dir.c_str(), strerror(error));
        return error == ENOENT || error == ENOTDIR ? kMissing : kFailure;
    }
    return kOk;
}

int List(const FilesArgs& args) {
    std::string dir;
    std::vector<LogFile> files;
    int status = OpenDir(args, dir, files);
    if (status != kOk) return status;
    if (files.empty()) {
        Error("log: no log file of the module %s in %s", args.module.c_str(), dir.c_str());
        return kMissing;
    }
    for (const LogFile& file : files) {
        char stamp[32] = "-";
        struct tm tm;
        if (localtime_r(&file.st.st_mtime, &tm)) strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%S", &tm);
        Printf("%10lld %s %s/%s\n", static_cast<long long>(file.st.st_size), stamp, dir.c_str(),
               file.name.c_str());
    }
    return kOk;
}

// ---- follow ----

// One file being read. The descriptor stays open to the end, so a file that the logger deletes meanwhile
// is read all the same.
class Reader {
public:
    Reader(int fd, off_t offset) : fd_(fd), offset_(offset) {}
    ~Reader() { close(fd_); }
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    // Prints the whole lines written since the last call; with `last`, the file is done and a last line
    // without its end is printed too. False on a read error.
    bool Drain(bool last) {
        char buffer[64 * 1024];
        for (;;) {
            ssize_t n = pread(fd_, buffer, sizeof buffer, offset_);
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) return false;
            if (n == 0) break;
            offset_ += n;
            pending_.append(buffer, static_cast<size_t>(n));
            // A line still being written waits for its end.
            size_t end = pending_.rfind('\n');
            if (end != std::string::npos) {
                fwrite(pending_.data(), 1, end + 1, Out());
                pending_.erase(0, end + 1);
            }
        }
        if (last && !pending_.empty()) {
            fwrite(pending_.data(), 1, pending_.size(), Out());
            Putc('\n');
            pending_.clear();
        }
        return true;
    }

    // Where the last `want` lines before `end` begin, reading backwards; `found` tells how many there are.
    off_t TailStart(off_t end, int want, int& found) {
        found = 0;
        if (want <= 0 || end <= 0) return end;
        char buffer[64 * 1024];
        for (off_t stop = end; stop > 0;) {
            off_t from = std::max<off_t>(0, stop - static_cast<off_t>(sizeof buffer));
            ssize_t n = pread(fd_, buffer, static_cast<size_t>(stop - from), from);
            if (n <= 0) break;
            for (off_t at = from + n - 1; at >= from; --at) {
                // The line end at `end - 1` ends the last line; every other one starts a line behind it.
                if (buffer[at - from] != '\n' || at == end - 1) continue;
                if (++found == want) return at + 1;
            }
            stop = from;
        }
        ++found;  // the first line of the file
        return 0;
    }

    void Skip(off_t offset) { offset_ = offset; }

private:
    int fd_;
    off_t offset_;
    std::string pending_;  // the beginning of a line still being written
};

// The end of the last whole line of an open file of `size` bytes.
off_t WholeLinesEnd(int fd, off_t size) {
    char buffer[4096];
    for (off_t stop = size; stop > 0;) {
        off_t from = std::max<off_t>(0, stop - static_cast<off_t>(sizeof buffer));
        ssize_t n = pread(fd, buffer, static_cast<size_t>(stop - from), from);
        if (n <= 0) return 0;
        for (off_t at = from + n - 1; at >= from; --at)
            if (buffer[at - from] == '\n') return at + 1;
        stop = from;
    }
    return 0;
}

struct Following {
    LogFile file;
    std::unique_ptr<Reader> reader;
};

using FileIds = std::set<std::tuple<std::string, dev_t, ino_t>>;

FileIds IdsOf(const std::vector<LogFile>& files) {
    FileIds ids;
    for (const LogFile& file : files) ids.emplace(file.name, file.st.st_dev, file.st.st_ino);
    return ids;
}

// Opens the files that came since the last look, at once, before the logger can delete them; oldest first.
// `seen` becomes the files there now: only those can be met again.
std::vector<Following> OpenNew(const std::string& dir, const ModuleNames& names, FileIds& seen) {
    std::vector<LogFile> files;
    std::vector<Following> fresh;
    if (!ListFiles(dir, names, files)) return fresh;  // gone for now; the open files are still read
    FileIds present = IdsOf(files);
    for (LogFile& file : files) {
        if (seen.count(std::make_tuple(file.name, file.st.st_dev, file.st.st_ino))) continue;
        int fd = open((dir + "/" + file.name).c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) continue;  // deleted before it could be opened: nothing can be done about it
        fresh.push_back({std::move(file), std::make_unique<Reader>(fd, 0)});
    }
    seen.swap(present);
    return fresh;
}

// Prints the last `want` lines of the log, newest file first backwards, and leaves `newest` at the end of
// its whole lines.
void PrintTail(const std::string& dir, const std::vector<LogFile>& files, Reader& newest, off_t end,
               int want) {
    int found = 0;
    off_t start = newest.TailStart(end, want, found);
    std::vector<std::unique_ptr<Reader>> older;  // newest first
    for (size_t i = files.size() - 1; i-- > 0 && found < want;) {
        int fd = open((dir + "/" + files[i].name).c_str(), O_RDONLY | O_CLOEXEC);
        struct stat st;
        if (fd < 0) continue;
        if (fstat(fd, &st) != 0) {
            close(fd);
            continue;
        }
        auto reader = std::make_unique<Reader>(fd, 0);
        int more = 0;
        off_t from = reader->TailStart(st.st_size, want - found, more);
        found += more;
        reader->Skip(from);
        older.push_back(std::move(reader));
    }
    for (auto it = older.rbegin(); it != older.rend(); ++it) (*it)->Drain(true);
    newest.Skip(start);
    newest.Drain(false);
}

// A process that has ended; msplat's own children are reaped by their parent, not here.
bool Ended(int pid) {
    return kill(pid, 0) != 0 && errno == ESRCH;
}

int Follow(const FilesArgs& args) {
    std::string dir;
    std::vector<LogFile> files;
    int status = OpenDir(args, dir, files);
    if (status != kOk) return status;
    const ModuleNames names(args.module);
    FileIds seen = IdsOf(files);
    Following current;
    if (!files.empty()) {
        current.file = files.back();
        int fd = open((dir + "/" + current.file.name).c_str(), O_RDONLY | O_CLOEXEC);
        struct stat st;
        if (fd >= 0 && fstat(fd, &st) == 0) {
            current.reader = std::make_unique<Reader>(fd, 0);
            PrintTail(dir, files, *current.reader, WholeLinesEnd(fd, st.st_size), args.lines);
        } else if (fd >= 0) {
            close(fd);
        }
    }
    if (!current.reader)
        Error("log follow: no log file of the module %s in %s yet: waiting", args.module.c_str(),
              dir.c_str());
    for (bool last = false; !last;) {
        // The watched process has ended: one more look, and every file is done.
        last = args.pid > 0 && Ended(args.pid);
        std::vector<Following> fresh = OpenNew(dir, names, seen);
        // A file is done once the logger has made a newer one: it writes no line to it after that.
        if (current.reader && !current.reader->Drain(last || !fresh.empty())) {
            Error("log follow: %s/%s: %s", dir.c_str(), current.file.name.c_str(), strerror(errno));
            return kFailure;
        }
        for (size_t i = 0; i < fresh.size(); ++i) {
            current = std::move(fresh[i]);
            if (!current.reader->Drain(last || i + 1 < fresh.size())) {
                Error("log follow: %s/%s: %s", dir.c_str(), current.file.name.c_str(), strerror(errno));
                return kFailure;
            }
        }
        if (fflush(Out()) != 0) return kFailure;  // main says why
        if (!last) {
            struct timespec pause = {0, kPollMs * 1000000L};
            nanosleep(&pause, nullptr);
        }
    }
    return kOk;
}

void AddSource(CLI::App* command, FilesArgs& args) {
    CLI::Option* config = command->add_option("--config", args.config,
                                              "Configuration file; its section --module names the directory");
    command->add_option("--dir", args.dir, "The log directory")->excludes(config);
    command
        ->add_option("--module", args.module,
                     "The module: its section, and the module part of the file names")
        ->required();
}

}  // namespace

void AddLogFileCommands(CLI::App* log, int& status) {
    auto args = std::make_shared<FilesArgs>();
    CLI::App* list =
        log->add_subcommand("list", "List a module's log files, oldest first, with size and time");
    AddSource(list, *args);
    list->footer(
        "One line per file: its size in bytes, the local time of its last write, its path. The files are\n"
        "those the logger names serverLog.<module>.<date>.<time>.txt, in the order it made them.");
    list->callback([&status, args] { status = List(*args); });

    CLI::App* follow = log->add_subcommand("follow", "Print a module's log lines as they are written");
    AddSource(follow, *args);
    follow->add_option("--lines", args->lines, "First print the last N lines of the log")
        ->capture_default_str()
        ->check(CLI::Range(0, 1000000000));
    follow->add_option("--pid", args->pid, "End once the process PID has ended, after its last lines")
        ->check(CLI::Range(1, 1 << 30));
    follow->footer(
        "Follows the module's newest file and moves on to each new file that the logger starts, without\n"
        "losing or repeating a line, also when the logger deletes the file being read. Lines print whole,\n"
        "once their line end is written. It runs until interrupted, or with --pid until that process ends.\n"
        "It looks ten times a second: only a file that the logger both starts and deletes between two\n"
        "looks (logFilesCount rotations within a tenth of a second) can't be read.");
    follow->callback([&status, args] { status = Follow(*args); });
}

}  // namespace msplat
