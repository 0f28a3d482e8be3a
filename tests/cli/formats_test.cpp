// msplat formats, on the shipped sample and on a table of its own.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cli/msplat_run.h"

namespace {

using msptest::Msplat;
using msptest::MsplatResult;

TEST(CliFormats, ShippedSample) {
    MsplatResult r = Msplat({"formats", "ext", ".MP3"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out,
              "FormatName    MPEG-1 Audio Layer III\n"
              "Extensions    mp3\n"
              "MimeType      audio/mpeg\n"
              "MediaType     audio\n"
              "DLNA_Class    object.item.audioItem.musicTrack\n"
              "DLNA_Profile  MP3\n"
              "Transcode     no\n"
              "Parser        mp3Parser\n"
              "DAP           -\n");
    EXPECT_EQ(Msplat({"formats", "mime", "AUDIO/MPEG"}).out, "mp3\n");
    EXPECT_EQ(Msplat({"formats", "plugin", "flacParser"}).out, "flac,fla\n");
    r = Msplat({"formats", "plugins"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out.substr(0, 30), "mp3Parser\naacParser\nmp4Parser\n");
}

TEST(CliFormats, OwnTableAndWhatIsNotThere) {
    msptest::TempDir dir;
    msptest::WriteFile(dir.file("MediaFormats.xml"),
                       "<Formats><F><FormatName>Ogg</FormatName><Extensions>ogg,oga</Extensions>"
                       "<MimeType>audio/ogg</MimeType><MediaType>a</MediaType><Transcode>TRUE</Transcode>"
                       "<DAP>d</DAP></F><F><Extensions>mkv</Extensions><MediaType>v</MediaType>"
                       "<Parser>mkvParser</Parser></F></Formats>");
    struct Case {
        std::vector<std::string> args;
        int status;
        std::string out;
        std::string err;
    } cases[] = {
        {{"ext", "OGA"},
         0,
         "FormatName    Ogg\nExtensions    ogg,oga\nMimeType      audio/ogg\nMediaType     audio\n"
         "DLNA_Class    -\nDLNA_Profile  -\nTranscode     yes\nParser        -\nDAP           d\n",
         ""},
        {{"ext", "mkv"},
         0,
         "FormatName    -\nExtensions    mkv\nMimeType      -\nMediaType     video\nDLNA_Class    -\n"
         "DLNA_Profile  -\nTranscode     no\nParser        mkvParser\nDAP           -\n",
         ""},
        {{"ext", "mp3"}, 1, "", "msplat: formats: no format for the extension \"mp3\"\n"},
        {{"mime", "video/none"},
         1,
         "",
         "msplat: formats: no format with the MIME type \"video/none\", or it lists no extension\n"},
        {{"plugin", "mkvParser"}, 0, "mkv\n", ""},
        {{"plugin", "none"},
         1,
         "",
         "msplat: formats: no format with the parser plug-in \"none\", or it lists no extension\n"},
        {{"plugins"}, 0, "mkvParser\n", ""},
    };
    for (const Case& c : cases) {
        std::vector<std::string> args = {"formats", "--dir", dir.path()};
        args.insert(args.end(), c.args.begin(), c.args.end());
        MsplatResult r = Msplat(args);
        EXPECT_EQ(r.status, c.status) << c.args.back();
        EXPECT_EQ(r.out, c.out) << c.args.back();
        EXPECT_EQ(r.err, c.err) << c.args.back();
    }
    // --dir behind the command, and a table without plug-ins.
    msptest::WriteFile(dir.file("MediaFormats.xml"), "<Formats><F><Extensions>x</Extensions></F></Formats>");
    MsplatResult r = Msplat({"formats", "plugins", "--dir", dir.path()});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "msplat: formats: the table names no parser plug-in\n");
}

TEST(CliFormats, MissingAndBrokenTable) {
    msptest::TempDir dir;
    MsplatResult r = Msplat({"formats", "--dir", dir.path(), "ext", "mp3"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "msplat: " + dir.file("MediaFormats.xml") + ": No such file or directory\n");
    msptest::WriteFile(dir.file("MediaFormats.xml"), "");
    r = Msplat({"formats", "--dir", dir.path(), "ext", "mp3"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err, "msplat: " + dir.file("MediaFormats.xml") + ": the table could not be loaded\n");
    EXPECT_EQ(Msplat({"formats"}).status, 2);
    EXPECT_EQ(Msplat({"formats", "ext"}).status, 2);
}

}  // namespace
