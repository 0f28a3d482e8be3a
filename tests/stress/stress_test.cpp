// Several processes on the library's shared files and locks at once. MSPLATFORM_STRESS_LONG=1 multiplies
// the sizes; MSPLATFORM_STRESS_SCALE=n divides them (for slow tools such as valgrind).
#include <dirent.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "msplatform/ZvCfgCtrlMgr.h"
#include "msplatform/ZvEventLogger.h"
#include "msplatform/ZvLanguageReader.h"
#include "msplatform/eventLogger.h"
#include "msplatform/mediaFormats.h"
#include "msplatform/mutex.h"
#include "support/support.h"

namespace {

constexpr int kChildMs = 600000;

int Scaled(int shortCount, int longFactor) {
    const char* longRun = getenv("MSPLATFORM_STRESS_LONG");
    const char* scale = getenv("MSPLATFORM_STRESS_SCALE");
    const int n = longRun && *longRun && strcmp(longRun, "0") != 0 ? shortCount * longFactor : shortCount;
    const int divisor = scale ? atoi(scale) : 1;
    return divisor > 1 ? std::max(1, n / divisor) : n;
}

long long NowMs() {
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<long long>(t.tv_sec) * 1000 + t.tv_nsec / 1000000;
}

char* C(const std::string& s) {
    return const_cast<char*>(s.c_str());
}

// Starts `count` children running `body(n)` and waits for all; the milliseconds taken.
long long InProcesses(int count, const std::function<int(int)>& body) {
    const long long start = NowMs();
    std::vector<pid_t> children;
    for (int n = 0; n < count; ++n) children.push_back(msptest::StartChild([&, n] { return body(n); }));
    for (int n = 0; n < count; ++n)
        EXPECT_EQ(0, msptest::WaitChild(children[n], kChildMs)) << "process " << n;
    return NowMs() - start;
}

// ---- 8 processes on one file, each with a plan of own and shared keys: every get sees a value some set
// wrote, every own key ends with its last value.

constexpr int kConfigProcesses = 8, kShared = 4;
char kSection[] = "stress";

int Value(int p, int i) {  // what process p sets at step i (0 first); a string key gets it behind a "t"
    return (p + 1) * 100000 + i;
}
bool Written(int v, int steps) {
    return v / 100000 >= 1 && v / 100000 <= kConfigProcesses && v % 100000 < steps;
}

// Step i of a process, the same in the child that runs it and in the parent that checks the end: 20 % create
// an own key (even ones int, odd ones string), 20 % set own key `key`, 30 % set a shared key, 30 % get two.
enum Op { kCreate, kSetOwn, kSetShared, kGet };
struct Plan {
    int p, created = 0;
    std::pair<Op, int> next(int i) {
        unsigned x = static_cast<unsigned>(p) * 2654435761u ^ static_cast<unsigned>(i) * 2246822519u;
        x = (x ^ (x >> 15)) * 2654435761u;
        x ^= x >> 13;
        if (x % 10 < 2 || created == 0) return {kCreate, created++};
        return {x % 10 < 4 ? kSetOwn : x % 10 < 7 ? kSetShared : kGet, static_cast<int>((x >> 8) % created)};
    }
};

int Put(bool create, const std::string& key, bool isInt, int v) {
    if (isInt) return create ? createConfigInt(kSection, C(key), v) : setConfigInt(kSection, C(key), v);
    std::string s = "t" + std::to_string(v);
    auto* u = reinterpret_cast<unsigned char*>(&s[0]);
    const int n = static_cast<int>(s.size());
    return create ? createConfigString(kSection, C(key), u, n) : setConfigString(kSection, C(key), u, n);
}

// 0 when every operation gave what it must, else the step plus one.
int RunPlan(int p, int steps) {
    Plan plan{p};
    for (int i = 0; i < steps; ++i) {
        const auto [op, key] = plan.next(i);
        const std::string shared = std::to_string(i / 2 % kShared);
        int rc = CFG_OK, v = -1, length = -1;
        if (op != kGet) {
            rc = op == kSetShared ? Put(false, (i % 2 ? "int" : "text") + shared, i % 2, Value(p, i))
                                  : Put(op == kCreate, "p" + std::to_string(p) + "k" + std::to_string(key),
                                        key % 2 == 0, Value(p, i));
        } else if ((rc = getConfigInt(kSection, C("int" + shared), v)) == CFG_OK && v && !Written(v, steps)) {
            return i + 1;
        } else if (rc == CFG_OK &&
                   (rc = getConfigStringLen(kSection, C("text" + shared), length)) == CFG_OK) {
            // A value that grew between the two calls comes back cut and unterminated: not judged.
            std::string s(static_cast<size_t>(length) + 1, '\xff');
            rc = getConfigString(kSection, C("text" + shared), reinterpret_cast<unsigned char*>(&s[0]),
                                 length);
            s.resize(s.find('\0') == std::string::npos ? 0 : s.find('\0'));
            v = s.empty() ? 0 : atoi(s.c_str() + 1);
            if (rc == CFG_OK && !s.empty() && (s != "t" + std::to_string(v) || (v && !Written(v, steps))))
                return i + 1;
        }
        if (rc != CFG_OK) return i + 1;
    }
    return 0;
}

TEST(ConfigStress, ProcessesShareOneFileWithoutLoss) {
    const int steps = Scaled(500, 4);
    msptest::TempDir dir;
    deinitializeConfig();
    ASSERT_EQ(CFG_OK, initializeConfig(dir.file("MediaServer.cfg").c_str()));
    for (int n = 0; n < 2 * kShared; ++n)
        ASSERT_EQ(CFG_OK, Put(true, (n % 2 ? "int" : "text") + std::to_string(n / 2), n % 2, 0));
    const long long elapsed = InProcesses(kConfigProcesses, [&](int p) { return RunPlan(p, steps); });
    // One read through the store (the file reads whole), then each own key's line with its last value.
    int probe = -1;
    ASSERT_EQ(CFG_OK, getConfigInt(kSection, C("int0"), probe));
    const std::string file = msptest::ReadFile(dir.file("MediaServer.cfg"));
    size_t keys = 0;
    for (int p = 0; p < kConfigProcesses; ++p) {
        Plan plan{p};
        std::vector<int> last;
        for (int i = 0; i < steps; ++i) {
            const auto [op, key] = plan.next(i);
            if (op == kCreate) last.push_back(i);
            if (op == kSetOwn) last[key] = i;
        }
        for (size_t k = 0; k < last.size(); ++k) {
            const std::string v = std::to_string(Value(p, last[k]));
            const std::string line =
                "p" + std::to_string(p) + "k" + std::to_string(k) + "=" + (k % 2 ? "\"t" + v + "\"" : v);
            EXPECT_NE(std::string::npos, file.find("\r\n" + line + "\r\n")) << line;
        }
        keys += last.size();
    }
    deinitializeConfig();
    printf("config stress: %d processes x %d operations, %zu own keys, %lld ms\n", kConfigProcesses, steps,
           keys, elapsed);
}

// ---- a process killed with SIGKILL while it holds one of the four locks: the waiting ones go on at once.

class KilledHolder : public ::testing::TestWithParam<const char*> {};

TEST_P(KilledHolder, WaitersGoOnWithinASecond) {
    const char* name = GetParam();
    constexpr int kWaiters = 3;
    for (int round = 0, rounds = Scaled(1, 20); round < rounds; ++round) {
        msptest::Pipe held, waiting, through;
        // A child's Mutex is never destroyed: its destructor would remove the set for every process.
        const auto start = [&](bool holds) {
            return msptest::StartChild([&, holds] {
                Mutex* m = new Mutex(name);
                if (m->getid() <= 0) return 1;
                if (!holds) waiting.Send();
                m->lock();
                (holds ? held : through).Send();
                while (holds) ::pause();
                m->unlock();
                return 0;
            });
        };
        const pid_t holder = start(true);
        ASSERT_TRUE(held.Wait(kChildMs)) << name;
        std::vector<pid_t> waiters;
        for (int w = 0; w < kWaiters; ++w) waiters.push_back(start(false));
        for (int w = 0; w < kWaiters; ++w) ASSERT_TRUE(waiting.Wait(kChildMs)) << name;
        EXPECT_FALSE(through.Wait(200)) << name << ": a waiter got through while the holder lived";
        const long long killedAt = NowMs();
        ::kill(holder, SIGKILL);
        for (int w = 0; w < kWaiters; ++w) ASSERT_TRUE(through.Wait(kChildMs)) << name;
        const long long after = NowMs() - killedAt;
        EXPECT_LT(after, 1000) << name;
        EXPECT_EQ(msptest::kChildSignalled, msptest::WaitChild(holder, kChildMs));
        for (pid_t pid : waiters) EXPECT_EQ(0, msptest::WaitChild(pid, kChildMs)) << name;
        if (round == 0) printf("%s: %d waiters through %lld ms after the kill\n", name, kWaiters, after);
    }
}

INSTANTIATE_TEST_SUITE_P(FourLocks, KilledHolder,
                         ::testing::Values("cfgCtrlMgr", "eventLogger", "languageReader", "MediaMapper"),
                         [](const ::testing::TestParamInfo<const char*>& info) {
                             return std::string(info.param);
                         });

// ---- 4 loggers rotating in one directory, two to a section (so two may make the same file name): every line
// left whole, a process's lines in order, no more files than the rotations keep (4 x logFilesCount).

TEST(LoggerStress, FourProcessesRotateInOneDirectory) {
    msptest::TempDir dir;
    const std::string logs = dir.file("logs"), config = dir.file("MediaServer.cfg"), payload = "the lazy dog";
    std::string text;
    for (const std::string section : {"[m0]", "[m1]"})
        text += section +
                "\r\nlogMode=1\r\nlogVerbosity=1\r\nlogFilesCount=3\r\nlogFileSize=2000\r\nlogFilePath=\"" +
                logs + "\"\r\n\r\n";
    msptest::WriteFile(config, text);
    const int lines = Scaled(2000, 10);
    const long long elapsed = InProcesses(4, [&](int p) {
        if (initializeLogger(C(config), C("m" + std::to_string(p / 2))) != 1) return 1;
        for (int i = 0; i < lines; ++i) eventLogOut("p%d line %d %s", p, i, payload.c_str());
        return 0;
    });
    const std::regex whole(R"(\d\d-\d\d-\d{4} : \d\d:\d\d:\d\d\.\d{3}\t : p([0-3]) line (\d+) )" + payload);
    size_t files = 0, surviving = 0;
    DIR* d = ::opendir(logs.c_str());
    ASSERT_NE(nullptr, d);
    while (const dirent64* e = ::readdir64(d)) {
        const std::string name = e->d_name;
        if (name.rfind("serverLog.", 0) != 0) continue;
        ++files;
        const std::string content = msptest::ReadFile(logs + "/" + name);
        EXPECT_TRUE(content.empty() || content.back() == '\n') << name << " ends inside a line";
        int last[4] = {-1, -1, -1, -1};
        for (size_t at = 0, end; (end = content.find('\n', at)) != std::string::npos;
             at = end + 1, ++surviving) {
            std::smatch m;
            const std::string line = content.substr(at, end - at);
            ASSERT_TRUE(std::regex_match(line, m, whole)) << name << ": " << line;
            const int p = std::stoi(m[1]), i = std::stoi(m[2]);
            EXPECT_GT(i, last[p]) << name << ": lines of one process out of order";
            last[p] = i;
        }
    }
    ::closedir(d);
    EXPECT_GE(files, 1u);
    EXPECT_LE(files, 4u * 3);
    printf("logger stress: 4 processes x %d lines, %zu files left, %zu lines in them, %lld ms\n", lines,
           files, surviving, elapsed);
}

// ---- the shipped tables in 2 processes of 4 threads: every answer equals the process's single-thread one.

std::string Text(const char* s) {
    return s ? s : "<null>";
}

// Each of 4 threads asks `queries` times for answer (q * 4 + t) % n; how many threads saw a difference.
int OnFourThreads(size_t n, int queries, const std::function<std::string(size_t)>& answer) {
    std::vector<std::string> expected;
    for (size_t i = 0; i < n; ++i) expected.push_back(answer(i));
    int failed[4] = {};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (size_t q = 0; q < static_cast<size_t>(queries) && !failed[t]; ++q)
                failed[t] = answer((q * 4 + t) % n) != expected[(q * 4 + t) % n];
        });
    for (std::thread& th : threads) th.join();
    return failed[0] + failed[1] + failed[2] + failed[3];
}

TEST(TablesStress, MediaAndLanguageTablesInTwoProcessesOfFourThreads) {
    msptest::TempDir dir;
    const std::string table = msptest::ReadFile(MSPLATFORM_SOURCE_DIR "/data/MediaFormats.xml");
    msptest::WriteFile(dir.file("MediaFormats.xml"), table);
    msptest::WriteFile(dir.file("MediaServer.cfg"),
                       "[LANGUAGE]\r\nlanguageFilePath=\"" MSPLATFORM_SOURCE_DIR
                       "/data/languages.xml\"\r\ncurrentLanguage=\"Deutsch\"\r\n\r\n");
    msptest::ScopedChdir in(dir.path());
    std::vector<std::string> extensions{"mp3", ".MP3", "unknown", "jpg", "mkv", "wav", "avi", "png"};
    for (size_t at = table.find("<Extensions>"); at != std::string::npos;
         at = table.find("<Extensions>", at + 1))
        extensions.push_back(table.substr(at + 12, table.find_first_of(",<", at + 12) - at - 12));
    const char* ids[] = {"Home", "Music", "Videos", "Photos", "NoSuchTerm", ""};
    const auto answers = [&](size_t i) {
        char* e = C(extensions[i]);
        char type = '?';
        const std::string parser = Text(MF_GetParserNameByExtension(e, &type));
        return Text(MF_GetFormatNameByExtension(e)) + "|" + Text(MF_GetMimeTypeByExtension(e)) + "|" +
               Text(MF_GetDLNAClassByExtension(e)) + "|" + Text(MF_GetDLNAProfileByExtension(e)) + "|" +
               parser + "|" + type + "|" + Text(MF_GetDAPNameByExtension(e)) + "|" +
               std::to_string(MF_GetTranscodeFlagByExtension(e)) + "|" +
               std::to_string(MF_GetMediaTypeByExtension(e)) + "|" + Text(MF_GetUniqueParserPlugins()) + "|" +
               Text(MF_GetExtensionListByMimeType(C("audio/mpeg"))) + "|" + Tx("fallback", ids[i % 6]) + "|" +
               Text(getSupportedLanguages());
    };
    // Every media query takes the machine-wide semaphore: the long run stays at eight times the short one.
    // The language reader is never deinitialised: that would remove its lock for the other process too.
    const int rounds = Scaled(5, 4), queries = Scaled(2000, 2);
    const long long ms = InProcesses(2, [&](int) {
        if (initializeLanguageReader(C("MediaServer.cfg")) != 1 || Text(Tx("fallback", "Home")) == "fallback")
            return 1;
        for (int round = 0; round < rounds; ++round) {
            if (MF_Initialize() != 1) return 2;
            const int failed = OnFourThreads(extensions.size(), queries, answers);
            MF_UnInitialize();
            if (failed) return 10 + failed;
        }
        return 0;
    });
    printf("tables stress: 2 processes x 4 threads, %d loads x %d queries each, %lld ms\n", rounds, queries,
           ms);
}

}  // namespace
