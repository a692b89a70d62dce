// The region allocator's full check, a part of the unit region_clialloc: it restates every
// invariant of regions, chunks and bins as an assertion of its own.

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "common/alloc/alloc_alg.h"
#include "common/alloc/clialloc_dbginfo.h"
#include "common/alloc/region_clialloc.h"
#include "common/alloc/std_assert.h"

#define CHECK(condition) STD_ASSERT("region_clialloc", condition)

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
    CHECK(list->ptrs != NULL);
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
    CHECK((chunk->head & FENCEPOST_BIT) == 0);
    CHECK(size >= CHUNK_MIN_SIZE);
    CHECK(size <= static_cast<csize_t>(reinterpret_cast<const char *>(fencepost) -
                                       reinterpret_cast<const char *>(chunk)));
    const chunk_t *const next = chunk_next(chunk);
    if (is_used(chunk)) {
        CHECK((next->head & PINUSE_BIT) != 0);
        walk->total_used_size += size;
        list_append(&walk->usedchunks, chunk);
    } else {
        CHECK(next->prev_foot == size);
        CHECK(((next)->head & (2LLU))); // two free chunks are never neighbours
        CHECK((next->head & PINUSE_BIT) == 0);
        list_append(&walk->freechunks, chunk);
    }
}

void check_regions(walk_t *walk, CLI_alloc_t *alloc) {
    const region_t *region_prev = &alloc->regions;
    for (region_t *region = alloc->regions.next; region != &alloc->regions; region = region->next) {
        CHECK(region->prev == region_prev);
        const chunk_t *const fencepost = region_fencepost(region);
        CHECK((fencepost->head & ~PINUSE_BIT) == (region->size | CINUSE_BIT | FENCEPOST_BIT));
        chunk_t *chunk = region_first_chunk(region);
        CHECK((chunk->head & PINUSE_BIT) != 0);
        for (; chunk != fencepost; chunk = chunk_next(chunk))
            check_chunk(walk, chunk, fencepost);
        walk->total_region_size += region->size;
        region_prev = region;
    }
    CHECK(alloc->regions.prev == region_prev);
}

void check_totals(const walk_t *walk, CLI_alloc_t *alloc) {
    const csize_t total_region_size = walk->total_region_size;
    CHECK(alloc->total_size == total_region_size);
    if (alloc->alloctype == REGION_ALLOC_SYS) {
        CHECK(alloc->total_used == walk->total_used_size);
    } else if (alloc->alloctype == REGION_ALLOC_FIXED) {
        // The record's chunk, which may have absorbed a rest too small for a chunk of its own.
        const csize_t record_size = chunk_size(region_first_chunk(alloc->regions.next));
        CHECK(alloc->total_used + record_size == walk->total_used_size);
    } else {
        __assert_fail("0", "region_clialloc", __LINE__, __func__);
    }
}

// ---- bins ----

void check_smallbin(walk_t *walk, CLI_alloc_t *alloc, bindex_t index) {
    chunk_t *const bin = smallbin_at(alloc, index);
    const bool marked = ((alloc->smallmap >> index) & 1) != 0;
    CHECK(marked == (bin->fd != bin));
    chunk_t *previous = bin;
    for (chunk_t *chunk = bin->fd; chunk != bin; chunk = chunk->fd) {
        CHECK(is_aligned(chunk));
        CHECK(chunk->bk == previous);
        CHECK(chunk_size(chunk) == static_cast<csize_t>(index) * 8);
        CHECK(!is_used(chunk));
        list_append(&walk->chunks_from_bins, chunk);
        previous = chunk;
    }
    CHECK(bin->bk == previous);
}

csize_t tree_size(const treechunk_t *node) {
    return chunk_size(reinterpret_cast<const chunk_t *>(node));
}

void check_treechunk(walk_t *walk, treechunk_t *chunk, bindex_t index) {
    const csize_t size = tree_size(chunk);
    CHECK(is_aligned(chunk));
    CHECK(size >= treebin_min_size(index));
    CHECK(index == REGION_TREEBIN_COUNT - 1 || size < treebin_min_size(index + 1));
    CHECK(!is_used(chunk));
    CHECK(chunk->index == index);
    list_append(&walk->chunks_from_bins, chunk);
}

// The others of a node's ring have its size, and no links into the trie.
void check_ring(walk_t *walk, const treechunk_t *node) {
    CHECK(node->fd->bk == node);
    for (treechunk_t *chunk = node->fd; chunk != node; chunk = chunk->fd) {
        check_treechunk(walk, chunk, node->index);
        CHECK(chunk->fd->bk == chunk);
        CHECK(tree_size(chunk) == tree_size(node));
        CHECK(chunk->parent == NULL);
        CHECK(chunk->child[0] == NULL);
        CHECK(chunk->child[1] == NULL);
    }
}

// A node at a depth of the trie (the root's is 0). path holds the bits, below those that the whole
// bin has in common, by which it was reached; the latest one is the lowest.
void check_node(walk_t *walk, treechunk_t *node, bindex_t index, unsigned int depth, csize_t path) {
    check_treechunk(walk, node, index);
    const csize_t bits = tree_size(node) << treebin_shift(index);
    CHECK(depth == 0 || bits >> (64 - depth) == path);
    check_ring(walk, node);
    for (csize_t side = 0; side < 2; side++) {
        treechunk_t *const child = node->child[side];
        if (child == nullptr)
            continue;
        CHECK(depth < 63);
        CHECK(child->parent == node);
        check_node(walk, child, index, depth + 1, (path << 1) | side);
    }
}

void check_treebin(walk_t *walk, CLI_alloc_t *alloc, bindex_t index) {
    treechunk_t *const root = alloc->treebins[index];
    const bool marked = ((alloc->treemap >> index) & 1) != 0;
    CHECK(marked == (root != NULL));
    if (root == nullptr)
        return;
    CHECK(root->parent == reinterpret_cast<treechunk_t *>(&alloc->treebins[index]));
    check_node(walk, root, index, 0, 0);
}

void check_victim(walk_t *walk, const CLI_alloc_t *alloc) {
    if (alloc->dvsize == 0)
        return;
    CHECK(alloc->dv != NULL);
    CHECK(is_aligned(alloc->dv));
    CHECK(chunk_size(alloc->dv) == alloc->dvsize);
    CHECK(alloc->dvsize >= CHUNK_MIN_SIZE);
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
    CHECK(freechunks.num == chunks_from_bins.num);
    _ptrlist_sort(freechunks.ptrs, freechunks.num);
    _ptrlist_sort(chunks_from_bins.ptrs, chunks_from_bins.num);
    for (unsigned int i = 0; i < freechunks.num; i++)
        CHECK(freechunks.ptrs[i] == chunks_from_bins.ptrs[i]);
}

// Exactly the blocks at ptrs must be in use, and a FIXED allocator's record before them.
void check_usedchunks(const walk_t *walk, const CLI_alloc_t *alloc, unsigned int numptrs,
                      void **ptrs) {
    ptrlist_t expected = list_new();
    for (unsigned int i = 0; i < numptrs; i++)
        list_append(&expected, static_cast<char *>(ptrs[i]) - DBGINFO_USER_OFFSET);
    const ptrlist_t usedchunks = walk->usedchunks;
    const unsigned int extra = alloc->alloctype == REGION_ALLOC_FIXED ? 1 : 0;
    CHECK(usedchunks.num == expected.num + extra);
    _ptrlist_sort(usedchunks.ptrs, usedchunks.num);
    _ptrlist_sort(expected.ptrs, expected.num);
    CHECK(extra == 0 || usedchunks.ptrs[0] == region_first_chunk(alloc->regions.next));
    for (unsigned int i = 0; i < expected.num; i++)
        CHECK(usedchunks.ptrs[i + extra] == expected.ptrs[i]);
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
