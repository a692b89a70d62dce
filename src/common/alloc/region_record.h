// The records of the region allocator: chunks, regions, and the allocator itself. Layout only; what
// may be done with them is in region_clialloc.h (blocks) and alloc_alg.h (chunks).

#ifndef REGION_RECORD_H
#define REGION_RECORD_H

#include "common/alloc/allocator.h"

typedef enum region_alloctype_e {
    REGION_ALLOC_ROOT = 0,
    REGION_ALLOC_SYS = 1,
    REGION_ALLOC_FIXED = 2,
    SLAB_ALLOC_SHP = 3
} region_alloctype_t;

typedef uint64_t csize_t;
typedef uint32_t binmap_t;
typedef uint32_t bindex_t;

typedef struct chunk_s chunk_t;
typedef struct treechunk_s treechunk_t;
typedef struct region_s region_t;

// The boundary tag at the start of every chunk. Neighbours overlap: prev_foot belongs to the chunk
// before, as its last eight bytes while that one is in use and as its size while it is free.
//
//        in use                                      free
//    0  | prev_foot                         |     | prev_foot (never valid: no two free neighbours)
//    8  | head: size, flags                 |     | head: size, flags
//   16  | call site and size (debug record) |     | fd
//   24  |                                   |     | bk
//   32  |                                   |     | (tree chunks: child[0], child[1], parent,
//   index) 40  | front red zone, 8 x A7            |     | 48  | user's block, n bytes |     |
//       | rear red zone, 8 x 9D             |     |
// size  +-----------------------------------+     +-----------------------
//       | (end of the red zone)             |     | size
struct chunk_s {
    csize_t prev_foot;
    csize_t head;
    chunk_t *fd; // bin links, while the chunk is free
    chunk_t *bk;
};

// Flags in the low bits of head; the size is the rest.
#define PINUSE_BIT (1LLU)    // the chunk before is in use
#define CINUSE_BIT (2LLU)    // this chunk is in use
#define FENCEPOST_BIT (4LLU) // not a chunk, but the end of a region

// A free chunk of 256 bytes or more. Of chunks of one size, linked in a ring through fd and bk,
// only one is a node of the trie; the others have neither parent nor children.
struct treechunk_s {
    csize_t prev_foot;
    csize_t head;
    treechunk_t *fd;
    treechunk_t *bk;
    treechunk_t *child[2];
    treechunk_t *parent; // of a root: the bin that holds it
    bindex_t index;      // the bin that it lies in
};

// The head of a region.
//
//        0                 32                                        size - 16       size
//       +-----------------+-----------------------------------------+---------------+
//       | prev next  size | chunk | chunk | ...                     | fencepost     |
//       +-----------------+-----------------------------------------+---------------+
//
// The first chunk carries PINUSE. The fencepost's head is the region's size with CINUSE and
// FENCEPOST, and PINUSE like any chunk's.
struct region_s {
    region_t *prev; // circular through CLI_alloc_t.regions, newest first
    region_t *next;
    int alloc_idx; // reserved, never set
    csize_t size;  // of the whole region
};

#define REGION_SMALLBIN_COUNT 32
#define REGION_TREEBIN_COUNT 32

typedef struct CLI_alloc_s {
    allocator_t super;
    region_alloctype_t alloctype;
    uint64_t total_size;     // bytes of all regions, their heads included
    uint64_t total_used;     // sum of the sizes of the chunks in use
    uint64_t total_used_max; // reserved, never maintained
    region_t regions;        // sentinel of the region list
    binmap_t smallmap;       // bit i: small bin i is not empty
    binmap_t treemap;        // bit i: tree bin i is not empty
    csize_t dvsize;          // 0 when there is no designated victim
    chunk_t *dv;             // remainder of the last split, first choice of small requests
    // Small bin i is a chunk laid over this array at 2 * i, of which only fd and bk exist.
    chunk_t *smallbins[2 * (REGION_SMALLBIN_COUNT + 2)];
    treechunk_t *treebins[REGION_TREEBIN_COUNT]; // roots
} CLI_alloc_t;

static_assert(sizeof(chunk_t) == 32, "chunks are laid over raw memory");
static_assert(offsetof(chunk_t, head) == 8, "chunks are laid over raw memory");
static_assert(offsetof(chunk_t, fd) == 16, "chunks are laid over raw memory");
static_assert(offsetof(chunk_t, bk) == 24, "chunks are laid over raw memory");
static_assert(sizeof(treechunk_t) == 64, "tree chunks are laid over raw memory");
static_assert(offsetof(treechunk_t, fd) == 16, "a tree chunk begins like a chunk");
static_assert(offsetof(treechunk_t, bk) == 24, "a tree chunk begins like a chunk");
static_assert(offsetof(treechunk_t, child) == 32, "tree chunks are laid over raw memory");
static_assert(offsetof(treechunk_t, parent) == 48, "tree chunks are laid over raw memory");
static_assert(offsetof(treechunk_t, index) == 56, "tree chunks are laid over raw memory");
static_assert(sizeof(region_t) == 32, "the first chunk follows the region's head");
static_assert(offsetof(region_t, alloc_idx) == 16, "region_t is part of the ABI");
static_assert(offsetof(region_t, size) == 24, "region_t is part of the ABI");
static_assert(offsetof(CLI_alloc_t, super) == 0, "a pointer to one is a pointer to both");
static_assert(offsetof(CLI_alloc_t, alloctype) == 152, "CLI_alloc_t is part of the ABI");
static_assert(offsetof(CLI_alloc_t, total_size) == 160, "CLI_alloc_t is part of the ABI");
static_assert(offsetof(CLI_alloc_t, total_used) == 168, "CLI_alloc_t is part of the ABI");
static_assert(offsetof(CLI_alloc_t, total_used_max) == 176, "CLI_alloc_t is part of the ABI");
static_assert(offsetof(CLI_alloc_t, regions) == 184, "CLI_alloc_t is part of the ABI");
static_assert(offsetof(CLI_alloc_t, smallmap) == 216, "CLI_alloc_t is part of the ABI");
static_assert(offsetof(CLI_alloc_t, treemap) == 220, "CLI_alloc_t is part of the ABI");
static_assert(offsetof(CLI_alloc_t, dvsize) == 224, "CLI_alloc_t is part of the ABI");
static_assert(offsetof(CLI_alloc_t, dv) == 232, "CLI_alloc_t is part of the ABI");
static_assert(offsetof(CLI_alloc_t, smallbins) == 240, "CLI_alloc_t is part of the ABI");
static_assert(offsetof(CLI_alloc_t, treebins) == 784, "CLI_alloc_t is part of the ABI");
static_assert(sizeof(CLI_alloc_t) == 1040, "a FIXED buffer's first chunk holds the record");

#endif
