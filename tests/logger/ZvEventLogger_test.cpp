// The static logger of the process: the flat initializeLogger, the two outputs, its life from load to exit,
// and several processes logging into one directory.
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
constexpr int kChildMs = 120000;

// The static logger right after the library's objects were built.
struct AtLoad {
    int semaphoreId = eventLogger.mutex ? eventLogger.mutex->getid() : -2;
    int keyId = ::semget(kLoggerKey, 1, 0);
    void (*logOut)(char const*, ...) = eventLogOut;
    void (*errorOut)(char const*, ...) = errorLogOut;
    int mode = eventLogger.logMode;
    FILE* file = eventLogger.logFile;
};
__attribute__((init_priority(1010))) AtLoad atLoad;

TEST(StaticLogger, IsBuiltAtLoadWithTheSemaphoreEventLoggerAndIsSilent) {
    EXPECT_GT(atLoad.semaphoreId, 0);
    EXPECT_EQ(atLoad.keyId, atLoad.semaphoreId);
    EXPECT_EQ(&eventLoggerDoOut, atLoad.logOut);
    EXPECT_EQ(&eventLoggerDoOut, atLoad.errorOut);
    EXPECT_EQ(0, atLoad.mode);
    EXPECT_EQ(nullptr, atLoad.file);
    EXPECT_EQ(0, errVerbosity);
}

class StaticLoggerTest : public ::testing::Test {
protected:
    void SetUp() override {
        // Loggers of other tests remove the semaphore "eventLogger" when they end: the children need a
        // working one.
        delete eventLogger.mutex;
        eventLogger.mutex = new Mutex("eventLogger");
        ASSERT_GT(eventLogger.mutex->getid(), 0);
        settings_.path = dir_.file("logs");
    }
    int Start() {
        char section[] = "media";
        return initializeLogger(&cfg_[0], section);
    }
    // Starts the static logger in a child from the settings, then runs `body`; gives the child's result.
    int InChild(const std::function<int()>& body, int timeoutMs = kChildMs) {
        msptest::WriteFile(cfg_, ConfigText("media", settings_));
        return msptest::RunChild([&] { return Start() == 1 ? body() : 2; }, timeoutMs);
    }
    std::vector<std::string> AllMessages() {
        std::vector<std::string> all;
        for (const std::string& f : LogFiles(settings_.path)) {
            std::vector<std::string> more = Messages(settings_.path + "/" + f);
            all.insert(all.end(), more.begin(), more.end());
        }
        return all;
    }

    msptest::TempDir dir_;
    Settings settings_;
    std::string cfg_ = dir_.file("MediaServer.cfg");
};

TEST_F(StaticLoggerTest, BothOutputsWriteFormattedLinesCutTo1023BytesIntoOneFile) {
    const std::string fits(1023, 'a'), longer = std::string(1023, 'b') + "cut off here";
    ASSERT_EQ(0, InChild([&] {
                  eventLogOut("value %d of %s", 5, "five");
                  errorLogOut("%s!", "error");
                  eventLoggerDoOut("100%% done");
                  eventLoggerDoOut("%s", "");  // no line
                  eventLoggerDoOut("%s", fits.c_str());
                  eventLoggerDoOut("%s%s", longer.c_str(), longer.c_str());
                  return logVerbosity == 3 ? 0 : 3;
              }));
    EXPECT_EQ(1u, LogFiles(settings_.path).size());
    EXPECT_EQ(
        (std::vector<std::string>{"value 5 of five", "error!", "100% done", fits, longer.substr(0, 1023)}),
        AllMessages());
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
    EXPECT_EQ(
        0, InChild(
               [] {
                   eventLogOut("alive");
                   eventLogger.~ZvEventLogger();  // what exit does; the child then skips static destructors
                   eventLogOut("after the end");
                   return eventLogger.logFile == nullptr && eventLogger.mutex == nullptr ? 0 : 3;
               },
               10000));
    EXPECT_EQ((std::vector<std::string>{"alive"}), AllMessages());
    EXPECT_EQ(-1, ::semget(kLoggerKey, 1, 0)) << "the destructor removed the semaphore for every process";
}

TEST_F(StaticLoggerTest, ThreeProcessesShareOneDirectory) {
    const int kProcesses = 3, kLines = 2000;
    settings_.fileSize = 700;  // about ten lines a file
    settings_.filesCount = 3;
    const char* payload = "some payload to make the line longer";
    auto start = std::chrono::steady_clock::now();
    msptest::WriteFile(cfg_, ConfigText("media", settings_));
    std::vector<pid_t> children;
    for (int p = 0; p < kProcesses; ++p) {
        children.push_back(msptest::StartChild([&, p] {
            if (Start() != 1) return 2;
            for (int i = 0; i < kLines; ++i) eventLogOut("process %d line %04d %s", p, i, payload);
            return 0;
        }));
    }
    for (pid_t child : children) EXPECT_EQ(0, msptest::WaitChild(child, 300000));
    std::printf("[ info ] %d processes x %d lines in %.2f s\n", kProcesses, kLines,
                std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());

    std::vector<std::string> files = LogFiles(settings_.path);
    EXPECT_LE(files.size(), 9u);
    size_t total = 0;
    for (const std::string& f : files) {
        // Each file is a run of one process's lines in order, none torn.
        int process = -1, last = -1, p = -1, i = -1;
        for (const std::string& message : Messages(settings_.path + "/" + f)) {
            ASSERT_EQ(2, std::sscanf(message.c_str(), "process %d line %d", &p, &i)) << message;
            char expected[128];
            std::snprintf(expected, sizeof expected, "process %d line %04d %s", p, i, payload);
            ASSERT_EQ(expected, message) << f;
            EXPECT_EQ(process < 0 ? p : process, p) << f;
            EXPECT_EQ(last < 0 ? i : last + 1, i) << f;
            process = p;
            last = i;
            ++total;
        }
    }
    EXPECT_GT(total, 0u);
}

}  // namespace
