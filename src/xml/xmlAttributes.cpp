// Attributes of a tag, read again from the text on demand, and the five predefined entities both ways.
#include "msplatform/xmlParser.h"

#include <limits.h>
#include <stdlib.h>
#include <string.h>

#include "xml/internal.h"

namespace {

struct Entity {
    const char* text;
    int length;
    char character;
};

// In the order the decoder tries them.
const Entity kEntities[] = {
    {"&quot;", 6, '"'}, {"&apos;", 6, '\''}, {"&amp;", 5, '&'}, {"&lt;", 4, '<'}, {"&gt;", 4, '>'},
};

const Entity* entityFor(unsigned char c) {
    switch (c) {
        case '"':
            return &kEntities[0];
        case '\'':
            return &kEntities[1];
        case '&':
            return &kEntities[2];
        case '<':
            return &kEntities[3];
        case '>':
            return &kEntities[4];
        default:
            return nullptr;
    }
}

// Fills a record from one token: an optional prefix up to the first ":" outside quotes, then name and value
// as the first and the last piece of the rest cut at "=". Each cut starts with no quote character.
void readToken(xml_attribute* record, char* token, int length) {
    xmlparser::Splitter atColon(token, 0, length, ":", 1, true);
    char* piece;
    int pieceLength;
    atColon.next(piece, pieceLength);
    int restStart = 0;
    record->prefix = nullptr;
    record->prefixLength = 0;
    char* second;
    int secondLength;
    if (atColon.next(second, secondLength)) {
        record->prefix = piece;
        record->prefixLength = pieceLength;
        restStart = pieceLength + 1;
    }
    xmlparser::Splitter atEquals(token, restStart, length, "=", 1, true);
    atEquals.next(record->name, record->nameLength);
    record->value = record->name;
    record->valueLength = record->nameLength;
    while (atEquals.next(piece, pieceLength)) {
        record->value = piece;
        record->valueLength = pieceLength;
    }
}

}  // namespace

xml_attribute* xml_GetXMLAttributes(xml_node* node) {
    if (!node || !node->position) return nullptr;
    // The tag text starts behind the nearest "<" in front of the position; there is one for every node but
    // one made from text in front of the document's first "<".
    char* lt = node->position - 1;
    while (*lt != '<') --lt;
    char* tag = lt + 1;
    const long long length = (node->position - tag) - (node->isEmpty ? 2 : 1);

    xmlparser::Splitter tokens(tag, 0, length, " ", 1, true);
    char* token;
    int tokenLength;
    tokens.next(token, tokenLength);  // the tag's own name, with whatever hangs on it
    xml_attribute* head = nullptr;
    while (tokens.next(token, tokenLength)) {
        xml_attribute* record = static_cast<xml_attribute*>(xmlparser::allocate(sizeof(xml_attribute)));
        if (!record) {
            // A tag with attributes missing would read as another tag: give none.
            xml_DestructXMLAttributeList(head);
            return nullptr;
        }
        readToken(record, token, tokenLength);
        record->next = head;
        head = record;
    }
    return head;
}

void xml_DestructXMLAttributeList(xml_attribute* first) {
    while (first) {
        xml_attribute* next = first->next;
        ::free(first);
        first = next;
    }
}

int xml_InPlaceXmlUnEscape(char* text) {
    if (!text) return 0;
    char* read = ::strchr(text, '&');
    if (!read) return static_cast<int>(::strlen(text));
    char* write = read;
    while (*read) {
        if (*read == '&') {
            const Entity* found = nullptr;
            for (const Entity& e : kEntities) {
                // strncmp stops at the terminator, so a short tail is never read past.
                if (::strncmp(read, e.text, static_cast<size_t>(e.length)) == 0) {
                    found = &e;
                    break;
                }
            }
            if (found) {
                *write++ = found->character;
                read += found->length;
                continue;
            }
        }
        *write++ = *read++;
    }
    *write = '\0';
    return static_cast<int>(write - text);
}

int xml_XmlEscapeLength(char const* text) {
    if (!text) return 0;
    // Wide enough for any text in memory: on the 32-bit target 360 MB of quotes would overflow an int.
    unsigned long long length = 0;
    for (const unsigned char* p = reinterpret_cast<const unsigned char*>(text); *p; ++p) {
        const Entity* e = entityFor(*p);
        length += e ? static_cast<unsigned int>(e->length) : 1u;
    }
    return length > static_cast<unsigned long long>(INT_MAX) ? INT_MAX : static_cast<int>(length);
}

int xml_XmlEscape(char* destination, char const* text) {
    if (!destination) return 0;
    char* write = destination;
    if (text) {
        for (const unsigned char* p = reinterpret_cast<const unsigned char*>(text); *p; ++p) {
            if (const Entity* e = entityFor(*p)) {
                ::memcpy(write, e->text, static_cast<size_t>(e->length));
                write += e->length;
            } else {
                *write++ = static_cast<char>(*p);
            }
        }
    }
    *write = '\0';
    return static_cast<int>(write - destination);
}
