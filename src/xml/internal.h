// What the parser's modules share: the allocation seam and the piece-by-piece splitter that both exported
// splitters, the node list and the attribute reader are built on.
#pragma once

#include <stddef.h>

namespace xmlparser {

// Every allocation of the parser goes through here; it is malloc. Tests swap it to make allocations fail.
extern void* (*allocate)(size_t size);

// Gives the pieces of buffer[start, limit) one at a time, exactly as xml_ParseString (quoteAware false) or
// xml_ParseStringAdv (quoteAware true) would list them, without allocating. A delimiter shorter than one byte
// or a null delimiter cuts nothing. The buffer must not be null.
class Splitter {
public:
    Splitter(const char* buffer, long long start, long long limit, const char* delimiter, int delimiterLength,
             bool quoteAware)
        : buffer_(buffer),
          position_(start),
          limit_(limit),
          delimiter_(delimiter),
          delimiterLength_(delimiter ? delimiterLength : 0),
          quoteAware_(quoteAware) {}

    // Stores the next piece and returns true; returns false once the last piece has been given.
    bool next(char*& text, int& length);

private:
    bool delimiterAt(long long position) const;

    const char* buffer_;
    long long position_;  // walking position, an offset from buffer_
    long long limit_;     // exclusive end offset
    const char* delimiter_;
    int delimiterLength_;
    bool quoteAware_;
    int quote_ = 0;        // the quote character of this walk, 0 until one is met
    bool inside_ = false;  // inside quoted text
    bool done_ = false;
};

}  // namespace xmlparser
