// The shipped media format table and language file, each loaded in two processes at once and queried by
// four threads in each of them. Every answer must equal what the same process got from one thread alone
// before the threads started.
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "msplatform/ZvLanguageReader.h"
#include "msplatform/mediaFormats.h"
#include "stress/stress.h"
#include "support/support.h"

namespace {

constexpr int kProcesses = 2;
constexpr int kThreads = 4;
constexpr int kChildMs = 600000;

std::string Text(const char* s) {
    return s ? s : "<null>";
}

// Every answer the media table gives for one extension, in one string.
std::string MediaAnswers(const std::string& extension) {
    char* e = const_cast<char*>(extension.c_str());
    char type = '?';
    std::string parser = Text(MF_GetParserNameByExtension(e, &type));
    return Text(MF_GetFormatNameByExtension(e)) + "|" + Text(MF_GetMimeTypeByExtension(e)) + "|" +
           Text(MF_GetDLNAClassByExtension(e)) + "|" + Text(MF_GetDLNAProfileByExtension(e)) + "|" + parser +
           "|" + type + "|" + Text(MF_GetDAPNameByExtension(e)) + "|" +
           std::to_string(MF_GetTranscodeFlagByExtension(e)) + "|" +
           std::to_string(MF_GetMediaTypeByExtension(e)) + "|" + Text(MF_GetUniqueParserPlugins());
}

// Runs `body(thread)` on four threads and gives the number of threads that reported a difference.
template <class Body>
int OnThreads(Body body) {
    std::vector<std::thread> threads;
    std::vector<int> failures(kThreads, 0);
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] { failures[static_cast<size_t>(t)] = body(t); });
    int failed = 0;
    for (std::thread& th : threads) th.join();
    for (int f : failures) failed += f != 0;
    return failed;
}

int MediaProcess(int rounds, int queries) {
    for (int round = 0; round < rounds; ++round) {
        if (MF_Initialize() != 1) return 1;
        std::vector<std::string> extensions{"mp3", ".MP3", "unknown", "jpg", "mkv", "wav", "avi", "png"};
        const std::string file = msptest::ReadFile("MediaFormats.xml");
        for (size_t at = file.find("<Extensions>"); at != std::string::npos;
             at = file.find("<Extensions>", at + 1)) {
            const size_t from = at + 12;
            extensions.push_back(file.substr(from, file.find_first_of(",<", from) - from));
        }
        std::vector<std::string> expected;
        for (const std::string& e : extensions) expected.push_back(MediaAnswers(e));
        const int failed = OnThreads([&](int t) {
            for (int q = 0; q < queries; ++q) {
                const size_t i = static_cast<size_t>(q * kThreads + t) % extensions.size();
                if (MediaAnswers(extensions[i]) != expected[i]) return 1;
                const char* list = MF_GetExtensionListByMimeType(const_cast<char*>("audio/mpeg"));
                if (!list) return 2;
            }
            return 0;
        });
        MF_UnInitialize();
        if (failed) return 10 + failed;
    }
    return 0;
}

int LanguageProcess(const std::string& config, int queries) {
    if (initializeLanguageReader(const_cast<char*>(config.c_str())) != 1) return 1;
    const std::vector<std::string> ids{"Home", "Music", "Videos", "Photos", "NoSuchTerm", ""};
    std::vector<std::string> expected;
    for (const std::string& id : ids) expected.push_back(Tx("fallback", id.c_str()));
    if (expected[0] == "fallback") return 2;  // the shipped file must have loaded
    const std::string languages = Text(getSupportedLanguages());
    const int failed = OnThreads([&](int t) {
        for (int q = 0; q < queries; ++q) {
            const size_t i = static_cast<size_t>(q + t) % ids.size();
            if (Tx("fallback", ids[i].c_str()) != expected[i]) return 1;
            if (Text(getSupportedLanguages()) != languages) return 2;
        }
        return 0;
    });
    // The reader is not deinitialised: that would remove its lock for the other process too.
    return failed ? 10 + failed : 0;
}

TEST(TablesStress, MediaTableInTwoProcessesOfFourThreads) {
    msptest::TempDir dir;
    msptest::WriteFile(dir.file("MediaFormats.xml"),
                       msptest::ReadFile(MSPLATFORM_SOURCE_DIR "/data/MediaFormats.xml"));
    msptest::ScopedChdir in(dir.path());
    // Every query takes the machine-wide semaphore: the long run is kept to eight times the short one, which
    // stays well inside the children's time-out.
    const int rounds = stress::Scaled(5, 4), queries = stress::Scaled(2000, 2);
    const long long start = stress::NowMs();
    std::vector<pid_t> children;
    for (int p = 0; p < kProcesses; ++p)
        children.push_back(msptest::StartChild([&] { return MediaProcess(rounds, queries); }));
    for (pid_t pid : children)
        EXPECT_EQ(0, msptest::WaitChild(pid, kChildMs)) << msptest::kChildTimedOut << " means timed out";
    printf("media stress: %d processes x %d threads, %d loads x %d queries each, %lld ms\n", kProcesses,
           kThreads, rounds, queries, stress::NowMs() - start);
}

TEST(TablesStress, LanguageTableInTwoProcessesOfFourThreads) {
    msptest::TempDir dir;
    const std::string config = dir.file("MediaServer.cfg");
    msptest::WriteFile(config, "[LANGUAGE]\r\nlanguageFilePath=\"" MSPLATFORM_SOURCE_DIR
                               "/data/languages.xml\"\r\ncurrentLanguage=\"Deutsch\"\r\n\r\n");
    const int queries = stress::Scaled(5000, 10);
    const long long start = stress::NowMs();
    std::vector<pid_t> children;
    for (int p = 0; p < kProcesses; ++p)
        children.push_back(msptest::StartChild([&] { return LanguageProcess(config, queries); }));
    for (pid_t pid : children) EXPECT_EQ(0, msptest::WaitChild(pid, kChildMs));
    printf("language stress: %d processes x %d threads, %d lookups each, %lld ms\n", kProcesses, kThreads,
           queries, stress::NowMs() - start);
}

}  // namespace
