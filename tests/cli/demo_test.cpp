// msplat demo: the main job on the shipped tables, in a temporary directory that it leaves for a look.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cli/msplat_run.h"

namespace {

using msptest::Msplat;
using msptest::MsplatResult;

TEST(CliDemo, RunsAndLeavesItsFiles) {
    msptest::TempDir tmp;
    MsplatResult r = Msplat({"demo"}, "", "", {"TMPDIR=" + tmp.path()});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    const std::string prefix = "msplat demo: a server's start-up on the shipped tables, in ";
    ASSERT_EQ(r.out.substr(0, prefix.size()), prefix);
    const std::string dir = r.out.substr(prefix.size(), r.out.find('\n') - prefix.size());
    EXPECT_EQ(dir.substr(0, tmp.path().size() + 13), tmp.path() + "/msplat-demo-");
    for (const std::string& expected : std::vector<std::string>{
             "   Holiday.MP3  MPEG-1 Audio Layer III   audio/mpeg       MP3            mp3Parser\n",
             "   notes.txt    no format\n",
             "   languages: English|Deutsch|Fran\xc3\xa7"
             "ais|; current: English\n",
             "   Tx(RecentlyAdded) = Recently Added\n",
             "   Tx(NoSuchTerm) = (fallback)\n",
             "remove it with: rm -r " + dir + "\n",
         }) {
        EXPECT_NE(r.out.find(expected), std::string::npos) << expected;
    }
    // The configuration it made, and the log, which has every line that the demo wrote.
    const std::string config = msptest::ReadFile(dir + "/MediaServer.cfg");
    EXPECT_NE(config.find("[demo]\r\nlogMode=1\r\n"), std::string::npos) << config;
    EXPECT_NE(config.find("[LANGUAGE]\r\nlanguageFilePath=\"" + dir + "/languages.xml\"\r\n"),
              std::string::npos);
    const std::string marker = "   writing to ";
    size_t at = r.out.find(marker);
    ASSERT_NE(at, std::string::npos);
    const std::string logFile = r.out.substr(at + marker.size(), r.out.find('\n', at) - at - marker.size());
    EXPECT_EQ(logFile.substr(0, dir.size() + 21), dir + "/logs/serverLog.demo.");
    const std::string log = msptest::ReadFile(logFile);
    EXPECT_NE(log.find("\t : demo: beach.jpg is JPEG Image (image/jpeg), parser jpegParser\n"),
              std::string::npos)
        << log;
    EXPECT_NE(log.find("\t : demo: done\n"), std::string::npos) << log;
    EXPECT_TRUE(msptest::FileExists(dir + "/MediaFormats.xml"));
}

}  // namespace
