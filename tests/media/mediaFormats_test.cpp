#include "msplatform/mediaFormats.h"

#include <string.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "mediaTestUtil.h"
#include "support/support.h"

namespace {

std::string Text(const char* s) {
    return s != nullptr ? std::string(s) : std::string("(null)");
}

// Writable copies for the char* arguments of the queries.
struct Arg {
    explicit Arg(const std::string& s) : bytes(s.begin(), s.end()) { bytes.push_back('\0'); }
    operator char*() { return bytes.data(); }
    std::vector<char> bytes;
};

class MediaFormatQueries : public ::testing::Test {
protected:
    MediaFormatQueries() : cwd_(dir_.path()) {}
    ~MediaFormatQueries() override { MF_UnInitialize(); }

    void Load(const std::vector<std::string>& records) {
        std::string xml = "<?xml version=\"1.0\"?>\n<MediaFormats>\n";
        for (const std::string& r : records) xml += "  <Format>" + r + "</Format>\n";
        xml += "</MediaFormats>\n";
        MF_UnInitialize();
        msptest::WriteFile(dir_.file("MediaFormats.xml"), xml);
        ASSERT_EQ(1, MF_Initialize());
    }

    static std::string Extensions(const std::string& list) { return "<Extensions>" + list + "</Extensions>"; }
    static std::string Parser(const std::string& name) { return "<Parser>" + name + "</Parser>"; }

    msptest::TempDir dir_;
    msptest::ScopedChdir cwd_;
};

TEST_F(MediaFormatQueries, ExtensionsMatchWholeTokensWithoutCaseAndOneDot) {
    Load({"<FormatName>first</FormatName>" + Extensions("mp3,MP2"),
          "<FormatName>second</FormatName>" + Extensions("mp3,wma, ogg"),
          "<FormatName>third</FormatName>" + Extensions("a,,b,")});
    struct Case {
        const char *extension, *expected;
    } cases[] = {
        {"mp3", "first"},  {".mp3", "first"},  {"MP3", "first"},   {".Mp3", "first"},   {"mp2", "first"},
        {"wma", "second"}, {" ogg", "second"}, {"ogg", "(null)"},  {"..mp3", "(null)"}, {".", "(null)"},
        {"", "(null)"},    {"mp", "(null)"},   {"mp3,", "(null)"}, {"b", "third"},      {"a,,b", "(null)"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(c.expected, Text(MF_GetFormatNameByExtension(Arg(c.extension))))
            << "'" << c.extension << "'";
    }
    EXPECT_EQ(nullptr, MF_GetFormatNameByExtension(nullptr));
}

TEST_F(MediaFormatQueries, FieldGettersGiveTheFirstRecordsFields) {
    Load({Extensions("mp3") +
              "<FormatName>MP3</FormatName><MimeType>audio/mpeg</MimeType><MediaType>AUDIO</MediaType>"
              "<DLNA_Class>object.item.audioItem.musicTrack</DLNA_Class><DLNA_Profile>MP3</DLNA_Profile>"
              "<Transcode>no</Transcode><Parser>mp3Parser</Parser><DAP>mp3DAP</DAP>",
          Extensions("flac") + "<Transcode>Yes</Transcode>",
          Extensions("xyz") + "<MediaType>movie</MediaType>"});
    Arg mp3("MP3"), flac("flac"), xyz(".xyz"), none("none");
    EXPECT_EQ("MP3", Text(MF_GetFormatNameByExtension(mp3)));
    EXPECT_EQ("audio/mpeg", Text(MF_GetMimeTypeByExtension(mp3)));
    EXPECT_EQ("object.item.audioItem.musicTrack", Text(MF_GetDLNAClassByExtension(mp3)));
    EXPECT_EQ("MP3", Text(MF_GetDLNAProfileByExtension(mp3)));
    EXPECT_EQ("mp3DAP", Text(MF_GetDAPNameByExtension(mp3)));
    EXPECT_EQ(0, MF_GetTranscodeFlagByExtension(mp3));
    EXPECT_EQ('a', MF_GetMediaTypeByExtension(mp3));
    char type = 'x';
    EXPECT_EQ("mp3Parser", Text(MF_GetParserNameByExtension(mp3, &type)));
    EXPECT_EQ('a', type);
    EXPECT_EQ("mp3Parser", Text(MF_GetParserNameByExtension(mp3, nullptr)));  // no out byte: nothing stored

    // A record without the field answers like an unknown extension, but for the media type's out byte.
    EXPECT_EQ(nullptr, MF_GetFormatNameByExtension(flac));
    EXPECT_EQ(nullptr, MF_GetMimeTypeByExtension(flac));
    EXPECT_EQ(nullptr, MF_GetDLNAClassByExtension(flac));
    EXPECT_EQ(nullptr, MF_GetDLNAProfileByExtension(flac));
    EXPECT_EQ(nullptr, MF_GetDAPNameByExtension(flac));
    EXPECT_EQ(1, MF_GetTranscodeFlagByExtension(flac));
    EXPECT_EQ(0, MF_GetMediaTypeByExtension(xyz));
    type = 'x';
    EXPECT_EQ(nullptr, MF_GetParserNameByExtension(xyz, &type));
    EXPECT_EQ(0, type);

    type = 'x';
    EXPECT_EQ(nullptr, MF_GetParserNameByExtension(none, &type));
    EXPECT_EQ('x', type);
    EXPECT_EQ(nullptr, MF_GetParserNameByExtension(nullptr, &type));
    EXPECT_EQ('x', type);
    EXPECT_EQ(0, MF_GetTranscodeFlagByExtension(none));
    EXPECT_EQ(0, MF_GetMediaTypeByExtension(none));
}

TEST_F(MediaFormatQueries, ExtensionListsByMimeTypeAndPlugin) {
    Load({"<MimeType>audio/mpeg</MimeType>" + Parser("mpegParser") + Extensions("mp3"),
          "<MimeType>audio/mpeg</MimeType>" + Parser("mpegParser") + Extensions("mp2,mpa"),
          "<MimeType>video/x-ms-wmv</MimeType>" + Parser("asfParser"),
          "<MimeType>video/x-ms-wmv</MimeType>" + Parser("asfParser") + Extensions("wmv"),
          Extensions("orphan")});
    struct Case {
        const char *key, *byMime, *byPlugin;
    } cases[] = {
        {"AUDIO/MPEG", "mp3", "(null)"},        {"MPEGPARSER", "(null)", "mp3"},
        {"video/x-ms-wmv", "(null)", "(null)"},  // the first match has no extensions
        {"asfParser", "(null)", "(null)"},      {"audio", "(null)", "(null)"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(c.byMime, Text(MF_GetExtensionListByMimeType(Arg(c.key)))) << c.key;
        EXPECT_EQ(c.byPlugin, Text(MF_GetExtensionListByPluginName(Arg(c.key)))) << c.key;
    }
    EXPECT_EQ(nullptr, MF_GetExtensionListByMimeType(nullptr));
    EXPECT_EQ(nullptr, MF_GetExtensionListByPluginName(nullptr));
}

TEST_F(MediaFormatQueries, UniqueParserPluginsInOrderOfFirstAppearance) {
    struct Case {
        std::vector<std::string> parsers;
        const char* expected;
    } cases[] = {
        {{"mpeg", "wave", "mpeg"}, "mpeg,wave"},
        {{"parser2", "parser"}, "parser2"},
        {{"MP3", "mp3"}, "MP3,mp3"},
        {{"", "a", "", "b"}, "a,b"},  // empty elements leave no name
        {{"", ""}, "(null)"},
    };
    for (const Case& c : cases) {
        std::vector<std::string> records;
        for (const std::string& p : c.parsers) records.push_back(Extensions("x") + Parser(p));
        Load(records);
        EXPECT_EQ(c.expected, Text(MF_GetUniqueParserPlugins()));
    }
}

TEST_F(MediaFormatQueries, UniqueParserPluginsAreCachedUntilReleased) {
    Load({Parser("one"), Parser("two")});
    char* first = MF_GetUniqueParserPlugins();
    EXPECT_EQ("one,two", Text(first));
    EXPECT_EQ(first, MF_GetUniqueParserPlugins());

    Load({Parser("three")});
    EXPECT_EQ("three", Text(MF_GetUniqueParserPlugins()));
}

TEST_F(MediaFormatQueries, EmptyTableAndNoTableAnswerNothing) {
    Arg mp3("mp3"), mime("audio/mpeg");
    for (int loaded = 0; loaded < 2; ++loaded) {
        if (loaded) Load({});
        char type = 'x';
        EXPECT_EQ(nullptr, MF_GetFormatNameByExtension(mp3));
        EXPECT_EQ(nullptr, MF_GetParserNameByExtension(mp3, &type));
        EXPECT_EQ('x', type);
        EXPECT_EQ(0, MF_GetMediaTypeByExtension(mp3));
        EXPECT_EQ(nullptr, MF_GetExtensionListByMimeType(mime));
        EXPECT_EQ(nullptr, MF_GetExtensionListByPluginName(mime));
        EXPECT_EQ(nullptr, MF_GetUniqueParserPlugins());
    }
}

TEST_F(MediaFormatQueries, ExtensionOfMoreThan55BytesIsNeverFound) {
    std::string ext55(55, 'e'), ext56(56, 'e');
    Load({"<FormatName>55</FormatName>" + Extensions(ext55),
          "<FormatName>56</FormatName>" + Extensions(ext56)});
    EXPECT_EQ("55", Text(MF_GetFormatNameByExtension(Arg(ext55))));
    EXPECT_EQ("55", Text(MF_GetFormatNameByExtension(Arg("." + ext55))));
    EXPECT_EQ(nullptr, MF_GetFormatNameByExtension(Arg(ext56)));
    EXPECT_EQ(nullptr, MF_GetFormatNameByExtension(Arg("." + ext56)));
    EXPECT_EQ(nullptr, MF_GetFormatNameByExtension(Arg(std::string(5000, 'e'))));
}

TEST_F(MediaFormatQueries, OnlyWholeTokensWithinTheFirst1023BytesOfAListCount) {
    // The first list's byte 1023 is the comma behind the g's; in the second, byte 1023 falls inside a token.
    std::string head = "first,";
    for (int i = 0; i < 99; ++i) head += "f" + std::to_string(10000000 + i) + ",";
    head += "xyz,";  // 1000 bytes
    std::string gs(23, 'g');
    std::string cutToken = "xx" + std::string(19, 'c') + "cutoff";
    std::string cutPrefix = cutToken.substr(0, 23);  // what lies within the limit
    std::string atLimit = head + gs + ",late,tail";
    std::string cut = head + cutToken + ",late";
    ASSERT_EQ(1000u, head.size());
    ASSERT_EQ(',', atLimit[1023]);
    Load({"<FormatName>atLimit</FormatName>" + Extensions(atLimit),
          "<FormatName>cut</FormatName>" + Extensions(cut),
          "<FormatName>fallback</FormatName>" + Extensions("late,tail," + cutPrefix)});
    EXPECT_EQ("atLimit", Text(MF_GetFormatNameByExtension(Arg("first"))));
    EXPECT_EQ("atLimit", Text(MF_GetFormatNameByExtension(Arg("f10000098"))));
    EXPECT_EQ("atLimit", Text(MF_GetFormatNameByExtension(Arg(gs))));
    // Behind the limit the first two lists name nothing, so the last record answers.
    EXPECT_EQ("fallback", Text(MF_GetFormatNameByExtension(Arg("late"))));
    EXPECT_EQ("fallback", Text(MF_GetFormatNameByExtension(Arg("tail"))));
    // The token that the limit cuts is neither found whole nor taken for its first bytes.
    EXPECT_EQ("fallback", Text(MF_GetFormatNameByExtension(Arg(cutPrefix))));
    EXPECT_EQ(nullptr, MF_GetFormatNameByExtension(Arg(cutToken)));
}

TEST_F(MediaFormatQueries, JoinedPluginListIsCutBehindTheLastWholeName) {
    // 20 names of 49 bytes take 1000 bytes with their commas; a 22-byte name still fits (1023), the next
    // one does not, nor does any after it.
    std::vector<std::string> records;
    std::string expected;
    for (int i = 0; i < 20; ++i) {
        std::string name = "plugin" + std::to_string(100 + i) + std::string(40, 'p');
        records.push_back(Parser(name));
        expected += name + ",";
    }
    std::string fits = std::string(21, 'f') + "1";
    records.push_back(Parser(fits));
    expected += fits;
    records.push_back(Parser("z"));
    records.push_back(Parser("y"));
    Load(records);
    char* joined = MF_GetUniqueParserPlugins();
    ASSERT_NE(nullptr, joined);
    EXPECT_EQ(1022u, strlen(joined));
    EXPECT_EQ(expected, joined);

    Load({Parser(std::string(1023, 'n')), Parser("short")});
    EXPECT_EQ(nullptr, MF_GetUniqueParserPlugins()) << "a first name without room for its comma";
    Load({Parser(std::string(1022, 'n')), Parser("short")});
    EXPECT_EQ(std::string(1022, 'n'), Text(MF_GetUniqueParserPlugins()));
}

struct Expected {
    const char *extension, *formatName, *mimeType, *dlnaProfile, *parser;
    char mediaType;
    unsigned char transcode;
};
const Expected kShipped[] = {
    {"mp3", "MPEG-1 Audio Layer III", "audio/mpeg", "MP3", "mp3Parser", 'a', 0},
    {".FLAC", "Free Lossless Audio Codec", "audio/flac", "(null)", "flacParser", 'a', 1},
    {"m4a", "MPEG-4 Audio", "audio/mp4", "AAC_ISO_320", "mp4Parser", 'a', 0},
    {"wma", "Windows Media Audio", "audio/x-ms-wma", "WMAFULL", "asfParser", 'a', 0},
    {"M4V", "MPEG-4 Video", "video/mp4", "AVC_MP4_HP_HD_AAC", "mp4Parser", 'v', 0},
    {"mkv", "Matroska Video", "video/x-matroska", "(null)", "mkvParser", 'v', 1},
    {"ts", "MPEG-2 Transport Stream", "video/mpeg", "MPEG_TS_HD_NA_ISO", "mpegtsParser", 'v', 0},
    {"m2ts", "BDAV MPEG-2 Transport Stream", "video/vnd.dlna.mpeg-tts", "AVC_TS_HD_24_AC3_T", "mpegtsParser",
     'v', 0},
    {"mpg", "MPEG Program Stream", "video/mpeg", "MPEG_PS_PAL", "mpegParser", 'v', 0},
    {"JPEG", "JPEG Image", "image/jpeg", "JPEG_LRG", "jpegParser", 'i', 0},
    {"png", "Portable Network Graphics", "image/png", "PNG_LRG", "pngParser", 'i', 0},
    {"bmp", "Windows Bitmap", "image/bmp", "(null)", "bmpParser", 'i', 1},
    {"m3u", "M3U Playlist", "audio/x-mpegurl", "(null)", "playlistParser", 0, 0},
    {"srt", "SubRip Subtitles", "application/x-subrip", "(null)", "(null)", 0, 0},
    {"docx", "(null)", "(null)", "(null)", "(null)", 0, 0},
};

std::string Check(const Expected& e) {
    auto type = [](char c) { return c != 0 ? std::string(1, c) : std::string("0"); };
    Arg ext(e.extension);
    char outType = 0;
    std::string got = Text(MF_GetFormatNameByExtension(ext));
    got += "|" + Text(MF_GetMimeTypeByExtension(ext));
    got += "|" + Text(MF_GetDLNAProfileByExtension(ext));
    got += "|" + Text(MF_GetParserNameByExtension(ext, &outType));
    got += "|" + type(outType);
    got += "|" + type(MF_GetMediaTypeByExtension(ext));
    got += "|" + std::to_string(MF_GetTranscodeFlagByExtension(ext));
    std::string want = std::string(e.formatName) + "|" + e.mimeType + "|" + e.dlnaProfile + "|" + e.parser +
                       "|" + type(e.mediaType) + "|" + type(e.mediaType) + "|" + std::to_string(e.transcode);
    return got == want ? "" : std::string(e.extension) + ": got " + got + ", want " + want;
}

class ShippedTable : public MediaFormatQueries {
protected:
    void SetUp() override {
        msptest::WriteFile(dir_.file("MediaFormats.xml"), msptest::ReadFile(mediatest::ShippedTablePath()));
        ASSERT_EQ(1, MF_Initialize());
    }
};

TEST_F(ShippedTable, SampleLookups) {
    for (const Expected& e : kShipped) EXPECT_EQ("", Check(e));
    EXPECT_EQ("object.item.audioItem.musicTrack", Text(MF_GetDLNAClassByExtension(Arg("flac"))));
    EXPECT_EQ("object.item.videoItem.movie", Text(MF_GetDLNAClassByExtension(Arg("mkv"))));
    EXPECT_EQ("object.item.imageItem.photo", Text(MF_GetDLNAClassByExtension(Arg("png"))));
    EXPECT_EQ("videoTranscodeDAP", Text(MF_GetDAPNameByExtension(Arg("avi"))));
    EXPECT_EQ("mp3", Text(MF_GetExtensionListByMimeType(Arg("audio/mpeg"))));
    EXPECT_EQ("mpg,mpeg,mpe,m2p,m2v", Text(MF_GetExtensionListByMimeType(Arg("video/mpeg"))));
    EXPECT_EQ("m4a,m4b", Text(MF_GetExtensionListByPluginName(Arg("mp4Parser"))));
    EXPECT_EQ(
        "mp3Parser,aacParser,mp4Parser,flacParser,wavParser,pcmParser,aiffParser,oggParser,asfParser,"
        "ac3Parser,"
        "dtsParser,apeParser,wavpackParser,mpcParser,amrParser,midiParser,dsdParser,mkvParser,aviParser,"
        "mpegParser,mpegtsParser,flvParser,rmParser,dvParser,jpegParser,pngParser,gifParser,bmpParser,"
        "tiffParser,"
        "heifParser,webpParser,rawParser,playlistParser",
        Text(MF_GetUniqueParserPlugins()));
}

TEST_F(ShippedTable, FourThreadsLookUpAtOnce) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 300;
    std::atomic<int> failures{0};
    std::atomic<bool> go{false};
    std::vector<std::string> firstFailure(kThreads);  // one report per thread at most
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            while (!go) std::this_thread::yield();
            const size_t n = sizeof(kShipped) / sizeof(kShipped[0]);
            for (int round = 0; round < kRounds; ++round) {
                const Expected& e =
                    kShipped[(static_cast<size_t>(round) * 7 + static_cast<size_t>(t) * 5) % n];
                std::string problem = Check(e);
                if (Text(MF_GetUniqueParserPlugins()).rfind("mp3Parser,", 0) != 0) problem += " plug-in list";
                if (!problem.empty() && failures++ == 0) firstFailure[static_cast<size_t>(t)] = problem;
            }
        });
    }
    go = true;
    for (std::thread& th : threads) th.join();
    EXPECT_EQ(0, failures.load());
    for (const std::string& f : firstFailure) EXPECT_EQ("", f);
}

}  // namespace
