// What holds for every msplat command: help, bad usage, the shared semaphores left in place, and no line of
// the library's own in its output.
#include <stdlib.h>
#include <sys/ipc.h>
#include <sys/sem.h>

#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "cli/msplat_run.h"
#include "msplatform/mutex.h"

namespace {

using msptest::Msplat;

TEST(Cli, HelpOnEveryCommand) {
    for (const std::string command :
         {"", "config", "config get", "config type", "config set", "config create", "config dump", "uuid",
          "md5", "walk", "servername", "scanpaths", "tx", "languages"}) {
        std::vector<std::string> args;
        std::istringstream words(command);
        for (std::string word; words >> word;) args.push_back(word);
        args.push_back("--help");
        const msptest::MsplatResult r = Msplat(args);
        EXPECT_EQ(r.status, 0) << command;
        EXPECT_NE(r.out.find("Usage: msplat" + (command.empty() ? "" : " " + command)), std::string::npos)
            << command << "\n"
            << r.out;
        EXPECT_EQ(r.err, "") << command;
    }
}

// Parse errors and values out of range: status 2, a message, nothing on standard output.
TEST(Cli, BadUsage) {
    std::vector<msptest::Expected> runs;
    for (const std::vector<std::string>& args :
         std::vector<std::vector<std::string>>{{},
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
                                               {"log", "--module", "srv", "x"}})
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
