// Several processes on the library's shared files and locks at once. MSPLATFORM_STRESS_LONG=1 multiplies
// the sizes; MSPLATFORM_STRESS_SCALE=n divides them (for slow tools such as valgrind).
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/sem.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <iterator>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "msplatform/ZvCfgCtrlMgr.h"
#include "msplatform/ZvEventLogger.h"
#include "msplatform/ZvLanguageReader.h"
#include "msplatform/commonAPIs.h"
#include "msplatform/eventLogger.h"
#include "msplatform/languageReader.h"
#include "msplatform/mediaFormats.h"
#include "msplatform/mutex.h"
#include "support/support.h"

using namespace msptest;

// Runs once, in this process, right before the library's next semget that may create a set.
static std::function<void()> beforeCreate;

// Found before the C library's: the library's objects are linked into this binary.
extern "C" int semget(key_t key, int count, int flags) noexcept {
    if ((flags & IPC_CREAT) && beforeCreate) std::exchange(beforeCreate, nullptr)();
    return static_cast<int>(::syscall(SYS_semget, key, count, flags));
}

namespace {

constexpr int kChildMs = 120000;  // a process of the stress that hangs fails the test this soon
const char kPayload[] = "the quick brown fox";

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

// A zeroed T in the file `path` (made when `create`), shared with every process that maps it.
template <typename T>
T* MapShared(const std::string& path, bool create) {
    const int fd = ::open(path.c_str(), O_RDWR | (create ? O_CREAT | O_TRUNC : 0), 0600);
    if (fd < 0 || (create && ::ftruncate(fd, sizeof(T)) != 0)) return nullptr;
    void* memory = ::mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ::close(fd);
    return memory == MAP_FAILED ? nullptr : static_cast<T*>(memory);
}

// ---- lock mechanics across processes, on names of the test's own

// Two processes find no set for one name. The first makes it and takes the lock while the second waits
// between its failed attach and its create: the second must then find the lock held, not free it again.
TEST(LockStress, ProcessesMakingOneSetAtOnceExcludeEachOther) {
    const std::string name = LockName("stress.race");
    TempDir dir;
    std::atomic<int>* inside = MapShared<std::atomic<int>>(dir.file("inside"), true);
    Pipe atCreate, held;
    const pid_t second = StartChild([&] {
        beforeCreate = [&] {
            atCreate.Send();
            held.Wait(kChildMs);
        };
        Mutex* m = new Mutex(name.c_str());  // never destroyed: that would remove the set
        m->lock();
        return m->getid() > 0 && *inside == 0 ? 0 : 1;
    });
    ASSERT_TRUE(atCreate.Wait(kChildMs));
    const pid_t first = StartChild([&] {
        Mutex* m = new Mutex(name.c_str());
        m->lock();
        *inside = 1;
        held.Send();
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        *inside = 0;
        m->unlock();
        return 0;
    });
    EXPECT_EQ(0, WaitChild(first, kChildMs));
    EXPECT_EQ(0, WaitChild(second, kChildMs)) << "the second maker freed a held lock";
    ::semctl(::semget(LockKey(name), 0, 0), 0, IPC_RMID);
}

// A process that got the lock by waiting holds it: a destructor elsewhere gives up on the set after half a
// second and leaves it held. When the holder is killed, the set is free, at 1.
TEST(LockStress, ASetHeldElsewhereOutlivesADestructorAndItsKilledHolder) {
    const std::string name = LockName("stress.held");
    Mutex* m = new Mutex(name.c_str());
    const int id = m->getid();
    m->lock();
    Pipe holding;
    const pid_t holder = StartChild([&]() -> int {
        Mutex* mine = new Mutex(name.c_str());
        mine->lock();  // waits, then gives back and takes again without waiting: each step undone at death
        mine->unlock();
        mine->lock();
        holding.Send();
        for (;;) ::pause();
    });
    for (int i = 0; i < 10000 && ::semctl(id, 0, GETNCNT) < 1; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    m->unlock();
    EXPECT_TRUE(holding.Wait(kChildMs));
    const long long start = NowMs();
    delete m;
    EXPECT_TRUE(NowMs() - start >= 400 && NowMs() - start < 1500) << NowMs() - start << " ms";
    EXPECT_EQ(0, ::semctl(id, 0, GETVAL)) << "a set held elsewhere was removed";
    ::kill(holder, SIGKILL);
    EXPECT_EQ(kChildSignalled, WaitChild(holder, kChildMs));
    EXPECT_EQ(1, ::semctl(id, 0, GETVAL)) << "a killed holder left the set held";
    ::semctl(id, 0, IPC_RMID);
}

// ---- the configuration store

// While another process rewrites the scan paths between a short and a long form, every answer is a
// terminated prefix of the long form: a value that grew between its two reads is cut, and ended.
TEST(ConfigStress, ScanPathsReadWhileAnotherProcessRewritesThem) {
    TempDir dir;
    ScopedChdir cd(dir.path());
    const std::string longValue = "/share/a-much-longer-list;/share/of-scan-paths;/share/than-before";
    WriteFile("MediaServer.cfg", "[MCM]\nscanPaths=\"\"\n");
    deinitializeConfig();
    ASSERT_EQ(CFG_OK, initializeConfig("MediaServer.cfg"));
    const pid_t writer = StartChild([&] {
        for (int i = 0; i < 400; ++i)
            setConfigString(C("MCM"), C("scanPaths"), reinterpret_cast<unsigned char*>(C(longValue)),
                            i % 2 ? 2 : int(longValue.size()));
        return 0;
    });
    for (int i = 0; i < 200; ++i) {
        unsigned char* paths = nullptr;
        ASSERT_EQ(0, getConfigScanPaths(&paths));
        const std::string got = reinterpret_cast<char*>(paths);
        free(paths);
        ASSERT_EQ(0, longValue.compare(0, got.size(), got)) << got;
    }
    EXPECT_EQ(0, WaitChild(writer, kChildMs));
    deinitializeConfig();
}

}  // namespace

// ---- the four locks while processes come and go: long-lived processes work under them, and in each round
// new processes load the library, use all four services and exit normally (removing two sets), or die with
// SIGKILL while holding a lock, or between making a set and freeing it.

const char* const kLockNames[4] = {"cfgCtrlMgr", "eventLogger", "languageReader", "MediaMapper"};
constexpr int kLongLived = 3, kThreads = 2;
// A worker's own key and log writer: long-lived thread t of process p has slot p * kThreads + t, normal peer
// n the slot 6 + n % 20, so that the file stays small.
constexpr int kSlots = kLongLived * kThreads + 20;

// What all processes of the churn share, in a file that each maps.
struct LockBoard {
    std::atomic<int> holder, doomed;  // the thread inside a checked hold; a peer's that is about to be killed
    std::atomic<long long> diedAt;    // when the last peer that held or made this lock was killed
    std::atomic<int> overlaps;        // holds that found another holder inside
};
struct Board {
    LockBoard locks[4];
    std::atomic<int> stop, operations, failures;       // failures: wrong answers, lost updates, failed calls
    std::atomic<int> lastSet[kSlots], logged[kSlots];  // each slot's last value, and its log lines
};

// Takes `m`. Another thread found inside `lock` is an overlap, unless it is a peer killed while holding.
void Enter(LockBoard& lock, Mutex& m) {
    m.lock();
    int inside = lock.holder.exchange(::gettid());
    if (inside != 0 && !lock.doomed.compare_exchange_strong(inside, 0)) ++lock.overlaps;
}

void Leave(LockBoard& lock, Mutex& m) {
    int me = ::gettid();
    if (!lock.holder.compare_exchange_strong(me, 0)) ++lock.overlaps;
    m.unlock();
}

// Starts the four services in `dir`, and the process's own objects of the four locks: never destroyed, so
// that only the services remove their sets.
bool StartServices(const std::string& dir, Mutex** mine) {
    const std::string config = dir + "/MediaServer.cfg";
    for (int n = 0; n < 4; ++n) mine[n] = new Mutex(kLockNames[n]);
    deinitializeConfig();
    return ::chdir(dir.c_str()) == 0 && initializeConfig(config.c_str()) == CFG_OK &&
           initializeLogger(C(config), C("churn")) == 1 && initializeLanguageReader(C(config)) == 1 &&
           MF_Initialize() == 1;
}

bool TablesAnswer() {
    const char* mime = MF_GetMimeTypeByExtension(C("mp3"));
    return std::string(Tx("-", "Home")) == "Startseite" && mime && std::string(mime) == "audio/mpeg";
}

// A worker on `slot`, for `steps` steps or, with 0, until the board says stop. In turn it logs a line, sets
// its key to a value never set before and reads it back, looks a term and a format up, and holds a lock.
void Work(Board& board, Mutex** mine, int slot, int steps) {
    const std::string key = "K" + std::to_string(slot);
    for (int i = 1, value = -1; steps ? i <= steps : !board.stop; ++i) {
        const int op = ++board.operations;
        if (i % 4 == 0) eventLogOut("%s.0 line %d %s", key.c_str(), board.logged[slot]++, kPayload);
        if (i % 4 == 1 && (setConfigInt(C("churn"), C(key), op) != CFG_OK ||
                           getConfigInt(C("churn"), C(key), value) != CFG_OK || value != op))
            ++board.failures;
        if (i % 4 == 1) board.lastSet[slot] = op;
        if (i % 4 == 2 && !TablesAnswer()) ++board.failures;
        if (i % 4 == 3) {
            Enter(board.locks[i / 4 % 4], *mine[i / 4 % 4]);
            std::this_thread::sleep_for(std::chrono::microseconds(200));
            Leave(board.locks[i / 4 % 4], *mine[i / 4 % 4]);
        }
    }
}

// A peer, a process of its own started from this binary: "normal <n>", "holding <lock>" or "unfreed <lock>".
TEST(LockChurn, Peer) {
    const char* dir = getenv("MSPLATFORM_CHURN_DIR");
    if (!dir) GTEST_SKIP() << "a process that LockChurn starts";
    Board* board = MapShared<Board>(std::string(dir) + "/board", false);
    ASSERT_NE(nullptr, board);
    char role[16] = {};
    int n = -1;
    sscanf(getenv("MSPLATFORM_CHURN_ROLE"), "%15s %d", role, &n);
    if (role == std::string("normal")) {
        static Mutex* mine[4];  // still reachable at exit, for the leak check
        ASSERT_TRUE(StartServices(dir, mine));
        Work(*board, mine, kLongLived * kThreads + n % 20, 16);
        MF_UnInitialize();
        deinitializeConfig();
        return;  // the process exits normally: the logger's and the language reader's sets go
    }
    LockBoard& lock = board->locks[n];
    if (role == std::string("holding")) {
        Enter(lock, *new Mutex(kLockNames[n]));
        std::this_thread::sleep_for(std::chrono::milliseconds(400));  // past the grace for never freed sets
        lock.doomed = ::gettid();
    } else {
        // Removed the way a destructor does, then made again and left at 0, as by a creator killed before its
        // SETVAL. A waiter that makes it again first takes the place: then once more.
        for (int attempt = 0; attempt < 5; ++attempt) {
            delete new Mutex(kLockNames[n]);
            if (::semget(LockKey(kLockNames[n]), 1, IPC_CREAT | IPC_EXCL | 0660) > 0) break;
        }
    }
    lock.diedAt = NowMs();
    ::raise(SIGKILL);
}

// Starts this binary again as a peer with `role`; its output goes to the file "<role>.out" of the directory.
pid_t StartPeer(const TempDir& dir, const std::string& role) {
    return StartChild([&] {
        ::setenv("MSPLATFORM_CHURN_ROLE", role.c_str(), 1);
        ::setenv("MSPLATFORM_CHURN_DIR", dir.path().c_str(), 1);
        const int fd = ::open(dir.file(role + ".out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        char self[4096] = {};
        if (fd < 0 || ::dup2(fd, 1) < 0 || ::dup2(fd, 2) < 0 || ::readlink("/proc/self/exe", self, 4095) <= 0)
            return 126;
        std::istringstream emulator(MSPLATFORM_EMULATOR);
        std::vector<std::string> words{std::istream_iterator<std::string>(emulator), {}};
        words.insert(words.end(), {self, "--gtest_filter=LockChurn.Peer"});
        std::vector<char*> argv(words.size() + 1);  // null-terminated
        for (size_t i = 0; i < words.size(); ++i) argv[i] = words[i].data();
        ::execvp(argv[0], argv.data());
        return 127;
    });
}

// Checks the log files of `dir`: each line whole, each file ending with one, and in a file the lines of each
// writer ("<process>.<thread>", numbering them from 0) one after the other. Returns the lines of each writer.
std::map<std::string, int> CheckLogs(const std::string& dir) {
    const std::regex whole(
        std::string(R"(\d\d-\d\d-\d{4} : \d\d:\d\d:\d\d\.\d{3}\t : (\w+\.\d) line (\d+) )") + kPayload);
    std::map<std::string, int> seen;
    std::vector<std::string> bad;
    for (const std::string& name : ListDir(dir)) {
        if (name.rfind("serverLog.", 0) != 0) continue;
        const std::string content = ReadFile(dir + "/" + name);
        if (!content.empty() && content.back() != '\n') bad.push_back(name + " ends inside a line");
        std::istringstream lines(content);
        std::map<std::string, int> last;  // each writer's last line number in this file
        std::smatch m;
        for (std::string line; std::getline(lines, line);) {
            if (!std::regex_match(line, m, whole)) {
                bad.push_back(name + ": " + line);
                continue;
            }
            const int i = std::stoi(m[2]);
            if (!last.emplace(m[1], i).second && ++last[m[1]] != i)
                bad.push_back(name + ", out of turn: " + line);
            last[m[1]] = i;
            ++seen[m[1]];
        }
    }
    EXPECT_TRUE(bad.empty()) << bad.size() << " lines broken, mixed or lost; the first: " << bad[0];
    return seen;
}

TEST(LockChurn, LocksExcludeWhileProcessesComeAndGo) {
    const int rounds = Scaled(20, 50);
    TempDir dir;
    // Small log files, none deleted: processes rotate every dozen lines, often within one millisecond.
    std::string config =
        "[churn]\r\nlogMode=1\r\nlogVerbosity=1\r\nlogFilesCount=1000000\r\nlogFileSize=1000\r\n";
    for (int slot = 0; slot < kSlots; ++slot) config += "K" + std::to_string(slot) + "=0\r\n";
    WriteFile(dir.file("MediaServer.cfg"),
              config + "logFilePath=\"" + dir.file("logs") +
                  "\"\r\n\r\n[LANGUAGE]\r\nlanguageFilePath=\"" MSPLATFORM_SOURCE_DIR
                  "/data/languages.xml\"\r\ncurrentLanguage=\"Deutsch\"\r\n\r\n");
    WriteFile(dir.file("MediaFormats.xml"), ReadFile(MSPLATFORM_SOURCE_DIR "/data/MediaFormats.xml"));
    Board* board = MapShared<Board>(dir.file("board"), true);
    ASSERT_NE(nullptr, board);
    static Mutex* mine[4];  // this process's own objects of the four locks; those of sets found here stay
    bool existed[4];
    for (int n = 0; n < 4; ++n) {
        existed[n] = ::semget(LockKey(kLockNames[n]), 0, 0) >= 0;
        mine[n] = new Mutex(kLockNames[n]);
    }

    std::vector<pid_t> longLived;
    for (int p = 0; p < kLongLived; ++p)
        longLived.push_back(StartChild([&, p] {  // its threads work until the board says stop
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);  // or until this process ends
            Mutex* own[4];
            if (!StartServices(dir.path(), own)) return 1;
            std::vector<std::thread> threads;
            for (int t = 0; t < kThreads; ++t)
                threads.emplace_back([&, t] { Work(*board, own, p * kThreads + t, 0); });
            for (std::thread& thread : threads) thread.join();
            return 0;
        }));
    long long afterDeath[4] = {0, 0, 0, 0};
    for (int round = 0; round < rounds; ++round) {
        // Two peers start and exit normally; a third dies holding a lock, or between making it and freeing
        // it. As soon as it is dead, this process takes the lock as a newcomer would.
        const int lock = round / 2 % 4;
        const std::string roles[] = {(round % 2 ? "holding " : "unfreed ") + std::to_string(lock),
                                     "normal " + std::to_string(2 * round),
                                     "normal " + std::to_string(2 * round + 1)};
        pid_t pids[3];
        for (int i = 0; i < 3; ++i) pids[i] = StartPeer(dir, roles[i]);
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(i == 0 ? kChildSignalled : 0, WaitChild(pids[i], kChildMs))
                << roles[i] + "\n" + ReadFile(dir.file(roles[i] + ".out"));
            if (i > 0) continue;
            Enter(board->locks[lock], *mine[lock]);
            afterDeath[lock] = std::max(afterDeath[lock], NowMs() - board->locks[lock].diedAt);
            Leave(board->locks[lock], *mine[lock]);
        }
    }
    board->stop = 1;
    for (pid_t pid : longLived) EXPECT_EQ(0, WaitChild(pid, kChildMs));
    printf("lock churn: %d rounds, %d operations\n", rounds, board->operations.load());

    // Every line is there, and every key holds the last value set to it.
    std::map<std::string, int> seen = CheckLogs(dir.file("logs"));
    ASSERT_EQ(CFG_OK, initializeConfig(dir.file("MediaServer.cfg").c_str()));
    for (int slot = 0; slot < kSlots; ++slot) {
        const std::string key = "K" + std::to_string(slot);
        int value = -1;  // where the key cannot be read
        getConfigInt(C("churn"), C(key), value);
        EXPECT_EQ(board->lastSet[slot], value) << key;
        EXPECT_EQ(board->logged[slot], seen[key + ".0"]) << key;
    }
    deinitializeConfig();
    EXPECT_EQ(0, board->failures);
    for (int n = 0; n < 4; ++n) {
        EXPECT_EQ(0, board->locks[n].overlaps) << kLockNames[n];
        EXPECT_LT(afterDeath[n], 1000) << kLockNames[n] << ": a newcomer's wait after a death, in ms";
    }

    // Nothing left held or never freed, and no set that was not there before: the library's own two locks
    // follow their names again here, so that this process removes them at exit, as it would have.
    for (Mutex* own : {eventLogger.mutex, languageReader.mutex, mine[0], mine[1], mine[2], mine[3]})
        if (own) {
            own->lock();
            own->unlock();
        }
    for (int n = 0; n < 4; ++n)
        if (!existed[n]) delete mine[n];
    ::munmap(board, sizeof(Board));
}
