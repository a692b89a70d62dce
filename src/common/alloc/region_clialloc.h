// The region allocator: many small blocks out of few regions, released in one stroke. Every block
// carries its call site and two red zones that are verified when it is freed or resized. The SYS
// kind takes regions from the process heap as it needs them; the FIXED kind lives inside one buffer
// of the caller, never grows and cannot be deleted. Every operation on blocks holds the
// allocator's mutex; what it was given wrongly, or finds overwritten, ends the process.

#ifndef REGION_CLIALLOC_H
#define REGION_CLIALLOC_H

#include "common/alloc/region_record.h"

ZD_BEGIN_DECLS

ZD_API extern const allocator_desc_t region_allocator_desc;

// A growing allocator under parent (not NULL). The record is the only memory that it takes before
// its first block. Throws ERROR_OUT_OF_PHYSICAL_MEM; end it with func_delete.
ZD_API allocator_t *real_sys_region_allocator_new(allocator_t *parent, const char *file, int line);

// An allocator inside the buffer, which must outlive it. Requires an address and a size that are
// multiples of 8, and a size of at least 1096; of it 1096 bytes go to the allocator itself.
ZD_API allocator_t *fixed_region_allocator_new(void *base_ptr, int64_t size);

// bytes below 0 end the process; NULL: no memory, and func_throw is due.
ZD_API void *region_malloc(allocator_t *alloc, int64_t bytes, const char *file, int line);
ZD_API void *region_calloc(allocator_t *alloc, int64_t bytes, const char *file, int line);
// Requires a block and a size above 0. The block takes over this call site. Growing moves it.
ZD_API void *region_realloc(allocator_t *alloc, void *ptr, int64_t bytes, const char *file,
                            int line);
// Requires a block: NULL is not allowed.
ZD_API void region_free(allocator_t *alloc, void *ptr, const char *file, int line);

// Ends a SYS allocator: its children, its blocks, the record.
ZD_API void region_delete(allocator_t *alloc);
// Releases the children and the blocks of a SYS allocator; it is then as fresh as a new one, and
// the last child of its parent. Nothing else may use the parent meanwhile.
ZD_API void region_cleanup(allocator_t *alloc);

ZD_API void region_tracedump(dstream_t *dstream, allocator_t *alloc, const char *indent);
// Throws ERROR_OUT_OF_PHYSICAL_MEM; for a FIXED allocator an assertion fails.
ZD_API ZD_NORETURN void region_throw(allocator_t *alloc);

// Walks everything that the allocator holds. Returns 0; an inconsistency ends the process. Takes
// no lock. With ptrs not NULL, exactly those numptrs blocks must be in use. dstream is not used.
ZD_API int region_alloc_check(allocator_t *alloc, dstream_t *dstream);
ZD_API int _region_alloc_internal_check(allocator_t *alloc, unsigned int numptrs, void **ptrs,
                                        dstream_t *dstream);
// Sorts by address, in place.
ZD_API void _ptrlist_sort(void **ptrs, unsigned int num);

ZD_END_DECLS

#endif
