// The one export macro. The library is built with hidden visibility: only declarations marked MSP_EXPORT
// are part of its binary interface.
#pragma once

#if defined(__GNUC__)
#define MSP_EXPORT __attribute__((visibility("default")))
#else
#define MSP_EXPORT
#endif

#ifdef __cplusplus
#define MSP_EXTERN_C_BEGIN extern "C" {
#define MSP_EXTERN_C_END }
#else
#define MSP_EXTERN_C_BEGIN
#define MSP_EXTERN_C_END
#endif
