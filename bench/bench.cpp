// The benchmark program's main, its registration scheme and the input generators.
#include "bench.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <filesystem>
#include <vector>

namespace mspb {

namespace {

bool smoke = false;

std::vector<void (*)()>& Registry() {
    static std::vector<void (*)()> registry;
    return registry;
}

const char* const kWords[] = {"Music",  "Video",   "Photos", "Live",   "Album", "Concert", "Holiday",
                              "Family", "Summer",  "Winter", "Best",   "Of",    "The",     "Remaster",
                              "Disc",   "Session", "Studio", "Travel", "Kids",  "Party"};
constexpr uint32_t kWordCount = sizeof(kWords) / sizeof(kWords[0]);

}  // namespace

void Add(const std::string& operation, const std::string& input, const std::string& implementation,
         std::function<void(benchmark::State&)> body, int ops) {
    const std::string name = operation + "/" + input + "/" + implementation;
    benchmark::RegisterBenchmark(name.c_str(), [body, ops](benchmark::State& state) {
        body(state);
        state.counters["ops"] = ops;
    });
}

Registrar::Registrar(void (*registerAll)()) {
    Registry().push_back(registerAll);
}

bool Smoke() {
    return smoke;
}

std::string SizeName(size_t bytes) {
    if (bytes >= (1u << 20) && bytes % (1u << 20) == 0) return std::to_string(bytes >> 20) + "MB";
    if (bytes >= 1024 && bytes % 1024 == 0) return std::to_string(bytes >> 10) + "KB";
    return std::to_string(bytes) + "B";
}

std::string FormatTable(size_t bytes, std::string* extensions) {
    static const char* const kTypes[] = {"CLASS_AUDIO_ITEM", "CLASS_VIDEO_ITEM", "CLASS_IMAGE_ITEM"};
    static const char* const kMimes[] = {"audio/mpeg", "video/mp4", "image/jpeg", "audio/x-flac",
                                         "video/x-matroska"};
    Random random(0x5EED0001);
    std::string text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<MediaFormats>\n";
    const std::string closing = "</MediaFormats>\n";
    for (unsigned i = 0; text.size() + closing.size() < bytes; ++i) {
        const std::string ext = "x" + std::to_string(i);
        if (extensions) *extensions += (extensions->empty() ? "" : ",") + ext;
        const uint32_t kind = random.below(3);
        text += "  <Format>\n    <FormatName>";
        text += kWords[random.below(kWordCount)];
        text += " Format ";
        text += std::to_string(i);
        text += "</FormatName>\n    <Extensions>" + ext + "</Extensions>\n    <MimeType>";
        text += kMimes[random.below(5)];
        text += "</MimeType>\n    <MediaType>";
        text += kTypes[kind];
        text += "</MediaType>\n    <DLNA_Class>object.item.";
        text += kind == 0 ? "audioItem.musicTrack" : kind == 1 ? "videoItem" : "imageItem.photo";
        text += "</DLNA_Class>\n    <DLNA_Profile>PROFILE_" + std::to_string(random.below(100));
        text += "</DLNA_Profile>\n    <Transcode>";
        text += random.below(4) == 0 ? "Yes" : "No";
        text += "</Transcode>\n    <Parser>";
        text += kWords[random.below(kWordCount)];
        text += "Parser</Parser>\n    <DAP>dap";
        text += std::to_string(random.below(10));
        text += "</DAP>\n  </Format>\n";
    }
    return text + closing;
}

std::string AsciiText(size_t bytes) {
    Random random(0x5EED0002);
    std::string text;
    text.reserve(bytes + 16);
    while (text.size() < bytes) {
        text += kWords[random.below(kWordCount)];
        text += random.below(12) == 0 ? '\n' : ' ';
    }
    text.resize(bytes);
    return text;
}

std::string MixedText(size_t bytes) {
    // Latin accents and CJK ideographs as UTF-8.
    static const char* const kAccents[] = {"\xC3\xA9", "\xC3\xA8", "\xC3\xBC",
                                           "\xC3\xB1", "\xC3\xA7", "\xC3\x85"};
    static const char* const kIdeographs[] = {"\xE4\xB8\xAD", "\xE6\x96\x87", "\xE9\x9F\xB3",
                                              "\xE6\xA5\xBD", "\xE5\x86\x99", "\xE7\x9C\x9F"};
    Random random(0x5EED0003);
    std::string text;
    text.reserve(bytes + 16);
    for (;;) {
        std::string piece;
        const uint32_t kind = random.below(3);
        if (kind == 0) {
            piece = kWords[random.below(kWordCount)];
            piece += ' ';
        } else if (kind == 1) {
            piece = kWords[random.below(kWordCount)];
            piece += kAccents[random.below(6)];
            piece += ' ';
        } else {
            for (uint32_t n = 1 + random.below(4); n > 0; --n) piece += kIdeographs[random.below(6)];
        }
        if (text.size() + piece.size() > bytes) break;
        text += piece;
    }
    return text;
}

std::string PathText(size_t bytes) {
    static const char* const kMarks[] = {" - ", " ", "_", " (2004) ", " & ", "#", "'", ", ", "+", "~"};
    static const char* const kExtensions[] = {".mp3", ".flac", ".jpg", ".mkv", ".m4a", ".avi"};
    Random random(0x5EED0004);
    std::string text;
    text.reserve(bytes + 64);
    while (text.size() < bytes) {
        text += "/share";
        for (uint32_t depth = 1 + random.below(4); depth > 0; --depth) {
            text += '/';
            text += kWords[random.below(kWordCount)];
            text += kMarks[random.below(10)];
            if (random.below(8) == 0) text += "Caf\xE9";  // Latin-1
            text += kWords[random.below(kWordCount)];
        }
        text += '/';
        text += std::to_string(random.below(100));
        text += kExtensions[random.below(6)];
    }
    text.resize(bytes);
    return text;
}

std::string ConfigFile(int sections, int keys) {
    Random random(0x5EED0005);
    std::string text;
    for (int s = 0; s < sections; ++s) {
        text += "[section" + std::to_string(s) + "]\r\n";
        for (int k = 0; k < keys; ++k) {
            text += "key" + std::to_string(k) + "=";
            if (k % 2 == 0)
                text += std::to_string(random.below(100000));
            else
                text += std::string("\"") + kWords[random.below(kWordCount)] + "/" +
                        kWords[random.below(kWordCount)] + "\"";
            text += "\r\n";
        }
        text += "\r\n";
    }
    return text;
}

void Fail(const std::string& what) {
    fprintf(stderr, "benchmark check failed: %s\n", what.c_str());
    abort();
}

TempDir::TempDir() {
    char pattern[] = "/tmp/msplatform-bench-XXXXXX";
    if (!mkdtemp(pattern)) Fail("mkdtemp");
    path_ = pattern;
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

void WriteFile(const std::string& path, const std::string& content) {
    FILE* file = fopen(path.c_str(), "wb");
    if (!file) Fail("cannot write " + path);
    if (fwrite(content.data(), 1, content.size(), file) != content.size()) Fail("short write to " + path);
    fclose(file);
}

}  // namespace mspb

int main(int argc, char** argv) {
    // --smoke (ours, taken out before Google Benchmark sees the arguments): tiny inputs, for CI.
    std::vector<char*> args;
    for (int i = 0; i < argc; ++i) {
        if (strcmp(argv[i], "--smoke") == 0)
            mspb::smoke = true;
        else
            args.push_back(argv[i]);
    }
    int count = static_cast<int>(args.size());
    for (auto registerAll : mspb::Registry()) registerAll();
    benchmark::Initialize(&count, args.data());
    if (benchmark::ReportUnrecognizedArguments(count, args.data())) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
