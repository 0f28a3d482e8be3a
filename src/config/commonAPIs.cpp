#include "msplatform/commonAPIs.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "msplatform/ZvCfgCtrlMgr.h"

namespace {

constexpr char kConfigFile[] = "MediaServer.cfg";
constexpr char kDefaultServerName[] = "QuirnNAS";
constexpr int kNameBufferSize = 128;
constexpr char kNoHostName[] = "(none)";

// The store's functions take their names as non-const pointers but do not write through them.
char* Name(const char* text) {
    return const_cast<char*>(text);
}

}  // namespace

int getConfigScanPaths(unsigned char** paths) {
    if (paths == nullptr) return -1;
    // 1 or "already initialised": either way the store is usable.
    if (initializeConfig(kConfigFile) == 0) {
        fputs("getCongfigScanPaths: Config init error...\n", stderr);
        return -1;
    }
    int length = 0;
    if (getConfigStringLen(Name("MCM"), Name("scanPaths"), length) != 1 || length < 0) {
        fputs("get config len\n", stderr);
        return -1;
    }
    unsigned char* buffer =
        static_cast<unsigned char*>(malloc(static_cast<size_t>(length) + (length == 0 ? 2 : 1)));
    if (buffer == nullptr) return -1;
    *paths = buffer;
    if (length == 0) {
        buffer[0] = 0;
        return 0;
    }
    if (getConfigString(Name("MCM"), Name("scanPaths"), buffer, length) != 1) {
        fputs("get config string\n", stderr);
        return -1;
    }
    // A value that grew since its length was read is copied cut and without a terminator: end it here.
    buffer[length] = 0;
    return 0;
}

int setServerNameFromComputerName() {
    if (initializeConfig(kConfigFile) == 0) {
        fputs("setServerNameFromComputerName: Config init error...\n", stderr);
        return -1;
    }
    int length = 0;
    bool created = false;
    if (getConfigStringLen(Name("upnp"), Name("serverName"), length) != 1) {
        // Another process may create it at the same moment; its -3 changes nothing here.
        createConfigString(Name("upnp"), Name("serverName"),
                           reinterpret_cast<unsigned char*>(const_cast<char*>(kDefaultServerName)),
                           static_cast<int>(strlen(kDefaultServerName)));
        created = true;
    }
    // A name that someone set stays, so that a later change of the host name does not reach it.
    if (!created && length != 0) return 0;

    char name[kNameBufferSize];
    if (getComputerName(name, kNameBufferSize) == -1) strncpy(name, kDefaultServerName, kNameBufferSize - 1);
    name[kNameBufferSize - 1] = 0;
    if (setConfigString(Name("upnp"), Name("serverName"), reinterpret_cast<const unsigned char*>(name),
                        static_cast<int>(strlen(name))) != 1) {
        fputs("setServerNameFromComputerName: error in setting config entry, servername ...\n", stderr);
        return -1;
    }
    return 0;
}

int getComputerName(char* name, int length) {
    if (name == nullptr || length < 1) return -1;
    memset(name, 0, static_cast<size_t>(length));
    const int result = gethostname(name, static_cast<size_t>(length));
    // Compared within the buffer: a cut name need not be terminated.
    if (static_cast<size_t>(length) >= sizeof kNoHostName &&
        memcmp(name, kNoHostName, sizeof kNoHostName) == 0)
        return -1;
    return result;
}
