// The log line is put together without printf: it must read exactly as the printf form would.
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include <string>

#include <gtest/gtest.h>

#include "logger/internal.h"
#include "msplatform/eventLogger.h"
#include "msplatform/eventLogger_specific.h"
#include "support/support.h"

namespace {

time_t fixedSeconds;
int fixedMilliseconds;

class FixedClock {
public:
    FixedClock(time_t seconds, int milliseconds) {
        fixedSeconds = seconds;
        fixedMilliseconds = milliseconds;
        eventLoggerTime = [](time_t* out) {
            if (out) *out = fixedSeconds;
            return fixedSeconds;
        };
        eventLoggerMilliseconds = [] { return fixedMilliseconds; };
    }
    ~FixedClock() {
        eventLoggerTime = time;
        eventLoggerMilliseconds = OS_GetTimeWithMilliSeconds;
    }
};

// A clock so far ahead that tm_year + 1900 no longer fits an int (a 32-bit time_t cannot reach it).
long long FarAhead() {
    struct tm parts = {};
    parts.tm_year = INT_MAX - 1000;
    parts.tm_mon = 5;
    parts.tm_mday = 15;
    parts.tm_hour = 12;
    return timegm(&parts);
}

std::string PrintfStamp(time_t seconds, int milliseconds) {
    struct tm parts;
    localtime_r(&seconds, &parts);
    char stamp[100];
    snprintf(stamp, sizeof stamp, "%02d-%02d-%04lld : %02d:%02d:%02d.%03d", parts.tm_mon + 1, parts.tm_mday,
             static_cast<long long>(parts.tm_year) + 1900, parts.tm_hour, parts.tm_min, parts.tm_sec,
             milliseconds);
    return std::string(stamp).substr(0, 25);  // the callers' buffers take 26 bytes
}

TEST(LogLine, StampReadsAsPrintfWritesIt) {
    struct Case {
        long long seconds;
        int milliseconds;
    };
    const Case cases[] = {{0, 0},
                          {-1, 999},
                          {951782400, 7},
                          {1795000000, 42},
                          {2147483647, 500},
                          {1795000000, 1000},
                          {1795000000, -5},
                          {1795000000, INT_MAX},
                          {4102444800, 1},
                          {253402300799, 999},
                          {253402300800, 0},
                          {FarAhead(), 3}};
    ZvEventLogger logger;
    for (const Case& c : cases) {
        if (static_cast<time_t>(c.seconds) != c.seconds) continue;  // beyond a 32-bit time_t
        SCOPED_TRACE(c.seconds);
        SCOPED_TRACE(c.milliseconds);
        FixedClock clock(static_cast<time_t>(c.seconds), c.milliseconds);
        char* stamp = static_cast<char*>(malloc(26));  // exactly the bound: a write past it is caught
        const std::string expected = PrintfStamp(static_cast<time_t>(c.seconds), c.milliseconds);
        EXPECT_EQ(static_cast<int>(expected.size()), logger.currentdatetime(stamp));
        EXPECT_EQ(expected, stamp);
        free(stamp);
    }
}

TEST(LogLine, LongMessagesGoUpToTheirFirstZeroByteAndOnlyTheyNeedTheHeap) {
    msptest::TempDir dir;
    const std::string path = dir.file("line");
    const time_t when = 1795000000;
    FixedClock clock(when, 3);
    std::string message(5000, 'm');
    message[4000] = '\0';
    char shortMessage[] = "short";
    {
        ZvEventLogger logger;
        logger.logMode = 1;
        logger.logFileSize = INT_MAX;
        logger.logFile = fopen(path.c_str(), "w");
        ASSERT_NE(nullptr, logger.logFile);
        logger.logEvent(&message[0], static_cast<int>(message.size()));
        eventLoggerAlloc = [](size_t) -> void* { return nullptr; };
        logger.logEvent(&message[0], static_cast<int>(message.size()));  // dropped
        logger.logEvent(shortMessage, 5);
        eventLoggerAlloc = malloc;
        EXPECT_EQ(static_cast<int>(msptest::ReadFile(path).size()), logger.currentFileBytes);
    }
    const std::string stamp = PrintfStamp(when, 3);
    EXPECT_EQ(stamp + "\t : " + std::string(4000, 'm') + "\n" + stamp + "\t : short\n",
              msptest::ReadFile(path));
}

}  // namespace
