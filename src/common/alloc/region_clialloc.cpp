#include "common/alloc/region_clialloc.h"

#include <stdlib.h>
#include <string.h>

#include "client/common/client_assert.h"
#include "client/common/client_try.h"
#include "common/alloc/alloc_alg.h"
#include "common/alloc/alloc_mutex.h"
#include "common/alloc/clialloc_dbginfo.h"
#include "common/alloc/region_assert.h"
#include "common/ec.h"
#include "common/zd_dump.h"

const allocator_desc_t region_allocator_desc = {
    region_malloc, region_malloc, region_calloc,    region_realloc,
    region_free,   region_delete, region_tracedump, region_throw,
};

namespace {

#define MEM2CHUNK(block)                                                                           \
    reinterpret_cast<chunk_t *>(static_cast<char *>(block) - DBGINFO_USER_OFFSET)
#define CINUSE(chunk) (((chunk)->head & CINUSE_BIT) != 0)

// In a FIXED allocator's buffer the record is the user area of the first chunk, which has no debug
// record and no red zones:
//
//   B      B + 16         B + 32      B + 48        B + 1080            B + L - 16     B + L
//  | region_t            | chunk head | CLI_alloc_t | free chunk ...    | fencepost    |
//
// The record's last eight bytes lie in the free chunk's prev_foot, as in any chunk that is in use.
constexpr csize_t kRecordChunkSize = sizeof(CLI_alloc_t) + 8;
constexpr csize_t kFixedOverhead = REGION_OVERHEAD + kRecordChunkSize;
static_assert(kRecordChunkSize == 1048 && kFixedOverhead == 1096, "layout of a FIXED buffer");

CLI_alloc_t *as_region(allocator_t *alloc) {
    return reinterpret_cast<CLI_alloc_t *>(alloc);
}

csize_t chunk_size_for(int64_t bytes) {
    const csize_t size = (static_cast<csize_t>(bytes) + DBGINFO_USER_OFFSET + 7) & ~7LLU;
    return size < CHUNK_MIN_SIZE ? CHUNK_MIN_SIZE : size;
}

void *block_of(chunk_t *chunk) {
    return reinterpret_cast<char *>(chunk) + DBGINFO_USER_OFFSET;
}

void empty_smallbin(CLI_alloc_t *alloc, int i) {
    chunk_t *const bin = smallbin_at(alloc, static_cast<bindex_t>(i));
    bin->fd = bin;
    bin->bk = bin;
}

// What holds between two lives of an allocator, apart from its bins.
void reset(CLI_alloc_t *alloc) {
    list_init(&alloc->super.child);
    alloc->total_size = 0;
    alloc->total_used = 0;
    alloc->regions.prev = &alloc->regions;
    alloc->regions.next = &alloc->regions;
    alloc->smallmap = 0;
    alloc->treemap = 0;
    alloc->dvsize = 0;
    alloc->dv = nullptr;
}

// Of 64 bins a request leaves few marked; the others are as they should be.
void empty_marked_bins(CLI_alloc_t *alloc) {
    for (binmap_t marked = alloc->smallmap; marked != 0; marked &= marked - 1)
        empty_smallbin(alloc, __builtin_ctz(marked));
    for (binmap_t marked = alloc->treemap; marked != 0; marked &= marked - 1)
        alloc->treebins[__builtin_ctz(marked)] = nullptr;
}

void init(CLI_alloc_t *alloc, allocator_type_t type, const char *name, region_alloctype_t kind) {
    alloc->super.alloc_type = type;
    alloc->super.desc = &region_allocator_desc;
    strcpy(alloc->super.name, name);
    pthread_mutex_init(&alloc->super.mutex, nullptr);
    alloc->alloctype = kind;
    reset(alloc);
    for (int i = 0; i < REGION_SMALLBIN_COUNT; i++)
        empty_smallbin(alloc, i);
    for (treechunk_t *&root : alloc->treebins)
        root = nullptr;
}

void delete_children(allocator_t *alloc) {
    while (!list_is_empty(&alloc->child)) {
        allocator_t *const child = list_entry(alloc->child.next, allocator_t, link);
        child->desc->func_delete(child);
    }
}

void leave_parent(allocator_t *alloc) {
    allocator_t *const parent = alloc->parent;
    if (parent == nullptr)
        return;
    const mutex_hold_t hold = alloc_mutex_lock(&parent->mutex);
    list_unlink(&alloc->link);
    alloc_mutex_unlock(&parent->mutex, hold);
}

void free_regions(CLI_alloc_t *alloc) {
    for (region_t *region = alloc->regions.next; region != &alloc->regions;) {
        region_t *const next = region->next;
        free(region);
        region = next;
    }
}

} // namespace

allocator_t *real_sys_region_allocator_new(allocator_t *parent, const char *file, int line) {
    CLI_alloc_t *const alloc = static_cast<CLI_alloc_t *>(malloc(sizeof(CLI_alloc_t)));
    if (alloc == nullptr)
        zd_err_and_jmp("region_clialloc", 114, "real_sys_region_allocator_new", 0, 0,
                       ERROR_OUT_OF_PHYSICAL_MEM);
    init(alloc, ALLOC_TYPE_CLIENT_REGION_SYS, "(SYSTEM region allocator)", REGION_ALLOC_SYS);
    alloc->super.file = file;
    alloc->super.line = static_cast<uint32_t>(line);
    const mutex_hold_t hold = alloc_mutex_lock(&parent->mutex);
    alloc->super.parent = parent;
    list_add_tail(&parent->child, &alloc->super.link);
    alloc_mutex_unlock(&parent->mutex, hold);
    return &alloc->super;
}

allocator_t *fixed_region_allocator_new(void *base_ptr, int64_t size) {
    // The text is what a rounding macro expands to; readers of reports know it.
    REGION_ASSERT(size == (((size) + ((8) - 1)) & ~((8) - 1)));
    ZD_ASSERT("region_clialloc", reinterpret_cast<uintptr_t>(base_ptr) % 8 == 0);
    ZD_ASSERT("region_clialloc", size >= static_cast<int64_t>(kFixedOverhead));
    region_t *const region = static_cast<region_t *>(base_ptr);
    region->size = static_cast<csize_t>(size);
    chunk_t *const record = region_first_chunk(region);
    CLI_alloc_t *const alloc = reinterpret_cast<CLI_alloc_t *>(&record->fd);
    init(alloc, ALLOC_TYPE_CLIENT_REGION_FIXED, "(Fixed region allocator)", REGION_ALLOC_FIXED);
    alloc->super.parent = nullptr;
    list_init(&alloc->super.link);
    alloc->total_size = region->size;
    alloc->regions.prev = region;
    alloc->regions.next = region;
    region->prev = &alloc->regions;
    region->next = &alloc->regions;
    region_fencepost(region)->head = region->size | PINUSE_BIT | CINUSE_BIT | FENCEPOST_BIT;

    const csize_t rest = region->size - kFixedOverhead;
    const bool absorbed = rest < CHUNK_MIN_SIZE;
    record->head =
        (absorbed ? kRecordChunkSize + rest : kRecordChunkSize) | PINUSE_BIT | CINUSE_BIT;
    if (!absorbed) {
        chunk_next(record)->head = rest | PINUSE_BIT;
        CLI_free_internal(alloc, chunk_next(record));
    }
    return &alloc->super;
}

void *region_malloc(allocator_t *super, int64_t bytes, const char *file, int line) {
    ZD_ASSERT_AT("region_clialloc", 380, bytes >= 0);
    CLI_alloc_t *const alloc = as_region(super);
    csize_t size = chunk_size_for(bytes);
    chunk_t *chunk;
    const mutex_hold_t hold = alloc_mutex_lock(&super->mutex);
    if (victim_is_next(alloc, size)) { // the commonest case, without a call
        chunk = victim_carve(alloc, size);
    } else {
        chunk = CLI_malloc_internal(alloc, size);
        if (ZD_UNLIKELY(chunk == nullptr)) {
            alloc_mutex_unlock(&super->mutex, hold);
            return nullptr;
        }
        size = chunk_size(chunk);
    }
    alloc->total_used += size;
    dbginfo_set(block_of(chunk), bytes, file, line);
    alloc_mutex_unlock(&super->mutex, hold);
    return block_of(chunk);
}

void *region_calloc(allocator_t *alloc, int64_t bytes, const char *file, int line) {
    void *const block = region_malloc(alloc, bytes, file, line);
    return block == nullptr ? nullptr : memset(block, 0, static_cast<size_t>(bytes));
}

void *region_realloc(allocator_t *super, void *ptr, int64_t bytes, const char *file, int line) {
    ZD_ASSERT_AT("region_clialloc", 493, bytes != 0);
    ZD_ASSERT_AT("region_clialloc", 494, bytes > 0);
    ZD_ASSERT_AT("region_clialloc", 500, ptr != NULL);
    CLI_alloc_t *const alloc = as_region(super);
    const mutex_hold_t hold = alloc_mutex_lock(&super->mutex);
    dbginfo_check(ptr);
    const csize_t oldsize = chunk_size(MEM2CHUNK(ptr));
    chunk_t *const chunk = CLI_realloc_internal(alloc, MEM2CHUNK(ptr), chunk_size_for(bytes));
    if (ZD_UNLIKELY(chunk == nullptr)) {
        alloc_mutex_unlock(&super->mutex, hold);
        return nullptr;
    }
    ZD_ASSERT_AT("region_clialloc", 537, alloc->total_used >= oldsize);
    alloc->total_used += chunk_size(chunk) - oldsize;
    dbginfo_set(block_of(chunk), bytes, file, line);
    alloc_mutex_unlock(&super->mutex, hold);
    return block_of(chunk);
}

void region_free(allocator_t *super, void *base, const char *, int) {
    CLI_alloc_t *const alloc = as_region(super);
    const mutex_hold_t hold = alloc_mutex_lock(&super->mutex);
    ZD_ASSERT_AT("region_clialloc", 574, CINUSE(MEM2CHUNK(base)));
    dbginfo_check(base);
    const csize_t chunksize = chunk_size(MEM2CHUNK(base));
    ZD_ASSERT_AT("region_clialloc", 582, alloc->total_used >= chunksize);
    alloc->total_used -= chunksize;
    CLI_free_internal(alloc, MEM2CHUNK(base));
    alloc_mutex_unlock(&super->mutex, hold);
}

void region_delete(allocator_t *super) {
    CLI_alloc_t *const alloc = as_region(super);
    delete_children(super);
    leave_parent(super);
    if (alloc->alloctype == REGION_ALLOC_FIXED)
        zd_assert_fail("!\"Cannot delete FIXED region allocator!\"", "region_clialloc", 278);
    if (alloc->alloctype != REGION_ALLOC_SYS)
        zd_assert_fail("0", "region_clialloc", 281);
    free_regions(alloc);
    pthread_mutex_destroy(&super->mutex);
    free(alloc);
}

void region_cleanup(allocator_t *super) {
    CLI_alloc_t *const alloc = as_region(super);
    delete_children(super);
    leave_parent(super);
    if (alloc->alloctype == REGION_ALLOC_FIXED)
        zd_assert_fail("!\"Cannot delete FIXED region allocator!\"", "region_clialloc", 347);
    if (alloc->alloctype != REGION_ALLOC_SYS)
        zd_assert_fail("0", "region_clialloc", 350);
    free_regions(alloc);
    empty_marked_bins(alloc);
    reset(alloc);
    list_add_tail(&super->parent->child, &super->link); // without the parent's lock
}

void region_tracedump(dstream_t *dstream, allocator_t *alloc, const char *indent) {
    const CLI_alloc_t *const region = as_region(alloc);
    dprint(dstream,
           "%s  %ld bytes are allocated in total (used + reserved).\n"
           "%s  %ld bytes are actually being used.\n",
           indent, region->total_size, indent, region->total_used);
    dprint(dstream, "%s  beginning sanity check...\n", indent);
    if (region_alloc_check(alloc, dstream) != 0)
        dprint(dstream,
               "!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!\n"
               "!!! MEMORY CORRUPTED: allocator \"%s\"\n"
               "!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!\n",
               alloc->name);
    else
        dprint(dstream, "%s  ...sanity check OK!\n", indent);
}

void region_throw(allocator_t *alloc) {
    const region_alloctype_t kind = as_region(alloc)->alloctype;
    if (kind == REGION_ALLOC_FIXED)
        zd_assert_fail("0", "region_clialloc", 649);
    if (kind != REGION_ALLOC_SYS)
        zd_assert_fail("0", "region_clialloc", 652);
    zd_err_and_jmp("region_clialloc", 645, "region_throw", 0, 0, ERROR_OUT_OF_PHYSICAL_MEM);
}
