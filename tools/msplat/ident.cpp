// msplat uuid and msplat md5: the library's identifiers.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <msplatform/md5.h>
#include <msplatform/uuid.h>

#include "msplat.h"

namespace msplat {
namespace {

int Uuids(int count) {
    for (int i = 0; i < count; ++i) {
        uuid_t id;
        uuid_create(&id);
        // The fields are numbers in the host's order; the text form prints them as numbers.
        Printf("%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x\n", static_cast<unsigned>(id.time_low),
               static_cast<unsigned>(id.time_mid), static_cast<unsigned>(id.time_hi_and_version),
               id.clock_seq_hi_and_reserved, id.clock_seq_low, id.node[0], id.node[1], id.node[2], id.node[3],
               id.node[4], id.node[5]);
    }
    return kOk;
}

// Digests one open descriptor; false on a read error, with errno set.
bool Digest(int fd, unsigned char digest[16]) {
    static unsigned char buffer[64 * 1024];
    MD5_CTX context;
    MD5Init(&context);
    for (;;) {
        ssize_t n = read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return false;
        if (n == 0) break;
        MD5Update(&context, buffer, static_cast<unsigned int>(n));
    }
    MD5Final(digest, &context);
    return true;
}

// One line as md5sum writes it, so that md5sum -c reads it back: a name holding a backslash or a line end
// is escaped, and the line then starts with a backslash.
void PrintLine(const unsigned char digest[16], const std::string& name) {
    bool escape = name.find_first_of("\\\n\r") != std::string::npos;
    if (escape) Putc('\\');
    for (int i = 0; i < 16; ++i) Printf("%02x", digest[i]);
    fputs("  ", Out());
    for (char c : name) {
        if (!escape)
            Putc(c);
        else if (c == '\\')
            fputs("\\\\", Out());
        else if (c == '\n')
            fputs("\\n", Out());
        else if (c == '\r')
            fputs("\\r", Out());
        else
            Putc(c);
    }
    Putc('\n');
}

int Md5(const std::vector<std::string>& files) {
    std::vector<std::string> names = files;
    if (names.empty()) names.push_back("-");
    int status = kOk;
    for (const std::string& name : names) {
        int fd = name == "-" ? STDIN_FILENO : open(name.c_str(), O_RDONLY | O_CLOEXEC);
        unsigned char digest[16];
        if (fd < 0 || !Digest(fd, digest)) {
            int error = errno;
            Error("md5: %s: %s", name.c_str(), strerror(error));
            status = std::max(status, error == ENOENT || error == ENOTDIR ? +kMissing : +kFailure);
        } else {
            PrintLine(digest, name);
        }
        if (fd > STDIN_FILENO) close(fd);
    }
    return status;
}

}  // namespace

void AddIdentCommands(CLI::App& app, int& status) {
    auto count = std::make_shared<int>(1);
    CLI::App* uuid = app.add_subcommand("uuid", "Make version-1 UUIDs (time-based, random node)");
    uuid->add_option("-n,--count", *count, "How many, one a line")
        ->capture_default_str()
        ->check(CLI::Range(1, 1000000));
    uuid->footer("UUIDs print in the 8-4-4-4-12 form of lower-case hex digits.");
    uuid->callback([&status, count] { status = Uuids(*count); });

    auto files = std::make_shared<std::vector<std::string>>();
    CLI::App* md5 = app.add_subcommand("md5", "Print MD5 digests in the format of md5sum");
    md5->add_option("FILE", *files, "Files to digest; standard input when none is given, or for \"-\"");
    md5->footer(
        "The output is what md5sum prints, so md5sum -c checks it.\n"
        "Exit status: 0 done, 1 a file doesn't exist, 2 a file could not be read.");
    md5->callback([&status, files] { status = Md5(*files); });
}

}  // namespace msplat
