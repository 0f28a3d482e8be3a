// The flat entry of the event logger.
#pragma once

#include "msplatform/eventLogger.h"
#include "msplatform/export.h"

// Starts `eventLogger` from the section `section` of the configuration file `cfgPath`: 1 if the logger
// started, 0 if its settings could not be read, its directory could not be made, or logFilePath is longer
// than 254 bytes (a directory whose old files could not be found and pruned). Call it once per process,
// before logging; a second call starts a new file and scans again.
MSP_EXPORT int initializeLogger(char* cfgPath, char* section);
