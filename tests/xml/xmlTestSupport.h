// Helpers for the XML parser's tests: copies of texts in exactly sized heap buffers (so that the address
// sanitizer sees any read past them) and whole results turned into plain values that compare at once.
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
    explicit ExactBuffer(const std::string& bytes) : size_(static_cast<int>(bytes.size())) {
        data_.reset(new char[bytes.size()]);
        if (!bytes.empty()) memcpy(data_.get(), bytes.data(), bytes.size());
    }
    char* data() const { return data_.get(); }
    int size() const { return size_; }

private:
    std::unique_ptr<char[]> data_;
    int size_;
};

// The pieces of a split as (offset from the buffer, bytes).
using Pieces = std::vector<std::pair<long, std::string>>;

// Turns a result into its pieces, checks count and last against them, and releases it.
inline Pieces ToPieces(const char* base, parser_result* result) {
    Pieces pieces;
    if (!result) {
        ADD_FAILURE() << "null result";
        return pieces;
    }
    const parser_field* last = nullptr;
    for (const parser_field* f = result->first; f; f = f->next) {
        pieces.emplace_back(f->text - base, std::string(f->text, static_cast<size_t>(f->length)));
        last = f;
    }
    EXPECT_EQ(result->count, static_cast<int>(pieces.size()));
    if (last) {
        EXPECT_EQ(result->last, last);
    }
    xml_DestructParserResults(result);
    return pieces;
}

inline Pieces SplitBlind(char* text, int start, int end, const std::string& delimiter) {
    ExactBuffer d(delimiter);
    return ToPieces(text, xml_ParseString(text, start, end, d.data(), d.size()));
}

inline Pieces SplitAdv(char* text, int start, int length, const std::string& delimiter) {
    ExactBuffer d(delimiter);
    return ToPieces(text, xml_ParseStringAdv(text, start, length, d.data(), d.size()));
}

inline Pieces SplitBlind(const std::string& text, const std::string& delimiter) {
    ExactBuffer t(text);
    return SplitBlind(t.data(), 0, t.size(), delimiter);
}

inline Pieces SplitAdv(const std::string& text, const std::string& delimiter) {
    ExactBuffer t(text);
    return SplitAdv(t.data(), 0, t.size(), delimiter);
}

// A node list written out whole, one line a node, offsets counted from the buffer:
//   "<" start or "</" closing, then "prefix@offset:" if the node has a prefix, "name@offset", " #position",
//   " empty" if isEmpty, then each tree link that is set, as the index of the node it points to:
//   " parent=", " peer=", " close=" (closingTag), " open=" (startingTag). A link to a node outside the list
//   shows as "?".
using Nodes = std::vector<std::string>;

inline Nodes Render(const char* base, const xml_node* first) {
    std::vector<const xml_node*> all;
    for (const xml_node* n = first; n; n = n->next) all.push_back(n);
    auto index = [&](const xml_node* target) {
        for (size_t i = 0; i < all.size(); ++i)
            if (all[i] == target) return std::to_string(i);
        return std::string("?");
    };
    Nodes lines;
    for (const xml_node* n : all) {
        std::string line = n->isStart ? "<" : "</";
        if (n->prefix)
            line += std::string(n->prefix, static_cast<size_t>(n->prefixLength)) + "@" +
                    std::to_string(n->prefix - base) + ":";
        line +=
            std::string(n->name, static_cast<size_t>(n->nameLength)) + "@" + std::to_string(n->name - base);
        line += " #" + std::to_string(n->position - base);
        if (n->isEmpty) line += " empty";
        if (n->isStart != 0 && n->isStart != ~0) line += " isStart=" + std::to_string(n->isStart);
        if (n->isEmpty != 0 && n->isEmpty != ~0) line += " isEmpty=" + std::to_string(n->isEmpty);
        if (!n->prefix && n->prefixLength != 0) line += " prefixLength=" + std::to_string(n->prefixLength);
        if (n->parent) line += " parent=" + index(n->parent);
        if (n->peer) line += " peer=" + index(n->peer);
        if (n->closingTag) line += " close=" + index(n->closingTag);
        if (n->startingTag) line += " open=" + index(n->startingTag);
        lines.push_back(line);
    }
    return lines;
}

// An attribute list written out whole, one line a record, offsets counted from the buffer:
//   "prefix@offset:" if the record has a prefix, "name@offset", " | ", "value@offset".
using Attributes = std::vector<std::string>;

inline Attributes Render(const char* base, const xml_attribute* first) {
    Attributes lines;
    for (const xml_attribute* a = first; a; a = a->next) {
        std::string line;
        if (a->prefix)
            line += std::string(a->prefix, static_cast<size_t>(a->prefixLength)) + "@" +
                    std::to_string(a->prefix - base) + ":";
        else if (a->prefixLength != 0)
            line += "prefixLength=" + std::to_string(a->prefixLength) + " ";
        line +=
            std::string(a->name, static_cast<size_t>(a->nameLength)) + "@" + std::to_string(a->name - base);
        line += " | " + std::string(a->value, static_cast<size_t>(a->valueLength)) + "@" +
                std::to_string(a->value - base);
        lines.push_back(line);
    }
    return lines;
}

// A document parsed from an exactly sized copy, kept with its nodes for the scope.
class Parsed {
public:
    explicit Parsed(const std::string& text) : buffer_(text) {
        first_ = xml_ParseXML(buffer_.data(), 0, buffer_.size());
    }
    ~Parsed() { xml_DestructXMLNodeList(first_); }
    Parsed(const Parsed&) = delete;
    Parsed& operator=(const Parsed&) = delete;

    xml_node* first() const { return first_; }
    xml_node* at(size_t index) const {
        xml_node* n = first_;
        while (n && index--) n = n->next;
        return n;
    }
    const char* base() const { return buffer_.data(); }
    Nodes nodes() const { return Render(buffer_.data(), first_); }

private:
    ExactBuffer buffer_;
    xml_node* first_;
};

// Counts the parser's allocations for the scope; all after the first `granted` fail.
class FailAllocationsAfter {
public:
    explicit FailAllocationsAfter(int granted = INT_MAX) : saved_(xmlparser::allocate) {
        remaining() = granted;
        made() = 0;
        xmlparser::allocate = [](size_t size) -> void* {
            ++made();
            return remaining()-- > 0 ? malloc(size) : nullptr;
        };
    }
    ~FailAllocationsAfter() { xmlparser::allocate = saved_; }
    FailAllocationsAfter(const FailAllocationsAfter&) = delete;
    FailAllocationsAfter& operator=(const FailAllocationsAfter&) = delete;

    static int& made() {
        static int n = 0;
        return n;
    }

private:
    static int& remaining() {
        static int count = 0;
        return count;
    }
    void* (*saved_)(size_t);
};
using CountAllocations = FailAllocationsAfter;

}  // namespace xmltest
