// Walking a directory by wide names, and the data of single files.
//
// Paths and names are wide (one wchar_t per character); on disk they are UTF-8, and every name passes through
// Convert_UTF8_UCS and Convert_UCS_UTF8 on its way. A walk normalises names on disk: an entry whose name does
// not survive the two conversions (Latin-1 bytes, four-byte UTF-8) is renamed to the form they give, unless a
// file of that name exists already, which is never replaced.
//
// Limits, kept by every call: a directory or file path of at most 1023 bytes of UTF-8, a full entry path
// (directory, "/", name) of at most 1023 units and 1023 bytes of UTF-8. An entry beyond them is still
// reported by name, but it is neither renamed nor looked at: its flag, size and time come back as 0. So does
// an entry whose normalised name would not be one plain name of the directory (it would hold "/", be "." or
// "..", or be cut by a zero unit). A path beyond them opens nothing.
//
// The record is the caller's; handles are streams of opendir, one thread at a time. Only Zv_GetFileData
// prints (with wprintf on stdout, and perror).
#pragma once

#include <stdint.h>
#include <time.h>
#include <wchar.h>

#include "msplatform/export.h"

// One directory entry.
struct FileFindData {
    wchar_t fileName[256];  // The entry's name without its directory, zero-terminated.
    uint8_t isDirectory;    // 1 when bit 0x4000 of st_mode is set (so sockets and block devices too), else 0.
    uint32_t fileSize;      // Low 32 bits of the size; 0 for a directory.
    uint32_t modifiedTime;  // st_mtime in seconds since the epoch; 0 for a directory.
};

// Opens the directory and reads its first entry into `data` (untouched if the directory has none). Gives the
// handle, or null if the directory cannot be opened.
MSP_EXPORT void* Zv_FindFirst(wchar_t* path, FileFindData* data);

// Reads the next entry; `path` is the directory given to Zv_FindFirst, again. 0 when an entry was read, -1 at
// the end, and -1 for a null or -1 handle. Entries come unsorted, "." and ".." among them.
MSP_EXPORT int Zv_FindNext(void* handle, wchar_t* path, FileFindData* data);

// Closes a handle. 1 for any handle but -1, null included (there is nothing to close); 0 for the handle -1.
MSP_EXPORT int Zv_FindClose(void* handle);

// 1 for a directory whose name sorts above ".." and does not begin with "." (so not -abc, #x or .hidden).
MSP_EXPORT int Zv_IsChildDir(FileFindData* data);

// Like Zv_FindFirst, but positioned on the first child directory. The handle, or -1 (all bits set) if the
// directory cannot be opened or holds no child directory; then nothing stays open.
MSP_EXPORT void* Zv_FindFirstChildDir(wchar_t* path, FileFindData* data);

// Reads on to the next child directory: 1 when found, 0 when the directory is used up.
MSP_EXPORT int Zv_FindNextChildDir(void* handle, wchar_t* path, FileFindData* data);

// Cuts one "/" from the end of the path, in place.
MSP_EXPORT void Zv_MakeSearchPath(wchar_t* path);

// Size and time of a file; `fileName` is not written. 1 when read; 0 for a directory (flag, size and time
// set to 0), for a path that cannot be read or converted (record untouched). Failures print a message.
MSP_EXPORT int Zv_GetFileData(wchar_t* path, FileFindData* data);

// st_mtime of whatever the path names, directories included; 0 if it cannot be read.
MSP_EXPORT time_t Zv_GetLastModifiedDateTime(wchar_t* path);
