// msplat as a whole (usage, results that can't be written, the shared semaphores, no line of the library's
// own in the output), the commands that only read, log and its files, locks.
#include <stdlib.h>
#include <string.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <random>
#include <regex>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "cli/msplat_run.h"
#include "msplatform/ZvEventLogger.h"
#include "msplatform/mutex.h"

namespace {

using namespace msptest;

// Help is a result, with 0; parse errors, values out of range, options that exclude each other give 2 and a
// message. A result that can't be written fails the run: a script must not take a cut dump for the whole.
TEST(Cli, UsageAndResultsThatCannotBeWritten) {
    std::vector<Expected> runs = {
        {"--help", 0, "*", ""},
        {"config set --help", 0, "*", ""},
        {{"walk", ""}, 2, "", "*"},
        {{"walk", std::string(1024, 'x')}, 2, "", "*"},
        {{"locks", ""}, 2, "", "msplat: locks: a lock's name has at least one byte\n"}};
    std::istringstream lines(
        ";nosuch;config;config get a k extra;config create a k 1;config create a k 1 --int --string"
        ";config apply a b;tx --config c --language Deutsch x;uuid -n 0;uuid -n 1000001;log --module srv x"
        ";log --config c x;log list --module srv;log follow --dir d --config c --module m"
        ";log follow --dir d --module m --lines -1;log follow --dir d --module m --pid 0");
    for (std::string line; std::getline(lines, line, ';');) runs.push_back({line, 2, "", "*"});
    ExpectRuns(runs);
    TempDir dir;
    WriteFile(dir.file("in"), "");
    EXPECT_EQ(WaitChild(StartMsplat("uuid -n 2000", dir.file("in"), "/dev/full", dir.file("err")), 60000), 2);
    EXPECT_EQ(ReadFile(dir.file("err")), "msplat: standard output: write failed\n");
}

// msplat ends without destroying the library's logger and language reader, whose destructors would remove
// their semaphores from under the servers.
TEST(Cli, SharedSemaphoresOutliveARun) {
    Mutex logger("eventLogger"), language("languageReader");
    ASSERT_GT(logger.getid(), 0);
    ASSERT_GT(language.getid(), 0);
    EXPECT_EQ(Msplat("uuid").status, 0);
    EXPECT_EQ(semget(114246, 0, 0), logger.getid());
    EXPECT_EQ(semget(141669, 0, 0), language.getid());
}

// With no lock object to be had, the library prints "cfg initialize failed to get mutex" on standard output
// wherever the store starts (the logger's start too); msplat's output carries none of it.
TEST(Cli, OutputNeverCarriesTheLibrarysMutexLine) {
    TempDir dir;
    WriteFile(dir.file("MediaServer.cfg"),
              "[srv]\nlogMode=1\nlogVerbosity=0\nlogFilesCount=2\nlogFileSize=99\n"
              "logFilePath=\"" +
                  dir.path() + "\"\n");
    const char* asan =
        getenv("ASAN_OPTIONS");  // the preloaded library comes ahead of the sanitizer's runtime
    const std::vector<std::string> env = {
        UnderEmulation() ? "QEMU_SET_ENV=LD_PRELOAD=" MSPLAT_NOLOCK : "LD_PRELOAD=" MSPLAT_NOLOCK,
        std::string("ASAN_OPTIONS=") + (asan ? asan : "") + ":verify_asan_link_order=0",
        "MSPLAT_NOLOCK_TRACE=" + dir.file("trace")};
    const MsplatResult get = Msplat("config get srv logMode", dir.path(), "", env),
                       log = Msplat("log --config MediaServer.cfg --module srv m", dir.path(), "", env);
    EXPECT_EQ(get.out + get.err, "1\n");
    EXPECT_EQ(log.out.substr(0, dir.path().size() + 15) + log.err, dir.path() + "/serverLog.srv.");
    EXPECT_GE(ReadFile(dir.file("trace")).size(), 2u);  // no lock object could be had
}

// walk escapes what could break a line; md5 writes what md5sum writes, names it escapes too; missing
// fields print as "-"; what doesn't exist gives 1, what can't be read 2; the demo runs under $TMPDIR.
TEST(Cli, CommandsThatRead) {
    TempDir dir;
    const std::string odd = "a\\ \x1f\x7f~\n\xc3\xa9", no = ": No such file or directory\n";
    for (const std::string& name : {odd, std::string("b\r"), std::string("c")})
        WriteFile(dir.file(name), name);
    const struct timeval times[2] = {{0, 0}, {1000000000, 0}};
    ASSERT_EQ(utimes(dir.file(odd).c_str(), times), 0);
    WriteFile(dir.file("big"), std::string(150000, 'x') + std::string(150000, 'y'));  // more than one read
    ASSERT_EQ(system(("cd " + dir.path() + " && md5sum big \"$(printf 'b\\r')\" c > sums").c_str()), 0);
    ASSERT_EQ(mkdir(dir.file("sub").c_str(), 0700), 0);
    WriteFile(dir.file("sub/MediaFormats.xml"),
              "<M><F><Extensions>mkv</Extensions><MediaType>v</MediaType><Parser>p"
              "</Parser></F><F><Parser>q</Parser></F></M>");
    ExpectRuns(
        {{"walk c", 2, "", "msplat: walk: c: not a directory\n"},
         {"walk no", 1, "", "msplat: walk: no" + no},
         {{"md5", "big", "b\r", "c"}, 0, ReadFile(dir.file("sums")), ""},
         {"md5 no c", 1, "4a8a08f09d37b73795649038408b5f33  c\n", "msplat: md5: no" + no},
         {"md5 sub no", 2, "", "msplat: md5: sub: Is a directory\nmsplat: md5: no" + no},
         {"formats --dir sub ext .MKV", 0,
          "FormatName    -\nExtensions    mkv\nMimeType      -\nMediaType     "
          "video\nDLNA_Class    -\nDLNA_Profile  -\nTranscode     no\nParser        p\nDAP           -\n",
          ""},
         {"formats plugins --dir sub", 0, "p\nq\n", ""},
         {"formats --dir sub ext mp3", 1, "", "msplat: formats: no format for the extension \"mp3\"\n"},
         {"tx --language X Music", 1, "", "*"},
         {"tx NoSuchTerm", 1, "", "msplat: tx: NoSuchTerm: no text in English\n"},
         {"tx --language Deutsch NoSuchTerm Music", 0, "Music\n", ""}},
        dir.path());
    const std::string walk = "\n" + Msplat("walk " + dir.path() + "/").out;
    EXPECT_NE(walk.find("\nf          9 2001-09-09T01:46:40Z a\\\\ \\x1f\\x7f~\\x0a\xc3\xa9\n"),
              std::string::npos)
        << walk;
    EXPECT_NE(walk.find("\nd          - -                    sub\n"), std::string::npos);
    const MsplatResult demo = Msplat("demo", "", "", {"TMPDIR=" + dir.path()});
    EXPECT_NE(demo.out.find("remove it with: rm -r " + dir.path() + "/msplat-demo-"), std::string::npos)
        << demo.err;
}

class CliLog : public ::testing::Test {
protected:
    // Writes the configuration `name` with a section [srv] of these settings.
    void Configure(const std::string& name, const std::string& size, const std::string& path, int mode = 1) {
        WriteFile(dir_.file(name), "[srv]\nlogMode=" + std::to_string(mode) +
                                       "\nlogVerbosity=0\nlogFilesCount=2\n"
                                       "logFileSize=" +
                                       size + "\nlogFilePath=\"" + path + "\"\n");
    }
    void SetUp() override { Configure("MediaServer.cfg", "99999", logs_); }
    // Runs `body` in a child with a follower of `args` beside it, which ends after it; what the follower
    // printed. `body` is given the file that it prints to, and waits for a text there with Await.
    std::string Follow(const std::string& args, const std::function<int(const std::string&)>& body) {
        const std::string in = dir_.file("in"), out = dir_.file("out"), err = dir_.file("err");
        WriteFile(in, "");
        WriteFile(out, "");
        const pid_t child = StartChild([&] { return body(out); });
        const pid_t follower = StartMsplat(args + " --pid " + std::to_string(child), in, out, err);
        EXPECT_EQ(WaitChild(child, 300000), 0);
        EXPECT_EQ(WaitChild(follower, 60000), 0) << ReadFile(err);
        return ReadFile(out);
    }
    static bool Await(const std::string& path, const std::string& text) {
        for (int wait = 0; ReadFile(path).find(text) == std::string::npos; ++wait) {
            if (wait == 6000) return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return true;
    }
    TempDir dir_;
    const std::string config_ = dir_.file("MediaServer.cfg"), logs_ = dir_.file("logs");
};

// Each run prints the path of the new file it wrote its line to, the words taken as they are; a message that
// would be cut or split is refused and writes nothing; msplat says why the logger did not start.
TEST_F(CliLog, OneLineOrWhyNot) {
    const std::string at = "msplat: log: ", longest = "100% %s" + std::string(1016, 'y');
    const std::regex name(logs_ + R"(/serverLog\.srv\.\d\d-\d\d-\d{4}\.\d{6}\.\d{3}\.txt\n)");
    const MsplatResult first = Msplat("log --config MediaServer.cfg --module srv first", dir_.path()),
                       r = Msplat({"log", "--config", config_, "--module", "srv", "100%", longest.substr(5)});
    EXPECT_TRUE(std::regex_match(first.out, name)) << first.out << first.err;
    EXPECT_TRUE(std::regex_match(r.out, name) && r.out != first.out) << r.out;
    EXPECT_TRUE(
        std::regex_match(ReadFile(r.out.substr(0, r.out.size() - 1)),
                         std::regex(R"(\d\d-\d\d-\d{4} : \d\d:\d\d:\d\d\.\d{3}\t : )" + longest + "\n")));
    Configure("off.cfg", "9", dir_.file("off"), 0);
    Configure("long.cfg", "9", "/" + std::string(254, 'l'));
    ExpectRuns({{{"MediaServer.cfg", "two\nlines"}, 2, "", at + "a log line can't hold a line end\n"},
                {{"MediaServer.cfg", longest + "y"}, 2, "", at + "a message has 1 to 1023 bytes\n"},
                {{"MediaServer.cfg", ""}, 2, "", at + "a message has 1 to 1023 bytes\n"},
                {"off.cfg m", 0, "", at + "logging is off in [srv] (logMode 0): no line written\n"},
                {"long.cfg m", 2, "",
                 at + "long.cfg: [srv] logFilePath: longer than 254 bytes, the most the logger can prune\n"}},
               dir_.path(), "log --module srv --config");
    ExpectRuns({{"log --config off.cfg --module x m", 1, "", at + "off.cfg: [x]: no such section\n"}},
               dir_.path());
    const std::string list = Msplat("log list --dir " + logs_ + " --module srv").out;
    EXPECT_EQ(std::count(list.begin(), list.end(), '\n'), 2);  // the refused runs made no file
}

// Oldest first by the last write, then by the times in the names (month first; a name's seconds and
// milliseconds are two clock readings); names that only look like the module's left out. Random names, some
// spoilt, against that rule.
TEST_F(CliLog, ListInTheOrderTheLoggerMadeThem) {
    ASSERT_EQ(mkdir(logs_.c_str(), 0700), 0);
    ASSERT_EQ(mkdir((logs_ + "/serverLog.srv.01-01-2027.000009.000.txt").c_str(), 0700), 0);
    const std::regex valid(R"(serverLog\.srv\.(\d\d)-(\d\d)-(\d{4})\.(\d\d)(\d\d)(\d\d)\.(\d{3})\.txt)");
    std::mt19937 random(29);
    std::vector<std::tuple<long, long, std::string, std::string>> files;  // the order, then the line
    for (int size = 1; size <= 40; ++size) {
        char name[64], stamp[32], line[512];
        snprintf(name, sizeof name, "serverLog.%s.%02d-%02d-%04d.%02d%02d%02d.%03d.txt",
                 size % 9 ? "srv" : "srx", int(1 + random() % 12), int(1 + random() % 28),
                 int(2026 + random() % 2), int(random() % 24), int(random() % 60), int(random() % 60),
                 int(random() % 1000));
        if (random() % 3 == 0) name[random() % strlen(name)] = "0-.x"[random() % 4];     // spoilt, or not
        const long seconds = 1798761599 + random() % 3, micros = random() % 2 * 500000;  // a few, to tie
        const struct timeval times[2] = {{seconds, micros}, {seconds, micros}};
        WriteFile(logs_ + "/" + name, std::string(size, 'x'));
        ASSERT_EQ(utimes((logs_ + "/" + name).c_str(), times), 0);
        std::cmatch m;
        const time_t when = seconds;
        struct tm tm;
        strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%S", gmtime_r(&when, &tm));
        snprintf(line, sizeof line, "%10d %s %s/%s\n", size, stamp, logs_.c_str(), name);
        if (std::regex_match(name, m, valid))
            files.emplace_back(seconds, micros, m.format("$3$1$2$4$5$6$7"), line);
    }
    std::sort(files.begin(), files.end());
    std::string list;
    for (const auto& file : files) list += std::get<3>(file);
    EXPECT_GT(files.size(), 20u);
    ExpectRuns(
        {{"log list --config MediaServer.cfg --module srv", 0, list, ""},
         {"log list --dir logs --module s", 1, "", "msplat: log: no log file of the module s in logs\n"}},
        dir_.path());
}

// A process logs bursts of lines that rotate the file twice each, with two files kept, so that the file being
// followed is deleted and a look finds two new files. The follower prints every line once and in order, and
// ends after the process has ended; --lines then reaches back across files.
TEST_F(CliLog, FollowSeesEveryLineOnceAcrossRotations) {
    // Lines of 38 bytes, a new file after every third. A burst ends a line before a rotation, so that the
    // file after it is made only once the follower has caught up: only a file that the logger makes and
    // deletes between two looks of the follower would be missed.
    const int first = 5, perBurst = 6, lines = first + 4 * perBurst;
    Configure("MediaServer.cfg", "114", logs_);
    ASSERT_EQ(mkdir(logs_.c_str(), 0700), 0);
    std::string expected;
    for (int i = 0; i < lines; ++i) expected += "\t : line " + std::to_string(100 + i) + "\n";
    auto messages = [](const std::string& out) {
        return std::regex_replace(out, std::regex(".*\t : "), "\t : ");
    };
    const std::string out =
        Follow("log follow --dir " + logs_ + " --module srv --lines 1000", [&](const std::string& out) {
            if (initializeLogger(const_cast<char*>(config_.c_str()), const_cast<char*>("srv")) != 1) return 1;
            for (int i = 0; i < lines;) {
                for (int end = i + (i == 0 ? first : perBurst); i < end; ++i) eventLogOut("line %d", 100 + i);
                if (!Await(out, "line " + std::to_string(99 + i)))
                    return 2;  // the next burst once the follower has this one
            }
            return 0;
        });
    EXPECT_EQ(messages(out), expected);
    // The newest file holds the last two lines, the other the three before them.
    EXPECT_EQ(messages(Follow("log follow --config " + config_ + " --module srv --lines 4",
                              [](auto&) { return 0; })),
              expected.substr(expected.size() - 4 * 13));
}

// A line still being written is printed once it is whole.
TEST_F(CliLog, FollowPrintsWholeLines) {
    ASSERT_EQ(mkdir(logs_.c_str(), 0700), 0);
    const std::string file = logs_ + "/serverLog.srv.01-01-2027.000000.000.txt";
    WriteFile(file, "x1\npart");
    EXPECT_EQ(
        Follow("log follow --dir " + logs_ + " --module srv --lines 9",
               [&](const std::string& out) {
                   if (!Await(out, "x1\n")) return 1;
                   std::this_thread::sleep_for(std::chrono::milliseconds(300));  // a few looks at the part
                   FILE* stream = fopen(file.c_str(), "a");
                   return stream && fputs("ial\nx2\n", stream) >= 0 && fclose(stream) == 0 ? 0 : 2;
               }),
        "x1\npartial\nx2\n");
}

// A lock held by a child while another waits, then free, and a name without a set; reading changes nothing.
TEST(Cli, LocksHeldByAChildWithAWaiterAndThenFree) {
    const std::string name = "msplatCliLocksTest", none = "msplatCliLocksNone";
    ASSERT_EQ(semget(182655, 0, 0), -1);  // the key of `none`, the sum of its bytes times 99
    Mutex lock(name.c_str());             // the only object that removes the set, at the end of the test
    const std::string row = name + " 184239  " + std::to_string(lock.getid()) + " +";
    Pipe held, release;
    // The children use the parent's object: one of their own would remove the set when they end.
    const pid_t holder = StartChild([&] {
        lock.lock();
        held.Send();
        const bool released = release.Wait(120000);
        lock.unlock();
        return released ? 0 : 1;
    });
    ASSERT_TRUE(held.Wait(60000));
    const pid_t waiter = StartChild([&] {
        lock.lock();
        lock.unlock();
        return 0;
    });
    for (int i = 0; i < 3000 && semctl(lock.getid(), 0, GETNCNT) != 1; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    const std::string command = Words(ReadFile("/proc/" + std::to_string(holder) + "/comm"))[0];
    EXPECT_TRUE(
        std::regex_match(Msplat("locks " + name + " " + none).out,
                         std::regex("NAME +KEY +SET +STATE +PID +COMMAND +WAITERS +LAST-OP\n" + row +
                                    "held +" + std::to_string(holder) + " +" + command +
                                    " +1 +\\d{4}-[-\\dT:]+\n" + none + " 182655  none +- +- +- +- +-\n")));
    EXPECT_EQ(semctl(lock.getid(), 0, GETVAL), 0);
    EXPECT_EQ(semctl(lock.getid(), 0, GETPID), holder);
    EXPECT_EQ(semget(182655, 0, 0), -1);  // made nothing
    release.Send();
    EXPECT_EQ(WaitChild(holder, 60000), 0);
    EXPECT_EQ(WaitChild(waiter, 60000), 0);
    // The waiter gave it back last, and it has ended.
    EXPECT_TRUE(
        std::regex_search(Msplat("locks " + name).out,
                          std::regex("\n" + row + "free +" + std::to_string(waiter) + " +\\(ended\\) +0 ")));
}

}  // namespace
