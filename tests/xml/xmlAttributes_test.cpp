#include "msplatform/xmlParser.h"

#include <string.h>

#include <climits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/support.h"
#include "xmlTestSupport.h"

namespace {

using xmltest::Attributes;
using xmltest::Parsed;

// More tags are compared with the records the splitters' cuts give, in XmlFuzz (its seeds).
TEST(XmlGetXMLAttributes, TokensBehindTheName) {
    const struct {
        std::string text;
        size_t node;  // index of the node asked
        Attributes records;
    } cases[] = {
        {"<a />", 0, {"@3 | @3"}},
        {"<a b=\"1\" />", 0, {"@9 | @9", "b@3 | \"1\"@5"}},
        {"<a x:b=\"1\" yy:c=\"2\">", 0, {"yy@11:c@14 | \"2\"@16", "x@3:b@5 | \"1\"@7"}},
        {"<a flag>", 0, {"flag@3 | flag@3"}},
        {"<a b=\"1\" c='2 3'>", 0, {"3'@14 | 3'@14", "c@9 | '2@11", "b@3 | \"1\"@5"}},
        {"<a b=\"1 c=2>", 0, {"b@3 | \"1 c=2@5"}},  // an unclosed quote holds the rest of the tag
        {"<a>x</a>", 1, {}},                        // a closing node: its tag text has a negative length
        // The closing node of an empty tag shares the start node's position but not isEmpty.
        {"<a b=\"1\"/>", 1, {"b@3 | \"1\"/@5"}},
        // A ">" in the text behind the tag moves the position, and the tag text runs up to it.
        {"<a x=\"1\">1 > 0</a>", 0, {"@11 | @11", "x@3 | \"1\">1@5"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text + " node " + std::to_string(c.node));
        Parsed parsed(c.text);
        ASSERT_NE(parsed.at(c.node), nullptr);
        xml_attribute* first = xml_GetXMLAttributes(parsed.at(c.node));
        EXPECT_EQ(xmltest::Render(parsed.buffer.data(), first), c.records);
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
        EXPECT_EQ(xml_GetXMLAttributes(parsed.first), nullptr) << granted;
    }
    xmltest::FailAllocationsAfter failing(3);
    xml_attribute* first = xml_GetXMLAttributes(parsed.first);
    EXPECT_EQ(xmltest::Render(parsed.buffer.data(), first).size(), 3u);
    xml_DestructXMLAttributeList(first);
}

// Decoded in place from a heap block of exactly the text and its terminator; escaped into one of exactly the
// announced size and a terminator. Round trips of random texts run in XmlFuzz.
TEST(XmlEntities, DecodeAndEncode) {
    const char* decodes[][2] = {
        {"", ""},
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
    for (const auto& c : decodes) {
        xmltest::ExactBuffer buffer(std::string(c[0], strlen(c[0]) + 1));
        EXPECT_EQ(xml_InPlaceXmlUnEscape(buffer.data()), int(strlen(c[1]))) << c[0];
        EXPECT_STREQ(buffer.data(), c[1]);
    }
    const char* encodes[][2] = {
        {"", ""},
        {"plain", "plain"},
        {"\"'&<>", "&quot;&apos;&amp;&lt;&gt;"},
        {"&amp;", "&amp;amp;"},
        {"\x80\xff\x01", "\x80\xff\x01"},
    };
    for (const auto& c : encodes) {
        EXPECT_EQ(xml_XmlEscapeLength(c[0]), int(strlen(c[1]))) << c[0];
        xmltest::ExactBuffer destination(std::string(strlen(c[1]) + 1, '#'));
        EXPECT_EQ(xml_XmlEscape(destination.data(), c[0]), int(strlen(c[1])));
        EXPECT_EQ(std::string(destination.data(), strlen(c[1]) + 1), std::string(c[1], strlen(c[1]) + 1));
    }
    EXPECT_EQ(xml_InPlaceXmlUnEscape(nullptr), 0);
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

}  // namespace
