// msplat locks: the state of a lock held by a child process while another waits, read without a change.
#include <sys/ipc.h>
#include <sys/sem.h>

#include <chrono>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "cli/msplat_run.h"
#include "msplatform/mutex.h"

namespace {

std::vector<std::string> Words(const std::string& line) {
    std::vector<std::string> words;
    std::istringstream in(line);
    for (std::string word; in >> word;) words.push_back(word);
    return words;
}

// The rows of `msplat locks` for the names, as words, the time of the last operation left out.
std::vector<std::vector<std::string>> Rows(const std::vector<std::string>& names) {
    std::vector<std::string> args = {"locks"};
    args.insert(args.end(), names.begin(), names.end());
    const msptest::MsplatResult r = msptest::Msplat(args);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    std::vector<std::vector<std::string>> rows;
    std::istringstream in(r.out);
    for (std::string line; std::getline(in, line);) {
        rows.push_back(Words(line));
        if (rows.back().size() == 8) rows.back().pop_back();
    }
    return rows;
}

std::string CommandOf(pid_t pid) {
    std::string command = msptest::ReadFile("/proc/" + std::to_string(pid) + "/comm");
    return command.substr(0, command.find('\n'));
}

TEST(CliLocks, HeldByAChildWithAWaiterAndThenFree) {
    const std::string name = "msplatCliLocksTest", none = "msplatCliLocksNone";
    auto keyOf = [](const std::string& text) {
        unsigned sum = 0;
        for (unsigned char c : text) sum += c;
        return std::to_string(sum * 99u);
    };
    ASSERT_EQ(semget(std::stoi(keyOf(none)), 0, 0), -1);
    Mutex lock(name.c_str());  // the only object that removes the set, at the end of the test
    ASSERT_GT(lock.getid(), 0);
    const std::string id = std::to_string(lock.getid());
    msptest::Pipe held, release;
    // The children use the parent's object: one of their own would remove the set when they end.
    const pid_t holder = msptest::StartChild([&] {
        lock.lock();
        held.Send();
        bool released = release.Wait(120000);
        lock.unlock();
        return released ? 0 : 1;
    });
    ASSERT_TRUE(held.Wait(60000));
    const pid_t waiter = msptest::StartChild([&] {
        lock.lock();
        lock.unlock();
        return 0;
    });
    for (int i = 0; i < 3000 && semctl(lock.getid(), 0, GETNCNT) != 1; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    const std::vector<std::string> header = {"NAME", "KEY", "SET", "STATE", "PID", "COMMAND", "WAITERS"};
    EXPECT_EQ(Rows({name, none}),
              (std::vector<std::vector<std::string>>{
                  header,
                  {name, keyOf(name), id, "held", std::to_string(holder), CommandOf(holder), "1"},
                  {none, keyOf(none), "none", "-", "-", "-", "-"}}));
    // Reading changed nothing and made nothing.
    EXPECT_EQ(semctl(lock.getid(), 0, GETVAL), 0);
    EXPECT_EQ(semctl(lock.getid(), 0, GETPID), holder);
    EXPECT_EQ(semget(std::stoi(keyOf(none)), 0, 0), -1);
    release.Send();
    EXPECT_EQ(msptest::WaitChild(holder, 60000), 0);
    EXPECT_EQ(msptest::WaitChild(waiter, 60000), 0);
    // The waiter gave it back last, and it has ended.
    EXPECT_EQ(Rows({name}),
              (std::vector<std::vector<std::string>>{
                  header, {name, keyOf(name), id, "free", std::to_string(waiter), "(ended)", "0"}}));
    EXPECT_EQ(msptest::Msplat({"locks", ""}).status, 2);
}

}  // namespace
