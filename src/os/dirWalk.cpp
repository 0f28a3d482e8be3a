#include "msplatform/dirWalk.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include "msplatform/unicode.h"
#include "os/internal.h"

namespace {

constexpr size_t kPathBytes = 1024;      // UTF-8 directory, file or entry path, with the terminator
constexpr size_t kWidePathUnits = 1024;  // wide entry path, with the terminator
constexpr size_t kWideNameUnits = 1024;  // wide working copy of a name
constexpr size_t kFileNameUnits = sizeof(FileFindData::fileName) / sizeof(wchar_t);
constexpr mode_t kDirectoryBit = 0x4000;

void* const kNoHandle = reinterpret_cast<void*>(~static_cast<uintptr_t>(0));

// Converts a wide path to UTF-8 in `out`. False for a null path, for one whose UTF-8 form does not fit, and
// for one holding a unit whose low 16 bits are zero: that unit encodes as a zero byte, and the cut text
// would name another path. The check mirrors Convert_UCS_UTF8, which encodes the low 16 bits of each unit
// in one to three bytes.
bool ToUtf8Path(const wchar_t* path, char (&out)[kPathBytes]) {
    if (path == nullptr) return false;
    size_t bytes = 0;
    for (const wchar_t* unit = path; *unit != 0; ++unit) {
        uint32_t c = static_cast<uint32_t>(*unit) & 0xFFFF;
        if (c == 0) return false;
        bytes += c < 0x80 ? 1 : c < 0x800 ? 2 : 3;
        if (bytes >= kPathBytes) return false;
    }
    return Convert_UCS_UTF8(path, reinterpret_cast<unsigned char*>(out)) == static_cast<int>(bytes);
}

// The entry could not be looked at: no stale data from an earlier entry is left behind.
void ClearData(FileFindData* data) {
    data->isDirectory = 0;
    data->fileSize = 0;
    data->modifiedTime = 0;
}

// One plain name of its directory: not empty, no "/", not "." or "..".
bool IsPlainName(const char* name) {
    if (name[0] == 0 || strchr(name, '/') != nullptr) return false;
    return strcmp(name, ".") != 0 && strcmp(name, "..") != 0;
}

// rename that never replaces an existing entry.
void RenameNoReplace(const char* from, const char* to) {
    if (osSystemCalls.renameAt2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE) == 0) return;
    if (errno != EINVAL && errno != ENOSYS) return;
    // A file system that knows no such flag: look first. An entry made between the look and the rename would
    // still be replaced; these file systems offer no closer test.
    struct stat64 st;
    if (::lstat64(to, &st) == 0 || errno != ENOENT) return;
    ::rename(from, to);
}

// Fills `data` from an entry just read. `dirPath` is the UTF-8 form of `widePath`, or null if that could not
// be made.
void ReadEntry(const struct dirent64* entry, const wchar_t* widePath, const char* dirPath,
               FileFindData* data) {
    const char* diskName = entry->d_name;
    wchar_t wideName[kWideNameUnits];
    // d_name holds at most 255 bytes and each byte gives at most one unit: the name fits both buffers.
    int units = Convert_UTF8_UCS(reinterpret_cast<const unsigned char*>(diskName), wideName);
    if (units < 0 || static_cast<size_t>(units) >= kFileNameUnits) {
        data->fileName[0] = 0;
        ClearData(data);
        return;
    }
    wcscpy(data->fileName, wideName);

    // Beyond the limits, or a name cut short by a decoded zero unit: the entry is reported by name only, as a
    // path built from it would not name it.
    wchar_t widePathOfEntry[kWidePathUnits];
    char path[kPathBytes];
    if (dirPath == nullptr || wcslen(wideName) != static_cast<size_t>(units) ||
        swprintf(widePathOfEntry, kWidePathUnits, L"%S/%S", widePath, wideName) < 0 ||
        !ToUtf8Path(widePathOfEntry, path)) {
        ClearData(data);
        return;
    }
    if (strstr(path, diskName) == nullptr) {
        // The conversion goes unit by unit, so the rebuilt path is the UTF-8 directory, "/", the new name. A
        // new name that is no plain name ("a/b", "..") would move the entry or name another one.
        const char* newName = path + strlen(dirPath) + 1;
        if (!IsPlainName(newName)) {
            ClearData(data);
            return;
        }
        char oldPath[kPathBytes];
        int length = snprintf(oldPath, sizeof oldPath, "%s/%s", dirPath, diskName);
        if (length < 0 || static_cast<size_t>(length) >= sizeof oldPath) {
            ClearData(data);
            return;
        }
        RenameNoReplace(oldPath, path);
    }

    struct stat64 st;
    if (::stat64(path, &st) != 0) return;
    if ((st.st_mode & kDirectoryBit) != 0) {
        data->isDirectory = 1;
        data->fileSize = 0;
        data->modifiedTime = 0;
    } else {
        data->isDirectory = 0;
        data->fileSize = static_cast<uint32_t>(st.st_size);
        data->modifiedTime = static_cast<uint32_t>(st.st_mtime);
    }
}

}  // namespace

void* Zv_FindFirst(wchar_t* path, FileFindData* data) {
    char dirPath[kPathBytes];
    if (!ToUtf8Path(path, dirPath)) return nullptr;
    DIR* dir = ::opendir(dirPath);
    if (dir == nullptr) return nullptr;
    const struct dirent64* entry = ::readdir64(dir);
    if (entry != nullptr) ReadEntry(entry, path, dirPath, data);
    return dir;
}

int Zv_FindNext(void* handle, wchar_t* path, FileFindData* data) {
    // -1 is refused as well: it is what Zv_FindFirstChildDir gives for no handle.
    if (handle == nullptr || handle == kNoHandle) return -1;
    const struct dirent64* entry = ::readdir64(static_cast<DIR*>(handle));
    if (entry == nullptr) return -1;
    char dirPath[kPathBytes];
    ReadEntry(entry, path, ToUtf8Path(path, dirPath) ? dirPath : nullptr, data);
    return 0;
}

int Zv_FindClose(void* handle) {
    // Only -1 is refused. A null counts as closed: closedir is declared never to take one, and all that the
    // C library would do with it is fail with EINVAL.
    if (handle == kNoHandle) return 0;
    if (handle != nullptr) ::closedir(static_cast<DIR*>(handle));
    return 1;
}

int Zv_IsChildDir(FileFindData* data) {
    if (data->isDirectory != 1 || data->fileName[0] == L'.') return 0;
    return wcscmp(data->fileName, L"..") > 0 ? 1 : 0;
}

int Zv_FindNextChildDir(void* handle, wchar_t* path, FileFindData* data) {
    while (Zv_FindNext(handle, path, data) == 0) {
        if (Zv_IsChildDir(data)) return 1;
    }
    return 0;
}

void* Zv_FindFirstChildDir(wchar_t* path, FileFindData* data) {
    void* handle = Zv_FindFirst(path, data);
    if (handle == nullptr) return kNoHandle;
    if (Zv_IsChildDir(data) || Zv_FindNextChildDir(handle, path, data) == 1) return handle;
    Zv_FindClose(handle);
    return kNoHandle;
}

void Zv_MakeSearchPath(wchar_t* path) {
    if (path == nullptr) return;
    size_t length = wcslen(path);
    if (length > 0 && path[length - 1] == L'/') path[length - 1] = 0;
}

int Zv_GetFileData(wchar_t* path, FileFindData* data) {
    char utf8[kPathBytes];
    if (!ToUtf8Path(path, utf8)) {
        wprintf(L"Zv_GetFileData: failed to convert UCS to CHAR.\n");
        return 0;
    }
    struct stat64 st;
    if (::stat64(utf8, &st) != 0) {
        int error = errno;
        perror("Zv_GetFileData failed...\n");
        wprintf(L"Zv_GetFileData failed : %d.\n", error);
        return 0;
    }
    data->isDirectory = 0;
    if ((st.st_mode & kDirectoryBit) != 0) {
        data->fileSize = 0;
        data->modifiedTime = 0;
        wprintf(L"Zv_GetFileData: st_mode failed\n");
        return 0;
    }
    data->fileSize = static_cast<uint32_t>(st.st_size);
    data->modifiedTime = static_cast<uint32_t>(st.st_mtime);
    return 1;
}

time_t Zv_GetLastModifiedDateTime(wchar_t* path) {
    char utf8[kPathBytes];
    struct stat64 st;
    if (!ToUtf8Path(path, utf8) || ::stat64(utf8, &st) != 0) return 0;
    return st.st_mtime;
}
