// msplat as a whole, the commands that only read, log and its files, locks.
#include <stdlib.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cli/msplat_run.h"
#include "msplatform/ZvEventLogger.h"
#include "msplatform/mutex.h"

namespace {

using namespace msptest;

// Help gives 0, bad usage 2 and a message. A result that can't be written fails the run. msplat leaves the
// logger's and the language reader's semaphores to the servers.
TEST(Cli, UsageResultsThatCannotBeWrittenAndTheSharedSemaphores) {
    Mutex logger("eventLogger"), language("languageReader");
    std::vector<Expected> runs = {
        {"--help", 0, "*", ""}, {{"walk", std::string(1024, 'x')}, 2, "", "*"}, {{"locks", ""}, 2, "", "*"}};
    std::istringstream lines(
        "nosuch;config create a k 1;config create a k 1 --int --string;uuid -n 1000001;log follow --dir d "
        "--config c --module m;log follow --dir d --module m --lines -1;log follow --dir d --module m --pid "
        "0");
    for (std::string line; std::getline(lines, line, ';');) runs.push_back({line, 2, "", "*"});
    ExpectRuns(runs);
    EXPECT_EQ(WaitChild(StartMsplat("uuid -n 2000", "/dev/null", "/dev/full", "/dev/null"), 60000), 2);
    EXPECT_EQ(semget(114246, 0, 0), logger.getid());
    EXPECT_EQ(semget(141669, 0, 0), language.getid());
}

// md5 writes what md5sum writes, names it escapes too; what doesn't exist gives 1, what can't be read 2; a
// missing field of a format prints as "-"; the demo runs under $TMPDIR.
TEST(Cli, CommandsThatRead) {
    TempDir dir;
    for (const std::string& name : {std::string("b\r"), std::string("c")}) WriteFile(dir.file(name), name);
    WriteFile(dir.file("big"), std::string(150000, 'x') + std::string(150000, 'y'));  // more than one read
    ASSERT_EQ(system(("cd " + dir.path() + " && md5sum big \"$(printf 'b\\r')\" c > sums").c_str()), 0);
    ASSERT_EQ(mkdir(dir.file("sub").c_str(), 0700), 0);
    WriteFile(dir.file("sub/MediaFormats.xml"), "<M><F><Extensions>mkv</Extensions></F></M>");  // no MimeType
    ExpectRuns({{{"md5", "big", "b\r", "c"}, 0, ReadFile(dir.file("sums")), ""},
                {"md5 no c", 1, "4a8a08f09d37b73795649038408b5f33  c\n", "*"},
                {"md5 sub no", 2, "", "*"}},
               dir.path());
    EXPECT_NE(Msplat("formats --dir sub ext mkv", dir.path()).out.find(" -\n"), std::string::npos);
    const MsplatResult demo = Msplat("demo", "", "", {"TMPDIR=" + dir.path()});
    EXPECT_NE(demo.out.find("remove it with: rm -r " + dir.path() + "/msplat-demo-"), std::string::npos);
}

class CliLog : public ::testing::Test {
protected:
    void Configure(const std::string& size) {
        WriteFile(config_, "[srv]\nlogMode=1\nlogVerbosity=0\nlogFilesCount=2\nlogFileSize=" + size +
                               "\nlogFilePath=\"" + logs_ + "\"\n");
    }
    void SetUp() override { Configure("99999"); }
    TempDir dir_;
    const std::string config_ = dir_.file("MediaServer.cfg"), logs_ = dir_.file("logs");
};

// Each run prints the path of the new file it wrote its line to, the words taken as they are; a message that
// would be cut or split is refused. With no lock object to be had, the library prints "cfg initialize failed
// to get mutex" on standard output wherever the store starts; msplat's output carries none of it.
TEST_F(CliLog, OneLine) {
    const std::string longest = "100% %s" + std::string(1016, 'y');
    const std::regex name(logs_ + R"(/serverLog\.srv\.\d\d-\d\d-\d{4}\.\d{6}\.\d{3}\.txt\n)");
    const char* asan = getenv("ASAN_OPTIONS");
    const Strings nolock = {
        kUnderEmulation ? "QEMU_SET_ENV=LD_PRELOAD=" MSPLAT_NOLOCK : "LD_PRELOAD=" MSPLAT_NOLOCK,
        // The preloaded library comes ahead of the sanitizer's runtime.
        std::string("ASAN_OPTIONS=") + (asan ? asan : "") + ":verify_asan_link_order=0",
        "MSPLAT_NOLOCK_TRACE=" + dir_.file("trace")};
    const MsplatResult first =
                           Msplat("log --config MediaServer.cfg --module srv first", dir_.path(), "", nolock),
                       r = Msplat({"log", "--config", config_, "--module", "srv", "100%", longest.substr(5)});
    EXPECT_TRUE(std::regex_match(first.out + first.err, name) && std::regex_match(r.out, name) &&
                r.out != first.out)
        << first.out << first.err << r.out;
    EXPECT_GE(ReadFile(dir_.file("trace")).size(), 1u);  // no lock object could be had
    EXPECT_TRUE(
        std::regex_match(ReadFile(r.out.substr(0, r.out.size() - 1)),
                         std::regex(R"(\d\d-\d\d-\d{4} : \d\d:\d\d:\d\d\.\d{3}\t : )" + longest + "\n")));
    ExpectRuns(
        {{{"MediaServer.cfg", "two\nlines"}, 2, "", "*"}, {{"MediaServer.cfg", longest + "y"}, 2, "", "*"}},
        dir_.path(), "log --module srv --config");
}

// A process logs bursts of lines that rotate the file twice each, two files kept, then a line written in two
// parts. The follower prints every line once, whole and in order, and ends after the process.
TEST_F(CliLog, FollowSeesEveryLineOnceAcrossRotations) {
    // Lines of 38 bytes, a new file after every third. A burst ends a line before a rotation, so that the
    // next file is made once the follower has caught up (one made and deleted between two looks is lost).
    Configure("114");
    ASSERT_EQ(mkdir(logs_.c_str(), 0700), 0);
    const std::string out = dir_.file("out"), err = dir_.file("err");
    std::string expected;
    for (int i = 100; i < 129; ++i) expected += "\t : line " + std::to_string(i) + "\n";
    expected += "\t : partial\n";
    const pid_t logger = StartChild([&] {
        if (initializeLogger(const_cast<char*>(config_.c_str()), const_cast<char*>("srv")) != 1) return 1;
        for (int i = 100; i < 129;) {
            for (int end = i + (i == 100 ? 5 : 6); i < end; ++i) eventLogOut("line %d", i);
            for (int wait = 0; ReadFile(out).find("line " + std::to_string(i - 1)) == std::string::npos;
                 ++wait)
                if (wait == 6000 || usleep(10000) != 0) return 1;
        }
        fputs("\t : part", eventLogger.logFile);
        fflush(eventLogger.logFile);
        usleep(300000);  // a few looks at the part
        return fputs("ial\n", eventLogger.logFile) >= 0 && fflush(eventLogger.logFile) == 0 ? 0 : 1;
    });
    const pid_t follower = StartMsplat(
        "log follow --dir " + logs_ + " --module srv --lines 1000 --pid " + std::to_string(logger),
        "/dev/null", out, err);
    EXPECT_EQ(WaitChild(logger, 300000), 0);
    EXPECT_EQ(WaitChild(follower, 60000), 0) << ReadFile(err);
    EXPECT_EQ(std::regex_replace(ReadFile(out), std::regex(".*\t : "), "\t : "), expected);
}

// A lock held by a child, and a name without a set; reading changes nothing.
TEST(Cli, LocksHeldByAChild) {
    const std::string name = "msplatCliLocksTest", none = "msplatCliLocksNone";
    Mutex lock(name.c_str());  // the only object that removes the set, at the end of the test
    Pipe held, release;
    // The child uses the parent's object: one of its own would remove the set when it ends.
    const pid_t holder = StartChild([&] {
        lock.lock();
        held.Send();
        const bool released = release.Wait(120000);
        lock.unlock();
        return released ? 0 : 1;
    });
    ASSERT_TRUE(held.Wait(60000));
    const std::string command = Words(ReadFile("/proc/" + std::to_string(holder) + "/comm"))[0];
    EXPECT_TRUE(std::regex_match(
        Msplat("locks " + name + " " + none).out,
        std::regex("NAME +KEY +SET +STATE +PID +COMMAND +WAITERS +LAST-OP\n" + name + " 184239  " +
                   std::to_string(lock.getid()) + " +held +" + std::to_string(holder) + " +" + command +
                   " +0 +\\d{4}-[-\\dT:]+\n" + none + " 182655  none +- +- +- +- +-\n")));
    EXPECT_EQ(semctl(lock.getid(), 0, GETVAL), 0);
    EXPECT_EQ(semget(182655, 0, 0), -1);  // the key of `none`: made nothing
    release.Send();
    EXPECT_EQ(WaitChild(holder, 60000), 0);
}

}  // namespace
