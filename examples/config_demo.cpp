// The configuration store at work: in a fresh temporary directory, creates, changes and reads integer and
// string keys of a MediaServer.cfg through the flat functions, then prints the file. Removes what it made.
#include <msplatform.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace {

char* C(const char* s) {
    return const_cast<char*>(s);
}

unsigned char* U(const char* s) {
    return reinterpret_cast<unsigned char*>(const_cast<char*>(s));
}
int Length(const char* s) {
    return static_cast<int>(strlen(s));
}

// Prints a call and its result; true when the result is the one expected.
bool Check(const char* what, int rc, int expected = CFG_OK, const char* meaning = "") {
    const char* note = rc == expected ? meaning : "(unexpected)";
    printf("%-48s -> %2d%s%s\n", what, rc, *note ? " " : "", note);
    return rc == expected;
}

// The usual pair: the length, then a buffer of length + 1 bytes.
std::string ReadString(const char* section, const char* key) {
    int length = 0;
    if (getConfigStringLen(C(section), C(key), length) != CFG_OK) return "?";
    std::vector<unsigned char> buffer(static_cast<size_t>(length) + 1);
    if (getConfigString(C(section), C(key), buffer.data(), length) != CFG_OK) return "?";
    return reinterpret_cast<char*>(buffer.data());
}

int Run(const std::string& path) {
    if (!Check("initializeConfig(MediaServer.cfg)", initializeConfig(path.c_str()))) return 1;
    bool ok = true;
    const char* name = "Living room NAS";
    const char* renamed = "Living room NAS \xe2\x80\x93 media";  // UTF-8 passes through unchanged
    const char* logPath = "/var/log/mediaserver";
    ok &= Check("createConfigString(upnp, serverName)",
                createConfigString(C("upnp"), C("serverName"), U(name), Length(name)));
    ok &= Check("createConfigInt(dms, logFileSize, 1048576)",
                createConfigInt(C("dms"), C("logFileSize"), 1048576));
    ok &= Check("createConfigInt(dms, logFilesCount, 5)", createConfigInt(C("dms"), C("logFilesCount"), 5));
    ok &= Check("createConfigString(dms, logFilePath)",
                createConfigString(C("dms"), C("logFilePath"), U(logPath), Length(logPath)));
    ok &= Check("setConfigInt(DMS, LOGFILESCOUNT, 10)", setConfigInt(C("DMS"), C("LOGFILESCOUNT"), 10));
    ok &= Check("setConfigString(upnp, serverName)",
                setConfigString(C("upnp"), C("serverName"), U(renamed), Length(renamed)));
    ok &= Check("createConfigInt(dms, logFileSize, 1)", createConfigInt(C("dms"), C("logFileSize"), 1),
                CFG_KEY_EXISTS, "(the key exists)");
    int value = 0;
    ok &= Check("getConfigInt(dms, missing)", getConfigInt(C("dms"), C("missing"), value), CFG_KEY_NOT_FOUND,
                "(no such key)");
    ok &= Check("setConfigInt(nosuchsection, k, 1)", setConfigInt(C("nosuchsection"), C("k"), 1),
                CFG_SECTION_NOT_FOUND, "(no such section)");

    int size = 0, count = 0;
    ok &= Check("getConfigInt(dms, logFileSize)", getConfigInt(C("dms"), C("logFileSize"), size));
    ok &= Check("getConfigInt(dms, logFilesCount)", getConfigInt(C("dms"), C("logFilesCount"), count));
    printf("\n  logFileSize   = %d\n  logFilesCount = %d\n  logFilePath   = %s\n  serverName    = %s\n", size,
           count, ReadString("dms", "logFilePath").c_str(), ReadString("upnp", "serverName").c_str());
    dtype type = dtypeNone;
    if (getKeyType(C("dms"), C("logFilePath"), type) == CFG_OK)
        printf("  type of logFilePath: %s\n", type == dtypeUTF8 ? "string" : "integer");
    deinitializeConfig();

    printf("\n%s:\n", path.c_str());
    FILE* f = fopen(path.c_str(), "rb");
    if (!f) return 1;
    char chunk[4096];
    size_t n;
    while ((n = fread(chunk, 1, sizeof chunk, f)) > 0) {
        // Show the CR LF endings for what they are.
        for (size_t i = 0; i < n; ++i) {
            if (chunk[i] == '\r')
                fputs("\\r", stdout);
            else if (chunk[i] == '\n')
                fputs("\\n\n", stdout);
            else
                putchar(chunk[i]);
        }
    }
    fclose(f);
    return ok ? 0 : 1;
}

}  // namespace

int main() {
    const char* tmp = getenv("TMPDIR");
    std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/config_demo-XXXXXX";
    std::vector<char> dir(pattern.begin(), pattern.end());
    dir.push_back('\0');
    if (!mkdtemp(dir.data())) {
        perror("mkdtemp");
        return 1;
    }
    const std::string path = std::string(dir.data()) + "/MediaServer.cfg";
    int rc = Run(path);
    unlink(path.c_str());
    rmdir(dir.data());
    return rc;
}
