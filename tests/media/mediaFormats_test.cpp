#include "msplatform/mediaFormats.h"

#include <string.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "mediaTestUtil.h"

namespace {

using mediatest::Strings;
using mediatest::Text;

// A writable copy for the char* arguments of the queries.
struct Arg {
    explicit Arg(const std::string& s) : bytes(s.c_str(), s.c_str() + s.size() + 1) {}
    operator char*() { return bytes.data(); }
    std::vector<char> bytes;
};

// Every per-extension answer as "name|mime|class|profile|dap|parser|out byte|media type|transcode"; the out
// byte starts as 'x', and a zero byte shows as '0'.
std::string Fields(const std::string& extension) {
    Arg e(extension);
    char type = 'x';
    auto byte = [](char c) { return c != 0 ? std::string(1, c) : std::string("0"); };
    const std::string parser = Text(MF_GetParserNameByExtension(e, &type));
    return Text(MF_GetFormatNameByExtension(e)) + "|" + Text(MF_GetMimeTypeByExtension(e)) + "|" +
           Text(MF_GetDLNAClassByExtension(e)) + "|" + Text(MF_GetDLNAProfileByExtension(e)) + "|" +
           Text(MF_GetDAPNameByExtension(e)) + "|" + parser + "|" + byte(type) + "|" +
           byte(MF_GetMediaTypeByExtension(e)) + "|" + std::to_string(MF_GetTranscodeFlagByExtension(e));
}

class MediaFormatQueries : public mediatest::MediaDir {
protected:
    ~MediaFormatQueries() override { MF_UnInitialize(); }
    void Load(const Strings& records) {
        MF_UnInitialize();
        WriteRecords(records);
        ASSERT_EQ(1, MF_Initialize());
    }
    static std::string Ext(const std::string& list) { return "<Extensions>" + list + "</Extensions>"; }
    static std::string Name(const std::string& name) { return "<FormatName>" + name + "</FormatName>"; }
    static std::string Parser(const std::string& name) { return "<Parser>" + name + "</Parser>"; }
};

// Whole tokens, case-free, one leading dot dropped; an extension over 55 bytes is never found, and only
// tokens that end within the first 1023 bytes of a list count.
TEST_F(MediaFormatQueries, ExtensionLookups) {
    const std::string ext55(55, 'e'), ext56(56, 'e');
    // Byte 1023 of the g's list is the comma behind them; of the h's list, the last h; in the cut list, it
    // falls inside a token.
    std::string head = "first,";
    for (int i = 0; i < 99; ++i) head += "f" + std::to_string(10000000 + i) + ",";
    head += "xyz,";
    const std::string gs(23, 'g'), hs(24, 'h'), cutToken = "xx" + std::string(19, 'c') + "cutoff";
    const std::string cutPrefix = cutToken.substr(0, 23), atLimit = head + gs + ",late,tail";
    ASSERT_EQ(',', atLimit[1023]);
    Load({Name("first") + Ext("mp3,MP2"), Name("second") + Ext("mp3,wma, ogg"), Name("third") + Ext("a,,b,"),
          Name("55") + Ext(ext55), Name("56") + Ext(ext56), Name("atLimit") + Ext(atLimit),
          Name("cut") + Ext(head + cutToken + ",late"), Name("over") + Ext(head + hs + ",x"),
          Name("fallback") + Ext("late,tail," + cutPrefix)});
    auto names = [](const Strings& extensions) {
        std::string out;
        for (const std::string& e : extensions) out += Text(MF_GetFormatNameByExtension(Arg(e))) + " ";
        return out;
    };
    EXPECT_EQ("first first first first first second second - - - - - - third - ",
              names({"mp3", ".mp3", "MP3", ".Mp3", "mp2", "wma", " ogg", "ogg", "..mp3", ".", "", "mp",
                     "mp3,", "b", "a,,b"}));
    EXPECT_EQ("55 55 - - - atLimit atLimit - fallback fallback fallback - ",
              names({ext55, "." + ext55, ext56, "." + ext56, std::string(5000, 'e'), "f10000098", gs, hs,
                     "late", "tail", cutPrefix, cutToken}));
    EXPECT_EQ(nullptr, MF_GetFormatNameByExtension(nullptr));
}

TEST_F(MediaFormatQueries, FieldGetters) {
    EXPECT_EQ("-|-|-|-|-|-|x|0|0", Fields("mp3")) << "nothing loaded";
    Load({});
    EXPECT_EQ("-|-|-|-|-|-|x|0|0", Fields("mp3")) << "empty table";
    EXPECT_EQ(nullptr, MF_GetUniqueParserPlugins());
    Load({Ext("mp3") + Name("MP3") +
              "<MimeType>audio/mpeg</MimeType><MediaType>AUDIO</MediaType>"
              "<DLNA_Class>object.item.audioItem.musicTrack</DLNA_Class><DLNA_Profile>MP3</DLNA_Profile>"
              "<Transcode>no</Transcode><Parser>mp3Parser</Parser><DAP>mp3DAP</DAP>",
          Ext("flac") + "<Transcode>Yes</Transcode>", Ext("xyz") + "<MediaType>movie</MediaType>"});
    EXPECT_EQ("MP3|audio/mpeg|object.item.audioItem.musicTrack|MP3|mp3DAP|mp3Parser|a|a|0", Fields("MP3"));
    // A record without a field answers like an unknown extension, but for the media type's out byte.
    EXPECT_EQ("-|-|-|-|-|-|0|0|1", Fields("flac"));
    EXPECT_EQ("-|-|-|-|-|-|0|0|0", Fields(".xyz"));
    EXPECT_EQ("-|-|-|-|-|-|x|0|0", Fields("none"));
    EXPECT_EQ("mp3Parser", Text(MF_GetParserNameByExtension(Arg("mp3"), nullptr)));  // no out byte stored
    char type = 'x';
    EXPECT_EQ(nullptr, MF_GetParserNameByExtension(nullptr, &type));
    EXPECT_EQ('x', type);
}

TEST_F(MediaFormatQueries, ExtensionListsByMimeTypeAndPlugin) {
    Load({"<MimeType>audio/mpeg</MimeType>" + Parser("mpegParser") + Ext("mp3"),
          "<MimeType>audio/mpeg</MimeType>" + Parser("mpegParser") + Ext("mp2,mpa"),
          "<MimeType>video/x-ms-wmv</MimeType>" + Parser("asfParser"),
          "<MimeType>video/x-ms-wmv</MimeType>" + Parser("asfParser") + Ext("wmv"), Ext("orphan")});
    const char* cases[][3] = {
        {"AUDIO/MPEG", "mp3", "-"},   {"MPEGPARSER", "-", "mp3"},
        {"video/x-ms-wmv", "-", "-"},  // the first match has no extensions
        {"asfParser", "-", "-"},      {"audio", "-", "-"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c[1], Text(MF_GetExtensionListByMimeType(Arg(c[0])))) << c[0];
        EXPECT_EQ(c[2], Text(MF_GetExtensionListByPluginName(Arg(c[0])))) << c[0];
    }
    EXPECT_EQ(nullptr, MF_GetExtensionListByMimeType(nullptr));
    EXPECT_EQ(nullptr, MF_GetExtensionListByPluginName(nullptr));
}

// In order of first appearance, cached until released; a joined list ends behind the last whole name that
// fits 1022 bytes, and a first name that does not fit gives none.
TEST_F(MediaFormatQueries, UniqueParserPlugins) {
    std::string joined;  // 20 names of 49 bytes with commas take 1000 bytes; a 22-byte name still fits
    for (int i = 0; i < 20; ++i) joined += "plugin" + std::to_string(100 + i) + std::string(40, 'p') + ",";
    joined += std::string(21, 'f') + "1";
    ASSERT_EQ(1022u, joined.size());
    const std::string n1022(1022, 'n');
    const std::string cases[][2] = {
        {"mpeg,wave,mpeg", "mpeg,wave"},
        {"parser2,parser", "parser2"},
        {"MP3,mp3", "MP3,mp3"},
        {",a,,b", "a,b"},  // empty elements leave no name
        {",", "-"},
        {joined + ",z", joined},
        {n1022 + "n,short", "-"},
        {n1022 + ",short", n1022},
    };
    for (const auto& c : cases) {
        Strings records;
        for (size_t at = 0, end; at <= c[0].size(); at = end + 1) {
            end = std::min(c[0].find(',', at), c[0].size());
            records.push_back(Ext("x") + Parser(c[0].substr(at, end - at)));
        }
        Load(records);
        char* first = MF_GetUniqueParserPlugins();
        EXPECT_EQ(c[1], Text(first));
        EXPECT_EQ(first, MF_GetUniqueParserPlugins());
    }
}

// Sample lookups on the shipped table, as Fields() gives them.
const char* const kShipped[][2] = {
    {"mp3", "MPEG-1 Audio Layer III|audio/mpeg|object.item.audioItem.musicTrack|MP3|-|mp3Parser|a|a|0"},
    {".FLAC",
     "Free Lossless Audio "
     "Codec|audio/flac|object.item.audioItem.musicTrack|-|audioTranscodeDAP|flacParser|a|a|1"},
    {"M4V", "MPEG-4 Video|video/mp4|object.item.videoItem.movie|AVC_MP4_HP_HD_AAC|-|mp4Parser|v|v|0"},
    {"mkv",
     "Matroska Video|video/x-matroska|object.item.videoItem.movie|-|videoTranscodeDAP|mkvParser|v|v|1"},
    {"ts",
     "MPEG-2 Transport Stream|video/mpeg|object.item.videoItem.movie|MPEG_TS_HD_NA_ISO|-|mpegtsParser|v|v|0"},
    {"mpg", "MPEG Program Stream|video/mpeg|object.item.videoItem.movie|MPEG_PS_PAL|-|mpegParser|v|v|0"},
    {"JPEG", "JPEG Image|image/jpeg|object.item.imageItem.photo|JPEG_LRG|-|jpegParser|i|i|0"},
    {"bmp", "Windows Bitmap|image/bmp|object.item.imageItem.photo|-|imageScaleDAP|bmpParser|i|i|1"},
    {"m3u", "M3U Playlist|audio/x-mpegurl|object.container.playlistContainer|-|-|playlistParser|0|0|0"},
    {"srt", "SubRip Subtitles|application/x-subrip|-|-|-|-|0|0|0"},
    {"docx", "-|-|-|-|-|-|x|0|0"},
};

class ShippedTable : public MediaFormatQueries {
protected:
    void SetUp() override {
        WriteShipped();
        ASSERT_EQ(1, MF_Initialize());
    }
};

TEST_F(ShippedTable, SampleLookups) {
    for (const auto& e : kShipped) EXPECT_EQ(e[1], Fields(e[0]));
    // The plug-in list drops a name found inside one listed before it: none of the table's may be lost so.
    const std::string plugins = "," + Text(MF_GetUniqueParserPlugins()) + ",";
    mediatest::TestMapper mapper;
    ASSERT_EQ(1, mapper.initialize());
    int records = 0;
    for (MediaFormatInfo* f = mapper.formatList; f != nullptr; f = f->next, ++records) {
        SCOPED_TRACE(mediatest::Dump(f));
        ASSERT_TRUE(f->formatName && f->extensions && f->mimeType);
        EXPECT_EQ(strcspn(f->extensions, " ."), strlen(f->extensions));
        EXPECT_LE(strlen(f->extensions), 1023u);
        EXPECT_TRUE(!f->parserName || plugins.find("," + Text(f->parserName) + ",") != std::string::npos);
    }
    EXPECT_GE(records, 40);
    EXPECT_EQ("videoTranscodeDAP", Text(MF_GetDAPNameByExtension(Arg("avi"))));
    EXPECT_EQ("mp3", Text(MF_GetExtensionListByMimeType(Arg("audio/mpeg"))));
    EXPECT_EQ("mpg,mpeg,mpe,m2p,m2v", Text(MF_GetExtensionListByMimeType(Arg("video/mpeg"))));
    EXPECT_EQ("m4a,m4b", Text(MF_GetExtensionListByPluginName(Arg("mp4Parser"))));
    EXPECT_EQ(
        "mp3Parser,aacParser,mp4Parser,flacParser,wavParser,pcmParser,aiffParser,oggParser,asfParser,"
        "ac3Parser,dtsParser,apeParser,wavpackParser,mpcParser,amrParser,midiParser,dsdParser,mkvParser,"
        "aviParser,mpegParser,mpegtsParser,flvParser,rmParser,dvParser,jpegParser,pngParser,gifParser,"
        "bmpParser,tiffParser,heifParser,webpParser,rawParser,playlistParser",
        Text(MF_GetUniqueParserPlugins()));
}

TEST_F(ShippedTable, FourThreadsLookUpAtOnce) {
    std::atomic<int> failures{0};
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (size_t t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            while (!go) std::this_thread::yield();
            for (size_t round = 0; round < 300; ++round) {
                const auto& e = kShipped[(round * 7 + t * 5) % std::size(kShipped)];
                if (Fields(e[0]) != e[1] || Text(MF_GetUniqueParserPlugins()).rfind("mp3Parser,", 0) != 0)
                    ++failures;
            }
        });
    }
    go = true;
    for (std::thread& th : threads) th.join();
    EXPECT_EQ(0, failures.load());
}

}  // namespace
