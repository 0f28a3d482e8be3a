// The XML parser on any text: the node list, the tree links, the inner text and the attributes of every node,
// then the entities both ways. Every pointer handed out must lie inside the text, and the nodes and
// attributes must be those that the models of the parser's rules give (tests/xml/xmlReference.h).
#include "msplatform/xmlParser.h"

#include <vector>

#include "fuzz.h"
#include "xml/xmlReference.h"

namespace {

void CompareWithReference(xml_node* first, char* text, int start, int end) {
    const std::vector<xml_node> expected = xmlref::ReferenceNodes(text, start, end);
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

bool Inside(const char* p, int length, const char* begin, const char* end) {
    return length >= 0 && p >= begin && p + length <= end;
}

void CheckAttributes(xml_node* node, const char* begin, const char* end) {
    // A node made from text in front of the first "<" has no tag to read again: not a legal argument.
    const char* lt = node->position;
    while (lt > begin && lt[-1] != '<') --lt;
    if (lt == begin) return;
    xml_attribute* attributes = xml_GetXMLAttributes(node);
    const std::vector<xml_attribute> expected = xmlref::ReferenceAttributes(node);
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
