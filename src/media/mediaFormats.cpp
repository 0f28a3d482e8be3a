#include "msplatform/mediaFormats.h"

#include "msplatform/mediaMapper.h"

namespace {

// The process's one table of formats, built after the logger and the language reader.
__attribute__((init_priority(1004))) MediaMapper mediaFormatsMapper;

}  // namespace

int MF_Initialize() {
    return mediaFormatsMapper.initialize();
}

void MF_UnInitialize() {
    mediaFormatsMapper.uninitialize();
}

char* MF_GetFormatNameByExtension(char* extension) {
    return mediaFormatsMapper.getFormatNameByExtension(extension);
}

char* MF_GetMimeTypeByExtension(char* extension) {
    return mediaFormatsMapper.getMimeTypeByExtension(extension);
}

char* MF_GetDLNAClassByExtension(char* extension) {
    return mediaFormatsMapper.getDLNAClassByExtension(extension);
}

char* MF_GetDLNAProfileByExtension(char* extension) {
    return mediaFormatsMapper.getDLNAProfileByExtension(extension);
}

char* MF_GetParserNameByExtension(char* extension, char* mediaType) {
    return mediaFormatsMapper.getParserNameByExtension(extension, mediaType);
}

char* MF_GetDAPNameByExtension(char* extension) {
    return mediaFormatsMapper.getDAPNameByExtension(extension);
}

unsigned char MF_GetTranscodeFlagByExtension(char* extension) {
    return mediaFormatsMapper.getTranscodeFlagByExtension(extension);
}

char MF_GetMediaTypeByExtension(char* extension) {
    return mediaFormatsMapper.getMediaTypeByExtension(extension);
}

char* MF_GetExtensionListByMimeType(char* mimeType) {
    return mediaFormatsMapper.getExtensionListByMimeType(mimeType);
}

char* MF_GetExtensionListByPluginName(char* pluginName) {
    return mediaFormatsMapper.getExtensionListByPluginName(pluginName);
}

char* MF_GetUniqueParserPlugins() {
    return mediaFormatsMapper.getUniqueParserPlugins();
}
