// The region allocator's chunk algorithm: exact-size small bins, tree bins (bitwise tries on the
// size), a designated victim and boundary tags, over regions instead of a top chunk. It knows
// nothing of users' blocks; every function requires the allocator's mutex.

#ifndef ALLOC_ALG_H
#define ALLOC_ALG_H

#include "common/alloc/region_record.h"

#define REGION_HEAD_SIZE 32  // region_t, before the first chunk
#define REGION_FENCE_SIZE 16 // the fencepost, after the last one
#define REGION_OVERHEAD (REGION_HEAD_SIZE + REGION_FENCE_SIZE)
#define CHUNK_MIN_SIZE 56   // also the least remainder that is split off
#define CHUNK_TREE_SIZE 256 // from here on chunks lie in tree bins

ZD_BEGIN_DECLS

// A chunk in use of at least size bytes, from the bins or from a new region. NULL: no memory.
ZD_API chunk_t *CLI_malloc_internal(CLI_alloc_t *alloc, uint64_t size);
// The chunk in its new size: in place when it shrinks, moved when it grows. NULL: the old one
// stays.
ZD_API chunk_t *CLI_realloc_internal(CLI_alloc_t *alloc, chunk_t *chunk, uint64_t size);
// A region that has no chunk in use any more goes back to the process heap.
ZD_API void CLI_free_internal(CLI_alloc_t *alloc, chunk_t *chunk);

static inline csize_t chunk_size(const chunk_t *chunk) {
    return chunk->head & ~(PINUSE_BIT | CINUSE_BIT | FENCEPOST_BIT);
}

static inline chunk_t *chunk_at(const void *base, csize_t offset) {
    return (chunk_t *)((char *)base + offset);
}

static inline chunk_t *chunk_next(const chunk_t *chunk) {
    return chunk_at(chunk, chunk_size(chunk));
}

static inline chunk_t *region_first_chunk(const region_t *region) {
    return chunk_at(region, REGION_HEAD_SIZE);
}

static inline chunk_t *region_fencepost(const region_t *region) {
    return chunk_at(region, region->size - REGION_FENCE_SIZE);
}

// The small bin's head: only its fd and bk may be touched.
static inline chunk_t *smallbin_at(CLI_alloc_t *alloc, bindex_t index) {
    return (chunk_t *)(void *)&alloc->smallbins[2 * index];
}

// The bit of size that decides between the children of a tree bin's root is shifted to the top.
static inline unsigned int treebin_shift(bindex_t index) {
    return index == REGION_TREEBIN_COUNT - 1 ? 0 : 63 - (index / 2 + 6);
}

// The least size of a chunk in the tree bin.
static inline csize_t treebin_min_size(bindex_t index) {
    return ((csize_t)1 << (index / 2 + 8)) | ((csize_t)(index & 1) << (index / 2 + 7));
}

// A free chunk, as large as it is, goes into use.
static inline void chunk_mark_used(chunk_t *chunk, csize_t size) {
    chunk->head = size | PINUSE_BIT | CINUSE_BIT;
    chunk_at(chunk, size)->head |= PINUSE_BIT;
}

// A free chunk whose successor already knows that it is free; the one before is always in use.
static inline void chunk_mark_free(chunk_t *chunk, csize_t size) {
    chunk->head = size | PINUSE_BIT;
    chunk_at(chunk, size)->prev_foot = size;
}

// Whether the search for size would come to the designated victim, and leave some of it.
static inline int victim_is_next(const CLI_alloc_t *alloc, csize_t size) {
    const binmap_t better =
        size < CHUNK_TREE_SIZE ? (alloc->smallmap >> (size / 8)) & 3 : alloc->treemap;
    return better == 0 && size + CHUNK_MIN_SIZE <= alloc->dvsize;
}

// The first size bytes of a victim that is larger by a chunk at least.
static inline chunk_t *victim_carve(CLI_alloc_t *alloc, csize_t size) {
    chunk_t *const chunk = alloc->dv;
    const csize_t rest = alloc->dvsize - size;
    chunk_t *const remainder = chunk_at(chunk, size);
    chunk->head = size | PINUSE_BIT | CINUSE_BIT;
    chunk_mark_free(remainder, rest);
    alloc->dv = remainder;
    alloc->dvsize = rest;
    return chunk;
}

ZD_END_DECLS

#endif
