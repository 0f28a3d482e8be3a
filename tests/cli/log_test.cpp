// msplat log: lines through the event logger, and why it could not start.
#include <dirent.h>

#include <chrono>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "cli/msplat_run.h"

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

}  // namespace
