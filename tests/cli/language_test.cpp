// msplat tx and msplat languages, on the shipped sample and on a configured file.
#include <string>

#include <gtest/gtest.h>

#include "cli/msplat_run.h"

namespace {

using msptest::ExpectRuns;

TEST(CliLanguage, ShippedSample) {
    const std::string fr =
        "Fran\xc3\xa7"
        "ais";
    ExpectRuns({{{"languages"}, 0, "English\nDeutsch\n" + fr + "\n", ""},
                {{"tx", "Music"}, 0, "Music\n", ""},
                {{"tx", "--language", "Deutsch", "Music"}, 0, "Musik\n", ""},
                {{"tx", "--language", fr, "Videos"}, 0, "Vid\xc3\xa9os\n", ""},
                {{"tx", "NoSuchTerm"}, 1, "", "msplat: tx: NoSuchTerm: no text in English\n"},
                {{"tx", "NoSuchTerm", "Fall back"}, 0, "Fall back\n", ""},
                {{"tx", "--language", "Klingon", "Music"},
                 1,
                 "",
                 "msplat: Klingon: not a language of the file (English|Deutsch|" + fr + "|)\n"}});
}

TEST(CliLanguage, ConfiguredFileAndMissingFiles) {
    msptest::TempDir dir;
    const std::string config = dir.file("MediaServer.cfg"), missing = dir.file("none.xml");
    msptest::WriteFile(dir.file("lang.xml"),
                       "<Root><Languages><Name>English</Name><Name>Deutsch</Name></Languages><Header/><Terms>"
                       "<Term ID=\"a&amp;b\"><English>one &lt;1&gt;</English><Deutsch>eins</Deutsch></Term>"
                       "<Term ID=\"onlyDe\"><Deutsch>nur</Deutsch></Term></Terms></Root>");
    const auto configure = [&](const std::string& file, const char* language) {
        msptest::WriteFile(config, "[LANGUAGE]\r\nlanguageFilePath=\"" + file + "\"\r\ncurrentLanguage=\"" +
                                       language + "\"\r\n");
    };
    configure(dir.file("lang.xml"), "Deutsch");
    ExpectRuns({{{"tx", "--config", config, "a&b"}, 0, "eins\n", ""},
                {{"languages", "--config", config}, 0, "English\nDeutsch\n", ""},
                {{"tx", "--config", config, "--language", "Deutsch", "a&b"}, 2, "", "*"}});  // they exclude

    configure(dir.file("lang.xml"), "English");
    ExpectRuns({{{"tx", "--config", config, "a&b"}, 0, "one <1>\n", ""},
                {{"tx", "--config", config, "onlyDe"}, 1, "", "msplat: tx: onlyDe: no text in English\n"},
                {{"tx", "--config", config, "onlyDe", "only"}, 0, "only\n", ""},
                {{"tx", "--config", dir.file("none.cfg"), "x"},
                 1,
                 "",
                 "msplat: " + dir.file("none.cfg") + ": No such file or directory\n"}});
    // The language file named in the configuration is missing: the reader says why, msplat says where.
    configure(missing, "English");
    ExpectRuns(
        {{{"languages", "--config", config},
          2,
          "",
          "copyXMLFileBuffer exception : File Open Errorinitialize exception : Copying XML buffer Failed "
          "!!!\nmsplat: " +
              config + ": the language file could not be loaded\n"}});
}

}  // namespace
