#include "msplatform/commonAPIs.h"

#include <sched.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "msplatform/ZvCfgCtrlMgr.h"
#include "support/support.h"

namespace {

std::string HostName() {
    char name[256] = {0};
    gethostname(name, sizeof name - 1);
    return name;
}

std::string ServerNameFile(const std::string& name) {
    return "[upnp]\r\nserverName=\"" + name + "\"\r\n\r\n";
}

// Each test starts in an empty temporary directory with the store not initialised, so that the helpers
// initialise it on "MediaServer.cfg" there, and leaves it not initialised.
class CommonApis : public ::testing::Test {
protected:
    CommonApis() : chdir_(dir_.path()) {}
    void SetUp() override { deinitializeConfig(); }
    void TearDown() override { deinitializeConfig(); }

    std::string Config() const { return msptest::ReadFile(dir_.file("MediaServer.cfg")); }
    void SetConfig(const std::string& bytes) { msptest::WriteFile(dir_.file("MediaServer.cfg"), bytes); }

    msptest::TempDir dir_;
    msptest::ScopedChdir chdir_;
};

TEST_F(CommonApis, ScanPathsAreHandedOutWhole) {
    for (const std::string value : {"/share/Music;/share/Vid\xC3\xA9os", ""}) {
        const std::string file = "[MCM]\r\nscanPaths=\"" + value + "\"\r\n\r\n";
        SetConfig(file);
        unsigned char* paths = nullptr;
        msptest::CaptureFd err(2);
        ASSERT_EQ(getConfigScanPaths(&paths), 0);
        EXPECT_EQ(err.Finish(), "");
        ASSERT_NE(paths, nullptr);
        EXPECT_EQ(std::string(reinterpret_cast<char*>(paths)), value);
        free(paths);
        EXPECT_EQ(Config(), file);
    }
}

// A missing key, a missing section, a missing file and an integer key all fail on the length, leave *paths
// alone and create nothing.
TEST_F(CommonApis, ScanPathsFailureLeavesPathsAndFileAlone) {
    const std::string files[] = {"[MCM]\r\nother=\"x\"\r\n\r\n", "[upnp]\r\nserverName=\"n\"\r\n\r\n",
                                 "[MCM]\r\nscanPaths=5\r\n\r\n", ""};
    for (const std::string& file : files) {
        if (file.empty())
            unlink(dir_.file("MediaServer.cfg").c_str());
        else
            SetConfig(file);
        unsigned char sentinel = 0;
        unsigned char* paths = &sentinel;
        msptest::CaptureFd err(2);
        EXPECT_EQ(getConfigScanPaths(&paths), -1) << file;
        EXPECT_EQ(err.Finish(), "get config len\n") << file;
        EXPECT_EQ(paths, &sentinel) << file;
        if (file.empty())
            EXPECT_FALSE(msptest::FileExists(dir_.file("MediaServer.cfg")));
        else
            EXPECT_EQ(Config(), file);
    }
    EXPECT_EQ(getConfigScanPaths(nullptr), -1);
}

// The helpers leave the store initialised on the relative name; a store that the process initialised before
// stays on its own path.
TEST_F(CommonApis, StoreStaysOnThePathGivenFirst) {
    SetConfig("[MCM]\r\nscanPaths=\"here\"\r\n\r\n");
    msptest::TempDir other;
    msptest::WriteFile(other.file("other.cfg"), "[MCM]\r\nscanPaths=\"there\"\r\n\r\n");
    ASSERT_EQ(initializeConfig(other.file("other.cfg").c_str()), 1);
    unsigned char* paths = nullptr;
    ASSERT_EQ(getConfigScanPaths(&paths), 0);
    EXPECT_STREQ(reinterpret_cast<char*>(paths), "there");
    free(paths);
    deinitializeConfig();

    ASSERT_EQ(getConfigScanPaths(&paths), 0);
    EXPECT_STREQ(reinterpret_cast<char*>(paths), "here");
    free(paths);
    EXPECT_EQ(initializeConfig("elsewhere.cfg"), -7);
}

// Another process rewrites the value between a short and a long form while this one reads: whatever the
// interleaving, each answer is a terminated prefix of the long form, never past its buffer.
TEST_F(CommonApis, ScanPathsGrowingBetweenTheTwoReadsStayTerminated) {
    const std::string longValue = "/share/a-much-longer-list;/share/of-scan-paths;/share/than-before";
    SetConfig("[MCM]\r\nscanPaths=\"/s\"\r\n\r\n");
    const pid_t writer = msptest::StartChild([&] {
        initializeConfig("MediaServer.cfg");
        for (int i = 0; i < 400; ++i) {
            const std::string v = i % 2 ? longValue : "/s";
            setConfigString(const_cast<char*>("MCM"), const_cast<char*>("scanPaths"),
                            reinterpret_cast<const unsigned char*>(v.data()), static_cast<int>(v.size()));
        }
        return 0;
    });
    for (int i = 0; i < 400; ++i) {
        unsigned char* paths = nullptr;
        ASSERT_EQ(getConfigScanPaths(&paths), 0);
        const std::string got(reinterpret_cast<char*>(paths));
        free(paths);
        ASSERT_TRUE(got == "/s" || longValue.compare(0, got.size(), got) == 0) << got;
    }
    EXPECT_EQ(msptest::WaitChild(writer, 60000), 0);
}

TEST_F(CommonApis, MissingServerNameBecomesTheHostName) {
    const std::string host = HostName();
    ASSERT_FALSE(host.empty());
    ASSERT_NE(host, "(none)");
    msptest::CaptureFd err(2);
    EXPECT_EQ(setServerNameFromComputerName(), 0);
    EXPECT_EQ(err.Finish(), "");
    EXPECT_EQ(Config(), ServerNameFile(host));

    // Missing in a file that has other sections: they stay, and the section goes at the end.
    deinitializeConfig();
    SetConfig("[MCM]\r\nscanPaths=\"/s\"\r\n\r\n[upnp]\r\nport=80\r\n\r\n");
    EXPECT_EQ(setServerNameFromComputerName(), 0);
    EXPECT_EQ(Config(),
              "[MCM]\r\nscanPaths=\"/s\"\r\n\r\n[upnp]\r\nport=80\r\nserverName=\"" + host + "\"\r\n\r\n");
}

TEST_F(CommonApis, EmptyServerNameIsFilledAndASetOneStays) {
    SetConfig("[upnp]\r\nserverName=\"\"\r\nport=80\r\n\r\n");
    EXPECT_EQ(setServerNameFromComputerName(), 0);
    EXPECT_EQ(Config(), "[upnp]\r\nserverName=\"" + HostName() + "\"\r\nport=80\r\n\r\n");

    // A set name stays, bytes and all (the file is not even rewritten).
    const std::string set = "[upnp]\nserverName=\"My NAS\"\n\n";
    SetConfig(set);
    EXPECT_EQ(setServerNameFromComputerName(), 0);
    EXPECT_EQ(Config(), set);
}

TEST_F(CommonApis, IntegerServerNameFailsOnTheSet) {
    const std::string file = "[upnp]\r\nserverName=7\r\n\r\n";
    SetConfig(file);
    msptest::CaptureFd err(2);
    EXPECT_EQ(setServerNameFromComputerName(), -1);
    EXPECT_EQ(err.Finish(), "setServerNameFromComputerName: error in setting config entry, servername ...\n");
    EXPECT_EQ(Config(), file);
}

// The name comes in a cleared buffer; one too short fails with nothing written past it; a null buffer or a
// length below 1 is refused untouched.
TEST(GetComputerName, ShortOrMissingBuffer) {
    const std::string host = HostName();
    ASSERT_GE(host.size(), 1u);
    char name[130];
    memset(name, 'x', sizeof name);
    ASSERT_EQ(getComputerName(name, 128), 0);
    EXPECT_EQ(std::string(name), host);
    for (size_t i = host.size(); i < 128; ++i) ASSERT_EQ(name[i], 0) << i;
    memset(name, 'x', sizeof name);
    EXPECT_EQ(getComputerName(name + 1, static_cast<int>(host.size())), -1);
    EXPECT_EQ(name[0], 'x');
    EXPECT_EQ(name[1 + host.size()], 'x');
    EXPECT_EQ(getComputerName(nullptr, 10), -1);
    EXPECT_EQ(getComputerName(name, 0), -1);
    EXPECT_EQ(getComputerName(name, -5), -1);
    EXPECT_EQ(name[0], 'x');
}

// Host names set in a UTS namespace of a child process, which needs the right to make one.
constexpr int kNoNamespace = 77;

int InHostNamespace(const std::string& hostName, const std::function<int()>& body) {
    return msptest::RunChild(
        [&] {
            if (unshare(CLONE_NEWUTS) != 0) return kNoNamespace;
            if (sethostname(hostName.data(), hostName.size()) != 0) return kNoNamespace;
            return body();
        },
        60000);
}

// "(none)" gives the default name; a 64-character name goes in whole.
TEST_F(CommonApis, HostNamesSetInANamespace) {
    const std::string longest(64, 'h');
    for (const std::string& host : {std::string("(none)"), longest}) {
        const int rc = InHostNamespace(host, [&] {
            char name[16];
            if (host == "(none)" && (getComputerName(name, sizeof name) != -1 || strcmp(name, "(none)") != 0))
                return 1;
            if (setServerNameFromComputerName() != 0) return 2;
            return Config() == ServerNameFile(host == "(none)" ? "QuirnNAS" : host) ? 0 : 3;
        });
        if (rc == kNoNamespace) GTEST_SKIP() << "no right to make a UTS namespace and set its host name";
        EXPECT_EQ(rc, 0) << host;
        unlink(dir_.file("MediaServer.cfg").c_str());
    }
}

}  // namespace
