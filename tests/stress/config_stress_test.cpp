// Eight processes on one MediaServer.cfg, each running a fixed plan of creates and sets of its own keys and
// sets and gets of shared ones: every get must see a value that some set wrote, and at the end every own key
// must hold the last value its process gave it.
#include "msplatform/ZvCfgCtrlMgr.h"

#include <stdio.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "stress/stress.h"
#include "support/support.h"

namespace {

constexpr int kProcesses = 8, kShared = 4;
char kSection[] = "stress";

char* C(const std::string& s) {
    return const_cast<char*>(s.c_str());
}
int IntValue(int p, int i) {
    return (p + 1) * 100000 + i;
}
std::string Text(int p, int i) {
    return "p" + std::to_string(p) + "i" + std::to_string(i);
}
std::string Own(int p, int k) {
    return "p" + std::to_string(p) + "k" + std::to_string(k);
}

// Step i of process p, the same in the child that runs it and in the parent that checks the end: 20 % create
// an own key (even ones int, odd ones string), 20 % set own key `key`, 30 % set a shared key, 30 % get both.
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

int Put(bool create, const std::string& key, bool isInt, int p, int i) {
    if (isInt)
        return create ? createConfigInt(kSection, C(key), IntValue(p, i))
                      : setConfigInt(kSection, C(key), IntValue(p, i));
    const std::string v = Text(p, i);
    unsigned char* u = reinterpret_cast<unsigned char*>(C(v));
    return create ? createConfigString(kSection, C(key), u, static_cast<int>(v.size()))
                  : setConfigString(kSection, C(key), u, static_cast<int>(v.size()));
}

bool Written(int v, int steps) {
    const int p = v / 100000 - 1;
    return v == 0 || (p >= 0 && p < kProcesses && v % 100000 < steps);
}
bool Written(const std::string& v, int steps) {
    int p = -1, i = -1;
    return v == "initial" || (sscanf(v.c_str(), "p%di%d", &p, &i) == 2 && p >= 0 && p < kProcesses &&
                              i >= 0 && i < steps && v == Text(p, i));
}

// 0 when every operation gave what it must, else the step plus one.
int RunPlan(int p, int steps) {
    Plan plan{p};
    for (int i = 0; i < steps; ++i) {
        const auto [op, key] = plan.next(i);
        const std::string shared = std::to_string(i / 2 % kShared);
        int rc = CFG_OK, v = -1, length = -1;
        if (op == kCreate || op == kSetOwn) {
            rc = Put(op == kCreate, Own(p, key), key % 2 == 0, p, i);
        } else if (op == kSetShared) {
            rc = Put(false, (i % 2 ? "int" : "text") + shared, i % 2, p, i);
        } else if ((rc = getConfigInt(kSection, C("int" + shared), v)) == CFG_OK && !Written(v, steps)) {
            return i + 1;
        } else if (rc == CFG_OK &&
                   (rc = getConfigStringLen(kSection, C("text" + shared), length)) == CFG_OK) {
            // The value may grow between the two calls: it then comes back cut and unterminated, and is not
            // judged.
            std::vector<unsigned char> buf(static_cast<size_t>(length) + 1, 0xFF);
            rc = getConfigString(kSection, C("text" + shared), buf.data(), length);
            if (rc == CFG_OK && memchr(buf.data(), 0, buf.size()) &&
                !Written(std::string(reinterpret_cast<char*>(buf.data())), steps))
                return i + 1;
        }
        if (rc != CFG_OK) return i + 1;
    }
    return 0;
}

TEST(ConfigStress, ProcessesShareOneFileWithoutLoss) {
    const int steps = stress::Scaled(500, 4);
    msptest::TempDir dir;
    deinitializeConfig();
    ASSERT_EQ(CFG_OK, initializeConfig(dir.file("MediaServer.cfg").c_str()));
    for (int n = 0; n < kShared; ++n) {
        ASSERT_EQ(CFG_OK, createConfigInt(kSection, C("int" + std::to_string(n)), 0));
        ASSERT_EQ(CFG_OK, createConfigString(kSection, C("text" + std::to_string(n)),
                                             reinterpret_cast<unsigned char*>(C("initial")), 7));
    }
    const long long start = stress::NowMs();
    std::vector<pid_t> children;
    for (int p = 0; p < kProcesses; ++p)
        children.push_back(msptest::StartChild([=] { return RunPlan(p, steps); }));
    for (int p = 0; p < kProcesses; ++p)
        EXPECT_EQ(0, msptest::WaitChild(children[p], 600000)) << "process " << p;
    const long long elapsed = stress::NowMs() - start;

    // One read through the store (the file reads whole), then each own key's line with its last value.
    int probe = -1;
    ASSERT_EQ(CFG_OK, getConfigInt(kSection, C("int0"), probe));
    const std::string file = msptest::ReadFile(dir.file("MediaServer.cfg"));
    size_t keys = 0;
    for (int p = 0; p < kProcesses; ++p) {
        Plan plan{p};
        std::vector<int> last;
        for (int i = 0; i < steps; ++i) {
            const auto [op, key] = plan.next(i);
            if (op == kCreate) last.push_back(i);
            if (op == kSetOwn) last[key] = i;
        }
        for (size_t k = 0; k < last.size(); ++k) {
            const std::string line =
                Own(p, k) + "=" +
                (k % 2 ? "\"" + Text(p, last[k]) + "\"" : std::to_string(IntValue(p, last[k])));
            EXPECT_NE(std::string::npos, file.find("\r\n" + line + "\r\n")) << line;
        }
        keys += last.size();
    }
    deinitializeConfig();
    printf("config stress: %d processes x %d operations, %zu own keys, %lld ms\n", kProcesses, steps, keys,
           elapsed);
}

}  // namespace
