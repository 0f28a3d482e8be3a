// Runs the built msplat (through the emulator in a cross build) and compares what it gives.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/support.h"

namespace msptest {

using Strings = std::vector<std::string>;

inline Strings Words(const std::string& text) {
    std::istringstream in(text);
    return {std::istream_iterator<std::string>(in), std::istream_iterator<std::string>()};
}

constexpr bool kUnderEmulation = sizeof(MSPLAT_EMULATOR) > 1;

// msplat's arguments: the words of a line, or each given whole.
struct Args : Strings {
    Args(const char* line) : vector(Words(line)) {}
    Args(const std::string& line) : vector(Words(line)) {}
    Args(std::initializer_list<std::string> words) : vector(words) {}
};

struct MsplatResult {
    int status;  // exit status, or kChildTimedOut / kChildSignalled
    std::string out, err;
};

// Starts msplat in a child: in `cwd`, standard input, output and error on the files `in`, `out` and `err`,
// the environment changed by `env` ("NAME=value"), behind `prefix` (a command that runs its arguments).
inline pid_t StartMsplat(const Args& args, const std::string& in, const std::string& out,
                         const std::string& err, const std::string& cwd = "", const Strings& env = {},
                         const Strings& prefix = {}) {
    Strings command = prefix, emulator = Words(MSPLAT_EMULATOR);
    command.insert(command.end(), emulator.begin(), emulator.end());
    command.push_back(MSPLAT_PATH);
    command.insert(command.end(), args.begin(), args.end());
    return StartChild([&] {
        const int fds[3] = {open(in.c_str(), O_RDONLY), open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600),
                            open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600)};
        for (int fd = 0; fd < 3; ++fd)
            if (fds[fd] < 0 || dup2(fds[fd], fd) < 0) return 126;
        for (const std::string& setting : env) putenv(const_cast<char*>(setting.c_str()));
        std::vector<char*> argv;
        for (const std::string& word : command) argv.push_back(const_cast<char*>(word.c_str()));
        argv.push_back(nullptr);
        if (cwd.empty() || chdir(cwd.c_str()) == 0) execvp(argv[0], argv.data());
        return 127;
    });
}

// Runs msplat as StartMsplat does, with `input` on standard input.
inline MsplatResult Msplat(const Args& args, const std::string& cwd = "", const std::string& input = "",
                           const Strings& env = {}, const Strings& prefix = {}) {
    TempDir io;
    WriteFile(io.file("in"), input);
    const int status =
        WaitChild(StartMsplat(args, io.file("in"), io.file("out"), io.file("err"), cwd, env, prefix), 120000);
    return {status, ReadFile(io.file("out")), ReadFile(io.file("err"))};
}

// A run and what it must give, each whole; "*" stands for any text but the empty one.
struct Expected {
    Args args;
    int status;
    std::string out, err;
};

// Runs each of `runs` in `cwd` with the words of `prefix` ahead of its arguments, and compares.
inline void ExpectRuns(const std::vector<Expected>& runs, const std::string& cwd = "",
                       const char* prefix = "") {
    for (const Expected& e : runs) {
        Args args = prefix;
        args.insert(args.end(), e.args.begin(), e.args.end());
        const MsplatResult r = Msplat(args, cwd);
        EXPECT_EQ(r.status, e.status) << ::testing::PrintToString(args) << "\n" << r.err;
        EXPECT_EQ(r.out, e.out == "*" && !r.out.empty() ? r.out : e.out) << ::testing::PrintToString(args);
        EXPECT_EQ(r.err, e.err == "*" && !r.err.empty() ? r.err : e.err) << ::testing::PrintToString(args);
    }
}

}  // namespace msptest
