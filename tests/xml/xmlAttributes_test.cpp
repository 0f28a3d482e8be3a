#include "msplatform/xmlParser.h"

#include <string.h>

#include <climits>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/support.h"
#include "xmlTestSupport.h"

namespace {

using xmltest::Attributes;
using xmltest::Parsed;

struct AttributeCase {
    std::string text;
    size_t node;  // index of the node asked
    Attributes records;
};

TEST(XmlGetXMLAttributes, TokensBehindTheName) {
    const AttributeCase cases[] = {
        {"<a>", 0, {}},
        {"<a/>", 0, {}},
        {"<a />", 0, {"@3 | @3"}},
        {"<a b=\"1\"/>", 0, {"b@3 | \"1\"@5"}},
        {"<a b=\"1\" />", 0, {"@9 | @9", "b@3 | \"1\"@5"}},
        {"<a  b=\"1\">", 0, {"b@4 | \"1\"@6", "@3 | @3"}},
        {"<a x:b=\"1\">", 0, {"x@3:b@5 | \"1\"@7"}},
        {"<a x:b=\"1\" yy:c=\"2\">", 0, {"yy@11:c@14 | \"2\"@16", "x@3:b@5 | \"1\"@7"}},
        {"<a c:d:e=\"1\">", 0, {"c@3:d:e@5 | \"1\"@9"}},
        {"<a b=\"x y\">", 0, {"b@3 | \"x y\"@5"}},
        {"<a b=\"x>y\">t</a>", 0, {"b@3 | \"x>y\"@5"}},
        {"<a flag>", 0, {"flag@3 | flag@3"}},
        {"<a a=b=c>", 0, {"a@3 | c@7"}},
        {"<t a=\"b=c:d\">", 0, {"a@3 | \"b=c:d\"@5"}},
        {"<t h=a:b>", 0, {"h=a@3:b@7 | b@7"}},
        {"<t a=\"x:y\":b=1>", 0, {"a=\"x:y\"@3:b@11 | 1@13"}},
        {"<a b=\"1\"\n c=\"2\">", 0, {"c@10 | \"2\"@12", "b@3 | \"1\"\n@5"}},
        {"<a b=\"1\" c='2 3'>", 0, {"3'@14 | 3'@14", "c@9 | '2@11", "b@3 | \"1\"@5"}},
        {"<a\tb=\"1\" c=\"2\">", 0, {"c@9 | \"2\"@11"}},
        // An unclosed quote holds the rest of the tag.
        {"<a b=\"1 c=2>", 0, {"b@3 | \"1 c=2@5"}},
        {"<a b=>", 0, {"b@3 | @5"}},
        {"<a =1>", 0, {"@3 | 1@4"}},
        {"<a :b>", 0, {"@3:b@4 | b@4"}},
        {"<r><a b=\"1\"/></r>", 1, {"b@6 | \"1\"@8"}},
        // A closing node: its tag text has a negative length.
        {"<a>x</a>", 1, {}},
        // The closing node of an empty tag shares the start node's position but not isEmpty.
        {"<a b=\"1\"/>", 1, {"b@3 | \"1\"/@5"}},
        // No ">" at all: the position is the tag's first byte.
        {"<a b=\"1\"", 0, {}},
        // A ">" in the text behind the tag moves the position, and the tag text runs up to it.
        {"<a x=\"1\">1 > 0</a>", 0, {"@11 | @11", "x@3 | \"1\">1@5"}},
    };
    for (const AttributeCase& c : cases) {
        SCOPED_TRACE(c.text + " node " + std::to_string(c.node));
        Parsed parsed(c.text);
        ASSERT_NE(parsed.at(c.node), nullptr);
        xml_attribute* first = xml_GetXMLAttributes(parsed.at(c.node));
        EXPECT_EQ(xmltest::Render(parsed.base(), first), c.records);
        xml_DestructXMLAttributeList(first);
    }
}

TEST(XmlGetXMLAttributes, NullAndFailedAllocation) {
    EXPECT_EQ(xml_GetXMLAttributes(nullptr), nullptr);
    xml_node positionless{};
    EXPECT_EQ(xml_GetXMLAttributes(&positionless), nullptr);
    xml_DestructXMLAttributeList(nullptr);

    Parsed parsed("<a b=\"1\" c=\"2\" d=\"3\">");
    for (int granted = 0; granted < 3; ++granted) {
        xmltest::FailAllocationsAfter failing(granted);
        EXPECT_EQ(xml_GetXMLAttributes(parsed.first()), nullptr) << granted;
    }
    xmltest::FailAllocationsAfter failing(3);
    xml_attribute* first = xml_GetXMLAttributes(parsed.first());
    EXPECT_EQ(xmltest::Render(parsed.base(), first).size(), 3u);
    xml_DestructXMLAttributeList(first);
}

// The text in a heap block of exactly its size with its terminator, decoded in place.
std::pair<std::string, int> Unescape(const std::string& text) {
    xmltest::ExactBuffer buffer(std::string(text.c_str(), text.size() + 1));
    const int length = xml_InPlaceXmlUnEscape(buffer.data());
    return {std::string(buffer.data()), length};
}

TEST(XmlEntities, DecodeInOnePass) {
    const struct {
        const char* text;
        const char* decoded;
    } cases[] = {
        {"", ""},
        {"plain", "plain"},
        {"&lt;&gt;&amp;&quot;&apos;", "<>&\"'"},
        {"a &lt; b &amp;&amp; c &gt; d", "a < b && c > d"},
        {"&amp;lt;", "&lt;"},
        {"a&b", "a&b"},
        {"&lt", "&lt"},
        {"&LT;", "&LT;"},
        {"&#60;", "&#60;"},
        {"&unknown;", "&unknown;"},
        {"&", "&"},
        {"&&lt;", "&<"},
        {"&lt;&", "<&"},
        {"\xff&gt;\x80", "\xff>\x80"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(Unescape(c.text),
                  std::make_pair(std::string(c.decoded), static_cast<int>(strlen(c.decoded))));
    }
    EXPECT_EQ(xml_InPlaceXmlUnEscape(nullptr), 0);
}

// Escapes into a heap block of exactly the announced size plus the terminator.
std::pair<std::string, int> Escape(const char* text) {
    const int announced = xml_XmlEscapeLength(text);
    xmltest::ExactBuffer destination(std::string(static_cast<size_t>(announced) + 1, '#'));
    const int written = xml_XmlEscape(destination.data(), text);
    EXPECT_EQ(written, announced);
    EXPECT_EQ(destination.data()[announced], '\0');
    return {std::string(destination.data()), written};
}

TEST(XmlEntities, Encode) {
    const struct {
        const char* text;
        const char* escaped;
    } cases[] = {
        {"", ""},
        {"plain", "plain"},
        {"a<b", "a&lt;b"},
        {"\"'&<>", "&quot;&apos;&amp;&lt;&gt;"},
        {"&amp;", "&amp;amp;"},
        {"\x80\xff\x01", "\x80\xff\x01"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(Escape(c.text),
                  std::make_pair(std::string(c.escaped), static_cast<int>(strlen(c.escaped))));
    }
    EXPECT_EQ(xml_XmlEscapeLength(nullptr), 0);
    char destination[] = "xyz";
    EXPECT_EQ(xml_XmlEscape(destination, nullptr), 0);
    EXPECT_EQ(destination[0], '\0');
    EXPECT_EQ(xml_XmlEscape(nullptr, "a<b"), 0);
}

// 360 MiB of quotes escape to more than 2 GiB: the length stops at the largest int rather than overflowing.
TEST(XmlEntities, EscapeLengthOfAHugeTextSaturates) {
    msptest::RepeatedText quotes('"', 360);
    if (!quotes.text()) GTEST_SKIP() << "the system gives no 360 MiB of address space";
    EXPECT_EQ(xml_XmlEscapeLength(quotes.text()), INT_MAX);
}

TEST(XmlEntities, DecodingUndoesEncoding) {
    std::mt19937 rng(7);
    std::uniform_int_distribution<int> byte(1, 255);
    for (int i = 0; i < 2000; ++i) {
        std::string text(std::uniform_int_distribution<size_t>(0, 40)(rng), 'x');
        for (char& b : text) b = static_cast<char>(i % 2 ? byte(rng) : "<>&\"';ltgampquos"[byte(rng) % 16]);
        SCOPED_TRACE(testing::PrintToString(text));
        const std::string escaped = Escape(text.c_str()).first;
        EXPECT_EQ(Unescape(escaped), std::make_pair(text, static_cast<int>(text.size())));
    }
}

}  // namespace
