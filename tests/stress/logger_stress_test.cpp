// Four processes logging into one directory at once, two to a section (so that two of them may make and
// write the same file name in the same millisecond), with files small enough to rotate every few lines. Every
// line that survives must be whole, and the files left may not outnumber what the processes' rotations keep:
// each process deletes the oldest of the files it knows beyond logFilesCount.
#include "msplatform/ZvEventLogger.h"
#include "msplatform/eventLogger.h"

#include <dirent.h>
#include <sys/stat.h>

#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "stress/stress.h"
#include "support/support.h"

namespace {

constexpr int kProcesses = 4;
constexpr int kFilesCount = 3;
constexpr int kFileSize = 2000;
constexpr int kChildMs = 600000;
const char kPayload[] = "the quick brown fox jumps over the lazy dog";

std::vector<std::string> LogFiles(const std::string& dir) {
    std::vector<std::string> names;
    DIR* d = ::opendir(dir.c_str());
    if (!d) return names;
    while (dirent64* e = ::readdir64(d)) {
        std::string name = e->d_name;
        if (name.compare(0, 10, "serverLog.") == 0) names.push_back(name);
    }
    ::closedir(d);
    return names;
}

TEST(LoggerStress, FourProcessesRotateInOneDirectory) {
    msptest::TempDir dir;
    const std::string logs = dir.file("logs");
    const std::string config = dir.file("MediaServer.cfg");
    std::string text;
    for (int p = 0; p < kProcesses; ++p)
        text += "[m" + std::to_string(p) +
                "]\r\nlogMode=1\r\nlogVerbosity=1\r\nlogFilesCount=" + std::to_string(kFilesCount) +
                "\r\nlogFileSize=" + std::to_string(kFileSize) + "\r\nlogFilePath=\"" + logs + "\"\r\n\r\n";
    msptest::WriteFile(config, text);
    const int lines = stress::Scaled(2000, 10);

    const long long start = stress::NowMs();
    std::vector<pid_t> children;
    for (int p = 0; p < kProcesses; ++p) {
        children.push_back(msptest::StartChild([&, p] {
            std::string section = "m" + std::to_string(p / 2);
            if (initializeLogger(const_cast<char*>(config.c_str()), const_cast<char*>(section.c_str())) != 1)
                return 1;
            for (int i = 0; i < lines; ++i) eventLogOut("p%d line %d %s", p, i, kPayload);
            return 0;
        }));
    }
    for (pid_t pid : children) EXPECT_EQ(0, msptest::WaitChild(pid, kChildMs));
    const long long elapsed = stress::NowMs() - start;

    const std::vector<std::string> files = LogFiles(logs);
    EXPECT_GE(files.size(), 1u);
    EXPECT_LE(files.size(), static_cast<size_t>(kProcesses * kFilesCount));
    const std::regex whole(R"(\d\d-\d\d-\d{4} : \d\d:\d\d:\d\d\.\d{3}\t : p([0-3]) line (\d+) )" +
                           std::string(kPayload));
    size_t surviving = 0;
    for (const std::string& name : files) {
        const std::string content = msptest::ReadFile(logs + "/" + name);
        EXPECT_TRUE(content.empty() || content.back() == '\n') << name << " ends inside a line";
        size_t at = 0;
        int last[kProcesses] = {-1, -1, -1, -1};
        for (size_t end = content.find('\n'); end != std::string::npos; end = content.find('\n', at)) {
            const std::string line = content.substr(at, end - at);
            std::smatch m;
            ASSERT_TRUE(std::regex_match(line, m, whole)) << name << ": " << line;
            const int p = std::stoi(m[1]), i = std::stoi(m[2]);
            EXPECT_LT(i, lines);
            EXPECT_GT(i, last[p]) << name << ": lines of one process out of order";
            last[p] = i;
            ++surviving;
            at = end + 1;
        }
    }
    printf("logger stress: %d processes x %d lines, %zu files left, %zu lines in them, %lld ms\n", kProcesses,
           lines, files.size(), surviving, elapsed);
}

}  // namespace
