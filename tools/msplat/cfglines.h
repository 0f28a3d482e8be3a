// The lines of a configuration text as the store reads them, and where the store would drop a line or read
// it otherwise than it is written. msplat config apply refuses such lines; config edit warns about them.
#pragma once

#include <stddef.h>

#include <string>
#include <vector>

namespace msplat {

struct CfgLine {
    enum Kind { kNothing, kSection, kInt, kString };
    size_t number = 0;     // 1 for the first line; a lone CR ends a line too, as for the store
    std::string text;      // the line as the store takes it: up to its end or a zero byte
    Kind kind = kNothing;  // what the store makes of it; kNothing for an empty line or one it drops
    std::string name;      // the section's or the key's name
    std::string value;     // a string key's value, as the store reads it
    int intValue = 0;      // an int key's value, as the store reads it
    std::string problem;   // why the store drops the line or reads it otherwise; empty when it doesn't
};

// Splits `text` into lines by the store's rules. Lines of blanks alone carry nothing and are no problem.
// With `mergeSections`, all section lines of one name (in any case) are one section, as for changes: a key
// repeats within it. Without it, each section line starts a section of its own, as in the file, and a
// repeated one is a problem too (lookups see only the first of a name).
std::vector<CfgLine> ReadCfgLines(const std::string& text, bool mergeSections);

// The name as it compares in the store: ASCII letters in lower case.
std::string FoldCase(const std::string& name);

}  // namespace msplat
