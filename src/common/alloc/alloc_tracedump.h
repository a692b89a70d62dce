// The allocation trace dump: a picture, for people, of an allocator, every block that it holds and
// its subtree. It never waits: an allocator that is held by somebody, as when the dump is made from
// a crash handler, is reported as busy and skipped.

#ifndef ALLOC_TRACEDUMP_H
#define ALLOC_TRACEDUMP_H

#include "common/alloc/region_clialloc.h"

ZD_BEGIN_DECLS

// alloc may be NULL. While its children are dumped, an allocator's mutex is held.
ZD_API void alloc_tracedump(dstream_t *dstream, allocator_t *alloc);
// level 1 is not indented, each further one by two columns more, up to 19.
ZD_API void alloc_tracedump_internal(dstream_t *dstream, allocator_t *alloc, int level);

// One line for a chunk of a region allocator, in use or free.
ZD_API void alloc_chunkdump(dstream_t *dstream, chunk_t *chunk, const char *indent);
ZD_API void alloc_freechunkdump(dstream_t *dstream, chunk_t *chunk, const char *indent);

ZD_END_DECLS

#endif
