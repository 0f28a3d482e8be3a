#include "msplatform/dirWalk.h"

#include <errno.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <map>
#include <set>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "os/osTestSupport.h"

namespace {

constexpr time_t kTime = 1234567890;
void* const kNoHandle = reinterpret_cast<void*>(~uintptr_t(0));
const FileFindData kSentinel = {L"sentinel", 0xAA, 0xAAAAAAAA, 0xAAAAAAAA};

const auto Wide = [](const std::string& ascii) { return std::wstring(ascii.begin(), ascii.end()); };

void SetTime(const std::string& path, const char* bytes = nullptr) {
    if (bytes) msptest::WriteFile(path, bytes);
    struct timeval times[2] = {{kTime, 0}, {kTime, 0}};
    utimes(path.c_str(), times);
}

// isDirectory, fileSize and modifiedTime of each name a walk reports, every record starting as the sentinel.
using Entry = std::tuple<int, uint32_t, uint32_t>;
const Entry kDirectory{1, 0, 0}, kNotLookedAt{0, 0, 0};
const auto File = [](size_t size) { return Entry{0, uint32_t(size), uint32_t(kTime)}; };

std::map<std::wstring, Entry> Walk(const std::string& path) {
    std::map<std::wstring, Entry> entries;
    std::wstring wide = Wide(path);
    FileFindData data = kSentinel;
    void* handle = Zv_FindFirst(&wide[0], &data);
    for (int more = handle ? 0 : -1; more == 0; data = kSentinel, more = Zv_FindNext(handle, &wide[0], &data))
        entries[data.fileName] = Entry{data.isDirectory, data.fileSize, data.modifiedTime};
    EXPECT_EQ(1, Zv_FindClose(handle));
    return entries;
}

// A walk renames a name that the conversions change to its new form, unless that would cut the path, move the
// file or replace another (also where the file system refuses the no-replace flag); the name then stays and
// its entry is not looked at, or shows the other file. Paths are measured before they are converted: in a
// directory of 999 bytes walked as "dir/", entry paths of 1023 bytes are looked at, of 1024 are reported by
// name only and never renamed, nor are those whose old path would take 1024. Every file keeps its bytes.
TEST(DirWalk, EntriesTheirNamesOnDiskAndThePathLimits) {
    const std::string h(20, 'h'), j(19, 'j');
    // On disk, reported, on disk after the walk ("" when it stays and is not looked at).
    const std::tuple<std::string, std::wstring, std::string> names[] = {
        {"\xC3\xA9t\xE4\xB8\xAD", L"\u00E9t\u4E2D", "\xC3\xA9t\xE4\xB8\xAD"},  // UTF-8 stays
        {"caf\xE9", L"caf\u00E9", "caf\xC3\xA9"},                              // Latin-1
        {"\xF0\x9F\x98\x80.log", L"\U0001F600.log", "\xEF\x98\x80.log"},       // four bytes: the low 16 bits
        {"a\xF0\x90\x80\xAF\x62", L"a\U0001002Fb", ""},                        // would be "a/b"
        {"\xF0\x90\x80\x80x", L"\U00010000x", ""},                             // a zero byte would cut it
        {"ab\xC0\x80\x63\x64", L"ab", ""},                                     // decodes to a zero unit
        {"na\xEFve", L"na\u00EFve", "na\xEFve"},                               // the UTF-8 name is taken
        {"na\xC3\xAFve", L"na\u00EFve", "na\xC3\xAFve"},
        {std::string(22, 'f'), std::wstring(22, L'f'), std::string(22, 'f')},
        {std::string(23, 'g'), std::wstring(23, L'g'), ""},
        {"\xE9" + h, L"\u00E9" + Wide(h), "\xC3\xA9" + h},
        {"\xE9" + h + "i", L"\u00E9" + Wide(h) + L"i", ""},
        {"\xF0\x9F\x98\x80" + j, L"\U0001F600" + Wide(j), ""},
    };
    for (bool flagRefused : {false, true}) {
        SystemCallsGuard guard;
        if (flagRefused)
            osSystemCalls.renameAt2 = [](int, const char*, int, const char*, unsigned) {
                return errno = EINVAL, -1;
            };
        msptest::TempDir top;
        std::string dir = top.path();
        while (dir.size() < 999)
            dir += "/" + std::string(std::min<size_t>(150, 998 - dir.size()), 'd'), mkdir(dir.c_str(), 0755);
        ASSERT_EQ(999u, dir.size());
        mkdir((dir + "/sub").c_str(), 0755);
        mkfifo((dir + "/fifo").c_str(), 0600);  // 0x1000 lacks the directory bit
        SetTime(dir + "/fifo");
        std::map<std::wstring, Entry> expected = {
            {L".", kDirectory}, {L"..", kDirectory}, {L"sub", kDirectory}, {L"fifo", File(0)}};
        std::set<std::string> after = {"sub/", "fifo"};
        for (const auto& [onDisk, reported, renamed] : names) {
            SetTime(dir + "/" + onDisk, onDisk.c_str());
            expected[reported] =
                renamed.empty() ? kNotLookedAt : File(reported == L"na\u00EFve" ? 6 : onDisk.size());
            after.insert(renamed.empty() ? onDisk : renamed);
        }
        msptest::WriteFile(dir + "/big", "");
        if (truncate64((dir + "/big").c_str(), 0x100000000LL + 4321) == 0)
            expected[L"big"] = File(4321), after.insert("big");
        SetTime(dir + "/big");
        EXPECT_EQ(expected, Walk(dir + "/"));  // two slashes in a row work all the same
        EXPECT_EQ(std::vector<std::string>(after.begin(), after.end()), msptest::ListDir(dir));
        for (const auto& [onDisk, reported, renamed] : names)
            EXPECT_EQ(onDisk, msptest::ReadFile(dir + "/" + (renamed.empty() ? onDisk : renamed)));
        mkdir((dir + std::string(25, 'x')).c_str(), 0755);
        FileFindData data = kSentinel;  // the directory's path takes 1024 bytes
        EXPECT_EQ(nullptr, Zv_FindFirst(&Wide(dir + std::string(25, 'x'))[0], &data));
    }
}

// A child directory is a directory whose name's first unit is above '.'; the walk passes over the rest (and
// still renames). Of the two "no handle" values, -1 and null, neither is read from; close refuses -1.
TEST(DirWalk, ChildDirectoriesAndNoHandles) {
    msptest::TempDir dir, none;
    for (const char* name : {"abc", "\xC3\xA9", "-abc", "#x", ".hidden"}) mkdir(dir.file(name).c_str(), 0755);
    SetTime(dir.file("caf\xE9"), "x");
    mkdir(none.file(".hidden").c_str(), 0755);
    std::wstring path = Wide(dir.path()), empty = Wide(none.path()), missing = Wide(none.file("missing"));
    std::set<std::wstring> found;
    FileFindData data = kSentinel;
    void* handle = Zv_FindFirstChildDir(&path[0], &data);
    ASSERT_TRUE(handle != kNoHandle && handle != nullptr);
    EXPECT_EQ(1, Zv_IsChildDir(&data));
    do found.insert(data.fileName);
    while (Zv_FindNextChildDir(handle, &path[0], &data) == 1);
    EXPECT_EQ(1, Zv_FindClose(handle));
    EXPECT_EQ((std::set<std::wstring>{L"abc", L"\u00E9"}), found);
    EXPECT_EQ(0, access(dir.file("caf\xC3\xA9").c_str(), F_OK));
    const size_t open = msptest::ListDir("/proc/self/fd").size();
    EXPECT_EQ(kNoHandle, Zv_FindFirstChildDir(&empty[0], &data));
    EXPECT_EQ(kNoHandle, Zv_FindFirstChildDir(&missing[0], &data));
    EXPECT_EQ(open, msptest::ListDir("/proc/self/fd").size());  // no child: the handle is closed
    EXPECT_EQ(nullptr, Zv_FindFirst(&missing[0], &data));
    EXPECT_EQ(0, Zv_FindClose(kNoHandle));
    EXPECT_EQ(1, Zv_FindClose(nullptr));
    EXPECT_EQ(-1, Zv_FindNext(kNoHandle, &path[0], &data) + Zv_FindNextChildDir(kNoHandle, &path[0], &data));
    std::wstring slashes = L"/a//", nothing;
    Zv_MakeSearchPath(&slashes[0]), Zv_MakeSearchPath(&nothing[0]);
    EXPECT_EQ(L"/a/", std::wstring(slashes.c_str()));
}

// Zv_GetFileData takes a file, not a directory, and leaves the record alone where it can't look. Its wprintf
// must not turn the test's stdout to wide characters: stdout is held to bytes first.
TEST(DirWalk, GetFileDataAndLastModified) {
    ASSERT_LT(fwide(stdout, -1), 0);
    msptest::TempDir dir;
    SetTime(dir.file("data"), "twelve bytes");
    std::wstring file = Wide(dir.file("data")), sub = Wide(dir.path()), missing = Wide(dir.file("missing"));
    std::string results;
    for (wchar_t* path : {&file[0], &sub[0], &missing[0], (wchar_t*)nullptr}) {
        FileFindData data = kSentinel;
        results += std::to_string(Zv_GetFileData(path, &data)) + " ";
        results += std::to_string(data.isDirectory) + " " + std::to_string(data.fileSize) + " " +
                   std::to_string(data.modifiedTime) + "|";
    }
    EXPECT_EQ("1 0 12 1234567890|0 0 0 0|0 170 2863311530 2863311530|0 170 2863311530 2863311530|", results);
    EXPECT_EQ(kTime, Zv_GetLastModifiedDateTime(&file[0]));
    EXPECT_EQ(0, Zv_GetLastModifiedDateTime(&missing[0]) + Zv_GetLastModifiedDateTime(nullptr));
}

}  // namespace
