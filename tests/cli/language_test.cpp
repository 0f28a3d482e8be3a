// msplat tx and msplat languages, on a configured file and on the shipped sample.
#include <string>

#include <gtest/gtest.h>

#include "cli/msplat_run.h"

namespace {

using msptest::Msplat;
using msptest::MsplatResult;

TEST(CliLanguage, ShippedSample) {
    MsplatResult r = Msplat({"languages"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out,
              "English\nDeutsch\nFran\xc3\xa7"
              "ais\n");
    struct Case {
        std::vector<std::string> args;
        int status;
        std::string out;
        std::string err;
    } cases[] = {
        {{"tx", "Music"}, 0, "Music\n", ""},
        {{"tx", "--language", "Deutsch", "Music"}, 0, "Musik\n", ""},
        {{"tx", "--language",
          "Fran\xc3\xa7"
          "ais",
          "Videos"},
         0,
         "Vid\xc3\xa9os\n",
         ""},
        {{"tx", "NoSuchTerm"}, 1, "", "msplat: tx: NoSuchTerm: no text in English\n"},
        {{"tx", "NoSuchTerm", "Fall back"}, 0, "Fall back\n", ""},
        {{"tx", "--language", "Klingon", "Music"},
         1,
         "",
         "msplat: Klingon: not a language of the file (English|Deutsch|Fran\xc3\xa7"
         "ais|)\n"},
        {{"tx"}, 2, "", ""},
    };
    for (const Case& c : cases) {
        r = Msplat(c.args);
        EXPECT_EQ(r.status, c.status) << c.args.back();
        EXPECT_EQ(r.out, c.out) << c.args.back();
        if (c.status != 2) {
            EXPECT_EQ(r.err, c.err) << c.args.back();
        }
    }
}

TEST(CliLanguage, ConfiguredFile) {
    msptest::TempDir dir;
    msptest::WriteFile(
        dir.file("lang.xml"),
        "<Root><Languages><Name>English</Name><Name>Deutsch</Name></Languages><Header/>"
        "<Terms><Term ID=\"a&amp;b\"><English>one &lt;1&gt;</English><Deutsch>eins</Deutsch></Term>"
        "<Term ID=\"onlyDe\"><Deutsch>nur</Deutsch></Term></Terms></Root>");
    msptest::WriteFile(
        dir.file("MediaServer.cfg"),
        "[LANGUAGE]\r\nlanguageFilePath=\"" + dir.file("lang.xml") + "\"\r\ncurrentLanguage=\"Deutsch\"\r\n");
    const std::string config = dir.file("MediaServer.cfg");
    MsplatResult r = Msplat({"tx", "--config", config, "a&b"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "eins\n");
    EXPECT_EQ(Msplat({"languages", "--config", config}).out, "English\nDeutsch\n");
    msptest::WriteFile(config, "[LANGUAGE]\r\nlanguageFilePath=\"" + dir.file("lang.xml") +
                                   "\"\r\ncurrentLanguage=\"English\"\r\n");
    EXPECT_EQ(Msplat({"tx", "--config", config, "a&b"}).out, "one <1>\n");
    r = Msplat({"tx", "--config", config, "onlyDe"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "msplat: tx: onlyDe: no text in English\n");
    EXPECT_EQ(Msplat({"tx", "--config", config, "onlyDe", "only"}).out, "only\n");
    // --config and --language don't go together.
    EXPECT_EQ(Msplat({"tx", "--config", config, "--language", "Deutsch", "a&b"}).status, 2);
}

TEST(CliLanguage, MissingFiles) {
    msptest::TempDir dir;
    MsplatResult r = Msplat({"tx", "--config", dir.file("none.cfg"), "x"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "msplat: " + dir.file("none.cfg") + ": No such file or directory\n");
    // The language file named in the configuration is missing: the reader says why, msplat says where.
    msptest::WriteFile(
        dir.file("MediaServer.cfg"),
        "[LANGUAGE]\r\nlanguageFilePath=\"" + dir.file("none.xml") + "\"\r\ncurrentLanguage=\"English\"\r\n");
    r = Msplat({"languages", "--config", dir.file("MediaServer.cfg")});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(
        r.err,
        "copyXMLFileBuffer exception : File Open Errorinitialize exception : Copying XML buffer Failed !!!\n"
        "msplat: " +
            dir.file("MediaServer.cfg") + ": the language file could not be loaded\n");
}

}  // namespace
