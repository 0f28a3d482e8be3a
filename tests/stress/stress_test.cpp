// Several processes on the library's shared files and locks at once. MSPLATFORM_STRESS_LONG=1 multiplies
// the sizes; MSPLATFORM_STRESS_SCALE=n divides them (for slow tools such as valgrind).
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "msplatform/ZvCfgCtrlMgr.h"
#include "msplatform/ZvEventLogger.h"
#include "msplatform/ZvLanguageReader.h"
#include "msplatform/languageReader.h"
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

// ---- the four locks while processes come and go: long-lived processes work under them, and in each round
// new processes load the library, use all four services and exit normally (removing two sets), or die with
// SIGKILL while holding a lock, or between making a set and freeing it.

const char* const kLockNames[4] = {"cfgCtrlMgr", "eventLogger", "languageReader", "MediaMapper"};
constexpr int kLongLived = 3, kLongLivedThreads = 2;
constexpr int kChurnChildMs = 120000;  // a process of the churn that hangs fails the test this soon
constexpr int kPeerKeys = 20;          // normal peers set key n % 20, so that the file stays small
const char kChurnPayload[] = "the quick brown fox";
char kChurnModule[] = "churn";

// What all processes of the churn share, in a file that each maps.
struct LockBoard {
    int holder;         // the thread inside a checked hold, 0 for none
    int doomed;         // a peer's thread that holds and is about to be killed
    long long diedAt;   // when the last peer that held or made this lock was killed
    int overlaps;       // holds that found another holder inside
    int longestWaitMs;  // the longest lock that waited through a death, counted from the death
    int holds;
};
struct Board {
    LockBoard locks[4];
    int stop;
    int failures;  // wrong answers, lost updates, failed calls: anything else a process found wrong
    int operations;
    int lines;  // log lines written
    int unfreedMade;
    int lastSet[kLongLived][kLongLivedThreads];  // the last value each long-lived thread set its key to
};

template <typename T>
T Load(T& field) {
    return __atomic_load_n(&field, __ATOMIC_SEQ_CST);
}
template <typename T>
void Put(T& field, T value) {
    __atomic_store_n(&field, value, __ATOMIC_SEQ_CST);
}
void Add(int& field) {
    __atomic_fetch_add(&field, 1, __ATOMIC_SEQ_CST);
}

Board* MapBoard(const std::string& path, bool create) {
    const int fd = ::open(path.c_str(), O_RDWR | (create ? O_CREAT | O_TRUNC : 0), 0600);
    if (fd < 0 || (create && ::ftruncate(fd, sizeof(Board)) != 0)) return nullptr;
    void* memory = ::mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ::close(fd);
    return memory == MAP_FAILED ? nullptr : static_cast<Board*>(memory);
}

key_t KeyOf(int lock) {
    unsigned int sum = 0;
    for (const char* c = kLockNames[lock]; *c; ++c) sum += static_cast<unsigned char>(*c);
    return static_cast<key_t>(sum * 99);
}

int Tid() {
    return static_cast<int>(::syscall(SYS_gettid));
}

// Takes `lock` through `m` and marks this thread inside. Finding another thread inside is an overlap, unless
// it is a peer that was killed while holding. A wait through the death of a holder or maker of the lock
// counts from the death. Returns how long the lock was waited for after its last death.
int Enter(LockBoard& lock, Mutex& m) {
    const long long start = NowMs();
    m.lock();
    const long long end = NowMs();
    int inside = __atomic_exchange_n(&lock.holder, Tid(), __ATOMIC_SEQ_CST);
    if (inside != 0 &&
        !__atomic_compare_exchange_n(&lock.doomed, &inside, 0, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST))
        Add(lock.overlaps);
    const long long died = Load(lock.diedAt);
    const int waited = static_cast<int>(end - died);
    for (int longest = Load(lock.longestWaitMs);
         died > start && waited > longest &&
         !__atomic_compare_exchange_n(&lock.longestWaitMs, &longest, waited, false, __ATOMIC_SEQ_CST,
                                      __ATOMIC_SEQ_CST);) {
    }
    Add(lock.holds);
    return died > 0 && died <= end ? waited : 0;
}

void Leave(LockBoard& lock, Mutex& m) {
    int me = Tid();
    if (!__atomic_compare_exchange_n(&lock.holder, &me, 0, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST))
        Add(lock.overlaps);
    m.unlock();
}

void Hold(LockBoard& lock, Mutex& m, int micros) {
    Enter(lock, m);
    std::this_thread::sleep_for(std::chrono::microseconds(micros));
    Leave(lock, m);
}

// The settings of both logging processes and the tables, and one section of keys per kind of process.
void WriteChurnConfig(const msptest::TempDir& dir) {
    msptest::WriteFile(dir.file("MediaServer.cfg"),
                       "[churn]\r\nlogMode=1\r\nlogVerbosity=1\r\nlogFilesCount=10\r\nlogFileSize=16000\r\n"
                       "logFilePath=\"" +
                           dir.file("logs") + "\"\r\n\r\n[LANGUAGE]\r\nlanguageFilePath=\"" +
                           MSPLATFORM_SOURCE_DIR
                           "/data/languages.xml\"\r\ncurrentLanguage=\"Deutsch\"\r\n\r\n");
    msptest::WriteFile(dir.file("MediaFormats.xml"),
                       msptest::ReadFile(MSPLATFORM_SOURCE_DIR "/data/MediaFormats.xml"));
}

// Starts the four services in `dir` (the caller's process, which is a child of the test).
bool StartServices(const std::string& dir) {
    const std::string config = dir + "/MediaServer.cfg";
    deinitializeConfig();
    return ::chdir(dir.c_str()) == 0 && initializeConfig(config.c_str()) == CFG_OK &&
           initializeLogger(C(config), kChurnModule) == 1 && initializeLanguageReader(C(config)) == 1 &&
           MF_Initialize() == 1;
}

bool TablesAnswer() {
    const char* mime = MF_GetMimeTypeByExtension(C("mp3"));
    return std::string(Tx("-", "Home")) == "Startseite" && mime && std::string(mime) == "audio/mpeg";
}

// A long-lived process: its threads log, set their own key and read it back, look a term and a format up, and
// hold each lock in turn, until the board says stop.
int LongLived(Board& board, const std::string& dir, int p) {
    if (!StartServices(dir)) return 1;
    Mutex* mine[4];
    for (int n = 0; n < 4; ++n) mine[n] = new Mutex(kLockNames[n]);  // never destroyed: exit is _exit
    std::vector<std::thread> threads;
    for (int t = 0; t < kLongLivedThreads; ++t) {
        threads.emplace_back([&, t] {
            const std::string key = "L" + std::to_string(p) + "." + std::to_string(t);
            if (createConfigInt(C("churn-long"), C(key), 0) != CFG_OK) Add(board.failures);
            for (int i = 1; !Load(board.stop); ++i) {
                int value = -1;
                switch (i % 4) {
                    case 0:
                        eventLogOut("%s line %d %s", key.c_str(), i, kChurnPayload);
                        Add(board.lines);
                        break;
                    case 1:
                        if (setConfigInt(C("churn-long"), C(key), i) != CFG_OK ||
                            getConfigInt(C("churn-long"), C(key), value) != CFG_OK || value != i)
                            Add(board.failures);
                        Put(board.lastSet[p][t], i);
                        break;
                    case 2:
                        if (!TablesAnswer()) Add(board.failures);
                        break;
                    case 3:
                        Hold(board.locks[i / 4 % 4], *mine[i / 4 % 4], 200);
                        break;
                }
                Add(board.operations);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    return 0;
}

// A peer, in a process of its own started from this binary: "normal <n>", "holding <lock>" or "unfreed
// <lock>".
void Peer(Board& board, const std::string& dir, const std::string& role, int n) {
    if (role == "normal") {
        static Mutex* mine[4];  // kept past exit: only the services remove their sets, as servers do
        ASSERT_TRUE(StartServices(dir));
        const std::string key = "P" + std::to_string(n % kPeerKeys);
        int value = -1;
        EXPECT_EQ(CFG_OK, setConfigInt(C("churn-peers"), C(key), n));
        EXPECT_EQ(CFG_OK, getConfigInt(C("churn-peers"), C(key), value));
        EXPECT_EQ(n, value);
        for (int i = 0; i < 5; ++i, Add(board.lines)) eventLogOut("P%d line %d %s", n, i, kChurnPayload);
        EXPECT_TRUE(TablesAnswer());
        for (int k = 0; k < 4; ++k) Hold(board.locks[k], *(mine[k] = new Mutex(kLockNames[k])), 200);
        MF_UnInitialize();
        deinitializeConfig();
        return;  // the process exits normally: the logger's and the language reader's sets go
    }
    LockBoard& lock = board.locks[n];
    if (role == "holding") {
        Mutex* m = new Mutex(kLockNames[n]);
        Enter(lock, *m);
        std::this_thread::sleep_for(std::chrono::milliseconds(400));  // past the grace for never freed sets
        Put(lock.doomed, Tid());
    } else {
        // Removed the way a destructor does, then made again and left at 0, as by a creator killed before its
        // SETVAL. A waiter that makes it again first takes the place: then once more.
        for (int attempt = 0; attempt < 5; ++attempt) {
            delete new Mutex(kLockNames[n]);
            if (::semget(KeyOf(n), 1, IPC_CREAT | IPC_EXCL | 0660) > 0) {
                Add(board.unfreedMade);
                break;
            }
        }
    }
    Put(lock.diedAt, NowMs());
    ::raise(SIGKILL);
}

TEST(LockChurn, Peer) {
    const char* role = getenv("MSPLATFORM_CHURN_ROLE");
    const char* dir = getenv("MSPLATFORM_CHURN_DIR");
    if (!role || !dir) GTEST_SKIP() << "a process that LockChurn starts";
    Board* board = MapBoard(std::string(dir) + "/board", false);
    ASSERT_NE(nullptr, board);
    std::istringstream words(role);
    std::string kind;
    int n = -1;
    words >> kind >> n;
    Peer(*board, dir, kind, n);
}

// Starts this binary again as a peer with `role`; its output goes to a file of the directory.
pid_t StartPeer(const msptest::TempDir& dir, const std::string& role, int seq) {
    std::vector<std::string> command;
    std::istringstream emulator(MSPLATFORM_EMULATOR);
    for (std::string word; emulator >> word;) command.push_back(word);
    char self[4096] = {};
    if (::readlink("/proc/self/exe", self, sizeof self - 1) <= 0) return -1;
    command.insert(command.end(), {self, "--gtest_filter=LockChurn.Peer"});
    const std::string settings[] = {"MSPLATFORM_CHURN_ROLE=" + role, "MSPLATFORM_CHURN_DIR=" + dir.path()};
    const std::string out = dir.file("peer" + std::to_string(seq) + ".out");
    return msptest::StartChild([&] {
        for (const std::string& setting : settings) putenv(const_cast<char*>(setting.c_str()));
        const int fd = ::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (fd < 0 || ::dup2(fd, 1) < 0 || ::dup2(fd, 2) < 0) return 126;
        std::vector<char*> argv;
        for (const std::string& word : command) argv.push_back(const_cast<char*>(word.c_str()));
        argv.push_back(nullptr);
        ::execvp(argv[0], argv.data());
        return 127;
    });
}

// Objects of the locks whose sets were there before the churn and stay after it.
Mutex* keptLocks[4];

// Reads the log files while the processes write and rotate them: every line whole, each looked at once,
// before rotation deletes it if the reader is quick enough.
class LogLines {
public:
    explicit LogLines(std::string logs) : logs_(std::move(logs)) {}
    // Checks the lines ended since the last look; at the end, every file must end with a whole line.
    void Check(bool atEnd) {
        DIR* d = ::opendir(logs_.c_str());
        while (const dirent64* e = d ? ::readdir64(d) : nullptr) {
            const std::string name = e->d_name;
            if (name.rfind("serverLog.", 0) != 0) continue;
            const std::string content = msptest::ReadFile(logs_ + "/" + name);
            if (atEnd) {
                EXPECT_TRUE(content.empty() || content.back() == '\n') << name << " ends inside a line";
            }
            size_t& at = checked_[name];
            for (size_t end; (end = content.find('\n', at)) != std::string::npos; at = end + 1, ++lines_)
                EXPECT_TRUE(std::regex_match(content.substr(at, end - at), whole_))
                    << name << ": " << content.substr(at, end - at);
        }
        if (d) ::closedir(d);
    }
    size_t lines() const { return lines_; }

private:
    const std::string logs_;
    const std::regex whole_{
        std::string(R"(\d\d-\d\d-\d{4} : \d\d:\d\d:\d\d\.\d{3}\t : (L\d\.\d|P\d+) line \d+ )") +
        kChurnPayload};
    std::map<std::string, size_t> checked_;  // bytes of each file looked at
    size_t lines_ = 0;
};

TEST(LockChurn, LocksExcludeWhileProcessesComeAndGo) {
    const int rounds = Scaled(20, 50);
    msptest::TempDir dir;
    WriteChurnConfig(dir);
    Board* board = MapBoard(dir.file("board"), true);
    ASSERT_NE(nullptr, board);
    bool existed[4];
    Mutex* mine[4];  // this process's own objects of the four locks
    for (int n = 0; n < 4; ++n) {
        existed[n] = ::semget(KeyOf(n), 1, 0) >= 0;
        mine[n] = new Mutex(kLockNames[n]);
    }
    deinitializeConfig();
    ASSERT_EQ(CFG_OK, initializeConfig(dir.file("MediaServer.cfg").c_str()));
    for (int k = 0; k < kPeerKeys; ++k)
        ASSERT_EQ(CFG_OK, createConfigInt(C("churn-peers"), C("P" + std::to_string(k)), -1));
    deinitializeConfig();

    LogLines log(dir.file("logs"));
    const long long start = NowMs();
    std::vector<pid_t> longLived;
    for (int p = 0; p < kLongLived; ++p)
        longLived.push_back(msptest::StartChild([&, p] { return LongLived(*board, dir.path(), p); }));
    int peers = 0, killed[2] = {0, 0}, afterDeath[4] = {0, 0, 0, 0};
    for (int round = 0; round < rounds; ++round, peers += 3) {
        // Two peers start and exit normally; a third dies holding a lock, or between making it and freeing
        // it. As soon as it is dead, this process takes the lock as a newcomer would.
        const int kind = round % 2, lock = round / 2 % 4;
        const std::string roles[] = {(kind ? "holding " : "unfreed ") + std::to_string(lock),
                                     "normal " + std::to_string(2 * round),
                                     "normal " + std::to_string(2 * round + 1)};
        pid_t pids[3];
        for (int i = 0; i < 3; ++i) pids[i] = StartPeer(dir, roles[i], peers + i);
        for (int i = 0; i < 3; ++i) {
            const int status = msptest::WaitChild(pids[i], kChurnChildMs);
            EXPECT_EQ(i == 0 ? msptest::kChildSignalled : 0, status)
                << roles[i] << "\n"
                << msptest::ReadFile(dir.file("peer" + std::to_string(peers + i) + ".out"));
            if (i > 0) continue;
            afterDeath[lock] = std::max(afterDeath[lock], Enter(board->locks[lock], *mine[lock]));
            Leave(board->locks[lock], *mine[lock]);
        }
        log.Check(false);
        ++killed[kind];
    }
    Put(board->stop, 1);
    for (pid_t pid : longLived) EXPECT_EQ(0, msptest::WaitChild(pid, kChurnChildMs));
    const long long took = NowMs() - start;

    // Every key holds the last value set to it.
    int keys = 0;
    ASSERT_EQ(CFG_OK, initializeConfig(dir.file("MediaServer.cfg").c_str()));
    for (int p = 0; p < kLongLived; ++p)
        for (int t = 0; t < kLongLivedThreads; ++t, ++keys) {
            int value = -1;
            const std::string key = "L" + std::to_string(p) + "." + std::to_string(t);
            EXPECT_EQ(CFG_OK, getConfigInt(C("churn-long"), C(key), value)) << key;
            EXPECT_EQ(board->lastSet[p][t], value) << key;
        }
    for (int k = 0; k < kPeerKeys; ++k, ++keys) {
        int value = -2, last = -1;
        for (int n = k; n < 2 * rounds; n += kPeerKeys) last = n;
        EXPECT_EQ(CFG_OK, getConfigInt(C("churn-peers"), C("P" + std::to_string(k)), value)) << k;
        EXPECT_EQ(last, value) << k;
    }
    deinitializeConfig();
    log.Check(true);
    EXPECT_EQ(0, board->failures);
    for (int n = 0; n < 4; ++n) {
        const LockBoard& lock = board->locks[n];
        EXPECT_EQ(0, lock.overlaps) << kLockNames[n];
        EXPECT_LT(lock.longestWaitMs, 1000) << kLockNames[n];
        EXPECT_LT(afterDeath[n], 1000) << kLockNames[n];
        printf(
            "lock churn, %s: %d checked holds, %d overlaps; after a death, a newcomer waited at most %d ms, "
            "a waiter %d ms\n",
            kLockNames[n], lock.holds, lock.overlaps, afterDeath[n], lock.longestWaitMs);
    }
    printf(
        "lock churn: %d rounds in %lld ms, %d peers (%d killed holding, %d killed before freeing, %d sets "
        "left unfreed),\n  %d long-lived x %d threads, %d operations, %d log lines (%zu checked, the rest "
        "rotated away), %d keys checked\n",
        rounds, took, peers, killed[1], killed[0], board->unfreedMade, kLongLived, kLongLivedThreads,
        board->operations, board->lines, log.lines(), keys);

    // Nothing left held or never freed, and no set that was not there before: the library's own two locks
    // follow their names again here, so that this process removes them at exit, as it would have.
    for (Mutex* own : {eventLogger.mutex, languageReader.mutex})
        if (own) {
            own->lock();
            own->unlock();
        }
    for (int n = 0; n < 4; ++n) {
        mine[n]->lock();
        mine[n]->unlock();
        if (existed[n])
            keptLocks[n] = mine[n];
        else
            delete mine[n];
    }
    ::munmap(board, sizeof(Board));
}
