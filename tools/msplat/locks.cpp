// msplat locks: the state of the locks that the services share, read from the semaphore sets without taking
// or changing any. No Mutex is built here: its constructor would make a missing set, and its destructor
// would remove the set for every process.
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <time.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "msplat.h"

namespace msplat {
namespace {

// The caller defines the argument of semctl.
union SemArg {
    int val;
    struct semid_ds* buf;
    unsigned short* array;
};

// The library's key of a name: the sum of its bytes, times 99.
key_t KeyOf(const std::string& name) {
    unsigned int sum = 0;
    for (unsigned char c : name) sum += c;
    return static_cast<key_t>(sum * 99u);
}

// The command name of the process of a set's last operation while it runs, or why there is none.
std::string CommandOf(int pid) {
    if (pid <= 0) return "-";
    // The library makes the sets of the logger and the language reader when it is loaded, and so msplat's
    // own start makes them when they are missing.
    if (pid == getpid()) return "(this msplat)";
    if (kill(pid, 0) != 0 && errno == ESRCH) return "(ended)";
    std::string command = "?";  // it runs, but /proc does not tell
    if (FILE* stream = fopen(("/proc/" + std::to_string(pid) + "/comm").c_str(), "re")) {
        char text[64];
        if (fgets(text, sizeof text, stream)) {
            command = text;
            if (!command.empty() && command.back() == '\n') command.pop_back();
        }
        fclose(stream);
    }
    return command;
}

std::string TimeText(time_t when) {
    struct tm tm;
    char text[32];
    if (when == 0 || !localtime_r(&when, &tm) || !strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &tm))
        return "-";
    return text;
}

// One row: kOk, or kFailure after a message when the set could not be read.
int Row(const std::string& name, int width) {
    const key_t key = KeyOf(name);
    Printf("%-*s %-7ld ", width, name.c_str(), static_cast<long>(key));
    // Only attach: without IPC_CREAT, semget never makes a set.
    int id = semget(key, 0, 0);
    if (id < 0 && errno == ENOENT) {
        Printf("%-10s %-6s %-7s %-15s %-7s %s\n", "none", "-", "-", "-", "-", "-");
        return kOk;
    }
    struct semid_ds ds;
    SemArg arg;
    arg.buf = &ds;
    int value = -1, pid = -1, waiters = -1;
    if (id >= 0 && semctl(id, 0, IPC_STAT, arg) == 0) {
        value = semctl(id, 0, GETVAL);
        pid = semctl(id, 0, GETPID);
        waiters = semctl(id, 0, GETNCNT);
    }
    if (id < 0 || value < 0 || pid < 0 || waiters < 0) {
        int error = errno;
        Printf("%-7s\n", "?");
        Error("locks: %s (key %ld): %s", name.c_str(), static_cast<long>(key), strerror(error));
        return kFailure;
    }
    const std::string state = value == 1 ? "free" : value == 0 ? "held" : "value " + std::to_string(value);
    const std::string command = CommandOf(pid);
    Printf("%-10d %-6s %-7s %-15s %-7d %s\n", id, state.c_str(), pid > 0 ? std::to_string(pid).c_str() : "-",
           command.c_str(), waiters, TimeText(ds.sem_otime).c_str());
    return kOk;
}

int Locks(std::vector<std::string> names) {
    if (names.empty()) names = {"cfgCtrlMgr", "eventLogger", "languageReader", "MediaMapper"};
    int width = 4;
    for (const std::string& name : names) {
        // The empty name's key is IPC_PRIVATE, for which semget makes a set whatever the flags.
        if (name.empty() || name.find('\0') != std::string::npos) {
            Error("locks: a lock's name has at least one byte");
            return kFailure;
        }
        width = std::max(width, static_cast<int>(name.size()));
    }
    Printf("%-*s %-7s %-10s %-6s %-7s %-15s %-7s %s\n", width, "NAME", "KEY", "SET", "STATE", "PID",
           "COMMAND", "WAITERS", "LAST-OP");
    int status = kOk;
    for (const std::string& name : names) status = std::max(status, Row(name, width));
    return status;
}

}  // namespace

void AddLocksCommands(CLI::App& app, int& status) {
    auto names = std::make_shared<std::vector<std::string>>();
    CLI::App* locks =
        app.add_subcommand("locks", "Show the state of the shared locks, without touching them");
    locks->add_option("NAME", *names,
                      "Lock names (default: cfgCtrlMgr eventLogger languageReader MediaMapper)");
    locks->footer(
        "One line per lock: its name; its System V key (the sum of the name's bytes times 99); SET, the\n"
        "semaphore set's id, or none; STATE, free or held; PID, the process of the last operation on it,\n"
        "with its COMMAND while it runs ((ended) when it doesn't); WAITERS, the processes waiting to take\n"
        "it; LAST-OP, the local time of that operation, which for a held lock is when it was taken.\n"
        "The sets are only read: no lock is taken, changed, made or removed. (The library itself makes\n"
        "the sets of eventLogger and languageReader when msplat starts, if they are missing: their\n"
        "process is then (this msplat).)");
    locks->callback([&status, names] { status = Locks(*names); });
}

}  // namespace msplat
