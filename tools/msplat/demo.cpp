// msplat demo: the main job of a server process, on the shipped tables, in a fresh temporary directory.
//
// It goes through the flat functions and the library's own service objects, as a server does: the store,
// the logger, the format map and the language reader, then the identifiers. The directory stays, so that
// the files can be looked at; the demo prints where they are.
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include <CLI/CLI.hpp>
#include <msplatform/ZvCfgCtrlMgr.h>
#include <msplatform/ZvEventLogger.h>
#include <msplatform/ZvLanguageReader.h>
#include <msplatform/commonAPIs.h>
#include <msplatform/md5.h>
#include <msplatform/mediaFormats.h>
#include <msplatform/uuid.h>

#include "msplat.h"
#include "shipped.h"

namespace msplat {
namespace {

constexpr const char* kModule = "demo";

char* C(const char* text) {
    return const_cast<char*>(text);
}

bool CreateInt(const char* section, const char* key, int value) {
    int result = createConfigInt(C(section), C(key), value);
    if (result != CFG_OK) Error("demo: [%s] %s: %s", section, key, CfgResultText(result));
    return result == CFG_OK;
}

bool CreateString(const char* section, const char* key, const std::string& value) {
    int result = createConfigString(C(section), C(key), reinterpret_cast<unsigned char*>(C(value.c_str())),
                                    static_cast<int>(value.size()));
    if (result != CFG_OK) Error("demo: [%s] %s: %s", section, key, CfgResultText(result));
    return result == CFG_OK;
}

std::string ReadString(const char* section, const char* key) {
    int length = 0;
    if (getConfigStringLen(C(section), C(key), length) != CFG_OK) return "";
    std::string value(static_cast<size_t>(length) + 1, '\0');
    if (getConfigString(C(section), C(key), reinterpret_cast<unsigned char*>(&value[0]), length) != CFG_OK)
        return "";
    value.resize(strlen(value.c_str()));
    return value;
}

std::string FileMd5(const std::string& path) {
    FILE* stream = fopen(path.c_str(), "rb");
    if (!stream) return "";
    MD5_CTX context;
    MD5Init(&context);
    unsigned char buffer[4096];
    size_t n;
    while ((n = fread(buffer, 1, sizeof buffer, stream)) > 0)
        MD5Update(&context, buffer, static_cast<unsigned int>(n));
    fclose(stream);
    unsigned char digest[16];
    MD5Final(digest, &context);
    char hex[33];
    for (int i = 0; i < 16; ++i) snprintf(hex + 2 * i, 3, "%02x", digest[i]);
    return hex;
}

std::string NewUuid() {
    uuid_t id;
    uuid_create(&id);
    char text[37];
    snprintf(text, sizeof text, "%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x",
             static_cast<unsigned>(id.time_low), static_cast<unsigned>(id.time_mid),
             static_cast<unsigned>(id.time_hi_and_version), id.clock_seq_hi_and_reserved, id.clock_seq_low,
             id.node[0], id.node[1], id.node[2], id.node[3], id.node[4], id.node[5]);
    return text;
}

void PrintFile(const std::string& path) {
    FILE* stream = fopen(path.c_str(), "rb");
    if (!stream) return;
    bool lineStart = true;
    for (int c; (c = fgetc(stream)) != EOF;) {
        if (c == '\r') continue;  // the store's CR LF endings
        if (lineStart && c != '\n') fputs("     ", Out());
        Putc(c);
        lineStart = c == '\n';
    }
    fclose(stream);
}

int Demo() {
    const std::string dir = MakeTempDir("demo");
    if (dir.empty()) return kFailure;
    const std::string config = dir + "/MediaServer.cfg";
    const std::string logs = dir + "/logs";
    Printf("msplat demo: a server's start-up on the shipped tables, in %s\n\n", dir.c_str());

    // The format map reads MediaFormats.xml from the working directory, as the servers do.
    const std::string formats = WriteShipped("MediaFormats.xml", dir);
    const std::string languages = WriteShipped("languages.xml", dir);
    if (formats.empty() || languages.empty()) return kFailure;
    if (chdir(dir.c_str()) != 0) {
        Error("demo: %s: %s", dir.c_str(), strerror(errno));
        return kFailure;
    }

    Printf("1. Configuration: %s\n", config.c_str());
    int result = initializeConfig(config.c_str());
    if (result != CFG_OK) {
        Error("demo: %s: %s", config.c_str(), CfgResultText(result));
        return kFailure;
    }
    bool made = CreateInt(kModule, "logMode", 1) && CreateInt(kModule, "logVerbosity", 2) &&
                CreateInt(kModule, "logFilesCount", 3) && CreateInt(kModule, "logFileSize", 64 * 1024) &&
                CreateString(kModule, "logFilePath", logs) &&
                CreateString("LANGUAGE", "languageFilePath", languages) &&
                CreateString("LANGUAGE", "currentLanguage", "English") &&
                CreateString("MCM", "scanPaths", "/share/Music|/share/Video|/share/Photos");
    if (!made) return kFailure;
    // The helper finds the store open already and uses it.
    if (setServerNameFromComputerName() != 0) return kFailure;
    Printf(
        "   created [%s] (the logger's settings), [LANGUAGE], [MCM]; [upnp] serverName from the host: %s\n",
        kModule, ReadString("upnp", "serverName").c_str());

    Printf("\n2. Logger for the module \"%s\"\n", kModule);
    if (initializeLogger(C(config.c_str()), C(kModule)) != 1) {
        Error("demo: the logger did not start");
        return kFailure;
    }
    const std::string logFile = CurrentLogFile();
    Printf("   writing to %s\n", logFile.c_str());
    eventLogOut("%s: started, configuration %s", kModule, config.c_str());

    Printf("\n3. Media formats: %s\n", formats.c_str());
    if (MF_Initialize() != 1) {
        Error("demo: %s: the table could not be loaded", formats.c_str());
        return kFailure;
    }
    // The whole list is long: its first names and the count.
    std::string plugins = MF_GetUniqueParserPlugins() ? MF_GetUniqueParserPlugins() : "";
    int count = plugins.empty() ? 0 : 1;
    size_t shown = std::string::npos;
    for (size_t at = 0; (at = plugins.find(',', at)) != std::string::npos; ++at)
        if (++count == 5) shown = at;
    Printf("   %d parser plug-ins: %s%s\n", count, plugins.substr(0, shown).c_str(),
           shown == std::string::npos ? "" : ",...");
    for (const char* file : {"Holiday.MP3", "concert.mkv", "beach.jpg", "notes.txt"}) {
        const char* dot = strrchr(file, '.');
        char* extension = C(dot ? dot : "");
        const char* name = MF_GetFormatNameByExtension(extension);
        char type = 0;
        const char* parser = MF_GetParserNameByExtension(extension, &type);
        if (!name) {
            Printf("   %-12s no format\n", file);
            eventLogOut("%s: %s: no format", kModule, file);
            continue;
        }
        const char* mime = MF_GetMimeTypeByExtension(extension);
        const char* profile = MF_GetDLNAProfileByExtension(extension);
        Printf("   %-12s %-24s %-16s %-14s %s\n", file, name, mime ? mime : "-", profile ? profile : "-",
               parser ? parser : "-");
        eventLogOut("%s: %s is %s (%s), parser %s", kModule, file, name, mime ? mime : "-",
                    parser ? parser : "-");
    }

    Printf("\n4. Language file: %s\n", languages.c_str());
    if (initializeLanguageReader(C(config.c_str())) != 1) {
        Error("\ndemo: %s: the language file could not be loaded", languages.c_str());
        return kFailure;
    }
    Printf("   languages: %s; current: English\n", getSupportedLanguages());
    for (const char* id : {"Music", "RecentlyAdded", "NoSuchTerm"}) {
        const char* text = Tx("(fallback)", id);
        Printf("   Tx(%s) = %s\n", id, text);
        eventLogOut("%s: Tx(%s) = %s", kModule, id, text);
    }

    Printf("\n5. Identifiers\n");
    const std::string id = NewUuid();
    const std::string digest = FileMd5(config);
    Printf("   uuid: %s\n   md5 of MediaServer.cfg: %s\n", id.c_str(), digest.c_str());
    eventLogOut("%s: session %s, configuration md5 %s", kModule, id.c_str(), digest.c_str());
    eventLogOut("%s: done", kModule);

    Printf("\n6. The files\n   %s:\n", config.c_str());
    PrintFile(config);
    Printf("   %s:\n", logFile.c_str());
    PrintFile(logFile);
    Printf("   Tables: %s, %s\n", formats.c_str(), languages.c_str());
    Printf("\nThe directory stays for a look; remove it with: rm -r %s\n", dir.c_str());
    return kOk;
}

}  // namespace

void AddDemoCommands(CLI::App& app, int& status) {
    CLI::App* demo = app.add_subcommand("demo", "Run a server's start-up on the shipped tables and show it");
    demo->footer(
        "In a fresh temporary directory: makes a MediaServer.cfg, starts the logger, loads the shipped\n"
        "format table and language file, looks formats and terms up, logs what it does, and prints the\n"
        "configuration, the log and where the files are. The directory is left for a look.");
    demo->callback([&status] { status = Demo(); });
}

}  // namespace msplat
