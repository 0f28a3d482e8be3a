// msplat log: lines through the event logger, and why it could not start; the module's files in the
// logger's order, and their lines followed across rotations and deletions.
#include <dirent.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <chrono>
#include <regex>
#include <sstream>
#include <tuple>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "cli/msplat_run.h"
#include "msplatform/ZvEventLogger.h"

namespace {

using msptest::Msplat;

size_t LogFiles(const std::string& dir) {
    size_t count = 0;
    if (DIR* stream = opendir(dir.c_str())) {
        while (dirent64* entry = readdir64(stream))
            count += std::string(entry->d_name).rfind("serverLog.", 0) == 0;
        closedir(stream);
    }
    return count;
}

class CliLog : public ::testing::Test {
protected:
    void SetUp() override {
        msptest::WriteFile(config_,
                           "[srv]\r\nlogMode=1\r\nlogVerbosity=0\r\nlogFilesCount=2\r\nlogFileSize=100000\r\n"
                           "logFilePath=\"" +
                               logs_ + "\"\r\n");
    }
    msptest::TempDir dir_;
    const std::string config_ = dir_.file("MediaServer.cfg"), logs_ = dir_.file("logs");
};

// Each run prints the path of a new file, which holds its one line; logFilesCount 2 leaves two of three.
TEST_F(CliLog, LinesGoToANewFileEachRunAndOldOnesGo) {
    const std::regex name("serverLog\\.srv\\.\\d\\d-\\d\\d-\\d{4}\\.\\d{6}\\.\\d{3}\\.txt\n");
    const std::string stamp = R"(\d\d-\d\d-\d{4} : \d\d:\d\d:\d\d\.\d{3}\t : )";
    for (const auto& [words, line] :
         {std::pair<std::vector<std::string>, std::string>{{"hello", "world"}, "hello world"},
          {{"100% done"}, "100% done"},
          {{"third", "run", "%s"}, "third run %s"}}) {
        // The logger tells its files' ages by the second: runs within one second tie, and a tie may take the
        // new file for the oldest one to delete.
        if (line != "hello world") std::this_thread::sleep_for(std::chrono::milliseconds(1100));
        std::vector<std::string> args = {"log", "--config", config_, "--module", "srv"};
        args.insert(args.end(), words.begin(), words.end());
        const msptest::MsplatResult r = Msplat(args);
        ASSERT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(r.err, "");
        ASSERT_EQ(r.out.substr(0, logs_.size() + 1), logs_ + "/");
        ASSERT_TRUE(std::regex_match(r.out.substr(logs_.size() + 1), name)) << r.out;
        const std::string text = msptest::ReadFile(r.out.substr(0, r.out.size() - 1));
        EXPECT_TRUE(std::regex_match(text, std::regex(stamp + line + "\n"))) << text;
    }
    EXPECT_EQ(LogFiles(logs_), 2u);
}

// Messages that would be cut or split are refused; when the logger doesn't start, msplat says which setting
// is missing or of the wrong type; logging off is the configuration's choice: no line, no failure.
TEST_F(CliLog, RefusedMessagesAndWhyTheLoggerDidNotStart) {
    msptest::WriteFile(dir_.file("partial.cfg"), "[srv]\r\nlogMode=1\r\nlogVerbosity=\"x\"\r\n");
    msptest::WriteFile(dir_.file("off.cfg"),
                       "[srv]\r\nlogMode=0\r\nlogVerbosity=0\r\nlogFilesCount=2\r\nlogFileSize=9\r\n"
                       "logFilePath=\"" +
                           logs_ + "\"\r\n");
    msptest::WriteFile(dir_.file("other.cfg"), "[x]\r\n");
    const std::string c = "MediaServer.cfg";
    msptest::ExpectRuns(
        {{{c, "two\nlines"}, 2, "", "*"},
         {{c, std::string(1024, 'x')}, 2, "", "*"},
         {{c, ""}, 2, "", "*"},
         {{c}, 2, "", "*"},
         {{"other.cfg", "m"}, 1, "", "msplat: log: other.cfg: [srv]: no such section\n"},
         {{"partial.cfg", "m"}, 2, "", "msplat: log: partial.cfg: [srv] logVerbosity: type mismatch\n"},
         {{"none.cfg", "m"}, 1, "", "msplat: none.cfg: No such file or directory\n"},
         {{"off.cfg", "m"}, 0, "", "msplat: log: logging is off in [srv] (logMode 0): no line written\n"}},
        dir_.path(), {"log", "--module", "srv", "--config"});
    EXPECT_EQ(LogFiles(logs_), 0u);
    // The longest message that fits goes whole.
    const msptest::MsplatResult r =
        Msplat({"log", "--config", config_, "--module", "srv", std::string(1023, 'y')});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(
        msptest::ReadFile(r.out.substr(0, r.out.size() - 1)).find(" : " + std::string(1023, 'y') + "\n"),
        std::string::npos);
}

// The order is the logger's, not the names': a new year's files name a smaller month, and a file started at
// the turn of a second can name a smaller time than an older one (its seconds and milliseconds are two
// clock readings). Files of one time of last write go by their names' times. Other modules' files and what
// only looks like a log file are left out.
TEST_F(CliLog, ListInTheOrderTheLoggerMadeThem) {
    ASSERT_EQ(mkdir(logs_.c_str(), 0700), 0);
    const std::string p = logs_ + "/serverLog.srv.";
    auto make = [](const std::string& path, size_t size, long seconds, long micros) {
        msptest::WriteFile(path, std::string(size, 'x'));
        const struct timeval times[2] = {{seconds, micros}, {seconds, micros}};
        ASSERT_EQ(utimes(path.c_str(), times), 0);
    };
    const long t = 1798761599;  // 2026-12-31T23:59:59Z
    make(p + "12-31-2026.235959.500.txt", 1, t, 500000);
    make(p + "01-01-2027.000000.000.txt", 22, t + 1, 0);
    make(p + "01-01-2027.000001.900.txt", 333, t + 2, 900000);
    make(p + "01-01-2027.000002.000.txt", 4444, t + 3, 1000);
    make(p + "01-01-2027.000001.100.txt", 5, t + 3, 1000);
    for (const char* other :
         {"serverLog.srvx.01-01-2027.000000.000.txt", "serverLog.srv.01-01-2027.000000.00.txt",
          "serverLog.srv.01-01-2027.000000.000.txt.gz", "serverLog.srv.1-01-2027.000000.000.txt"})
        make(logs_ + "/" + other, 1, t + 9, 0);
    ASSERT_EQ(mkdir((p + "01-01-2027.000009.000.txt").c_str(), 0700), 0);
    msptest::WriteFile(dir_.file("other.cfg"), "[srv]\r\n");
    const std::string list = "         1 2026-12-31T23:59:59 " + p + "12-31-2026.235959.500.txt\n" +
                             "        22 2027-01-01T00:00:00 " + p + "01-01-2027.000000.000.txt\n" +
                             "       333 2027-01-01T00:00:01 " + p + "01-01-2027.000001.900.txt\n" +
                             "         5 2027-01-01T00:00:02 " + p + "01-01-2027.000001.100.txt\n" +
                             "      4444 2027-01-01T00:00:02 " + p + "01-01-2027.000002.000.txt\n";
    const std::vector<std::string> utc = {"TZ=UTC"};
    for (const auto& [args, status, out, err] :
         std::vector<std::tuple<std::vector<std::string>, int, std::string, std::string>>{
             {{"--config", config_, "--module", "srv"}, 0, list, ""},
             {{"--dir", logs_, "--module", "srv"}, 0, list, ""},
             {{"--dir", logs_, "--module", "sr"},
              1,
              "",
              "msplat: log: no log file of the module sr in " + logs_ + "\n"},
             {{"--dir", dir_.file("none"), "--module", "srv"},
              1,
              "",
              "msplat: log: " + dir_.file("none") + ": No such file or directory\n"},
             {{"--config", dir_.file("other.cfg"), "--module", "srv"},
              1,
              "",
              "msplat: " + dir_.file("other.cfg") + ": [srv] logFilePath: no such key\n"},
             {{"--module", "srv"}, 2, "", "msplat: log: give --config PATH or --dir DIR, with --module\n"}}) {
        std::vector<std::string> command = {"log", "list"};
        command.insert(command.end(), args.begin(), args.end());
        const msptest::MsplatResult r = Msplat(command, "", "", utc);
        EXPECT_EQ(r.status, status) << args[1];
        EXPECT_EQ(r.out, out) << args[1];
        EXPECT_EQ(r.err, err) << args[1];
    }
}

// The messages of a follow's output, in order.
std::vector<std::string> Messages(const std::string& out) {
    std::vector<std::string> messages;
    std::istringstream in(out);
    for (std::string line; std::getline(in, line);) messages.push_back(line.substr(line.find("\t : ") + 4));
    return messages;
}

// A process logs bursts of lines that rotate the file twice each, with two files kept, so that the file
// being followed is deleted and a poll finds two new files. The follower prints every line once and in
// order, and ends after the process has ended. --lines then reaches back across files.
TEST_F(CliLog, FollowSeesEveryLineOnceAcrossRotations) {
    // Lines of 38 bytes, a new file after every third. A burst ends a line before a rotation, so that the
    // file after it is made only once the follower has caught up: only a file that the logger makes and
    // deletes between two looks of the follower would be missed.
    const int first = 5, perBurst = 6, bursts = 5, lines = first + (bursts - 1) * perBurst;
    msptest::WriteFile(config_,
                       "[srv]\r\nlogMode=1\r\nlogVerbosity=0\r\nlogFilesCount=2\r\nlogFileSize=114\r\n"
                       "logFilePath=\"" +
                           logs_ + "\"\r\n");
    ASSERT_EQ(mkdir(logs_.c_str(), 0700), 0);
    const std::string out = dir_.file("out"), err = dir_.file("err");
    auto message = [](int i) {
        char text[16];
        snprintf(text, sizeof text, "line %03d", i);
        return std::string(text);
    };
    const pid_t logger = msptest::StartChild([&] {
        if (initializeLogger(const_cast<char*>(config_.c_str()), const_cast<char*>("srv")) != 1) return 1;
        for (int i = 0; i < lines;) {
            for (int end = i + (i == 0 ? first : perBurst); i < end; ++i)
                eventLogOut("%s", message(i).c_str());
            // The next burst waits for the follower to have printed this one.
            const std::string last = message(i - 1);
            for (int wait = 0; msptest::ReadFile(out).find(last) == std::string::npos; ++wait) {
                if (wait == 6000) return 2;
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            }
        }
        return 0;
    });
    msptest::WriteFile(dir_.file("in"), "");
    const pid_t follower = msptest::StartMsplat({"log", "follow", "--dir", logs_, "--module", "srv",
                                                 "--lines", "1000", "--pid", std::to_string(logger)},
                                                dir_.file("in"), out, err);
    EXPECT_EQ(msptest::WaitChild(logger, 300000), 0);
    EXPECT_EQ(msptest::WaitChild(follower, 60000), 0) << msptest::ReadFile(err);
    std::vector<std::string> expected;
    for (int i = 0; i < lines; ++i) expected.push_back(message(i));
    EXPECT_EQ(Messages(msptest::ReadFile(out)), expected);
    EXPECT_EQ(LogFiles(logs_), 2u);
    // The newest file holds the last two lines, the other the three before them.
    const msptest::MsplatResult r = Msplat({"log", "follow", "--config", config_, "--module", "srv",
                                            "--lines", "4", "--pid", std::to_string(logger)});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(Messages(r.out), std::vector<std::string>(expected.end() - 4, expected.end()));
}

// A line still being written is printed once it is whole.
TEST_F(CliLog, FollowPrintsWholeLines) {
    ASSERT_EQ(mkdir(logs_.c_str(), 0700), 0);
    const std::string file = logs_ + "/serverLog.srv.01-01-2027.000000.000.txt", out = dir_.file("out");
    msptest::WriteFile(file, "x1\npart");
    const pid_t writer = msptest::StartChild([&] {
        for (int wait = 0; msptest::ReadFile(out) != "x1\n"; ++wait) {
            if (wait == 6000) return 1;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(300));  // a few looks at the part
        FILE* stream = fopen(file.c_str(), "a");
        return stream && fputs("ial\nx2\n", stream) >= 0 && fclose(stream) == 0 ? 0 : 2;
    });
    msptest::WriteFile(dir_.file("in"), "");
    const pid_t follower = msptest::StartMsplat(
        {"log", "follow", "--dir", logs_, "--module", "srv", "--lines", "9", "--pid", std::to_string(writer)},
        dir_.file("in"), out, dir_.file("err"));
    EXPECT_EQ(msptest::WaitChild(writer, 120000), 0);
    EXPECT_EQ(msptest::WaitChild(follower, 60000), 0);
    EXPECT_EQ(msptest::ReadFile(out), "x1\npartial\nx2\n");
}

}  // namespace
