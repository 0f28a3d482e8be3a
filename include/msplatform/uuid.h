// Version-1 (time-based) UUIDs with a random node value.
//
// Each UUID carries the clock's timestamp in 100-nanosecond ticks since 1582-10-15, a clock sequence drawn
// from rand() and a node value made afresh from system information by MD5: no network card is looked at
// and nothing is kept between runs. Up to 1025 UUIDs are made per clock reading; the next call waits (spins)
// until the clock moves.
//
// The fields are numbers in the host's byte order, each stored by a plain store of its width: on a
// little-endian host the record is not in the network order of the wire form, and nothing here swaps it.
//
// uuid_create keeps plain static state and uses the process's rand() generator: it must not run in two
// threads at once. It seeds srand() once, from the clock, at its first call.
#pragma once

#include <stdint.h>

#include "msplatform/export.h"

MSP_EXTERN_C_BEGIN

typedef struct {
    uint32_t time_low;                  // timestamp bits 0-31
    uint16_t time_mid;                  // timestamp bits 32-47
    uint16_t time_hi_and_version;       // timestamp bits 48-59, version 1 in the top 4 bits
    uint8_t clock_seq_hi_and_reserved;  // clock sequence bits 8-13, variant bits 1 0 on top
    uint8_t clock_seq_low;              // clock sequence bits 0-7
    uint8_t node[6];                    // random node value, top bit of node[0] set
} uuid_t;

// Fills *uuid with a new UUID. Always returns 1 (a null pointer gets nothing).
MSP_EXPORT int uuid_create(uuid_t* uuid);

MSP_EXTERN_C_END
