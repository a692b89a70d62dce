// The head that every message record starts with. It stands apart from the codec so that the
// assertion reporter, which lies below the codec, can dump a message.

#ifndef ZDMSG_RECORD_H
#define ZDMSG_RECORD_H

#include "common/zd_base.h"

// Bytes of the wire header: type (4), body size (4), transaction sequence number (8), big-endian.
#define ZDMSG_HDR_SIZE 16

// type, body_size and tsn lie back to back as on the wire: a receiver may read the 16 header
// bytes straight over them and convert byte order in place.
typedef struct zdmsg_s {
    char *raw;             // serialized bytes, not owned: from the header after serialization,
                           // from the body after deserialization
    int32_t str_auto_free; // not 0: zdmsg_free releases the top-level strings
    int32_t dummy;
    int32_t type;
    uint32_t body_size; // bytes after the header
    uint64_t tsn;
} zdmsg_t;

static_assert(sizeof(zdmsg_t) == 32, "zdmsg_t is part of the ABI");
static_assert(offsetof(zdmsg_t, str_auto_free) == 8, "zdmsg_t is part of the ABI");
static_assert(offsetof(zdmsg_t, type) == 16, "zdmsg_t is part of the ABI");
static_assert(offsetof(zdmsg_t, body_size) == 20, "zdmsg_t is part of the ABI");
static_assert(offsetof(zdmsg_t, tsn) == 24, "zdmsg_t is part of the ABI");

#endif
