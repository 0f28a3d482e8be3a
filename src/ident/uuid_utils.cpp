#include "msplatform/uuid_utils.h"

#include <stddef.h>
#include <string.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include "ident/internal.h"
#include "msplatform/md5.h"

int UuidSystemClock(struct timeval* tv) {
    return ::gettimeofday(tv, nullptr);
}

UuidClockReader uuidClockReader = UuidSystemClock;

namespace {

// 100-nanosecond ticks from 1582-10-15 00:00:00 to 1970-01-01 00:00:00.
constexpr uint64_t kUuidEpochOffset = 0x01B21DD213814000ULL;

// The system information that the node value is boiled down from, in this order. The sizes of the first two
// differ between platforms (64 and 8 bytes on the 32-bit target).
struct RandomInfo {
    struct sysinfo system;
    struct timeval now;
    char hostName[260];  // gethostname writes at most 256 bytes at the start
};

// On the 32-bit target the three make the block of 332 bytes that the digest covers.
static_assert(sizeof(long) != 4 || offsetof(RandomInfo, hostName) + 260 == 332,
              "sysinfo record and timeval of 64 and 8 bytes on a 32-bit target");

}  // namespace

void get_system_time(uuid_time_t* uuid_time) {
    if (uuid_time == nullptr) return;
    struct timeval tv;
    uuidClockReader(&tv);
    // In 64 bits throughout: time_t and suseconds_t are 32 bits on the target. A time before 1970 wraps
    // modulo 2^64 to the right count.
    *uuid_time = static_cast<uint64_t>(static_cast<int64_t>(tv.tv_sec)) * 10000000ULL +
                 static_cast<uint64_t>(static_cast<int64_t>(tv.tv_usec)) * 10ULL + kUuidEpochOffset;
}

void get_random_info(unsigned char seed[16]) {
    if (seed == nullptr) return;
    // Not cleared first: bytes that no call writes (the host name's tail) go into the digest as they are.
    RandomInfo info;
    ::sysinfo(&info.system);
    ::gettimeofday(&info.now, nullptr);
    ::gethostname(info.hostName, 256);

    MD5_CTX context;
    MD5Init(&context);
    // Up to the end of the host name, without the structure's tail padding.
    MD5Update(&context, reinterpret_cast<const unsigned char*>(&info), offsetof(RandomInfo, hostName) + 260);
    MD5Final(seed, &context);
}

void get_ieee_node_identifier(unsigned char node[6]) {
    if (node == nullptr) return;
    unsigned char seed[16];
    get_random_info(seed);
    // The top bit, not the multicast bit 0x01, marks the value as not taken from a card.
    seed[0] |= 0x80;
    memcpy(node, seed, 6);
}
