#include "msplatform/uuid.h"

#include <stdlib.h>
#include <string.h>

#include "ident/internal.h"
#include "msplatform/uuid_utils.h"

static_assert(sizeof(uuid_t) == 16, "the UUID record is 16 bytes without padding");

UuidGeneratorState uuidGeneratorState = {0, 0, 0};

namespace {

// A reading serves at most 1 + kUuidsPerTick UUIDs, with timestamps reading + 0 ... reading + kUuidsPerTick.
constexpr uint16_t kUuidsPerTick = 1024;

// The timestamp of the next UUID. Spins while the clock stays on a reading that has served its UUIDs.
uuid_time_t NextTimestamp() {
    UuidGeneratorState& s = uuidGeneratorState;
    for (;;) {
        uuid_time_t now;
        get_system_time(&now);
        if (now != s.time_last) {
            s.uuids_this_tick = 0;
            s.time_last = now;
            return now;
        }
        if (s.uuids_this_tick < kUuidsPerTick) {
            ++s.uuids_this_tick;
            return now + s.uuids_this_tick;
        }
    }
}

void SeedOnce() {
    if (uuidGeneratorState.randomSeeded) return;
    uuid_time_t t;
    get_system_time(&t);
    t >>= 10;
    srand(static_cast<unsigned int>(t) ^ static_cast<unsigned int>(t >> 32));
    uuidGeneratorState.randomSeeded = 1;
}

}  // namespace

int uuid_create(uuid_t* uuid) {
    if (uuid == nullptr) return 1;
    const uuid_time_t timestamp = NextTimestamp();
    unsigned char node[6];
    get_ieee_node_identifier(node);
    SeedOnce();
    const uint16_t clockSeq = static_cast<uint16_t>(rand());

    uuid->time_low = static_cast<uint32_t>(timestamp);
    uuid->time_mid = static_cast<uint16_t>(timestamp >> 32);
    uuid->time_hi_and_version = static_cast<uint16_t>(((timestamp >> 48) & 0x0FFF) | 0x1000);
    uuid->clock_seq_hi_and_reserved = static_cast<uint8_t>(((clockSeq & 0x3F00) >> 8) | 0x80);
    uuid->clock_seq_low = static_cast<uint8_t>(clockSeq);
    memcpy(uuid->node, node, 6);
    return 1;
}
