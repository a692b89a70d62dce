#include "common/alloc/alloc_tracedump.h"

#include <string.h>

#include "common/alloc/alloc_alg.h"
#include "common/alloc/clialloc_dbginfo.h"
#include "common/alloc/system_clialloc.h"
#include "common/zd_dump.h"

namespace {

constexpr int kMaxIndent = 19;

const char *base_name(const char *file) {
    const char *const slash = file == nullptr ? nullptr : strrchr(file, '/');
    return slash == nullptr ? file : slash + 1;
}

// The first chunk of a FIXED allocator's buffer holds the allocator's record and nothing else.
// Where the record has its operations, a block has its size, which is never that large.
bool holds_record(const chunk_t *chunk) {
    return reinterpret_cast<const allocator_t *>(&chunk->fd)->desc == &region_allocator_desc;
}

void print_chunk(dstream_t *dstream, const chunk_t *chunk, const char *indent, csize_t user_offset,
                 int64_t size, const char *file, uint32_t line) {
    dprint(dstream, "%s  mem %p chunk %p (size %5lld real %5lld) %s:%d\n", indent,
           chunk_at(chunk, user_offset), chunk, size, chunk_size(chunk), file, line);
}

void dump_regions(dstream_t *dstream, const CLI_alloc_t *alloc, const char *indent) {
    for (const region_t *region = alloc->regions.next; region != &alloc->regions;
         region = region->next) {
        dprint(dstream, "%s  region %p [size :%d]\n", indent, region,
               static_cast<int>(region->size));
        const chunk_t *const fencepost = region_fencepost(region);
        for (chunk_t *chunk = region_first_chunk(region); chunk != fencepost;
             chunk = chunk_next(chunk)) {
            if ((chunk->head & CINUSE_BIT) != 0)
                alloc_chunkdump(dstream, chunk, indent);
            else
                alloc_freechunkdump(dstream, chunk, indent);
        }
    }
    // Nothing is counted: readers know this line as it is.
    dprint(dstream, "%s  total %d chunks in %d bytes.\n", indent, 0, 0);
}

void dump_children(dstream_t *dstream, allocator_t *alloc, const char *indent, int level) {
    dprint(dstream, "%s  ----- starting child allocator dump -----\n", indent);
    list_for_each(link, &alloc->child)
        alloc_tracedump_internal(dstream, list_entry(link, allocator_t, link), level + 1);
    dprint(dstream, "%sAllocator[%d] \"%s\" (%p): finished child allocator dump. }}}\n", indent,
           level, alloc->name, alloc);
}

} // namespace

void alloc_tracedump(dstream_t *dstream, allocator_t *alloc) {
    if (alloc == nullptr)
        dprint(dstream, "Allocator == NULL\n");
    else
        alloc_tracedump_internal(dstream, alloc, 1);
}

void alloc_tracedump_internal(dstream_t *dstream, allocator_t *alloc, int level) {
    const int columns = 2 * (level - 1);
    char indent[kMaxIndent + 1] = {};
    for (int i = 0; i < columns && i < kMaxIndent; i++)
        indent[i] = ' ';

    dprint(dstream, "%sAllocator[%d] \"%s\" (%p): {{{\n", indent, level, alloc->name, alloc);
    dprint(dstream, "%s  parent allocator = %p%s\n", indent, alloc->parent,
           alloc->parent == &_system_allocator ? " (SYSTEM_ALLOC)" : "");
    if (pthread_mutex_trylock(&alloc->mutex) != 0) {
        dprint(dstream, "%s  Allocator[%d] busy: dump aborted. }}}\n", indent, level);
        return;
    }
    if (alloc == &_system_allocator)
        dprint(dstream, "%s  skipped SYSTEM_ALLOC dump...\n", indent);
    else
        dump_regions(dstream, reinterpret_cast<CLI_alloc_t *>(alloc), indent);
    if (alloc->desc->func_tracedump != nullptr)
        alloc->desc->func_tracedump(dstream, alloc, indent);
    if (list_is_empty(&alloc->child))
        dprint(dstream, "%s  this allocator has no child allocator. }}}\n", indent);
    else
        dump_children(dstream, alloc, indent, level);
    pthread_mutex_unlock(&alloc->mutex);
}

void alloc_chunkdump(dstream_t *dstream, chunk_t *chunk, const char *indent) {
    if (holds_record(chunk)) {
        print_chunk(dstream, chunk, indent, DBGINFO_OFFSET, sizeof(CLI_alloc_t),
                    "(allocator record)", 0);
        return;
    }
    const alloc_dbginfo_t *const dbginfo = reinterpret_cast<const alloc_dbginfo_t *>(&chunk->fd);
    print_chunk(dstream, chunk, indent, DBGINFO_USER_OFFSET, dbginfo->size,
                base_name(dbginfo->file), dbginfo->line);
}

void alloc_freechunkdump(dstream_t *dstream, chunk_t *chunk, const char *indent) {
    dprint(dstream, "%s  chunk %p (size %5llu) free\n", indent, chunk_at(chunk, DBGINFO_OFFSET),
           chunk_size(chunk));
}
