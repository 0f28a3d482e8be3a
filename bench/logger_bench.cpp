// Event logger: eventLogOut with 60-byte lines, each flushed to its file, against spdlog's rotating file sink
// with a flush on every line, against fprintf + fflush on a plain file, and against its floor: the same line
// through fprintf and fflush under the lock pair, the system calls a logged line cannot do without.
// The logger's semaphore has a machine-wide key: bench/run holds the test suites' lock around every row.
#include <stdio.h>

#include <memory>
#include <string>

#include "bench.h"
#include "msplatform/mutex.h"

#if __has_include("msplatform/eventLogger.h")
#include "msplatform/ZvCfgCtrlMgr.h"
#include "msplatform/ZvEventLogger.h"
#include "msplatform/eventLogger.h"
#define MSPB_HAVE_LOGGER 1
#endif

#ifdef MSPB_HAVE_SPDLOG
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/spdlog.h>
#endif

namespace {

const char kOperation[] = "eventLogOut";
const char kInput[] = "60B_lines_flushed";
// Same rotation on both sides: files of 8 MB, five of them kept.
const int kFileSize = 8 << 20;
const int kFiles = 5;

// 60 bytes of message: what a server logs about a request.
const char kMessage[] = "GET /share/Music/Album 04/Track 07.mp3 range 0-65535: ok 206";
static_assert(sizeof kMessage - 1 == 60, "the lines are 60 bytes");
const char kStamp[] = "11-24-2026 : 22:05:36.123";
static_assert(sizeof kStamp - 1 == 25, "the logger's stamp holds 25 characters");
const char kFloor[] = "floor:lock+fprintf+fflush";

void RegisterAll() {
#ifdef MSPB_HAVE_LOGGER
    // Made on the first run: a run that filters these rows out writes nothing.
    struct Setup {
        mspb::TempDir dir;
        bool ready = false;
    };
    auto setup = std::make_shared<Setup>();
    mspb::Add(kOperation, kInput, "msplatform", [setup](benchmark::State& state) {
        if (!setup->ready) {
            setup->ready = true;
            const std::string cfg = setup->dir.file("MediaServer.cfg");
            const std::string logs = setup->dir.file("logs");
            mspb::WriteFile(cfg, "[bench]\r\nlogMode=1\r\nlogVerbosity=1\r\nlogFilesCount=" +
                                     std::to_string(kFiles) + "\r\nlogFileSize=" + std::to_string(kFileSize) +
                                     "\r\nlogFilePath=\"" + logs + "\"\r\n\r\n");
            std::string path = cfg, section = "bench";
            // The logger reads its settings from the store that is initialised, which may be another row's.
            deinitializeConfig();
            if (initializeLogger(&path[0], &section[0]) != 1) mspb::Fail("initializeLogger failed");
        }
        for (auto _ : state) eventLogOut("%s", kMessage);
        state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
    });
#endif

#ifdef MSPB_HAVE_SPDLOG
    auto spdlogDir = std::make_shared<mspb::TempDir>();
    mspb::Add(kOperation, kInput, "spdlog", [spdlogDir](benchmark::State& state) {
        auto sink = std::make_shared<spdlog::sinks::rotating_file_sink_mt>(spdlogDir->file("spdlog.txt"),
                                                                           kFileSize, kFiles);
        spdlog::logger logger("bench", sink);
        logger.flush_on(spdlog::level::trace);
        for (auto _ : state) logger.info("{}", kMessage);
        state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
    });
#endif

    auto plainDir = std::make_shared<mspb::TempDir>();
    mspb::Add(kOperation, kInput, "fprintf+fflush", [plainDir](benchmark::State& state) {
        FILE* file = fopen(plainDir->file("plain.txt").c_str(), "a");
        if (!file) mspb::Fail("cannot open the plain log");
        for (auto _ : state) {
            fprintf(file, "%s\n", kMessage);
            fflush(file);
        }
        fclose(file);
        state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
    });
    // The floor: the logger's line (a stamp of the same length, fixed here), written and flushed under a
    // semaphore of the same kind as "eventLogger", a private one.
    mspb::Add(kOperation, kInput, kFloor, [plainDir](benchmark::State& state) {
        Mutex mutex;
        if (mutex.getid() <= 0) {
            state.SkipWithError("no semaphore set");
            return;
        }
        FILE* file = fopen(plainDir->file("floor.txt").c_str(), "a");
        if (!file) mspb::Fail("cannot open the floor's log");
        for (auto _ : state) {
            mutex.lock();
            fprintf(file, "%s\t : %s\n", kStamp, kMessage);
            fflush(file);
            mutex.unlock();
        }
        fclose(file);
        state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
    });
}

mspb::Registrar registrar(RegisterAll);

}  // namespace
