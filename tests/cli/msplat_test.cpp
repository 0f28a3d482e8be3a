// What holds for every msplat command: help, bad usage, and the shared semaphores left in place.
#include <sys/ipc.h>
#include <sys/sem.h>

#include <sstream>
#include <string>
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

}  // namespace
