// The event logger on loggers of the test's own and, in children, the static one; with a clock of the test's.
#include <sys/sem.h>
#include <utime.h>

#include <climits>
#include <random>
#include <thread>

#include <gtest/gtest.h>

#include "logger/internal.h"
#include "msplatform/ZvCfgCtrlMgr.h"
#include "msplatform/ZvEventLogger.h"
#include "msplatform/eventLogger_specific.h"
#include "msplatform/mutex.h"
#include "support/support.h"

namespace {

using msptest::ListDir;
char kMedia[] = "media";
time_t seconds;  // the clock: it stands still, or steps `step` milliseconds a reading
int milliseconds, step;

// The static logger's lock is made at load, the machine-wide one of the fixed key.
struct AtLoad {
    bool keyed = eventLogger.mutex && eventLogger.mutex->getid() == ::semget(114246, 1, 0);
};
__attribute__((init_priority(1010))) AtLoad atLoad;

fileInfo* Node(const std::string& name, uint32_t time) {
    return new (malloc(sizeof(fileInfo))) fileInfo{strdup(name.c_str()), 0, time, nullptr};
}

class LoggerTest : public ::testing::Test {
protected:
    void SetUp() override {
        seconds = 2100000000, milliseconds = 42, step = 0;  // later than the files' own times
        eventLoggerTime = [](time_t* out) { return out ? *out = seconds : seconds; };
        eventLoggerMilliseconds = [] { return (milliseconds += step) - step; };
    }
    void TearDown() override {
        eventLoggerTime = ::time, eventLoggerMilliseconds = OS_GetTimeWithMilliSeconds,
        eventLoggerAlloc = malloc;
    }
    // The section "media"; the key `missing` is misspelt.
    char* Config(int mode, int count, int size, const std::string& path, const char* missing = "") {
        std::string text = "[media]\r\nlogMode=" + std::to_string(mode) +
                           "\r\nlogVerbosity=7\r\nlogFilesCount=" + std::to_string(count) +
                           "\r\nlogFileSize=" + std::to_string(size) + "\r\nlogFilePath=\"" + path + "\"\r\n";
        msptest::WriteFile(cfg_, *missing ? text.insert(text.find(missing), "x") : text);
        return &cfg_[0];
    }
    // A logger placed in `path` as a start would, without a configuration.
    void Place(ZvEventLogger& logger, const std::string& path) {
        ::mkdir(logs_.c_str(), 0755);
        logger.logMode = 1, logger.logFileSize = INT_MAX;
        logger.moduleName = strdup("media"), logger.logFilePath = strdup(path.c_str());
    }
    std::pair<uint32_t, std::string> Add(ZvEventLogger& logger, const std::string& name, uint32_t time) {
        msptest::WriteFile(logs_ + "/" + name, name);
        return logger.addnode(Node(name, time)), std::make_pair(time, name);
    }
    void Log(ZvEventLogger& l, std::string m, int n = 1 << 30) {
        l.logEvent(&m[0], std::min(n, int(m.size())));
    }
    // The messages of a log file, behind each line's stamp and " : ", each ended by "|".
    std::string Messages(const std::string& name) {
        std::string text = msptest::ReadFile(logs_ + "/" + name), messages;
        for (size_t at = 0, end; (end = text.find('\n', at)) != std::string::npos; at = end + 1)
            messages += text.substr(at + 29, end - at - 29) + "|";
        return messages;
    }

    msptest::TempDir dir_;
    std::string logs_ = dir_.file("logs"), cfg_ = dir_.file("MediaServer.cfg");
};

// The stamp is as printf writes it, within the 26 bytes callers give; a time localtime can't convert makes no
// file. A line ends at its length or first zero byte. A new file is made exclusively: a taken name waits for
// the next millisecond, a stopped clock gives up with none open. Threads rotating at every line lose none.
TEST_F(LoggerTest, StampsLinesAndNewFilesLoseNothing) {
    std::mt19937_64 random(6);
    ZvEventLogger logger;
    for (int round = 0; round < 20000; ++round) {
        const int64_t near[] = {0, -62167219200, 253402300800};  // 1970, the years 0 and 10000 begin
        seconds = time_t(round % 2 ? near[random() % 3] + int64_t(random() % 400000) - 200000
                                   : int64_t(random() >> random() % 64) * (random() % 2 ? 1 : -1));
        milliseconds = int(random() % 1010) - 5;
        struct tm t;
        char printed[64] = {};
        if (localtime_r(&seconds, &t))
            snprintf(printed, sizeof printed, "%02d-%02d-%04lld : %02d:%02d:%02d.%03d", t.tm_mon + 1,
                     t.tm_mday, t.tm_year + 1900LL, t.tm_hour, t.tm_min, t.tm_sec, milliseconds);
        printed[25] = '\0';                                             // cut as the 26 bytes cut it
        const size_t n = strlen(printed) + (printed[0] != 0);           // with its terminator, if written
        char* stamp = static_cast<char*>(memset(malloc(26), 'Z', 26));  // a write past the 26 bytes is caught
        ASSERT_EQ(logger.currentdatetime(stamp), int(strlen(printed))) << seconds << " " << milliseconds;
        ASSERT_EQ(std::string(stamp, 26), std::string(printed, n) + std::string(26 - n, 'Z')) << seconds;
        free(stamp);
    }
    Place(logger, logs_);
    seconds = time_t(INT64_MAX);  // beyond localtime with a 64-bit time_t
    EXPECT_TRUE(sizeof(time_t) < 8 || (!logger.createnewlogfile() && ListDir(logs_).empty()));
    seconds = 2100000000, milliseconds = 42;
    logger.createnewlogfile();  // no node: the list is empty
    char stamp[26];
    const std::string s = std::string(stamp, logger.currentdatetime(stamp)) + "\t : ", longer(5000, 'm');
    for (const std::string& m : {std::string("1% %s"), std::string(), std::string("ab\0c", 4), longer})
        Log(logger, m);
    Log(logger, "abcdef", 3), Log(logger, "none", -1);
    const std::string first = ListDir(logs_).at(0), text = msptest::ReadFile(logs_ + "/" + first);
    EXPECT_EQ(text, s + "1% %s\n" + s + "\n" + s + "ab\n" + s + longer + "\n" + s + "abc\n" + s + "\n");
    EXPECT_EQ(logger.currentFileBytes, int(text.size()));
    Add(logger, "serverLog.x", 1);
    milliseconds = 42, step = 1;
    fileInfo* node = logger.createnewlogfile();
    EXPECT_TRUE(node->name == std::string(first).replace(first.size() - 7, 3, "043") && !node->size &&
                node->time == uint32_t(seconds) && !node->next);
    free(node->name), free(node);
    milliseconds = 43, step = 0;
    EXPECT_TRUE(!logger.createnewlogfile() && !logger.logFile &&
                msptest::ReadFile(logs_ + "/" + first) == text);
    step = 1, logger.logFileSize = 0, logger.logFilesCount = 100000;
    logger.addnode(logger.createnewlogfile());
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 100; ++i) Log(logger, std::to_string(100 * t + i));
        });
    for (std::thread& thread : threads) thread.join();
    std::vector<std::string> seen;  // one line a file
    for (const std::string& name : ListDir(logs_)) seen.push_back(Messages(name));
    for (int line = 0; line < 400; ++line)
        EXPECT_EQ(std::count(seen.begin(), seen.end(), std::to_string(line) + "|"), 1) << line;
}

// What a start and some lines leave: the entries (a log file by its messages), the count, the bytes, whether
// a file is open. Any mode but 0 logs; each plain file named "serverLog." counts and goes by its age.
TEST_F(LoggerTest, StartRotationAndDeletionFollowSizeCountAndMode) {
    const std::string b(40, 'b'), odd = "[ServerLog.x][serverLo][serverLog.d/]";
    const struct {
        int mode, filesCount, fileSize, oldFiles;  // -1: the directory is a file
        std::vector<std::string> lines;
        std::string expected;
    } cases[] = {
        {1, 100, 101, 2, {"a", b, "c"}, odd + "[a|" + b + "|][c|][serverLog.x.0][serverLog.x.1] 4 31 open"},
        {2, 1, 31, 0, {"m", "m", "m"}, odd + "[] 1 0 open"},  // each 31-byte line rotates; the full one goes
        {1, 0, 100000, 1, {"void"}, odd + " 0 34 open"},      // every file goes, the current one too
        {0, 2, 100000, 4, {"no"}, odd + "[serverLog.x.2][serverLog.x.3] 2 0 closed"},
        {1, 100, 100000, -1, {"x"}, "not a directory 0 0 closed"},
    };
    step = 1;
    for (const auto& c : cases) {
        logs_ = dir_.file("logs" + std::to_string(&c - cases));
        if (c.oldFiles < 0) msptest::WriteFile(logs_, "not a directory");
        if (c.oldFiles >= 0 && !::mkdir(logs_.c_str(), 0755) &&
            !::mkdir((logs_ + "/serverLog.d").c_str(), 0755))
            msptest::WriteFile(logs_ + "/ServerLog.x", ""), msptest::WriteFile(logs_ + "/serverLo", "");
        for (int i = 0; i < c.oldFiles; ++i) {
            const std::string path = logs_ + "/serverLog.x." + std::to_string(i);
            const struct utimbuf times = {1000000 + i, 1000000 + i};
            msptest::WriteFile(path, ""), ::utime(path.c_str(), &times);
        }
        ZvEventLogger logger;
        ASSERT_EQ(1, logger.initializeLogger(Config(c.mode, c.filesCount, c.fileSize, logs_), kMedia));
        for (const std::string& line : c.lines) Log(logger, line);
        std::string state = c.oldFiles == -1 ? msptest::ReadFile(logs_) : "";
        for (const std::string& e : ListDir(logs_)) state += "[" + (e.size() > 20 ? Messages(e) : e) + "]";
        EXPECT_EQ(c.expected, state + " " + std::to_string(logger.currentFilesCount) + " " +
                                  std::to_string(logger.currentFileBytes) +
                                  (logger.logFile ? " open" : " closed"));
    }
}

// A start that cannot read its settings or make its directory gives 0, makes nothing, and closes a
// configuration it opened, never the caller's. A directory longer than the scan takes (254 bytes) would
// collect files never pruned: it is refused; at 254 bytes a second start prunes.
TEST_F(LoggerTest, StartsThatCannotReadOrMakeGiveZeroAndMakeNothing) {
    const std::pair<const char*, const char*> cases[] = {
        {"logFilePath", kMedia}, {"", "video"}, {"", nullptr}, {"", kMedia}};
    for (size_t i = 0; i < std::size(cases); ++i) {
        char* cfg = Config(1, 1, 100000, i == 3 ? dir_.file("no/such") : logs_, cases[i].first);
        if (i % 2 == 1) initializeConfig(cfg);
        EXPECT_EQ(0, ZvEventLogger().initializeLogger(cfg, const_cast<char*>(cases[i].second))) << i;
        EXPECT_EQ(initializeConfig(cfg), i % 2 == 1 ? CFG_ALREADY_INITIALIZED : CFG_OK) << i;
        deinitializeConfig();
    }
    EXPECT_EQ(ListDir(dir_.path()), std::vector<std::string>{"MediaServer.cfg"});
    ZvEventLogger logger;
    EXPECT_EQ(0, logger.initializeLogger(nullptr, kMedia));
    ASSERT_EQ(1, logger.initializeLogger(Config(1, 1, 100000, logs_), kMedia));
    EXPECT_EQ(0, logger.initializeLogger(Config(1, 1, 100000, ""), kMedia));
    EXPECT_TRUE(!logger.logFile && !logger.logFilePath);
    Log(logger, "nowhere");
    for (size_t length : {255u, 254u}) {
        const std::string path = dir_.file("long") + std::string(length - dir_.file("long").size(), '/');
        ZvEventLogger fresh;
        for (int start = 0; start < 2; ++start, step = 1)
            EXPECT_EQ(length == 254, fresh.initializeLogger(Config(1, 1, 100000, path), kMedia)) << length;
        EXPECT_EQ(ListDir(path).size(), length == 254 ? 1u : 0u) << length;
    }
}

// Deleting takes the oldest (by unsigned time, nearest the head) one at a time, keeps the rest in order and
// counts them off; a path beyond the system's limit is not unlinked. 300,000 nodes go by one sort.
TEST_F(LoggerTest, DeletionTakesTheOldestFirst) {
    ZvEventLogger logger;
    Place(logger, logs_ + std::string(300, '/'));
    std::mt19937 random(3);
    for (int round = 0; round < 120; ++round) {
        std::vector<std::pair<uint32_t, std::string>> model;  // in list order
        for (int i = 0, length = random() % 30; i < length; ++i)
            model.push_back(Add(logger, "serverLog." + std::to_string(i),
                                random() % 4 ? random() % 4 : 0xFFFFFFF0u + random() % 2));
        logger.currentFilesCount = int(model.size() + random() % 3);  // may count more than it lists
        logger.logFilesCount = round % 50 == 0 ? INT_MIN : int(random() % (model.size() + 2)) - 1;
        int count = logger.currentFilesCount;
        for (; count > logger.logFilesCount && !model.empty(); --count)
            model.erase(std::min_element(model.begin(), model.end(),
                                         [](auto& x, auto& y) { return x.first < y.first; }));
        logger.deleteoldlogfiles();
        std::vector<std::pair<uint32_t, std::string>> listed;
        for (fileInfo* n = logger.fileList; n; n = n->next) listed.push_back({n->time, n->name});
        ASSERT_EQ(std::make_pair(listed, logger.currentFilesCount), std::make_pair(model, count)) << round;
        for (const auto& kept : model) ASSERT_EQ(0, ::unlink((logs_ + "/" + kept.second).c_str())) << round;
        ASSERT_EQ(ListDir(logs_), std::vector<std::string>{}) << round;  // the others went
        logger.clearnodes();
    }
    free(logger.logFilePath);
    logger.logFilePath = strdup((logs_ + std::string(5000, '/')).c_str());
    Add(logger, "serverLog.kept", 0);
    fileInfo** tail = &logger.fileList->next;
    for (uint32_t time = 300000; time > 0; --time, tail = &(*tail)->next) *tail = Node("serverLog.x", time);
    logger.currentFilesCount = 300001, logger.logFilesCount = 10;
    logger.deleteoldlogfiles();  // nothing to unlink in a path too long
    EXPECT_TRUE(logger.currentFilesCount == 10 && logger.fileList->time == 300000 &&
                ListDir(logs_) == std::vector<std::string>{"serverLog.kept"});
}

// Each allocation of a start and its lines fails in turn: no crash, no lock left held, no leak.
TEST_F(LoggerTest, EachFailedAllocationIsSurvivedAndLeaksNothing) {
    static int left;
    eventLoggerAlloc = [](size_t size) { return left == 0 ? nullptr : (left -= left > 0, malloc(size)); };
    step = 1;
    char* cfg = Config(1, 2, 100, logs_);
    for (int allowed = 0; left <= 0; ++allowed) {
        ASSERT_LT(allowed, 200);
        ZvEventLogger logger;
        left = allowed;
        logger.initializeLogger(cfg, kMedia);
        for (int i = 0; i < 6; ++i) Log(logger, std::string(i == 3 ? 1100 : 30, 'l'));  // one from the heap
        if (left > 0) break;
        left = -1;
        Log(logger, "after");
    }
}

// The flat start and both outputs, a message cut to 1023 bytes. After the destructor a call writes nothing
// and does not block, and the semaphore is gone.
TEST_F(LoggerTest, StaticLoggerFromLoadToExit) {
    EXPECT_TRUE(atLoad.keyed);
    delete eventLogger.mutex;  // loggers of other tests removed the semaphore when they ended
    eventLogger.mutex = new Mutex("eventLogger");
    const std::string longer(1100, 'b');
    auto run = [&] {
        if (initializeLogger(Config(1, 100, 100000, logs_), kMedia) != 1) return 1;
        eventLogOut("value %d of %s", 5, "five");
        errorLogOut("%s", "");
        errorLogOut("%s!", longer.c_str());
        eventLogger.~ZvEventLogger();
        eventLogOut("after the end");
        return eventLogger.logFile || eventLogger.mutex ? 2 : 0;
    };
    EXPECT_EQ(0, msptest::RunChild(run, 10000));
    EXPECT_EQ(Messages(ListDir(logs_).at(0)), "value 5 of five|" + longer.substr(0, 1023) + "|");
    EXPECT_EQ(-1, ::semget(114246, 1, 0));
}

}  // namespace
