// Server identity helpers on top of the configuration store.
//
// getConfigScanPaths and setServerNameFromComputerName initialise the store on "MediaServer.cfg" in the
// working directory unless the process has initialised it already (then they use the path given then), and
// leave it initialised. A process that wants the store elsewhere initialises it before calling them.
// They answer 0 on success and -1 on failure, with a message on stderr.
#pragma once

#include "msplatform/export.h"

// Hands out the value of "MCM"/"scanPaths" as a terminated string in *paths, allocated with malloc: the
// caller releases it with free. An empty value gives an empty string. On -1 *paths is not written, except
// when the copy itself failed: then it holds an allocated buffer of undefined content that the caller frees.
MSP_EXPORT int getConfigScanPaths(unsigned char** paths);

// Sets "upnp"/"serverName" to the host name when the key is missing or empty; a non-empty name stays as it
// is. Without a host name the server is called "QuirnNAS".
MSP_EXPORT int setServerNameFromComputerName();

// The host name, in a buffer of `length` bytes that is cleared first. -1 when the system gives no host name
// (including the name "(none)") or it does not fit; also for a null buffer or a length below 1, which are
// left alone.
MSP_EXPORT int getComputerName(char* name, int length);
