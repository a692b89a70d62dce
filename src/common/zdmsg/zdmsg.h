// The message codec: turns typed records into bytes and back, walking the field tables of
// zdmsg_meta_gen.h. It keeps no state and owns nothing. Encoding trusts its record. Decoding trusts
// no byte: a body that does not fit its table ends the process with a report and a message dump.
// So does a record whose type is no message type.

#ifndef ZDMSG_H
#define ZDMSG_H

#include "common/alloc/allocator.h"
#include "common/zdmsg/zdmsg_meta_gen.h"
#include "common/zdmsg/zdmsg_record.h"

// Arrays within arrays that a body may hold. Deeper ones are refused like any malformed body, so
// that no body can use up the stack.
#define ZDMSG_MAX_NESTING 1000

ZD_BEGIN_DECLS

// Writes header and body into buffer, which holds zdmsg_get_msg_raw_size(msg) bytes, and sets
// msg->raw and msg->body_size accordingly. alloc is not used.
ZD_API void zdmsg_serialize(allocator_t *alloc, zdmsg_t *msg, char *buffer);

// The number of bytes that zdmsg_serialize will write.
ZD_API int64_t zdmsg_get_msg_raw_size(const zdmsg_t *msg);

// Writes the body alone into msg->raw, from byte offset on, and sets msg->body_size.
ZD_API void zdmsg_serialize_body(zdmsg_t *msg, int offset);

// Fills the typed record from buffer, which holds the msg->body_size bytes of a body of type
// msg->type (both already in host byte order). Strings and columns point into buffer, which must
// outlive the record; arrays come from alloc and go back with zdmsg_free.
ZD_API void zdmsg_deserialize_body(allocator_t *alloc, zdmsg_t *msg, char *buffer);

// The same for one element record of struct_size bytes, whose bytes start at *offset of the body
// at msg->raw; moves *offset behind them.
ZD_API void zdmsg_struct_deserialize(allocator_t *alloc, zdmsg_t *msg, int *offset, void *record,
                                     int struct_size, int struct_type);

// Returns to alloc what a message holds: its arrays, with all below them, and, when str_auto_free
// is set, its non-empty top-level strings. The record itself stays the caller's.
ZD_API void zdmsg_free(allocator_t *alloc, zdmsg_t *msg);

// The same for the arrays of one element record. Strings in element records are never released.
ZD_API void zdmsg_struct_free(allocator_t *alloc, void *record, int struct_type);

// 1 when the records agree in type, body size and every field; else 0, with the first difference
// on standard error: msg is what was expected, msg2 what came. Data of chunk fields is not
// compared.
ZD_API uchar zdmsg_equals(const zdmsg_t *msg, const zdmsg_t *msg2);

ZD_API void zdmsg_set_tsn(zdmsg_t *msg, uint64_t tsn);

// Starts a ZDMSG_TMC_CHUNK message whose data_len bytes the caller sends himself: writes the 20
// bytes before them into buffer. Returns how many zero bytes the caller sends behind the data. data
// is not read.
ZD_API int zdmsg_serialize_chunk(char *buffer, const char *data, int data_len);

ZD_END_DECLS

#endif
