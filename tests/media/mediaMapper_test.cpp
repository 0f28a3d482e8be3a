// The media format table: generated tables loaded and looked up against a model of the rules; the levels of
// the file; the load's life; failed allocations.
#include "msplatform/mediaMapper.h"

#include <string.h>
#include <strings.h>
#include <sys/sem.h>

#include <atomic>
#include <chrono>
#include <random>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "media/internal.h"
#include "msplatform/mediaFormats.h"
#include "msplatform/mutex.h"
#include "support/support.h"

namespace {

using Strings = std::vector<std::string>;

std::string Text(const char* s) {
    return s ? s : "-";
}

// The records in the order of the properties: "name|extensions|mime|media type|class|profile|transcode|
// parser|dap", "-" for no text, "0" for no media type.
std::string Dump(const MediaFormatInfo* f) {
    std::string out;
    for (; f; f = f->next)
        out += Text(f->formatName) + "|" + Text(f->extensions) + "|" + Text(f->mimeType) + "|" +
               (f->mediaType ? std::string(1, f->mediaType) : "0") + "|" + Text(f->dlnaClass) + "|" +
               Text(f->dlnaProfile) + "|" + std::to_string(f->transcodeFlag) + "|" + Text(f->parserName) +
               "|" + Text(f->dapName) + "\n";
    return out;
}

// A mapper of its own; its lock is parked, since deleting it would remove the semaphore for the process.
struct TestMapper : MediaMapper {
    ~TestMapper() {
        uninitialize();
        static auto* parked = new std::vector<Mutex*>;
        parked->push_back(mutex);
    }
};

class MediaTable : public ::testing::Test {
protected:
    void Write(const std::string& xml) { msptest::WriteFile(dir_.file("MediaFormats.xml"), xml); }
    msptest::TempDir dir_;
    msptest::ScopedChdir cwd_{dir_.path()};
};

// The load's rules: a tag names the first property of which it is a case-free prefix; an empty value sets
// nothing; a later value replaces an earlier one; MediaType and Transcode values map to a byte.
const char* const kProperties[] = {"FormatName",   "Extensions", "MimeType", "MediaType", "DLNA_Class",
                                   "DLNA_Profile", "Transcode",  "Parser",   "DAP"};
const char* const kMediaTypes[] = {"CLASS_AUDIO_ITEM", "AUDIO", "a", "CLASS_VIDEO_ITEM", "VIDEO", "v",
                                   "CLASS_IMAGE_ITEM", "IMAGE", "i"};

void Assign(Strings& f, const std::string& tag, const std::string& value) {
    size_t p = 0;
    while (p < 9 &&
           (tag.size() > strlen(kProperties[p]) || strncasecmp(tag.c_str(), kProperties[p], tag.size())))
        ++p;
    if (p == 9 || value.empty()) return;
    for (size_t t = 0; p == 3 && t < 9; ++t)
        if (!strcasecmp(value.c_str(), kMediaTypes[t])) f[3] = std::string(1, "avi"[t / 3]), t = 9;
    if (p == 6)
        f[6] =
            strcasecmp(value.c_str(), "yes") && strcasecmp(value.c_str(), "true") && value != "1" ? "0" : "1";
    if (p != 3 && p != 6) f[p] = value;
}

// The first record that lists the extension as a whole token between commas (blanks kept, case-free, one
// leading dot dropped), among the tokens ended within a list's first 1023 bytes; none for one over 55 bytes.
int Lookup(const std::vector<Strings>& records, std::string extension) {
    if (!extension.empty() && extension[0] == '.') extension.erase(0, 1);
    for (size_t r = 0; !extension.empty() && extension.size() <= 55 && r < records.size(); ++r) {
        const std::string& list = records[r][1];
        for (size_t start = 0, end; list != "-" && start <= list.size(); start = end + 1) {
            end = std::min(list.find(',', start), list.size());
            if (end > 1023) break;
            if (end > start && !strcasecmp(list.substr(start, end - start).c_str(), extension.c_str()))
                return int(r);
        }
    }
    return -1;
}

// Every getter of one extension through the process's table: "name|mime|class|profile|dap|parser|out byte|
// media type|transcode"; the out byte starts as 'x'.
std::string Fields(std::string e) {
    char type = 'x';
    auto byte = [](char c) { return c ? std::string(1, c) : std::string("0"); };
    const std::string parser = Text(MF_GetParserNameByExtension(&e[0], &type));
    return Text(MF_GetFormatNameByExtension(&e[0])) + "|" + Text(MF_GetMimeTypeByExtension(&e[0])) + "|" +
           Text(MF_GetDLNAClassByExtension(&e[0])) + "|" + Text(MF_GetDLNAProfileByExtension(&e[0])) + "|" +
           Text(MF_GetDAPNameByExtension(&e[0])) + "|" + parser + "|" + byte(type) + "|" +
           byte(MF_GetMediaTypeByExtension(&e[0])) + "|" +
           std::to_string(MF_GetTranscodeFlagByExtension(&e[0]));
}

TEST_F(MediaTable, GeneratedTablesMatchTheRules) {
    const Strings tags = {"F",         "formatname", "E",         "Ext",    "M",   "MIMETYPE",  "Me",
                          "mediatype", "D",          "DLNA",      "dlna_p", "T",   "Transcode", "P",
                          "parser",    "DA",         "MimeTypes", "Codec",  "DAPS"};
    Strings pieces = {"a", "B",  "ab", ".",  " ",       ",",    "video", "Class_Image_Item", "YES", "true",
                      "1", "no", "p",  "p2", "a&amp;b", "x\ny", ""};
    for (size_t n : {55, 56, 300}) pieces.push_back(std::string(n, n == 300 ? 'x' : 'e'));
    std::mt19937 rng(2026);
    auto random = [&](const Strings& from, int most) {
        std::string text;
        for (int n = int(rng() % most); n >= 0; --n) text += from[rng() % from.size()];
        return text;
    };
    TestMapper mapper;
    // The limits at their bytes: a token ended by the terminator at byte 1024 is not found, one ended at byte
    // 1023 is; a plug-in name of 1022 bytes is listed, one of 1023 is not.
    Write("<F><R><E>a," + std::string(1020, 'x') + ",b</E><P>" + std::string(1022, 'p') + "</P></R><R><E>" +
          std::string(1021, 'y') + ",c</E></R></F>");
    ASSERT_EQ(1, mapper.initialize());
    char b[] = "b", c[] = "c";
    EXPECT_EQ(nullptr, mapper.getFormatInfoByExtension(b));
    EXPECT_EQ(mapper.formatList->next, mapper.getFormatInfoByExtension(c));
    EXPECT_EQ(std::string(1022, 'p'), Text(mapper.getUniqueParserPlugins()));
    mapper.uninitialize();
    Write("<F><R><P>" + std::string(1023, 'p') + "</P></R></F>");
    ASSERT_EQ(1, mapper.initialize());
    EXPECT_EQ(nullptr, mapper.getUniqueParserPlugins());
    mapper.uninitialize();
    for (int round = 0; round < 300 && !HasFailure(); ++round) {
        std::vector<Strings> model;
        std::string xml = "<MediaFormats>", expected;
        for (int r = int(rng() % 6); r > 0; --r) {
            model.push_back({"-", "-", "-", "0", "-", "-", "0", "-", "-"});
            xml += "<Format>";
            for (int e = int(rng() % 5); e > 0; --e) {
                const std::string tag = tags[rng() % tags.size()], value = random(pieces, 3);
                xml += "<" + tag + ">" + value + "</" + tag + ">";
                Assign(model.back(), tag, value);
            }
            xml += "</Format>";
            for (const std::string& field : model.back())
                expected += field + (&field == &model.back()[8] ? "\n" : "|");
        }
        Write(xml + "</MediaFormats>");
        ASSERT_EQ(1, mapper.initialize());
        ASSERT_EQ(1, MF_Initialize());
        ASSERT_EQ(expected, Dump(mapper.formatList));
        std::vector<MediaFormatInfo*> loaded;
        for (MediaFormatInfo* f = mapper.formatList; f; f = f->next) loaded.push_back(f);
        // The extensions of the first record that names a MIME type or plug-in, case-free.
        auto firstNaming = [&](size_t field, const std::string& name) -> char* {
            for (size_t r = 0; r < model.size(); ++r)
                if (model[r][field] != "-" && !strcasecmp(model[r][field].c_str(), name.c_str()))
                    return loaded[r]->extensions;
            return nullptr;
        };
        for (int q = 0; q < 10; ++q) {
            const std::string query = random(pieces, 2);
            msptest::GuardedBytes exact = msptest::GuardedBytes::String(query);  // no byte beyond it is read
            const int r = Lookup(model, query);
            EXPECT_EQ(r < 0 ? nullptr : loaded[size_t(r)], mapper.getFormatInfoByExtension(exact.data()))
                << query;
            const Strings& m =
                r < 0 ? Strings{"-", "-", "-", "x", "-", "-", "0", "-", "-"} : model[size_t(r)];
            EXPECT_EQ(m[0] + "|" + m[2] + "|" + m[4] + "|" + m[5] + "|" + m[8] + "|" + m[7] + "|" + m[3] +
                          "|" + (r < 0 ? "0" : m[3]) + "|" + m[6],
                      Fields(query));
            EXPECT_EQ(Text(firstNaming(2, query)), Text(MF_GetExtensionListByMimeType(exact.data())));
            EXPECT_EQ(Text(firstNaming(7, query)), Text(MF_GetExtensionListByPluginName(exact.data())));
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
        EXPECT_EQ(plugins, mapper.getUniqueParserPlugins());
        EXPECT_EQ(Text(plugins), Text(MF_GetUniqueParserPlugins()));
        mapper.uninitialize();
        MF_UnInitialize();
    }
}

// Only depth counts: the root, a record, a property; deeper elements are raw text of the property around
// them. A stray closing tag or a comment in front of the root shifts every level behind it.
TEST_F(MediaTable, LevelsDecideRecordsAndProperties) {
    const char* const files[][2] = {
        {"<Any>\n <First a=\"x\"><FormatName>One</FormatName><E>a1</E></First>\n <Format/>\n "
         "<Second><P>p2<N>deep"
         "</N></P><Wrap><MimeType>x</MimeType></Wrap></Second>\n <Unclosed><E>wav</E>",
         "One|a1|-|0|-|-|0|-|-\n-|-|-|0|-|-|0|-|-\n-|-|-|0|-|-|0|p2<N>deep</N>|-\n"},
        {"</Stray><Root><R><E>x</E></R></Root>", "-|-|-|0|-|-|0|-|-\n"},
        {"<!-- c --><Root><R><E>x</E></R></Root>", "-|-|-|0|-|-|0|-|-\n"},
        {"<?xml version=\"1.0\"?><Root></Root>", ""},
    };
    for (const auto& file : files) {
        Write(file[0]);
        TestMapper mapper;
        ASSERT_EQ(1, mapper.initialize()) << file[0];
        EXPECT_EQ(file[1], Dump(mapper.formatList)) << file[0];
    }
}

// A missing or empty file fails without a word, and a later load tries again; a loaded table is not read
// again until released; the first load by several threads at once reads the file once; a record or a value
// that can't be allocated is all that is lost.
TEST_F(MediaTable, LoadLifeAndFailedAllocations) {
    TestMapper mapper;
    msptest::CaptureFd out(1), err(2);
    EXPECT_EQ(0, mapper.initialize());
    Write("");
    EXPECT_EQ(0, mapper.initialize());
    EXPECT_EQ("", out.Finish() + err.Finish());
    Write("<F><R><E>mp3</E></R></F>");
    ASSERT_EQ(1, mapper.initialize());
    EXPECT_EQ(semget(108207, 1, 0), mapper.mutex->getid()) << "the lock is the machine's \"MediaMapper\"";
    Write("<F><R><E>ogg</E><F>one</F><F>three</F><P>p</P></R></F>");
    EXPECT_EQ(1, mapper.initialize());
    EXPECT_EQ("-|mp3|-|0|-|-|0|-|-\n", Dump(mapper.formatList));
    mapper.uninitialize();
    static std::atomic<bool> stalled;  // the first load stalls at its first record, so that the others come
    stalled = false;
    mediaMapperAlloc = [](size_t size) {
        if (!stalled.exchange(true)) std::this_thread::sleep_for(std::chrono::milliseconds(200));
        return malloc(size);
    };
    std::atomic<int> loaded{0};
    std::vector<std::thread> threads;
    std::vector<char*> plugins(4);
    for (int i = 0; i < 4; ++i)
        threads.emplace_back(
            [&, i] { loaded += mapper.initialize(), plugins[i] = mapper.getUniqueParserPlugins(); });
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(4, loaded);
    EXPECT_EQ(std::vector<char*>(4, plugins[0]), plugins) << "one list, made once";
    EXPECT_EQ("three|ogg|-|0|-|-|0|p|-\n", Dump(mapper.formatList));
    static size_t failing;
    mediaMapperAlloc = [](size_t size) { return size == failing ? nullptr : malloc(size); };
    for (size_t size : {sizeof("three"), sizeof(MediaFormatInfo)}) {
        mapper.uninitialize();
        failing = size;
        msptest::CaptureFd message(1);
        EXPECT_EQ(1, mapper.initialize());
        EXPECT_EQ(size == 6 ? "" : "\r\nError:  failed to create media format structure.\r\n",
                  message.Finish());
        EXPECT_EQ(size == 6 ? "one|ogg|-|0|-|-|0|p|-\n" : "", Dump(mapper.formatList));
    }
    mediaMapperAlloc = malloc;
}

}  // namespace
