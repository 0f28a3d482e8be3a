#include "msplatform/xmlParser.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "xmlTestSupport.h"

namespace {

using xmltest::ExactBuffer;
using xmltest::Pieces;
using xmltest::ToPieces;

Pieces Split(bool quoteAware, char* text, int start, int endOrLength, const std::string& delimiter) {
    ExactBuffer d(delimiter);
    return ToPieces(text, quoteAware ? xml_ParseStringAdv(text, start, endOrLength, d.data(), d.size())
                                     : xml_ParseString(text, start, endOrLength, d.data(), d.size()));
}

Pieces Split(bool quoteAware, const std::string& text, const std::string& delimiter) {
    ExactBuffer t(text);
    return Split(quoteAware, t.data(), 0, t.size(), delimiter);
}

// True for the empty result: no piece, count 0, never null.
bool Empty(parser_result* r) {
    const bool empty = r && !r->first && r->count == 0;
    if (r) xml_DestructParserResults(r);
    return empty;
}

const std::string kNuls("a\0b,\0,c\0", 8);

TEST(XmlSplitter, Cuts) {
    const struct {
        bool quoteAware;
        std::string text, delimiter;
        Pieces pieces;  // offset into the text and bytes of each piece
    } cases[] = {
        {false, "", ",", {{0, ""}}},
        {false, "abc", ",", {{0, "abc"}}},
        {false, ",,", ",", {{0, ""}, {1, ""}, {2, ""}}},
        {false, "a,b,,c,", ",", {{0, "a"}, {2, "b"}, {4, ""}, {5, "c"}, {7, ""}}},
        {false, "abXY", "XYZ", {{0, "abXY"}}},
        {false, "aXYZbXYZXYZc", "XYZ", {{0, "a"}, {4, "b"}, {8, ""}, {11, "c"}}},
        {false, "XYXYZ", "XYZ", {{0, "XY"}, {5, ""}}},
        {false, "a\"b,c\"", ",", {{0, "a\"b"}, {4, "c\""}}},
        {false, "<a><b>", "<", {{0, ""}, {1, "a>"}, {4, "b>"}}},
        {false, "\xff\xfe\xff\xfe", "\xfe\xff", {{0, "\xff"}, {3, "\xfe"}}},
        {false,
         kNuls,
         ",",
         {{0, std::string("a\0b", 3)}, {4, std::string("\0", 1)}, {6, std::string("c\0", 2)}}},
        {true,
         kNuls,
         ",",
         {{0, std::string("a\0b", 3)}, {4, std::string("\0", 1)}, {6, std::string("c\0", 2)}}},
        {false, kNuls, std::string("\0", 1), {{0, "a"}, {2, "b,"}, {5, ",c"}, {8, ""}}},
        {false, "abc", "", {{0, "abc"}}},  // a delimiter of no bytes cuts nothing
        // Quote-aware: no cut inside the first quote kind met, which goes on and off with each quote of it.
        {true, "", " ", {{0, ""}}},
        {true, "a  b", " ", {{0, "a"}, {2, ""}, {3, "b"}}},
        {true, "a=\"b c\" d='e f'", " ", {{0, "a=\"b c\""}, {8, "d='e"}, {13, "f'"}}},
        {true, "d='e f' a=\"b c\"", " ", {{0, "d='e f'"}, {8, "a=\"b"}, {13, "c\""}}},
        {true, "it's a=\"b c\" x", " ", {{0, "it's a=\"b c\" x"}}},
        {true, "a\"b c\"d e", " ", {{0, "a\"b c\"d"}, {8, "e"}}},
        {true, "\"a\"b", "\"", {{0, "\"a"}, {3, "b"}}},  // the closing quote itself is not protected
        {true, "'a b' 'c d' e", " ", {{0, "'a b'"}, {6, "'c d'"}, {12, "e"}}},
        {true, "x=\"1:2\":y", ":", {{0, "x=\"1:2\""}, {8, "y"}}},
        {true, "a=b=c", "=", {{0, "a"}, {2, "b"}, {4, "c"}}},
        {true, "a-\"b", "-\"", {{0, "a"}, {3, "b"}}},  // tested at the delimiter's first byte
        {true, "abc", "", {{0, "abc"}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.text) + (c.quoteAware ? " quote-aware" : ""));
        EXPECT_EQ(Split(c.quoteAware, c.text, c.delimiter), c.pieces);
    }
    char text[] = "abc", comma[] = ",";
    EXPECT_EQ(ToPieces(text, xml_ParseStringAdv(text, 0, 3, comma, -1)), (Pieces{{0, "abc"}}));
    EXPECT_EQ(ToPieces(text, xml_ParseString(text, 0, 3, nullptr, 1)), (Pieces{{0, "abc"}}));
}

TEST(XmlSplitter, RangesAndOffsets) {
    char text[] = "xx,a,b,yy";
    // Blind: start and end offsets; quote-aware: start offset and length.
    EXPECT_EQ(Split(false, text, 3, 6, ","), (Pieces{{3, "a"}, {5, "b"}}));
    EXPECT_EQ(Split(false, text, 2, 7, ","), (Pieces{{2, ""}, {3, "a"}, {5, "b"}, {7, ""}}));
    EXPECT_EQ(Split(true, text, 3, 3, ","), (Pieces{{3, "a"}, {5, "b"}}));
    // A delimiter that would reach past the limit is text.
    EXPECT_EQ(Split(false, text, 3, 4, "a,"), (Pieces{{3, "a"}}));
    EXPECT_EQ(Split(true, text, 3, 1, "a,"), (Pieces{{3, "a"}}));
    // Empty ranges give one empty piece at the start offset.
    for (int start : {0, 4, 9}) {
        for (int length : {0, -3}) {
            EXPECT_EQ(Split(false, text, start, start + length, ","), (Pieces{{start, ""}}));
            EXPECT_EQ(Split(true, text, start, length, ","), (Pieces{{start, ""}}));
        }
    }
}

// A null buffer (not a legal call of the quote-aware one) and failed allocations give the empty result.
TEST(XmlSplitter, NullBufferAndFailedAllocationGiveNoPieceButNeverNull) {
    char text[] = "a,b,c", comma[] = ",";
    EXPECT_TRUE(Empty(xml_ParseString(nullptr, 0, 10, comma, 1)));
    EXPECT_TRUE(Empty(xml_ParseStringAdv(nullptr, 0, 10, comma, 1)));
    for (int granted = 0; granted < 4; ++granted) {
        xmltest::FailAllocationsAfter failing(granted);
        EXPECT_TRUE(Empty(xml_ParseString(text, 0, 5, comma, 1))) << granted;
        EXPECT_TRUE(Empty(xml_ParseStringAdv(text, 0, 5, comma, 1))) << granted;
    }
    xmltest::FailAllocationsAfter failing(4);
    EXPECT_EQ(ToPieces(text, xml_ParseString(text, 0, 5, comma, 1)), (Pieces{{0, "a"}, {2, "b"}, {4, "c"}}));
}

TEST(XmlSplitter, IsDelimiter) {
    char text[] = "ab<c", lt[] = "<", two[] = "<c", high[] = "\xff", highText[] = "a\xff";
    const struct {
        char* buffer;
        int position, end;
        char* delimiter;
        int length, expected;
    } cases[] = {
        {text, 2, 4, lt, 1, 1},    {text, 1, 4, lt, 1, 0},       {text, 2, 3, lt, 1, 1},
        {text, 2, 2, lt, 1, 0},    {text, 2, 4, two, 2, 1},      {text, 2, 3, two, 2, 0},
        {text, 0, 4, two, 0, 1},   {text, 4, 4, two, 0, 1},      {text, 5, 4, two, 0, 0},
        {text, 0, 4, lt, -1, 1},   {highText, 1, 2, high, 1, 1}, {highText, 0, 2, high, 1, 0},
        {nullptr, 0, 4, lt, 1, 0}, {text, 0, 4, nullptr, 1, 0},
    };
    for (const auto& c : cases)
        EXPECT_EQ(xml_IsDelimiter(c.buffer, c.position, c.end, c.delimiter, c.length), c.expected)
            << c.position << " " << c.end << " " << c.length;
}

}  // namespace
