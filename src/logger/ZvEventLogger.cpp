#include "msplatform/ZvEventLogger.h"

int initializeLogger(char* cfgPath, char* section) {
    return eventLogger.initializeLogger(cfgPath, section);
}
