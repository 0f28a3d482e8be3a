// The XML parser on any text: the node list, the tree links, the inner text and the attributes of every node,
// then the entities both ways. Every pointer handed out must lie inside the text.
#include "msplatform/xmlParser.h"

#include "fuzz.h"

namespace {

bool Inside(const char* p, int length, const char* begin, const char* end) {
    return length >= 0 && p >= begin && p + length <= end;
}

void CheckAttributes(xml_node* node, const char* begin, const char* end) {
    // A node made from text in front of the first "<" has no tag to read again: not a legal argument.
    const char* lt = node->position;
    while (lt > begin && lt[-1] != '<') --lt;
    if (lt == begin) return;
    xml_attribute* attributes = xml_GetXMLAttributes(node);
    for (xml_attribute* a = attributes; a; a = a->next) {
        FUZZ_CHECK(Inside(a->name, a->nameLength, begin, end));
        FUZZ_CHECK(Inside(a->value, a->valueLength, begin, end));
        FUZZ_CHECK(a->prefix ? Inside(a->prefix, a->prefixLength, begin, end) : a->prefixLength == 0);
    }
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
    CheckEntities(data, size);
    return 0;
}
