#include <sys/stat.h>

#include <filesystem>
#include <random>
#include <regex>

#include <gtest/gtest.h>

#include "language/internal.h"
#include "msplatform/ZvCfgCtrlMgr.h"
#include "msplatform/ZvLanguageReader.h"
#include "msplatform/xmlParser.h"
#include "support/support.h"

namespace {

struct LanguageDir {
    msptest::TempDir dir;
    msptest::ScopedChdir chdir{dir.path()};
    std::string config = "MediaServer.cfg";
    void Use(const std::string& p, const std::string& l = "English") {
        msptest::WriteFile(config,
                           "[LANGUAGE]\nlanguageFilePath=\"" + p + "\"\ncurrentLanguage=\"" + l + "\"\n");
    }
    explicit LanguageDir(const std::string& document, const std::string& language = "English") {
        msptest::WriteFile("lang.xml", document);
        Use("lang.xml", language);
    }
};

std::string Load(LanguageDir& dir, ZvLanguageReader& reader) {  // "result terms languages | id=value ... | "
    msptest::CaptureFd err(2);
    std::string out = std::to_string(reader.initialize(&dir.config[0])) + " ";
    out += std::to_string(reader.termsCount) + " " + std::to_string(reader.languagesCount) + " | ";
    for (const termInfo* t = reader.termInfoList; t; t = t->next)
        out += std::string(t->id ? t->id : "-") + "=" + (t->value ? t->value : "-") + " ";
    return out + "| ";
}

std::string Document(const std::string& terms) {
    return "<R><Languages><Name>English</Name><Name>Deutsch</Name></Languages><Header/><W>" + terms +
           "</W></R>";
}

// The shipped file; a configuration the caller opened stays open, one the reader opened is closed; after its
// first release the static reader's lock is gone for good, and it works on without one.
TEST(LanguageReader, ShippedFileAndTheConfiguration) {
    LanguageDir dir(msptest::ReadFile(MSPLATFORM_SOURCE_DIR "/data/languages.xml"), "Fran\u00e7ais");
    EXPECT_EQ(1, ZvLanguageReader().initialize(&dir.config[0]));
    EXPECT_EQ(1, initializeConfig(&dir.config[0])) << "the reader closed what it opened";
    ASSERT_EQ(1, initializeLanguageReader(&dir.config[0]));
    EXPECT_EQ(CFG_ALREADY_INITIALIZED, initializeConfig(&dir.config[0])) << "the caller's stays open";
    deinitializeConfig();
    EXPECT_STREQ("Artiste & album", Tx(nullptr, "ArtistAlbum"));
    deinitializeLanguageReader();
    EXPECT_EQ(nullptr, Tx(nullptr, "ArtistAlbum"));
    EXPECT_EQ(nullptr, languageReader.mutex);
}

// Only a last attribute ID counts, its first and last byte dropped whatever they are; a child counts for
// English if its name is a start of "English"; a term without a child, or whose first child holds an element,
// is not added; the node behind a term is taken up whatever it is; the names end at "</Languages>".
TEST(LanguageReader, TermsOfOddDocuments) {
    const std::string names = "<Languages><Name>English</Name></Languages>",
                      termA = "<T ID=\"a\"><English>x</English></T>";
    const std::string cases[][2] = {
        {Document("<T ID=\"a\" Other=\"b\"><English>x</English></T><T Other=\"b\" ID='c'><En>y</En></T><T "
                  "ID=\"a\" ><E>x</E></T><T ID=abc><E>y</E></T><T ID=\"\"><E>x</E></T><T I><E>y</E></T><T "
                  "ID=\"a&amp;b\"><E>&lt;b&gt;</E></T>"),
         "1 7 2 | -=x c=y -=x b=y =x =y a&b=<b> | "},
        {Document(
             "<T ID=\"a\"><EnglishUK>x</EnglishUK><English/></T><T ID=\"c\"></T><T ID=\"d\"/><T ID=\"e\">"
             "<Deutsch>d</Deutsch><E> x<b>y</b>\n</E></T><T ID=\"a\"><E>2</E></T>"),
         "1 3 2 | a=- e= x<b>y</b>\n a=2 | "},
        {Document("<T ID=\"a\"><English>x<b>y</b></English></T>"), "0 0 2 | | "},
        {Document(termA + "<!-- c -->" + termA), "1 1 2 | a=x | "},
        {"<R>" + names + "<Header/><W>" + termA + "</W><Extra>e</Extra></R>", "1 2 1 | a=x -=- | "},
        {"<Languages><Name></Name></Languages><Header/><W>" + termA + "</W>", "0 0 0 | | "},
    };
    for (const auto& c : cases) {
        LanguageDir dir(c[0]);
        ZvLanguageReader reader;
        EXPECT_EQ(c[1], Load(dir, reader)) << c[0];
    }
}

// The names as the rule reads them, one xml_ReadInnerXML per "Name" start node up to the first closing
// "Languages" node, against the reader's single walk; nested names that nothing closes take no square time.
TEST(LanguageReader, NamesReadInOneWalkAsEachAlone) {
    const char* const pieces[] = {
        "<Name>",   "</Name>",        "<Names>",     "</Names>",     "<Nam>",         "</Nam>", "<Name/>",
        "<x:Name>", "</y:Name>",      "<Languages>", "</Languages>", "</LanguagesX>", "<x>",    "</x>",
        "<y/>",     "<Name a=\"1\">", "a",           " b\n"};
    std::mt19937 rng(20261124);
    ZvLanguageReader reader;
    auto named = [](xml_node* n, const char* word) {
        return std::string(n->name, size_t(n->nameLength)).rfind(word, 0) == 0;
    };
    for (int i = 0; i < 4000; ++i) {
        std::string text, expected;
        for (int k = int(rng() % 24); k > 0; --k) text += pieces[rng() % std::size(pieces)];
        xml_node* nodes = xml_ParseXML(&text[0], 0, int(text.size()));
        int count = 0;
        for (xml_node* n = nodes; n && (n->isStart || !named(n, "Languages")); n = n->next) {
            char* inner = nullptr;
            const int length = n->isStart && named(n, "Name") ? xml_ReadInnerXML(n, &inner) : 0;
            if (length > 0) expected += std::string(inner, size_t(length)) + "|", ++count;
        }
        ASSERT_EQ(count, reader.loadLanguagesList(nodes)) << text;
        ASSERT_EQ(count ? expected : "-", reader.supportedLanguages ? reader.supportedLanguages : "-")
            << text;
        xml_DestructXMLNodeList(nodes);
    }
    std::string nested = "<Languages>";
    for (int i = 0; i < 400000; ++i) nested += "<Name>";
    nested += "<Name>English</Name></Languages>";
    xml_node* nodes = xml_ParseXML(&nested[0], 0, int(nested.size()));
    msptest::Within("nested names", [&] { EXPECT_EQ(1, reader.loadLanguagesList(nodes)); });
    xml_DestructXMLNodeList(nodes);
}

// A second load appends; a failed one keeps what earlier steps stored; any one failed allocation loses a
// term or the load, never the process. A path of 256 bytes is refused; a FIFO fails at once instead of
// waiting for a writer (first in a child, where a wait can't hang the test).
TEST(LanguageReader, LoadsThatAddOrFail) {
    LanguageDir dir(Document("<T ID=\"a\"><English>first</English></T>"));
    ZvLanguageReader reader;
    ASSERT_EQ(1, reader.initialize(&dir.config[0]));
    msptest::WriteFile("lang.xml", Document("<T ID=\"a\"><E>2</E></T><T ID=\"b\"><E>b</E></T>"));
    EXPECT_EQ("1 2 2 | a=first a=2 b=b | ", Load(dir, reader));
    EXPECT_STREQ("first", reader.getTermInfobyID("a"));
    msptest::WriteFile("lang.xml", "<Languages><Name>Other</Name></Languages>");
    EXPECT_EQ("0 0 1 | a=first a=2 b=b | ", Load(dir, reader));
    msptest::WriteFile("lang.xml", Document("<T ID=\"a\"><E>x</E></T><T ID=\"b\"><E>y</E></T>"));
    for (int n = 0;; ++n) {
        static int granted;
        granted = n;
        languageReaderCalloc = [](size_t c, size_t size) { return granted-- ? calloc(c, size) : nullptr; };
        ZvLanguageReader failing;
        const std::string loaded = Load(dir, failing);
        languageReaderCalloc = calloc;
        if (loaded == "1 2 2 | a=x b=y | ") break;
        EXPECT_TRUE(std::regex_match(loaded, std::regex("[01] [0-2] [0-2] \\| ([-ab]=[-xy] ){0,2}\\| ")))
            << n;
        ASSERT_LT(n, 20);
    }
    ASSERT_EQ(0, mkfifo("fifo", 0600));
    auto open = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); };
    const auto opened = open();
    for (const std::string& path : {std::string(256, 'p'), std::string("fifo"), std::string("none")}) {
        dir.Use(path);
        ASSERT_EQ(0, msptest::RunChild([&] { return ZvLanguageReader().initialize(&dir.config[0]); }, 20000));
        msptest::CaptureFd err(2);
        EXPECT_EQ(0, ZvLanguageReader().initialize(&dir.config[0])) << path;
    }
    EXPECT_EQ(opened, open()) << "a file that failed to load is closed";
}

}  // namespace
