// The XML parser on any text: the node list, the tree links, the inner text and the attributes of every node,
// then the entities both ways. Every pointer handed out must lie inside the text, and the nodes and
// attributes must be those that the plain cuts of the exported splitters give.
#include "msplatform/xmlParser.h"

#include <vector>

#include "fuzz.h"

namespace {

// The node list as the plain cuts at "<", ">", " " and ":" give it, made step by step with the exported
// splitter: the parser's own single pass must give the same nodes.
std::vector<xml_node> ReferenceNodes(char* text, int start, int end) {
    std::vector<xml_node> nodes;
    char lt[] = "<", gt[] = ">", blank[] = " ", colon[] = ":";
    parser_result* candidates = xml_ParseString(text, start, end, lt, 1);
    for (parser_field* c = candidates->first; c; c = c->next) {
        if (c->length < 1 || c->text[0] == '?') continue;
        const bool closing = c->text[0] == '/';
        bool empty = false;
        parser_result* pieces = closing ? xml_ParseString(c->text, 1, c->length, gt, 1)
                                        : xml_ParseString(c->text, 0, c->length, gt, 1);
        parser_field* piece = pieces->first;
        if (!closing && piece->length > 0 && piece->text[piece->length - 1] == '/') empty = true;
        char* position = closing ? c->text : pieces->last->text;
        parser_result* words = xml_ParseString(piece->text, 0, piece->length, blank, 1);
        parser_result* parts = xml_ParseString(words->first->text, 0, words->first->length, colon, 1);
        xml_node node{};
        parser_field* name = parts->count > 1 ? parts->first->next : parts->first;
        if (parts->count > 1) {
            node.prefix = parts->first->text;
            node.prefixLength = parts->first->length;
        }
        node.name = name->text;
        node.nameLength = name->length;
        for (int i = 1; i < node.nameLength; ++i) {
            const char b = node.name[i];
            if (b == '/' || b == '\r' || b == '\n') {
                empty = empty || b == '/';
                node.nameLength = i;
                break;
            }
        }
        xml_DestructParserResults(parts);
        xml_DestructParserResults(words);
        xml_DestructParserResults(pieces);
        if (node.nameLength == 0) continue;
        node.isStart = closing ? 0 : ~0;
        node.isEmpty = empty ? ~0 : 0;
        node.position = position;
        nodes.push_back(node);
        if (empty) {
            node.isStart = 0;
            node.isEmpty = 0;
            nodes.push_back(node);
        }
    }
    xml_DestructParserResults(candidates);
    return nodes;
}

void CompareWithReference(xml_node* first, char* text, int start, int end) {
    const std::vector<xml_node> expected = ReferenceNodes(text, start, end);
    size_t i = 0;
    for (xml_node* n = first; n; n = n->next, ++i) {
        FUZZ_CHECK(i < expected.size());
        const xml_node& e = expected[i];
        FUZZ_CHECK(n->name == e.name && n->nameLength == e.nameLength);
        FUZZ_CHECK(n->prefix == e.prefix && n->prefixLength == e.prefixLength);
        FUZZ_CHECK(n->isStart == e.isStart && n->isEmpty == e.isEmpty && n->position == e.position);
    }
    FUZZ_CHECK(i == expected.size());
}

// The attributes as the quote-aware cuts at " ", ":" and "=" give them, last attribute first.
std::vector<xml_attribute> ReferenceAttributes(xml_node* node) {
    char* lt = node->position - 1;
    while (*lt != '<') --lt;
    char* tag = lt + 1;
    const int length = static_cast<int>(node->position - tag) - (node->isEmpty ? 2 : 1);
    char blank[] = " ", colon[] = ":", equals[] = "=";
    std::vector<xml_attribute> records;
    parser_result* tokens = xml_ParseStringAdv(tag, 0, length, blank, 1);
    for (parser_field* t = tokens->first->next; t; t = t->next) {
        xml_attribute a{};
        parser_result* parts = xml_ParseStringAdv(t->text, 0, t->length, colon, 1);
        int restStart = 0;
        if (parts->count > 1) {
            a.prefix = parts->first->text;
            a.prefixLength = parts->first->length;
            restStart = parts->first->length + 1;
        }
        parser_result* sides = xml_ParseStringAdv(t->text, restStart, t->length - restStart, equals, 1);
        a.name = sides->first->text;
        a.nameLength = sides->first->length;
        a.value = sides->last->text;
        a.valueLength = sides->last->length;
        xml_DestructParserResults(sides);
        xml_DestructParserResults(parts);
        records.insert(records.begin(), a);
    }
    xml_DestructParserResults(tokens);
    return records;
}

bool Inside(const char* p, int length, const char* begin, const char* end) {
    return length >= 0 && p >= begin && p + length <= end;
}

void CheckAttributes(xml_node* node, const char* begin, const char* end) {
    // A node made from text in front of the first "<" has no tag to read again: not a legal argument.
    const char* lt = node->position;
    while (lt > begin && lt[-1] != '<') --lt;
    if (lt == begin) return;
    xml_attribute* attributes = xml_GetXMLAttributes(node);
    const std::vector<xml_attribute> expected = ReferenceAttributes(node);
    size_t i = 0;
    for (xml_attribute* a = attributes; a; a = a->next, ++i) {
        FUZZ_CHECK(Inside(a->name, a->nameLength, begin, end));
        FUZZ_CHECK(Inside(a->value, a->valueLength, begin, end));
        FUZZ_CHECK(a->prefix ? Inside(a->prefix, a->prefixLength, begin, end) : a->prefixLength == 0);
        FUZZ_CHECK(i < expected.size());
        const xml_attribute& e = expected[i];
        FUZZ_CHECK(a->name == e.name && a->nameLength == e.nameLength);
        FUZZ_CHECK(a->prefix == e.prefix && a->prefixLength == e.prefixLength);
        FUZZ_CHECK(a->value == e.value && a->valueLength == e.valueLength);
    }
    FUZZ_CHECK(i == expected.size());
    xml_DestructXMLAttributeList(attributes);
}

// Escaping and unescaping are each other's inverse; unescaping never grows a text.
void CheckEntities(const uint8_t* data, size_t size) {
    mspfuzz::Block<char> text = mspfuzz::Terminated(data, size);
    const int length = static_cast<int>(strlen(text.get()));
    const int escapedLength = xml_XmlEscapeLength(text.get());
    FUZZ_CHECK(escapedLength >= length);
    mspfuzz::Block<char> escaped = mspfuzz::Alloc<char>(static_cast<size_t>(escapedLength) + 1);
    FUZZ_CHECK(xml_XmlEscape(escaped.get(), text.get()) == escapedLength);
    FUZZ_CHECK(xml_InPlaceXmlUnEscape(escaped.get()) == length);
    FUZZ_CHECK(memcmp(escaped.get(), text.get(), static_cast<size_t>(length) + 1) == 0);

    const int unescaped = xml_InPlaceXmlUnEscape(text.get());
    FUZZ_CHECK(unescaped >= 0 && unescaped <= length);
    FUZZ_CHECK(text[static_cast<size_t>(unescaped)] == '\0');
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 1 << 20) return 0;
    mspfuzz::Block<char> text = mspfuzz::Exact(data, size);
    const char* begin = text.get();
    const char* end = begin + size;
    xml_node* first = xml_ParseXML(text.get(), 0, static_cast<int>(size));
    CompareWithReference(first, text.get(), 0, static_cast<int>(size));
    for (xml_node* n = first; n; n = n->next) {
        FUZZ_CHECK(n->nameLength > 0 && Inside(n->name, n->nameLength, begin, end));
        FUZZ_CHECK(n->prefix ? Inside(n->prefix, n->prefixLength, begin, end) : n->prefixLength == 0);
        FUZZ_CHECK(n->position >= begin && n->position <= end);
    }
    const int verdict = xml_ProcessXMLNodeList(first);
    FUZZ_CHECK(verdict <= 0 && verdict >= -3);
    for (xml_node* n = first; n; n = n->next) {
        if (n->closingTag) FUZZ_CHECK(!n->closingTag->isStart && n->closingTag->startingTag == n);
        if (n->parent) FUZZ_CHECK(n->parent->isStart);
        char* inner = nullptr;
        const int innerLength = xml_ReadInnerXML(n, &inner);
        FUZZ_CHECK(innerLength >= 0);
        if (innerLength > 0) FUZZ_CHECK(Inside(inner, innerLength, begin, end));
        if (n->isStart) CheckAttributes(n, begin, end);
    }
    xml_DestructXMLNodeList(first);

    // A sub-range reads nothing outside itself.
    const int from = static_cast<int>(size / 3), to = static_cast<int>(size - size / 4);
    xml_node* ranged = xml_ParseXML(text.get(), from, to);
    CompareWithReference(ranged, text.get(), from, to);
    for (xml_node* n = ranged; n; n = n->next) {
        FUZZ_CHECK(Inside(n->name, n->nameLength, begin + from, begin + to));
        FUZZ_CHECK(n->position >= begin + from && n->position <= begin + to);
    }
    xml_DestructXMLNodeList(ranged);
    CheckEntities(data, size);
    return 0;
}
