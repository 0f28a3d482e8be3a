// ZvEventLogger on objects of the test's own: the log set and its rotation, the start from the configuration,
// and the lines.
#include "msplatform/eventLogger.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <set>
#include <thread>

#include <gtest/gtest.h>

#include "logger/internal.h"
#include "logger/loggerTestSupport.h"
#include "msplatform/ZvCfgCtrlMgr.h"
#include "msplatform/eventLogger_specific.h"
#include "msplatform/mutex.h"

using namespace loggertest;

namespace {

constexpr key_t kLoggerKey = 114246;  // byte sum of "eventLogger" times 99

char kSection[] = "media";

class LoggerTest : public ::testing::Test {
protected:
    void SetUp() override { logs_ = dir_.file("logs"); }

    // Writes the configuration file with the section "media" (or another) and returns its path.
    char* Config(const Settings& settings, const std::string& section = "media") {
        msptest::WriteFile(dir_.file("MediaServer.cfg"), ConfigText(section, settings));
        cfg_ = dir_.file("MediaServer.cfg");
        return &cfg_[0];
    }
    Settings InLogs() const {
        Settings s;
        s.path = logs_;
        return s;
    }
    // Places the logger in the log directory, as a start would, without reading a configuration.
    void Place(ZvEventLogger& logger, int mode = 1) {
        ::mkdir(logs_.c_str(), 0755);
        logger.logMode = mode;
        logger.logFilePath = HeapText(logs_);
        logger.moduleName = HeapText("media");
    }
    std::string Text(const std::string& name) { return msptest::ReadFile(logs_ + "/" + name); }
    std::vector<std::string> Messages(const std::string& name) {
        std::vector<std::string> lines, messages;
        EXPECT_TRUE(SplitLines(Text(name), &lines)) << name;
        for (const auto& l : lines) {
            Line parsed;
            EXPECT_TRUE(ParseLine(l, &parsed)) << l;
            messages.push_back(parsed.message);
        }
        return messages;
    }

    msptest::TempDir dir_;
    std::string logs_;
    std::string cfg_;
};

// Makes a directory, level by level, whose path has exactly `length` bytes.
std::string MakeDirOfLength(const std::string& base, size_t length) {
    std::string path = base;
    while (path.size() < length) {
        size_t room = length - path.size() - 1;
        size_t take = std::min<size_t>(room, 100);
        if (room - take == 1) --take;  // never leave room for a bare slash
        path += "/" + std::string(take, 'd');
        ::mkdir(path.c_str(), 0755);
    }
    return path;
}

// The name's shape: serverLog.media.MM-DD-YYYY.HHMMSS.mmm.txt
bool NameFields(const std::string& name, int* month, int* day, int* year, int* hour, int* minute,
                int* second) {
    int ms = 0;
    char tail[8] = {0};
    if (name.size() != 16 + 25 || name.compare(0, 16, "serverLog.media.") != 0) return false;
    return std::sscanf(name.c_str() + 16, "%2d-%2d-%4d.%2d%2d%2d.%3d.%3s", month, day, year, hour, minute,
                       second, &ms, tail) == 8 &&
           std::string(tail) == "txt";
}

TEST(EventLoggerObject, ConstructorClearsFieldsAndMakesTheSemaphoreWhichTheDestructorRemoves) {
    {
        ZvEventLogger logger;
        EXPECT_EQ(0, logger.logMode);
        EXPECT_EQ(0, logger.logFilesCount);
        EXPECT_EQ(0, logger.logFileSize);
        EXPECT_EQ(0, logger.currentFileBytes);
        EXPECT_EQ(0, logger.currentFilesCount);
        EXPECT_EQ(nullptr, logger.logFilePath);
        EXPECT_EQ(nullptr, logger.moduleName);
        EXPECT_EQ(nullptr, logger.logFile);
        EXPECT_EQ(nullptr, logger.fileList);
        ASSERT_NE(nullptr, logger.mutex);
        EXPECT_GT(logger.mutex->getid(), 0);
        EXPECT_EQ(logger.mutex->getid(), ::semget(kLoggerKey, 1, 0));
        EXPECT_EQ(&eventLoggerDoOut, eventLogOut);
        EXPECT_EQ(&eventLoggerDoOut, errorLogOut);
        EXPECT_EQ(0, logVerbosity);
    }
    errno = 0;
    EXPECT_EQ(-1, ::semget(kLoggerKey, 1, 0));
    EXPECT_EQ(ENOENT, errno);
}

// ---- the list of files

struct TieCase {
    std::vector<uint32_t> times;
    int oldest;  // index, -1 for none
    int newest;
};

TEST(EventLoggerList, OldestAndNewestByTimeWithTiesToTheHead) {
    const TieCase cases[] = {
        {{}, -1, -1},         {{7}, 0, 0},
        {{3, 3, 3}, 0, 0},    {{5, 2, 7, 2, 7}, 1, 2},
        {{9, 8, 1, 1}, 2, 0}, {{0xFFFFFFF0u, 0x10u}, 1, 0},  // compared unsigned
    };
    for (const TieCase& c : cases) {
        ZvEventLogger logger;
        std::vector<fileInfo*> nodes;
        for (size_t i = 0; i < c.times.size(); ++i) {
            nodes.push_back(MakeNode("f" + std::to_string(i), c.times[i]));
            logger.addnode(nodes.back());
        }
        EXPECT_EQ(c.oldest < 0 ? nullptr : nodes[c.oldest], logger.findoldnode())
            << ::testing::PrintToString(c.times);
        EXPECT_EQ(c.newest < 0 ? nullptr : nodes[c.newest], logger.findnewnode())
            << ::testing::PrintToString(c.times);
    }
}

TEST(EventLoggerList, AddAppendsDeleteKeepsTheOrderClearEmptiesAndLeavesTheCount) {
    ZvEventLogger logger;
    std::vector<fileInfo*> nodes;
    for (int i = 0; i < 5; ++i) {
        nodes.push_back(MakeNode("f" + std::to_string(i), 10));
        logger.addnode(nodes.back());
    }
    EXPECT_EQ((std::vector<std::string>{"f0", "f1", "f2", "f3", "f4"}), ListNames(logger));
    logger.deletenode(nodes[2]);
    EXPECT_EQ((std::vector<std::string>{"f0", "f1", "f3", "f4"}), ListNames(logger));
    logger.deletenode(nodes[0]);
    EXPECT_EQ((std::vector<std::string>{"f1", "f3", "f4"}), ListNames(logger));
    logger.deletenode(nodes[4]);
    EXPECT_EQ((std::vector<std::string>{"f1", "f3"}), ListNames(logger));
    logger.addnode(MakeNode("f5", 1));
    EXPECT_EQ((std::vector<std::string>{"f1", "f3", "f5"}), ListNames(logger));
    logger.currentFilesCount = 3;
    logger.clearnodes();
    EXPECT_EQ(nullptr, logger.fileList);
    EXPECT_EQ(3, logger.currentFilesCount);
}

// ---- creating files

TEST_F(LoggerTest, NewFileIsNamedAfterModuleDateAndTimeAndGivesANodeOnlyWithAListToJoin) {
    ZvEventLogger logger;
    Place(logger);
    time_t before = ::time(nullptr);
    EXPECT_EQ(nullptr, logger.createnewlogfile());  // the list is empty
    time_t after = ::time(nullptr);
    ASSERT_NE(nullptr, logger.logFile);
    std::vector<std::string> files = LogFiles(logs_);
    ASSERT_EQ(1u, files.size());
    int mo, d, y, h, mi, s;
    ASSERT_TRUE(NameFields(files[0], &mo, &d, &y, &h, &mi, &s)) << files[0];
    time_t named = LocalSeconds(mo, d, y, h, mi, s);
    EXPECT_LE(before, named);
    EXPECT_GE(after, named);

    logger.addnode(MakeNode("serverLog.other", 1));
    before = ::time(nullptr);
    fileInfo* node = logger.createnewlogfile();
    after = ::time(nullptr);
    ASSERT_NE(nullptr, node);
    ASSERT_NE(nullptr, logger.logFile);
    files = LogFiles(logs_);
    ASSERT_EQ(2u, files.size());
    EXPECT_TRUE(node->name == files[0] || node->name == files[1]);
    EXPECT_NE(nullptr, node->name);
    EXPECT_EQ(0u, node->size);
    EXPECT_LE(static_cast<uint32_t>(before), node->time);
    EXPECT_GE(static_cast<uint32_t>(after), node->time);
    EXPECT_EQ(nullptr, node->next);
    EXPECT_EQ((std::vector<std::string>{"serverLog.other"}), ListNames(logger));  // the caller links it
    std::free(node->name);
    std::free(node);
}

// A clock of the test's own: seconds and milliseconds that stand still or step by one millisecond per
// reading.
struct TestClock {
    static time_t seconds;
    static int milliseconds;
    static int step;
    static time_t Time(time_t* out) {
        if (out) *out = seconds;
        return seconds;
    }
    static int Milliseconds() {
        int now = milliseconds;
        milliseconds += step;
        return now;
    }
};
time_t TestClock::seconds = 0;
int TestClock::milliseconds = 0;
int TestClock::step = 0;

class ClockSet {
public:
    ClockSet(time_t seconds, int milliseconds, int step) {
        TestClock::seconds = seconds;
        TestClock::milliseconds = milliseconds;
        TestClock::step = step;
        eventLoggerTime = TestClock::Time;
        eventLoggerMilliseconds = TestClock::Milliseconds;
    }
    ~ClockSet() {
        eventLoggerTime = ::time;
        eventLoggerMilliseconds = OS_GetTimeWithMilliSeconds;
    }
};

std::string NameAt(time_t seconds, int milliseconds) {
    struct tm parts;
    ::localtime_r(&seconds, &parts);
    char name[64];
    std::snprintf(name, sizeof name, "serverLog.media.%02d-%02d-%04d.%02d%02d%02d.%03d.txt", parts.tm_mon + 1,
                  parts.tm_mday, parts.tm_year + 1900, parts.tm_hour, parts.tm_min, parts.tm_sec,
                  milliseconds);
    return name;
}

TEST_F(LoggerTest, ANewFileNeverEmptiesAFileThatHasItsName) {
    const time_t when = 1795000000;
    {
        // The clock steps on: the taken name is passed over for the next millisecond's.
        ClockSet clock(when, 500, 1);
        ZvEventLogger logger;
        Place(logger);
        msptest::WriteFile(logs_ + "/" + NameAt(when, 500), "keep\n");
        logger.addnode(MakeNode("serverLog.x", 1));
        fileInfo* node = logger.createnewlogfile();
        ASSERT_NE(nullptr, node);
        EXPECT_EQ(NameAt(when, 501), node->name);
        EXPECT_EQ(static_cast<uint32_t>(when), node->time);
        EXPECT_NE(nullptr, logger.logFile);
        EXPECT_EQ("keep\n", Text(NameAt(when, 500)));
        std::free(node->name);
        std::free(node);
    }
    {
        // The clock stands still: after a bounded wait no file is opened, and the old one is closed.
        ClockSet clock(when, 700, 0);
        ZvEventLogger logger;
        Place(logger);
        msptest::WriteFile(logs_ + "/" + NameAt(when, 700), "keep too\n");
        TestClock::milliseconds = 699;
        EXPECT_EQ(nullptr, logger.createnewlogfile());  // the list is empty: no node
        ASSERT_NE(nullptr, logger.logFile);             // the file that is to be replaced
        TestClock::milliseconds = 700;
        auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(nullptr, logger.createnewlogfile());
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
        EXPECT_EQ(nullptr, logger.logFile);
        EXPECT_EQ("keep too\n", Text(NameAt(when, 700)));
        EXPECT_EQ("", Text(NameAt(when, 699)));
    }
}

TEST_F(LoggerTest, AClockOutOfRangeNeverWritesPastTheStamp) {
    if (sizeof(time_t) < 8) GTEST_SKIP() << "a 32-bit time_t cannot reach a year past 9999";
    ZvEventLogger logger;
    Place(logger);
    logger.logFileSize = 1 << 30;
    logger.createnewlogfile();
    ASSERT_NE(nullptr, logger.logFile);
    {
        // Year 10000: the stamp is cut to the 26 bytes its callers give, the file name takes the whole year.
        ClockSet clock(static_cast<time_t>(253402300800LL) + 12 * 3600, 42, 0);
        char* stamp = static_cast<char*>(std::malloc(26));  // exactly the bound, so a write past it is caught
        EXPECT_EQ(25, logger.currentdatetime(stamp));
        EXPECT_EQ(25u, strlen(stamp));
        std::free(stamp);
        char m[] = "far ahead";
        logger.logEvent(m, 9);
        logger.addnode(MakeNode("serverLog.x", 1));
        fileInfo* node = logger.createnewlogfile();
        ASSERT_NE(nullptr, node);
        EXPECT_NE(std::string::npos, std::string(node->name).find("-10000."));
        std::free(node->name);
        std::free(node);
    }
    {
        // A time that localtime cannot convert: no stamp, no new file, the line begins with the tab.
        ClockSet clock(static_cast<time_t>(INT64_MAX), 0, 0);
        char stamp[26] = "untouched";
        EXPECT_EQ(0, logger.currentdatetime(stamp));
        EXPECT_STREQ("untouched", stamp);
        FILE* before = logger.logFile;
        EXPECT_EQ(nullptr, logger.createnewlogfile());
        EXPECT_EQ(before, logger.logFile);
        char m[] = "no time";
        logger.logEvent(m, 7);
    }
    std::vector<std::string> files = LogFiles(logs_);
    ASSERT_EQ(2u, files.size());
    const bool farFirst = files[0].find("-10000.") != std::string::npos;
    const std::string today = Text(files[farFirst ? 1 : 0]);
    EXPECT_EQ("01-01-10000 : ", today.substr(0, 14));
    EXPECT_EQ("\t : far ahead\n", today.substr(25));
    EXPECT_EQ("\t : no time\n", Text(files[farFirst ? 0 : 1]));
}

TEST_F(LoggerTest, RotationsWithinOneMillisecondLoseNoLine) {
    ZvEventLogger logger;
    Place(logger);
    logger.logFileSize = 0;  // every line is followed by a rotation
    logger.logFilesCount = 100000;
    logger.createnewlogfile();
    const int kLines = 300;
    for (int i = 0; i < kLines; ++i) {
        std::string message = "line " + std::to_string(i);
        logger.logEvent(&message[0], static_cast<int>(message.size()));
    }
    std::vector<std::string> files = LogFiles(logs_);
    EXPECT_EQ(static_cast<size_t>(kLines + 1), files.size());
    std::set<std::string> seen;
    int empty = 0;
    for (const std::string& name : files) {
        std::vector<std::string> messages = Messages(name);
        EXPECT_LE(messages.size(), 1u) << name;
        if (messages.empty()) ++empty;
        for (const auto& m : messages) EXPECT_TRUE(seen.insert(m).second) << m;
    }
    EXPECT_EQ(1, empty);  // the current file
    EXPECT_EQ(static_cast<size_t>(kLines), seen.size());
}

// ---- the scan

TEST_F(LoggerTest, ScanCountsPlainFilesWithTheExactPrefixAndAppends) {
    ZvEventLogger logger;
    Place(logger);
    msptest::WriteFile(logs_ + "/serverLog.x", "abc");
    SetModifiedTime(logs_ + "/serverLog.x", 1000000);
    msptest::WriteFile(logs_ + "/serverLog.media.01-02-2020.030405.006.txt", "12345");
    SetModifiedTime(logs_ + "/serverLog.media.01-02-2020.030405.006.txt", 2000000);
    msptest::WriteFile(logs_ + "/ServerLog.x", "");
    msptest::WriteFile(logs_ + "/serverLo", "");
    msptest::WriteFile(logs_ + "/other.txt", "");
    ::mkdir((logs_ + "/serverLog.old").c_str(), 0755);

    EXPECT_EQ(2, logger.findlogfilesinfo());
    std::set<std::string> found;
    for (fileInfo* n = logger.fileList; n; n = n->next) {
        found.insert(n->name);
        if (std::string(n->name) == "serverLog.x") {
            EXPECT_EQ(3u, n->size);
            EXPECT_EQ(1000000u, n->time);
        } else {
            EXPECT_EQ(5u, n->size);
            EXPECT_EQ(2000000u, n->time);
        }
    }
    EXPECT_EQ((std::set<std::string>{"serverLog.x", "serverLog.media.01-02-2020.030405.006.txt"}), found);
    EXPECT_EQ(2, logger.findlogfilesinfo());  // appended, not replaced
    EXPECT_EQ(4u, ListNames(logger).size());
}

TEST_F(LoggerTest, ScanOfWhatIsNoReadableDirectoryGivesZeroAndEmptiesTheList) {
    const std::string plainFile = dir_.file("plain");
    msptest::WriteFile(plainFile, "x");
    for (const std::string& path : {dir_.file("missing"), plainFile}) {
        ZvEventLogger logger;
        logger.logFilePath = HeapText(path);
        logger.addnode(MakeNode("serverLog.a", 1));
        EXPECT_EQ(0, logger.findlogfilesinfo()) << path;
        EXPECT_EQ(nullptr, logger.fileList) << path;
    }
}

TEST_F(LoggerTest, ScanTakesADirectoryPathOf254BytesAndRefusesALongerOne) {
    for (size_t length : {254u, 255u, 400u}) {
        std::string path = MakeDirOfLength(dir_.path(), length);
        ASSERT_EQ(length, path.size());
        msptest::WriteFile(path + "/serverLog.x", "x");
        ZvEventLogger logger;
        logger.logFilePath = HeapText(path);
        EXPECT_EQ(length <= 254 ? 1 : 0, logger.findlogfilesinfo()) << length;
    }
}

// ---- deleting the oldest

TEST_F(LoggerTest, DeletionTakesTheOldestFirstWithTiesToTheHead) {
    ZvEventLogger logger;
    Place(logger);
    const uint32_t times[] = {500, 100, 300, 100, 400};
    for (int i = 0; i < 5; ++i) {
        std::string name = "serverLog." + std::to_string(i);
        msptest::WriteFile(logs_ + "/" + name, "x");
        logger.addnode(MakeNode(name, times[i]));
    }
    logger.currentFilesCount = 5;
    logger.logFilesCount = 2;
    logger.deleteoldlogfiles();
    EXPECT_EQ(2, logger.currentFilesCount);
    EXPECT_EQ((std::vector<std::string>{"serverLog.0", "serverLog.4"}), ListNames(logger));
    EXPECT_EQ((std::vector<std::string>{"serverLog.0", "serverLog.4"}), LogFiles(logs_));

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
}

TEST_F(LoggerTest, DeletionPathsBeyond256BytesStillDeleteAndUnfittingOnesNeverWrite) {
    // A directory of 300 bytes: its files' paths are beyond 256 bytes.
    std::string path = MakeDirOfLength(dir_.path(), 300);
    ASSERT_EQ(300u, path.size());
    ZvEventLogger logger;
    logger.logFilePath = HeapText(path);
    std::string name = "serverLog." + std::string(100, 'm');
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

// ---- start from the configuration

TEST_F(LoggerTest, StartInAnEmptyDirectoryMakesTheDirectoryAndOneCountedFile) {
    ZvEventLogger logger;
    Settings s = InLogs();
    s.verbosity = 7;
    EXPECT_EQ(1, logger.initializeLogger(Config(s), kSection));
    EXPECT_EQ(1, logger.logMode);
    EXPECT_EQ(7, logVerbosity);
    EXPECT_EQ(100, logger.logFilesCount);
    EXPECT_EQ(100000, logger.logFileSize);
    EXPECT_STREQ(logs_.c_str(), logger.logFilePath);
    EXPECT_STREQ("media", logger.moduleName);
    std::vector<std::string> files = LogFiles(logs_);
    ASSERT_EQ(1u, files.size());
    EXPECT_EQ(1, logger.currentFilesCount);
    EXPECT_EQ(files, ListNames(logger));
    EXPECT_NE(nullptr, logger.logFile);
    logVerbosity = 0;
}

TEST_F(LoggerTest, LineHasTheStampTheSeparatorAndTheMessage) {
    ZvEventLogger logger;
    ASSERT_EQ(1, logger.initializeLogger(Config(InLogs()), kSection));
    char message[] = "hello 100% %s %d world";
    time_t before = ::time(nullptr);
    logger.logEvent(message, static_cast<int>(strlen(message)));
    char empty[] = "";
    logger.logEvent(empty, 0);
    char longer[] = "abcdef";
    logger.logEvent(longer, 3);  // never more than the stated length
    time_t after = ::time(nullptr);

    std::string text = Text(LogFiles(logs_)[0]);
    std::vector<std::string> lines;
    ASSERT_TRUE(SplitLines(text, &lines));
    ASSERT_EQ(3u, lines.size());
    const char* expected[] = {"hello 100% %s %d world", "", "abc"};
    for (size_t i = 0; i < 3; ++i) {
        Line l;
        ASSERT_TRUE(ParseLine(lines[i], &l)) << lines[i];
        EXPECT_EQ(expected[i], l.message);
        time_t stamped = LocalSeconds(l.month, l.day, l.year, l.hour, l.minute, l.second);
        EXPECT_LE(before, stamped);
        EXPECT_GE(after, stamped);
    }
    EXPECT_EQ('\t', text[25]);
    EXPECT_EQ(static_cast<int>(text.size()), logger.currentFileBytes);

    char stamp[26];
    EXPECT_EQ(25, logger.currentdatetime(stamp));
    EXPECT_EQ(25u, strlen(stamp));
}

TEST_F(LoggerTest, TheLineThatReachesTheSizeEndsTheFile) {
    ZvEventLogger logger;
    Settings s = InLogs();
    s.fileSize = 100;
    ASSERT_EQ(1, logger.initializeLogger(Config(s), kSection));
    std::string first(10, 'a'), second(40, 'b'), third(5, 'c');  // lines of 40, 70 and 35 bytes
    logger.logEvent(&first[0], 10);
    EXPECT_EQ(40, logger.currentFileBytes);
    logger.logEvent(&second[0], 40);
    EXPECT_EQ(0, logger.currentFileBytes);
    logger.logEvent(&third[0], 5);
    EXPECT_EQ(35, logger.currentFileBytes);
    std::vector<std::string> files = LogFiles(logs_);
    ASSERT_EQ(2u, files.size());
    EXPECT_EQ(2, logger.currentFilesCount);
    EXPECT_EQ(files, ListNames(logger));
    // Names sort by time within a day; the first file is the older one.
    EXPECT_EQ(110u, Text(files[0]).size());
    EXPECT_EQ((std::vector<std::string>{first, second}), Messages(files[0]));
    EXPECT_EQ((std::vector<std::string>{third}), Messages(files[1]));
}

TEST_F(LoggerTest, SizeOfZeroRotatesAfterEveryLineAndACountOfOneKeepsOneFile) {
    for (int count : {100, 1}) {
        ZvEventLogger logger;
        Settings s = InLogs();
        s.fileSize = 0;
        s.filesCount = count;
        ASSERT_EQ(1, logger.initializeLogger(Config(s), kSection));
        for (int i = 0; i < 5; ++i) {
            char m[] = "m";
            logger.logEvent(m, 1);
        }
        std::vector<std::string> files = LogFiles(logs_);
        EXPECT_EQ(count == 1 ? 1u : 6u, files.size()) << count;
        EXPECT_EQ(count == 1 ? 1 : 6, logger.currentFilesCount);
        if (count == 1) {
            EXPECT_EQ("", Text(files[0]));  // only the current one, still empty
        }
        for (const auto& f : files) ::unlink((logs_ + "/" + f).c_str());
    }
}

TEST_F(LoggerTest, CountOfZeroDeletesEveryFileFoundTheCurrentOneAmongThem) {
    ::mkdir(logs_.c_str(), 0755);
    msptest::WriteFile(logs_ + "/serverLog.old", "old");
    ZvEventLogger logger;
    Settings s = InLogs();
    s.filesCount = 0;
    ASSERT_EQ(1, logger.initializeLogger(Config(s), kSection));
    EXPECT_TRUE(LogFiles(logs_).empty());
    EXPECT_EQ(0, logger.currentFilesCount);
    EXPECT_EQ(nullptr, logger.fileList);
    ASSERT_NE(nullptr, logger.logFile);  // still takes lines, with no name on disk
    char m[] = "into the void";
    logger.logEvent(m, 13);
    EXPECT_EQ(43, logger.currentFileBytes);
}

TEST_F(LoggerTest, ModeZeroMakesNoFileWritesNoLineButDeletesTheSurplus) {
    ::mkdir(logs_.c_str(), 0755);
    for (int i = 0; i < 4; ++i) {
        std::string name = "serverLog.media." + std::to_string(i);
        msptest::WriteFile(logs_ + "/" + name, "x");
        SetModifiedTime(logs_ + "/" + name, 1000000 + i);
    }
    ZvEventLogger logger;
    Settings s = InLogs();
    s.mode = 0;
    s.filesCount = 2;
    ASSERT_EQ(1, logger.initializeLogger(Config(s), kSection));
    EXPECT_EQ(nullptr, logger.logFile);
    EXPECT_EQ((std::vector<std::string>{"serverLog.media.2", "serverLog.media.3"}), LogFiles(logs_));
    char m[] = "nothing";
    logger.logEvent(m, 7);
    EXPECT_EQ(0, logger.currentFileBytes);
}

TEST_F(LoggerTest, LogDirectoryThatIsAPlainFileStartsWithNoFileAndNoList) {
    msptest::WriteFile(logs_, "not a directory");
    ZvEventLogger logger;
    EXPECT_EQ(1, logger.initializeLogger(Config(InLogs()), kSection));
    EXPECT_EQ(nullptr, logger.logFile);
    EXPECT_EQ(0, logger.currentFilesCount);
    EXPECT_EQ(nullptr, logger.fileList);
    EXPECT_EQ("not a directory", msptest::ReadFile(logs_));
}

TEST_F(LoggerTest, LogDirectoryWithBytesAbove7FIsWrittenButNotScanned) {
    // The scan widens byte by byte and the walker encodes each byte again, so it looks in another directory.
    ZvEventLogger logger;
    Settings s = InLogs();
    s.path = dir_.file("l\xC3\xB6gs");
    ASSERT_EQ(1, logger.initializeLogger(Config(s), kSection));
    EXPECT_EQ(1u, LogFiles(s.path).size());
    EXPECT_NE(nullptr, logger.logFile);
    EXPECT_EQ(0, logger.currentFilesCount);
    EXPECT_EQ(nullptr, logger.fileList);
    logVerbosity = 0;
}

TEST_F(LoggerTest, DirectoryThatCannotBeMadeGivesZeroAndASilentLogger) {
    ZvEventLogger logger;
    Settings s = InLogs();
    s.path = dir_.file("no/such/logs");
    EXPECT_EQ(0, logger.initializeLogger(Config(s), kSection));
    EXPECT_EQ(nullptr, logger.logFilePath);
    EXPECT_EQ(nullptr, logger.logFile);
    EXPECT_FALSE(msptest::FileExists(dir_.file("no")));
    char m[] = "nowhere";
    logger.logEvent(m, 7);
    EXPECT_EQ(nullptr, logger.createnewlogfile());
    EXPECT_EQ(0, logger.findlogfilesinfo());

    // A running logger whose second start cannot make its directory closes its file and goes silent.
    s.path = logs_;
    ASSERT_EQ(1, logger.initializeLogger(Config(s), kSection));
    ASSERT_NE(nullptr, logger.logFile);
    s.path = "";
    EXPECT_EQ(0, logger.initializeLogger(Config(s), kSection));
    EXPECT_EQ(nullptr, logger.logFile);
}

TEST_F(LoggerTest, SettingsThatCannotBeReadGiveZeroAndTouchNothing) {
    struct Case {
        const char* what;
        std::string config;
        const char* section;
    };
    Settings s = InLogs();
    std::string good = ConfigText("media", s);
    auto without = [&](const std::string& line) {
        std::string text = good;
        text.erase(text.find(line), line.size() + 2);
        return text;
    };
    const Case cases[] = {
        {"no logMode", without("logMode=1"), "media"},
        {"no logVerbosity", without("logVerbosity=3"), "media"},
        {"no logFilesCount", without("logFilesCount=100"), "media"},
        {"no logFileSize", without("logFileSize=100000"), "media"},
        {"no logFilePath", without("logFilePath=\"" + logs_ + "\""), "media"},
        {"logMode a string", "[media]\r\nlogMode=\"1\"\r\n", "media"},
        {"logFilePath a number",
         "[media]\r\nlogMode=1\r\nlogVerbosity=1\r\nlogFilesCount=1\r\nlogFileSize=1\r\n"
         "logFilePath=5\r\n",
         "media"},
        {"unknown section", good, "video"},
        {"empty section", good, ""},
        {"null section", good, nullptr},
    };
    for (const Case& c : cases) {
        msptest::WriteFile(dir_.file("MediaServer.cfg"), c.config);
        std::string cfg = dir_.file("MediaServer.cfg");
        std::string section = c.section ? c.section : "";
        ZvEventLogger logger;
        EXPECT_EQ(0, logger.initializeLogger(&cfg[0], c.section ? &section[0] : nullptr)) << c.what;
        EXPECT_FALSE(msptest::FileExists(logs_)) << c.what;
        EXPECT_EQ(nullptr, logger.logFile) << c.what;
        // The configuration that the logger opened is closed again.
        EXPECT_EQ(CFG_OK, initializeConfig(cfg.c_str())) << c.what;
        deinitializeConfig();
    }
    ZvEventLogger logger;
    EXPECT_EQ(0, logger.initializeLogger(nullptr, kSection));
    logVerbosity = 0;
}

TEST_F(LoggerTest, AConfigurationTheCallerOpenedStaysOpen) {
    std::string other = dir_.file("other.cfg");
    char* cfg = Config(InLogs());
    ASSERT_EQ(CFG_OK, initializeConfig(cfg));
    {
        ZvEventLogger logger;
        EXPECT_EQ(1, logger.initializeLogger(&other[0], kSection));  // reads the file opened first
        char unknown[] = "video";
        EXPECT_EQ(0, logger.initializeLogger(cfg, unknown));
    }
    EXPECT_EQ(CFG_ALREADY_INITIALIZED, initializeConfig(cfg));
    deinitializeConfig();
    logVerbosity = 0;
}

TEST_F(LoggerTest, SecondStartMakesANewFileAndCountsOnlyItsOwnScan) {
    ZvEventLogger logger;
    char* cfg = Config(InLogs());
    ASSERT_EQ(1, logger.initializeLogger(cfg, kSection));
    char m[] = "first";
    logger.logEvent(m, 5);
    int bytes = logger.currentFileBytes;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    ASSERT_EQ(1, logger.initializeLogger(cfg, kSection));
    std::vector<std::string> files = LogFiles(logs_);
    ASSERT_EQ(2u, files.size());
    EXPECT_EQ(2, logger.currentFilesCount);
    EXPECT_EQ(3u, ListNames(logger).size());  // the first file stands there twice
    EXPECT_EQ(bytes, logger.currentFileBytes);
    char n[] = "second";
    logger.logEvent(n, 6);
    EXPECT_EQ((std::vector<std::string>{"first"}), Messages(files[0]));
    EXPECT_EQ((std::vector<std::string>{"second"}), Messages(files[1]));
    logVerbosity = 0;
}

TEST_F(LoggerTest, ThreadsOfOneProcessWriteWholeLines) {
    ZvEventLogger logger;
    Settings s = InLogs();
    s.fileSize = 3000;
    s.filesCount = 100000;
    ASSERT_EQ(1, logger.initializeLogger(Config(s), kSection));
    const int kThreads = 4, kLines = 300;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&logger, t] {
            for (int i = 0; i < kLines; ++i) {
                std::string m = "thread " + std::to_string(t) + " line " + std::to_string(i);
                logger.logEvent(&m[0], static_cast<int>(m.size()));
            }
        });
    }
    for (auto& th : threads) th.join();
    std::multiset<std::string> seen;
    for (const std::string& f : LogFiles(logs_)) {
        std::string text = Text(f);
        EXPECT_LE(text.size(), 3000u + 60) << f;
        for (const auto& m : Messages(f)) seen.insert(m);
    }
    EXPECT_EQ(static_cast<size_t>(kThreads * kLines), seen.size());
    for (int t = 0; t < kThreads; ++t)
        for (int i = 0; i < kLines; ++i)
            EXPECT_EQ(1u, seen.count("thread " + std::to_string(t) + " line " + std::to_string(i)));
}

// ---- running out of memory

std::atomic<int> allocationsLeft{-1};

void* FailingAlloc(size_t size) {
    if (allocationsLeft.load() == 0) return nullptr;
    if (allocationsLeft.load() > 0) --allocationsLeft;
    return std::malloc(size);
}

TEST_F(LoggerTest, EachFailedAllocationIsSurvivedAndLeaksNothing) {
    Settings s = InLogs();
    s.fileSize = 100;
    s.filesCount = 2;
    char* cfg = Config(s);
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
            for (int i = 0; i < 6; ++i) {
                char m[] = "a line of some forty bytes";
                logger.logEvent(m, static_cast<int>(strlen(m)));
            }
            ranThrough = allocationsLeft.load() > 0;
            allocationsLeft = -1;
            // The lock was given back on every way out: one more line does not hang.
            char m[] = "after";
            logger.logEvent(m, 5);
            EXPECT_GE(logger.currentFilesCount, 0);
        }
        for (const auto& f : LogFiles(logs_)) ::unlink((logs_ + "/" + f).c_str());
    }
    eventLoggerAlloc = std::malloc;
    EXPECT_TRUE(ranThrough);
}

}  // namespace
