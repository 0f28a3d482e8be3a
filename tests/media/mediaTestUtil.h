#pragma once

#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "msplatform/mediaMapper.h"
#include "msplatform/mutex.h"

namespace mediatest {

// One record as "name|extensions|mime|class|profile|parser|dap|transcode|mediatype", '-' for null texts
// and '0' for a zero media type.
inline std::string Dump(const MediaFormatInfo* f) {
    auto text = [](const char* s) { return s != nullptr ? std::string(s) : std::string("-"); };
    return text(f->formatName) + "|" + text(f->extensions) + "|" + text(f->mimeType) + "|" +
           text(f->dlnaClass) + "|" + text(f->dlnaProfile) + "|" + text(f->parserName) + "|" +
           text(f->dapName) + "|" + std::to_string(f->transcodeFlag) + "|" +
           (f->mediaType != 0 ? std::string(1, f->mediaType) : "0");
}

inline std::vector<std::string> DumpList(const MediaFormatInfo* f) {
    std::vector<std::string> list;
    for (; f != nullptr; f = f->next) list.push_back(Dump(f));
    return list;
}

// Destroying a Mutex on "MediaMapper" would remove the semaphore for every mapper of the process: the
// locks live on.
inline Mutex* SharedLock() {
    static Mutex* lock = new Mutex("MediaMapper");
    return lock;
}

class TestMapper {
public:
    TestMapper() = default;
    ~TestMapper() {
        mapper_.uninitialize();
        if (mapper_.mutex != nullptr) Parked().push_back(mapper_.mutex);
        mapper_.mutex = nullptr;
    }
    TestMapper(const TestMapper&) = delete;
    TestMapper& operator=(const TestMapper&) = delete;

    MediaMapper* operator->() { return &mapper_; }
    MediaMapper& operator*() { return mapper_; }

private:
    static std::vector<Mutex*>& Parked() {
        static std::vector<Mutex*>* parked = new std::vector<Mutex*>;
        return *parked;
    }
    MediaMapper mapper_;
};

inline std::string ShippedTablePath() {
    return std::string(MSPLATFORM_SOURCE_DIR) + "/data/MediaFormats.xml";
}

}  // namespace mediatest
