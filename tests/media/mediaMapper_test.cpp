#include "msplatform/mediaMapper.h"

#include <string.h>
#include <sys/ipc.h>
#include <sys/sem.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>
#include <vector>

#include "media/internal.h"
#include "mediaTestUtil.h"

namespace {

using mediatest::Dump;
using mediatest::DumpList;
using mediatest::Strings;
using mediatest::TestMapper;

using MediaMapperLoad = mediatest::MediaDir;

TEST_F(MediaMapperLoad, EmptyOrMissingFilesFailSilentlyAndARootAloneGivesAnEmptyTable) {
    const char* cases[] = {nullptr, "", "   \n", "<?xml version=\"1.0\"?>",
                           "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<MediaFormats></MediaFormats>\n"};
    for (const char* text : cases) {
        if (text != nullptr) Write(text);
        const int result = text != nullptr && strstr(text, "</MediaFormats>") ? 1 : 0;
        TestMapper mapper;
        msptest::CaptureFd out(1), err(2);
        EXPECT_EQ(result, mapper.initialize()) << (text ? text : "no file");
        EXPECT_EQ(result, mapper.isInitialized);
        EXPECT_EQ(nullptr, mapper.formatList);
        EXPECT_NE(nullptr, mapper.mutex) << "the lock is made before the file is read";
        EXPECT_EQ("", out.Finish() + err.Finish());
    }
}

TEST_F(MediaMapperLoad, LoadedTableIsNotReadAgainUntilReleased) {
    Write("<F><R><E>mp3</E></R></F>");
    TestMapper mapper;
    ASSERT_EQ(1, mapper.initialize());
    Write("<F><R><E>ogg</E></R><R><E>wav</E></R></F>");
    EXPECT_EQ(1, mapper.initialize());
    EXPECT_EQ(Strings{"-|mp3|-|-|-|-|-|0|0"}, DumpList(mapper.formatList));
    mapper.uninitialize();
    EXPECT_EQ(0, mapper.isInitialized);
    EXPECT_EQ(nullptr, mapper.formatList);
    mapper.uninitialize();  // already empty: nothing happens
    EXPECT_EQ(1, mapper.initialize());
    EXPECT_EQ((Strings{"-|ogg|-|-|-|-|-|0|0", "-|wav|-|-|-|-|-|0|0"}), DumpList(mapper.formatList));
}

// Threads that make the first load at once: one loads, the others wait and find the table loaded.
TEST_F(MediaMapperLoad, FirstLoadOnSeveralThreadsAtOnceLoadsOnce) {
    Write("<F><R><E>mp3</E></R><R><E>ogg</E></R></F>");
    // The first load stalls at its first record, so that the other threads come meanwhile.
    static std::atomic<bool> stalled;
    stalled = false;
    mediaMapperAlloc = [](size_t size) {
        if (!stalled.exchange(true)) std::this_thread::sleep_for(std::chrono::milliseconds(200));
        return malloc(size);
    };
    TestMapper mapper;
    std::atomic<int> loaded{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) threads.emplace_back([&] { loaded += mapper.initialize(); });
    for (auto& thread : threads) thread.join();
    mediaMapperAlloc = malloc;
    EXPECT_EQ(4, loaded);
    EXPECT_EQ((Strings{"-|mp3|-|-|-|-|-|0|0", "-|ogg|-|-|-|-|-|0|0"}), DumpList(mapper.formatList));
}

TEST_F(MediaMapperLoad, LevelsDecideRecordsAndProperties) {
    Write(
        "<?xml version=\"1.0\"?>\n<Anything>\n"
        "  <First attr=\"ignored\"><FormatName>One</FormatName><Extensions>a1</Extensions></First>\n"
        "  <Format/>\n"
        "  "
        "<Second><Parser>p2<Nested>deep</Nested></Parser><Wrap><MimeType>x/inner</MimeType></Wrap></Second>\n"
        "  <Third>\n    <MimeType>m/3</MimeType>\n  </Third>\n"
        "  <Unclosed><E>wav</E>");  // neither it nor the root is closed
    TestMapper mapper;
    ASSERT_EQ(1, mapper.initialize());
    EXPECT_EQ((Strings{"One|a1|-|-|-|-|-|0|0", "-|-|-|-|-|-|-|0|0", "-|-|-|-|-|p2<Nested>deep</Nested>|-|0|0",
                       "-|-|m/3|-|-|-|-|0|0"}),
              DumpList(mapper.formatList));
}

// Tags match properties as case-free prefixes in order; values are the raw inner text; one record each.
TEST_F(MediaMapperLoad, TagsAndValues) {
    const Strings expected = {
        "v|-|-|-|-|-|-|0|0", "v|-|-|-|-|-|-|0|0",  "-|v|-|-|-|-|-|0|0",         "-|-|v|-|-|-|-|0|0",
        "-|-|v|-|-|-|-|0|0", "-|-|-|v|-|-|-|0|0",  "-|-|-|v|-|-|-|0|0",         "-|-|-|-|v|-|-|0|0",
        "-|-|-|-|-|v|-|0|0", "-|-|-|-|-|-|v|0|0",  "-|-|-|-|-|-|-|0|0",         "-|-|-|-|-|-|-|0|0",
        "-|-|-|-|-|-|-|0|0", "-|-|-|-|-|-|-|0|v",  "-|-|-|-|-|-|-|0|i",         "-|-|-|-|-|-|-|0|a",
        "-|-|-|-|-|-|-|0|a", "-|-|-|-|-|-|-|0|v",  "-|-|-|-|-|-|-|0|i",         "-|-|-|-|-|-|-|0|0",
        "-|-|-|-|-|-|-|0|0", "-|-|-|-|-|-|-|0|0",  "-|-|-|-|-|-|-|0|a",         "-|-|-|-|-|-|-|0|i",
        "-|-|-|-|-|-|-|1|0", "-|-|-|-|-|-|-|1|0",  "-|-|-|-|-|-|-|1|0",         "-|-|-|-|-|-|-|1|0",
        "-|-|-|-|-|-|-|0|0", "-|-|-|-|-|-|-|0|0",  "-|-|-|-|-|-|-|0|0",         "-|-|-|-|-|-|-|0|0",
        "-|-|-|-|-|-|-|1|0", "-|-|-|-|-|-|-|1|0",  "-|mp3,\nwav|-|-|-|-|-|0|0", "R&amp;B|-|-|-|-|-|-|0|0",
        "-|-|-|-|-|-|-|0|0", "-|-|-|-|-|p1|-|0|0", "-|-|-|-|-|p2|-|0|0"};
    Write(
        "<Formats>"
        "<R><F>v</F></R><R><formatname>v</formatname></R><R><E>v</E></R><R><MIMETYPE>v</MIMETYPE></R>"
        "<R><M>v</M></R><R><D>v</D></R><R><DLNA>v</DLNA></R><R><DLNA_P>v</DLNA_P></R><R><P>v</P></R>"
        "<R><DA>v</DA></R><R><MimeTypes>v</MimeTypes></R><R><Codec>v</Codec></R><R><DAPS>v</DAPS></R>"
        "<R><Med>VIDEO</Med></R><R><Me>image</Me></R><R><MediaType>CLASS_AUDIO_ITEM</MediaType></R>"
        "<R><MediaType>A</MediaType></R><R><MediaType>CLASS_VIDEO_ITEM</MediaType></R>"
        "<R><MediaType>class_image_item</MediaType></R><R><MediaType> video</MediaType></R>"
        "<R><MediaType>videos</MediaType></R><R><MediaType>CLASS_AUDIO</MediaType></R>"
        "<R><MediaType>audio</MediaType><MediaType>movie</MediaType></R>"
        "<R><MediaType>audio</MediaType><MediaType>i</MediaType></R><R><T>yes</T></R>"
        "<R><Transcode>YES</Transcode></R><R><Transcode>true</Transcode></R>"
        "<R><Transcode>1</Transcode></R><R><Transcode>0</Transcode></R><R><Transcode>yes </Transcode></R>"
        "<R><Transcode>y</Transcode></R><R><Transcode>Yes</Transcode><Transcode>No</Transcode></R>"
        "<R><Transcode>No</Transcode><Transcode>True</Transcode></R>"
        "<R><Transcode>Yes</Transcode><Transcode></Transcode></R>"
        "<R><Extensions>mp3,\nwav</Extensions></R><R><FormatName>R&amp;B</FormatName></R><R><Parser/></R>"
        "<R><Parser>p1</Parser><Parser/></R><R><Parser>p1</Parser><P>p2</P></R>"
        "</Formats>");
    TestMapper mapper;
    ASSERT_EQ(1, mapper.initialize());
    EXPECT_EQ(expected, DumpList(mapper.formatList));
}

// Called directly, the load's pieces apply no rule of the load: an empty value is stored, a tag of no bytes
// is a prefix of FormatName, and an appended record keeps what hangs on it.
TEST(MediaMapperProperty, AssignedAndAppendedDirectly) {
    TestMapper mapper;
    MediaFormatInfo format = {};
    char tag[] = "MimeTypeXYZ", value[] = "audio/mpeg-and-more", mediaTag[] = "med",
         mediaValue[] = "videoclip";
    mapper.assignFormatProperty(&format, tag, 4, value, 10);          // "Mime": "audio/mpeg"
    mapper.assignFormatProperty(&format, tag, 0, value, 5);           // "": FormatName "audio"
    mapper.assignFormatProperty(&format, mediaTag + 2, 1, value, 0);  // "d": DLNA_Class ""
    mapper.assignFormatProperty(&format, tag, -1, value, 10);         // negative lengths: nothing
    mapper.assignFormatProperty(&format, tag, 4, value, -1);
    mapper.assignFormatProperty(nullptr, tag, 4, value, 10);
    mapper.assignFormatProperty(&format, mediaTag, 3, mediaValue, 5);
    EXPECT_EQ("audio|-|audio/mpeg||-|-|-|0|v", Dump(&format));

    MediaFormatInfo* records[3];
    for (auto& record : records) record = static_cast<MediaFormatInfo*>(calloc(1, sizeof(MediaFormatInfo)));
    records[0]->next = records[1];
    mapper.addFormatToList(records[2]);
    mapper.addFormatToList(records[0]);
    MediaFormatInfo* list = mapper.formatList;
    EXPECT_EQ(records[2], list);
    EXPECT_EQ(records[0], list->next);
    EXPECT_EQ(records[1], list->next->next);
    EXPECT_EQ(nullptr, records[1]->next);
    mapper.clearFormatList();
    free(format.formatName);
    free(format.mimeType);
    free(format.dlnaClass);
}

TEST_F(MediaMapperLoad, FailedAllocationsLoseOnlyWhatTheyWereFor) {
    Write("<F><R><FormatName>one</FormatName><E>1</E></R><R><FormatName>two</FormatName></R></F>");
    // Allocations in order: record one, "one", "1", record two, "two".
    const std::string noRecord = "\r\nError:  failed to create media format structure.\r\n";
    const Strings expected = {noRecord + "two|-|-|-|-|-|-|0|0 ", "-|1|-|-|-|-|-|0|0 two|-|-|-|-|-|-|0|0 ",
                              "one|-|-|-|-|-|-|0|0 two|-|-|-|-|-|-|0|0 ", noRecord + "one|1|-|-|-|-|-|0|0 ",
                              "one|1|-|-|-|-|-|0|0 -|-|-|-|-|-|-|0|0 "};
    Strings loaded;
    for (int failAt = 1; failAt <= 5; ++failAt) {
        static int countdown;
        countdown = failAt;
        mediaMapperAlloc = [](size_t size) { return --countdown == 0 ? nullptr : malloc(size); };
        TestMapper mapper;
        msptest::CaptureFd out(1);
        EXPECT_EQ(1, mapper.initialize());
        mediaMapperAlloc = malloc;
        loaded.push_back(out.Finish());
        for (const std::string& record : DumpList(mapper.formatList)) loaded.back() += record + " ";
    }
    EXPECT_EQ(expected, loaded);
}

TEST_F(MediaMapperLoad, LockIsTheSemaphoreMediaMapper) {
    Write("<F/>");
    TestMapper mapper;
    mapper.LockMutex();  // no lock yet: nothing happens
    mapper.UnlockMutex();
    ASSERT_EQ(1, mapper.initialize());
    Mutex* made = mapper.mutex;
    ASSERT_NE(nullptr, made);
    EXPECT_EQ(::semget(108207, 1, 0), made->getid());
    EXPECT_GT(made->getid(), 0);
    mapper.uninitialize();
    EXPECT_EQ(1, mapper.initialize());
    EXPECT_EQ(made, mapper.mutex) << "one lock for the mapper's life";

    // DeleteMutex removes the semaphore; a private one stands in for the shared one.
    MediaMapper other;
    other.DeleteMutex();  // none yet: nothing happens
    other.mutex = new Mutex();
    const int id = other.mutex->getid();
    ASSERT_GT(id, 0);
    other.DeleteMutex();
    EXPECT_EQ(nullptr, other.mutex);
    EXPECT_EQ(-1, ::semctl(id, 0, GETVAL));
}

TEST_F(MediaMapperLoad, LoadClearAndQueriesWaitForTheLock) {
    Write("<F><R><E>mp3</E><M>audio/mpeg</M><P>mp3Parser</P></R></F>");
    TestMapper mapper;
    static Mutex* lock = new Mutex("MediaMapper");  // never deleted: that would remove the semaphore
    char mp3[] = "mp3", mime[] = "audio/mpeg", parser[] = "mp3Parser";
    const std::function<bool()> calls[] = {
        [&] { return mapper.initialize() == 1; },
        [&] { return mapper.getFormatInfoByExtension(mp3) != nullptr; },
        [&] { return mapper.getExtensionListByMimeType(mime) != nullptr; },
        [&] { return mapper.getExtensionListByPluginName(parser) != nullptr; },
        [&] { return mapper.getUniqueParserPlugins() != nullptr; },
        [&] { return mapper.uninitialize(), mapper.formatList == nullptr; },
    };
    for (const auto& call : calls) {
        lock->lock();
        std::atomic<bool> done{false};
        bool result = false;
        std::thread caller([&] { result = call(), done = true; });
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        EXPECT_FALSE(done) << "call " << &call - calls << " ran while the lock was held";
        lock->unlock();
        caller.join();
        EXPECT_TRUE(result) << "call " << &call - calls;
    }
}

}  // namespace
