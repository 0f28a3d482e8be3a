#include "msplatform/dirWalk.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "msplatform/unicode.h"
#include "os/osTestSupport.h"
#include "support/support.h"

namespace {

using msptest::TempDir;

constexpr time_t kTime = 1234567890;
void* const kNoHandle = reinterpret_cast<void*>(~static_cast<uintptr_t>(0));

// Widens bytes one to one: the temporary paths are ASCII.
std::wstring Wide(const std::string& ascii) {
    return std::wstring(ascii.begin(), ascii.end());
}

std::string Utf8(const wchar_t* text) {
    std::vector<unsigned char> out(wcslen(text) * 3 + 1);
    Convert_UCS_UTF8(text, out.data());
    return reinterpret_cast<const char*>(out.data());
}

std::vector<std::string> ListDisk(const std::string& dir) {
    std::vector<std::string> names;
    DIR* d = opendir(dir.c_str());
    if (d == nullptr) return names;
    while (struct dirent64* e = readdir64(d)) {
        if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) names.push_back(e->d_name);
    }
    closedir(d);
    std::sort(names.begin(), names.end());
    return names;
}

void MakeFile(const std::string& path, const std::string& bytes, time_t mtime = kTime) {
    msptest::WriteFile(path, bytes);
    struct timeval times[2] = {{mtime, 0}, {mtime, 0}};
    ASSERT_EQ(0, utimes(path.c_str(), times)) << path;
}

void MakeDir(const std::string& path) {
    ASSERT_EQ(0, mkdir(path.c_str(), 0755)) << path;
}

int OpenDescriptors() {
    int count = 0;
    DIR* d = opendir("/proc/self/fd");
    while (d != nullptr && readdir64(d) != nullptr) ++count;
    if (d != nullptr) closedir(d);
    return count;
}

// A record whose flag, size and time say "never written".
FileFindData Sentinel() {
    FileFindData data;
    memset(&data, 0, sizeof data);
    wcscpy(data.fileName, L"sentinel");
    data.isDirectory = 0xAA;
    data.fileSize = 0xAAAAAAAA;
    data.modifiedTime = 0xAAAAAAAA;
    return data;
}

struct Entry {
    int isDirectory;
    uint32_t fileSize;
    uint32_t modifiedTime;
    bool operator==(const Entry& o) const {
        return isDirectory == o.isDirectory && fileSize == o.fileSize && modifiedTime == o.modifiedTime;
    }
};

std::ostream& operator<<(std::ostream& out, const Entry& e) {
    return out << "{" << e.isDirectory << ", " << e.fileSize << ", " << e.modifiedTime << "}";
}

// A whole walk, entry by entry, each record starting from the sentinel. The last reading of a name wins
// (a renamed entry may come twice).
std::map<std::wstring, Entry> Walk(const std::wstring& path) {
    std::map<std::wstring, Entry> entries;
    FileFindData data = Sentinel();
    void* handle = Zv_FindFirst(const_cast<wchar_t*>(path.c_str()), &data);
    EXPECT_NE(nullptr, handle);
    if (handle == nullptr) return entries;
    do {
        entries[data.fileName] = {data.isDirectory, data.fileSize, data.modifiedTime};
        data = Sentinel();
    } while (Zv_FindNext(handle, const_cast<wchar_t*>(path.c_str()), &data) == 0);
    EXPECT_EQ(1, Zv_FindClose(handle));
    return entries;
}

const Entry kDirectory = {1, 0, 0};
const Entry kNotLookedAt = {0, 0, 0};
Entry File(uint32_t size) {
    return {0, size, static_cast<uint32_t>(kTime)};
}

TEST(DirWalk, ReportsEveryEntryWithItsData) {
    TempDir dir;
    MakeFile(dir.file("a.txt"), "hello");
    MakeDir(dir.file("sub"));
    const std::map<std::wstring, Entry> expected = {
        {L".", kDirectory}, {L"..", kDirectory}, {L"a.txt", File(5)}, {L"sub", kDirectory}};
    EXPECT_EQ(expected, Walk(Wide(dir.path())));
    // A final slash gives paths with two slashes in a row, which work all the same.
    EXPECT_EQ(expected, Walk(Wide(dir.path() + "/")));
    EXPECT_EQ((std::vector<std::string>{"a.txt", "sub"}), ListDisk(dir.path()));
}

TEST(DirWalk, TheDirectoryBitAloneMakesADirectory) {
    TempDir dir;
    std::string socketPath = dir.file("sock");
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_GE(fd, 0);
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    ASSERT_LT(socketPath.size(), sizeof address.sun_path);
    strcpy(address.sun_path, socketPath.c_str());
    bool bound = bind(fd, reinterpret_cast<struct sockaddr*>(&address), sizeof address) == 0;
    close(fd);
    ASSERT_EQ(0, mkfifo(dir.file("fifo").c_str(), 0600));
    auto entries = Walk(Wide(dir.path()));
    EXPECT_EQ(0, entries.at(L"fifo").isDirectory) << "0x1000 lacks the bit";
    if (!bound) GTEST_SKIP() << "no socket could be bound here";
    EXPECT_EQ(kDirectory, entries.at(L"sock")) << "0xC000 holds the bit";
}

TEST(DirWalk, NamesThatDoNotSurviveTheConversionsAreRenamed) {
    struct Case {
        std::string onDisk;
        std::wstring reported;
        std::string afterWalk;
    };
    const Case cases[] = {
        {"plain.txt", L"plain.txt", "plain.txt"},
        {"\xC3\xA9t\xC3\xA9", L"\u00E9t\u00E9", "\xC3\xA9t\xC3\xA9"},     // two-byte UTF-8
        {"\xE4\xB8\xAD.txt", L"\u4E2D.txt", "\xE4\xB8\xAD.txt"},          // three-byte UTF-8
        {"caf\xE9.txt", L"caf\u00E9.txt", "caf\xC3\xA9.txt"},             // Latin-1
        {"\xF0\x9F\x98\x80.log", L"\U0001F600.log", "\xEF\x98\x80.log"},  // four-byte UTF-8
        {"x\xF0\x90\x8D\x88y", L"x\U00010348y", "x\xCD\x88y"},            // four-byte UTF-8
    };
    TempDir dir;
    std::vector<std::string> expected;
    for (const Case& c : cases) {
        MakeFile(dir.file(c.onDisk), "data of " + c.afterWalk);
        expected.push_back(c.afterWalk);
    }
    std::sort(expected.begin(), expected.end());
    auto entries = Walk(Wide(dir.path()));
    for (const Case& c : cases) {
        ASSERT_EQ(1u, entries.count(c.reported)) << c.afterWalk;
        EXPECT_EQ(File(static_cast<uint32_t>(8 + c.afterWalk.size())), entries[c.reported]) << c.afterWalk;
        EXPECT_EQ(c.afterWalk, Utf8(c.reported.c_str()));
        EXPECT_EQ("data of " + c.afterWalk, msptest::ReadFile(dir.file(c.afterWalk)));
    }
    EXPECT_EQ(expected, ListDisk(dir.path()));
    // A second walk finds nothing left to rename.
    Walk(Wide(dir.path()));
    EXPECT_EQ(expected, ListDisk(dir.path()));
}

void ExpectNoReplace(const char* how) {
    SCOPED_TRACE(how);
    TempDir dir;
    MakeFile(dir.file("caf\xE9"), "Latin-1");
    MakeFile(dir.file("caf\xC3\xA9"), "UTF-8");
    MakeFile(dir.file("na\xEFve"), "alone");
    Walk(Wide(dir.path()));
    std::vector<std::string> expected = {"caf\xC3\xA9", "caf\xE9", "na\xC3\xAFve"};
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(expected, ListDisk(dir.path()));
    EXPECT_EQ("Latin-1", msptest::ReadFile(dir.file("caf\xE9")));
    EXPECT_EQ("UTF-8", msptest::ReadFile(dir.file("caf\xC3\xA9")));
    EXPECT_EQ("alone", msptest::ReadFile(dir.file("na\xC3\xAFve")));
}

TEST(DirWalk, ARenameNeverReplacesAnExistingFile) {
    ExpectNoReplace("rename without replacing");
    // A file system that refuses the no-replace flag gets a look before the rename.
    ostest::SystemCallsGuard guard;
    osSystemCalls.renameAt2 = [](int, const char*, int, const char*, unsigned int) {
        errno = EINVAL;
        return -1;
    };
    ExpectNoReplace("look, then rename");
}

TEST(DirWalk, NormalisedNamesThatAreNoPlainNameAreLeftAlone) {
    // Four-byte sequences whose low 16 bits are "/", "." or zero, and a decoded zero unit.
    const std::string names[] = {
        "a\xF0\x90\x80\xAF"
        "b",                                 // would become a/b
        "\xF0\x90\x80\xAE\xF0\x90\x80\xAE",  // would become ..
        "\xF0\x90\x80\xAE",                  // would become .
        "\xF0\x90\x80\x80x",                 // would be cut by a zero byte
        "ab\xC0\x80"
        "cd",  // decodes to a zero unit: "ab"
    };
    TempDir top;
    std::string dir = top.file("walk");
    MakeDir(dir);
    MakeDir(dir + "/a");
    std::vector<std::string> before = {"a"};
    for (const std::string& name : names) {
        MakeFile(dir + "/" + name, name);
        before.push_back(name);
    }
    std::sort(before.begin(), before.end());
    auto entries = Walk(Wide(dir));
    EXPECT_EQ(before, ListDisk(dir));
    EXPECT_TRUE(ListDisk(dir + "/a").empty());
    EXPECT_EQ(std::vector<std::string>{"walk"}, ListDisk(top.path()));
    for (const std::string& name : names) EXPECT_EQ(name, msptest::ReadFile(dir + "/" + name));
    // Not looked at: no data of another entry (the parent, "a") is passed off as theirs.
    EXPECT_EQ(kNotLookedAt, entries.at(std::wstring(L"a\U0001002Fb")));
    EXPECT_EQ(kNotLookedAt, entries.at(std::wstring(L"\U0001002E\U0001002E")));
    EXPECT_EQ(kNotLookedAt, entries.at(std::wstring(L"\U0001002E")));
    EXPECT_EQ(kNotLookedAt, entries.at(std::wstring(L"\U00010000x")));
    EXPECT_EQ(kNotLookedAt, entries.at(L"ab"));
    EXPECT_EQ(kDirectory, entries.at(L"a"));
}

TEST(DirWalk, SparseFileAboveFourGiBGivesTheLowWordOfItsSize) {
    TempDir dir;
    std::string path = dir.file("big.bin");
    int fd = open(path.c_str(), O_CREAT | O_WRONLY | O_LARGEFILE, 0600);
    ASSERT_GE(fd, 0);
    bool grown = ftruncate64(fd, 0x100000000LL + 4321) == 0;
    close(fd);
    if (!grown) GTEST_SKIP() << "this file system holds no sparse file above 4 GiB";
    struct timeval times[2] = {{kTime, 0}, {kTime, 0}};
    ASSERT_EQ(0, utimes(path.c_str(), times));
    EXPECT_EQ(File(4321), Walk(Wide(dir.path())).at(L"big.bin"));
    FileFindData data = Sentinel();
    std::wstring wide = Wide(path);
    EXPECT_EQ(1, Zv_GetFileData(&wide[0], &data));
    EXPECT_EQ(4321u, data.fileSize);
}

TEST(DirWalk, IsChildDirDecidesByTheFlagAndTheFirstUnit) {
    struct Case {
        int isDirectory;
        const wchar_t* name;
        int expected;
    };
    const Case cases[] = {
        {1, L"abc", 1}, {1, L"0", 1},   {1, L"\u00E9", 1},  {0, L"abc", 0},  {1, L".", 0},
        {1, L"..", 0},  {1, L"...", 0}, {1, L".hidden", 0}, {1, L"-abc", 0}, {1, L"#x", 0},
        {1, L"(p", 0},  {1, L"+q", 0},  {1, L"", 0},        {2, L"abc", 0},
    };
    for (const Case& c : cases) {
        FileFindData data = Sentinel();
        data.isDirectory = static_cast<uint8_t>(c.isDirectory);
        wcscpy(data.fileName, c.name);
        EXPECT_EQ(c.expected, Zv_IsChildDir(&data)) << Utf8(c.name) << " " << c.isDirectory;
    }
}

TEST(DirWalk, ChildDirectoryWalkPassesOverFilesDotsAndLowNames) {
    TempDir dir;
    for (const char* name : {"abc", "zeta", "-abc", "#x", ".hidden", "(p", "+q"}) MakeDir(dir.file(name));
    MakeFile(dir.file("file.txt"), "x");
    MakeFile(dir.file("caf\xE9"), "x");
    EXPECT_EQ(kDirectory, Walk(Wide(dir.path())).at(L"-abc")) << "reported as a directory all the same";

    std::wstring path = Wide(dir.path());
    std::vector<std::wstring> found;
    FileFindData data = Sentinel();
    void* handle = Zv_FindFirstChildDir(&path[0], &data);
    ASSERT_NE(kNoHandle, handle);
    ASSERT_NE(nullptr, handle);
    do {
        EXPECT_EQ(1, data.isDirectory);
        found.push_back(data.fileName);
    } while (Zv_FindNextChildDir(handle, &path[0], &data) == 1);
    EXPECT_EQ(0, Zv_IsChildDir(&data)) << "the last entry read is no child directory";
    EXPECT_EQ(1, Zv_FindClose(handle));
    std::sort(found.begin(), found.end());
    EXPECT_EQ((std::vector<std::wstring>{L"abc", L"zeta"}), found);
    EXPECT_TRUE(msptest::FileExists(dir.file("caf\xC3\xA9"))) << "entries passed over are renamed too";
}

TEST(DirWalk, NoChildDirectoryGivesMinusOneAndLeavesNothingOpen) {
    TempDir dir;
    MakeDir(dir.file(".hidden"));
    MakeDir(dir.file("#x"));
    MakeFile(dir.file("file.txt"), "x");
    std::wstring path = Wide(dir.path());
    std::wstring missing = Wide(dir.file("missing"));
    int openBefore = OpenDescriptors();
    FileFindData data = Sentinel();
    EXPECT_EQ(kNoHandle, Zv_FindFirstChildDir(&path[0], &data));
    EXPECT_EQ(kNoHandle, Zv_FindFirstChildDir(&missing[0], &data));
    EXPECT_EQ(openBefore, OpenDescriptors());

    EXPECT_EQ(nullptr, Zv_FindFirst(&missing[0], &data));
    EXPECT_EQ(nullptr, Zv_FindFirst(nullptr, &data));
    EXPECT_EQ(kNoHandle, Zv_FindFirstChildDir(nullptr, &data));
    // Neither kind of "no handle" is read from or closed.
    EXPECT_EQ(0, Zv_FindClose(kNoHandle));
    EXPECT_EQ(0, Zv_FindClose(nullptr));
    EXPECT_EQ(-1, Zv_FindNext(nullptr, &path[0], &data));
    EXPECT_EQ(-1, Zv_FindNext(kNoHandle, &path[0], &data));
    EXPECT_EQ(0, Zv_FindNextChildDir(kNoHandle, &path[0], &data));
}

TEST(DirWalk, MakeSearchPathCutsOneFinalSlash) {
    struct Case {
        const wchar_t* path;
        const wchar_t* expected;
    };
    const Case cases[] = {{L"/var/log/", L"/var/log"},
                          {L"/var/log//", L"/var/log/"},
                          {L"/var/log", L"/var/log"},
                          {L"/", L""},
                          {L"", L""},
                          {L"a/b\u00E9/", L"a/b\u00E9"}};
    for (const Case& c : cases) {
        std::wstring path = c.path;
        Zv_MakeSearchPath(&path[0]);
        EXPECT_EQ(std::wstring(c.expected), std::wstring(path.c_str())) << Utf8(c.path);
    }
    Zv_MakeSearchPath(nullptr);
}

// Runs Zv_GetFileData in a child whose stdout and stderr go to fresh files (wprintf needs a stream that has
// not yet been used for bytes). Gives "result flag size time name | stdout | stderr".
std::string GetFileDataInChild(const TempDir& dir, const wchar_t* path) {
    std::string out = dir.file("out.txt"), err = dir.file("err.txt"), result = dir.file("result.txt");
    int rc = msptest::RunChild(
        [&] {
            if (!freopen(out.c_str(), "w", stdout) || !freopen(err.c_str(), "w", stderr)) return 2;
            FileFindData data = Sentinel();
            int r = Zv_GetFileData(const_cast<wchar_t*>(path), &data);
            fflush(stdout);
            fflush(stderr);
            FILE* f = fopen(result.c_str(), "w");
            if (!f) return 3;
            fprintf(f, "%d %d %u %u %s", r, data.isDirectory, data.fileSize, data.modifiedTime,
                    Utf8(data.fileName).c_str());
            fclose(f);
            return 0;
        },
        30000);
    EXPECT_EQ(0, rc);
    return msptest::ReadFile(result) + " | " + msptest::ReadFile(out) + " | " + msptest::ReadFile(err);
}

TEST(DirWalk, GetFileDataResultsAndMessages) {
    TempDir dir;
    MakeFile(dir.file("data.bin"), "twelve bytes");
    MakeDir(dir.file("sub"));
    struct timeval times[2] = {{kTime + 7, 0}, {kTime + 7, 0}};
    ASSERT_EQ(0, utimes(dir.file("sub").c_str(), times));
    std::wstring file = Wide(dir.file("data.bin"));
    std::wstring sub = Wide(dir.file("sub"));
    std::wstring missing = Wide(dir.file("missing"));
    std::wstring tooLong(400, L'\u4E2D');  // 1200 bytes of UTF-8

    EXPECT_EQ("1 0 12 1234567890 sentinel |  | ", GetFileDataInChild(dir, file.c_str()));
    EXPECT_EQ("0 0 0 0 sentinel | Zv_GetFileData: st_mode failed\n | ", GetFileDataInChild(dir, sub.c_str()));
    EXPECT_EQ(
        "0 170 2863311530 2863311530 sentinel | Zv_GetFileData failed : 2.\n"
        " | Zv_GetFileData failed...\n: No such file or directory\n",
        GetFileDataInChild(dir, missing.c_str()));
    const std::string notConverted =
        "0 170 2863311530 2863311530 sentinel | Zv_GetFileData: failed to convert UCS to CHAR.\n | ";
    EXPECT_EQ(notConverted, GetFileDataInChild(dir, nullptr));
    EXPECT_EQ(notConverted, GetFileDataInChild(dir, tooLong.c_str()));

    EXPECT_EQ(kTime, Zv_GetLastModifiedDateTime(&file[0]));
    EXPECT_EQ(kTime + 7, Zv_GetLastModifiedDateTime(&sub[0]));
    EXPECT_EQ(0, Zv_GetLastModifiedDateTime(&missing[0]));
    EXPECT_EQ(0, Zv_GetLastModifiedDateTime(nullptr));
    EXPECT_EQ(0, Zv_GetLastModifiedDateTime(&tooLong[0]));
}

// Makes nested directories under `base` so that the whole path is exactly `length` bytes.
std::string MakePathOfLength(const std::string& base, size_t length) {
    std::string path = base;
    while (path.size() < length) {
        size_t left = length - path.size() - 1;  // one byte goes to the "/"
        size_t part = left > 200 ? 150 : left;
        path += "/" + std::string(part, 'd');
        if (mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) return "";
    }
    return path;
}

TEST(DirWalk, PathsBeyondTheLimitsAreNeitherOpenedNorRenamed) {
    TempDir top;
    std::string longest = MakePathOfLength(top.path(), 1023);
    std::string tooLong = longest + "x";
    ASSERT_EQ(1023u, longest.size());
    ASSERT_EQ(0, mkdir(tooLong.c_str(), 0755));
    std::wstring wideLongest = Wide(longest), wideTooLong = Wide(tooLong);
    FileFindData data = Sentinel();
    void* handle = Zv_FindFirst(&wideLongest[0], &data);
    EXPECT_NE(nullptr, handle) << "1023 bytes is the longest directory path";
    Zv_FindClose(handle);
    EXPECT_EQ(nullptr, Zv_FindFirst(&wideTooLong[0], &data));
    EXPECT_EQ(kNoHandle, Zv_FindFirstChildDir(&wideTooLong[0], &data));
    EXPECT_EQ(0, Zv_GetLastModifiedDateTime(&wideTooLong[0]));
    std::wstring wideMultiByte(400, L'\u4E2D');
    EXPECT_EQ(nullptr, Zv_FindFirst(&wideMultiByte[0], &data));

    // A directory of 1000 bytes: an entry path of 1023 bytes is looked at, one of 1024 is not.
    MakeDir(top.file("e"));
    std::string dir = MakePathOfLength(top.file("e"), 1000);
    ASSERT_EQ(1000u, dir.size());
    const std::string fits(22, 'f');                                  // 1000 + 1 + 22 = 1023
    const std::string doesNot(23, 'g');                               // 1024
    const std::string latin1Fits = "\xE9" + std::string(20, 'h');     // renamed: 1000 + 1 + 22
    const std::string latin1DoesNot = "\xE9" + std::string(21, 'i');  // its new name would make 1024
    // Its new name would make 1023 bytes, but the old path, 1024, cannot be built for the rename.
    const std::string oldTooLong = "\xF0\x9F\x98\x80" + std::string(19, 'j');
    for (const std::string& name : {fits, doesNot, latin1Fits, latin1DoesNot, oldTooLong}) {
        MakeFile(dir + "/" + name, name);
    }
    auto entries = Walk(Wide(dir));
    EXPECT_EQ(File(22), entries.at(Wide(fits)));
    EXPECT_EQ(kNotLookedAt, entries.at(Wide(doesNot)));
    EXPECT_EQ(File(21), entries.at(L"\u00E9" + Wide(std::string(20, 'h'))));
    EXPECT_EQ(kNotLookedAt, entries.at(L"\u00E9" + Wide(std::string(21, 'i'))));
    EXPECT_EQ(kNotLookedAt, entries.at(L"\U0001F600" + Wide(std::string(19, 'j'))));
    EXPECT_EQ(kDirectory, entries.at(L"."));
    std::vector<std::string> expected = {"\xC3\xA9" + std::string(20, 'h'), doesNot, fits, latin1DoesNot,
                                         oldTooLong};
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(expected, ListDisk(dir));
}

}  // namespace
