// The region allocator's full check, a part of the unit region_clialloc: it restates every
// invariant of regions, chunks and bins as an assertion of its own.

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "common/alloc/alloc_alg.h"
#include "common/alloc/clialloc_dbginfo.h"
#include "common/alloc/region_assert.h"
#include "common/alloc/region_clialloc.h"

namespace {

constexpr unsigned int kListGrowth = 1024;

// Addresses of chunks, outside every region allocator.
struct ptrlist_t {
    void **ptrs;
    unsigned int num;
    unsigned int room;
};

void list_grow(ptrlist_t *list) {
    list->room += kListGrowth;
    list->ptrs = static_cast<void **>(realloc(list->ptrs, list->room * sizeof(void *)));
    REGION_ASSERT(list->ptrs != NULL);
}

ptrlist_t list_new() {
    ptrlist_t list = {nullptr, 0, 0};
    list_grow(&list);
    return list;
}

void list_append(ptrlist_t *list, void *chunk) {
    if (list->num == list->room)
        list_grow(list);
    list->ptrs[list->num++] = chunk;
}

struct walk_t {
    ptrlist_t usedchunks;
    ptrlist_t freechunks;
    ptrlist_t chunks_from_bins;
    csize_t total_region_size;
    csize_t total_used_size;
};

bool is_aligned(const void *address) {
    return reinterpret_cast<uintptr_t>(address) % 8 == 0;
}

bool is_used(const void *chunk) {
    return (static_cast<const chunk_t *>(chunk)->head & CINUSE_BIT) != 0;
}

// ---- regions and their chunks ----

void check_chunk(walk_t *walk, chunk_t *chunk, const chunk_t *fencepost) {
    const csize_t size = chunk_size(chunk);
    REGION_ASSERT((chunk->head & FENCEPOST_BIT) == 0);
    REGION_ASSERT(size >= CHUNK_MIN_SIZE);
    REGION_ASSERT(size <= static_cast<csize_t>(reinterpret_cast<const char *>(fencepost) -
                                               reinterpret_cast<const char *>(chunk)));
    const chunk_t *const next = chunk_next(chunk);
    if (is_used(chunk)) {
        REGION_ASSERT((next->head & PINUSE_BIT) != 0);
        walk->total_used_size += size;
        list_append(&walk->usedchunks, chunk);
    } else {
        REGION_ASSERT(next->prev_foot == size);
        REGION_ASSERT(((next)->head & (2LLU))); // two free chunks are never neighbours
        REGION_ASSERT((next->head & PINUSE_BIT) == 0);
        list_append(&walk->freechunks, chunk);
    }
}

void check_regions(walk_t *walk, CLI_alloc_t *alloc) {
    const region_t *region_prev = &alloc->regions;
    for (region_t *region = alloc->regions.next; region != &alloc->regions; region = region->next) {
        REGION_ASSERT(region->prev == region_prev);
        const chunk_t *const fencepost = region_fencepost(region);
        REGION_ASSERT((fencepost->head & ~PINUSE_BIT) ==
                      (region->size | CINUSE_BIT | FENCEPOST_BIT));
        chunk_t *chunk = region_first_chunk(region);
        REGION_ASSERT((chunk->head & PINUSE_BIT) != 0);
        for (; chunk != fencepost; chunk = chunk_next(chunk))
            check_chunk(walk, chunk, fencepost);
        walk->total_region_size += region->size;
        region_prev = region;
    }
    REGION_ASSERT(alloc->regions.prev == region_prev);
}

void check_totals(const walk_t *walk, CLI_alloc_t *alloc) {
    const csize_t total_region_size = walk->total_region_size;
    REGION_ASSERT(alloc->total_size == total_region_size);
    if (alloc->alloctype == REGION_ALLOC_SYS) {
        REGION_ASSERT(alloc->total_used == walk->total_used_size);
    } else if (alloc->alloctype == REGION_ALLOC_FIXED) {
        // The record's chunk, which may have absorbed a rest too small for a chunk of its own.
        const csize_t record_size = chunk_size(region_first_chunk(alloc->regions.next));
        REGION_ASSERT(alloc->total_used + record_size == walk->total_used_size);
    } else {
        REGION_ASSERT(0);
    }
}

// ---- bins ----

void check_smallbin(walk_t *walk, CLI_alloc_t *alloc, bindex_t index) {
    chunk_t *const bin = smallbin_at(alloc, index);
    const bool marked = ((alloc->smallmap >> index) & 1) != 0;
    REGION_ASSERT(marked == (bin->fd != bin));
    chunk_t *previous = bin;
    for (chunk_t *chunk = bin->fd; chunk != bin; chunk = chunk->fd) {
        REGION_ASSERT(is_aligned(chunk));
        REGION_ASSERT(chunk->bk == previous);
        REGION_ASSERT(chunk_size(chunk) == static_cast<csize_t>(index) * 8);
        REGION_ASSERT(!is_used(chunk));
        list_append(&walk->chunks_from_bins, chunk);
        previous = chunk;
    }
    REGION_ASSERT(bin->bk == previous);
}

csize_t tree_size(const treechunk_t *node) {
    return chunk_size(reinterpret_cast<const chunk_t *>(node));
}

void check_treechunk(walk_t *walk, treechunk_t *chunk, bindex_t index) {
    REGION_ASSERT(is_aligned(chunk));
    const csize_t size = tree_size(chunk);
    REGION_ASSERT(size >= treebin_min_size(index));
    REGION_ASSERT(index == REGION_TREEBIN_COUNT - 1 || size < treebin_min_size(index + 1));
    REGION_ASSERT(!is_used(chunk));
    REGION_ASSERT(chunk->index == index);
    list_append(&walk->chunks_from_bins, chunk);
}

// The others of a node's ring have its size, and no links into the trie.
void check_ring(walk_t *walk, const treechunk_t *node) {
    REGION_ASSERT(node->fd->bk == node);
    for (treechunk_t *chunk = node->fd; chunk != node; chunk = chunk->fd) {
        check_treechunk(walk, chunk, node->index);
        REGION_ASSERT(chunk->fd->bk == chunk);
        REGION_ASSERT(tree_size(chunk) == tree_size(node));
        REGION_ASSERT(chunk->parent == NULL);
        REGION_ASSERT(chunk->child[0] == NULL);
        REGION_ASSERT(chunk->child[1] == NULL);
    }
}

struct position_t {
    bindex_t index;
    unsigned int depth; // the root's is 0
    csize_t path;       // the sides taken from the root on, as bits, the latest one lowest
};

void check_node(walk_t *walk, treechunk_t *node, const treechunk_t *parent, position_t at) {
    check_treechunk(walk, node, at.index);
    REGION_ASSERT(node->parent == parent);
    const csize_t bits = tree_size(node) << treebin_shift(at.index);
    REGION_ASSERT(at.depth == 0 || bits >> (64 - at.depth) == at.path);
    check_ring(walk, node);
    for (csize_t side = 0; side < 2; side++) {
        if (node->child[side] == nullptr)
            continue;
        REGION_ASSERT(at.depth < 63);
        check_node(walk, node->child[side], node, {at.index, at.depth + 1, at.path << 1 | side});
    }
}

void check_treebin(walk_t *walk, CLI_alloc_t *alloc, bindex_t index) {
    treechunk_t *const root = alloc->treebins[index];
    const bool marked = ((alloc->treemap >> index) & 1) != 0;
    REGION_ASSERT(marked == (root != NULL));
    if (root != nullptr)
        check_node(walk, root, reinterpret_cast<treechunk_t *>(&alloc->treebins[index]),
                   {index, 0, 0});
}

void check_victim(walk_t *walk, const CLI_alloc_t *alloc) {
    if (alloc->dvsize == 0)
        return;
    REGION_ASSERT(alloc->dv != NULL);
    REGION_ASSERT(is_aligned(alloc->dv));
    REGION_ASSERT(chunk_size(alloc->dv) == alloc->dvsize);
    REGION_ASSERT(alloc->dvsize >= CHUNK_MIN_SIZE);
    list_append(&walk->chunks_from_bins, alloc->dv);
}

// ---- the lists against each other ----

void print_list(const char *name, const ptrlist_t *list) {
    printf("%s\n", name);
    for (unsigned int i = 0; i < list->num; i++)
        printf("%p\n", list->ptrs[i]);
    printf("***********************************************\n");
}

void check_freechunks(const walk_t *walk) {
    const ptrlist_t freechunks = walk->freechunks;
    const ptrlist_t chunks_from_bins = walk->chunks_from_bins;
    if (freechunks.num != chunks_from_bins.num) {
        printf("***********************************************\n");
        print_list("freechunks:", &freechunks);
        print_list("chunks_from_bins:", &chunks_from_bins);
        fflush(stdout);
    }
    REGION_ASSERT(freechunks.num == chunks_from_bins.num);
    _ptrlist_sort(freechunks.ptrs, freechunks.num);
    _ptrlist_sort(chunks_from_bins.ptrs, chunks_from_bins.num);
    for (unsigned int i = 0; i < freechunks.num; i++)
        REGION_ASSERT(freechunks.ptrs[i] == chunks_from_bins.ptrs[i]);
}

// Exactly the blocks at ptrs must be in use, and a FIXED allocator's record before them.
void check_usedchunks(const walk_t *walk, const CLI_alloc_t *alloc, unsigned int numptrs,
                      void **ptrs) {
    ptrlist_t expected = list_new();
    for (unsigned int i = 0; i < numptrs; i++)
        list_append(&expected, static_cast<char *>(ptrs[i]) - DBGINFO_USER_OFFSET);
    const ptrlist_t usedchunks = walk->usedchunks;
    const unsigned int extra = alloc->alloctype == REGION_ALLOC_FIXED ? 1 : 0;
    REGION_ASSERT(usedchunks.num == expected.num + extra);
    _ptrlist_sort(usedchunks.ptrs, usedchunks.num);
    _ptrlist_sort(expected.ptrs, expected.num);
    REGION_ASSERT(extra == 0 || usedchunks.ptrs[0] == region_first_chunk(alloc->regions.next));
    for (unsigned int i = 0; i < expected.num; i++)
        REGION_ASSERT(usedchunks.ptrs[i + extra] == expected.ptrs[i]);
    free(expected.ptrs);
}

void swap(void **one, void **other) {
    void *const kept = *one;
    *one = *other;
    *other = kept;
}

// Makes the heap of num entries whole again when only the one at top may be too small.
void sift_down(void **ptrs, unsigned int top, unsigned int num) {
    while (top < num / 2) {
        unsigned int larger = 2 * top + 1;
        if (larger + 1 < num && ptrs[larger + 1] > ptrs[larger])
            larger++;
        if (ptrs[top] >= ptrs[larger])
            return;
        swap(&ptrs[top], &ptrs[larger]);
        top = larger;
    }
}

} // namespace

void _ptrlist_sort(void **ptrs, unsigned int num) {
    for (unsigned int top = num / 2; top > 0; top--)
        sift_down(ptrs, top - 1, num);
    for (unsigned int left = num; left > 1; left--) {
        swap(&ptrs[0], &ptrs[left - 1]);
        sift_down(ptrs, 0, left - 1);
    }
}

int _region_alloc_internal_check(allocator_t *super, unsigned int numptrs, void **ptrs,
                                 dstream_t *) {
    CLI_alloc_t *const alloc = reinterpret_cast<CLI_alloc_t *>(super);
    walk_t walk = {list_new(), list_new(), list_new(), 0, 0};
    check_regions(&walk, alloc);
    check_totals(&walk, alloc);
    for (bindex_t i = 0; i < REGION_SMALLBIN_COUNT; i++)
        check_smallbin(&walk, alloc, i);
    for (bindex_t i = 0; i < REGION_TREEBIN_COUNT; i++)
        check_treebin(&walk, alloc, i);
    check_victim(&walk, alloc);
    check_freechunks(&walk);
    if (ptrs != nullptr)
        check_usedchunks(&walk, alloc, numptrs, ptrs);
    free(walk.usedchunks.ptrs);
    free(walk.freechunks.ptrs);
    free(walk.chunks_from_bins.ptrs);
    return 0;
}

int region_alloc_check(allocator_t *alloc, dstream_t *dstream) {
    return _region_alloc_internal_check(alloc, 0, nullptr, dstream);
}
