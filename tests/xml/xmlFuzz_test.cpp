// Seeds, random and mutated documents in exactly sized heap blocks (the address sanitizer stops a read past
// them), compared whole with what the exported splitters' cuts give; a sub-range with a parse of its copy.
#include "msplatform/xmlParser.h"

#include <string.h>

#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "xmlReference.h"
#include "xmlTestSupport.h"

namespace {

using xmltest::ExactBuffer;
using xmltest::Render;

template <typename T>
T* Linked(std::vector<T>& records) {
    for (size_t i = 0; i + 1 < records.size(); ++i) records[i].next = &records[i + 1];
    return records.empty() ? nullptr : &records[0];
}

xmltest::Nodes ReferenceParse(char* text, int start, int end) {
    std::vector<xml_node> nodes = xmlref::ReferenceNodes(text, start, end);
    return Render(text, Linked(nodes));
}

const char* const kSeeds[] = {
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<formats>\n  <format ext=\"mp3\" mime='audio/mpeg'>\n"
    "    <dlna:profile>MP3</dlna:profile>\n    <parser name=\"id3\"/>\n  </format>\n</formats>\n",
    "<lang><term id=\"1\" x:y=\"a b\">Hello &amp; bye</term><term id='2' flag/><!-- c --></lang>",
    "<a><b>1 < 2 > 0</b><![CDATA[ <x> ]]><c d=\"e>f\" /></a></a/><:z></>",
    "lead<a\tb=\"1\"\r\n c='2 3'>t</a><//a>< a><a:></a>",
    "&lt;&gt;&amp;&quot;&apos;&#60;&lt&amp;lt;&&;ltgt&quot",
};

// Shapes once pinned one by one, split at "|".
const char kShapes[] =
    "<?xml version=\"1.0\"?>|<a>|<a/b>|</a />|</x:a>|<x:a:b>|<a/b:c>|<>|<<a>|<//a>|<!-- a comment -->|"
    "<![CDATA[ <b ]]>|<a>1 < 2</a>|<a>1 <2</a>|<a b=\"x>y\">t</a>|<a b=\"x>y\"/>|<a b=\"1<2\">|"
    "<a x:y=\"1\">|<\na>|<a\tb=\"1\" c>|<a\tx:b>|abc|<a  b=\"1\">|<a c:d:e=\"1\">|<a b=\"x y\">|"
    "<a a=b=c>|<t a=\"b=c:d\">|<t a=\"x:y\":b=1>|<a b=\"1\"\n c=\"2\">|<a b=>|<a :b>|<r><a b=\"1\"/></r>|"
    "<a><!-- c --><b/></a>|<r><a>t</a> x <b/></r>|<a/|</a/>|<:a>|<a:>|< a>|</a>|<a><b>|"
    "<?xml version=\"1.0\"?>\n<a>|<a\r\n b=\"1\">|<a b=\"1\" c=\"2\" d=\"3\">|<a x=\"1\">1 > 0</a>|"
    "<a b=\"1\"|<a>x</a>|<a b=\"1 c=2>|<a><b></a></b>|   |<a/>|<t h=a:b>|<a\tb=\"1\" c=\"2\">|<a =1>";

// Bytes that matter to the parser, weighted in, and any byte at all now and then.
char RandomByte(std::mt19937& rng) {
    static const char kInteresting[] = "<<<>>>///   ::?!?!\"\"''==&&;;\n\r\tababxyz-[]ltgampquos";
    if (rng() % 10 == 0) return char(rng());
    return kInteresting[rng() % (sizeof(kInteresting) - 1)];
}

std::string RandomOrMutated(std::mt19937& rng, bool random) {
    std::string text = random ? std::string(rng() % 81, '\0') : kSeeds[rng() % std::size(kSeeds)];
    if (random) {
        for (char& b : text) b = RandomByte(rng);
        return text;
    }
    for (int e = 1 + int(rng() % 8); e > 0; --e) {
        const size_t at = rng() % (text.size() + 1);
        const unsigned kind = rng() % 4;
        if (kind == 0) text.insert(at, 1, RandomByte(rng));
        if (kind == 1 && at < text.size()) text[at] = RandomByte(rng);
        if (kind == 2) text.erase(at, 1 + rng() % 6);
        if (kind == 3) text.resize(at);
    }
    return text;
}

void Exercise(const std::string& text, std::mt19937& rng) {
    ExactBuffer buffer(text);
    char* const base = buffer.data();
    const int size = buffer.size();
    xml_node* first = xml_ParseXML(base, 0, size);
    ASSERT_EQ(Render(base, first), ReferenceParse(base, 0, size));
    const int result = xml_ProcessXMLNodeList(first);
    EXPECT_TRUE(result <= 0 && result >= -3) << result;
    for (xml_node* n = first; n; n = n->next) {
        char* inner = nullptr;
        const int length = xml_ReadInnerXML(n, &inner);
        ASSERT_GE(length, 0);
        EXPECT_TRUE(!inner || (inner >= base && inner + length <= base + size));
        // Every node with a "<" in front of its position in the buffer may be asked for its attributes.
        if (!memrchr(base, '<', size_t(n->position - base))) continue;
        xml_attribute* attributes = xml_GetXMLAttributes(n);
        std::vector<xml_attribute> expected = xmlref::ReferenceAttributes(n);
        EXPECT_EQ(Render(base, attributes), Render(base, Linked(expected)));
        xml_DestructXMLAttributeList(attributes);
    }
    xml_DestructXMLNodeList(first);

    // The entity functions read up to the terminator and no further; decoding undoes encoding.
    const std::string plain(text.c_str());
    ExactBuffer terminated(std::string(plain.c_str(), plain.size() + 1));
    const int escapedLength = xml_XmlEscapeLength(terminated.data());
    ExactBuffer escaped(std::string(size_t(escapedLength) + 1, '#'));
    EXPECT_EQ(xml_XmlEscape(escaped.data(), terminated.data()), escapedLength);
    EXPECT_EQ(xml_InPlaceXmlUnEscape(escaped.data()), int(plain.size()));
    EXPECT_EQ(escaped.data(), plain);
    const int decoded = xml_InPlaceXmlUnEscape(terminated.data());
    EXPECT_EQ(decoded, int(strlen(terminated.data())));
    EXPECT_LE(decoded, int(plain.size()));

    // A sub-range reads nothing outside itself: its nodes are those of a copy of the sub-range alone.
    const int start = int(rng() % (size + 1)), end = start + int(rng() % (size - start + 1));
    ExactBuffer part(text.substr(size_t(start), size_t(end - start)));
    xml_node* ranged = xml_ParseXML(base, start, end);
    xml_node* alone = xml_ParseXML(part.data(), 0, part.size());
    EXPECT_EQ(Render(base + start, ranged), Render(part.data(), alone));
    EXPECT_EQ(Render(base, ranged), ReferenceParse(base, start, end));
    xml_DestructXMLNodeList(ranged);
    xml_DestructXMLNodeList(alone);
}

TEST(XmlFuzz, SeedsRandomAndMutatedDocuments) {
    std::mt19937 rng(20261123);
    std::vector<std::string> fixed(std::begin(kSeeds), std::end(kSeeds));
    for (const char* at = kShapes; at; at = strchr(at, '|') ? strchr(at, '|') + 1 : nullptr)
        fixed.emplace_back(at, strcspn(at, "|"));
    const int count = int(fixed.size());
    for (int i = -count; i < 20000 && !HasFailure(); ++i) {
        const std::string text = i < 0 ? fixed[size_t(i + count)] : RandomOrMutated(rng, i % 2);
        SCOPED_TRACE(testing::PrintToString(text));
        Exercise(text, rng);
    }
}

}  // namespace
