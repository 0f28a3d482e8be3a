// Many processes on one MediaServer.cfg at once, each running a fixed plan of mixed operations: creates of
// its own keys, sets of its own keys, and sets and gets of keys that all of them share. Every get must see a
// value that some set wrote; at the end every own key must hold the last value its process gave it.
#include "msplatform/ZvCfgCtrlMgr.h"

#include <stdio.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "stress/stress.h"
#include "support/support.h"

namespace {

constexpr int kProcesses = 8;
constexpr int kShared = 4;
constexpr int kChildMs = 600000;
char kSection[] = "stress";

char* C(const std::string& s) {
    return const_cast<char*>(s.c_str());
}

std::string SharedInt(int n) {
    return "sharedInt" + std::to_string(n);
}
std::string SharedText(int n) {
    return "sharedText" + std::to_string(n);
}
std::string OwnKey(int p, int k) {
    return "p" + std::to_string(p) + "k" + std::to_string(k);
}

// A value written by process p at step i; every value that any set writes is one of these.
int IntValue(int p, int i) {
    return (p + 1) * 100000 + i;
}
std::string TextValue(int p, int i) {
    return "p" + std::to_string(p) + "i" + std::to_string(i);
}
bool WrittenInt(int v, int steps) {
    const int p = v / 100000 - 1, i = v % 100000;
    return v == 0 || (p >= 0 && p < kProcesses && i < steps);
}
bool WrittenText(const std::string& v, int steps) {
    if (v == "initial") return true;
    int p = -1, i = -1;
    char tail;
    if (sscanf(v.c_str(), "p%di%d%c", &p, &i, &tail) != 2) return false;
    return p >= 0 && p < kProcesses && i >= 0 && i < steps && v == TextValue(p, i);
}

enum class Op { kCreateOwn, kSetOwn, kSetShared, kGetShared };

// The plan of process p: the operation of each step, the same in the child that runs it and in the parent
// that checks the end state. Own keys alternate between integers (even) and strings (odd).
struct Plan {
    explicit Plan(int p) : state(static_cast<unsigned>(p) * 2654435761u + 1) {}
    Op next() {
        state = state * 1103515245u + 12345u;
        const unsigned r = (state >> 16) % 10;
        if (r < 2 || created == 0) return Op::kCreateOwn;
        if (r < 4) return Op::kSetOwn;
        if (r < 7) return Op::kSetShared;
        return Op::kGetShared;
    }
    unsigned state;
    int created = 0;
};

// Runs the plan; 0 when every operation gave what it must, else the step plus one.
int RunPlan(int p, int steps) {
    Plan plan(p);
    for (int i = 0; i < steps; ++i) {
        const Op op = plan.next();
        const int shared = i % kShared;
        int rc = CFG_OK;
        switch (op) {
            case Op::kCreateOwn: {
                const int k = plan.created++;
                if (k % 2 == 0) {
                    rc = createConfigInt(kSection, C(OwnKey(p, k)), IntValue(p, i));
                } else {
                    std::string v = TextValue(p, i);
                    rc = createConfigString(kSection, C(OwnKey(p, k)), reinterpret_cast<unsigned char*>(C(v)),
                                            static_cast<int>(v.size()));
                }
                break;
            }
            case Op::kSetOwn: {
                const int k = static_cast<int>((plan.state >> 8) % static_cast<unsigned>(plan.created));
                if (k % 2 == 0) {
                    rc = setConfigInt(kSection, C(OwnKey(p, k)), IntValue(p, i));
                } else {
                    std::string v = TextValue(p, i);
                    rc = setConfigString(kSection, C(OwnKey(p, k)),
                                         reinterpret_cast<const unsigned char*>(v.data()),
                                         static_cast<int>(v.size()));
                }
                break;
            }
            case Op::kSetShared:
                if (i % 2) {
                    rc = setConfigInt(kSection, C(SharedInt(shared)), IntValue(p, i));
                } else {
                    std::string v = TextValue(p, i);
                    rc = setConfigString(kSection, C(SharedText(shared)),
                                         reinterpret_cast<const unsigned char*>(v.data()),
                                         static_cast<int>(v.size()));
                }
                break;
            case Op::kGetShared: {
                int v = -1;
                rc = getConfigInt(kSection, C(SharedInt(shared)), v);
                if (rc == CFG_OK && !WrittenInt(v, steps)) return i + 1;
                if (rc != CFG_OK) break;
                int length = -1;
                rc = getConfigStringLen(kSection, C(SharedText(shared)), length);
                if (rc != CFG_OK) break;
                // The value may change between the two calls: a longer one comes back cut and unterminated,
                // which the byte behind the length shows, and is not checked.
                std::vector<unsigned char> buf(static_cast<size_t>(length) + 1, 0xFF);
                rc = getConfigString(kSection, C(SharedText(shared)), buf.data(), length);
                const void* end = memchr(buf.data(), 0, buf.size());
                if (rc == CFG_OK && end) {
                    std::string text(reinterpret_cast<char*>(buf.data()));
                    if (!WrittenText(text, steps)) return i + 1;
                }
                break;
            }
        }
        if (rc != CFG_OK) return i + 1;
    }
    return 0;
}

TEST(ConfigStress, ProcessesShareOneFileWithoutLoss) {
    const int steps = stress::Scaled(500, 4);
    msptest::TempDir dir;
    const std::string path = dir.file("MediaServer.cfg");
    deinitializeConfig();
    ASSERT_EQ(CFG_OK, initializeConfig(path.c_str()));
    for (int n = 0; n < kShared; ++n) {
        ASSERT_EQ(CFG_OK, createConfigInt(kSection, C(SharedInt(n)), 0));
        ASSERT_EQ(CFG_OK, createConfigString(kSection, C(SharedText(n)),
                                             reinterpret_cast<unsigned char*>(C("initial")), 7));
    }

    const long long start = stress::NowMs();
    std::vector<pid_t> children;
    for (int p = 0; p < kProcesses; ++p)
        children.push_back(msptest::StartChild([p, steps] { return RunPlan(p, steps); }));
    for (int p = 0; p < kProcesses; ++p)
        EXPECT_EQ(0, msptest::WaitChild(children[static_cast<size_t>(p)], kChildMs)) << "process " << p;
    const long long elapsed = stress::NowMs() - start;

    // The parent replays each plan to know the last value of every own key, and finds each key's line in the
    // file (one read through the store first, to know that the file reads whole).
    int probe = -1;
    ASSERT_EQ(CFG_OK, getConfigInt(kSection, C(SharedInt(0)), probe));
    EXPECT_TRUE(WrittenInt(probe, steps));
    const std::string file = msptest::ReadFile(path);
    int keys = 0;
    for (int p = 0; p < kProcesses; ++p) {
        Plan plan(p);
        std::vector<int> last;
        for (int i = 0; i < steps; ++i) {
            const Op op = plan.next();
            if (op == Op::kCreateOwn) {
                ++plan.created;
                last.push_back(i);
            } else if (op == Op::kSetOwn) {
                last[(plan.state >> 8) % static_cast<unsigned>(plan.created)] = i;
            }
        }
        for (int k = 0; k < plan.created; ++k) {
            const int i = last[static_cast<size_t>(k)];
            const std::string expected =
                k % 2 == 0 ? std::to_string(IntValue(p, i)) : "\"" + TextValue(p, i) + "\"";
            const std::string line = "\r\n" + OwnKey(p, k) + "=" + expected + "\r\n";
            EXPECT_NE(std::string::npos, file.find(line)) << OwnKey(p, k) << " is not " << expected;
        }
        keys += plan.created;
    }
    deinitializeConfig();
    RecordProperty("operations", kProcesses * steps);
    RecordProperty("milliseconds", static_cast<int>(elapsed));
    printf("config stress: %d processes x %d operations, %d own keys, %lld ms\n", kProcesses, steps, keys,
           elapsed);
}

}  // namespace
