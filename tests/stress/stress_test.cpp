// Several processes on the library's shared files and locks at once. MSPLATFORM_STRESS_LONG=1 multiplies
// the sizes; MSPLATFORM_STRESS_SCALE=n divides them (for slow tools such as valgrind).
#include <dirent.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
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
    return scale && atoi(scale) > 1 ? std::max(1, n / atoi(scale)) : n;
}

long long NowMs() {
    return std::chrono::steady_clock::now().time_since_epoch() / std::chrono::milliseconds(1);
}

char* C(const std::string& s) {
    return const_cast<char*>(s.c_str());
}
unsigned char* U(std::string& s) {
    return reinterpret_cast<unsigned char*>(&s[0]);
}

// Runs `body(n)` in `count` children at once and waits for all; prints the time taken.
void InProcesses(const char* what, int count, const std::function<int(int)>& body) {
    const long long start = NowMs();
    std::vector<pid_t> children;
    for (int n = 0; n < count; ++n) children.push_back(msptest::StartChild([&, n] { return body(n); }));
    for (pid_t pid : children) EXPECT_EQ(0, msptest::WaitChild(pid, kChildMs)) << what;
    printf("%s: %lld ms\n", what, NowMs() - start);
}

constexpr int kConfigProcesses = 8, kShared = 4;
char kSec[] = "stress";

int Value(int p, int i) {  // what process p sets at step i; a string key gets it behind a "t"
    return (p + 1) * 100000 + i;
}
// True for "t" + a value that some set wrote, or the initial "t0".
bool Written(const std::string& s, int steps) {
    const int v = atoi(s.c_str() + 1);
    return s == "t" + std::to_string(v) &&
           (v == 0 || (v >= 100000 && v / 100000 <= kConfigProcesses && v % 100000 < steps));
}

// 8 processes on one file, each with a plan of own and shared keys: every get sees a value that some set
// wrote, and every own key ends with its last value. Step i of process p (the same in the child and in the
// parent's replay): 20 % create own key `key` (even ones int, odd ones string), 20 % set it, 30 % set a
// shared key, 30 % get two.
enum Op { kCreate, kSetOwn, kSetShared, kGet };
Op Step(int p, int i, int& key) {
    const int r = i % 10, created = i / 10 * 2;
    key = r < 2 ? created + r : (i * 7 + p) % (created + 2);
    return r < 2 ? kCreate : r < 4 ? kSetOwn : r < 7 ? kSetShared : kGet;
}

int Put(bool create, const std::string& key, bool isInt, int v) {
    if (isInt) return create ? createConfigInt(kSec, C(key), v) : setConfigInt(kSec, C(key), v);
    std::string s = "t" + std::to_string(v);
    const int n = static_cast<int>(s.size());
    return create ? createConfigString(kSec, C(key), U(s), n) : setConfigString(kSec, C(key), U(s), n);
}

// 0 when every operation gave what it must, else the step plus one.
int RunPlan(int p, int steps) {
    for (int i = 0, key = 0; i < steps; ++i) {
        const Op op = Step(p, i, key);
        const std::string shared = std::to_string(i / 2 % kShared);
        int rc = CFG_OK, v = -1, length = -1;
        if (op != kGet) {
            rc = op == kSetShared ? Put(false, (i % 2 ? "int" : "text") + shared, i % 2, Value(p, i))
                                  : Put(op == kCreate, "p" + std::to_string(p) + "k" + std::to_string(key),
                                        key % 2 == 0, Value(p, i));
        } else {
            std::string t(32, '\xff');
            rc = getConfigInt(kSec, C("int" + shared), v);
            if (rc == CFG_OK && !Written("t" + std::to_string(v), steps)) return i + 1;
            if (rc == CFG_OK) rc = getConfigStringLen(kSec, C("text" + shared), length);
            if (rc == CFG_OK) rc = getConfigString(kSec, C("text" + shared), U(t), std::min(length, 30));
            // A value that grew between the two calls comes back cut and unterminated: not judged.
            if (rc == CFG_OK && t.find('\0') <= 30 && !Written(t.c_str(), steps)) return i + 1;
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
    InProcesses("config stress, 8 processes", kConfigProcesses, [&](int p) { return RunPlan(p, steps); });
    // One read through the store (the file reads whole), then each own key's line with its last value.
    int probe = -1;
    ASSERT_EQ(CFG_OK, getConfigInt(kSec, C("int0"), probe));
    const std::string file = msptest::ReadFile(dir.file("MediaServer.cfg"));
    for (int p = 0; p < kConfigProcesses; ++p) {
        std::vector<int> last;
        for (int i = 0, key = 0; i < steps; ++i) {
            const Op op = Step(p, i, key);
            if (op == kCreate) last.push_back(i);
            if (op == kSetOwn) last[key] = i;
        }
        for (size_t k = 0; k < last.size(); ++k) {
            const std::string v = std::to_string(Value(p, last[k]));
            const std::string line =
                "p" + std::to_string(p) + "k" + std::to_string(k) + "=" + (k % 2 ? "\"t" + v + "\"" : v);
            EXPECT_NE(std::string::npos, file.find("\r\n" + line + "\r\n")) << line;
        }
    }
    deinitializeConfig();
}

// ---- a holder of each lock killed with SIGKILL: the processes waiting for it go on at once.

TEST(KilledHolder, WaitersOfEachOfTheFourLocksGoOnWithinASecond) {
    const char* names[] = {"cfgCtrlMgr", "eventLogger", "languageReader", "MediaMapper"};
    for (int round = 0, rounds = 4 * Scaled(1, 20); round < rounds; ++round) {
        const char* name = names[round % 4];
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
        // No assertion before the kill: a holder left alive would block the machine-wide lock.
        const pid_t holder = start(true);
        bool ready = held.Wait(kChildMs);
        const pid_t waiters[] = {start(false), start(false), start(false)};
        for (int w = 0; w < 3; ++w) ready = waiting.Wait(kChildMs) && ready;
        EXPECT_TRUE(ready) << name;
        EXPECT_FALSE(through.Wait(200)) << name << ": a waiter got through while the holder lived";
        const long long killedAt = NowMs();
        ::kill(holder, SIGKILL);
        for (int w = 0; w < 3; ++w) EXPECT_TRUE(through.Wait(10000)) << name;
        const long long after = NowMs() - killedAt;
        EXPECT_LT(after, 1000) << name;
        EXPECT_EQ(msptest::kChildSignalled, msptest::WaitChild(holder, kChildMs));
        for (pid_t pid : waiters) EXPECT_EQ(0, msptest::WaitChild(pid, 10000)) << name;
        if (round < 4) printf("%s: 3 waiters through %lld ms after the kill\n", name, after);
    }
}

// ---- 4 loggers rotating in one directory, two to a section: lines whole and in order, files bounded.

TEST(LoggerStress, FourProcessesRotateInOneDirectory) {
    msptest::TempDir dir;
    const std::string logs = dir.file("logs"), config = dir.file("MediaServer.cfg"), payload = "the lazy dog";
    const std::string keys =
        "]\r\nlogMode=1\r\nlogVerbosity=1\r\nlogFilesCount=3\r\nlogFileSize=2000\r\nlogFilePath=\"";
    msptest::WriteFile(config, "[m0" + keys + logs + "\"\r\n[m1" + keys + logs + "\"\r\n");
    const int lines = Scaled(2000, 10);
    InProcesses("logger stress, 4 processes", 4, [&](int p) {
        if (initializeLogger(C(config), C("m" + std::to_string(p / 2))) != 1) return 1;
        for (int i = 0; i < lines; ++i) eventLogOut("p%d line %d %s", p, i, payload.c_str());
        return 0;
    });
    const std::regex whole(R"(\d\d-\d\d-\d{4} : \d\d:\d\d:\d\d\.\d{3}\t : p([0-3]) line (\d+) )" + payload);
    size_t files = 0;
    DIR* d = ::opendir(logs.c_str());
    ASSERT_NE(nullptr, d);
    while (const dirent64* e = ::readdir64(d)) {
        const std::string name = e->d_name;
        if (name.rfind("serverLog.", 0) != 0) continue;
        ++files;
        const std::string content = msptest::ReadFile(logs + "/" + name);
        EXPECT_TRUE(content.empty() || content.back() == '\n') << name << " ends inside a line";
        int last[4] = {-1, -1, -1, -1};
        for (size_t at = 0, end; (end = content.find('\n', at)) != std::string::npos; at = end + 1) {
            std::smatch m;
            const std::string line = content.substr(at, end - at);
            ASSERT_TRUE(std::regex_match(line, m, whole)) << name << ": " << line;
            const int p = std::stoi(m[1]), i = std::stoi(m[2]);
            EXPECT_GT(i, last[p]) << name << ": lines of one process out of order";
            last[p] = i;
        }
    }
    ::closedir(d);
    EXPECT_TRUE(files >= 1 && files <= 4 * 3) << files << " files left";
}

// ---- the shipped tables in 2 processes of 4 threads: every answer equals the process's single-thread one.

TEST(TablesStress, MediaAndLanguageTablesInTwoProcessesOfFourThreads) {
    msptest::TempDir dir;
    const std::string table = msptest::ReadFile(MSPLATFORM_SOURCE_DIR "/data/MediaFormats.xml");
    msptest::WriteFile(dir.file("MediaFormats.xml"), table);
    msptest::WriteFile(dir.file("MediaServer.cfg"),
                       "[LANGUAGE]\r\nlanguageFilePath=\"" MSPLATFORM_SOURCE_DIR
                       "/data/languages.xml\"\r\ncurrentLanguage=\"Deutsch\"\r\n\r\n");
    msptest::ScopedChdir in(dir.path());
    // Keys for both tables: extensions, and terms (which no format lists).
    std::vector<std::string> keys{"mp3", ".MP3", "unknown", "Home", "Music", "Videos", "Photos", ""};
    for (size_t at = table.find("<Extensions>"); at != std::string::npos;
         at = table.find("<Extensions>", at + 1))
        keys.push_back(table.substr(at + 12, table.find_first_of(",<", at + 12) - at - 12));
    const auto answers = [&](size_t i) {
        char* e = C(keys[i]);
        char type = '?';
        std::string out;
        for (const char* answer : std::initializer_list<const char*>{
                 MF_GetParserNameByExtension(e, &type), MF_GetFormatNameByExtension(e),
                 MF_GetMimeTypeByExtension(e), MF_GetDLNAClassByExtension(e), MF_GetDLNAProfileByExtension(e),
                 MF_GetDAPNameByExtension(e), MF_GetUniqueParserPlugins(),
                 MF_GetExtensionListByMimeType(C("audio/mpeg")), Tx("fallback", e), getSupportedLanguages()})
            out += (answer ? answer : "<null>") + std::string("|");
        return out + type + std::to_string(MF_GetTranscodeFlagByExtension(e)) + MF_GetMediaTypeByExtension(e);
    };
    // Every media query takes the machine-wide semaphore: the long run stays at eight times the short one.
    // The language reader is never deinitialised: that would remove its lock for the other process too.
    const int rounds = Scaled(5, 4), queries = Scaled(2000, 2);
    InProcesses("tables stress, 2 processes x 4 threads", 2, [&](int) {
        if (initializeLanguageReader(C("MediaServer.cfg")) != 1 || Tx("-", "Home") == std::string("-"))
            return 1;
        for (int round = 0; round < rounds; ++round) {
            if (MF_Initialize() != 1) return 2;
            // Each thread asks for answer (q * 4 + t) % n and compares it with the single-thread one.
            std::vector<std::string> expected;
            for (size_t i = 0; i < keys.size(); ++i) expected.push_back(answers(i));
            int failed[4] = {};
            std::vector<std::thread> threads;
            for (int t = 0; t < 4; ++t)
                threads.emplace_back([&, t] {
                    for (size_t q = 0; q < static_cast<size_t>(queries) && !failed[t]; ++q) {
                        const size_t i = (q * 4 + t) % expected.size();
                        failed[t] = answers(i) != expected[i];
                    }
                });
            for (std::thread& th : threads) th.join();
            MF_UnInitialize();
            if (failed[0] + failed[1] + failed[2] + failed[3]) return 3;
        }
        return 0;
    });
}

}  // namespace
