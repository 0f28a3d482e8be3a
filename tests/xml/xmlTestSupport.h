// Helpers for the XML parser's tests: texts in exactly sized heap blocks (so that the address sanitizer sees
// any read past them) and whole results written out as plain values.
#pragma once

#include <limits.h>
#include <string.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "msplatform/xmlParser.h"
#include "xml/internal.h"

namespace xmltest {

// A copy of some bytes in a heap block of exactly their size, without a terminator.
class ExactBuffer {
public:
    explicit ExactBuffer(const std::string& bytes) : data_(new char[bytes.size()]), size_(int(bytes.size())) {
        memcpy(data_.get(), bytes.data(), bytes.size());
    }
    char* data() const { return data_.get(); }
    int size() const { return size_; }

private:
    std::unique_ptr<char[]> data_;
    int size_;
};

// The pieces of a split as (offset from the buffer, bytes); checks count and last, and releases the result.
using Pieces = std::vector<std::pair<long, std::string>>;
inline Pieces ToPieces(const char* base, parser_result* result) {
    Pieces pieces;
    const parser_field* last = nullptr;
    for (const parser_field* f = result->first; f; last = f, f = f->next)
        pieces.emplace_back(f->text - base, std::string(f->text, size_t(f->length)));
    EXPECT_EQ(result->count, int(pieces.size()));
    EXPECT_TRUE(!last || result->last == last);
    xml_DestructParserResults(result);
    return pieces;
}

// A node list, one line a node, offsets from the buffer: "<" start or "</" closing, "prefix@offset:" if
// there is a prefix, "name@offset", " #position", " empty", then the tree links that are set, as node
// indexes ("?" outside the list): " parent=", " peer=", " close=" (closingTag), " open=" (startingTag).
using Nodes = std::vector<std::string>;
inline Nodes Render(const char* base, const xml_node* first) {
    std::vector<const xml_node*> all;
    for (const xml_node* n = first; n; n = n->next) all.push_back(n);
    auto index = [&](const char* key, const xml_node* target) {
        if (!target) return std::string();
        for (size_t i = 0; i < all.size(); ++i)
            if (all[i] == target) return key + std::to_string(i);
        return key + std::string("?");
    };
    auto at = [&](const char* p, int length) {
        return std::string(p, size_t(length)) + "@" + std::to_string(p - base);
    };
    Nodes lines;
    for (const xml_node* n : all) {
        std::string line = n->isStart ? "<" : "</";
        if (n->prefix) line += at(n->prefix, n->prefixLength) + ":";
        line += at(n->name, n->nameLength) + " #" + std::to_string(n->position - base);
        if (n->isEmpty) line += " empty";
        if (n->isStart != 0 && n->isStart != ~0) line += " isStart=" + std::to_string(n->isStart);
        if (n->isEmpty != 0 && n->isEmpty != ~0) line += " isEmpty=" + std::to_string(n->isEmpty);
        if (!n->prefix && n->prefixLength != 0) line += " prefixLength=" + std::to_string(n->prefixLength);
        lines.push_back(line + index(" parent=", n->parent) + index(" peer=", n->peer) +
                        index(" close=", n->closingTag) + index(" open=", n->startingTag));
    }
    return lines;
}

// An attribute list, one line a record: "prefix@offset:" if there is a prefix, "name@offset | value@offset".
using Attributes = std::vector<std::string>;
inline Attributes Render(const char* base, const xml_attribute* first) {
    auto at = [&](const char* p, int length) {
        return std::string(p, size_t(length)) + "@" + std::to_string(p - base);
    };
    Attributes lines;
    for (const xml_attribute* a = first; a; a = a->next) {
        std::string line = a->prefix ? at(a->prefix, a->prefixLength) + ":" : "";
        if (!a->prefix && a->prefixLength != 0)
            line += "prefixLength=" + std::to_string(a->prefixLength) + " ";
        lines.push_back(line + at(a->name, a->nameLength) + " | " + at(a->value, a->valueLength));
    }
    return lines;
}

// A document parsed from an exactly sized copy, kept with its nodes for the scope.
struct Parsed {
    explicit Parsed(const std::string& text)
        : buffer(text), first(xml_ParseXML(buffer.data(), 0, buffer.size())) {}
    Parsed(const Parsed&) = delete;
    ~Parsed() { xml_DestructXMLNodeList(first); }
    xml_node* at(size_t index) const {
        xml_node* n = first;
        while (n && index--) n = n->next;
        return n;
    }
    Nodes nodes() const { return Render(buffer.data(), first); }

    ExactBuffer buffer;
    xml_node* first;
};

// Counts the parser's allocations for the scope in `made`; all after the first `granted` fail.
struct FailAllocationsAfter {
    explicit FailAllocationsAfter(int granted = INT_MAX) {
        remaining = granted;
        made = 0;
        xmlparser::allocate = [](size_t size) { return ++made, remaining-- > 0 ? malloc(size) : nullptr; };
    }
    ~FailAllocationsAfter() { xmlparser::allocate = malloc; }
    static inline int made = 0, remaining = 0;
};

}  // namespace xmltest
