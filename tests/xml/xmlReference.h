// What the parser must give, rule by rule, with no call into it: the splitters' pieces, the node list, the
// links and result of the matching, the inner text and a tag's attributes.
#pragma once

#include <string.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "msplatform/xmlParser.h"

namespace xmlref {

using Piece = std::pair<char*, int>;

// buffer[start, limit) cut at the delimiter; quote-aware: not inside the first kind of quote met, which the
// same byte turns on and off, its closing byte still being tested. A delimiter of no bytes cuts nothing.
inline std::vector<Piece> Split(char* buffer, long long start, long long limit, const char* delimiter,
                                int length, bool quoteAware) {
    std::vector<Piece> pieces;
    long long at = start, from = start;
    int quote = 0;
    bool inside = false;
    while (at < limit) {
        const int byte = static_cast<unsigned char>(buffer[at]);
        if (quoteAware && !quote && (byte == '"' || byte == '\''))
            quote = byte, inside = true;
        else if (quoteAware && quote && byte == quote)
            inside = !inside;
        if (!inside && length >= 1 && at + length <= limit &&
            memcmp(buffer + at, delimiter, size_t(length)) == 0)
            pieces.emplace_back(buffer + from, int(at - from)), from = at += length;
        else
            ++at;
    }
    pieces.emplace_back(buffer + from, int(at - from));
    return pieces;
}

inline std::vector<xml_node> ReferenceNodes(char* text, int start, int end) {
    std::vector<xml_node> nodes;
    for (Piece c : Split(text, start, end, "<", 1, false)) {
        if (c.second < 1 || c.first[0] == '?') continue;
        const bool closing = c.first[0] == '/';
        const std::vector<Piece> pieces = Split(c.first, closing, c.second, ">", 1, false);
        const Piece piece = pieces.front();
        bool empty = !closing && piece.second > 0 && piece.first[piece.second - 1] == '/';
        const Piece word = Split(piece.first, 0, piece.second, " ", 1, false).front();
        const std::vector<Piece> parts = Split(word.first, 0, word.second, ":", 1, false);
        xml_node node{};
        if (parts.size() > 1) node.prefix = parts[0].first, node.prefixLength = parts[0].second;
        node.name = parts[parts.size() > 1].first, node.nameLength = parts[parts.size() > 1].second;
        for (int i = 1; i < node.nameLength; ++i)  // the first byte is never tested
            if (strchr("/\r\n", node.name[i]) && node.name[i])
                empty = empty || node.name[i] == '/', node.nameLength = i;
        if (node.nameLength == 0) continue;
        node.isStart = closing ? 0 : ~0, node.isEmpty = empty ? ~0 : 0;
        node.position = closing ? c.first : pieces.back().first;
        nodes.push_back(node);
        if (empty) node.isStart = node.isEmpty = 0, nodes.push_back(node);
    }
    return nodes;
}

// The first of a list of nodes, linked up in place.
inline xml_node* First(std::vector<xml_node>& nodes) {
    for (size_t i = 0; i + 1 < nodes.size(); ++i) nodes[i].next = &nodes[i + 1];
    return nodes.empty() ? nullptr : &nodes[0];
}

inline bool SameName(const xml_node* a, const xml_node* b) {
    return a->nameLength == b->nameLength && memcmp(a->name, b->name, size_t(a->nameLength)) == 0;
}

// Matching over a stack: sets the links and gives the result.
inline int ReferenceProcess(xml_node* first) {
    std::vector<xml_node*> open;
    for (xml_node* n = first; n; n = n->next) {
        if (n->isStart) {
            n->parent = open.empty() ? nullptr : open.back();
            open.push_back(n);
            continue;
        }
        if (open.empty()) return -1;
        xml_node* start = open.back();
        open.pop_back();
        if (!SameName(start, n)) return open.empty() ? -2 : -3;
        if (n->next && n->next->isStart) start->peer = n->next;
        n->startingTag = start, start->closingTag = n;
    }
    return open.empty() ? 0 : -3;
}

// xml_ReadInnerXML: the length, and where the inner text starts (null when nothing is written). Only the pop
// that empties the stack, which holds the given node at its bottom, can match.
inline std::pair<int, char*> ReferenceInner(xml_node* node) {
    int open = node->isStart ? 1 : 0;
    for (xml_node* n = node->next; n && open > 0; n = n->next)
        if ((open += n->isStart ? 1 : -1) == 0 && SameName(node, n))
            return {std::max<int>(0, int(n->position - node->position - 1)), node->position};
    return {0, nullptr};
}

// A tag's attributes, the last one first (next links left null).
inline std::vector<xml_attribute> ReferenceAttributes(xml_node* node) {
    char* tag = node->position;
    while (tag[-1] != '<') --tag;
    const long long length = (node->position - tag) - (node->isEmpty ? 2 : 1);
    std::vector<xml_attribute> records;
    const std::vector<Piece> tokens = Split(tag, 0, length, " ", 1, true);
    for (size_t i = 1; i < tokens.size(); ++i) {
        const Piece t = tokens[i];
        const std::vector<Piece> parts = Split(t.first, 0, t.second, ":", 1, true);
        xml_attribute a{};
        if (parts.size() > 1) a.prefix = parts[0].first, a.prefixLength = parts[0].second;
        const int rest = parts.size() > 1 ? parts[0].second + 1 : 0;
        const std::vector<Piece> sides = Split(t.first, rest, t.second, "=", 1, true);
        a.name = sides.front().first, a.nameLength = sides.front().second;
        a.value = sides.back().first, a.valueLength = sides.back().second;
        records.insert(records.begin(), a);
    }
    return records;
}

}  // namespace xmlref
