// What holds for every msplat command: help, and the shared semaphores left in place.
#include <sys/ipc.h>
#include <sys/sem.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cli/msplat_run.h"
#include "msplatform/mutex.h"

namespace {

using msptest::Msplat;
using msptest::MsplatResult;

TEST(Cli, HelpOnEveryCommand) {
    const std::vector<std::string> commands = {
        "",    "config", "config get", "config type", "config set", "config create", "config dump", "uuid",
        "md5", "walk",   "servername", "scanpaths",   "tx",         "languages",
    };
    for (const std::string& command : commands) {
        std::vector<std::string> args;
        for (size_t start = 0, end; start < command.size(); start = end + 1) {
            end = command.find(' ', start);
            if (end == std::string::npos) end = command.size();
            args.push_back(command.substr(start, end - start));
        }
        args.push_back("--help");
        MsplatResult r = Msplat(args);
        EXPECT_EQ(r.status, 0) << command;
        EXPECT_NE(r.out.find("Usage: msplat" + (command.empty() ? "" : " " + command)), std::string::npos)
            << command << "\n"
            << r.out;
        EXPECT_EQ(r.err, "") << command;
    }
}

// The library's logger and language reader remove their semaphores when their static objects are destroyed.
// msplat leaves without destroying them, so a run never takes those locks away from the servers.
TEST(Cli, SharedSemaphoresOutliveARun) {
    Mutex logger("eventLogger");
    Mutex language("languageReader");
    ASSERT_GT(logger.getid(), 0);
    ASSERT_GT(language.getid(), 0);
    MsplatResult r = Msplat({"uuid"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(semget(114246, 0, 0), logger.getid());
    EXPECT_EQ(semget(141669, 0, 0), language.getid());
}

}  // namespace
