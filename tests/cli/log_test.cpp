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
using msptest::MsplatResult;

std::vector<std::string> LogFiles(const std::string& dir) {
    std::vector<std::string> names;
    if (DIR* stream = opendir(dir.c_str())) {
        while (dirent64* entry = readdir64(stream))
            if (std::string(entry->d_name).rfind("serverLog.", 0) == 0) names.push_back(entry->d_name);
        closedir(stream);
    }
    return names;
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
    const std::string config_ = dir_.file("MediaServer.cfg");
    const std::string logs_ = dir_.file("logs");
};

TEST_F(CliLog, LinesGoToANewFileEachRunAndOldOnesGo) {
    const std::regex line("\\d\\d-\\d\\d-\\d{4} : \\d\\d:\\d\\d:\\d\\d\\.\\d{3}\t : (.*)\n");
    const std::regex name("serverLog\\.srv\\.\\d\\d-\\d\\d-\\d{4}\\.\\d{6}\\.\\d{3}\\.txt");
    const std::vector<std::vector<std::string>> messages = {
        {"hello", "world"}, {"100% done"}, {"third", "run", "%s"}};
    for (const std::vector<std::string>& words : messages) {
        // The logger tells its files' ages by the second: runs within one second tie, and a tie may take
        // the new file for the oldest one to delete.
        if (&words != &messages.front()) std::this_thread::sleep_for(std::chrono::milliseconds(1100));
        std::vector<std::string> args = {"log", "--config", config_, "--module", "srv"};
        args.insert(args.end(), words.begin(), words.end());
        MsplatResult r = Msplat(args);
        ASSERT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(r.err, "");
        // The path of the file written to, which holds the one line of this run.
        ASSERT_EQ(r.out.substr(0, logs_.size() + 1), logs_ + "/");
        const std::string file = r.out.substr(logs_.size() + 1, r.out.size() - logs_.size() - 2);
        EXPECT_TRUE(std::regex_match(file, name)) << file;
        std::smatch match;
        const std::string text = msptest::ReadFile(logs_ + "/" + file);
        ASSERT_TRUE(std::regex_match(text, match, line)) << text;
        std::string joined;
        for (const std::string& word : words) joined += (joined.empty() ? "" : " ") + word;
        EXPECT_EQ(match[1], joined);
    }
    // logFilesCount 2: the oldest of the three files is gone.
    EXPECT_EQ(LogFiles(logs_).size(), 2u);
}

TEST_F(CliLog, WhyTheLoggerDidNotStart) {
    msptest::WriteFile(dir_.file("partial.cfg"), "[srv]\r\nlogMode=1\r\nlogVerbosity=\"x\"\r\n");
    msptest::WriteFile(dir_.file("off.cfg"),
                       "[srv]\r\nlogMode=0\r\nlogVerbosity=0\r\nlogFilesCount=2\r\n"
                       "logFileSize=100\r\nlogFilePath=\"" +
                           logs_ + "\"\r\n");
    struct Case {
        std::string config;
        std::string module;
        int status;
        std::string err;
    } cases[] = {
        {config_, "other", 1, "msplat: log: " + config_ + ": [other]: no such section\n"},
        {dir_.file("partial.cfg"), "srv", 2,
         "msplat: log: " + dir_.file("partial.cfg") + ": [srv] logVerbosity: type mismatch\n"},
        {dir_.file("none.cfg"), "srv", 1,
         "msplat: " + dir_.file("none.cfg") + ": No such file or directory\n"},
        // Logging off is the configuration's choice: nothing written, and no failure.
        {dir_.file("off.cfg"), "srv", 0,
         "msplat: log: logging is off in [srv] (logMode 0): no line written\n"},
    };
    for (const Case& c : cases) {
        MsplatResult r = Msplat({"log", "--config", c.config, "--module", c.module, "message"});
        EXPECT_EQ(r.status, c.status) << c.config;
        EXPECT_EQ(r.err, c.err);
        EXPECT_EQ(r.out, "");
    }
    EXPECT_TRUE(LogFiles(logs_).empty());
}

TEST_F(CliLog, BadMessages) {
    for (const std::string& message : {std::string("two\nlines"), std::string(1024, 'x'), std::string()}) {
        MsplatResult r = Msplat({"log", "--config", config_, "--module", "srv", message});
        EXPECT_EQ(r.status, 2) << message.size();
        EXPECT_EQ(r.out, "");
    }
    EXPECT_EQ(Msplat({"log", "--config", config_, "--module", "srv"}).status, 2);
    EXPECT_EQ(Msplat({"log", "--module", "srv", "x"}).status, 2);
    EXPECT_TRUE(LogFiles(logs_).empty());
    // The longest message that fits goes whole.
    MsplatResult r = Msplat({"log", "--config", config_, "--module", "srv", std::string(1023, 'y')});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(
        msptest::ReadFile(r.out.substr(0, r.out.size() - 1)).find(" : " + std::string(1023, 'y') + "\n"),
        std::string::npos);
}

}  // namespace
