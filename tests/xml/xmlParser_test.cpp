#include "msplatform/xmlParser.h"

#include <string.h>

#include <atomic>
#include <climits>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/support.h"
#include "xmlTestSupport.h"

namespace {

using xmltest::Attributes;
using xmltest::ExactBuffer;
using xmltest::Nodes;
using xmltest::Parsed;
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
const Pieces kNulPieces = {
    {0, std::string("a\0b", 3)}, {4, std::string("\0", 1)}, {6, std::string("c\0", 2)}};

TEST(XmlSplitter, Cuts) {
    const struct {
        bool quoteAware;
        std::string text, delimiter;
        Pieces pieces;  // offset into the text and bytes of each piece
    } cases[] = {
        {false, "", ",", {{0, ""}}},
        {false, ",,", ",", {{0, ""}, {1, ""}, {2, ""}}},
        {false, "a,b,,c,", ",", {{0, "a"}, {2, "b"}, {4, ""}, {5, "c"}, {7, ""}}},
        {false, "abXY", "XYZ", {{0, "abXY"}}},
        {false, "aXYZbXYZXYZc", "XYZ", {{0, "a"}, {4, "b"}, {8, ""}, {11, "c"}}},
        {false, "XYXYZ", "XYZ", {{0, "XY"}, {5, ""}}},
        {false, "a\"b,c\"", ",", {{0, "a\"b"}, {4, "c\""}}},
        {false, "<a><b>", "<", {{0, ""}, {1, "a>"}, {4, "b>"}}},
        {false, "\xff\xfe\xff\xfe", "\xfe\xff", {{0, "\xff"}, {3, "\xfe"}}},
        {false, kNuls, ",", kNulPieces},
        {true, kNuls, ",", kNulPieces},
        {false, kNuls, std::string("\0", 1), {{0, "a"}, {2, "b,"}, {5, ",c"}, {8, ""}}},
        {false, "abc", "", {{0, "abc"}}},  // a delimiter of no bytes cuts nothing
        // Quote-aware: no cut inside the first quote kind met, which goes on and off with each quote of it.
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

// A null buffer and failed allocations give the empty result, but for the quote-aware splitter over an empty
// range: it has no null test, and walks nothing to the one empty piece.
TEST(XmlSplitter, NullBufferAndFailedAllocationGiveNoPieceButNeverNull) {
    char text[] = "a,b,c", comma[] = ",";
    EXPECT_TRUE(Empty(xml_ParseString(nullptr, 0, 10, comma, 1)));
    EXPECT_TRUE(Empty(xml_ParseString(nullptr, 0, 0, comma, 1)));
    EXPECT_TRUE(Empty(xml_ParseStringAdv(nullptr, 0, 10, comma, 1)));
    for (int start : {0, 3}) {
        for (int length : {0, -2}) {
            parser_result* r = xml_ParseStringAdv(nullptr, start, length, comma, 1);
            ASSERT_EQ(1, r->count);
            EXPECT_EQ(r->first, r->last);
            EXPECT_EQ(nullptr, r->first->text);
            EXPECT_EQ(0, r->first->length);
            xml_DestructParserResults(r);
        }
    }
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

// More shapes are compared with the nodes the splitters' cuts give, in XmlFuzz (its seeds).
TEST(XmlParseXML, WhatTheCutsMakeOfText) {
    const struct {
        std::string text;
        Nodes nodes;
    } cases[] = {
        {"", {}},
        {"<a/>", {"<a@1 #4 empty", "</a@1 #4"}},
        {"<a />", {"<a@1 #5 empty", "</a@1 #5"}},
        {"<x:a>", {"<x@1:a@3 #5"}},
        {"<!-- x<y -->", {"<!--@1 #1", "<y@7 #12"}},
        {"<a>1 > 0</a>", {"<a@1 #6", "</a@10 #9"}},
        {"lead text<a>", {"<lead@0 #0", "<a@10 #12"}},
        {"\xEF\xBB\xBF<a/>", {"<\xEF\xBB\xBF@0 #0", "<a@4 #7 empty", "</a@4 #7"}},
        {std::string("<a\0b>", 5), {std::string("<a\0b@1 #5", 9)}},
        {"<r>\n  <a x=\"1\">t</a>\n</r>\n", {"<r@1 #3", "<a@7 #15", "</a@18 #17", "</r@23 #22"}},
    };
    for (const auto& c : cases) EXPECT_EQ(Parsed(c.text).nodes(), c.nodes) << testing::PrintToString(c.text);

    xmltest::ExactBuffer text("xx<a>yy<b>zz");
    for (auto range : {std::make_pair(2, 4), std::make_pair(9, 2)}) {
        xml_node* first = xml_ParseXML(text.data(), range.first, range.second);
        EXPECT_EQ(xmltest::Render(text.data(), first), range.first == 2 ? Nodes{"<a@3 #3"} : Nodes{});
        xml_DestructXMLNodeList(first);
    }
    EXPECT_EQ(xml_ParseXML(nullptr, 0, 10), nullptr);
}

// Enough empty tags that the nodes take several allocations.
std::string ManyEmptyTags() {
    std::string text;
    for (int i = 0; i < 500; ++i) text += "<e/>";
    return text;
}

TEST(XmlParseXML, FailedAllocationGivesNoList) {
    const std::string text = ManyEmptyTags();
    int needed;
    {
        xmltest::ExactBuffer buffer(text);
        xmltest::FailAllocationsAfter counting;
        xml_node* first = xml_ParseXML(buffer.data(), 0, buffer.size());
        needed = xmltest::FailAllocationsAfter::made;
        EXPECT_EQ(xmltest::Render(buffer.data(), first).size(), 1000u);
        xml_DestructXMLNodeList(first);
    }
    ASSERT_GT(needed, 1);
    for (int granted = 0; granted < needed; ++granted) {
        SCOPED_TRACE(granted);
        xmltest::ExactBuffer buffer(text);
        xmltest::FailAllocationsAfter failing(granted);
        EXPECT_EQ(xml_ParseXML(buffer.data(), 0, buffer.size()), nullptr);
    }
}

// Nodes share allocations, yet any tail of a list, or lists joined, can still be released on their own.
TEST(XmlDestructXMLNodeList, ReleasesAnyTailAndJoinedLists) {
    const std::string text = ManyEmptyTags();
    xmltest::ExactBuffer buffer(text);
    xml_node* first = xml_ParseXML(buffer.data(), 0, buffer.size());
    const Nodes whole = xmltest::Render(buffer.data(), first);
    xml_node* cut = first;
    for (int i = 0; i < 700; ++i) cut = cut->next;
    xml_node* tail = cut->next;
    cut->next = nullptr;
    xml_DestructXMLNodeList(tail);
    EXPECT_EQ(xmltest::Render(buffer.data(), first), Nodes(whole.begin(), whole.begin() + 701));

    xmltest::ExactBuffer other(text);
    cut->next = xml_ParseXML(other.data(), 0, other.size());
    xml_DestructXMLNodeList(first->next);
    first->next = nullptr;
    xml_DestructXMLNodeList(first);
}

// Disjoint parts of one list are their holders' own: released on several threads at once, they still free
// each shared block once, after its last node (the sanitizers watch the blocks' counts).
TEST(XmlDestructXMLNodeList, PartsReleasedOnSeveralThreadsAtOnce) {
    const std::string text = ManyEmptyTags();
    xmltest::ExactBuffer buffer(text);
    for (int round = 0; round < 20; ++round) {
        std::vector<xml_node*> nodes;
        for (xml_node* n = xml_ParseXML(buffer.data(), 0, buffer.size()); n; n = n->next) nodes.push_back(n);
        ASSERT_EQ(1000u, nodes.size());
        std::vector<xml_node*> parts = {nodes[0]};
        for (size_t cut : {1, 2, 124, 125, 126, 500, 999}) {  // blocks of 125, 250, 500 and 125 nodes
            nodes[cut - 1]->next = nullptr;
            parts.push_back(nodes[cut]);
        }
        std::atomic<bool> go{false};
        std::vector<std::thread> threads;
        for (xml_node* part : parts)
            threads.emplace_back([&go, part] {
                while (!go) std::this_thread::yield();
                xml_DestructXMLNodeList(part);
            });
        go = true;
        for (auto& thread : threads) thread.join();
    }
}

// Matching keeps its stack in the nodes: nothing is allocated, so nothing can be left behind. A second run
// on a linked list gives the same.
TEST(XmlProcessXMLNodeList, ResultsAndLinks) {
    const struct {
        std::string text;
        int result;
        Nodes nodes;
    } cases[] = {
        {"", 0, {}},
        {"<a/>", 0, {"<a@1 #4 empty close=1", "</a@1 #4 open=0"}},
        {"<a></a>", 0, {"<a@1 #3 close=1", "</a@5 #4 open=0"}},
        {"<a>", -3, {"<a@1 #3"}},
        {"</a>", -1, {"</a@2 #1"}},
        {"<a></A>", -2, {"<a@1 #3", "</A@5 #4"}},
        {"<x:a></y:a>", 0, {"<x@1:a@3 #5 close=1", "</y@7:a@9 #6 open=0"}},
        {"<a><b></c></a>", -3, {"<a@1 #3", "<b@4 #6 parent=0", "</c@8 #7", "</a@12 #11"}},
        {"<!-- c --><a/>", -3, {"<!--@1 #10", "<a@11 #14 empty parent=0 close=2", "</a@11 #14 open=1"}},
        {"<r><a/><b/></r>",
         0,
         {"<r@1 #3 close=5", "<a@4 #7 empty parent=0 peer=3 close=2", "</a@4 #7 open=1",
          "<b@8 #11 empty parent=0 close=4", "</b@8 #11 open=3", "</r@13 #12 open=0"}},
        {"<a/>text<b/>",
         0,
         {"<a@1 #4 empty peer=2 close=1", "</a@1 #4 open=0", "<b@9 #12 empty close=3", "</b@9 #12 open=2"}},
        {"<a><b><c/></b><d></d></a>",
         0,
         {"<a@1 #3 close=7", "<b@4 #6 parent=0 peer=5 close=4", "<c@7 #10 empty parent=1 close=3",
          "</c@7 #10 open=2", "</b@12 #11 open=1", "<d@15 #17 parent=0 close=6", "</d@19 #18 open=5",
          "</a@23 #22 open=0"}},
        // The first pair of a stops at the difference; the nodes behind keep null links.
        {"<a></b><c></c>", -2, {"<a@1 #3", "</b@5 #4", "<c@8 #10", "</c@12 #11"}},
        {"<a>1 <2</a>", -3, {"<a@1 #3", "<2@6 #6 parent=0", "</a@9 #8"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        Parsed parsed(c.text);
        for (int run = 0; run < 2; ++run) {
            xmltest::FailAllocationsAfter counting;
            EXPECT_EQ(xml_ProcessXMLNodeList(parsed.first), c.result);
            for (xml_node* n = parsed.first; n; n = n->next) xml_ReadInnerXML(n, nullptr);
            EXPECT_EQ(counting.made, 0);
            EXPECT_EQ(parsed.nodes(), c.nodes);
        }
    }
}

// The text between the pair is read even where the tags inside do not balance; a closing node has nothing
// inside; with no ">" in the start tag its position is its first byte.
TEST(XmlReadInnerXML, FindsTheRawTextBetweenTheTags) {
    // Text, index of the node asked, and the result as "length@offset:bytes", offset "-" if not written.
    const std::string cases[][3] = {{"<a/>", "0", "0@4:"},
                                    {"<a></a>", "0", "0@3:"},
                                    {"<a><b>x</b></a>", "0", "8@3:<b>x</b>"},
                                    {"<a><b>x</b></a>", "1", "1@6:x"},
                                    {"<a><a>x</a>y</a>", "0", "9@3:<a>x</a>y"},
                                    {"<a>1 > 0</a>", "0", "2@6: 0"},
                                    {"<a>1 < 2</a>", "0", "5@3:1 < 2"},
                                    {"<a b=\"x>y\">t</a>", "0", "1@11:t"},
                                    {"<x:a>t</y:a>", "0", "1@5:t"},
                                    {"<a><b></a>", "1", "0@-"},
                                    {"<a><b></a>", "0", "0@-"},
                                    {"<a><b></c></a>", "0", "7@3:<b></c>"},
                                    {"<a><a></a>", "0", "0@-"},
                                    {"<a><a></a>", "1", "0@6:"},
                                    {"<a>", "0", "0@-"},
                                    {"<a>x</a>", "1", "0@-"},
                                    {"<a</a>", "0", "1@1:a"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c[0] + " node " + c[1]);
        Parsed parsed(c[0]);
        xml_node* node = parsed.at(std::stoul(c[1]));
        ASSERT_NE(node, nullptr);
        char* const untouched = reinterpret_cast<char*>(&parsed);
        for (int linked = 0; linked < 2; ++linked) {  // the tree links play no part
            char* inner = untouched;
            const int length = xml_ReadInnerXML(node, &inner);
            EXPECT_EQ(std::to_string(length) + "@" +
                          (inner != untouched ? std::to_string(inner - parsed.buffer.data()) + ":" +
                                                    std::string(inner, size_t(length))
                                              : "-"),
                      c[2]);
            EXPECT_LE(xml_ProcessXMLNodeList(parsed.first), 0);
        }
    }
    char* inner = nullptr;
    EXPECT_EQ(xml_ReadInnerXML(nullptr, &inner), 0);
    EXPECT_EQ(inner, nullptr);
    EXPECT_EQ(xml_ReadInnerXML(Parsed("<a>xy</a>").first, nullptr), 2);
}

// Lists that xml_ParseXML never makes: the walks must still end and take null names and links.
TEST(XmlNodeList, HandMadeListsEnd) {
    char text[] = "<a>";
    auto node = [&](int start) {
        return xml_node{text + 1, 1,       nullptr, 0,       start,   0,
                        text + 3, nullptr, nullptr, nullptr, nullptr, nullptr};
    };
    // Lists that loop back on themselves, with and without a lead-in.
    for (size_t size : {1u, 2u, 5u, 8u}) {
        for (size_t loopStart : {0u, 1u, 3u}) {
            std::vector<xml_node> nodes;
            for (size_t i = 0; i < size; ++i) nodes.push_back(node(i % 3 != 2 ? ~0 : 0));
            for (size_t i = 0; i < size; ++i) nodes[i].next = &nodes[i + 1 < size ? i + 1 : loopStart % size];
            const int result = xml_ProcessXMLNodeList(&nodes[0]);
            EXPECT_TRUE(result <= 0 && result >= -3) << loopStart << " " << size;
            for (xml_node& n : nodes) xml_ReadInnerXML(&n, nullptr);
        }
    }
    // A start node whose only follower is a closing node with no name at all.
    xml_node a = node(~0), nameless = node(0);
    nameless.name = nullptr;
    nameless.nameLength = 0;
    a.next = &nameless;
    char* inner = nullptr;
    EXPECT_EQ(xml_ReadInnerXML(&a, &inner), 0);
    EXPECT_EQ(inner, nullptr);
    EXPECT_EQ(xml_ProcessXMLNodeList(&a), -2);
    EXPECT_EQ(xml_ProcessXMLNodeList(nullptr), 0);
    xml_DestructXMLNodeList(nullptr);
}

// Null handles are no stack at all; a push that cannot allocate leaves the stack as it was.
TEST(XmlStack, LastInFirstOut) {
    void* stack = &stack;
    int a, b, c;
    xml_CreateStack(&stack);
    EXPECT_EQ(xml_PeekStack(&stack), nullptr);
    EXPECT_EQ(xml_PopStack(&stack), nullptr);
    xml_PushStack(&stack, &a);
    xml_PushStack(&stack, &b);
    EXPECT_EQ(xml_PeekStack(&stack), &b);
    EXPECT_EQ(xml_PopStack(&stack), &b);
    xml_PushStack(&stack, &c);
    {
        xmltest::FailAllocationsAfter failing(0);
        xml_PushStack(&stack, &b);
    }
    std::vector<void*> popped;
    while (void* v = xml_PopStack(&stack)) popped.push_back(v);
    EXPECT_EQ(popped, (std::vector<void*>{&c, &a}));
    EXPECT_EQ(stack, nullptr);
    for (int i = 0; i < 100; ++i) xml_PushStack(&stack, &a);
    xml_ClearStack(&stack);
    EXPECT_EQ(stack, nullptr);
    xml_CreateStack(nullptr);
    xml_PushStack(nullptr, &a);
    EXPECT_EQ(xml_PeekStack(nullptr), nullptr);
    EXPECT_EQ(xml_PopStack(nullptr), nullptr);
    xml_ClearStack(nullptr);
}

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
// announced size and a terminator. Cases stand side by side, parted by "|"; round trips run in XmlFuzz.
std::string Decode(const std::string& text) {
    ExactBuffer buffer(std::string(text.c_str(), text.size() + 1));
    const int length = xml_InPlaceXmlUnEscape(buffer.data());
    EXPECT_EQ(length, int(strlen(buffer.data())));
    return buffer.data();
}

std::string Encode(const char* text) {
    const int length = xml_XmlEscapeLength(text);
    ExactBuffer destination(std::string(size_t(length) + 1, '#'));
    EXPECT_EQ(xml_XmlEscape(destination.data(), text), length);
    EXPECT_EQ(destination.data()[length], '\0');
    return std::string(destination.data(), size_t(length));
}

TEST(XmlEntities, DecodeAndEncode) {
    EXPECT_EQ(Decode(""), "");
    EXPECT_EQ(
        Decode("&lt;&gt;&amp;&quot;&apos;|a &lt; b &amp;&amp; c|&amp;lt;|a&b|&LT;|&#60;|&unknown;|&&lt;|&lt"),
        "<>&\"'|a < b && c|&lt;|a&b|&LT;|&#60;|&unknown;|&<|&lt");
    EXPECT_EQ(Decode("\xff&gt;\x80|&lt;&"), "\xff>\x80|<&");
    EXPECT_EQ(Encode(""), "");
    EXPECT_EQ(Encode("plain|\"'&<>|&amp;|\x80\xff\x01"),
              "plain|&quot;&apos;&amp;&lt;&gt;|&amp;amp;|\x80\xff\x01");
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
