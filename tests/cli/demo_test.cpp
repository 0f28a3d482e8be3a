// msplat demo: the main job on the shipped tables, in a temporary directory that it leaves for a look.
#include <string>

#include <gtest/gtest.h>

#include "cli/msplat_run.h"

namespace {

TEST(CliDemo, RunsAndLeavesItsFiles) {
    msptest::TempDir tmp;
    const msptest::MsplatResult r = msptest::Msplat({"demo"}, "", "", {"TMPDIR=" + tmp.path()});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    const std::string prefix = "msplat demo: a server's start-up on the shipped tables, in ",
                      marker = "   writing to ";
    ASSERT_EQ(r.out.substr(0, prefix.size()), prefix);
    const std::string dir = r.out.substr(prefix.size(), r.out.find('\n') - prefix.size());
    EXPECT_EQ(dir.substr(0, tmp.path().size() + 13), tmp.path() + "/msplat-demo-");
    const size_t at = r.out.find(marker);
    ASSERT_NE(at, std::string::npos);
    const std::string logFile = r.out.substr(at + marker.size(), r.out.find('\n', at) - at - marker.size());
    EXPECT_EQ(logFile.substr(0, dir.size() + 21), dir + "/logs/serverLog.demo.");
    const std::string config = msptest::ReadFile(dir + "/MediaServer.cfg"), log = msptest::ReadFile(logFile);
    // Lines of its report, of the configuration it made and of the log, which has every line the demo wrote.
    for (const auto& [text, expected] : std::initializer_list<std::pair<const std::string&, std::string>>{
             {r.out, "   Holiday.MP3  MPEG-1 Audio Layer III   audio/mpeg       MP3            mp3Parser\n"},
             {r.out, "   notes.txt    no format\n"},
             {r.out,
              "   languages: English|Deutsch|Fran\xc3\xa7"
              "ais|; current: English\n"},
             {r.out, "   Tx(RecentlyAdded) = Recently Added\n"},
             {r.out, "   Tx(NoSuchTerm) = (fallback)\n"},
             {r.out, "remove it with: rm -r " + dir + "\n"},
             {config, "[demo]\r\nlogMode=1\r\n"},
             {config, "[LANGUAGE]\r\nlanguageFilePath=\"" + dir + "/languages.xml\"\r\n"},
             {log, "\t : demo: beach.jpg is JPEG Image (image/jpeg), parser jpegParser\n"},
             {log, "\t : demo: done\n"}})
        EXPECT_NE(text.find(expected), std::string::npos) << expected << " in\n" << text;
    EXPECT_TRUE(msptest::FileExists(dir + "/MediaFormats.xml"));
}

}  // namespace
