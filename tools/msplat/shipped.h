// The defaults shipped in data/ (the media format table, the language file), built into msplat.
#pragma once

#include <stddef.h>

#include <string>

namespace msplat {

struct ShippedFile {
    const char* name;            // file name in data/, e.g. "languages.xml"
    const unsigned char* bytes;  // its contents
    size_t size;                 // their length in bytes
};

// Every shipped file, ended by a record with a null name.
extern const ShippedFile kShippedFiles[];

// A fresh directory under $TMPDIR (or /tmp), named msplat-<what>-XXXXXX; empty on failure, after a message.
std::string MakeTempDir(const char* what);

// Writes the shipped file `name` into `dir`; its path, or empty on failure, after a message.
std::string WriteShipped(const char* name, const std::string& dir);

// Removes the files `names` from `dir` and then `dir` itself.
void RemoveTempDir(const std::string& dir, const char* const* names);

}  // namespace msplat
