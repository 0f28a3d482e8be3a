#include "msplatform/mediaMapper.h"

#include <sys/ipc.h>
#include <sys/sem.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "media/internal.h"
#include "mediaTestUtil.h"
#include "msplatform/mutex.h"
#include "support/support.h"

namespace {

using mediatest::Dump;
using mediatest::DumpList;
using mediatest::TestMapper;

class MediaMapperLoad : public ::testing::Test {
protected:
    MediaMapperLoad() : cwd_(dir_.path()) {}

    void WriteTable(const std::string& xml) { msptest::WriteFile(dir_.file("MediaFormats.xml"), xml); }

    std::string LoadOne(const std::string& properties) {
        WriteTable("<Formats><Format>" + properties + "</Format></Formats>");
        TestMapper mapper;
        EXPECT_EQ(1, mapper->initialize());
        std::vector<std::string> list = DumpList(mapper->formatList);
        return list.size() == 1 ? list[0] : "records: " + std::to_string(list.size());
    }

    msptest::TempDir dir_;
    msptest::ScopedChdir cwd_;
};

TEST_F(MediaMapperLoad, EmptyOrMissingFilesFailSilentlyAndARootAloneGivesAnEmptyTable) {
    struct Case {
        const char* text;  // null: no file
        int result;
    } cases[] = {{nullptr, 0},
                 {"", 0},
                 {"   \n", 0},
                 {"<?xml version=\"1.0\"?>", 0},
                 {"<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<MediaFormats></MediaFormats>\n", 1}};
    for (const Case& c : cases) {
        if (c.text != nullptr) WriteTable(c.text);
        TestMapper mapper;
        msptest::CaptureFd out(1), err(2);
        EXPECT_EQ(c.result, mapper->initialize()) << (c.text ? c.text : "no file");
        EXPECT_EQ(c.result, mapper->isInitialized);
        EXPECT_EQ(nullptr, mapper->formatList);
        EXPECT_NE(nullptr, mapper->mutex) << "the lock is made before the file is read";
        EXPECT_EQ("", out.Finish() + err.Finish());
    }
}

TEST_F(MediaMapperLoad, LoadedTableIsNotReadAgainUntilReleased) {
    WriteTable("<F><R><E>mp3</E></R></F>");
    TestMapper mapper;
    ASSERT_EQ(1, mapper->initialize());
    std::vector<std::string> first = DumpList(mapper->formatList);

    WriteTable("<F><R><E>ogg</E></R><R><E>wav</E></R></F>");
    EXPECT_EQ(1, mapper->initialize());
    EXPECT_EQ(first, DumpList(mapper->formatList));

    mapper->uninitialize();
    EXPECT_EQ(0, mapper->isInitialized);
    EXPECT_EQ(nullptr, mapper->formatList);
    ASSERT_NE(nullptr, mapper->mutex);
    mapper->uninitialize();  // already empty: nothing happens
    EXPECT_EQ(1, mapper->initialize());
    EXPECT_EQ((std::vector<std::string>{"-|ogg|-|-|-|-|-|0|0", "-|wav|-|-|-|-|-|0|0"}),
              DumpList(mapper->formatList));
}

TEST_F(MediaMapperLoad, LevelsDecideRecordsAndProperties) {
    WriteTable(
        "<?xml version=\"1.0\"?>\n"
        "<Anything>\n"
        "  <First attr=\"ignored\"><FormatName>One</FormatName><Extensions>a1</Extensions></First>\n"
        "  <Format/>\n"
        "  "
        "<Second><Parser>p2<Nested>deep</Nested></Parser><Wrap><MimeType>x/inner</MimeType></Wrap></Second>\n"
        "  <Third>\n    <MimeType>m/3</MimeType>\n  </Third>\n"
        "  <Unclosed><E>wav</E>");  // neither it nor the root is closed
    TestMapper mapper;
    ASSERT_EQ(1, mapper->initialize());
    EXPECT_EQ((std::vector<std::string>{
                  "One|a1|-|-|-|-|-|0|0",
                  "-|-|-|-|-|-|-|0|0",
                  "-|-|-|-|-|p2<Nested>deep</Nested>|-|0|0",
                  "-|-|m/3|-|-|-|-|0|0",
              }),
              DumpList(mapper->formatList));
}

TEST_F(MediaMapperLoad, TagsMatchPropertiesAsCaseFreePrefixesInOrder) {
    const char* cases[][2] = {
        {"F", "v|-|-|-|-|-|-|0|0"},         {"formatname", "v|-|-|-|-|-|-|0|0"},
        {"E", "-|v|-|-|-|-|-|0|0"},         {"MIMETYPE", "-|-|v|-|-|-|-|0|0"},
        {"M", "-|-|v|-|-|-|-|0|0"},         {"D", "-|-|-|v|-|-|-|0|0"},
        {"DLNA", "-|-|-|v|-|-|-|0|0"},      {"DLNA_P", "-|-|-|-|v|-|-|0|0"},
        {"P", "-|-|-|-|-|v|-|0|0"},         {"DA", "-|-|-|-|-|-|v|0|0"},
        {"MimeTypes", "-|-|-|-|-|-|-|0|0"}, {"Codec", "-|-|-|-|-|-|-|0|0"},
        {"DAPS", "-|-|-|-|-|-|-|0|0"},
    };
    for (const auto& c : cases) {
        std::string tag = c[0];
        EXPECT_EQ(c[1], LoadOne("<" + tag + ">v</" + tag + ">")) << "tag " << tag;
    }
    // "Med" and "Tr" reach the two mapped properties.
    EXPECT_EQ("-|-|-|-|-|-|-|0|v", LoadOne("<Med>VIDEO</Med>"));
    EXPECT_EQ("-|-|-|-|-|-|-|0|i", LoadOne("<Me>image</Me>"));
    EXPECT_EQ("-|-|-|-|-|-|-|1|0", LoadOne("<T>yes</T>"));
}

TEST_F(MediaMapperLoad, MediaTypeValues) {
    struct Case {
        const char* value;
        char expected;
    } cases[] = {
        {"CLASS_AUDIO_ITEM", 'a'},
        {"A", 'a'},
        {"CLASS_VIDEO_ITEM", 'v'},
        {"video", 'v'},
        {"class_image_item", 'i'},
        {"i", 'i'},
        {" video", 0},
        {"movie", 0},
        {"videos", 0},
        {"CLASS_AUDIO", 0},
    };
    for (const Case& c : cases) {
        std::string expected =
            std::string("-|-|-|-|-|-|-|0|") + (c.expected ? std::string(1, c.expected) : "0");
        EXPECT_EQ(expected, LoadOne(std::string("<MediaType>") + c.value + "</MediaType>")) << c.value;
    }
    // An unknown later value leaves the earlier one; a known later one replaces it.
    EXPECT_EQ("-|-|-|-|-|-|-|0|a", LoadOne("<MediaType>audio</MediaType><MediaType>movie</MediaType>"));
    EXPECT_EQ("-|-|-|-|-|-|-|0|i", LoadOne("<MediaType>audio</MediaType><MediaType>i</MediaType>"));
}

TEST_F(MediaMapperLoad, TranscodeValues) {
    struct Case {
        const char* value;
        char expected;
    } cases[] = {
        {"Yes", '1'}, {"YES", '1'}, {"true", '1'}, {"1", '1'},
        {"no", '0'},  {"0", '0'},   {"yes ", '0'}, {"y", '0'},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(std::string("-|-|-|-|-|-|-|") + c.expected + "|0",
                  LoadOne(std::string("<Transcode>") + c.value + "</Transcode>"))
            << c.value;
    }
    EXPECT_EQ("-|-|-|-|-|-|-|0|0", LoadOne("<Transcode>Yes</Transcode><Transcode>No</Transcode>"));
    EXPECT_EQ("-|-|-|-|-|-|-|1|0", LoadOne("<Transcode>No</Transcode><Transcode>True</Transcode>"));
    EXPECT_EQ("-|-|-|-|-|-|-|1|0", LoadOne("<Transcode>Yes</Transcode><Transcode></Transcode>"));
}

TEST_F(MediaMapperLoad, ValuesAreTheRawInnerText) {
    EXPECT_EQ("-|mp3,\nwav|-|-|-|-|-|0|0", LoadOne("<Extensions>mp3,\nwav</Extensions>"));
    EXPECT_EQ("R&amp;B|-|-|-|-|-|-|0|0", LoadOne("<FormatName>R&amp;B</FormatName>"));
    // Empty values leave the field unset, and so keep an earlier value.
    EXPECT_EQ("-|-|-|-|-|-|-|0|0", LoadOne("<Parser/>"));
    EXPECT_EQ("-|-|-|-|-|p1|-|0|0", LoadOne("<Parser>p1</Parser><Parser/>"));
    // A later value replaces an earlier one.
    EXPECT_EQ("-|-|-|-|-|p2|-|0|0", LoadOne("<Parser>p1</Parser><P>p2</P>"));
}

TEST(MediaMapperProperty, AssignedDirectly) {
    TestMapper mapper;
    MediaFormatInfo format = {};
    char tag[] = "MimeTypeXYZ";
    char value[] = "audio/mpeg-and-more";
    mapper->assignFormatProperty(&format, tag, 4, value, 10);  // "Mime", "audio/mpeg"
    mapper->assignFormatProperty(&format, tag, 0, value, 10);  // no tag: nothing
    mapper->assignFormatProperty(&format, tag, 4, value, 0);   // empty value: nothing
    mapper->assignFormatProperty(nullptr, tag, 4, value, 10);
    char mediaTag[] = "med";
    char mediaValue[] = "videoclip";
    mapper->assignFormatProperty(&format, mediaTag, 3, mediaValue, 5);
    EXPECT_EQ("-|-|audio/mpeg|-|-|-|-|0|v", Dump(&format));
    free(format.mimeType);
}

int failAt = 0;
int allocations = 0;
void* FailingAlloc(size_t size) {
    if (++allocations == failAt) return nullptr;
    return malloc(size);
}

TEST_F(MediaMapperLoad, FailedAllocationsLoseOnlyWhatTheyWereFor) {
    WriteTable("<F><R><FormatName>one</FormatName><E>1</E></R><R><FormatName>two</FormatName></R></F>");
    // Allocations in order: record one, "one", "1", record two, "two".
    const std::string noRecord = "\r\nError:  failed to create media format structure.\r\n";
    struct Case {
        int failAt;
        std::vector<std::string> expected;
        std::string out;
    } cases[] = {
        {1, {"two|-|-|-|-|-|-|0|0"}, noRecord},
        {2, {"-|1|-|-|-|-|-|0|0", "two|-|-|-|-|-|-|0|0"}, ""},
        {4, {"one|1|-|-|-|-|-|0|0"}, noRecord},
        {5, {"one|1|-|-|-|-|-|0|0", "-|-|-|-|-|-|-|0|0"}, ""},
    };
    for (const Case& c : cases) {
        TestMapper mapper;
        failAt = c.failAt;
        allocations = 0;
        mediaMapperAlloc = FailingAlloc;
        msptest::CaptureFd out(1);
        int result = mapper->initialize();
        mediaMapperAlloc = malloc;
        EXPECT_EQ(c.out, out.Finish()) << "allocation " << c.failAt;
        EXPECT_EQ(1, result);
        EXPECT_EQ(c.expected, DumpList(mapper->formatList)) << "allocation " << c.failAt;
    }
}

TEST_F(MediaMapperLoad, LockIsTheSemaphoreMediaMapper) {
    WriteTable("<F/>");
    TestMapper mapper;
    EXPECT_EQ(nullptr, mapper->mutex);
    mapper->LockMutex();  // no lock yet: nothing happens
    mapper->UnlockMutex();
    ASSERT_EQ(1, mapper->initialize());
    ASSERT_NE(nullptr, mapper->mutex);
    Mutex* made = mapper->mutex;
    EXPECT_EQ(::semget(108207, 1, 0), made->getid());
    EXPECT_GT(made->getid(), 0);
    mapper->uninitialize();
    EXPECT_EQ(made, mapper->mutex);
    EXPECT_EQ(1, mapper->initialize());
    EXPECT_EQ(made, mapper->mutex) << "one lock for the mapper's life";
}

TEST(MediaMapperLock, DeleteMutexRemovesTheSemaphore) {
    MediaMapper mapper;
    mapper.DeleteMutex();  // none yet: nothing happens
    EXPECT_EQ(nullptr, mapper.mutex);
    // A private semaphore stands in for the shared one, which other mappers of this process use.
    mapper.mutex = new Mutex();
    int id = mapper.mutex->getid();
    ASSERT_GT(id, 0);
    mapper.DeleteMutex();
    EXPECT_EQ(nullptr, mapper.mutex);
    EXPECT_EQ(-1, ::semctl(id, 0, GETVAL));
}

TEST_F(MediaMapperLoad, LoadClearAndQueriesWaitForTheLock) {
    WriteTable("<F><R><E>mp3</E><M>audio/mpeg</M><P>mp3Parser</P></R></F>");
    TestMapper mapper;
    ASSERT_EQ(1, mapper->initialize());
    mapper->uninitialize();
    Mutex* lock = mediatest::SharedLock();

    char mp3[] = "mp3", mime[] = "audio/mpeg", parser[] = "mp3Parser";
    struct Case {
        const char* name;
        std::function<bool(MediaMapper&)> call;
    } cases[] = {
        {"initialize", [](MediaMapper& m) { return m.initialize() == 1; }},
        {"getFormatInfoByExtension",
         [&](MediaMapper& m) { return m.getFormatInfoByExtension(mp3) != nullptr; }},
        {"getExtensionListByMimeType",
         [&](MediaMapper& m) { return m.getExtensionListByMimeType(mime) != nullptr; }},
        {"getExtensionListByPluginName",
         [&](MediaMapper& m) { return m.getExtensionListByPluginName(parser) != nullptr; }},
        {"getUniqueParserPlugins", [](MediaMapper& m) { return m.getUniqueParserPlugins() != nullptr; }},
        {"uninitialize",
         [](MediaMapper& m) {
             m.uninitialize();
             return m.formatList == nullptr;
         }},
    };
    for (const Case& c : cases) {
        lock->lock();
        std::atomic<bool> done{false};
        bool result = false;
        std::thread caller([&] {
            result = c.call(*mapper);
            done = true;
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        EXPECT_FALSE(done) << c.name << " ran while the lock was held";
        lock->unlock();
        caller.join();
        EXPECT_TRUE(result) << c.name;
    }
}

TEST_F(MediaMapperLoad, ShippedTableLoadsWhole) {
    msptest::WriteFile(dir_.file("MediaFormats.xml"), msptest::ReadFile(mediatest::ShippedTablePath()));
    TestMapper mapper;
    ASSERT_EQ(1, mapper->initialize());
    int records = 0;
    for (MediaFormatInfo* f = mapper->formatList; f != nullptr; f = f->next, ++records) {
        SCOPED_TRACE(Dump(f));
        EXPECT_NE(nullptr, f->formatName);
        EXPECT_NE(nullptr, f->extensions);
        EXPECT_NE(nullptr, f->mimeType);
        EXPECT_EQ(nullptr, strchr(f->extensions, ' '));
        EXPECT_EQ(nullptr, strchr(f->extensions, '.'));
        EXPECT_LE(strlen(f->extensions), 1023u);
    }
    EXPECT_GE(records, 40);
    // The plug-in list drops a name found inside one listed before it: none of the table's may be lost so.
    std::string plugins = "," + std::string(mapper->getUniqueParserPlugins()) + ",";
    for (MediaFormatInfo* f = mapper->formatList; f != nullptr; f = f->next) {
        if (f->parserName != nullptr) {
            EXPECT_NE(std::string::npos, plugins.find("," + std::string(f->parserName) + ","))
                << f->parserName;
        }
    }
}

}  // namespace
