// Four processes logging into one directory, two to a section (so two of them may make and write the same
// file name), with files that rotate every few lines. Every surviving line must be whole and a process's
// lines in order, and no more files may be left than the processes' rotations keep (each deletes the oldest
// it knows beyond logFilesCount).
#include "msplatform/ZvEventLogger.h"
#include "msplatform/eventLogger.h"

#include <dirent.h>

#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "stress/stress.h"
#include "support/support.h"

namespace {

constexpr int kProcesses = 4, kFilesCount = 3;
const char kPayload[] = "the quick brown fox jumps over the lazy dog";

TEST(LoggerStress, FourProcessesRotateInOneDirectory) {
    msptest::TempDir dir;
    const std::string logs = dir.file("logs"), config = dir.file("MediaServer.cfg");
    std::string text;
    for (int p = 0; p < kProcesses / 2; ++p)
        text += "[m" + std::to_string(p) +
                "]\r\nlogMode=1\r\nlogVerbosity=1\r\nlogFilesCount=" + std::to_string(kFilesCount) +
                "\r\nlogFileSize=2000\r\nlogFilePath=\"" + logs + "\"\r\n\r\n";
    msptest::WriteFile(config, text);
    const int lines = stress::Scaled(2000, 10);
    const long long start = stress::NowMs();
    std::vector<pid_t> children;
    for (int p = 0; p < kProcesses; ++p)
        children.push_back(msptest::StartChild([&, p] {
            const std::string section = "m" + std::to_string(p / 2);
            if (initializeLogger(const_cast<char*>(config.c_str()), const_cast<char*>(section.c_str())) != 1)
                return 1;
            for (int i = 0; i < lines; ++i) eventLogOut("p%d line %d %s", p, i, kPayload);
            return 0;
        }));
    for (pid_t pid : children) EXPECT_EQ(0, msptest::WaitChild(pid, 600000));
    const long long elapsed = stress::NowMs() - start;

    const std::regex whole(R"(\d\d-\d\d-\d{4} : \d\d:\d\d:\d\d\.\d{3}\t : p([0-3]) line (\d+) )" +
                           std::string(kPayload));
    size_t files = 0, surviving = 0;
    DIR* d = ::opendir(logs.c_str());
    ASSERT_NE(nullptr, d);
    while (const dirent64* e = ::readdir64(d)) {
        const std::string name = e->d_name;
        if (name.rfind("serverLog.", 0) != 0) continue;
        ++files;
        const std::string content = msptest::ReadFile(logs + "/" + name);
        EXPECT_TRUE(content.empty() || content.back() == '\n') << name << " ends inside a line";
        int last[kProcesses] = {-1, -1, -1, -1};
        for (size_t at = 0, end; (end = content.find('\n', at)) != std::string::npos;
             at = end + 1, ++surviving) {
            std::smatch m;
            const std::string line = content.substr(at, end - at);
            ASSERT_TRUE(std::regex_match(line, m, whole)) << name << ": " << line;
            const int p = std::stoi(m[1]), i = std::stoi(m[2]);
            EXPECT_LT(i, lines);
            EXPECT_GT(i, last[p]) << name << ": lines of one process out of order";
            last[p] = i;
        }
    }
    ::closedir(d);
    EXPECT_GE(files, 1u);
    EXPECT_LE(files, static_cast<size_t>(kProcesses * kFilesCount));
    printf("logger stress: %d processes x %d lines, %zu files left, %zu lines in them, %lld ms\n", kProcesses,
           lines, files, surviving, elapsed);
}

}  // namespace
