// The steps behind uuid_create, exported for callers that want them alone.
//
// get_system_time: the time of day as a 60-bit UUID timestamp, the count of 100-nanosecond ticks since
//   1582-10-15 00:00:00.
// get_random_info: 16 bytes, the MD5 digest of the sysinfo record, the time of day and the host name.
// get_ieee_node_identifier: 6 bytes of get_random_info with the top bit of the first byte set, made anew at
//   every call.
// None of them reports a failure; a null pointer gets nothing.
#pragma once

#include <stdint.h>

#include "msplatform/export.h"

MSP_EXTERN_C_BEGIN

typedef uint64_t uuid_time_t;

MSP_EXPORT void get_system_time(uuid_time_t* uuid_time);
MSP_EXPORT void get_random_info(unsigned char seed[16]);
MSP_EXPORT void get_ieee_node_identifier(unsigned char node[6]);

MSP_EXTERN_C_END
