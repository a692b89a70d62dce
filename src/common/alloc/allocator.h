// The allocator interface. Whatever needs heap memory takes an allocator_t * and allocates through
// the operations that it carries, passing the call site (source file, line) with every request.
// Allocators form a tree: deleting one deletes its whole subtree and every block it gave out.
// Any thread may use any allocator; each one's mutex guards its memory and its child list.

#ifndef ALLOCATOR_H
#define ALLOCATOR_H

#include <pthread.h>

#include "common/list.h"
#include "common/zd_base.h"

typedef enum allocator_type_e {
    ALLOC_TYPE_SYSTEM = 0,
    ALLOC_TYPE_REGION_ROOT = 1,
    ALLOC_TYPE_REGION_SYS = 2,
    ALLOC_TYPE_REGION_FIXED = 3,
    ALLOC_TYPE_DUMMY = 4,
    ALLOC_TYPE_SHARED_POOL = 5,
    ALLOC_TYPE_SLAB = 6,
    ALLOC_TYPE_SLAB_ROOT = 7,
    ALLOC_TYPE_CLIENT_SYSTEM = 100,
    ALLOC_TYPE_CLIENT_REGION_SYS = 101,
    ALLOC_TYPE_CLIENT_REGION_FIXED = 102,
    ALLOC_TYPE_CLIENT_DUMMY = 103,
    ALLOC_TYPE_LSNR_SYSTEM = 200
} allocator_type_t;

typedef pthread_mutex_t zd_thread_mutex_t;
typedef struct allocator_s allocator_t;
typedef struct dstream_s dstream_t;

typedef struct allocator_desc_s {
    // At least bytes bytes, aligned to 8, not initialised; NULL when there are none to give.
    void *(*func_malloc)(allocator_t *alloc, int64_t bytes, const char *file, int line);
    // The same: no page alignment is offered.
    void *(*func_valloc)(allocator_t *alloc, int64_t bytes, const char *file, int line);
    // The same, zeroed.
    void *(*func_calloc)(allocator_t *alloc, int64_t bytes, const char *file, int line);
    // The block in its new size, with its contents up to the smaller one; on NULL the old block
    // stays valid.
    void *(*func_realloc)(allocator_t *alloc, void *ptr, int64_t bytes, const char *file, int line);
    void (*func_free)(allocator_t *alloc, void *ptr, const char *file, int line);
    // Ends the allocator: its children first, then every block it still holds.
    void (*func_delete)(allocator_t *alloc);
    // Prints statistics of the kind during alloc_tracedump; may be NULL.
    void (*func_tracedump)(dstream_t *dstream, allocator_t *alloc, const char *indent);
    // Raises the allocator's out-of-memory condition and does not return; may be NULL.
    void (*func_throw)(allocator_t *alloc);
} allocator_desc_t;

// The head of every allocator: a kind's own record begins with it.
struct allocator_s {
    allocator_type_t alloc_type;
    const allocator_desc_t *desc;
    char name[32];    // shown by the trace dump
    uchar logging;    // reserved
    const char *file; // call site that created the allocator
    uint32_t line;
    zd_thread_mutex_t mutex;
    allocator_t *parent; // NULL for the system allocator and for fixed region allocators
    list_link_t link;    // place in parent->child
    list_t child;
};

static_assert(sizeof(allocator_t) == 152, "allocator_t is part of the ABI");
static_assert(offsetof(allocator_t, name) == 16, "allocator_t is part of the ABI");
static_assert(offsetof(allocator_t, logging) == 48, "allocator_t is part of the ABI");
static_assert(offsetof(allocator_t, file) == 56, "allocator_t is part of the ABI");
static_assert(offsetof(allocator_t, mutex) == 72, "allocator_t is part of the ABI");
static_assert(offsetof(allocator_t, parent) == 112, "allocator_t is part of the ABI");
static_assert(offsetof(allocator_t, link) == 120, "allocator_t is part of the ABI");
static_assert(offsetof(allocator_t, child) == 136, "allocator_t is part of the ABI");

#ifdef __cplusplus

#include "client/common/client_assert.h"

// Ends the operation that could not get its memory. An allocator whose kind cannot throw (the
// system allocator) ends the process instead.
[[noreturn]] inline void zd_alloc_throw(allocator_t *alloc, const char *unit, int line) {
    ZD_ASSERT_AT(unit, line, alloc->desc->func_throw != NULL);
    alloc->desc->func_throw(alloc);
    zd_assert_fail("func_throw does not return", unit, line);
}

// Allocate or throw: each returns memory, never NULL. unit and line are the call site.
inline void *zd_malloc(allocator_t *alloc, int64_t bytes, const char *unit, int line) {
    void *const memory = alloc->desc->func_malloc(alloc, bytes, unit, line);
    if (ZD_UNLIKELY(memory == nullptr))
        zd_alloc_throw(alloc, unit, line);
    return memory;
}

inline void *zd_calloc(allocator_t *alloc, int64_t bytes, const char *unit, int line) {
    void *const memory = alloc->desc->func_calloc(alloc, bytes, unit, line);
    if (ZD_UNLIKELY(memory == nullptr))
        zd_alloc_throw(alloc, unit, line);
    return memory;
}

inline void *zd_realloc(allocator_t *alloc, void *ptr, int64_t bytes, const char *unit, int line) {
    void *const memory = alloc->desc->func_realloc(alloc, ptr, bytes, unit, line);
    if (ZD_UNLIKELY(memory == nullptr))
        zd_alloc_throw(alloc, unit, line);
    return memory;
}

inline void zd_free(allocator_t *alloc, void *ptr, const char *unit, int line) {
    alloc->desc->func_free(alloc, ptr, unit, line);
}

#endif

#endif
