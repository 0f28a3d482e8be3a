#include "msplatform/mediaMapper.h"

#include <strings.h>
#include <sys/sem.h>

#include <atomic>
#include <random>
#include <tuple>
#include <thread>

#include <gtest/gtest.h>

#include "media/internal.h"
#include "msplatform/mediaFormats.h"
#include "msplatform/mutex.h"
#include "support/support.h"

namespace {

using Strings = std::vector<std::string>;

const auto Text = [](const char* s) { return std::string(s ? s : "-"); };
const auto Byte = [](char c) { return c ? std::string(1, c) : "0"; };

std::string Line(const Strings& fields) {
    std::string line;
    for (const std::string& field : fields) line += (line.empty() ? "" : "|") + field;
    return line + "\n";
}

// A record a line, its properties in the order of the struct, "-" for no text, "0" for no media type.
std::string Dump(const MediaFormatInfo* f) {
    std::string out;
    for (; f; f = f->next)
        out += Line({Text(f->formatName), Text(f->extensions), Text(f->mimeType), Byte(f->mediaType),
                     Text(f->dlnaClass), Text(f->dlnaProfile), std::to_string(f->transcodeFlag),
                     Text(f->parserName), Text(f->dapName)});
    return out;
}

const Strings kNone = {"-", "-", "-", "0", "-", "-", "0", "-", "-"};
MediaMapper& mapper = *new MediaMapper;  // its lock stays reachable for the leak checker

struct MediaTable : ::testing::Test {
    msptest::TempDir dir;
    msptest::ScopedChdir cwd{dir.path()};
};
const auto Write = [](const std::string& xml) { msptest::WriteFile("MediaFormats.xml", xml); };

// The load's rules: a tag names the first property of which it is a case-free prefix; an empty value sets
// nothing; a later value replaces an earlier one, elements inside it kept as raw text; MediaType and
// Transcode values map to a byte, an unknown MediaType leaving the one before.
const char* const kProperties[] = {"FormatName",   "Extensions", "MimeType", "MediaType", "DLNA_Class",
                                   "DLNA_Profile", "Transcode",  "Parser",   "DAP"};
const char* const kMediaTypes[] = {"CLASS_AUDIO_ITEM", "AUDIO", "a", "CLASS_VIDEO_ITEM", "VIDEO", "v",
                                   "CLASS_IMAGE_ITEM", "IMAGE", "i"};

void Assign(Strings& f, const std::string& tag, const std::string& value) {
    size_t p = 0, t = 0;
    while (p < 9 && strncasecmp(tag.c_str(), kProperties[p], tag.size())) ++p;
    while (p == 3 && t < 9 && strcasecmp(value.c_str(), kMediaTypes[t])) ++t;
    if (p == 9 || value.empty() || (p == 3 && t == 9)) return;
    const bool yes = !strcasecmp(value.c_str(), "yes") || !strcasecmp(value.c_str(), "true") || value == "1";
    f[p] = p == 3 ? std::string(1, "avi"[t / 3]) : p == 6 ? std::string(yes ? "1" : "0") : value;
}

// The first record that lists the extension as a whole token between commas (blanks kept, case-free, one
// leading dot dropped), among the tokens ended within a list's first 1023 bytes; none for one over 55 bytes.
const Strings* Lookup(const std::vector<Strings>& records, const std::string& extension) {
    const std::string key = "," + extension.substr(extension.rfind('.', 0) == 0) + ",";
    for (size_t r = 0; key.size() > 2 && key.size() <= 57 && r < records.size(); ++r)
        if (records[r][1] != "-" &&
            strcasestr(("," + records[r][1] + ",").substr(0, 1025).c_str(), key.c_str()))
            return &records[r];
    return nullptr;
}

// Every getter of one extension as Dump gives a record, then the byte the parser getter stores ('x' if none).
std::string Fields(char* e) {
    char type = 'x';
    const std::string parser = Text(MF_GetParserNameByExtension(e, &type));
    const MediaFormatInfo* f = mapper.getFormatInfoByExtension(e);
    return Line({Text(MF_GetFormatNameByExtension(e)), Text(f ? f->extensions : nullptr),
                 Text(MF_GetMimeTypeByExtension(e)), Byte(MF_GetMediaTypeByExtension(e)),
                 Text(MF_GetDLNAClassByExtension(e)), Text(MF_GetDLNAProfileByExtension(e)),
                 std::to_string(MF_GetTranscodeFlagByExtension(e)), parser,
                 Text(MF_GetDAPNameByExtension(e))}) +
           Byte(type);
}

TEST_F(MediaTable, GeneratedTablesMatchTheRules) {
    const Strings tags = {"F",         "formatname", "E",         "Ext",    "M",   "MIMETYPE",  "Me",
                          "mediatype", "D",          "DLNA",      "dlna_p", "T",   "Transcode", "P",
                          "parser",    "DA",         "MimeTypes", "Codec",  "DAPS"};
    Strings pieces = {"a", "B",  "ab", ".",  " ",       ",",    "video", "Class_Image_Item", "YES", "true",
                      "1", "no", "p",  "p2", "a&amp;b", "x\ny", "",      "<b>c</b>",         "c"};
    for (size_t n : {55, 56, 300}) pieces.push_back(std::string(n, n == 300 ? 'x' : 'e'));
    // First tokens ending at byte 1024 and 1023 of a list; plug-in names of 1022 and 1023 bytes.
    std::vector<std::vector<Strings>> tables = {
        {{"E", "a," + std::string(1020, 'x') + ",b", "P", std::string(1022, 'p')},
         {"E", std::string(1021, 'y') + ",c"}},
        {{"P", std::string(1023, 'p')}}};
    std::mt19937 rng(2026);
    auto random = [&](const Strings& from, int most) {
        std::string text;
        for (int n = int(rng() % most); n >= 0; --n) text += from[rng() % from.size()];
        return text;
    };
    for (size_t round = 0; round < 300 && !HasFailure(); ++round) {
        if (round >= tables.size()) {
            tables.emplace_back(rng() % 6);
            for (Strings& record : tables.back())
                for (int e = int(rng() % 5); e > 0; --e)
                    record.insert(record.end(), {tags[rng() % tags.size()], random(pieces, 3)});
        }
        std::vector<Strings> model;
        std::string xml = "<MediaFormats>", expected;
        for (const Strings& record : tables[round]) {
            model.push_back(kNone);
            xml += "<Format>";
            for (size_t e = 0; e < record.size(); e += 2) {
                xml += "<" + record[e] + ">" + record[e + 1] + "</" + record[e] + ">";
                Assign(model.back(), record[e], record[e + 1]);
            }
            xml += "</Format>";
            expected += Line(model.back());
        }
        Write(xml + "</MediaFormats>");
        ASSERT_EQ(1, mapper.initialize());
        ASSERT_EQ(1, MF_Initialize());
        ASSERT_EQ(expected, Dump(mapper.formatList));
        auto firstNaming = [&](size_t field, const std::string& name) {
            for (const Strings& m : model)
                if (m[field] != "-" && !strcasecmp(m[field].c_str(), name.c_str())) return m[1];
            return std::string("-");
        };
        for (int q = 0; q < 10; ++q) {
            const std::string query = q < 2 ? std::string(1, "bc"[q]) : random(pieces, 2);
            msptest::GuardedBytes exact = msptest::GuardedBytes::String(query);
            const Strings* m = Lookup(model, query);
            EXPECT_EQ(Line(m ? *m : kNone) + (m ? (*m)[3] : "x"), Fields(exact.data())) << query;
            EXPECT_EQ(firstNaming(2, query), Text(MF_GetExtensionListByMimeType(exact.data())));
            EXPECT_EQ(firstNaming(7, query), Text(MF_GetExtensionListByPluginName(exact.data())));
        }
        // The plug-ins in order of first appearance, each dropped if it stands anywhere in the list so far,
        // the list ended behind the last whole name that fits 1022 bytes; computed once.
        std::string joined;
        for (const Strings& f : model) {
            if (f[7] == "-" || joined.find(f[7]) != std::string::npos) continue;
            if (joined.size() + f[7].size() + 1 > 1023) break;
            joined += f[7] + ",";
        }
        char* plugins = mapper.getUniqueParserPlugins();
        EXPECT_EQ(joined.empty() ? "-" : joined.substr(0, joined.size() - 1), Text(plugins));
        EXPECT_EQ(Text(plugins), Text(MF_GetUniqueParserPlugins()));
        mapper.uninitialize();
        MF_UnInitialize();
    }
}

// Only depth counts: root, record, property, whatever their names; an unclosed record is not kept. A stray
// closing tag or a comment before the root shifts every level behind it. A missing or empty file fails, a
// later load retries; threads' first loads at once read the file once, under the machine's "MediaMapper"; a
// loaded table is not reread until released; a failed allocation loses only its record or value.
TEST_F(MediaTable, LevelsLoadLifeAndFailedAllocations) {
    for (int i = 0; i < 2; ++i, Write("")) EXPECT_EQ(0, mapper.initialize());
    Write("<F><R><E>mp3</E><P>p</P></R></F>");
    static std::atomic<bool> stalled{false};  // the first load stalls at its first record: the others come
    mediaMapperAlloc = [](size_t size) {
        if (!stalled.exchange(true)) std::this_thread::sleep_for(std::chrono::milliseconds(200));
        return malloc(size);
    };
    std::vector<std::thread> threads;
    std::vector<char*> plugins(4);
    for (int i = 0; i < 4; ++i)
        threads.emplace_back(
            [&, i] { plugins[i] = mapper.initialize() ? mapper.getUniqueParserPlugins() : nullptr; });
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(std::vector<char*>(4, plugins[0]), plugins) << "all loaded, one list made once";
    EXPECT_EQ(semget(108207, 1, 0), mapper.mutex->getid());
    const std::string ogg = "<F><R><E>ogg</E><F>one</F><F>three</F><P>p</P></R></F>";
    static size_t failing;
    mediaMapperAlloc = [](size_t size) { return size == failing ? nullptr : malloc(size); };
    const std::tuple<std::string, size_t, const char*> files[] = {
        {ogg, 0, "-|mp3|-|0|-|-|0|p|-\n"},  // the table still loaded
        {"<Any>\n <First a=\"x\"><FormatName>One</FormatName><E>a1</E></First>\n <Format/>\n "
         "<Unclosed><E>wav</E>",
         0, "One|a1|-|0|-|-|0|-|-\n-|-|-|0|-|-|0|-|-\n"},
        {"</Stray><Root><R><E>x</E></R></Root>", 0, "-|-|-|0|-|-|0|-|-\n"},
        {"<!-- c --><Root><R><E>x</E></R></Root>", 0, "-|-|-|0|-|-|0|-|-\n"},
        {ogg, sizeof("three"), "one|ogg|-|0|-|-|0|p|-\n"},
        {ogg, sizeof(MediaFormatInfo), ""},
    };
    for (const auto& [file, fails, records] : files) {
        Write(file);
        failing = fails;
        msptest::CaptureFd message(1);
        EXPECT_EQ(1, mapper.initialize()) << file;
        message.Finish();  // a mismatch below shows
        EXPECT_EQ(records, Dump(mapper.formatList)) << file;
        mapper.uninitialize();
    }
    mediaMapperAlloc = malloc;
}

}  // namespace
