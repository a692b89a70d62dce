// Tells beforehand what zdmsg_deserialize_body will do with a body. That one ends the process when
// a body does not fit its type; whoever takes bytes from outside and wants to live asks here first.
// Allocates nothing and fails no assertion, whatever it is given.

#ifndef ZDMSG_VALIDATE_H
#define ZDMSG_VALIDATE_H

#include "common/zd_base.h"

// A path that is longer keeps its end, behind "...".
#define ZDMSG_FLAW_PATH_SIZE 256

// What a caller will put up with, beyond what fits its type. 0 or less is no limit.
typedef struct zdmsg_limits_s {
    int64_t nesting;  // arrays within arrays: 1 allows those of the message, and none in their
                      // elements. The decoder's own limit, ZDMSG_MAX_NESTING, holds in any case
    int64_t elements; // over all arrays together: what the decoder will allocate
    int64_t bytes;    // of the body
} zdmsg_limits_t;

typedef enum zdmsg_flaw_kind_e {
    ZDMSG_FLAW_NONE = 0,
    ZDMSG_FLAW_TYPE = 1,            // no message has this type
    ZDMSG_FLAW_NO_BYTES = 2,        // bytes is NULL
    ZDMSG_FLAW_SIZE = 3,            // more bytes than a header can announce
    ZDMSG_FLAW_CUT = 4,             // the body ends before or inside an integer, a length, a count
                                    // or a fixed field
    ZDMSG_FLAW_NEGATIVE_LENGTH = 5, // of a string
    ZDMSG_FLAW_LENGTH = 6,          // a string or column with its padding runs past the body
    ZDMSG_FLAW_NESTING = 7,         // deeper than the decoder goes
    ZDMSG_FLAW_TABLE = 8,           // the table of the type holds what cannot be decoded
    ZDMSG_FLAW_BYTES_LIMIT = 9,     // the caller's limits
    ZDMSG_FLAW_ELEMENTS_LIMIT = 10,
    ZDMSG_FLAW_NESTING_LIMIT = 11
} zdmsg_flaw_kind_t;

// Where a body goes wrong first.
typedef struct zdmsg_flaw_s {
    zdmsg_flaw_kind_t kind;
    const char *reason; // kind in words, never NULL; lives as long as the library
    int64_t offset;  // of the byte of the body at which the field, its length or its count begins
    int64_t found;   // bytes that the field takes, its length, or what is beyond a limit
    int64_t allowed; // bytes that are left for it, or the limit
    char path[ZDMSG_FLAW_PATH_SIZE]; // "params[2].value"; empty when no field is to blame
} zdmsg_flaw_t;

static_assert(sizeof(zdmsg_limits_t) == 24, "zdmsg_limits_t is part of the ABI");
static_assert(offsetof(zdmsg_limits_t, elements) == 8, "zdmsg_limits_t is part of the ABI");
static_assert(offsetof(zdmsg_limits_t, bytes) == 16, "zdmsg_limits_t is part of the ABI");
static_assert(sizeof(zdmsg_flaw_t) == 296, "zdmsg_flaw_t is part of the ABI");
static_assert(offsetof(zdmsg_flaw_t, reason) == 8, "zdmsg_flaw_t is part of the ABI");
static_assert(offsetof(zdmsg_flaw_t, offset) == 16, "zdmsg_flaw_t is part of the ABI");
static_assert(offsetof(zdmsg_flaw_t, path) == 40, "zdmsg_flaw_t is part of the ABI");

ZD_BEGIN_DECLS

// 1 when zdmsg_deserialize_body will accept the size bytes of a body of type msg_type, given memory
// enough, and the limits hold; else 0. limits may be NULL: none. Fills *flaw in either case, unless
// flaw is NULL. Like the decoder it accepts bytes behind the last field and negative counts. Takes
// time linear in size.
ZD_API uchar zdmsg_validate(int msg_type, const char *bytes, size_t size,
                            const zdmsg_limits_t *limits, zdmsg_flaw_t *flaw);

ZD_END_DECLS

#endif
