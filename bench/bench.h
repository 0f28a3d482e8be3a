// Shared pieces of the benchmarks: registration under one naming scheme, the smoke switch, and the input
// generators. Every generator is seeded with a fixed value, so this library and its peers see the same bytes
// in every run.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <functional>
#include <string>

#include <benchmark/benchmark.h>

namespace mspb {

// A benchmark is named "<operation>/<input>/<implementation>"; bench/run pairs the rows of "msplatform" with
// those of every other implementation under the same operation and input. `ops` is the number of operations
// one iteration does, so that the table can give the time of one.
void Add(const std::string& operation, const std::string& input, const std::string& implementation,
         std::function<void(benchmark::State&)> body, int ops = 1);

// Each source file registers its benchmarks through one of these at load; main runs them once the smoke
// switch is known.
struct Registrar {
    explicit Registrar(void (*registerAll)());
};

// True for the CI smoke run: every benchmark once, on tiny inputs.
bool Smoke();

// Picks the full size or, in a smoke run, the tiny one.
inline size_t Size(size_t full, size_t tiny) {
    return Smoke() ? tiny : full;
}

// "4KB", "64KB", "1MB".
std::string SizeName(size_t bytes);

// splitmix64: small, fast, and the same sequence on every platform.
class Random {
public:
    explicit Random(uint64_t seed) : state_(seed) {}
    uint64_t next() {
        uint64_t z = (state_ += 0x9E3779B97F4A7C15ull);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        return z ^ (z >> 31);
    }
    // Uniform enough in [0, n) for picking words.
    uint32_t below(uint32_t n) { return static_cast<uint32_t>(next() % n); }

private:
    uint64_t state_;
};

// A media format table of about `bytes` bytes: a root element, format elements, and nine property elements
// in each, the layout of MediaFormats.xml. Extensions are "x<number>" and unique: the list of them is given
// through `extensions` when it is not null.
std::string FormatTable(size_t bytes, std::string* extensions = nullptr);

// `bytes` of printable ASCII words and line ends.
std::string AsciiText(size_t bytes);

// About `bytes` of UTF-8 text mixing ASCII, Latin accents (two bytes) and CJK ideographs (three bytes), all
// in the basic plane, cut at a character boundary.
std::string MixedText(size_t bytes);

// About `bytes` of one-byte path text: directory and file names of a media share joined by "/", with blanks,
// punctuation and some Latin-1 accents.
std::string PathText(size_t bytes);

// A configuration file of `sections` sections with `keys` keys each, in the store's own format (CR LF), half
// integers and half strings. Section names are "section<i>", key names "key<j>".
std::string ConfigFile(int sections, int keys);

// Aborts the program with a message: a benchmark whose two sides disagree measures nothing.
[[noreturn]] void Fail(const std::string& what);

// A fresh temporary directory, removed with everything in it by the destructor.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

void WriteFile(const std::string& path, const std::string& content);

}  // namespace mspb
