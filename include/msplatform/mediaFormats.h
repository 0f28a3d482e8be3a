// The media format map of the process: flat functions over the library's one MediaMapper.
//
// MF_Initialize loads MediaFormats.xml from the working directory (1 loaded, 0 failed); MF_UnInitialize
// releases it. The texts returned are borrowed from the table and stay valid until MF_UnInitialize, which
// must not run while another thread still queries or uses such a text. Unknown keys give null or 0.
#pragma once

#include "msplatform/export.h"

MSP_EXPORT int MF_Initialize();
MSP_EXPORT void MF_UnInitialize();

MSP_EXPORT char* MF_GetFormatNameByExtension(char* extension);
MSP_EXPORT char* MF_GetMimeTypeByExtension(char* extension);
MSP_EXPORT char* MF_GetDLNAClassByExtension(char* extension);
MSP_EXPORT char* MF_GetDLNAProfileByExtension(char* extension);
// Returns the parser plug-in's name and stores the media type ('a', 'v', 'i' or 0) through mediaType,
// which is left alone when the extension is unknown.
MSP_EXPORT char* MF_GetParserNameByExtension(char* extension, char* mediaType);
MSP_EXPORT char* MF_GetDAPNameByExtension(char* extension);
MSP_EXPORT unsigned char MF_GetTranscodeFlagByExtension(char* extension);
MSP_EXPORT char MF_GetMediaTypeByExtension(char* extension);

MSP_EXPORT char* MF_GetExtensionListByMimeType(char* mimeType);
MSP_EXPORT char* MF_GetExtensionListByPluginName(char* pluginName);
MSP_EXPORT char* MF_GetUniqueParserPlugins();
