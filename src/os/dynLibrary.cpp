#include "msplatform/dynLibrary.h"

#include <dlfcn.h>

void* dlibLoadLibrary(const char* path) {
    return ::dlopen(path, RTLD_LAZY);
}

int dlibFreeLibrary(void* handle) {
    return ::dlclose(handle);
}

void* dlibGetFunction(void* handle, const char* name) {
    return ::dlsym(handle, name);
}
