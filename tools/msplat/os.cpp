// msplat walk, servername and scanpaths: the directory walker and the server identity helpers.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>

#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <msplatform/ZvCfgCtrlMgr.h>
#include <msplatform/commonAPIs.h>
#include <msplatform/dirWalk.h>
#include <msplatform/unicode.h>

#include "msplat.h"

namespace msplat {
namespace {

constexpr size_t kMaxWalkPath = 1023;  // bytes of UTF-8 that the walker takes

// One entry a line: control bytes and backslashes in a name print escaped, so that a name can't break the
// line.
void PrintName(const unsigned char* name) {
    for (; *name; ++name) {
        if (*name == '\\')
            fputs("\\\\", Out());
        else if (*name < 0x20 || *name == 0x7f)
            Printf("\\x%02x", *name);
        else
            Putc(*name);
    }
    Putc('\n');
}

void PrintEntry(const FileFindData& data) {
    unsigned char name[3 * 256 + 1];  // three bytes per unit at most
    Convert_UCS_UTF8(data.fileName, name);
    if (data.isDirectory) {
        Printf("d %10s %-20s ", "-", "-");
    } else {
        char stamp[32] = "-";
        time_t modified = static_cast<time_t>(data.modifiedTime);
        struct tm tm;
        if (gmtime_r(&modified, &tm)) strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%SZ", &tm);
        Printf("f %10lu %-20s ", static_cast<unsigned long>(data.fileSize), stamp);
    }
    PrintName(name);
}

int Walk(const std::string& dir) {
    if (dir.empty() || dir.size() > kMaxWalkPath) {
        Error("walk: the path must have 1 to %zu bytes", kMaxWalkPath);
        return kFailure;
    }
    struct stat st;
    if (stat(dir.c_str(), &st) != 0) {
        int error = errno;
        Error("walk: %s: %s", dir.c_str(), strerror(error));
        return error == ENOENT || error == ENOTDIR ? kMissing : kFailure;
    }
    if (!S_ISDIR(st.st_mode)) {
        Error("walk: %s: not a directory", dir.c_str());
        return kFailure;
    }
    std::vector<wchar_t> path(dir.size() + 1);
    Convert_UTF8_UCS(reinterpret_cast<const unsigned char*>(dir.c_str()), path.data());
    FileFindData data;
    memset(&data, 0, sizeof data);
    void* handle = Zv_FindFirst(path.data(), &data);
    if (!handle) {
        Error("walk: %s: cannot be opened", dir.c_str());
        return kFailure;
    }
    do {
        // An empty directory stream leaves the record as it was: empty.
        if (data.fileName[0] && wcscmp(data.fileName, L".") != 0 && wcscmp(data.fileName, L"..") != 0)
            PrintEntry(data);
        memset(&data, 0, sizeof data);
    } while (Zv_FindNext(handle, path.data(), &data) == 0);
    Zv_FindClose(handle);
    return kOk;
}

// The helpers open the store on MediaServer.cfg in the working directory unless it is open already: a
// --file opens it first.
int OpenStoreFor(const std::string& file) {
    if (file.empty()) return kOk;
    int result = initializeConfig(file.c_str());
    if (result != CFG_OK) {
        Error("%s: %s", file.c_str(), CfgResultText(result));
        return kFailure;
    }
    return kOk;
}

int ServerName(const std::string& file) {
    int status = OpenStoreFor(file);
    if (status != kOk) return status;
    const std::string shown = file.empty() ? "MediaServer.cfg" : file;
    if (setServerNameFromComputerName() != 0) {
        Error("servername: %s: the name could not be set", shown.c_str());
        return kFailure;
    }
    std::string name;
    status = ReadConfigString(shown, "upnp", "serverName", name);
    if (status == kOk) Puts(name.c_str());
    return status;
}

int ScanPaths(const std::string& file) {
    const std::string shown = file.empty() ? "MediaServer.cfg" : file;
    int status = CheckRegularFile(shown);
    if (status != kOk) return status;
    status = OpenStoreFor(file);
    if (status != kOk) return status;
    unsigned char* paths = nullptr;
    if (getConfigScanPaths(&paths) == 0) {
        Puts(reinterpret_cast<const char*>(paths));
        free(paths);
        return kOk;
    }
    free(paths);  // a failed copy may have left a buffer
    // The helper tells only that it failed; a second look tells why.
    std::string value;
    status = ReadConfigString(shown, "MCM", "scanPaths", value);
    return status == kOk ? kFailure : status;
}

}  // namespace

void AddOsCommands(CLI::App& app, int& status) {
    auto dir = std::make_shared<std::string>();
    CLI::App* walk = app.add_subcommand("walk", "List a directory's entries with type, size and time");
    walk->add_option("DIR", *dir, "The directory")->required();
    walk->footer(
        "One line per entry, unsorted: d or f, the size in bytes (low 32 bits), the modification time\n"
        "in UTC, the name (control bytes as \\xNN, a backslash doubled); a directory shows - for both.\n"
        "Walking normalises names on disk, as the servers' walks do: an entry whose name is not UTF-8\n"
        "(Latin-1 bytes) or holds four-byte UTF-8 is renamed to the form the library's conversions give,\n"
        "unless a file of that name exists already.");
    walk->callback([&status, dir] { status = Walk(*dir); });

    auto file = std::make_shared<std::string>();
    CLI::App* serverName = app.add_subcommand(
        "servername", "Name the server after the host unless it has a name, and print the name");
    serverName->add_option("--file", *file, "The configuration file (default: MediaServer.cfg)");
    serverName->footer(
        "A missing or empty [upnp] serverName is set to the host name (\"QuirnNAS\" without one);\n"
        "a set name stays. The file is made if there is none.");
    serverName->callback([&status, file] { status = ServerName(*file); });

    CLI::App* scanPaths = app.add_subcommand("scanpaths", "Print the scan paths, [MCM] scanPaths");
    scanPaths->add_option("--file", *file, "The configuration file (default: MediaServer.cfg)");
    scanPaths->callback([&status, file] { status = ScanPaths(*file); });
}

}  // namespace msplat
