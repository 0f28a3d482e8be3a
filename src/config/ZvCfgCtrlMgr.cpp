#include "msplatform/ZvCfgCtrlMgr.h"

#include "config/internal.h"

// The process's one store, built at load before the other services, which read their settings through it.
__attribute__((init_priority(1001))) ZvConfigCtrlMgr cfgMgr;

int initializeConfig(const char* path) {
    return cfgMgr.initialize(path);
}

void deinitializeConfig() {
    cfgMgr.uninitialize();
}

int createConfigInt(char* section, char* key, int value) {
    return cfgMgr.createIntKey(section, key, value);
}

int createConfigString(char* section, char* key, unsigned char* value, int length) {
    return cfgMgr.createUTF8Key(section, key, value, length);
}

int getConfigInt(char* section, char* key, int& value) {
    return cfgMgr.getKeyIntValue(section, key, value);
}

int setConfigInt(char* section, char* key, int value) {
    return cfgMgr.setKeyIntValue(section, key, value);
}

int getConfigStringLen(char* section, char* key, int& length) {
    return cfgMgr.getKeyUTF8ValLen(section, key, length);
}

int getConfigString(char* section, char* key, unsigned char* buffer, int length) {
    return cfgMgr.getKeyUTF8Value(section, key, buffer, length);
}

int setConfigString(char* section, char* key, const unsigned char* value, int length) {
    return cfgMgr.setKeyUTF8Value(section, key, value, length);
}

int getKeyType(char* section, char* key, dtype& type) {
    return cfgMgr.getKeyType(section, key, type);
}
