#pragma once

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "msplatform/mediaMapper.h"
#include "msplatform/mutex.h"
#include "support/support.h"

namespace mediatest {

using Strings = std::vector<std::string>;

inline std::string Text(const char* s) {
    return s != nullptr ? std::string(s) : std::string("-");
}

// One record as "name|extensions|mime|class|profile|parser|dap|transcode|mediatype", '0' for no media type.
inline std::string Dump(const MediaFormatInfo* f) {
    return Text(f->formatName) + "|" + Text(f->extensions) + "|" + Text(f->mimeType) + "|" +
           Text(f->dlnaClass) + "|" + Text(f->dlnaProfile) + "|" + Text(f->parserName) + "|" +
           Text(f->dapName) + "|" + std::to_string(f->transcodeFlag) + "|" +
           (f->mediaType != 0 ? std::string(1, f->mediaType) : "0");
}

inline Strings DumpList(const MediaFormatInfo* f) {
    Strings list;
    for (; f != nullptr; f = f->next) list.push_back(Dump(f));
    return list;
}

// A mapper of its own. Deleting its Mutex would remove the semaphore for every mapper of the process, so
// the locks are parked.
class TestMapper : public MediaMapper {
public:
    ~TestMapper() {
        uninitialize();
        static auto* parked = new std::vector<Mutex*>;
        if (mutex != nullptr) parked->push_back(mutex);
        mutex = nullptr;
    }
};

// A working directory that holds the table "MediaFormats.xml".
class MediaDir : public ::testing::Test {
protected:
    MediaDir() : cwd_(dir_.path()) {}
    void Write(const std::string& xml) { msptest::WriteFile(dir_.file("MediaFormats.xml"), xml); }
    void WriteShipped() { Write(msptest::ReadFile(MSPLATFORM_SOURCE_DIR "/data/MediaFormats.xml")); }
    void WriteRecords(const Strings& records) {
        std::string xml = "<?xml version=\"1.0\"?>\n<MediaFormats>\n";
        for (const std::string& r : records) xml += "  <Format>" + r + "</Format>\n";
        Write(xml + "</MediaFormats>\n");
    }

    msptest::TempDir dir_;
    msptest::ScopedChdir cwd_;
};

}  // namespace mediatest
