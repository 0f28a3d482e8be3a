// What the parser must give, made step by step from the exported splitters' plain cuts: the node list
// (cuts at "<", ">", " ", ":") and a tag's attributes (quote-aware cuts at " ", ":", "=", last attribute
// first). The xml tests and the xml fuzz target compare the parser against these. Records come unlinked.
#pragma once

#include <vector>

#include "msplatform/xmlParser.h"

namespace xmlref {

inline std::vector<xml_node> ReferenceNodes(char* text, int start, int end) {
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

// A tag's attributes.
inline std::vector<xml_attribute> ReferenceAttributes(xml_node* node) {
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

}  // namespace xmlref
