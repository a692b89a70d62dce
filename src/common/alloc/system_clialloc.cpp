#include "common/alloc/system_clialloc.h"

#include <stdlib.h>

#include "client/common/client_assert.h"

const allocator_desc_t _system_allocator_desc = {
    system_malloc, system_malloc, system_calloc, system_realloc,
    system_free,   system_delete, nullptr,       nullptr,
};

allocator_t _system_allocator = {
    ALLOC_TYPE_CLIENT_SYSTEM,
    &_system_allocator_desc,
    "SYSTEM_ALLOC",
    0,
    "common/alloc/system_clialloc",
    52,
    PTHREAD_MUTEX_INITIALIZER,
    nullptr,
    {&_system_allocator.link, &_system_allocator.link},
    {&_system_allocator.child, &_system_allocator.child},
};

void *system_malloc(allocator_t *, int64_t bytes, const char *, int) {
    return malloc(static_cast<size_t>(bytes));
}

void *system_calloc(allocator_t *, int64_t bytes, const char *, int) {
    return calloc(1, static_cast<size_t>(bytes));
}

void *system_realloc(allocator_t *, void *ptr, int64_t bytes, const char *, int) {
    return realloc(ptr, static_cast<size_t>(bytes));
}

void system_free(allocator_t *, void *ptr, const char *, int) {
    free(ptr);
}

void system_delete(allocator_t *) {
    zd_assert_fail("0", "system_clialloc", 99);
}
