#include "msplatform/commonAPIs.h"

#include <sched.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

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
    void SetConfig(const std::string& bytes) {
        deinitializeConfig();
        if (bytes.empty())
            unlink(dir_.file("MediaServer.cfg").c_str());
        else
            msptest::WriteFile(dir_.file("MediaServer.cfg"), bytes);
    }

    msptest::TempDir dir_;
    msptest::ScopedChdir chdir_;
};

// The value, or the code with what went to stderr and whether *paths was touched.
std::string ScanPaths() {
    unsigned char sentinel = 0;
    unsigned char* paths = &sentinel;
    msptest::CaptureFd err(2);
    const int rc = getConfigScanPaths(&paths);
    std::string out = err.Finish();
    if (rc != 0) return std::to_string(rc) + " " + out + (paths == &sentinel ? "" : "touched");
    out += reinterpret_cast<char*>(paths);
    free(paths);
    return out;
}

// A missing key, section or file and an integer key fail, leave the file alone and make none.
TEST_F(CommonApis, ScanPaths) {
    const std::string fail = "-1 get config len\n";
    const std::pair<std::string, std::string> cases[] = {
        {"[MCM]\r\nscanPaths=\"/share/Music;/share/Vid\xC3\xA9os\"\r\n\r\n",
         "/share/Music;/share/Vid\xC3\xA9os"},
        {"[MCM]\r\nscanPaths=\"\"\r\n\r\n", ""},
        {"[MCM]\r\nother=\"x\"\r\n\r\n", fail},
        {"[upnp]\r\nserverName=\"n\"\r\n\r\n", fail},
        {"[MCM]\r\nscanPaths=5\r\n\r\n", fail},
        {"", fail}};
    for (const auto& [file, expected] : cases) {
        SetConfig(file);
        EXPECT_EQ(ScanPaths(), expected) << file;
        EXPECT_EQ(file.empty() ? "" : Config(), file);
        EXPECT_EQ(file.empty(), !msptest::FileExists(dir_.file("MediaServer.cfg")));
    }
    EXPECT_EQ(getConfigScanPaths(nullptr), -1);
    // The helpers leave the store initialised on the relative name; a store initialised before stays on its
    // own path.
    SetConfig("[MCM]\r\nscanPaths=\"here\"\r\n\r\n");
    msptest::TempDir other;
    msptest::WriteFile(other.file("other.cfg"), "[MCM]\r\nscanPaths=\"there\"\r\n\r\n");
    ASSERT_EQ(initializeConfig(other.file("other.cfg").c_str()), 1);
    EXPECT_EQ(ScanPaths(), "there");
    deinitializeConfig();
    EXPECT_EQ(ScanPaths(), "here");
    EXPECT_EQ(initializeConfig("elsewhere.cfg"), -7);
}

// Another process rewrites the value between a short and a long form while this one reads: every answer is a
// terminated prefix of the long form, never past its buffer.
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
        const std::string got = ScanPaths();
        ASSERT_TRUE(got == "/s" || longValue.compare(0, got.size(), got) == 0) << got;
    }
    EXPECT_EQ(msptest::WaitChild(writer, 60000), 0);
}

// A missing or empty name becomes the host name (other sections and keys stay); a set one stays and the file
// is not even rewritten; an integer key fails on the set.
TEST_F(CommonApis, ServerNameFromTheHostName) {
    const std::string host = HostName(), intKey = "[upnp]\r\nserverName=7\r\n\r\n";
    ASSERT_FALSE(host.empty());
    ASSERT_NE(host, "(none)");
    const std::string cases[][3] = {
        {"", ServerNameFile(host), ""},
        {"[MCM]\r\nscanPaths=\"/s\"\r\n\r\n[upnp]\r\nport=80\r\n\r\n",
         "[MCM]\r\nscanPaths=\"/s\"\r\n\r\n[upnp]\r\nport=80\r\nserverName=\"" + host + "\"\r\n\r\n", ""},
        {"[upnp]\r\nserverName=\"\"\r\nport=80\r\n\r\n",
         "[upnp]\r\nserverName=\"" + host + "\"\r\nport=80\r\n\r\n", ""},
        {"[upnp]\nserverName=\"My NAS\"\n\n", "[upnp]\nserverName=\"My NAS\"\n\n", ""},
        {intKey, intKey, "setServerNameFromComputerName: error in setting config entry, servername ...\n"}};
    for (const auto& c : cases) {
        SetConfig(c[0]);
        msptest::CaptureFd err(2);
        EXPECT_EQ(setServerNameFromComputerName(), c[2].empty() ? 0 : -1) << c[0];
        EXPECT_EQ(err.Finish(), c[2]);
        EXPECT_EQ(Config(), c[1]);
    }
}

// The name comes in a cleared buffer; one too short fails with nothing written past it; a null buffer or a
// length below 1 is refused untouched.
TEST(GetComputerName, ShortOrMissingBuffer) {
    const std::string host = HostName();
    char name[130];
    memset(name, 'x', sizeof name);
    ASSERT_EQ(getComputerName(name, 128), 0);
    EXPECT_EQ(std::string(name, 129), host + std::string(128 - host.size(), '\0') + "x");
    memset(name, 'x', sizeof name);
    EXPECT_EQ(getComputerName(name + 1, static_cast<int>(host.size())), -1);
    EXPECT_EQ(getComputerName(nullptr, 10), -1);
    EXPECT_EQ(getComputerName(name, 0), -1);
    EXPECT_EQ(getComputerName(name, -5), -1);
    EXPECT_EQ(name[0], 'x');
    EXPECT_EQ(name[1 + host.size()], 'x');
}

// Host names set in a UTS namespace of a child: "(none)" gives the default name; 64 characters go in whole.
TEST_F(CommonApis, HostNamesSetInANamespace) {
    constexpr int kNoNamespace = 77;
    for (const std::string host :
         {"(none)", "hhhhhhhhhhhhhhhhhhhhhhhhhhhhhhhhhhhhhhhhhhhhhhhhhhhhhhhhhhhhhhhh"}) {
        const int rc = msptest::RunChild(
            [&] {
                if (unshare(CLONE_NEWUTS) != 0 || sethostname(host.data(), host.size()) != 0)
                    return kNoNamespace;
                char name[16];
                if (host == "(none)" &&
                    (getComputerName(name, sizeof name) != -1 || strcmp(name, "(none)") != 0))
                    return 1;
                if (setServerNameFromComputerName() != 0) return 2;
                return Config() == ServerNameFile(host == "(none)" ? "QuirnNAS" : host) ? 0 : 3;
            },
            60000);
        if (rc == kNoNamespace) GTEST_SKIP() << "no right to make a UTS namespace and set its host name";
        EXPECT_EQ(rc, 0) << host;
        unlink(dir_.file("MediaServer.cfg").c_str());
    }
}

}  // namespace
