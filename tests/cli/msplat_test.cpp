// What holds for every msplat command: help, bad usage, the shared semaphores left in place, and no line of
// the library's own in its output.
#include <stdlib.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "cli/msplat_run.h"
#include "msplatform/mutex.h"

namespace {

using msptest::Msplat;

std::vector<std::string> Words(const std::string& text) {
    std::vector<std::string> words;
    std::istringstream in(text);
    for (std::string word; in >> word;) words.push_back(word);
    return words;
}

// What the bash completion offers for the words of a command line, the last being the one completed.
std::vector<std::string> Completions(std::vector<std::string> words) {
    msptest::TempDir dir;
    const std::string script = dir.file("complete"), out = dir.file("out");
    msptest::WriteFile(script, "source " MSPLATFORM_SOURCE_DIR
                               "/tools/msplat/msplat.bash-completion\n"
                               "COMP_WORDS=(\"$@\"); COMP_CWORD=$(($# - 1)); _msplat\n"
                               "printf '%s\\n' \"${COMPREPLY[@]}\" > " +
                                   out + "\n");
    words.insert(words.begin(), {"bash", script});
    EXPECT_EQ(msptest::RunChild(
                  [&] {
                      std::vector<char*> argv;
                      for (std::string& word : words) argv.push_back(&word[0]);
                      argv.push_back(nullptr);
                      execvp("bash", argv.data());
                      return 127;
                  },
                  60000),
              0);
    return Words(msptest::ReadFile(out));
}

// Every command, found through the help of msplat and of its groups, has help of its own, a place in the
// manual page and a completion.
TEST(Cli, EveryCommandHasHelpAManualEntryAndACompletion) {
    const std::string manual = msptest::ReadFile(MSPLATFORM_SOURCE_DIR "/tools/msplat/msplat.1");
    std::vector<std::string> pending = {""};
    size_t commands = 0;
    while (!pending.empty()) {
        const std::string command = pending.back();
        pending.pop_back();
        std::vector<std::string> args = Words(command);
        args.push_back("--help");
        const msptest::MsplatResult r = Msplat(args);
        EXPECT_EQ(r.status, 0) << command;
        EXPECT_NE(r.out.find("Usage: msplat" + (command.empty() ? "" : " " + command)), std::string::npos)
            << command << "\n"
            << r.out;
        EXPECT_EQ(r.err, "") << command;
        const size_t list = r.out.find("\nSubcommands:\n");
        if (list == std::string::npos) continue;
        std::vector<std::string> line = Words(command);
        line.insert(line.begin(), "msplat");
        line.push_back("");
        const std::vector<std::string> offered = Completions(line);
        std::istringstream subcommands(r.out.substr(list + 14, r.out.find("\n\n", list + 1) - list - 14));
        for (std::string entry; std::getline(subcommands, entry);) {
            const std::string name = Words(entry).at(0), path = command.empty() ? name : command + " " + name;
            pending.push_back(path);
            ++commands;
            EXPECT_NE(std::find(offered.begin(), offered.end(), name), offered.end()) << path;
            EXPECT_TRUE(manual.find("msplat " + path) != std::string::npos ||
                        manual.find("\\fB" + name + "\\fR") != std::string::npos)
                << path;
        }
    }
    EXPECT_GE(commands, 25u);
}

// Parse errors and values out of range: status 2, a message, nothing on standard output.
TEST(Cli, BadUsage) {
    std::vector<msptest::Expected> runs;
    for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
             {},
             {"nosuch"},
             {"config"},
             {"config", "get", "a"},
             {"config", "create", "a", "k", "1"},
             {"config", "create", "a", "k", "1", "--int", "--string"},
             {"config", "get", "a", "k", "extra"},
             {"config", "--nosuch", "dump"},
             {"formats"},
             {"formats", "ext"},
             {"tx"},
             {"walk"},
             {"walk", std::string(1024, 'x')},
             {"uuid", "-n", "0"},
             {"uuid", "-n", "-1"},
             {"uuid", "-n", "x"},
             {"log", "--module", "srv", "x"},
             {"log", "list", "--module", "srv"},
             {"log", "follow", "--dir", "d", "--config", "c", "--module", "m"},
             {"log", "follow", "--dir", "d", "--module", "m", "--lines", "-1"},
             {"config", "apply", "a", "b"}})
        runs.push_back({args, 2, "", "*"});
    msptest::ExpectRuns(runs);
}

// The library's logger and language reader remove their semaphores when their static objects are destroyed.
// msplat leaves without destroying them, so a run never takes those locks away from the servers.
TEST(Cli, SharedSemaphoresOutliveARun) {
    Mutex logger("eventLogger");
    Mutex language("languageReader");
    ASSERT_GT(logger.getid(), 0);
    ASSERT_GT(language.getid(), 0);
    EXPECT_EQ(Msplat({"uuid"}).status, 0);
    EXPECT_EQ(semget(114246, 0, 0), logger.getid());
    EXPECT_EQ(semget(141669, 0, 0), language.getid());
}

// With no lock object to be had, the library prints "cfg initialize failed to get mutex" on standard output
// wherever the store starts; msplat's results and messages carry none of it.
TEST(CliOutput, NeverCarriesTheLibrarysMutexLine) {
    msptest::TempDir dir;
    const std::string trace = dir.file("trace");
    msptest::WriteFile(dir.file("log.cfg"),
                       "[srv]\r\nlogMode=1\r\nlogVerbosity=0\r\nlogFilesCount=2\r\n"
                       "logFileSize=100000\r\nlogFilePath=\"" +
                           dir.file("logs") + "\"\r\n");
    const char* asan = getenv("ASAN_OPTIONS");
    const std::vector<std::string> env = {
        msptest::UnderEmulation() ? "QEMU_SET_ENV=LD_PRELOAD=" MSPLAT_NOLOCK : "LD_PRELOAD=" MSPLAT_NOLOCK,
        // The preloaded library comes ahead of the sanitizer's runtime.
        std::string("ASAN_OPTIONS=") + (asan ? asan : "") + ":verify_asan_link_order=0",
        "MSPLAT_NOLOCK_TRACE=" + trace};
    for (const auto& [args, input, out] :
         std::vector<std::tuple<std::vector<std::string>, std::string, std::string>>{
             {{"config", "create", "upnp", "serverName", "NAS", "--string"}, "", ""},
             {{"config", "apply", "--dry-run"},
              "[upnp]\nserverName=\"Den\"\n",
              "[upnp] serverName=\"Den\" (was \"NAS\")\n"},
             {{"config", "get", "upnp", "serverName"}, "", "NAS\n"},
             {{"servername"}, "", "NAS\n"},
             {{"log", "--config", "log.cfg", "--module", "srv", "--", "list"}, "", "*"}}) {
        const msptest::MsplatResult r = Msplat(args, dir.path(), input, env);
        EXPECT_EQ(r.status, 0) << args[0] << " " << r.err;
        if (out == "*")
            EXPECT_EQ(r.out.rfind(dir.file("logs") + "/serverLog.srv.", 0), 0u) << r.out;
        else
            EXPECT_EQ(r.out, out);
        EXPECT_EQ(r.err.find("mutex"), std::string::npos) << r.err;
    }
    // No lock object could be had, in any of the runs.
    EXPECT_GE(msptest::ReadFile(trace).size(), 5u);
}

}  // namespace
