// Random and mutated documents in exactly sized heap blocks (the address sanitizer stops a read past them),
// compared whole with what the exported splitters' cuts give; a sub-range with a parse of its copy alone.
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
using xmltest::Nodes;

// The node list the cuts give, linked.
Nodes ReferenceParse(char* text, int start, int end) {
    std::vector<xml_node> nodes = xmlref::ReferenceNodes(text, start, end);
    for (size_t i = 0; i + 1 < nodes.size(); ++i) nodes[i].next = &nodes[i + 1];
    return xmltest::Render(text, nodes.empty() ? nullptr : &nodes[0]);
}

// The attributes the cuts give, linked.
xmltest::Attributes ReferenceAttributes(const char* base, xml_node* node) {
    std::vector<xml_attribute> records = xmlref::ReferenceAttributes(node);
    for (size_t i = 0; i + 1 < records.size(); ++i) records[i].next = &records[i + 1];
    return xmltest::Render(base, records.empty() ? nullptr : &records[0]);
}

const char* const kSeeds[] = {
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<formats>\n  <format ext=\"mp3\" mime='audio/mpeg'>\n"
    "    <dlna:profile>MP3</dlna:profile>\n    <parser name=\"id3\"/>\n  </format>\n</formats>\n",
    "<lang><term id=\"1\" x:y=\"a b\">Hello &amp; bye</term><term id='2' flag/><!-- c --></lang>",
    "<a><b>1 < 2 > 0</b><![CDATA[ <x> ]]><c d=\"e>f\" /></a></a/><:z></>",
    "lead<a\tb=\"1\"\r\n c='2 3'>t</a><//a>< a><a:></a>",
};

// Bytes that matter to the parser, weighted in, and any byte at all now and then.
char RandomByte(std::mt19937& rng) {
    static const char kInteresting[] = "<<<>>>///   ::?!?!\"\"''==&;\n\r\tababxyz-[]";
    std::uniform_int_distribution<int> pick(0, 9);
    if (pick(rng) == 0) return static_cast<char>(std::uniform_int_distribution<int>(0, 255)(rng));
    return kInteresting[std::uniform_int_distribution<size_t>(0, sizeof(kInteresting) - 2)(rng)];
}

std::string RandomDocument(std::mt19937& rng) {
    std::string text(std::uniform_int_distribution<size_t>(0, 80)(rng), '\0');
    for (char& b : text) b = RandomByte(rng);
    return text;
}

std::string MutatedDocument(std::mt19937& rng) {
    std::string text = kSeeds[std::uniform_int_distribution<size_t>(0, std::size(kSeeds) - 1)(rng)];
    const int edits = std::uniform_int_distribution<int>(1, 8)(rng);
    for (int e = 0; e < edits; ++e) {
        const size_t at = std::uniform_int_distribution<size_t>(0, text.size())(rng);
        switch (std::uniform_int_distribution<int>(0, 3)(rng)) {
            case 0:
                text.insert(at, 1, RandomByte(rng));
                break;
            case 1:
                if (at < text.size()) text[at] = RandomByte(rng);
                break;
            case 2:
                text.erase(at, std::uniform_int_distribution<size_t>(1, 6)(rng));
                break;
            default:
                text.resize(at);
                break;
        }
    }
    return text;
}

void Exercise(const std::string& text, std::mt19937& rng) {
    ExactBuffer buffer(text);
    char* const base = buffer.data();
    const int size = buffer.size();

    xml_node* first = xml_ParseXML(base, 0, size);
    ASSERT_EQ(xmltest::Render(base, first), ReferenceParse(base, 0, size));

    const int result = xml_ProcessXMLNodeList(first);
    EXPECT_TRUE(result == 0 || result == -1 || result == -2 || result == -3) << result;
    for (xml_node* n = first; n; n = n->next) {
        char* inner = nullptr;
        const int length = xml_ReadInnerXML(n, &inner);
        ASSERT_GE(length, 0);
        if (inner) {
            EXPECT_TRUE(inner >= base && inner + length <= base + size);
        }
        // Every node with a "<" in front of its position in the buffer may be asked for its attributes.
        if (!memrchr(base, '<', static_cast<size_t>(n->position - base))) continue;
        xml_attribute* attributes = xml_GetXMLAttributes(n);
        EXPECT_EQ(xmltest::Render(base, attributes), ReferenceAttributes(base, n));
        xml_DestructXMLAttributeList(attributes);
    }
    xml_DestructXMLNodeList(first);

    // The entity functions read up to the terminator and no further, whatever stands before it.
    ExactBuffer terminated(std::string(text.c_str(), strlen(text.c_str()) + 1));
    const int escapedLength = xml_XmlEscapeLength(terminated.data());
    ExactBuffer escaped(std::string(static_cast<size_t>(escapedLength) + 1, '#'));
    EXPECT_EQ(xml_XmlEscape(escaped.data(), terminated.data()), escapedLength);
    const int decoded = xml_InPlaceXmlUnEscape(terminated.data());
    EXPECT_EQ(decoded, static_cast<int>(strlen(terminated.data())));
    EXPECT_LE(decoded, terminated.size() - 1);

    // A sub-range reads nothing outside itself: its nodes are those of a copy of the sub-range alone.
    const int start = std::uniform_int_distribution<int>(0, size)(rng);
    const int end = std::uniform_int_distribution<int>(start, size)(rng);
    ExactBuffer part(text.substr(static_cast<size_t>(start), static_cast<size_t>(end - start)));
    xml_node* ranged = xml_ParseXML(base, start, end);
    xml_node* alone = xml_ParseXML(part.data(), 0, part.size());
    EXPECT_EQ(xmltest::Render(base + start, ranged), xmltest::Render(part.data(), alone));
    EXPECT_EQ(xmltest::Render(base, ranged), ReferenceParse(base, start, end));
    xml_DestructXMLNodeList(ranged);
    xml_DestructXMLNodeList(alone);
}

TEST(XmlFuzz, RandomAndMutatedDocuments) {
    std::mt19937 rng(20261123);
    for (const char* seed : kSeeds) Exercise(seed, rng);
    for (int i = 0; i < 20000 && !HasFatalFailure(); ++i) {
        const std::string text = i % 2 ? RandomDocument(rng) : MutatedDocument(rng);
        SCOPED_TRACE(testing::PrintToString(text));
        Exercise(text, rng);
        if (HasFailure()) break;
    }
}

}  // namespace
