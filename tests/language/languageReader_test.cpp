#include "msplatform/languageReader.h"

#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "language/internal.h"
#include "msplatform/ZvLanguageReader.h"
#include "msplatform/xmlParser.h"
#include "support/support.h"

namespace {

using Strings = std::vector<std::string>;
const char kShippedFile[] = MSPLATFORM_SOURCE_DIR "/data/languages.xml";
const char kNames[] = "English|Deutsch|Fran\u00e7ais|";

class LanguageDir {
public:
    LanguageDir(const std::string& language, const std::string& document) : chdir_(dir_.path()) {
        msptest::WriteFile(file("lang.xml"), document);
        Configure(file("lang.xml"), language);
    }
    void Configure(const std::string& path, const std::string& language) {
        msptest::WriteFile(config(), "[LANGUAGE]\r\nlanguageFilePath=\"" + path + "\"\r\ncurrentLanguage=\"" +
                                         language + "\"\r\n");
    }
    char* config() { return &config_[0]; }
    std::string file(const std::string& name) const { return dir_.file(name); }

private:
    msptest::TempDir dir_;
    msptest::ScopedChdir chdir_;
    std::string config_ = dir_.file("MediaServer.cfg");
};

// Each term as "id=value", "-" for a null field.
Strings Terms(const ZvLanguageReader& reader) {
    Strings terms;
    for (const termInfo* t = reader.termInfoList; t; t = t->next)
        terms.push_back(std::string(t->id ? t->id : "-") + "=" + (t->value ? t->value : "-"));
    return terms;
}

struct Load {
    int result;
    std::string err;
    Strings terms;
    int termsCount;
};

Load LoadDocument(const std::string& document) {
    LanguageDir dir("English", document);
    ZvLanguageReader reader;
    msptest::CaptureFd err(2);
    int result = reader.initialize(dir.config());
    return {result, err.Finish(), Terms(reader), reader.termsCount};
}

std::string Document(const std::string& terms) {
    return "<?xml version=\"1.0\"?>\n<Root><Languages><Name>English</Name><Name>Deutsch</Name></Languages>"
           "<Header><Version>1</Version></Header><TermTable>" +
           terms + "</TermTable></Root>\n";
}
const std::string kTermA = "<T ID=\"a\"><English>x</English></T>";

// The static reader through the flat functions; after the first release its lock is gone for good, and the
// reader works on without it.
TEST(LanguageReader, ShippedFileInEachLanguage) {
    const char* cases[][4] = {
        {"English", "Music", "Artist & Album", "Folder <%s> is not readable"},
        {"Deutsch", "Musik", "Interpret & Album", "Ordner <%s> ist nicht lesbar"},
        {"Fran\u00e7ais", "Musique", "Artiste & album", "Le dossier <%s> est illisible"},
    };
    const char* fallback = "Fallback";
    for (const auto& c : cases) {
        LanguageDir dir(c[0], msptest::ReadFile(kShippedFile));
        EXPECT_EQ(fallback, Tx(fallback, "Music"));  // nothing loaded
        EXPECT_EQ(nullptr, getSupportedLanguages());
        ASSERT_EQ(1, initializeLanguageReader(dir.config()));
        EXPECT_STREQ(kNames, getSupportedLanguages());
        EXPECT_EQ(3, languageReader.languagesCount);
        EXPECT_EQ(40, languageReader.termsCount);
        EXPECT_STREQ(c[1], Tx(fallback, "Music"));
        EXPECT_STREQ(c[2], Tx(fallback, "ArtistAlbum"));
        EXPECT_STREQ(c[3], Tx(fallback, "ErrorAccess"));
        EXPECT_EQ(fallback, Tx(fallback, "music"));  // identifiers are case sensitive
        EXPECT_EQ(nullptr, Tx(nullptr, "NoSuchTerm"));
        deinitializeLanguageReader();
        EXPECT_EQ(nullptr, languageReader.mutex);
    }
}

// Terms as read, and what a failure prints (without line ends).
TEST(LanguageReader, TermsOfOddDocumentsAndFailures) {
    const std::string noTable = "initialize exception : Listing TermTable contents failed !!!";
    const std::string names = "<Languages><Name>English</Name></Languages>";
    struct Case {
        std::string document;
        Strings expected;
        std::string printed = "";
    } cases[] = {
        {Document("<T ID=\"a\"><English>x</English><Deutsch>y</Deutsch></T>"), {"a=x"}},
        {Document("<T ID=\"a\" Other=\"b\"><English>x</English></T>"), {"-=x"}},
        {Document("<T Other=\"b\" ID=\"a\"><English>x</English></T>"), {"a=x"}},
        {Document("<T ID=\"a\" ><English>x</English></T>"), {"-=x"}},
        {Document("<T ID='a'><English>x</English></T>"), {"a=x"}},
        {Document("<T ID=abc><English>x</English></T>"), {"b=x"}},
        {Document("<T ID=\"\"><English>x</English></T>"), {"=x"}},
        {Document("<T I><English>x</English></T>"), {"=x"}},  // one-byte ID: empty identifier
        {Document("<T><English>x</English></T>"), {"-=x"}},
        {Document("<T ID=\"a&amp;b\"><English>&lt;b&gt;</English></T>"), {"a&b=<b>"}},
        {Document("<T ID=\"a\"><En>x</En><English>y</English></T>"), {"a=x"}},
        {Document("<T ID=\"a\"><EnglishUK>x</EnglishUK></T>"), {"a=-"}},
        {Document("<T ID=\"a\"><English></English></T><T ID=\"b\"><English/></T>"), {"a=-", "b=-"}},
        {Document("<T ID=\"a\"></T><T ID=\"b\"/><T ID=\"c\"><English>z</English></T>"), {"c=z"}},
        {Document("<T ID=\"a\"><English>x<b>y</b></English></T>"), {}, noTable},
        {Document("<T ID=\"a\"><Deutsch>d</Deutsch><English>x<b>y</b></English></T>"), {"a=x<b>y</b>"}},
        {Document("<T ID=\"a\"><English>1</English></T><T ID=\"a\"><English>2</English></T>"),
         {"a=1", "a=2"}},
        {Document("<T ID=\"a\"><English> two\n lines </English></T>"), {"a= two\n lines "}},
        // An element behind the wrapper counts as one more, empty term.
        {"<Root><Languages><Name>English</Name></Languages><Header/><W>" + kTermA +
             "</W><Extra>e</Extra></Root>",
         {"a=x", "-=-"}},
        {"", {}, "initialize exception : Copying XML buffer Failed !!!"},
        {"<?xml version=\"1.0\"?>",
         {},
         "copyBufferToXMLNode: xml_ParseXML Failed !!!initialize exception : Copying buffer to xmlnode "
         "Failed !!!"},
        {"<Languages><Name></Name></Languages><Header/><W>" + kTermA + "</W>",
         {},
         "initialize exception : Supported Languages list not found !!!"},
        {names + "<W>" + kTermA + "</W>", {}, noTable},
        {"<Header/>" + names + "<W>" + kTermA + "</W>", {}, noTable},
        {names + "<Header/>" + kTermA, {}, noTable},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.document);
        Load load = LoadDocument(c.document);
        EXPECT_EQ(c.expected, load.terms);
        EXPECT_EQ(static_cast<int>(c.expected.size()), load.termsCount);
        EXPECT_EQ(c.expected.empty() ? 0 : 1, load.result);
        EXPECT_EQ(c.printed, load.err);
    }
}

// The names as the rule reads them, name by name: xml_ReadInnerXML on each "Name" start node up to the first
// closing "Languages" node.
std::string ReferenceNames(xml_node* first, int* count) {
    std::string joined;
    *count = 0;
    for (xml_node* node = first; node; node = node->next) {
        const std::string name(node->name, static_cast<size_t>(node->nameLength));
        if (!node->isStart && name.rfind("Languages", 0) == 0) break;
        if (!node->isStart || name.rfind("Name", 0) != 0) continue;
        char* inner = nullptr;
        const int length = xml_ReadInnerXML(node, &inner);
        if (length <= 0) continue;
        joined += std::string(inner, static_cast<size_t>(length)) + "|";
        ++*count;
    }
    return joined;
}

TEST(LanguageReader, NamesReadInOneWalkAsEachAlone) {
    const char* const pieces[] = {
        "<Name>",   "</Name>",        "<Names>",     "</Names>",     "<Nam>",         "</Nam>", "<Name/>",
        "<x:Name>", "</y:Name>",      "<Languages>", "</Languages>", "</LanguagesX>", "<x>",    "</x>",
        "<y/>",     "<Name a=\"1\">", "a",           " b\n"};
    std::mt19937 rng(20261124);
    ZvLanguageReader reader;
    for (int i = 0; i < 4000; ++i) {
        std::string text;
        for (int k = static_cast<int>(rng() % 24); k > 0; --k) text += pieces[rng() % std::size(pieces)];
        SCOPED_TRACE(text);
        xml_node* nodes = xml_ParseXML(&text[0], 0, static_cast<int>(text.size()));
        int count;
        const std::string expected = ReferenceNames(nodes, &count);
        ASSERT_EQ(count, reader.loadLanguagesList(nodes));
        ASSERT_EQ(expected, reader.supportedLanguages ? reader.supportedLanguages : "");
        ASSERT_EQ(count == 0, reader.supportedLanguages == nullptr);
        xml_DestructXMLNodeList(nodes);
    }

    // Nested names that nothing closes: read one by one, each read runs to the end of the list.
    std::string nested = "<Languages>";
    for (int i = 0; i < 200000; ++i) nested += "<Name>";
    nested += "<Name>English</Name></Languages>";
    xml_node* nodes = xml_ParseXML(&nested[0], 0, static_cast<int>(nested.size()));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(1, reader.loadLanguagesList(nodes));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    EXPECT_STREQ("English|", reader.supportedLanguages);
    xml_DestructXMLNodeList(nodes);
}

TEST(LanguageReader, AFifoAsLanguageFileFailsAtOnce) {
    LanguageDir dir("English", "");
    ASSERT_EQ(0, mkfifo(dir.file("fifo").c_str(), 0600));
    dir.Configure(dir.file("fifo"), "English");
    // Nobody writes to the FIFO: an open that waited for a writer would hang.
    const std::string printed =
        "copyXMLFileBuffer exception : Language file read failed !!!initialize exception : Copying XML "
        "buffer "
        "Failed !!!";
    int status = msptest::RunChild(
        [&] {
            ZvLanguageReader reader;
            msptest::CaptureFd err(2);
            return reader.initialize(dir.config()) == 0 && err.Finish() == printed ? 0 : 1;
        },
        20000);
    EXPECT_EQ(0, status) << "kChildTimedOut is " << msptest::kChildTimedOut;
}

TEST(LanguageReader, ConfigurationFailuresAndThePathLimit) {
    LanguageDir dir("English", Document(kTermA));
    ZvLanguageReader reader;
    const std::string cases[][2] = {
        {"", "loadConfigValues: GetConfigStringLen failed while getting language filepath !!!"},
        {"[LANGUAGE]\r\nlanguageFilePath=\"x\"\r\n",
         "loadConfigValues: GetConfigStringLen failed while getting current language !!!"},
        {"[LANGUAGE]\r\nlanguageFilePath=\"" + std::string(256, 'p') + "\"\r\n",
         "loadConfigValues: Language file path too long !!!"},
        {"[LANGUAGE]\r\nlanguageFilePath=\"none.xml\"\r\ncurrentLanguage=\"English\"\r\n",
         "copyXMLFileBuffer exception : File Open Error"},
    };
    for (const auto& c : cases) {
        if (c[0].empty())
            unlink(dir.config());
        else
            msptest::WriteFile(dir.config(), c[0]);
        msptest::CaptureFd err(2);
        EXPECT_EQ(0, reader.initialize(dir.config()));
        const bool configFailed = c[1].rfind("loadConfigValues", 0) == 0;
        EXPECT_EQ(c[1] + (configFailed ? "initialize exception : Loading Configuration values Failed !!!"
                                       : "initialize exception : Copying XML buffer Failed !!!"),
                  err.Finish());
        EXPECT_EQ(configFailed, reader.currentLanguage == nullptr);
    }
    msptest::CaptureFd err(2);
    EXPECT_EQ(0, reader.loadConfigValues(nullptr, nullptr));
    EXPECT_EQ("loadConfigValues: Configuration File Path empty !!!", err.Finish());

    // A path of 255 bytes still fits the buffer.
    const std::string name(255 - dir.file("").size(), 'n');
    rename(dir.file("lang.xml").c_str(), dir.file(name).c_str());
    dir.Configure(dir.file(name), "English");
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
    EXPECT_EQ((Strings{"a=first", "a=second", "b=b"}), Terms(reader));
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
    EXPECT_EQ(nullptr, reader.getTermInfobyID("a"));
}

TEST(LanguageReader, FailedAllocationsLoseTermsNotTheProcess) {
    const std::string document =
        Document(kTermA + "<T ID=\"b\"><English>y</English></T><T ID=\"c\"><English>z</English></T>");
    for (int n = 0; n < 14; ++n) {
        static int granted;
        granted = n;
        languageReaderCalloc = [](size_t count, size_t size) {
            return granted-- > 0 ? calloc(count, size) : nullptr;
        };
        Load load = LoadDocument(document);
        languageReaderCalloc = calloc;
        EXPECT_LE(load.terms.size(), 3u) << n;
        if (n >= 13) {
            EXPECT_EQ((Strings{"a=x", "b=y", "c=z"}), load.terms);
        }
    }
}

}  // namespace
