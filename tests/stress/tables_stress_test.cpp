// The shipped media format table and language file, each loaded in two processes at once and queried by four
// threads in each. Every answer must equal what the same process got from one thread before.
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "msplatform/ZvLanguageReader.h"
#include "msplatform/mediaFormats.h"
#include "stress/stress.h"
#include "support/support.h"

namespace {

constexpr int kProcesses = 2, kThreads = 4;

std::string Text(const char* s) {
    return s ? s : "<null>";
}

// Every answer the media table gives for one extension, in one string.
std::string MediaAnswers(const std::string& extension) {
    char* e = const_cast<char*>(extension.c_str());
    char type = '?';
    const std::string parser = Text(MF_GetParserNameByExtension(e, &type));
    return Text(MF_GetFormatNameByExtension(e)) + "|" + Text(MF_GetMimeTypeByExtension(e)) + "|" +
           Text(MF_GetDLNAClassByExtension(e)) + "|" + Text(MF_GetDLNAProfileByExtension(e)) + "|" + parser +
           "|" + type + "|" + Text(MF_GetDAPNameByExtension(e)) + "|" +
           std::to_string(MF_GetTranscodeFlagByExtension(e)) + "|" +
           std::to_string(MF_GetMediaTypeByExtension(e)) + "|" + Text(MF_GetUniqueParserPlugins()) + "|" +
           Text(MF_GetExtensionListByMimeType(const_cast<char*>("audio/mpeg")));
}

// Each thread asks `queries` times for answer (q * kThreads + t) % n; the threads that saw a difference.
int OnThreads(size_t n, int queries, const std::function<std::string(size_t)>& answer) {
    std::vector<std::string> expected;
    for (size_t i = 0; i < n; ++i) expected.push_back(answer(i));
    std::vector<int> failed(kThreads, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (int q = 0; q < queries && !failed[t]; ++q) {
                const size_t i = static_cast<size_t>(q * kThreads + t) % n;
                failed[t] = answer(i) != expected[i];
            }
        });
    int count = 0;
    for (int t = 0; t < kThreads; ++t) threads[t].join(), count += failed[t];
    return count;
}

// Runs `process` in two children at once; prints what was done and how long it took.
void InTwoProcesses(const char* what, const std::function<int()>& process) {
    const long long start = stress::NowMs();
    std::vector<pid_t> children;
    for (int p = 0; p < kProcesses; ++p) children.push_back(msptest::StartChild(process));
    for (pid_t pid : children) EXPECT_EQ(0, msptest::WaitChild(pid, 600000)) << what;
    printf("%s stress: %d processes x %d threads, %lld ms\n", what, kProcesses, kThreads,
           stress::NowMs() - start);
}

TEST(TablesStress, MediaTableInTwoProcessesOfFourThreads) {
    msptest::TempDir dir;
    const std::string table = msptest::ReadFile(MSPLATFORM_SOURCE_DIR "/data/MediaFormats.xml");
    msptest::WriteFile(dir.file("MediaFormats.xml"), table);
    msptest::ScopedChdir in(dir.path());
    std::vector<std::string> extensions{"mp3", ".MP3", "unknown", "jpg", "mkv", "wav", "avi", "png"};
    for (size_t at = table.find("<Extensions>"); at != std::string::npos;
         at = table.find("<Extensions>", at + 1))
        extensions.push_back(table.substr(at + 12, table.find_first_of(",<", at + 12) - at - 12));
    // Every query takes the machine-wide semaphore: the long run stays at eight times the short one.
    const int rounds = stress::Scaled(5, 4), queries = stress::Scaled(2000, 2);
    InTwoProcesses("media", [&] {
        for (int round = 0; round < rounds; ++round) {
            if (MF_Initialize() != 1) return 1;
            const int failed =
                OnThreads(extensions.size(), queries, [&](size_t i) { return MediaAnswers(extensions[i]); });
            MF_UnInitialize();
            if (failed) return 10 + failed;
        }
        return 0;
    });
}

TEST(TablesStress, LanguageTableInTwoProcessesOfFourThreads) {
    msptest::TempDir dir;
    const std::string config = dir.file("MediaServer.cfg");
    msptest::WriteFile(config, "[LANGUAGE]\r\nlanguageFilePath=\"" MSPLATFORM_SOURCE_DIR
                               "/data/languages.xml\"\r\ncurrentLanguage=\"Deutsch\"\r\n\r\n");
    const std::vector<std::string> ids{"Home", "Music", "Videos", "Photos", "NoSuchTerm", ""};
    const int queries = stress::Scaled(5000, 10);
    // The reader is not deinitialised: that would remove its lock for the other process too.
    InTwoProcesses("language", [&] {
        if (initializeLanguageReader(const_cast<char*>(config.c_str())) != 1) return 1;
        if (std::string(Tx("fallback", "Home")) == "fallback") return 2;  // the shipped file must have loaded
        const int failed = OnThreads(ids.size(), queries, [&](size_t i) {
            return std::string(Tx("fallback", ids[i].c_str())) + "|" + Text(getSupportedLanguages());
        });
        return failed ? 10 + failed : 0;
    });
}

}  // namespace
