// msplat formats, on the shipped sample and on a table of its own.
#include <string>

#include <gtest/gtest.h>

#include "cli/msplat_run.h"

namespace {

using msptest::ExpectRuns;

TEST(CliFormats, ShippedSample) {
    ExpectRuns({{{"formats", "ext", ".MP3"},
                 0,
                 "FormatName    MPEG-1 Audio Layer III\nExtensions    mp3\nMimeType      audio/mpeg\n"
                 "MediaType     audio\nDLNA_Class    object.item.audioItem.musicTrack\nDLNA_Profile  MP3\n"
                 "Transcode     no\nParser        mp3Parser\nDAP           -\n",
                 ""},
                {{"formats", "mime", "AUDIO/MPEG"}, 0, "mp3\n", ""},
                {{"formats", "plugin", "flacParser"}, 0, "flac,fla\n", ""}});
    const msptest::MsplatResult r = msptest::Msplat({"formats", "plugins"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out.substr(0, 30), "mp3Parser\naacParser\nmp4Parser\n");
}

TEST(CliFormats, OwnTableAndWhatIsNotThere) {
    msptest::TempDir dir;
    const std::string table = dir.file("MediaFormats.xml");
    msptest::WriteFile(table,
                       "<Formats><F><FormatName>Ogg</FormatName><Extensions>ogg,oga</Extensions>"
                       "<MimeType>audio/ogg</MimeType><MediaType>a</MediaType><Transcode>TRUE</Transcode>"
                       "<DAP>d</DAP></F><F><Extensions>mkv</Extensions><MediaType>v</MediaType>"
                       "<Parser>mkvParser</Parser></F></Formats>");
    const std::string none = "msplat: formats: no format with the ";
    ExpectRuns(
        {{{"ext", "OGA"},
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
         {{"mime", "video/none"}, 1, "", none + "MIME type \"video/none\", or it lists no extension\n"},
         {{"plugin", "mkvParser"}, 0, "mkv\n", ""},
         {{"plugin", "none"}, 1, "", none + "parser plug-in \"none\", or it lists no extension\n"},
         {{"plugins"}, 0, "mkvParser\n", ""}},
        "", {"formats", "--dir", dir.path()});
    // --dir behind the command; a table without plug-ins, an empty one and none at all.
    const std::string start = "msplat: " + table + ": ";
    msptest::WriteFile(table, "<Formats><F><Extensions>x</Extensions></F></Formats>");
    ExpectRuns({{{"formats", "plugins", "--dir", dir.path()},
                 1,
                 "",
                 "msplat: formats: the table names no parser plug-in\n"}});
    msptest::WriteFile(table, "");
    ExpectRuns(
        {{{"formats", "--dir", dir.path(), "ext", "mp3"}, 2, "", start + "the table could not be loaded\n"}});
    ASSERT_EQ(unlink(table.c_str()), 0);
    ExpectRuns(
        {{{"formats", "--dir", dir.path(), "ext", "mp3"}, 1, "", start + "No such file or directory\n"}});
}

}  // namespace
