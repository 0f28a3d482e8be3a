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
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "os/osTestSupport.h"
#include "support/support.h"

namespace {

using msptest::TempDir;

constexpr time_t kTime = 1234567890;
void* const kNoHandle = reinterpret_cast<void*>(~static_cast<uintptr_t>(0));

// The temporary paths are ASCII: widened byte by byte.
std::wstring Wide(const std::string& ascii) {
    return std::wstring(ascii.begin(), ascii.end());
}

std::vector<std::string> ListDisk(const std::string& dir) {
    std::vector<std::string> names;
    DIR* d = opendir(dir.c_str());
    while (struct dirent64* e = d ? readdir64(d) : nullptr) {
        if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) names.push_back(e->d_name);
    }
    if (d) closedir(d);
    std::sort(names.begin(), names.end());
    return names;
}

std::vector<std::string> Sorted(std::vector<std::string> names) {
    std::sort(names.begin(), names.end());
    return names;
}

void SetTime(const std::string& path, time_t when) {
    struct timeval times[2] = {{when, 0}, {when, 0}};
    ASSERT_EQ(0, utimes(path.c_str(), times)) << path;
}

void MakeFile(const std::string& path, const std::string& bytes) {
    msptest::WriteFile(path, bytes);
    SetTime(path, kTime);
}

int OpenDescriptors() {
    return static_cast<int>(ListDisk("/proc/self/fd").size());
}

// A record whose flag, size and time say "never written".
FileFindData Sentinel() {
    FileFindData data;
    memset(&data, 0, sizeof data);
    wcscpy(data.fileName, L"sentinel");
    data.isDirectory = 0xAA;
    data.fileSize = data.modifiedTime = 0xAAAAAAAA;
    return data;
}

// isDirectory, fileSize, modifiedTime.
using Entry = std::tuple<int, uint32_t, uint32_t>;
const Entry kDirectory{1, 0, 0}, kNotLookedAt{0, 0, 0};
Entry File(size_t size) {
    return Entry{0, static_cast<uint32_t>(size), static_cast<uint32_t>(kTime)};
}

// A whole walk, each record starting from the sentinel; the last reading of a name wins.
std::map<std::wstring, Entry> Walk(const std::string& path) {
    std::map<std::wstring, Entry> entries;
    std::wstring wide = Wide(path);
    FileFindData data = Sentinel();
    void* handle = Zv_FindFirst(&wide[0], &data);
    EXPECT_NE(nullptr, handle) << path;
    if (handle == nullptr) return entries;
    do {
        entries[data.fileName] = Entry{data.isDirectory, data.fileSize, data.modifiedTime};
        data = Sentinel();
    } while (Zv_FindNext(handle, &wide[0], &data) == 0);
    EXPECT_EQ(1, Zv_FindClose(handle));
    return entries;
}

TEST(DirWalk, ReportsEveryEntryWithItsData) {
    TempDir dir;
    MakeFile(dir.file("a.txt"), "hello");
    ASSERT_EQ(0, mkdir(dir.file("sub").c_str(), 0755));
    ASSERT_EQ(0, mkfifo(dir.file("fifo").c_str(), 0600));
    std::map<std::wstring, Entry> expected = {{L".", kDirectory},
                                              {L"..", kDirectory},
                                              {L"sub", kDirectory},
                                              {L"a.txt", File(5)},
                                              {L"fifo", File(0)}};  // 0x1000 lacks the bit
    // A socket (0xC000) holds the directory bit.
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof address.sun_path, "%s", dir.file("sock").c_str());
    if (bind(fd, reinterpret_cast<struct sockaddr*>(&address), sizeof address) == 0)
        expected[L"sock"] = kDirectory;
    close(fd);
    // Above 4 GiB the low word of the size.
    fd = open(dir.file("big").c_str(), O_CREAT | O_WRONLY | O_LARGEFILE, 0600);
    if (ftruncate64(fd, 0x100000000LL + 4321) == 0) expected[L"big"] = File(4321);
    close(fd);
    if (expected.count(L"big")) SetTime(dir.file("big"), kTime);
    SetTime(dir.file("fifo"), kTime);

    EXPECT_EQ(expected, Walk(dir.path()));
    EXPECT_EQ(expected, Walk(dir.path() + "/")) << "two slashes in a row work all the same";
    EXPECT_EQ(expected.size() - 2, ListDisk(dir.path()).size());
    if (expected.count(L"sock") == 0 || expected.count(L"big") == 0)
        GTEST_SKIP() << "no socket or sparse file here";
}

TEST(DirWalk, NamesAreRenamedOnlyToPlainNamesThatSurviveTheConversions) {
    struct Case {
        std::string onDisk;
        std::wstring reported;
        std::string afterWalk;  // "" when it stays and is not looked at
    };
    const Case cases[] = {
        {"plain.txt", L"plain.txt", "plain.txt"},
        {"\xC3\xA9t\xC3\xA9", L"\u00E9t\u00E9", "\xC3\xA9t\xC3\xA9"},
        {"\xE4\xB8\xAD.txt", L"\u4E2D.txt", "\xE4\xB8\xAD.txt"},
        {"caf\xE9.txt", L"caf\u00E9.txt", "caf\xC3\xA9.txt"},             // Latin-1
        {"\xF0\x9F\x98\x80.log", L"\U0001F600.log", "\xEF\x98\x80.log"},  // four bytes: the low 16 bits
        {"x\xF0\x90\x8D\x88y", L"x\U00010348y", "x\xCD\x88y"},
        // The low 16 bits would make "a/b", "..", "." or a zero byte; C0 80 decodes to a zero unit.
        {"a\xF0\x90\x80\xAF"
         "b",
         L"a\U0001002Fb", ""},
        {"\xF0\x90\x80\xAE\xF0\x90\x80\xAE", L"\U0001002E\U0001002E", ""},
        {"\xF0\x90\x80\xAE", L"\U0001002E", ""},
        {"\xF0\x90\x80\x80x", L"\U00010000x", ""},
        {"ab\xC0\x80"
         "cd",
         L"ab", ""},
    };
    TempDir top;
    const std::string dir = top.file("walk");
    ASSERT_EQ(0, mkdir(dir.c_str(), 0755));
    ASSERT_EQ(0, mkdir((dir + "/a").c_str(), 0755));
    std::map<std::wstring, Entry> expected = {{L".", kDirectory}, {L"..", kDirectory}, {L"a", kDirectory}};
    std::vector<std::string> after = {"a"};
    for (const Case& c : cases) {
        MakeFile(dir + "/" + c.onDisk, c.onDisk);
        expected[c.reported] = c.afterWalk.empty() ? kNotLookedAt : File(c.onDisk.size());
        after.push_back(c.afterWalk.empty() ? c.onDisk : c.afterWalk);
    }
    EXPECT_EQ(expected, Walk(dir));
    EXPECT_EQ(Sorted(after), ListDisk(dir));
    for (const Case& c : cases) {
        EXPECT_EQ(c.onDisk, msptest::ReadFile(dir + "/" + (c.afterWalk.empty() ? c.onDisk : c.afterWalk)));
    }
    EXPECT_TRUE(ListDisk(dir + "/a").empty());
    EXPECT_EQ(std::vector<std::string>{"walk"}, ListDisk(top.path()));
    Walk(dir);
    EXPECT_EQ(Sorted(after), ListDisk(dir)) << "a second walk finds nothing left to rename";
}

void ExpectNoReplace() {
    TempDir dir;
    MakeFile(dir.file("caf\xE9"), "Latin-1");
    MakeFile(dir.file("caf\xC3\xA9"), "UTF-8");
    MakeFile(dir.file("na\xEFve"), "alone");
    Walk(dir.path());
    EXPECT_EQ(Sorted({"caf\xC3\xA9", "caf\xE9", "na\xC3\xAFve"}), ListDisk(dir.path()));
    EXPECT_EQ("Latin-1", msptest::ReadFile(dir.file("caf\xE9")));
    EXPECT_EQ("UTF-8", msptest::ReadFile(dir.file("caf\xC3\xA9")));
    EXPECT_EQ("alone", msptest::ReadFile(dir.file("na\xC3\xAFve")));
}

TEST(DirWalk, ARenameNeverReplacesAnExistingFile) {
    ExpectNoReplace();
    // A file system that refuses the no-replace flag gets a look before the rename.
    ostest::SystemCallsGuard guard;
    osSystemCalls.renameAt2 = [](int, const char*, int, const char*, unsigned int) {
        return errno = EINVAL, -1;
    };
    ExpectNoReplace();
}

TEST(DirWalk, ChildDirectoryWalkPassesOverTheRestAndNoHandleIsEverUsed) {
    TempDir dir;
    // A child directory's name sorts after "..": a first unit above '.', the dot itself excluded.
    for (const char* name : {"abc", "0", "\xC3\xA9", "-abc", "#x", ".hidden", "(p", "+q"})
        mkdir(dir.file(name).c_str(), 0755);
    MakeFile(dir.file("file.txt"), "x");
    MakeFile(dir.file("caf\xE9"), "x");
    std::wstring path = Wide(dir.path());
    std::vector<std::wstring> found;
    FileFindData data = Sentinel();
    void* handle = Zv_FindFirstChildDir(&path[0], &data);
    ASSERT_TRUE(handle != kNoHandle && handle != nullptr);
    do {
        EXPECT_EQ(1, data.isDirectory);
        found.push_back(data.fileName);
    } while (Zv_FindNextChildDir(handle, &path[0], &data) == 1);
    EXPECT_EQ(1, Zv_FindClose(handle));
    std::sort(found.begin(), found.end());
    EXPECT_EQ((std::vector<std::wstring>{L"0", L"abc", L"\u00E9"}), found);
    EXPECT_TRUE(msptest::FileExists(dir.file("caf\xC3\xA9"))) << "entries passed over are renamed too";

    // No child directory, or no directory: -1, and nothing left open.
    TempDir none;
    mkdir(none.file(".hidden").c_str(), 0755);
    mkdir(none.file("#x").c_str(), 0755);
    MakeFile(none.file("file.txt"), "x");
    std::wstring empty = Wide(none.path()), missing = Wide(none.file("missing"));
    int openBefore = OpenDescriptors();
    EXPECT_EQ(kNoHandle, Zv_FindFirstChildDir(&empty[0], &data));
    EXPECT_EQ(kNoHandle, Zv_FindFirstChildDir(&missing[0], &data));
    EXPECT_EQ(kNoHandle, Zv_FindFirstChildDir(nullptr, &data));
    EXPECT_EQ(openBefore, OpenDescriptors());
    EXPECT_EQ(nullptr, Zv_FindFirst(&missing[0], &data));
    EXPECT_EQ(nullptr, Zv_FindFirst(nullptr, &data));
    // Neither kind of "no handle" is read from or closed, but only -1 is refused.
    EXPECT_EQ(0, Zv_FindClose(kNoHandle));
    EXPECT_EQ(1, Zv_FindClose(nullptr));
    EXPECT_EQ(-1, Zv_FindNext(nullptr, &path[0], &data));
    EXPECT_EQ(-1, Zv_FindNext(kNoHandle, &path[0], &data));
    EXPECT_EQ(0, Zv_FindNextChildDir(kNoHandle, &path[0], &data));
}

TEST(DirWalk, MakeSearchPathCutsOneFinalSlash) {
    const std::pair<std::wstring, std::wstring> cases[] = {{L"/var/log/", L"/var/log"},
                                                           {L"/var/log//", L"/var/log/"},
                                                           {L"/var/log", L"/var/log"},
                                                           {L"/", L""},
                                                           {L"", L""},
                                                           {L"a/b\u00E9/", L"a/b\u00E9"}};
    for (auto c : cases) {
        Zv_MakeSearchPath(&c.first[0]);
        EXPECT_EQ(c.second, std::wstring(c.first.c_str()));
    }
    Zv_MakeSearchPath(nullptr);
}

// Zv_GetFileData in a child whose stdout and stderr are fresh files (wprintf needs a stream not yet used for
// bytes). Gives "result flag size time name | stdout | stderr".
std::string GetFileDataInChild(const TempDir& dir, const wchar_t* path) {
    std::string out = dir.file("out.txt"), err = dir.file("err.txt"), result = dir.file("result.txt");
    EXPECT_EQ(0, msptest::RunChild(
                     [&] {
                         if (!freopen(out.c_str(), "w", stdout) || !freopen(err.c_str(), "w", stderr))
                             return 2;
                         FileFindData data = Sentinel();
                         int r = Zv_GetFileData(const_cast<wchar_t*>(path), &data);
                         fflush(stdout);
                         fflush(stderr);
                         FILE* f = fopen(result.c_str(), "w");
                         if (!f) return 3;
                         fprintf(f, "%d %d %u %u %ls", r, data.isDirectory, data.fileSize, data.modifiedTime,
                                 data.fileName);
                         fclose(f);
                         return 0;
                     },
                     30000));
    return msptest::ReadFile(result) + " | " + msptest::ReadFile(out) + " | " + msptest::ReadFile(err);
}

TEST(DirWalk, GetFileDataResultsAndMessages) {
    TempDir dir;
    MakeFile(dir.file("data.bin"), "twelve bytes");
    ASSERT_EQ(0, mkdir(dir.file("sub").c_str(), 0755));
    SetTime(dir.file("sub"), kTime + 7);
    std::wstring file = Wide(dir.file("data.bin")), sub = Wide(dir.file("sub")),
                 missing = Wide(dir.file("missing"));
    std::wstring tooLong(400, L'\u4E2D');  // 1200 bytes of UTF-8
    const std::string untouched = "0 170 2863311530 2863311530 sentinel | ";
    EXPECT_EQ("1 0 12 1234567890 sentinel |  | ", GetFileDataInChild(dir, file.c_str()));
    EXPECT_EQ("0 0 0 0 sentinel | Zv_GetFileData: st_mode failed\n | ", GetFileDataInChild(dir, sub.c_str()));
    EXPECT_EQ(
        untouched + "Zv_GetFileData failed : 2.\n | Zv_GetFileData failed...\n: No such file or directory\n",
        GetFileDataInChild(dir, missing.c_str()));
    for (const wchar_t* path : {static_cast<const wchar_t*>(nullptr), tooLong.c_str()}) {
        EXPECT_EQ(untouched + "Zv_GetFileData: failed to convert UCS to CHAR.\n | ",
                  GetFileDataInChild(dir, path));
    }
    EXPECT_EQ(kTime, Zv_GetLastModifiedDateTime(&file[0]));
    EXPECT_EQ(kTime + 7, Zv_GetLastModifiedDateTime(&sub[0]));
    for (wchar_t* path : {&missing[0], static_cast<wchar_t*>(nullptr), &tooLong[0]}) {
        EXPECT_EQ(0, Zv_GetLastModifiedDateTime(path));
    }
}

// Nested directories under `base` making a path of exactly `length` bytes.
std::string MakePathOfLength(const std::string& base, size_t length) {
    std::string path = base;
    while (path.size() < length) {
        size_t left = length - path.size() - 1;
        path += "/" + std::string(left > 200 ? 150 : left, 'd');
        if (mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) return "";
    }
    return path;
}

TEST(DirWalk, PathsBeyondTheLimitsAreNeitherOpenedNorRenamed) {
    TempDir top;
    std::string longest = MakePathOfLength(top.path(), 1023);
    ASSERT_EQ(1023u, longest.size());
    ASSERT_EQ(0, mkdir((longest + "x").c_str(), 0755));
    std::wstring tooLong = Wide(longest + "x"), multiByte(400, L'\u4E2D');
    Walk(longest);  // 1023 bytes is the longest directory path
    FileFindData data = Sentinel();
    EXPECT_EQ(nullptr, Zv_FindFirst(&tooLong[0], &data));
    EXPECT_EQ(nullptr, Zv_FindFirst(&multiByte[0], &data));
    EXPECT_EQ(kNoHandle, Zv_FindFirstChildDir(&tooLong[0], &data));
    EXPECT_EQ(0, Zv_GetLastModifiedDateTime(&tooLong[0]));

    // A directory of 1000 bytes: an entry path of 1023 bytes is looked at, one of 1024 is not.
    ASSERT_EQ(0, mkdir(top.file("e").c_str(), 0755));
    std::string dir = MakePathOfLength(top.file("e"), 1000);
    ASSERT_EQ(1000u, dir.size());
    const std::string fits(22, 'f'), doesNot(23, 'g');
    const std::string latin1Fits = "\xE9" + std::string(20, 'h');     // renamed: 1000 + 1 + 22
    const std::string latin1DoesNot = "\xE9" + std::string(21, 'i');  // its new name would make 1024
    // Its new name would make 1023 bytes, but the old path, 1024, cannot be built for the rename.
    const std::string oldTooLong = "\xF0\x9F\x98\x80" + std::string(19, 'j');
    for (const std::string& name : {fits, doesNot, latin1Fits, latin1DoesNot, oldTooLong})
        MakeFile(dir + "/" + name, name);
    const std::map<std::wstring, Entry> expected = {
        {L".", kDirectory},
        {L"..", kDirectory},
        {Wide(fits), File(22)},
        {Wide(doesNot), kNotLookedAt},
        {L"\u00E9" + Wide(std::string(20, 'h')), File(21)},
        {L"\u00E9" + Wide(std::string(21, 'i')), kNotLookedAt},
        {L"\U0001F600" + Wide(std::string(19, 'j')), kNotLookedAt}};
    EXPECT_EQ(expected, Walk(dir));
    EXPECT_EQ(Sorted({"\xC3\xA9" + std::string(20, 'h'), doesNot, fits, latin1DoesNot, oldTooLong}),
              ListDisk(dir));
}

}  // namespace
