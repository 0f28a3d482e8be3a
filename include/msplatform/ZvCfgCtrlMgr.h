// The flat functions of the configuration store: the way in for every caller.
//
// initializeConfig names the file (1 to 260 bytes; a relative path resolves at each access). It gives 1 to
// the first caller of a process, who later calls deinitializeConfig, and -7 to every later one, who goes on
// with the first path and does not deinitialise. Every other function gives -8 until then.
//
// Each key function runs under the system-wide lock "cfgCtrlMgr" on a fresh read of the whole file; a create
// or set that succeeds rewrites the whole file. Results are the CFG_* codes of cfgCtrlMgr.h.
//
// Strings: getConfigStringLen gives the value's length; getConfigString with that length needs a buffer of
// length + 1 bytes (the terminator is copied when the value fits; a longer value is cut, unterminated).
// getKeyType answers from what this process last read, without the lock.
#pragma once

#include "msplatform/cfgCtrlMgr.h"
#include "msplatform/export.h"

MSP_EXPORT int initializeConfig(const char* path);
MSP_EXPORT void deinitializeConfig();

MSP_EXPORT int createConfigInt(char* section, char* key, int value);
MSP_EXPORT int createConfigString(char* section, char* key, unsigned char* value, int length);
MSP_EXPORT int getConfigInt(char* section, char* key, int& value);
MSP_EXPORT int setConfigInt(char* section, char* key, int value);
MSP_EXPORT int getConfigStringLen(char* section, char* key, int& length);
MSP_EXPORT int getConfigString(char* section, char* key, unsigned char* buffer, int length);
MSP_EXPORT int setConfigString(char* section, char* key, const unsigned char* value, int length);
MSP_EXPORT int getKeyType(char* section, char* key, dtype& type);
