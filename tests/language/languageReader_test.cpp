#include "msplatform/languageReader.h"

#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "language/internal.h"
#include "msplatform/ZvLanguageReader.h"
#include "support/support.h"

namespace {

const char kShippedFile[] = MSPLATFORM_SOURCE_DIR "/data/languages.xml";

class LanguageDir {
public:
    LanguageDir(const std::string& language, const std::string& document) : chdir_(dir_.path()) {
        msptest::WriteFile(dir_.file("lang.xml"), document);
        Configure(dir_.file("lang.xml"), language);
    }

    void Configure(const std::string& languageFile, const std::string& language) {
        msptest::WriteFile(dir_.file("MediaServer.cfg"), "[LANGUAGE]\r\nlanguageFilePath=\"" + languageFile +
                                                             "\"\r\ncurrentLanguage=\"" + language +
                                                             "\"\r\n");
    }
    char* config() { return const_cast<char*>(config_.c_str()); }
    std::string file(const std::string& name) const { return dir_.file(name); }

private:
    msptest::TempDir dir_;
    msptest::ScopedChdir chdir_;
    std::string config_ = dir_.file("MediaServer.cfg");
};

// Each term as "id=value", with "-" for a null field, in list order.
std::vector<std::string> Terms(const ZvLanguageReader& reader) {
    std::vector<std::string> terms;
    for (const termInfo* term = reader.termInfoList; term; term = term->next)
        terms.push_back(std::string(term->id ? term->id : "-") + "=" + (term->value ? term->value : "-"));
    return terms;
}

struct Load {
    int result;
    std::string err;
    std::vector<std::string> terms;
    int termsCount;
};

Load LoadDocument(const std::string& language, const std::string& document) {
    LanguageDir dir(language, document);
    ZvLanguageReader reader;
    msptest::CaptureFd err(2);
    int result = reader.initialize(dir.config());
    std::string printed = err.Finish();
    return {result, printed, Terms(reader), reader.termsCount};
}

std::string Document(const std::string& terms) {
    return "<?xml version=\"1.0\"?>\n<Root><Languages><Name>English</Name><Name>Deutsch</Name></Languages>"
           "<Header><Version>1</Version></Header><TermTable>" +
           terms + "</TermTable></Root>\n";
}

TEST(LanguageReader, ShippedFileInEachLanguage) {
    struct Case {
        const char *language, *music, *artistAlbum, *error;
    } cases[] = {
        {"English", "Music", "Artist & Album", "Folder <%s> is not readable"},
        {"Deutsch", "Musik", "Interpret & Album", "Ordner <%s> ist nicht lesbar"},
        {"Fran\xc3\xa7"
         "ais",
         "Musique", "Artiste & album", "Le dossier <%s> est illisible"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.language);
        LanguageDir dir(c.language, msptest::ReadFile(kShippedFile));
        ZvLanguageReader reader;
        ASSERT_EQ(1, reader.initialize(dir.config()));
        EXPECT_STREQ(
            "English|Deutsch|Fran\xc3\xa7"
            "ais|",
            reader.getSupportedLanguages());
        EXPECT_EQ(3, reader.languagesCount);
        EXPECT_EQ(40, reader.termsCount);
        EXPECT_STREQ(c.music, reader.getTermInfobyID("Music"));
        EXPECT_STREQ(c.artistAlbum, reader.getTermInfobyID("ArtistAlbum"));
        EXPECT_STREQ(c.error, reader.getTermInfobyID("ErrorAccess"));
        EXPECT_EQ(nullptr, reader.getTermInfobyID("music"));  // identifiers are case sensitive
    }
}

TEST(LanguageReader, FlatFunctionsOnTheStaticReader) {
    LanguageDir dir("Deutsch", msptest::ReadFile(kShippedFile));
    const char* fallback = "Fallback";
    EXPECT_EQ(fallback, Tx(fallback, "Music"));  // nothing loaded yet
    EXPECT_EQ(nullptr, getSupportedLanguages());

    ASSERT_EQ(1, initializeLanguageReader(dir.config()));
    EXPECT_STREQ("Musik", Tx(fallback, "Music"));
    EXPECT_EQ(fallback, Tx(fallback, "NoSuchTerm"));
    EXPECT_EQ(nullptr, Tx(nullptr, "NoSuchTerm"));
    EXPECT_STREQ(
        "English|Deutsch|Fran\xc3\xa7"
        "ais|",
        getSupportedLanguages());

    deinitializeLanguageReader();
    EXPECT_EQ(fallback, Tx(fallback, "Music"));
    EXPECT_EQ(nullptr, getSupportedLanguages());
    EXPECT_EQ(nullptr, languageReader.mutex);              // the lock is gone for good...
    ASSERT_EQ(1, initializeLanguageReader(dir.config()));  // ...and the reader works on without it
    EXPECT_STREQ("Musik", Tx(fallback, "Music"));
    deinitializeLanguageReader();
}

TEST(LanguageReader, TermsOfOddDocuments) {
    struct Case {
        const char *name, *terms;
        std::vector<std::string> expected;
    } cases[] = {
        {"plain", "<T ID=\"a\"><English>x</English><Deutsch>y</Deutsch></T>", {"a=x"}},
        {"ID not last", "<T ID=\"a\" Other=\"b\"><English>x</English></T>", {"-=x"}},
        {"ID last", "<T Other=\"b\" ID=\"a\"><English>x</English></T>", {"a=x"}},
        {"blank before >", "<T ID=\"a\" ><English>x</English></T>", {"-=x"}},
        {"single quotes", "<T ID='a'><English>x</English></T>", {"a=x"}},
        {"unquoted", "<T ID=abc><English>x</English></T>", {"b=x"}},
        {"empty ID", "<T ID=\"\"><English>x</English></T>", {"=x"}},
        {"one-byte ID", "<T I><English>x</English></T>", {"=x"}},
        {"no attribute", "<T><English>x</English></T>", {"-=x"}},
        {"entities", "<T ID=\"a&amp;b\"><English>&lt;b&gt;</English></T>", {"a&b=<b>"}},
        {"first match wins", "<T ID=\"a\"><En>x</En><English>y</English></T>", {"a=x"}},
        {"longer name no match", "<T ID=\"a\"><EnglishUK>x</EnglishUK></T>", {"a=-"}},
        {"empty text", "<T ID=\"a\"><English></English></T><T ID=\"b\"><English/></T>", {"a=-", "b=-"}},
        {"no child", "<T ID=\"a\"></T><T ID=\"b\"/><T ID=\"c\"><English>z</English></T>", {"c=z"}},
        {"element in first child", "<T ID=\"a\"><English>x<b>y</b></English></T>", {}},
        {"element in later child",
         "<T ID=\"a\"><Deutsch>d</Deutsch><English>x<b>y</b></English></T>",
         {"a=x<b>y</b>"}},
        {"same ID twice",
         "<T ID=\"a\"><English>1</English></T><T ID=\"a\"><English>2</English></T>",
         {"a=1", "a=2"}},
        {"raw text kept", "<T ID=\"a\"><English> two\n lines </English></T>", {"a= two\n lines "}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Load load = LoadDocument("English", Document(c.terms));
        EXPECT_EQ(c.expected, load.terms);
        EXPECT_EQ(static_cast<int>(c.expected.size()), load.termsCount);
        EXPECT_EQ(c.expected.empty() ? 0 : 1, load.result);
    }
    // An element behind the wrapper counts as one more, empty term.
    Load load = LoadDocument("English",
                             "<Root><Languages><Name>English</Name></Languages><Header/><W>"
                             "<T ID=\"a\"><English>x</English></T></W><Extra>e</Extra></Root>");
    EXPECT_EQ((std::vector<std::string>{"a=x", "-=-"}), load.terms);
}

TEST(LanguageReader, FailuresPrintTheirTextsWithoutLineEnds) {
    const std::string terms = "<T ID=\"a\"><English>x</English></T>";
    struct Case {
        const char* name;
        std::string document, printed;
    } cases[] = {
        {"empty file", "", "initialize exception : Copying XML buffer Failed !!!"},
        {"no tags", "<?xml version=\"1.0\"?>",
         "copyBufferToXMLNode: xml_ParseXML Failed !!!initialize exception : Copying buffer to xmlnode "
         "Failed !!!"},
        {"no names", "<Languages><Name></Name></Languages><Header/><W>" + terms + "</W>",
         "initialize exception : Supported Languages list not found !!!"},
        {"no header", "<Languages><Name>English</Name></Languages><W>" + terms + "</W>",
         "initialize exception : Listing TermTable contents failed !!!"},
        {"languages behind header",
         "<Header/><Languages><Name>English</Name></Languages><W>" + terms + "</W>",
         "initialize exception : Listing TermTable contents failed !!!"},
        {"terms without wrapper", "<Languages><Name>English</Name></Languages><Header/>" + terms,
         "initialize exception : Listing TermTable contents failed !!!"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Load load = LoadDocument("English", c.document);
        EXPECT_EQ(0, load.result);
        EXPECT_EQ(c.printed, load.err);
    }
}

TEST(LanguageReader, AFifoAsLanguageFileFailsAtOnce) {
    LanguageDir dir("English", "");
    ASSERT_EQ(0, mkfifo(dir.file("fifo").c_str(), 0600));
    dir.Configure(dir.file("fifo"), "English");
    // Nobody writes to the FIFO: an open that waited for a writer would hang.
    int status = msptest::RunChild(
        [&] {
            ZvLanguageReader reader;
            msptest::CaptureFd err(2);
            int result = reader.initialize(dir.config());
            std::string printed = err.Finish();
            return result == 0 && printed ==
                                      "copyXMLFileBuffer exception : Language file read failed !!!"
                                      "initialize exception : Copying XML buffer Failed !!!"
                       ? 0
                       : 1;
        },
        20000);
    EXPECT_EQ(0, status) << "kChildTimedOut is " << msptest::kChildTimedOut;
}

TEST(LanguageReader, ConfigurationFailures) {
    LanguageDir dir("English", Document("<T ID=\"a\"><English>x</English></T>"));
    ZvLanguageReader reader;
    struct Case {
        const char* name;
        std::string config, printed;
    } cases[] = {
        {"missing file", "",
         "loadConfigValues: GetConfigStringLen failed while getting language filepath !!!"},
        {"no language", "[LANGUAGE]\r\nlanguageFilePath=\"x\"\r\n",
         "loadConfigValues: GetConfigStringLen failed while getting current language !!!"},
        {"path of 256 bytes", "[LANGUAGE]\r\nlanguageFilePath=\"" + std::string(256, 'p') + "\"\r\n",
         "loadConfigValues: Language file path too long !!!"},
        {"missing language file",
         "[LANGUAGE]\r\nlanguageFilePath=\"none.xml\"\r\ncurrentLanguage=\"English\"\r\n",
         "copyXMLFileBuffer exception : File Open Error"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        if (c.config.empty())
            unlink(dir.config());
        else
            msptest::WriteFile(dir.config(), c.config);
        msptest::CaptureFd err(2);
        EXPECT_EQ(0, reader.initialize(dir.config()));
        std::string printed = err.Finish();
        bool configFailed = c.printed.rfind("loadConfigValues", 0) == 0;
        EXPECT_EQ(c.printed + (configFailed ? "initialize exception : Loading Configuration values Failed !!!"
                                            : "initialize exception : Copying XML buffer Failed !!!"),
                  printed);
        EXPECT_EQ(configFailed, reader.currentLanguage == nullptr);
    }

    msptest::CaptureFd err(2);
    EXPECT_EQ(0, reader.loadConfigValues(nullptr, nullptr));
    EXPECT_EQ("loadConfigValues: Configuration File Path empty !!!", err.Finish());
}

TEST(LanguageReader, PathOf255BytesFitsTheBuffer) {
    LanguageDir dir("English", Document("<T ID=\"a\"><English>x</English></T>"));
    std::string name(255 - dir.file("").size(), 'n');
    rename(dir.file("lang.xml").c_str(), dir.file(name).c_str());
    dir.Configure(dir.file(name), "English");
    ZvLanguageReader reader;
    EXPECT_EQ(1, reader.initialize(dir.config()));
    EXPECT_STREQ("x", reader.getTermInfobyID("a"));
}

TEST(LanguageReader, SecondLoadAppendsAndFailedLoadKeepsWhatItStored) {
    LanguageDir dir("English", Document("<T ID=\"a\"><English>first</English></T>"));
    ZvLanguageReader reader;
    ASSERT_EQ(1, reader.initialize(dir.config()));
    msptest::WriteFile(dir.file("lang.xml"), Document("<T ID=\"a\"><English>second</English></T>"
                                                      "<T ID=\"b\"><English>b</English></T>"));
    ASSERT_EQ(1, reader.initialize(dir.config()));
    EXPECT_EQ((std::vector<std::string>{"a=first", "a=second", "b=b"}), Terms(reader));
    EXPECT_EQ(2, reader.termsCount);
    EXPECT_STREQ("first", reader.getTermInfobyID("a"));

    // Names but no term table: the names and the language stay, the terms of earlier loads too.
    msptest::WriteFile(dir.file("lang.xml"), "<Languages><Name>Other</Name></Languages>");
    msptest::CaptureFd err(2);
    EXPECT_EQ(0, reader.initialize(dir.config()));
    err.Finish();
    EXPECT_STREQ("Other|", reader.getSupportedLanguages());
    EXPECT_STREQ("English", reader.currentLanguage);
    EXPECT_STREQ("first", reader.getTermInfobyID("a"));

    reader.deinitialize();
    EXPECT_EQ(nullptr, reader.termInfoList);
    EXPECT_EQ(nullptr, reader.getTermInfobyID("a"));
}

int failAfter = -1;
void* FailingCalloc(size_t count, size_t size) {
    if (failAfter == 0) return nullptr;
    if (failAfter > 0) --failAfter;
    return calloc(count, size);
}

TEST(LanguageReader, FailedAllocationsLoseTermsNotTheProcess) {
    const std::string document = Document(
        "<T ID=\"a\"><English>x</English></T><T ID=\"b\"><English>y</English></T><T "
        "ID=\"c\"><English>z</English></T>");
    for (int n = 0; n < 10; ++n) {
        SCOPED_TRACE(n);
        failAfter = n;
        languageReaderCalloc = FailingCalloc;
        Load load = LoadDocument("English", document);
        languageReaderCalloc = calloc;
        EXPECT_LE(load.terms.size(), 3u);
        if (n >= 9) {
            EXPECT_EQ((std::vector<std::string>{"a=x", "b=y", "c=z"}), load.terms);
        }
    }
}

}  // namespace
