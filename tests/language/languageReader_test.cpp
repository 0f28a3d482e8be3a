// The language reader: the shipped file, the term walk on odd documents, the names against one read per name,
// and what a failing configuration, file or allocation leaves behind.
#include "msplatform/languageReader.h"

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <random>
#include <regex>
#include <string>

#include <gtest/gtest.h>

#include "language/internal.h"
#include "msplatform/ZvCfgCtrlMgr.h"
#include "msplatform/ZvLanguageReader.h"
#include "msplatform/xmlParser.h"
#include "support/support.h"

namespace {

// A working directory with a language file and the configuration that names it.
class LanguageDir {
public:
    LanguageDir(const std::string& document, const std::string& language = "English") : chdir_(dir_.path()) {
        msptest::WriteFile(file("lang.xml"), document);
        Configure(file("lang.xml"), language);
    }
    void Configure(const std::string& path, const std::string& language) {
        msptest::WriteFile(config_, "[LANGUAGE]\r\nlanguageFilePath=\"" + path + "\"\r\ncurrentLanguage=\"" +
                                        language + "\"\r\n");
    }
    char* config() { return &config_[0]; }
    std::string file(const std::string& name) const { return dir_.file(name); }

private:
    msptest::TempDir dir_;
    msptest::ScopedChdir chdir_;
    std::string config_ = dir_.file("MediaServer.cfg");
};

// The terms as "id=value" ("-" for a null field), each behind a blank.
std::string Terms(const ZvLanguageReader& reader) {
    std::string terms;
    for (const termInfo* t = reader.termInfoList; t; t = t->next)
        terms += std::string(t->id ? t->id : "-") + "=" + (t->value ? t->value : "-") + " ";
    return terms;
}

// A load as "result termsCount languagesCount | terms | what stderr got".
std::string Load(LanguageDir& dir, ZvLanguageReader& reader) {
    msptest::CaptureFd err(2);
    const int result = reader.initialize(dir.config());
    return std::to_string(result) + " " + std::to_string(reader.termsCount) + " " +
           std::to_string(reader.languagesCount) + " | " + Terms(reader) + "| " + err.Finish();
}

std::string Document(const std::string& terms) {
    return "<?xml version=\"1.0\"?>\n<Root><Languages><Name>English</Name><Name>Deutsch</Name></Languages>"
           "<Header><Version>1</Version></Header><TermTable>" +
           terms + "</TermTable></Root>\n";
}

// The static reader through the flat functions, on the shipped file; after its first release its lock is gone
// for good, and it works on without one.
TEST(LanguageReader, ShippedFileThroughTheFlatFunctions) {
    const char* fallback = "Fallback";
    LanguageDir dir(msptest::ReadFile(MSPLATFORM_SOURCE_DIR "/data/languages.xml"), "Fran\u00e7ais");
    EXPECT_EQ(fallback, Tx(fallback, "ArtistAlbum"));  // nothing loaded
    ASSERT_EQ(1, initializeLanguageReader(dir.config()));
    EXPECT_STREQ("English|Deutsch|Fran\u00e7ais|", getSupportedLanguages());
    EXPECT_EQ(40, languageReader.termsCount);
    EXPECT_STREQ("Artiste & album", Tx(fallback, "ArtistAlbum"));
    EXPECT_EQ(fallback, Tx(fallback, "artistalbum"));  // identifiers are case sensitive
    EXPECT_EQ(nullptr, Tx(nullptr, "NoSuchTerm"));
    deinitializeLanguageReader();
    EXPECT_EQ(fallback, Tx(fallback, "ArtistAlbum"));
    EXPECT_EQ(nullptr, languageReader.mutex);
}

TEST(LanguageReader, TermsOfOddDocuments) {
    const std::string noTable = "| initialize exception : Listing TermTable contents failed !!!";
    const std::string names = "<Languages><Name>English</Name></Languages>",
                      termA = "<T ID=\"a\"><English>x</English></T>";
    // Only a last attribute ID counts, its first and last byte dropped whatever they are (a one-byte value
    // gives the empty identifier); a child counts for English if its name is a start of "English"; a term
    // without a child, or whose first child holds an element, is not added; the first of two IDs is found.
    const std::string cases[][2] = {
        {Document("<T ID=\"a\"><English>x</English><Deutsch>y</Deutsch></T><T ID=\"a\" "
                  "Other=\"b\"><English>x</English>"
                  "</T><T Other=\"b\" ID='c'><En>y</En></T><T ID=\"a\" ><English>x</English></T><T "
                  "ID=abc><English>y"
                  "</English></T><T ID=\"\"><English>x</English></T><T "
                  "I><English>y</English></T><T><English>z</English>"
                  "</T><T ID=\"a&amp;b\"><English>&lt;b&gt;</English></T>"),
         "1 9 2 | a=x -=x c=y -=x b=y =x =y -=z a&b=<b> | "},
        {Document("<T ID=\"a\"><EnglishUK>x</EnglishUK><English/></T><T ID=\"b\"><English></English></T><T "
                  "ID=\"c\">"
                  "</T><T ID=\"d\"/><T ID=\"e\"><Deutsch>d</Deutsch><English> x<b>y</b>\n</English></T><T "
                  "ID=\"a\">"
                  "<English>2</English></T>"),
         "1 4 2 | a=- b=- e= x<b>y</b>\n a=2 | "},
        {Document("<T ID=\"a\"><English>x<b>y</b></English></T>"), "0 0 2 | " + noTable},
        {Document(termA + "<!-- c -->" + termA), "1 1 2 | a=x | "},
        {"<R>" + names + "<Header/><W>" + termA + "</W><Extra>e</Extra></R>", "1 2 1 | a=x -=- | "},
        {"<R><Header/><W>" + termA + "</W>" + names + "<Name>Late</Name></R>", "1 1 1 | a=x | "},
        {"", "0 0 0 | | initialize exception : Copying XML buffer Failed !!!"},
        {"<?xml version=\"1.0\"?>",
         "0 0 0 | | copyBufferToXMLNode: xml_ParseXML Failed !!!initialize exception : Copying buffer to "
         "xmlnode "
         "Failed !!!"},
        {"<Languages><Name></Name></Languages><Header/><W>" + termA + "</W>",
         "0 0 0 | | initialize exception : Supported Languages list not found !!!"},
        {names + "<W>" + termA + "</W>", "0 0 1 | " + noTable},
        {"<Header/>" + names + "<W>" + termA + "</W>", "0 0 1 | " + noTable},
        {names + "<Header/>" + termA, "0 0 1 | " + noTable},
    };
    for (const auto& c : cases) {
        LanguageDir dir(c[0]);
        ZvLanguageReader reader;
        EXPECT_EQ(c[1], Load(dir, reader)) << c[0];
    }
}

// The names as the rule reads them, one xml_ReadInnerXML per "Name" start node up to the first closing
// "Languages" node, against the reader's single walk.
TEST(LanguageReader, NamesReadInOneWalkAsEachAlone) {
    const char* const pieces[] = {
        "<Name>",   "</Name>",        "<Names>",     "</Names>",     "<Nam>",         "</Nam>", "<Name/>",
        "<x:Name>", "</y:Name>",      "<Languages>", "</Languages>", "</LanguagesX>", "<x>",    "</x>",
        "<y/>",     "<Name a=\"1\">", "a",           " b\n"};
    std::mt19937 rng(20261124);
    ZvLanguageReader reader;
    for (int i = 0; i < 4000; ++i) {
        std::string text, expected;
        for (int k = int(rng() % 24); k > 0; --k) text += pieces[rng() % std::size(pieces)];
        xml_node* nodes = xml_ParseXML(&text[0], 0, int(text.size()));
        int count = 0;
        auto named = [](xml_node* n, const char* word) {
            return std::string(n->name, size_t(n->nameLength)).rfind(word, 0) == 0;
        };
        for (xml_node* n = nodes; n && (n->isStart || !named(n, "Languages")); n = n->next) {
            char* inner = nullptr;
            const int length = n->isStart && named(n, "Name") ? xml_ReadInnerXML(n, &inner) : 0;
            if (length > 0) expected += std::string(inner, size_t(length)) + "|", ++count;
        }
        ASSERT_EQ(count, reader.loadLanguagesList(nodes)) << text;
        ASSERT_EQ(expected, reader.supportedLanguages ? reader.supportedLanguages : "") << text;
        ASSERT_EQ(count == 0, reader.supportedLanguages == nullptr);
        xml_DestructXMLNodeList(nodes);
    }
    // Nested names that nothing closes: read one by one, each read would run to the end of the list.
    std::string nested = "<Languages>";
    for (int i = 0; i < 200000; ++i) nested += "<Name>";
    nested += "<Name>English</Name></Languages>";
    xml_node* nodes = xml_ParseXML(&nested[0], 0, int(nested.size()));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(1, reader.loadLanguagesList(nodes));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    EXPECT_STREQ("English|", reader.supportedLanguages);
    xml_DestructXMLNodeList(nodes);
}

// What each failure prints; a configuration the caller opened stays open, one the reader opened is closed;
// a path of 255 bytes loads, one of 256 is refused; a FIFO fails at once instead of waiting for a writer.
TEST(LanguageReader, ConfigurationAndFileFailures) {
    LanguageDir dir(Document("<T ID=\"a\"><English>x</English></T>"));
    ASSERT_EQ(0, mkfifo(dir.file("fifo").c_str(), 0600));
    const std::string config = "loadConfigValues: ",
                      load = "initialize exception : Loading Configuration values Failed !!!",
                      copy = "initialize exception : Copying XML buffer Failed !!!";
    const std::string cases[][2] = {
        {"", config + "GetConfigStringLen failed while getting language filepath !!!" + load},
        {"languageFilePath=\"x\"",
         config + "GetConfigStringLen failed while getting current language !!!" + load},
        {"languageFilePath=\"" + std::string(256, 'p') + "\"",
         config + "Language file path too long !!!" + load},
        {"languageFilePath=\"none.xml\"\r\ncurrentLanguage=\"English\"",
         "copyXMLFileBuffer exception : File Open Error" + copy},
        {"languageFilePath=\"fifo\"\r\ncurrentLanguage=\"English\"",
         "copyXMLFileBuffer exception : Language file read failed !!!" + copy},
    };
    for (const auto& c : cases) {
        msptest::WriteFile(dir.config(), "[LANGUAGE]\r\n" + c[0] + "\r\n");
        // In a child: an open that waited for a writer to the FIFO would hang.
        EXPECT_EQ(0, msptest::RunChild(
                         [&] {
                             ZvLanguageReader reader;
                             return Load(dir, reader) == "0 0 0 | | " + c[1] &&
                                            (c[1].find(copy) == std::string::npos) == !reader.currentLanguage
                                        ? 0
                                        : 1;
                         },
                         20000))
            << c[0];
    }
    msptest::CaptureFd err(2);
    ZvLanguageReader reader;
    EXPECT_EQ(0, reader.loadConfigValues(nullptr, nullptr));
    EXPECT_EQ("loadConfigValues: Configuration File Path empty !!!", err.Finish());

    const std::string name(255 - dir.file("").size(), 'n');
    ASSERT_EQ(0, rename(dir.file("lang.xml").c_str(), dir.file(name).c_str()));
    dir.Configure(dir.file(name), "English");
    EXPECT_EQ("1 1 2 | a=x | ", Load(dir, reader));
    EXPECT_EQ(1, initializeConfig(dir.config())) << "the reader closed what it opened";
    ZvLanguageReader other;
    EXPECT_EQ("1 1 2 | a=x | ", Load(dir, other));
    EXPECT_EQ(CFG_ALREADY_INITIALIZED, initializeConfig(dir.config())) << "what the caller opened stays open";
    deinitializeConfig();
}

// A second load appends; a failed one keeps what earlier steps stored; any one failed allocation loses a
// term or the load, never the process.
TEST(LanguageReader, SecondAndFailedLoadsAndFailedAllocations) {
    LanguageDir dir(Document("<T ID=\"a\"><English>first</English></T>"));
    ZvLanguageReader reader;
    ASSERT_EQ(1, reader.initialize(dir.config()));
    msptest::WriteFile(dir.file("lang.xml"),
                       Document("<T ID=\"a\"><English>2</English></T><T ID=\"b\"><English>b</English></T>"));
    EXPECT_EQ("1 2 2 | a=first a=2 b=b | ", Load(dir, reader));
    EXPECT_STREQ("first", reader.getTermInfobyID("a"));
    msptest::WriteFile(dir.file("lang.xml"), "<Languages><Name>Other</Name></Languages>");
    EXPECT_EQ("0 0 1 | a=first a=2 b=b | initialize exception : Listing TermTable contents failed !!!",
              Load(dir, reader));
    EXPECT_STREQ("Other|", reader.getSupportedLanguages());
    EXPECT_STREQ("English", reader.currentLanguage);
    reader.deinitialize();
    EXPECT_EQ(nullptr, reader.getTermInfobyID("a"));
    EXPECT_EQ(0, reader.termsCount + reader.languagesCount);

    msptest::WriteFile(dir.file("lang.xml"),
                       Document("<T ID=\"a\"><English>x</English></T><T ID=\"b\"><English>y</English></T>"));
    for (int n = 0;; ++n) {
        static int granted;
        granted = n;
        languageReaderCalloc = [](size_t count, size_t size) {
            return granted-- == 0 ? nullptr : calloc(count, size);
        };
        ZvLanguageReader failing;
        const std::string loaded = Load(dir, failing);
        languageReaderCalloc = calloc;
        if (loaded == "1 2 2 | a=x b=y | ") break;
        EXPECT_TRUE(std::regex_match(loaded, std::regex("[01] [0-2] [0-2] \\| ([-ab]=[-xy] ){0,2}\\| .*")))
            << loaded;
        ASSERT_LT(n, 20);
    }
}

}  // namespace
