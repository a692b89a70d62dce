// The system allocator: a thin shell over the process heap, and the root of every allocator tree.
// It takes no lock, records no call sites, cannot throw and can never be deleted.

#ifndef SYSTEM_CLIALLOC_H
#define SYSTEM_CLIALLOC_H

#include "common/alloc/allocator.h"

ZD_BEGIN_DECLS

ZD_API extern const allocator_desc_t _system_allocator_desc;
ZD_API extern allocator_t _system_allocator;

ZD_API void *system_malloc(allocator_t *alloc, int64_t bytes, const char *file, int line);
ZD_API void *system_calloc(allocator_t *alloc, int64_t bytes, const char *file, int line);
ZD_API void *system_realloc(allocator_t *alloc, void *ptr, int64_t bytes, const char *file,
                            int line);
ZD_API void system_free(allocator_t *alloc, void *ptr, const char *file, int line);

// Ends the process: an assertion fails.
ZD_API void system_delete(allocator_t *alloc);

ZD_END_DECLS

#endif
