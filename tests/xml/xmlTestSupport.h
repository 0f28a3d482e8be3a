// Helpers for the XML parser's tests: copies of texts in exactly sized heap buffers (so that the address
// sanitizer sees any read past them) and whole results turned into plain values that compare at once.
#pragma once

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

// Lets the parser's next `granted` allocations succeed and fails all later ones, for the scope.
class FailAllocationsAfter {
public:
    explicit FailAllocationsAfter(int granted) : saved_(xmlparser::allocate) {
        remaining() = granted;
        xmlparser::allocate = [](size_t size) -> void* { return remaining()-- > 0 ? malloc(size) : nullptr; };
    }
    ~FailAllocationsAfter() { xmlparser::allocate = saved_; }
    FailAllocationsAfter(const FailAllocationsAfter&) = delete;
    FailAllocationsAfter& operator=(const FailAllocationsAfter&) = delete;

private:
    static int& remaining() {
        static int count = 0;
        return count;
    }
    void* (*saved_)(size_t);
};

}  // namespace xmltest
