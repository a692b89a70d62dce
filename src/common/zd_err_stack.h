// The error stack of a context. A failing operation pushes its error; each layer above may push its
// own on top; the whole stack travels to the server as one string of bytes. The stack owns its
// instances, which live in its allocator. One thread at a time.

#ifndef ZD_ERR_STACK_H
#define ZD_ERR_STACK_H

#include "common/zd_err_inst.h"

typedef struct zd_err_stack_s {
    allocator_t *alloc;
    int count;          // instances
    int usrcount;       // of them, user errors
    int id_next;        // id of the next instance pushed
    zd_err_inst_t *top; // the newest, NULL when empty
} zd_err_stack_t;

static_assert(sizeof(zd_err_stack_t) == 32, "zd_err_stack_t is part of the ABI");
static_assert(offsetof(zd_err_stack_t, count) == 8, "zd_err_stack_t is part of the ABI");
static_assert(offsetof(zd_err_stack_t, usrcount) == 12, "zd_err_stack_t is part of the ABI");
static_assert(offsetof(zd_err_stack_t, id_next) == 16, "zd_err_stack_t is part of the ABI");
static_assert(offsetof(zd_err_stack_t, top) == 24, "zd_err_stack_t is part of the ABI");

ZD_BEGIN_DECLS

// In all of these a NULL stack is an assertion failure.

// An empty stack over alloc. What the record held before is not looked at.
ZD_API void zd_err_stack_init(zd_err_stack_t *errstack, allocator_t *alloc);

// Puts the instance on top and numbers it. It must come from the stack's allocator, which is to
// free it.
ZD_API void zd_err_stack_push(zd_err_stack_t *errstack, zd_err_inst_t *errinst);

// Takes the top off, NULL when empty. The caller owns it.
ZD_API zd_err_inst_t *zd_err_stack_pop(zd_err_stack_t *errstack);

// Destroy every instance, or those pushed since id_next was id. Numbering goes on where it was.
ZD_API void zd_err_stack_clear(zd_err_stack_t *errstack);
ZD_API void zd_err_stack_clear_to_id(zd_err_stack_t *errstack, int id);

// The instance that lies index below the top; NULL when there are not that many.
ZD_API zd_err_inst_t *zd_err_stack_get(const zd_err_stack_t *errstack, int index);

// The code on top, ERROR_NONE when empty.
ZD_API ec_t zd_err_stack_peek_code(const zd_err_stack_t *errstack);

// Whether the top is the error asked for, as in zd_err_inst_match. An empty stack matches
// ERROR_NONE.
ZD_API uchar zd_err_stack_match(const zd_err_stack_t *errstack, int code, unsigned int obj_id,
                                unsigned int err_num);

// Moves the top error of source, which must have one, onto target, without its source span. The
// instance made for target is a new one; the one popped from source is left to source's allocator.
ZD_API void zd_err_stack_copy(zd_err_stack_t *target, zd_err_stack_t *source);

ZD_API void zd_err_stack_dump(dstream_t *dstream, const zd_err_stack_t *errstack);

// The stack as bytes, for a peer: *buf, *len bytes from alloc (or its throw), is the caller's. With
// usrerr_only only the user errors are written; the length is that of the whole stack all the same.
ZD_API void zd_err_stack_serialize(const zd_err_stack_t *errstack, uchar usrerr_only,
                                   allocator_t *alloc, void **buf, unsigned int *len);

// Makes errstack, which is initialised here, from those bytes; usrerr_only must be what the sender
// used. Instances are numbered anew, from the sender's id_next on. The bytes are trusted: len is
// not looked at.
ZD_API void zd_err_stack_deserialize(const void *buf, unsigned int len, allocator_t *alloc,
                                     uchar usrerr_only, zd_err_stack_t *errstack);

ZD_END_DECLS

#endif
