// ZvEventLogger on objects of the test's own: the log set and its rotation, the start from the configuration,
// and the lines.
#include "msplatform/eventLogger.h"

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <random>
#include <set>
#include <thread>

#include "logger/internal.h"
#include "logger/loggerTestSupport.h"
#include "msplatform/ZvCfgCtrlMgr.h"
#include "msplatform/eventLogger_specific.h"

using namespace loggertest;

namespace {

char kSection[] = "media";

class LoggerTest : public ::testing::Test {
protected:
    void SetUp() override { settings_.path = logs_; }
    void TearDown() override { logVerbosity = 0; }

    char* Config(const std::string& text) {
        msptest::WriteFile(cfg_, text);
        return &cfg_[0];
    }
    char* Config() { return Config(ConfigText("media", settings_)); }
    // Places the logger in the log directory, as a start would, without reading a configuration.
    void Place(ZvEventLogger& logger) {
        ::mkdir(logs_.c_str(), 0755);
        logger.logMode = 1;
        logger.logFilePath = HeapText(logs_);
        logger.moduleName = HeapText("media");
    }
    void Log(ZvEventLogger& logger, std::string message) {
        logger.logEvent(&message[0], static_cast<int>(message.size()));
    }
    std::string Text(const std::string& name) { return msptest::ReadFile(logs_ + "/" + name); }
    std::vector<std::string> Messages(const std::string& name) {
        return loggertest::Messages(logs_ + "/" + name);
    }

    msptest::TempDir dir_;
    std::string logs_ = dir_.file("logs"), cfg_ = dir_.file("MediaServer.cfg");
    Settings settings_;
};

// Makes a directory, level by level, whose path has exactly `length` bytes.
std::string MakeDirOfLength(const std::string& base, size_t length) {
    std::string path = base;
    while (path.size() < length) {
        size_t room = length - path.size() - 1, take = std::min<size_t>(room, 100);
        if (room - take == 1) --take;  // never leave room for a bare slash
        path += "/" + std::string(take, 'd');
        ::mkdir(path.c_str(), 0755);
    }
    return path;
}

// A clock of the test's own: it stands still or steps by one millisecond per reading.
struct TestClock {
    static time_t seconds;
    static int milliseconds, step;
    TestClock(time_t s, int ms, int stepBy) {
        seconds = s;
        milliseconds = ms;
        step = stepBy;
        eventLoggerTime = [](time_t* out) { return out ? *out = seconds : seconds; };
        eventLoggerMilliseconds = [] { return (milliseconds += step) - step; };
    }
    ~TestClock() {
        eventLoggerTime = ::time;
        eventLoggerMilliseconds = OS_GetTimeWithMilliSeconds;
    }
};
time_t TestClock::seconds = 0;
int TestClock::milliseconds = 0, TestClock::step = 0;

// A local time in a format taking month, day, year, hour, minute, second and millisecond.
std::string AtTime(const char* format, time_t seconds, int milliseconds) {
    struct tm t;
    ::localtime_r(&seconds, &t);
    char text[64];
    std::snprintf(text, sizeof text, format, t.tm_mon + 1, t.tm_mday, t.tm_year + 1900, t.tm_hour, t.tm_min,
                  t.tm_sec, milliseconds);
    return text;
}
std::string NameAt(time_t seconds, int milliseconds) {
    return AtTime("serverLog.media.%02d-%02d-%04d.%02d%02d%02d.%03d.txt", seconds, milliseconds);
}
constexpr time_t kWhen = 1795000000;

TEST_F(LoggerTest, ANewFileNeverEmptiesAFileThatHasItsName) {
    {
        // The clock steps on: the taken name is passed over for the next millisecond's.
        TestClock clock(kWhen, 500, 1);
        ZvEventLogger logger;
        Place(logger);
        msptest::WriteFile(logs_ + "/" + NameAt(kWhen, 500), "keep\n");
        logger.addnode(MakeNode("serverLog.x", 1));
        fileInfo* node = logger.createnewlogfile();
        ASSERT_NE(nullptr, node);
        EXPECT_EQ(NameAt(kWhen, 501), node->name);
        EXPECT_EQ((std::vector<uint32_t>{0, static_cast<uint32_t>(kWhen)}),
                  (std::vector<uint32_t>{node->size, node->time}));
        EXPECT_EQ(nullptr, node->next);
        EXPECT_EQ((std::vector<std::string>{"serverLog.x"}), ListNames(logger));  // the caller links it
        EXPECT_NE(nullptr, logger.logFile);
        EXPECT_EQ("keep\n", Text(NameAt(kWhen, 500)));
        std::free(node->name);
        std::free(node);
    }
    // The clock stands still: after a bounded wait no file is opened, and the old one is closed.
    TestClock clock(kWhen, 699, 0);
    ZvEventLogger logger;
    Place(logger);
    msptest::WriteFile(logs_ + "/" + NameAt(kWhen, 700), "keep too\n");
    EXPECT_EQ(nullptr, logger.createnewlogfile());  // the list is empty: no node
    ASSERT_NE(nullptr, logger.logFile);
    TestClock::milliseconds = 700;
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(nullptr, logger.createnewlogfile());
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    EXPECT_EQ(nullptr, logger.logFile);
    EXPECT_EQ("keep too\n", Text(NameAt(kWhen, 700)));
    EXPECT_EQ("", Text(NameAt(kWhen, 699)));
}

TEST_F(LoggerTest, AClockOutOfRangeNeverWritesPastTheStamp) {
    if (sizeof(time_t) < 8) GTEST_SKIP() << "a 32-bit time_t cannot reach a year past 9999";
    ZvEventLogger logger;
    Place(logger);
    logger.logFileSize = 1 << 30;
    logger.createnewlogfile();
    const std::string today = LogFiles(logs_).at(0);
    {
        // Year 10000: the stamp is cut to the 26 bytes its callers give, the file name takes the whole year.
        TestClock clock(static_cast<time_t>(253402300800LL) + 12 * 3600, 42, 0);
        char* stamp = static_cast<char*>(std::malloc(26));  // exactly the bound, so a write past it is caught
        EXPECT_EQ(25, logger.currentdatetime(stamp));
        EXPECT_EQ("01-01-10000 : 12:00:00.04", std::string(stamp));
        std::free(stamp);
        Log(logger, "far ahead");
        logger.addnode(MakeNode("serverLog.x", 1));
        fileInfo* node = logger.createnewlogfile();
        ASSERT_NE(nullptr, node);
        EXPECT_EQ("serverLog.media.01-01-10000.120000.042.txt", std::string(node->name));
        std::free(node->name);
        std::free(node);
    }
    // A time that localtime cannot convert: no stamp, no new file, the line begins with the tab.
    TestClock clock(static_cast<time_t>(INT64_MAX), 0, 0);
    char stamp[26] = "untouched";
    EXPECT_EQ(0, logger.currentdatetime(stamp));
    EXPECT_STREQ("untouched", stamp);
    FILE* before = logger.logFile;
    EXPECT_EQ(nullptr, logger.createnewlogfile());
    EXPECT_EQ(before, logger.logFile);
    Log(logger, "no time");
    EXPECT_EQ("01-01-10000 : 12:00:00.04\t : far ahead\n", Text(today));
    EXPECT_EQ("\t : no time\n", Text("serverLog.media.01-01-10000.120000.042.txt"));
}

// Every line rotates, so names repeat within a millisecond and threads meet rotations all the time.
TEST_F(LoggerTest, ThreadsRotatingAtEveryLineLoseNoLine) {
    ZvEventLogger logger;
    Place(logger);
    logger.logFileSize = 0;
    logger.logFilesCount = 100000;
    logger.createnewlogfile();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 100; ++i)
                Log(logger, "thread " + std::to_string(t) + " line " + std::to_string(i));
        });
    }
    for (auto& th : threads) th.join();
    std::vector<std::string> files = LogFiles(logs_);
    EXPECT_EQ(401u, files.size());
    std::multiset<std::string> seen;
    for (const std::string& name : files) {
        std::vector<std::string> messages = Messages(name);
        seen.insert(messages.empty() ? "(empty)" : messages[0]);
        EXPECT_LE(messages.size(), 1u) << name;
    }
    EXPECT_EQ(1u, seen.count("(empty)"));  // the current file
    for (int t = 0; t < 4; ++t)
        for (int i = 0; i < 100; ++i)
            EXPECT_EQ(1u, seen.count("thread " + std::to_string(t) + " line " + std::to_string(i)));
}

TEST_F(LoggerTest, ScanCountsPlainFilesWithTheExactPrefixAppendsAndTakesPathsUpTo254Bytes) {
    ZvEventLogger logger;
    Place(logger);
    const std::string dated = "serverLog.media.01-02-2020.030405.006.txt";
    for (const char* name : {"serverLog.x", dated.c_str(), "ServerLog.x", "serverLo", "other.txt"}) {
        msptest::WriteFile(logs_ + "/" + name, name);
        SetModifiedTime(logs_ + "/" + name, 1000000 + std::strlen(name));
    }
    ::mkdir((logs_ + "/serverLog.old").c_str(), 0755);
    EXPECT_EQ(2, logger.findlogfilesinfo());
    EXPECT_EQ(2, logger.findlogfilesinfo());  // appended, not replaced
    std::multiset<std::string> found;
    for (fileInfo* n = logger.fileList; n; n = n->next) {
        found.insert(std::string(n->name) + " " + std::to_string(n->size) + " " + std::to_string(n->time));
    }
    EXPECT_EQ((std::multiset<std::string>{"serverLog.x 11 1000011", "serverLog.x 11 1000011",
                                          dated + " 41 1000041", dated + " 41 1000041"}),
              found);
    // A directory path of 254 bytes is scanned, a longer one is refused.
    for (size_t length : {254u, 255u, 400u}) {
        std::string path = MakeDirOfLength(dir_.path(), length);
        ASSERT_EQ(length, path.size());
        msptest::WriteFile(path + "/serverLog.x", "x");
        free(logger.logFilePath);
        logger.logFilePath = HeapText(path);
        EXPECT_EQ(length <= 254 ? 1 : 0, logger.findlogfilesinfo()) << length;
    }
    // What is no readable directory gives 0 and empties the list.
    for (const std::string& path : {dir_.file("missing"), logs_ + "/serverLog.x"}) {
        free(logger.logFilePath);
        logger.logFilePath = HeapText(path);
        EXPECT_EQ(0, logger.findlogfilesinfo()) << path;
        EXPECT_EQ(nullptr, logger.fileList) << path;
    }
}

TEST_F(LoggerTest, OldestAndNewestByUnsignedTimeWithTiesToTheHeadAndDeletionTakesTheOldestFirst) {
    ZvEventLogger logger;
    Place(logger);
    const uint32_t times[] = {500, 100, 0xFFFFFFF0u, 100, 0xFFFFFFF0u};
    std::vector<fileInfo*> nodes;
    for (int i = 0; i < 5; ++i) {
        nodes.push_back(MakeNode("serverLog." + std::to_string(i), times[i]));
        msptest::WriteFile(logs_ + "/" + nodes.back()->name, "x");
        logger.addnode(nodes.back());
    }
    EXPECT_EQ(nodes[1], logger.findoldnode());
    EXPECT_EQ(nodes[2], logger.findnewnode());
    logger.currentFilesCount = 5;
    logger.logFilesCount = 2;
    logger.deleteoldlogfiles();
    EXPECT_EQ(2, logger.currentFilesCount);
    EXPECT_EQ((std::vector<std::string>{"serverLog.2", "serverLog.4"}), ListNames(logger));
    EXPECT_EQ(ListNames(logger), LogFiles(logs_));
    // A file that is gone already still leaves the list and the count.
    ::unlink((logs_ + "/serverLog.4").c_str());
    logger.logFilesCount = 0;
    logger.deleteoldlogfiles();
    EXPECT_EQ(0, logger.currentFilesCount);
    EXPECT_EQ(nullptr, logger.fileList);
    EXPECT_TRUE(LogFiles(logs_).empty());
    // An empty list ends the deletion, whatever the count says.
    logger.currentFilesCount = 4;
    logger.deleteoldlogfiles();
    EXPECT_EQ(4, logger.currentFilesCount);
    EXPECT_EQ(nullptr, logger.findoldnode());
    EXPECT_EQ(nullptr, logger.findnewnode());
}

// Deleting several files at once takes the ones that taking the oldest one at a time would: smallest time
// first, ties to the node nearer the head, as many as the count is above logFilesCount or the whole list.
// The list keeps the others in their order, the directory their files. Against that rule written out, on
// lists of few distinct times.
TEST_F(LoggerTest, DeletingSeveralTakesTheOldestAsOneAtATimeWould) {
    ZvEventLogger logger;
    Place(logger);
    std::mt19937 random(3);
    for (int round = 0; round < 120; ++round) {
        const int length = static_cast<int>(random() % 30);
        std::vector<std::pair<uint32_t, std::string>> model;  // time and name, in list order
        fileInfo** tail = &logger.fileList;
        for (int i = 0; i < length; ++i) {
            const std::string name = "serverLog." + std::to_string(i);
            const uint32_t time = random() % 4 == 0 ? 0xFFFFFFF0u + random() % 2 : random() % 4;
            msptest::WriteFile(logs_ + "/" + name, "x");
            *tail = MakeNode(name, time);
            tail = &(*tail)->next;
            model.push_back({time, name});
        }
        logger.currentFilesCount = length + static_cast<int>(random() % 3);  // may count more than it lists
        logger.logFilesCount = round % 50 == 0 ? INT_MIN : static_cast<int>(random() % (length + 2)) - 1;
        int count = logger.currentFilesCount;
        for (; count > logger.logFilesCount && !model.empty(); --count) {
            model.erase(std::min_element(model.begin(), model.end(),
                                         [](const auto& a, const auto& b) { return a.first < b.first; }));
        }
        logger.deleteoldlogfiles();
        std::vector<std::string> kept;
        for (const auto& entry : model) kept.push_back(entry.second);
        ASSERT_EQ(ListNames(logger), kept) << round;
        ASSERT_EQ(logger.currentFilesCount, count) << round;
        std::sort(kept.begin(), kept.end());
        ASSERT_EQ(LogFiles(logs_), kept) << round;
        for (const std::string& name : kept) ::unlink((logs_ + "/" + name).c_str());
        logger.clearnodes();
    }
}

// A start in a directory full of old files deletes them by one sort, not by a walk of the list per file:
// 300,000 listed files, of which all but 10 go, oldest at the tail (a walk per file takes minutes).
TEST_F(LoggerTest, DeletingManyFilesTakesOneSort) {
    const int failed = msptest::RunChild(
        [] {
            constexpr int kFiles = 300000;
            ZvEventLogger* logger = new ZvEventLogger;  // never destroyed: the child ends with _exit
            fileInfo** tail = &logger->fileList;
            for (int i = 0; i < kFiles; ++i) {
                *tail = MakeNode("serverLog." + std::to_string(i), kFiles - i);
                tail = &(*tail)->next;
            }
            logger->currentFilesCount = kFiles;
            logger->logFilesCount = 10;
            logger->deleteoldlogfiles();  // without a directory: the nodes go, nothing is unlinked
            const std::vector<std::string> kept = ListNames(*logger);
            return logger->currentFilesCount == 10 && kept.size() == 10 && kept[0] == "serverLog.0" ? 0 : 1;
        },
        20000);
    EXPECT_EQ(failed, 0) << "kChildTimedOut is " << msptest::kChildTimedOut;
}

TEST_F(LoggerTest, DeletionPathsBeyond256BytesStillDeleteAndUnfittingOnesNeverWrite) {
    std::string path = MakeDirOfLength(dir_.path(), 300), name = "serverLog." + std::string(100, 'm');
    ASSERT_EQ(300u, path.size());
    ZvEventLogger logger;
    logger.logFilePath = HeapText(path);
    msptest::WriteFile(path + "/" + name, "x");
    logger.addnode(MakeNode(name, 1));
    logger.addnode(MakeNode("serverLog.y", 2));
    logger.currentFilesCount = 2;
    logger.logFilesCount = 1;
    logger.deleteoldlogfiles();
    EXPECT_FALSE(msptest::FileExists(path + "/" + name));
    EXPECT_EQ(1, logger.currentFilesCount);
    // A path that fits no buffer at all: nothing is unlinked, the node goes.
    free(logger.logFilePath);
    logger.logFilePath = HeapText(std::string(5000, 'x'));
    logger.logFilesCount = 0;
    logger.deleteoldlogfiles();
    EXPECT_EQ(0, logger.currentFilesCount);
    EXPECT_EQ(nullptr, logger.fileList);
}

TEST_F(LoggerTest, StartMakesTheDirectoryAndOneFileAndLinesHaveTheStampTheSeparatorAndTheMessage) {
    TestClock clock(kWhen, 42, 0);
    ZvEventLogger logger;
    settings_.verbosity = 7;
    EXPECT_EQ(1, logger.initializeLogger(Config(), kSection));
    EXPECT_EQ(7, logVerbosity);
    EXPECT_EQ(100, logger.logFilesCount);
    EXPECT_EQ(100000, logger.logFileSize);
    EXPECT_EQ((std::vector<std::string>{NameAt(kWhen, 42)}), LogFiles(logs_));
    EXPECT_EQ(LogFiles(logs_), ListNames(logger));
    EXPECT_EQ(1, logger.currentFilesCount);
    Log(logger, "hello 100% %s %d world");
    Log(logger, "");
    char longer[] = "abcdef";
    logger.logEvent(longer, 3);  // never more than the stated length
    const std::string stamp = AtTime("%02d-%02d-%04d : %02d:%02d:%02d.%03d", kWhen, 42);
    const std::string text = Text(NameAt(kWhen, 42));
    EXPECT_EQ(stamp + "\t : hello 100% %s %d world\n" + stamp + "\t : \n" + stamp + "\t : abc\n", text);
    EXPECT_EQ(static_cast<int>(text.size()), logger.currentFileBytes);
}

// What a start and some lines leave: each file's messages (old files: their text), then the count, the bytes
// of the current file and whether one is open. Old files are named by their age; -1: the directory is a file.
TEST_F(LoggerTest, StartRotationAndDeletionFollowSizeCountAndMode) {
    const std::string a(10, 'a'), b(40, 'b');
    struct Case {
        int mode, filesCount, fileSize, oldFiles;
        std::vector<std::string> lines;
        std::string expected;
    } const cases[] = {
        {1, 100, 100, 0, {a, b, "c"}, "[" + a + "|" + b + "][c] 2 31 open"},  // lines of 40, 70 and 31 bytes
        {1, 1, 0, 0, {"m", "m", "m"}, "[] 1 0 open"},  // each line rotates; the closed file goes
        {1, 0, 100000, 1, {"void"}, " 0 34 open"},     // every file goes, the current one among them
        {0, 2, 100000, 4, {"nothing"}, "[serverLog.media.2][serverLog.media.3] 2 0 closed"},
        {1, 100, 100000, -1, {"x"}, "not a directory 0 0 closed"},
    };
    for (const Case& c : cases) {
        logs_ = settings_.path = dir_.file("logs" + std::to_string(&c - cases));
        if (c.oldFiles < 0) msptest::WriteFile(logs_, "not a directory");
        if (c.oldFiles > 0) ::mkdir(logs_.c_str(), 0755);
        for (int i = 0; i < c.oldFiles; ++i) {
            std::string name = "serverLog.media." + std::to_string(i);
            msptest::WriteFile(logs_ + "/" + name, name);
            SetModifiedTime(logs_ + "/" + name, 1000000 + i);
        }
        settings_.mode = c.mode;
        settings_.filesCount = c.filesCount;
        settings_.fileSize = c.fileSize;
        ZvEventLogger logger;
        ASSERT_EQ(1, logger.initializeLogger(Config(), kSection)) << c.expected;
        for (const std::string& line : c.lines) Log(logger, line);
        std::string state = c.oldFiles < 0 ? msptest::ReadFile(logs_) : "";
        for (const std::string& f : LogFiles(logs_)) {
            std::string text = f.size() > 20 ? "" : Text(f);
            for (const std::string& m : f.size() > 20 ? Messages(f) : std::vector<std::string>()) {
                text += (text.empty() ? "" : "|") + m;
            }
            state += "[" + text + "]";
        }
        EXPECT_EQ(c.expected, state + " " + std::to_string(logger.currentFilesCount) + " " +
                                  std::to_string(logger.currentFileBytes) +
                                  (logger.logFile ? " open" : " closed"));
    }
}

TEST_F(LoggerTest, DirectoryThatCannotBeMadeOrScannedGivesZeroAndASilentLogger) {
    ZvEventLogger logger;
    settings_.path = dir_.file("no/such/logs");
    EXPECT_EQ(0, logger.initializeLogger(Config(), kSection));
    EXPECT_EQ(nullptr, logger.logFilePath);
    EXPECT_EQ(nullptr, logger.logFile);
    EXPECT_FALSE(msptest::FileExists(dir_.file("no")));
    Log(logger, "nowhere");
    EXPECT_EQ(nullptr, logger.createnewlogfile());
    EXPECT_EQ(0, logger.findlogfilesinfo());
    // A running logger whose second start cannot make its directory closes its file and goes silent.
    settings_.path = logs_;
    ASSERT_EQ(1, logger.initializeLogger(Config(), kSection));
    ASSERT_NE(nullptr, logger.logFile);
    settings_.path = "";
    EXPECT_EQ(0, logger.initializeLogger(Config(), kSection));
    EXPECT_EQ(nullptr, logger.logFile);
    // A path longer than the scan takes (254 bytes) would collect files that are never pruned: a start with
    // it makes neither the directory nor a file, however often it runs. At 254 bytes the second start prunes.
    settings_.filesCount = 1;
    for (size_t length : {255u, 254u}) {
        settings_.path = MakeDirOfLength(dir_.path(), length);
        ::rmdir(settings_.path.c_str());
        ZvEventLogger fresh;
        for (int start = 0; start < 2; ++start)
            EXPECT_EQ(length == 254 ? 1 : 0, fresh.initializeLogger(Config(), kSection)) << length;
        EXPECT_EQ(length == 254 ? 1u : 0u, LogFiles(settings_.path).size()) << length;
        EXPECT_EQ(length == 254, msptest::FileExists(settings_.path)) << length;
    }
}

TEST_F(LoggerTest, SettingsThatCannotBeReadGiveZeroAndTouchNothing) {
    const std::string good = ConfigText("media", settings_);
    auto without = [&](const std::string& line) {
        std::string text = good;
        return text.erase(text.find(line), line.size() + 2);
    };
    const std::pair<std::string, const char*> cases[] = {
        {without("logMode=1"), "media"},
        {without("logFileSize=100000"), "media"},
        {without("logFilePath=\"" + logs_ + "\""), "media"},
        {"[media]\r\nlogMode=\"1\"\r\n", "media"},
        {good, "video"},
        {good, nullptr},
    };
    for (const auto& c : cases) {
        std::string section = c.second ? c.second : "";
        ZvEventLogger logger;
        EXPECT_EQ(0, logger.initializeLogger(Config(c.first), c.second ? &section[0] : nullptr)) << c.first;
        EXPECT_FALSE(msptest::FileExists(logs_)) << c.first;
        // The configuration that the logger opened is closed again.
        EXPECT_EQ(CFG_OK, initializeConfig(cfg_.c_str())) << c.first;
        deinitializeConfig();
    }
    ZvEventLogger logger;
    EXPECT_EQ(0, logger.initializeLogger(nullptr, kSection));
}

TEST_F(LoggerTest, AConfigurationTheCallerOpenedStaysOpen) {
    std::string other = dir_.file("other.cfg");
    char* cfg = Config();
    ASSERT_EQ(CFG_OK, initializeConfig(cfg));
    {
        ZvEventLogger logger;
        EXPECT_EQ(1, logger.initializeLogger(&other[0], kSection));  // reads the file opened first
        char unknown[] = "video";
        EXPECT_EQ(0, logger.initializeLogger(cfg, unknown));
    }
    EXPECT_EQ(CFG_ALREADY_INITIALIZED, initializeConfig(cfg));
    deinitializeConfig();
}

TEST_F(LoggerTest, SecondStartMakesANewFileAndCountsOnlyItsOwnScan) {
    ZvEventLogger logger;
    ASSERT_EQ(1, logger.initializeLogger(Config(), kSection));
    Log(logger, "first");
    int bytes = logger.currentFileBytes;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    ASSERT_EQ(1, logger.initializeLogger(Config(), kSection));
    std::vector<std::string> files = LogFiles(logs_);
    ASSERT_EQ(2u, files.size());
    EXPECT_EQ(2, logger.currentFilesCount);
    std::vector<std::string> listed = ListNames(logger);
    std::sort(listed.begin(), listed.end());
    EXPECT_EQ((std::vector<std::string>{files[0], files[0], files[1]}), listed);  // the first one twice
    EXPECT_EQ(bytes, logger.currentFileBytes);
    Log(logger, "second");
    EXPECT_EQ((std::vector<std::string>{"first"}), Messages(files[0]));
    EXPECT_EQ((std::vector<std::string>{"second"}), Messages(files[1]));
}

std::atomic<int> allocationsLeft{-1};

void* FailingAlloc(size_t size) {
    if (allocationsLeft.load() == 0) return nullptr;
    if (allocationsLeft.load() > 0) --allocationsLeft;
    return std::malloc(size);
}

TEST_F(LoggerTest, EachFailedAllocationIsSurvivedAndLeaksNothing) {
    settings_.fileSize = 100;
    settings_.filesCount = 2;
    char* cfg = Config();
    ::mkdir(logs_.c_str(), 0755);
    msptest::WriteFile(logs_ + "/serverLog.old", "x");
    eventLoggerAlloc = FailingAlloc;
    // Fail the first allocation, then the second, and so on, until a whole run needs no failure.
    bool ranThrough = false;
    for (int allowed = 0; allowed < 200 && !ranThrough; ++allowed) {
        allocationsLeft = allowed;
        {
            ZvEventLogger logger;
            logger.initializeLogger(cfg, kSection);
            for (int i = 0; i < 6; ++i) Log(logger, "a line of some forty bytes");
            ranThrough = allocationsLeft.load() > 0;
            allocationsLeft = -1;
            Log(logger, "after");  // the lock was given back on every way out: this does not hang
            EXPECT_GE(logger.currentFilesCount, 0);
        }
        for (const auto& f : LogFiles(logs_)) ::unlink((logs_ + "/" + f).c_str());
    }
    eventLoggerAlloc = std::malloc;
    EXPECT_TRUE(ranThrough);
}

}  // namespace
