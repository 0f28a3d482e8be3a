// The parser against the models of xmlReference.h over generated texts in bytes that end at a page without
// access (a read one byte beyond faults, sanitizers or not); rows for the models; what no model tells.
#include "msplatform/xmlParser.h"

#include <algorithm>
#include <climits>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/support.h"
#include "xml/internal.h"
#include "xmlReference.h"

namespace {

using xmlref::Piece;

msptest::GuardedBytes Guarded(const std::string& bytes) {
    msptest::GuardedBytes guarded(bytes.size());
    memcpy(guarded.data(), bytes.data(), bytes.size());
    return guarded;
}

std::vector<Piece> Pieces(parser_result* result) {
    std::vector<Piece> pieces;
    for (parser_field* f = result->first; f; f = f->next) pieces.emplace_back(f->text, f->length);
    EXPECT_EQ(result->count, int(pieces.size()));
    EXPECT_TRUE(!result->first || result->last->text == pieces.back().first);
    xml_DestructParserResults(result);
    return pieces;
}

// A node a line, as the parser answers or (model) as the models do, offsets from the text: "<" start or "</"
// closing, "prefix@offset:", "name@offset", " #position", " empty", the links that are set as node indexes,
// the inner text where one is given, the attributes, last first: " [prefix@offset:name@offset=value@offset]".
std::string Render(const char* base, xml_node* first, bool model) {
    std::vector<xml_node*> all;
    for (xml_node* n = first; n; n = n->next) all.push_back(n);
    auto at = [&](const char* p, int size) { return std::string(p, size) + "@" + std::to_string(p - base); };
    auto index = [&](const char* key, const xml_node* to) {
        return to ? key + std::to_string(std::find(all.begin(), all.end(), to) - all.begin()) : "";
    };
    std::string lines;
    for (xml_node* n : all) {
        lines += n->isStart == ~0 ? "<" : n->isStart ? "<?" : "</";
        lines += (n->prefix ? at(n->prefix, n->prefixLength) + ":" : "") + at(n->name, n->nameLength) + " #" +
                 std::to_string(n->position - base) +
                 (n->isEmpty ? n->isEmpty == ~0 ? " empty" : " empty?" : "") + index(" parent=", n->parent) +
                 index(" peer=", n->peer) + index(" close=", n->closingTag) + index(" open=", n->startingTag);
        std::pair<int, char*> inner = model ? xmlref::ReferenceInner(n) : std::make_pair(0, nullptr);
        if (!model) inner.first = xml_ReadInnerXML(n, &inner.second);
        if (inner.second || inner.first)
            lines += " inner=" + (inner.second ? at(inner.second, inner.first) : std::to_string(inner.first));
        const bool tag = memrchr(base, '<', size_t(n->position - base));  // else no tag to read again
        std::vector<xml_attribute> records =
            model && tag ? xmlref::ReferenceAttributes(n) : decltype(records)();
        xml_attribute* list = model || !tag ? nullptr : xml_GetXMLAttributes(n);
        for (xml_attribute* a = list; a; a = a->next) records.push_back(*a);
        xml_DestructXMLAttributeList(list);
        for (const xml_attribute& a : records)
            lines += " [" + (a.prefix ? at(a.prefix, a.prefixLength) + ":" : "") + at(a.name, a.nameLength) +
                     "=" + at(a.value, a.valueLength) + "]";
        lines += "\n";
    }
    return lines;
}

// Tails of tokens that make tags, pairs and attributes likely, between bytes that matter to the parser and
// any byte at all.
std::string RandomText(std::mt19937& rng) {
    static const std::string kTokens =
        "<a>|</a>|<b />|<x:a>|</y:a>|</A>|<?pi?>|<!-- c -->|&amp;lt;|&quot;&LT;|"
        "<a b=\"1\" c='2 3'>|<a\tx:b=\"x>y\"/>|<t h=a:b c:d:e=\"=\" f>|";
    static const char kBytes[] = "<<>>//  ::?\"'=&;\n\r\tab\0";
    std::string text;
    for (size_t n = rng() % 24, at; n > 0; --n) {
        at = rng() % kTokens.size();
        text += rng() % 2 ? kTokens.substr(at, kTokens.find('|', at) - at)
                          : std::string(1, rng() % 8 ? kBytes[rng() % (sizeof kBytes - 1)] : char(rng()));
    }
    return text;
}

TEST(XmlParser, GeneratedTextsMatchTheModels) {
    std::mt19937 rng(20261123);
    for (int i = 0; i < 5000 && !HasFailure(); ++i) {
        const std::string text = RandomText(rng);
        SCOPED_TRACE(testing::PrintToString(text));
        const int size = int(text.size()), end = rng() % 4 ? size : int(rng() % (size + 1));
        const int start = rng() % 4 ? 0 : int(rng() % (size + 1));
        msptest::GuardedBytes bytes = Guarded(text.substr(0, size_t(end)));
        msptest::GuardedBytes delimiter = Guarded(std::string("<> :=\"'a").substr(rng() % 8, rng() % 4));
        char *const t = bytes.data(), *const d = delimiter.data();
        const int length = int(delimiter.size());
        EXPECT_EQ(Pieces(xml_ParseString(t, start, end, d, length)),
                  xmlref::Split(t, start, end, d, length, false));
        EXPECT_EQ(Pieces(xml_ParseStringAdv(t, start, end - start, d, length)),
                  xmlref::Split(t, start, end, d, length, true));
        for (int at = start; at <= end; ++at)
            EXPECT_EQ(xml_IsDelimiter(t, at, end, d, length),
                      at + length <= end && !memcmp(t + at, d, size_t(length)));

        std::vector<xml_node> model = xmlref::ReferenceNodes(t, start, end);
        xml_node* first = xml_ParseXML(t, start, end);
        ASSERT_EQ(Render(t, first, false), Render(t, xmlref::First(model), true));
        EXPECT_EQ(xmlref::ReferenceProcess(xmlref::First(model)), xml_ProcessXMLNodeList(first));
        EXPECT_EQ(Render(t, first, false), Render(t, xmlref::First(model), true));
        xml_DestructXMLNodeList(first);

        // Entities: encoded into exactly the announced length and a terminator, decoded back in place; whole
        // bytes compared, those behind the terminator included.
        const std::string plain = text.c_str();
        msptest::GuardedBytes in = msptest::GuardedBytes::String(plain);
        msptest::GuardedBytes out = Guarded(std::string(size_t(xml_XmlEscapeLength(in.data())) + 1, '#'));
        EXPECT_EQ(int(out.size()) - 1, xml_XmlEscape(out.data(), in.data()));
        const std::string encoded(out.data(), out.size());
        EXPECT_EQ(int(plain.size()), xml_InPlaceXmlUnEscape(out.data()));
        EXPECT_EQ(std::string(out.data(), out.size()), plain + '\0' + encoded.substr(plain.size() + 1));
        xml_InPlaceXmlUnEscape(in.data());  // reads nothing behind the terminator
    }
}

// Rows from the rules themselves, so that a model that shares a fault with the parser still fails; the
// entities, in one pass, case-sensitive, the five and no other.
TEST(XmlParser, RowsFromTheRules) {
    const char* const rows[][2] = {
        {"lead<a>1 > 0</a>",
         "-3\n<lead@0 #0\n<a@5 #10 parent=0 close=2 inner= 0@10 [@9=@9]\n</a@14 #13 open=1\n"},
        {"<a><a></a></a>",
         "0\n<a@1 #3 close=3 inner=<a></a>@3\n<a@4 #6 parent=0 close=2 inner=@6\n</a@8 #7 open=1\n"
         "</a@12 #11 open=0\n"},
    };
    for (const auto& row : rows) {
        std::string text = row[0];
        xml_node* first = xml_ParseXML(&text[0], 0, int(text.size()));
        const int result = xml_ProcessXMLNodeList(first);
        EXPECT_EQ(row[1], std::to_string(result) + "\n" + Render(text.c_str(), first, false));
        xml_DestructXMLNodeList(first);
    }
    const std::string encoded = "&lt;&gt;&amp;&quot;&apos;|&amp;lt;|a&b|&LT;|&#60;|&unknown;|&lt",
                      decoded = "<>&\"'|&lt;|a&b|&LT;|&#60;|&unknown;|&lt";
    msptest::GuardedBytes in = msptest::GuardedBytes::String(encoded);
    EXPECT_EQ(int(decoded.size()), xml_InPlaceXmlUnEscape(in.data()));
    EXPECT_EQ(decoded + '\0' + encoded.substr(decoded.size() + 1) + '\0', std::string(in.data(), in.size()));
    char out[40];
    EXPECT_EQ(30, xml_XmlEscape(out, "a|\"'&<>|\x80\xff"));
    EXPECT_STREQ("a|&quot;&apos;&amp;&lt;&gt;|\x80\xff", out);
}

// With any one allocation failing, a split, a node list or an attribute list is whole or empty, never
// partial, and a split is never null; a null buffer's splits; lists that loop back end at once; the stack.
TEST(XmlParser, FailedAllocationsNullArgumentsLoopsAndTheStack) {
    // A start tag, then empty tags: a block runs out at a start node and between the nodes of an empty tag.
    std::string text = "<e a=\"1\" b=\"2\">";
    while (text.size() < 300) text += "<e a=\"1\" b=\"2\"/>";
    char* const t = &text[0];
    char lt[] = "<";
    const size_t tags = size_t(std::count(text.begin(), text.end(), '<'));
    for (size_t granted = 0, nodes = 0, pieces = 0, records = 0; !nodes || !pieces || !records; ++granted) {
        static int left;
        left = int(granted);
        xmlparser::allocate = [](size_t size) { return left-- == 0 ? nullptr : malloc(size); };
        xml_node* first = xml_ParseXML(t, 0, int(text.size()));
        pieces = Pieces(xml_ParseString(t, 0, int(text.size()), lt, 1)).size();
        xml_attribute* attributes = first ? xml_GetXMLAttributes(first) : nullptr;
        xmlparser::allocate = malloc;
        nodes = records = 0;
        for (xml_node* n = first; n; n = n->next) ++nodes;
        for (xml_attribute* a = attributes; a; a = a->next) ++records;
        EXPECT_TRUE((nodes == 0 || nodes == 2 * tags - 1) && (pieces == 0 || pieces == tags + 1) &&
                    (records == 0 || records == 2))
            << granted;
        xml_DestructXMLAttributeList(attributes);
        xml_DestructXMLNodeList(first);
    }
    EXPECT_EQ(nullptr, xml_ParseXML(nullptr, 0, 4));
    EXPECT_TRUE(Pieces(xml_ParseString(nullptr, 0, 4, lt, 1)).empty());
    EXPECT_EQ(Pieces(xml_ParseStringAdv(nullptr, 0, 0, lt, 1)), (std::vector<Piece>{{nullptr, 0}}));
    for (int back : {0, 1}) {  // <e ...> </e> <e: the last node loops back to the first or second
        xml_node* first = xml_ParseXML(t, 15, 34);
        first->next->next->next = back ? first->next : first;
        EXPECT_GE(0, xml_ProcessXMLNodeList(first));
        EXPECT_EQ(0, xml_ReadInnerXML(first->next->next, nullptr) + xml_ReadInnerXML(first, nullptr));
        first->next->next->next = nullptr;
        xml_DestructXMLNodeList(first);
    }
    void* stack = &stack;
    xml_CreateStack(&stack);
    for (char& c : text) xml_PushStack(&stack, &c);
    EXPECT_EQ(&text.back(), xml_PeekStack(&stack));
    EXPECT_EQ(&text.back(), xml_PopStack(&stack));
    EXPECT_EQ(&text.back() - 1, xml_PopStack(&stack));
    xml_ClearStack(&stack);
    EXPECT_EQ(nullptr, xml_PopStack(&stack));
}

// 360 MiB of quotes escape to more than 2 GiB: the length stops at the largest int, never wraps to a small
// one.
TEST(XmlParser, EscapeLengthOfAHugeTextSaturates) {
    msptest::RepeatedText quotes('"', 360);
    if (!quotes.text()) GTEST_SKIP() << "the system gives no 360 MiB of address space";
    EXPECT_EQ(INT_MAX, xml_XmlEscapeLength(quotes.text()));
}

// Parts of one list share the blocks their nodes came from; released on several threads at once, each block
// still goes once, after its last node (the sanitizers watch it).
TEST(XmlParser, PartsReleasedOnSeveralThreadsAtOnce) {
    std::string text;
    for (int i = 0; i < 500; ++i) text += "<e/>";
    for (int round = 0; round < 20; ++round) {
        std::vector<xml_node*> nodes, parts;
        for (xml_node* n = xml_ParseXML(&text[0], 0, int(text.size())); n; n = n->next) nodes.push_back(n);
        parts.push_back(nodes[0]);
        for (size_t cut : {1, 2, 124, 125, 126, 500, 999})  // blocks of 125, 250, 500 and 125 nodes
            parts.push_back(nodes[cut]), nodes[cut - 1]->next = nullptr;
        std::vector<std::thread> threads;
        for (xml_node* part : parts) threads.emplace_back(xml_DestructXMLNodeList, part);
        for (auto& thread : threads) thread.join();
    }
}

}  // namespace
