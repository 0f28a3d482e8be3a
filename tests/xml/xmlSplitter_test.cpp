#include "msplatform/xmlParser.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "xmlTestSupport.h"

namespace {

using xmltest::Pieces;
using xmltest::SplitAdv;
using xmltest::SplitBlind;

struct SplitCase {
    const char* text;
    const char* delimiter;
    Pieces pieces;  // offset into the text and bytes of each piece
};

TEST(XmlSplitter, BlindCutsEverywhere) {
    const SplitCase cases[] = {
        {"", ",", {{0, ""}}},
        {"abc", ",", {{0, "abc"}}},
        {"a,", ",", {{0, "a"}, {2, ""}}},
        {",a", ",", {{0, ""}, {1, "a"}}},
        {",,", ",", {{0, ""}, {1, ""}, {2, ""}}},
        {"a,b,,c", ",", {{0, "a"}, {2, "b"}, {4, ""}, {5, "c"}}},
        {"abXY", "XYZ", {{0, "abXY"}}},
        {"abXYZ", "XYZ", {{0, "ab"}, {5, ""}}},
        {"aXYZbXYZXYZc", "XYZ", {{0, "a"}, {4, "b"}, {8, ""}, {11, "c"}}},
        {"XYXYZ", "XYZ", {{0, "XY"}, {5, ""}}},
        {"a\"b,c\"", ",", {{0, "a\"b"}, {4, "c\""}}},
        {"<a><b>", "<", {{0, ""}, {1, "a>"}, {4, "b>"}}},
        {"\xff,\x80", ",", {{0, "\xff"}, {2, "\x80"}}},
        {"\xff\xfe\xff\xfe", "\xfe\xff", {{0, "\xff"}, {3, "\xfe"}}},
    };
    for (const SplitCase& c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(SplitBlind(c.text, c.delimiter), c.pieces);
    }
}

TEST(XmlSplitter, QuoteAwareCutsOutsideTheFirstQuoteKind) {
    const SplitCase cases[] = {
        {"", " ", {{0, ""}}},
        {"a b", " ", {{0, "a"}, {2, "b"}}},
        {"a  b", " ", {{0, "a"}, {2, ""}, {3, "b"}}},
        {"a=\"b c\" d='e f'", " ", {{0, "a=\"b c\""}, {8, "d='e"}, {13, "f'"}}},
        {"d='e f' a=\"b c\"", " ", {{0, "d='e f'"}, {8, "a=\"b"}, {13, "c\""}}},
        {"it's a=\"b c\" x", " ", {{0, "it's a=\"b c\" x"}}},
        {"a\"b c\"d e", " ", {{0, "a\"b c\"d"}, {8, "e"}}},
        // The closing quote is not protected: a delimiter equal to it cuts there.
        {"\"a\"b", "\"", {{0, "\"a"}, {3, "b"}}},
        // Quoting goes on and off with each quote of the same kind.
        {"'a b' 'c d' e", " ", {{0, "'a b'"}, {6, "'c d'"}, {12, "e"}}},
        {"x=\"1:2\":y", ":", {{0, "x=\"1:2\""}, {8, "y"}}},
        {"a=b=c", "=", {{0, "a"}, {2, "b"}, {4, "c"}}},
        {"a=\"b=c:d\"", "=", {{0, "a"}, {2, "\"b=c:d\""}}},
        // A multi-byte delimiter whose end lies inside quotes still cuts: the test runs at its first byte.
        {"a-\"b", "-\"", {{0, "a"}, {3, "b"}}},
    };
    for (const SplitCase& c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(SplitAdv(c.text, c.delimiter), c.pieces);
    }
}

TEST(XmlSplitter, RangesAndOffsets) {
    char text[] = "xx,a,b,yy";
    // Blind: start and end offsets, both from the buffer.
    EXPECT_EQ(SplitBlind(text, 3, 6, ","), (Pieces{{3, "a"}, {5, "b"}}));
    EXPECT_EQ(SplitBlind(text, 2, 7, ","), (Pieces{{2, ""}, {3, "a"}, {5, "b"}, {7, ""}}));
    // Adv: start offset and length from it; the two agree only at start 0.
    EXPECT_EQ(SplitAdv(text, 3, 3, ","), (Pieces{{3, "a"}, {5, "b"}}));
    EXPECT_EQ(SplitAdv(text, 0, 5, ","), SplitBlind(text, 0, 5, ","));
    // A delimiter that would reach past the limit is text.
    EXPECT_EQ(SplitBlind(text, 3, 4, "a,"), (Pieces{{3, "a"}}));
    EXPECT_EQ(SplitAdv(text, 3, 1, "a,"), (Pieces{{3, "a"}}));
    // Empty ranges give one empty piece at the start offset.
    for (int start : {0, 4, 9}) {
        EXPECT_EQ(SplitBlind(text, start, start, ","), (Pieces{{start, ""}}));
        EXPECT_EQ(SplitBlind(text, start, start - 3, ","), (Pieces{{start, ""}}));
        EXPECT_EQ(SplitAdv(text, start, 0, ","), (Pieces{{start, ""}}));
        EXPECT_EQ(SplitAdv(text, start, -5, ","), (Pieces{{start, ""}}));
    }
}

TEST(XmlSplitter, NulIsAByteLikeAnyOther) {
    const std::string text("a\0b,\0,c\0", 8);
    EXPECT_EQ(SplitBlind(text, ","),
              (Pieces{{0, std::string("a\0b", 3)}, {4, std::string("\0", 1)}, {6, std::string("c\0", 2)}}));
    EXPECT_EQ(SplitAdv(text, ","), SplitBlind(text, ","));
    EXPECT_EQ(SplitBlind(text, std::string("\0", 1)), (Pieces{{0, "a"}, {2, "b,"}, {5, ",c"}, {8, ""}}));
}

// Not a legal call of the quote-aware splitter; it answers as the blind one instead of reading address 0.
TEST(XmlSplitter, NullBufferGivesNoPiece) {
    char comma[] = ",";
    for (parser_result* r :
         {xml_ParseString(nullptr, 0, 10, comma, 1), xml_ParseStringAdv(nullptr, 0, 10, comma, 1)}) {
        ASSERT_NE(r, nullptr);
        EXPECT_EQ(r->first, nullptr);
        EXPECT_EQ(r->count, 0);
        xml_DestructParserResults(r);
    }
}

TEST(XmlSplitter, DelimiterOfNoBytesCutsNothing) {
    // A zero-length delimiter would match everywhere and never advance.
    char text[] = "abc";
    char delimiter[] = ",";
    EXPECT_EQ(xmltest::ToPieces(text, xml_ParseString(text, 0, 3, delimiter, 0)), (Pieces{{0, "abc"}}));
    EXPECT_EQ(xmltest::ToPieces(text, xml_ParseStringAdv(text, 0, 3, delimiter, -1)), (Pieces{{0, "abc"}}));
    EXPECT_EQ(xmltest::ToPieces(text, xml_ParseString(text, 0, 3, nullptr, 1)), (Pieces{{0, "abc"}}));
}

TEST(XmlSplitter, FailedAllocationGivesNoPieceButNeverNull) {
    char text[] = "a,b,c";
    char comma[] = ",";
    for (int granted = 0; granted < 4; ++granted) {
        SCOPED_TRACE(granted);
        for (bool quoteAware : {false, true}) {
            xmltest::FailAllocationsAfter failing(granted);
            parser_result* r =
                quoteAware ? xml_ParseStringAdv(text, 0, 5, comma, 1) : xml_ParseString(text, 0, 5, comma, 1);
            ASSERT_NE(r, nullptr);
            EXPECT_EQ(r->first, nullptr);
            EXPECT_EQ(r->count, 0);
            xml_DestructParserResults(r);
        }
    }
    xmltest::FailAllocationsAfter failing(4);
    EXPECT_EQ(xmltest::ToPieces(text, xml_ParseString(text, 0, 5, comma, 1)),
              (Pieces{{0, "a"}, {2, "b"}, {4, "c"}}));
}

TEST(XmlSplitter, IsDelimiter) {
    char text[] = "ab<c";
    char lt[] = "<";
    char two[] = "<c";
    char high[] = "\xff";
    char highText[] = "a\xff";
    struct {
        char* buffer;
        int position, end;
        char* delimiter;
        int length;
        int expected;
    } const cases[] = {
        {text, 2, 4, lt, 1, 1},    {text, 1, 4, lt, 1, 0},       {text, 2, 3, lt, 1, 1},
        {text, 2, 2, lt, 1, 0},    {text, 2, 4, two, 2, 1},      {text, 2, 3, two, 2, 0},
        {text, 0, 4, two, 0, 1},   {text, 4, 4, two, 0, 1},      {text, 5, 4, two, 0, 0},
        {text, 0, 4, lt, -1, 1},   {highText, 1, 2, high, 1, 1}, {highText, 0, 2, high, 1, 0},
        {nullptr, 0, 4, lt, 1, 0}, {text, 0, 4, nullptr, 1, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.position << " " << c.end << " " << c.length);
        EXPECT_EQ(xml_IsDelimiter(c.buffer, c.position, c.end, c.delimiter, c.length), c.expected);
    }
}

}  // namespace
