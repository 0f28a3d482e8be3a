// Runs the built msplat (through the emulator in a cross build) and gives back its exit status and output.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/support.h"

namespace msptest {

struct MsplatResult {
    int status;       // exit status, or kChildTimedOut / kChildSignalled
    std::string out;  // standard output
    std::string err;  // standard error
};

inline std::vector<std::string> MsplatCommand() {
    std::vector<std::string> command;
    std::istringstream emulator(MSPLAT_EMULATOR);
    for (std::string word; emulator >> word;) command.push_back(word);
    command.push_back(MSPLAT_PATH);
    return command;
}

inline bool UnderEmulation() {
    return MsplatCommand().size() > 1;
}

// Starts msplat with `args` in a child: in the directory `cwd` (the caller's when empty), standard input from
// the file `in`, standard output and error into the files `out` and `err`, the environment changed by `env`
// ("NAME=value" each), and `prefix` run ahead of it (a command that ends by running its arguments). The
// child's pid, for WaitChild.
inline pid_t StartMsplat(const std::vector<std::string>& args, const std::string& in, const std::string& out,
                         const std::string& err, const std::string& cwd = "",
                         const std::vector<std::string>& env = {},
                         const std::vector<std::string>& prefix = {}) {
    std::vector<std::string> command = prefix;
    for (const std::vector<std::string>& part : {MsplatCommand(), args})
        command.insert(command.end(), part.begin(), part.end());
    return StartChild([&] {
        if (!cwd.empty() && chdir(cwd.c_str()) != 0) return 126;
        for (const std::string& setting : env) putenv(const_cast<char*>(setting.c_str()));
        int fds[3] = {open(in.c_str(), O_RDONLY), open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600),
                      open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600)};
        for (int fd = 0; fd < 3; ++fd)
            if (fds[fd] < 0 || dup2(fds[fd], fd) < 0) return 126;
        std::vector<char*> argv;
        for (const std::string& word : command) argv.push_back(const_cast<char*>(word.c_str()));
        argv.push_back(nullptr);
        execvp(argv[0], argv.data());
        return 127;
    });
}

// Runs msplat as StartMsplat does, with `input` on standard input, and gives back its exit status and
// output.
inline MsplatResult Msplat(const std::vector<std::string>& args, const std::string& cwd = "",
                           const std::string& input = "", const std::vector<std::string>& env = {},
                           int timeoutMs = 120000, const std::vector<std::string>& prefix = {}) {
    TempDir capture;
    const std::string in = capture.file("in"), out = capture.file("out"), err = capture.file("err");
    WriteFile(in, input);
    int status = WaitChild(StartMsplat(args, in, out, err, cwd, env, prefix), timeoutMs);
    return {status, ReadFile(out), ReadFile(err)};
}

// A run and what it must give, each whole; "*" stands for any text but the empty one.
struct Expected {
    std::vector<std::string> args;
    int status;
    std::string out;
    std::string err;
};

// Runs each of `runs` in `cwd` with `prefix` ahead of its arguments and compares.
inline void ExpectRuns(const std::vector<Expected>& runs, const std::string& cwd = "",
                       const std::vector<std::string>& prefix = {}) {
    for (const Expected& e : runs) {
        std::vector<std::string> args = prefix;
        args.insert(args.end(), e.args.begin(), e.args.end());
        std::string command;
        for (const std::string& arg : args) command += " " + arg;
        const MsplatResult r = Msplat(args, cwd);
        EXPECT_EQ(r.status, e.status) << command << "\n" << r.err;
        for (auto [got, expected] : {std::pair(&r.out, &e.out), std::pair(&r.err, &e.err)}) {
            if (*expected == "*")
                EXPECT_NE(*got, "") << command;
            else
                EXPECT_EQ(*got, *expected) << command;
        }
    }
}

}  // namespace msptest
