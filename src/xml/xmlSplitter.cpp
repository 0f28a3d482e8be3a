// The delimiter splitter: cuts a range of the caller's buffer into pointer-and-length pieces.
#include "msplatform/xmlParser.h"

#include <stdlib.h>
#include <string.h>

#include "xml/internal.h"

namespace xmlparser {

void* (*allocate)(size_t size) = ::malloc;

bool Splitter::delimiterAt(long long position) const {
    if (position + delimiterLength_ > limit_) return false;
    return ::memcmp(buffer_ + position, delimiter_, static_cast<size_t>(delimiterLength_)) == 0;
}

bool Splitter::next(char*& text, int& length) {
    if (done_) return false;
    const long long fieldStart = position_;
    text = const_cast<char*>(buffer_) + fieldStart;
    if (delimiterLength_ >= 1) {
        if (!quoteAware_ && delimiterLength_ == 1) {
            // The common case, one blind byte: let memchr find it.
            if (position_ < limit_) {
                const void* hit =
                    ::memchr(buffer_ + position_, delimiter_[0], static_cast<size_t>(limit_ - position_));
                if (hit) {
                    const long long at = static_cast<const char*>(hit) - buffer_;
                    length = static_cast<int>(at - fieldStart);
                    position_ = at + 1;
                    return true;
                }
                position_ = limit_;
            }
        } else {
            for (; position_ < limit_; ++position_) {
                if (quoteAware_) {
                    const int byte = static_cast<unsigned char>(buffer_[position_]);
                    if (quote_ == 0 && (byte == '"' || byte == '\'')) {
                        quote_ = byte;
                        inside_ = true;
                        continue;
                    }
                    // The closing quote flips the flag and then goes through the delimiter test like any
                    // byte outside quotes.
                    if (quote_ != 0 && byte == quote_) inside_ = !inside_;
                    if (inside_) continue;
                }
                if (delimiterAt(position_)) {
                    length = static_cast<int>(position_ - fieldStart);
                    position_ += delimiterLength_;
                    return true;
                }
            }
        }
    } else if (position_ < limit_) {
        // Nothing to cut at: a delimiter of no bytes would match everywhere and never advance.
        position_ = limit_;
    }
    // The piece behind the last delimiter is always given, however short.
    done_ = true;
    length = static_cast<int>(position_ - fieldStart);
    return true;
}

}  // namespace xmlparser

namespace {

// Handed out when even the result record cannot be allocated, so that the splitters never return null.
// Nothing writes it, and xml_DestructParserResults leaves it alone.
parser_result outOfMemoryResult = {nullptr, nullptr, 0};

void releasePieces(parser_result* result) {
    for (parser_field* field = result->first; field;) {
        parser_field* following = field->next;
        ::free(field);
        field = following;
    }
}

// Appends one piece. When it cannot be allocated the result is left with no piece at all, since a split with
// pieces missing would be read as a different text, and the answer is false.
bool appendPiece(parser_result* result, char* text, int length) {
    parser_field* field = static_cast<parser_field*>(xmlparser::allocate(sizeof(parser_field)));
    if (!field) {
        releasePieces(result);
        result->first = nullptr;
        result->last = nullptr;
        result->count = 0;
        return false;
    }
    field->text = text;
    field->length = length;
    field->next = nullptr;
    if (result->first)
        result->last->next = field;
    else
        result->first = field;
    result->last = field;
    ++result->count;
    return true;
}

parser_result* split(char* buffer, long long start, long long limit, char* delimiter, int delimiterLength,
                     bool quoteAware) {
    parser_result* result = static_cast<parser_result*>(xmlparser::allocate(sizeof(parser_result)));
    if (!result) return &outOfMemoryResult;
    result->first = nullptr;
    result->last = nullptr;
    result->count = 0;
    if (!buffer) {
        // Only the blind splitter tests for a null buffer. The quote-aware one walks its range, which must
        // then be empty, and gives the one empty piece that ends every walk, pointing nowhere.
        if (quoteAware && limit <= start) appendPiece(result, nullptr, 0);
        return result;
    }

    xmlparser::Splitter splitter(buffer, start, limit, delimiter, delimiterLength, quoteAware);
    char* text;
    int length;
    while (splitter.next(text, length)) {
        if (!appendPiece(result, text, length)) break;
    }
    return result;
}

}  // namespace

parser_result* xml_ParseString(char* buffer, int start, int end, char* delimiter, int delimiterLength) {
    return split(buffer, start, end, delimiter, delimiterLength, false);
}

parser_result* xml_ParseStringAdv(char* buffer, int start, int length, char* delimiter, int delimiterLength) {
    return split(buffer, start, static_cast<long long>(start) + length, delimiter, delimiterLength, true);
}

int xml_IsDelimiter(char* buffer, int position, int end, char* delimiter, int delimiterLength) {
    if (static_cast<long long>(position) + delimiterLength > end) return 0;
    if (delimiterLength <= 0) return 1;
    if (!buffer || !delimiter) return 0;
    return ::memcmp(buffer + position, delimiter, static_cast<size_t>(delimiterLength)) == 0 ? 1 : 0;
}

void xml_DestructParserResults(parser_result* result) {
    if (!result || result == &outOfMemoryResult) return;
    releasePieces(result);
    ::free(result);
}
