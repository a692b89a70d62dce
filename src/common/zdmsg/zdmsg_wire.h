// How lengths lie on the wire: what whoever reads a body must know beside its field table.

#ifndef ZDMSG_WIRE_H
#define ZDMSG_WIRE_H

#include <string.h>

#include "common/zd_base.h"

enum {
    ZDMSG_INT_SIZE = 4,               // an integer, a length, a count; big-endian
    ZDMSG_LONGEST_SHORT_COLUMN = 250, // longer ones have a prefix of three bytes,
    ZDMSG_LONG_COLUMN_MARK = 254      // the first of which is this
};

// The bytes of a string or column with its padding: at least one zero, up to a multiple of four.
static inline int64_t zdmsg_padded(int64_t length) {
    return (length + ZDMSG_INT_SIZE) & ~(int64_t)(ZDMSG_INT_SIZE - 1);
}

static inline int32_t zdmsg_read_int(const char *bytes) {
    uint32_t value;
    memcpy(&value, bytes, sizeof value);
    return (int32_t)__builtin_bswap32(value);
}

// The length of the column value whose prefix begins at bytes, prefix left out. Looks at no more
// than left bytes: what lies behind counts as zero, and such a column is not whole anyway.
static inline int32_t zdmsg_column_len(const char *bytes, int64_t left, int32_t *prefix_size) {
    const int32_t first = left > 0 ? (unsigned char)bytes[0] : 0;
    if (first <= ZDMSG_LONGEST_SHORT_COLUMN) {
        *prefix_size = 1;
        return first;
    }
    const int32_t second = left > 1 ? (unsigned char)bytes[1] : 0;
    const int32_t third = left > 2 ? (unsigned char)bytes[2] : 0;
    *prefix_size = 3;
    if (first == ZDMSG_LONG_COLUMN_MARK)
        return second * 256 + third;
    // No writer makes such a prefix, but this is how it has always been read.
    return second == ZDMSG_LONG_COLUMN_MARK ? 3 : 1;
}

#endif
