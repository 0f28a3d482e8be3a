// msplat log: one line through the event logger, as a server process writes it.
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <msplatform/ZvCfgCtrlMgr.h>
#include <msplatform/ZvEventLogger.h>

#include "msplat.h"

namespace msplat {
namespace {

constexpr size_t kMaxMessage = 1023;  // what the logger formats a line into, less the terminator
constexpr int kMaxLogPath = 254;      // the longest log directory the logger starts in

struct LogArgs {
    std::string config;
    std::string module;
    std::vector<std::string> words;
};

// The logger says only that it could not start; the store tells which of its settings is missing.
int WhyNotStarted(const LogArgs& args) {
    if (initializeConfig(args.config.c_str()) != CFG_OK) return kFailure;
    int status = kFailure;
    int value = 0;
    int length = 0;
    int result = CFG_OK;
    const char* failed = nullptr;
    for (const char* key : {"logMode", "logVerbosity", "logFilesCount", "logFileSize"}) {
        result = getConfigInt(C(args.module), const_cast<char*>(key), value);
        if (result != CFG_OK) {
            failed = key;
            break;
        }
    }
    if (!failed) {
        result = getConfigStringLen(C(args.module), C("logFilePath"), length);
        if (result != CFG_OK) failed = "logFilePath";
    }
    if (failed && result == CFG_SECTION_NOT_FOUND) {
        Error("log: %s: [%s]: %s", args.config.c_str(), args.module.c_str(), CfgResultText(result));
        status = kMissing;
    } else if (failed) {
        Error("log: %s: [%s] %s: %s", args.config.c_str(), args.module.c_str(), failed,
              CfgResultText(result));
        status = CfgResultStatus(result);
    } else if (length > kMaxLogPath) {
        Error("log: %s: [%s] logFilePath: longer than %d bytes, the most the logger can prune",
              args.config.c_str(), args.module.c_str(), kMaxLogPath);
    } else {
        Error("log: the logger could not start: its directory could not be made");
    }
    deinitializeConfig();
    return status;
}

}  // namespace

std::string CurrentLogFile() {
    // Names are not enough: files started within one second have the same time. The open file is the one
    // on the same inode.
    struct stat open;
    if (!eventLogger.logFile || !eventLogger.logFilePath || fstat(fileno(eventLogger.logFile), &open) != 0)
        return "";
    for (const fileInfo* file = eventLogger.fileList; file; file = file->next) {
        std::string path = std::string(eventLogger.logFilePath) + "/" + file->name;
        struct stat st;
        if (stat(path.c_str(), &st) == 0 && st.st_dev == open.st_dev && st.st_ino == open.st_ino) return path;
    }
    return "";
}

namespace {

int Log(const LogArgs& args) {
    std::string message;
    for (const std::string& word : args.words) message += (message.empty() ? "" : " ") + word;
    if (message.empty() || message.size() > kMaxMessage) {
        Error("log: a message has 1 to %zu bytes", kMaxMessage);
        return kFailure;
    }
    if (message.find_first_of("\r\n") != std::string::npos) {
        Error("log: a log line can't hold a line end");
        return kFailure;
    }
    int status = CheckRegularFile(args.config);
    if (status != kOk) return status;
    if (initializeLogger(C(args.config), C(args.module)) != 1) return WhyNotStarted(args);
    if (eventLogger.logMode == 0) {
        // The configuration has logging off: that is its decision, not a failure.
        Error("log: logging is off in [%s] (logMode 0): no line written", args.module.c_str());
        return kOk;
    }
    if (!eventLogger.logFile) {
        Error("log: no log file could be opened in %s",
              eventLogger.logFilePath ? eventLogger.logFilePath : "(no directory)");
        return kFailure;
    }
    eventLogOut("%s", message.c_str());
    std::string written = CurrentLogFile();
    if (!written.empty()) Puts(written.c_str());
    return kOk;
}

}  // namespace

void AddLogCommands(CLI::App& app, int& status) {
    auto args = std::make_shared<LogArgs>();
    CLI::App* log =
        app.add_subcommand("log", "Write one line through the event logger; list and follow the log");
    log->require_subcommand(0, 1);
    // Required only when no subcommand runs: checked in the callback.
    log->add_option("--config", args->config, "Configuration file");
    log->add_option("--module", args->module, "The module's section, which also names the log files");
    log->add_option("MESSAGE", args->words, "The line; several words are joined by blanks");
    log->footer(
        "msplat log --config PATH --module SECTION MESSAGE... writes one line. The section holds logMode,\n"
        "logVerbosity, logFilesCount, logFileSize and logFilePath. Each start of the logger opens a new\n"
        "file serverLog.<module>.<date>.<time>.txt in logFilePath and deletes the oldest beyond\n"
        "logFilesCount; msplat prints the path of the file it wrote to. A message that is the one word\n"
        "\"list\" or \"follow\" goes behind --.");
    AddLogFileCommands(log, status);
    log->callback([&status, args, log] {
        if (!log->get_subcommands().empty()) return;
        for (auto [given, what] :
             {std::pair(!args->config.empty(), "--config"), std::pair(!args->module.empty(), "--module"),
              std::pair(!args->words.empty(), "MESSAGE")})
            if (!given) throw CLI::RequiredError(what);
        status = Log(*args);
    });
}

}  // namespace msplat
