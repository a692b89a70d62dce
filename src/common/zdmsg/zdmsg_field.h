// The field descriptors. A message type is a constant table of them, in wire order, generated from
// messages.txt; the codec walks the table and knows nothing else about the type. A member of a
// typed record has the shape that its kind gives it.

#ifndef ZDMSG_FIELD_H
#define ZDMSG_FIELD_H

#include "common/zd_base.h"

typedef enum zdmsg_field_type_e {
    ZDMSG_FIELD_INT = 0,   // int32_t
    ZDMSG_FIELD_STR = 1,   // zdmsg_str_t
    ZDMSG_FIELD_COL = 2,   // zdmsg_col_t
    ZDMSG_FIELD_FIXED = 3, // char[type_or_len]
    ZDMSG_FIELD_ARRAY = 4, // zdmsg_array_t, data pointing at element records
    ZDMSG_FIELD_CHUNK = 5, // int32_t length of bytes that the sender writes himself
    ZDMSG_FIELD_MAX = 6    // number of kinds
} zdmsg_field_type_t;

typedef struct zdmsg_str_s {
    int32_t len;
    char *data; // not necessarily terminated; may be NULL when len is 0
} zdmsg_str_t;

// A column value: the bare data when it is to be encoded, the data behind its length prefix (which
// len then includes) when it has been decoded.
typedef zdmsg_str_t zdmsg_col_t;

typedef struct zdmsg_array_s {
    int32_t array_cnt;
    void *data; // array_cnt records, back to back
} zdmsg_array_t;

typedef struct zdmsg_field_s {
    zdmsg_field_type_t type;
    int32_t offset;      // of the member, from the start of the typed record
    int32_t type_or_len; // FIXED: length in bytes; ARRAY: index into _zdmsg_struct_meta; else 0
} zdmsg_field_t;

typedef struct zdmsg_meta_s {
    int32_t field_cnt;
    const zdmsg_field_t *fields; // NULL when field_cnt is 0
} zdmsg_meta_t;

typedef struct zdmsg_struct_meta_s {
    int32_t field_cnt;
    const zdmsg_field_t *fields;
    int32_t size; // of one record in memory: the stride of an array
} zdmsg_struct_meta_t;

static_assert(sizeof(zdmsg_field_type_t) == 4, "zdmsg_field_type_t is part of the ABI");
static_assert(sizeof(zdmsg_field_t) == 12, "zdmsg_field_t is part of the ABI");
static_assert(offsetof(zdmsg_field_t, offset) == 4, "zdmsg_field_t is part of the ABI");
static_assert(offsetof(zdmsg_field_t, type_or_len) == 8, "zdmsg_field_t is part of the ABI");
static_assert(sizeof(zdmsg_meta_t) == 16, "zdmsg_meta_t is part of the ABI");
static_assert(offsetof(zdmsg_meta_t, fields) == 8, "zdmsg_meta_t is part of the ABI");
static_assert(sizeof(zdmsg_struct_meta_t) == 24, "zdmsg_struct_meta_t is part of the ABI");
static_assert(offsetof(zdmsg_struct_meta_t, size) == 16, "zdmsg_struct_meta_t is part of the ABI");
static_assert(sizeof(zdmsg_str_t) == 16, "zdmsg_str_t is part of the ABI");
static_assert(offsetof(zdmsg_str_t, data) == 8, "zdmsg_str_t is part of the ABI");
static_assert(sizeof(zdmsg_array_t) == 16, "zdmsg_array_t is part of the ABI");
static_assert(offsetof(zdmsg_array_t, data) == 8, "zdmsg_array_t is part of the ABI");

#endif
