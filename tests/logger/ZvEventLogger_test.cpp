// The static logger of the process: the flat initializeLogger, eventLogOut and errorLogOut, its life from
// load to exit, and several processes logging into one directory.
#include "msplatform/ZvEventLogger.h"

#include <sys/ipc.h>
#include <sys/sem.h>

#include <chrono>

#include <gtest/gtest.h>

#include "logger/loggerTestSupport.h"
#include "msplatform/mutex.h"

using namespace loggertest;

namespace {

constexpr key_t kLoggerKey = 114246;
constexpr int kChildMs = 120000;  // generous: a loaded machine, or emulation

// The static logger right after the library's objects were built.
struct AtLoad {
    AtLoad()
        : semaphoreId(eventLogger.mutex ? eventLogger.mutex->getid() : -2),
          keyId(::semget(kLoggerKey, 1, 0)),
          logOut(eventLogOut),
          errorOut(errorLogOut),
          mode(eventLogger.logMode),
          file(eventLogger.logFile) {}
    int semaphoreId;
    int keyId;
    void (*logOut)(char const*, ...);
    void (*errorOut)(char const*, ...);
    int mode;
    FILE* file;
};
__attribute__((init_priority(1010))) AtLoad atLoad;

// Tests of other objects remove the semaphore "eventLogger" when they end; the static logger is given a
// fresh one so that its children share a working lock.
void RenewStaticLoggerLock() {
    delete eventLogger.mutex;
    eventLogger.mutex = new Mutex("eventLogger");
    ASSERT_GT(eventLogger.mutex->getid(), 0);
}

class StaticLoggerTest : public ::testing::Test {
protected:
    void SetUp() override {
        logs_ = dir_.file("logs");
        RenewStaticLoggerLock();
    }
    std::string Config(const Settings& settings) {
        std::string cfg = dir_.file("MediaServer.cfg");
        msptest::WriteFile(cfg, ConfigText("media", settings));
        return cfg;
    }
    Settings InLogs() const {
        Settings s;
        s.path = logs_;
        return s;
    }
    std::vector<std::string> Messages() {
        std::vector<std::string> messages;
        for (const std::string& f : LogFiles(logs_)) {
            std::vector<std::string> more = loggertest::Messages(logs_ + "/" + f);
            messages.insert(messages.end(), more.begin(), more.end());
        }
        return messages;
    }

    msptest::TempDir dir_;
    std::string logs_;
};

TEST(StaticLogger, IsBuiltAtLoadWithTheSemaphoreEventLoggerAndIsSilent) {
    EXPECT_GT(atLoad.semaphoreId, 0);
    EXPECT_EQ(atLoad.keyId, atLoad.semaphoreId);
    EXPECT_EQ(&eventLoggerDoOut, atLoad.logOut);
    EXPECT_EQ(&eventLoggerDoOut, atLoad.errorOut);
    EXPECT_EQ(0, atLoad.mode);
    EXPECT_EQ(nullptr, atLoad.file);
    EXPECT_EQ(0, errVerbosity);
}

TEST_F(StaticLoggerTest, BothOutputsWriteFormattedLinesIntoOneFile) {
    std::string cfg = Config(InLogs());
    int rc = msptest::RunChild(
        [&] {
            char section[] = "media";
            if (initializeLogger(&cfg[0], section) != 1) return 2;
            eventLogOut("value %d of %s", 5, "five");
            errorLogOut("%s!", "error");
            eventLoggerDoOut("100%% done");
            eventLoggerDoOut("");  // an empty message writes no line
            return logVerbosity == 3 ? 0 : 3;
        },
        kChildMs);
    ASSERT_EQ(0, rc);
    EXPECT_EQ(1u, LogFiles(logs_).size());
    EXPECT_EQ((std::vector<std::string>{"value 5 of five", "error!", "100% done"}), Messages());
}

TEST_F(StaticLoggerTest, AMessageOver1023BytesIsCutTo1023) {
    std::string cfg = Config(InLogs());
    const std::string fits(1023, 'a');
    const std::string longer = std::string(1023, 'b') + "cut off here";
    ASSERT_EQ(0, msptest::RunChild(
                     [&] {
                         char section[] = "media";
                         if (initializeLogger(&cfg[0], section) != 1) return 2;
                         eventLoggerDoOut("%s", fits.c_str());
                         eventLoggerDoOut("%s", longer.c_str());
                         eventLoggerDoOut("%s%s", longer.c_str(), longer.c_str());
                         return 0;
                     },
                     kChildMs));
    EXPECT_EQ((std::vector<std::string>{fits, longer.substr(0, 1023), longer.substr(0, 1023)}), Messages());
}

TEST_F(StaticLoggerTest, CallsBeforeTheStartWriteNothingAndTakeNoLock) {
    eventLogger.mutex->lock();  // a child that tried to take it would hang
    int rc = msptest::RunChild(
        [] {
            eventLogOut("before %d", 1);
            char m[] = "direct";
            eventLogger.logEvent(m, 6);
            return 0;
        },
        10000);
    eventLogger.mutex->unlock();
    EXPECT_EQ(0, rc);
}

TEST_F(StaticLoggerTest, CallsAfterTheDestructorWriteNothingAndDoNotBlock) {
    std::string cfg = Config(InLogs());
    int rc = msptest::RunChild(
        [&] {
            char section[] = "media";
            if (initializeLogger(&cfg[0], section) != 1) return 2;
            eventLogOut("alive");
            eventLogger.~ZvEventLogger();  // what exit does; the child then ends without static destructors
            eventLogOut("after the end");
            return eventLogger.logFile == nullptr && eventLogger.mutex == nullptr ? 0 : 3;
        },
        10000);
    EXPECT_EQ(0, rc);
    EXPECT_EQ((std::vector<std::string>{"alive"}), Messages());
    // The destructor removed the semaphore for every process.
    EXPECT_EQ(-1, ::semget(kLoggerKey, 1, 0));
}

TEST_F(StaticLoggerTest, ThreeProcessesShareOneDirectory) {
    const int kProcesses = 3, kLines = 2000, kFilesCount = 3;
    Settings s = InLogs();
    s.fileSize = 700;  // about ten lines a file
    s.filesCount = kFilesCount;
    std::string cfg = Config(s);
    const std::string payload = "some payload to make the line longer";

    auto start = std::chrono::steady_clock::now();
    std::vector<pid_t> children;
    for (int p = 0; p < kProcesses; ++p) {
        children.push_back(msptest::StartChild([&, p] {
            char section[] = "media";
            if (initializeLogger(&cfg[0], section) != 1) return 2;
            for (int i = 0; i < kLines; ++i) eventLogOut("process %d line %04d %s", p, i, payload.c_str());
            return 0;
        }));
    }
    for (pid_t child : children) EXPECT_EQ(0, msptest::WaitChild(child, 300000));
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf("[ info ] %d processes x %d lines in %.2f s\n", kProcesses, kLines, seconds);

    std::vector<std::string> files = LogFiles(logs_);
    EXPECT_LE(files.size(), static_cast<size_t>(kProcesses * kFilesCount));
    EXPECT_FALSE(files.empty());
    size_t total = 0;
    for (const std::string& f : files) {
        // Each file is one process's: a run of its lines in order, none torn, none from another process.
        int process = -1, last = -1;
        for (const std::string& message : loggertest::Messages(logs_ + "/" + f)) {
            int p = -1, i = -1;
            ASSERT_EQ(2, std::sscanf(message.c_str(), "process %d line %d", &p, &i)) << message;
            char expected[128];
            std::snprintf(expected, sizeof expected, "process %d line %04d %s", p, i, payload.c_str());
            ASSERT_EQ(expected, message) << f;
            if (process < 0) process = p;
            EXPECT_EQ(process, p) << f;
            EXPECT_EQ(last < 0 ? i : last + 1, i) << f;
            last = i;
            ++total;
        }
    }
    EXPECT_GT(total, 0u);
}

}  // namespace
