// MD5 message digest: the standard algorithm and digest, for content hashing by the server processes and
// for the node value of the UUIDs.
//
// Use: MD5Init, then MD5Update any number of times with input of any length, then MD5Final, which writes
// the 16 bytes of the digest and wipes the context; a context goes through MD5Init again before reuse.
// A context belongs to one caller at a time. Nothing here allocates or fails.
#pragma once

#include <stdint.h>

#include "msplatform/export.h"

MSP_EXTERN_C_BEGIN

typedef struct {
    uint32_t state[4];         // running digest A, B, C, D
    uint32_t count[2];         // length so far in bits, modulo 2^64, low word first
    unsigned char buffer[64];  // input not yet hashed: (count[0] >> 3) % 64 bytes of it
} MD5_CTX;

MSP_EXPORT void MD5Init(MD5_CTX* context);
MSP_EXPORT void MD5Update(MD5_CTX* context, const unsigned char* input, unsigned int inputLen);
MSP_EXPORT void MD5Final(unsigned char digest[16], MD5_CTX* context);

MSP_EXTERN_C_END
