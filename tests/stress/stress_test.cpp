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
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "msplatform/ZvCfgCtrlMgr.h"
#include "msplatform/ZvEventLogger.h"
#include "msplatform/ZvLanguageReader.h"
#include "msplatform/eventLogger.h"
#include "msplatform/languageReader.h"
#include "msplatform/mediaFormats.h"
#include "msplatform/mutex.h"
#include "support/support.h"

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

// Runs once, in this process, right before the library's next semget that may create a set.
std::function<void()> beforeCreate;

}  // namespace

// Found before the C library's: the library's objects are linked into this binary.
extern "C" int semget(key_t key, int count, int flags) noexcept {
    if ((flags & IPC_CREAT) && beforeCreate) std::exchange(beforeCreate, nullptr)();
    return static_cast<int>(::syscall(SYS_semget, key, count, flags));
}

namespace {

// ---- lock mechanics across processes, on names of the test's own

// Two processes find no set for one name. The first makes it and takes the lock while the second waits
// between its failed attach and its create: the second must then find the lock held, not free it again.
TEST(LockStress, ProcessesMakingOneSetAtOnceExcludeEachOther) {
    const std::string name = msptest::LockName("stress.race");
    void* shared = ::mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(MAP_FAILED, shared);
    int& inside = *static_cast<int*>(shared);
    msptest::Pipe atCreate, held;
    const pid_t second = msptest::StartChild([&] {
        beforeCreate = [&] {
            atCreate.Send();
            held.Wait(kChildMs);
        };
        Mutex* m = new Mutex(name.c_str());  // never destroyed: that would remove the set
        m->lock();
        return m->getid() > 0 && Load(inside) == 0 ? 0 : 1;
    });
    ASSERT_TRUE(atCreate.Wait(kChildMs));
    const pid_t first = msptest::StartChild([&] {
        Mutex* m = new Mutex(name.c_str());
        m->lock();
        Put(inside, 1);
        held.Send();
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        Put(inside, 0);
        m->unlock();
        return 0;
    });
    EXPECT_EQ(0, msptest::WaitChild(first, kChildMs));
    EXPECT_EQ(0, msptest::WaitChild(second, kChildMs)) << "the second maker freed a held lock";
    ::semctl(::semget(msptest::LockKey(name), 0, 0), 0, IPC_RMID);
    ::munmap(shared, sizeof(int));
}

// A process that got the lock by waiting holds it: a destructor elsewhere gives up on the set after half a
// second and leaves it held. When the holder is killed, the set is free.
TEST(LockStress, ASetHeldElsewhereOutlivesADestructorAndItsKilledHolder) {
    const std::string name = msptest::LockName("stress.held");
    Mutex* m = new Mutex(name.c_str());
    const int id = m->getid();
    ASSERT_GT(id, 0);
    m->lock();
    msptest::Pipe holding;
    const pid_t holder = msptest::StartChild([&] {
        Mutex* mine = new Mutex(name.c_str());
        mine->lock();  // waits, then gives back and takes again without waiting: each step undone at death
        mine->unlock();
        mine->lock();
        holding.Send();
        for (;;) ::pause();
        return 0;
    });
    for (int i = 0; i < 10000 && ::semctl(id, 0, GETNCNT) < 1; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    m->unlock();
    EXPECT_TRUE(holding.Wait(kChildMs));
    const long long start = NowMs();
    delete m;
    const long long took = NowMs() - start;
    EXPECT_TRUE(took >= 400 && took < 1500) << took << " ms";
    EXPECT_EQ(0, ::semctl(id, 0, GETVAL)) << "a set held elsewhere was removed";
    ::kill(holder, SIGKILL);
    EXPECT_EQ(msptest::kChildSignalled, msptest::WaitChild(holder, kChildMs));
    EXPECT_EQ(1, ::semctl(id, 0, GETVAL)) << "a killed holder left the set held";
    ::semctl(id, 0, IPC_RMID);
}

// ---- log lines of several processes, read while they are written

// Each line whole; each file written by one process; in a file, each writer's lines one after the other.
// A writer is "<process>.<thread>", and its lines are numbered from 0.
class LogLines {
public:
    explicit LogLines(std::string dir) : dir_(std::move(dir)) {}
    // Checks the lines ended since the last look; at the end, every file must end with a whole line.
    void Check(bool atEnd) {
        DIR* d = ::opendir(dir_.c_str());
        while (const dirent64* e = d ? ::readdir64(d) : nullptr) {
            const std::string name = e->d_name;
            if (name.rfind("serverLog.", 0) != 0) continue;
            const std::string content = msptest::ReadFile(dir_ + "/" + name);
            if (atEnd && !content.empty() && content.back() != '\n') Bad(name, "ends inside a line");
            File& file = files_[name];
            for (size_t end; (end = content.find('\n', file.checked)) != std::string::npos;
                 file.checked = end + 1) {
                const std::string line = content.substr(file.checked, end - file.checked);
                std::smatch m;
                if (!std::regex_match(line, m, whole_)) {
                    Bad(name, line);
                    continue;
                }
                const std::string writer = m[1].str() + "." + m[2].str();
                const int i = std::stoi(m[3]);
                auto last = file.last.emplace(writer, i - 1).first;
                if (file.process.empty()) file.process = m[1];
                if (file.process != m[1] || last->second + 1 != i) Bad(name, "out of turn: " + line);
                last->second = i;
                ++seen_[writer];
            }
        }
        if (d) ::closedir(d);
        if (atEnd) {
            EXPECT_EQ(0, bad_) << "lines broken, mixed or lost; the first: " << first_;
        }
    }
    int Seen(const std::string& writer) { return seen_[writer]; }
    int Lines() const {
        int lines = 0;
        for (const auto& writer : seen_) lines += writer.second;
        return lines;
    }

private:
    struct File {
        size_t checked = 0;  // bytes looked at
        std::string process;
        std::map<std::string, int> last;  // each writer's last line number
    };
    void Bad(const std::string& file, const std::string& what) {
        if (bad_++ == 0) first_ = file + ": " + what;
    }
    const std::string dir_;
    const std::regex whole_{
        std::string(R"(\d\d-\d\d-\d{4} : \d\d:\d\d:\d\d\.\d{3}\t : (\w+)\.(\d) line (\d+) )") + kPayload};
    std::map<std::string, File> files_;
    std::map<std::string, int> seen_;  // lines of each writer
    int bad_ = 0;
    std::string first_;
};

// Four processes of one module rotate small files in one directory at once, often within one millisecond;
// none is deleted, so every line must be there.
TEST(LoggerStress, ProcessesRotatingInOneDirectoryLoseNoLine) {
    msptest::TempDir dir;
    const std::string config = dir.file("MediaServer.cfg");
    msptest::WriteFile(
        config,
        "[stress]\r\nlogMode=1\r\nlogVerbosity=1\r\nlogFilesCount=1000000\r\nlogFileSize=2000\r\n"
        "logFilePath=\"" +
            dir.file("logs") + "\"\r\n");
    const int lines = Scaled(2000, 10);
    std::vector<pid_t> children;
    for (int p = 0; p < 4; ++p)
        children.push_back(msptest::StartChild([&, p] {
            if (initializeLogger(C(config), C("stress")) != 1) return 1;
            for (int i = 0; i < lines; ++i) eventLogOut("p%d.0 line %d %s", p, i, kPayload);
            return 0;
        }));
    for (pid_t pid : children) EXPECT_EQ(0, msptest::WaitChild(pid, kChildMs));
    LogLines log(dir.file("logs"));
    log.Check(true);
    for (int p = 0; p < 4; ++p) EXPECT_EQ(lines, log.Seen("p" + std::to_string(p) + ".0")) << p;
}

}  // namespace

// ---- the four locks while processes come and go: long-lived processes work under them, and in each round
// new processes load the library, use all four services and exit normally (removing two sets), or die with
// SIGKILL while holding a lock, or between making a set and freeing it.

const char* const kLockNames[4] = {"cfgCtrlMgr", "eventLogger", "languageReader", "MediaMapper"};
constexpr int kLongLived = 3, kThreads = 2;
constexpr int kPeerKeys = 20;  // normal peers set key n % 20, so that the file stays small
char kChurn[] = "churn";

// What all processes of the churn share, in a file that each maps.
struct LockBoard {
    int holder;        // the thread inside a checked hold, 0 for none
    int doomed;        // a peer's thread that holds and is about to be killed
    long long diedAt;  // when the last peer that held or made this lock was killed
    int overlaps;      // holds that found another holder inside
    int holds;
};
struct Board {
    LockBoard locks[4];
    int stop;
    int failures;  // wrong answers, lost updates, failed calls: anything else a process found wrong
    int operations;
    int lastSet[kLongLived][kThreads];  // the last value each long-lived thread set its key to
};

Board* MapBoard(const std::string& path, bool create) {
    const int fd = ::open(path.c_str(), O_RDWR | (create ? O_CREAT | O_TRUNC : 0), 0600);
    if (fd < 0 || (create && ::ftruncate(fd, sizeof(Board)) != 0)) return nullptr;
    void* memory = ::mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ::close(fd);
    return memory == MAP_FAILED ? nullptr : static_cast<Board*>(memory);
}

int Tid() {
    return static_cast<int>(::syscall(SYS_gettid));
}

// Takes `m` and marks this thread inside `lock`. Another thread found inside is an overlap, unless it is a
// peer that was killed while holding.
void Enter(LockBoard& lock, Mutex& m) {
    m.lock();
    int inside = __atomic_exchange_n(&lock.holder, Tid(), __ATOMIC_SEQ_CST);
    if (inside != 0 &&
        !__atomic_compare_exchange_n(&lock.doomed, &inside, 0, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST))
        Add(lock.overlaps);
    Add(lock.holds);
}

void Leave(LockBoard& lock, Mutex& m) {
    int me = Tid();
    if (!__atomic_compare_exchange_n(&lock.holder, &me, 0, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST))
        Add(lock.overlaps);
    m.unlock();
}

void Hold(LockBoard& lock, Mutex& m) {
    Enter(lock, m);
    std::this_thread::sleep_for(std::chrono::microseconds(200));
    Leave(lock, m);
}

// Starts the four services in `dir` (the caller's process, which is a child of the test).
bool StartServices(const std::string& dir) {
    const std::string config = dir + "/MediaServer.cfg";
    deinitializeConfig();
    return ::chdir(dir.c_str()) == 0 && initializeConfig(config.c_str()) == CFG_OK &&
           initializeLogger(C(config), kChurn) == 1 && initializeLanguageReader(C(config)) == 1 &&
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
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            const std::string key = "L" + std::to_string(p) + "." + std::to_string(t);
            if (createConfigInt(C("churn-long"), C(key), 0) != CFG_OK) Add(board.failures);
            for (int i = 1, logged = 0; !Load(board.stop); ++i, Add(board.operations)) {
                int value = -1;
                if (i % 4 == 0) {
                    eventLogOut("%s line %d %s", key.c_str(), logged++, kPayload);
                } else if (i % 4 == 1) {
                    if (setConfigInt(C("churn-long"), C(key), i) != CFG_OK ||
                        getConfigInt(C("churn-long"), C(key), value) != CFG_OK || value != i)
                        Add(board.failures);
                    Put(board.lastSet[p][t], i);
                } else if (i % 4 == 2) {
                    if (!TablesAnswer()) Add(board.failures);
                } else {
                    Hold(board.locks[i / 4 % 4], *mine[i / 4 % 4]);
                }
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
        for (int i = 0; i < 5; ++i) eventLogOut("P%d.0 line %d %s", n, i, kPayload);
        EXPECT_TRUE(TablesAnswer());
        for (int k = 0; k < 4; ++k) Hold(board.locks[k], *(mine[k] = new Mutex(kLockNames[k])));
        MF_UnInitialize();
        deinitializeConfig();
        return;  // the process exits normally: the logger's and the language reader's sets go
    }
    LockBoard& lock = board.locks[n];
    if (role == "holding") {
        Enter(lock, *new Mutex(kLockNames[n]));
        std::this_thread::sleep_for(std::chrono::milliseconds(400));  // past the grace for never freed sets
        Put(lock.doomed, Tid());
    } else {
        // Removed the way a destructor does, then made again and left at 0, as by a creator killed before its
        // SETVAL. A waiter that makes it again first takes the place: then once more.
        for (int attempt = 0; attempt < 5; ++attempt) {
            delete new Mutex(kLockNames[n]);
            if (::semget(msptest::LockKey(kLockNames[n]), 1, IPC_CREAT | IPC_EXCL | 0660) > 0) break;
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

TEST(LockChurn, LocksExcludeWhileProcessesComeAndGo) {
    const int rounds = Scaled(20, 50);
    msptest::TempDir dir;
    msptest::WriteFile(dir.file("MediaServer.cfg"),
                       "[churn]\r\nlogMode=1\r\nlogVerbosity=1\r\nlogFilesCount=10\r\nlogFileSize=16000\r\n"
                       "logFilePath=\"" +
                           dir.file("logs") + "\"\r\n\r\n[LANGUAGE]\r\nlanguageFilePath=\"" +
                           MSPLATFORM_SOURCE_DIR
                           "/data/languages.xml\"\r\ncurrentLanguage=\"Deutsch\"\r\n\r\n");
    msptest::WriteFile(dir.file("MediaFormats.xml"),
                       msptest::ReadFile(MSPLATFORM_SOURCE_DIR "/data/MediaFormats.xml"));
    Board* board = MapBoard(dir.file("board"), true);
    ASSERT_NE(nullptr, board);
    static Mutex* mine[4];  // this process's own objects of the four locks; those of sets found here stay
    bool existed[4];
    for (int n = 0; n < 4; ++n) {
        existed[n] = ::semget(msptest::LockKey(kLockNames[n]), 0, 0) >= 0;
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
    int peers = 0, afterDeath[4] = {0, 0, 0, 0};
    for (int round = 0; round < rounds; ++round, peers += 3) {
        // Two peers start and exit normally; a third dies holding a lock, or between making it and freeing
        // it. As soon as it is dead, this process takes the lock as a newcomer would.
        const int lock = round / 2 % 4;
        const std::string roles[] = {(round % 2 ? "holding " : "unfreed ") + std::to_string(lock),
                                     "normal " + std::to_string(2 * round),
                                     "normal " + std::to_string(2 * round + 1)};
        pid_t pids[3];
        for (int i = 0; i < 3; ++i) pids[i] = StartPeer(dir, roles[i], peers + i);
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(i == 0 ? msptest::kChildSignalled : 0, msptest::WaitChild(pids[i], kChildMs))
                << roles[i] << "\n"
                << msptest::ReadFile(dir.file("peer" + std::to_string(peers + i) + ".out"));
            if (i > 0) continue;
            Enter(board->locks[lock], *mine[lock]);
            afterDeath[lock] =
                std::max(afterDeath[lock], static_cast<int>(NowMs() - Load(board->locks[lock].diedAt)));
            Leave(board->locks[lock], *mine[lock]);
        }
        log.Check(false);
    }
    Put(board->stop, 1);
    for (pid_t pid : longLived) EXPECT_EQ(0, msptest::WaitChild(pid, kChildMs));
    const long long took = NowMs() - start;

    // Every key holds the last value set to it.
    ASSERT_EQ(CFG_OK, initializeConfig(dir.file("MediaServer.cfg").c_str()));
    for (int p = 0; p < kLongLived; ++p)
        for (int t = 0; t < kThreads; ++t) {
            int value = -1;
            const std::string key = "L" + std::to_string(p) + "." + std::to_string(t);
            EXPECT_EQ(CFG_OK, getConfigInt(C("churn-long"), C(key), value)) << key;
            EXPECT_EQ(board->lastSet[p][t], value) << key;
        }
    for (int k = 0; k < kPeerKeys; ++k) {
        int value = -2, last = -1;
        for (int n = k; n < 2 * rounds; n += kPeerKeys) last = n;
        EXPECT_EQ(CFG_OK, getConfigInt(C("churn-peers"), C("P" + std::to_string(k)), value)) << k;
        EXPECT_EQ(last, value) << k;
    }
    deinitializeConfig();
    log.Check(true);
    EXPECT_EQ(0, board->failures);
    for (int n = 0; n < 4; ++n) {
        EXPECT_EQ(0, board->locks[n].overlaps) << kLockNames[n];
        EXPECT_LT(afterDeath[n], 1000) << kLockNames[n] << ": a newcomer's wait after a death, in ms";
        printf("lock churn, %s: %d checked holds, %d overlaps, a newcomer through %d ms after a death\n",
               kLockNames[n], board->locks[n].holds, board->locks[n].overlaps, afterDeath[n]);
    }
    printf(
        "lock churn: %d rounds in %lld ms, %d peers, %d long-lived x %d threads, %d operations, %d log lines "
        "checked (the rest rotated away), %d keys checked\n",
        rounds, took, peers, kLongLived, kThreads, board->operations, log.Lines(),
        kLongLived * kThreads + kPeerKeys);

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
