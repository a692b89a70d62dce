#include "common/alloc/alloc_alg.h"

#include <stdlib.h>
#include <string.h>

#include "client/common/client_assert.h"

namespace {

constexpr csize_t kLargestRegion = 0x7FFFFFFF;
constexpr csize_t kLeastGrowth = 4096;
constexpr csize_t kMostGrowth = 0x100000;

bool is_free(const chunk_t *chunk) {
    return (chunk->head & CINUSE_BIT) == 0;
}

treechunk_t *as_tree(chunk_t *chunk) {
    return reinterpret_cast<treechunk_t *>(chunk);
}

csize_t tree_size(const treechunk_t *node) {
    return chunk_size(reinterpret_cast<const chunk_t *>(node));
}

bindex_t lowest_bin(binmap_t map) {
    return static_cast<bindex_t>(__builtin_ctz(map));
}

// ---- small bins: rings through the bin's head, one exact size each ----

void small_insert(CLI_alloc_t *alloc, chunk_t *chunk, csize_t size) {
    const bindex_t index = static_cast<bindex_t>(size / 8);
    chunk_t *const bin = smallbin_at(alloc, index);
    chunk_t *const first = bin->fd;
    chunk->fd = first;
    chunk->bk = bin;
    first->bk = chunk;
    bin->fd = chunk;
    alloc->smallmap |= 1U << index;
}

void small_remove(CLI_alloc_t *alloc, chunk_t *chunk, csize_t size) {
    chunk_t *const before = chunk->bk;
    chunk_t *const after = chunk->fd;
    before->fd = after;
    after->bk = before;
    if (before == after) // both are the bin's head
        alloc->smallmap &= ~(1U << (size / 8));
}

// ---- tree bins ----
//
// A bin holds a range of sizes with one leading bit (or two) in common. The next bit of a size says
// which child of the root it lies under, the bit after that which child there, and so on; a node
// itself may have any size that its position admits.

bindex_t tree_index(csize_t size) {
    const csize_t units = size >> 8;
    if (units >= 65536)
        return REGION_TREEBIN_COUNT - 1;
    const unsigned int top = 63U - static_cast<unsigned int>(__builtin_clzll(units));
    return static_cast<bindex_t>(2 * top + ((size >> (top + 7)) & 1));
}

void ring_insert(treechunk_t *node, treechunk_t *chunk) {
    treechunk_t *const after = node->fd;
    chunk->parent = nullptr;
    chunk->fd = after;
    chunk->bk = node;
    after->bk = chunk;
    node->fd = chunk;
}

void tree_insert(CLI_alloc_t *alloc, treechunk_t *chunk, csize_t size) {
    const bindex_t index = tree_index(size);
    treechunk_t **slot = &alloc->treebins[index];
    chunk->index = index;
    chunk->child[0] = nullptr;
    chunk->child[1] = nullptr;
    treechunk_t *parent = reinterpret_cast<treechunk_t *>(slot);
    if ((alloc->treemap & (1U << index)) == 0) {
        alloc->treemap |= 1U << index;
    } else {
        for (csize_t bits = size << treebin_shift(index); *slot != nullptr; bits <<= 1) {
            parent = *slot;
            if (tree_size(parent) == size) {
                ring_insert(parent, chunk);
                return;
            }
            slot = &parent->child[bits >> 63];
        }
    }
    *slot = chunk;
    chunk->parent = parent;
    chunk->fd = chunk;
    chunk->bk = chunk;
}

// Takes a leaf below node out of the trie; node has children.
treechunk_t *detach_leaf(treechunk_t *node) {
    treechunk_t **slot;
    do {
        slot = &node->child[node->child[1] != nullptr];
        node = *slot;
    } while (node->child[0] != nullptr || node->child[1] != nullptr);
    *slot = nullptr;
    return node;
}

// Puts replacement (NULL: nothing) where node is in the trie.
void tree_replace(CLI_alloc_t *alloc, treechunk_t *node, treechunk_t *replacement) {
    treechunk_t *const parent = node->parent;
    treechunk_t **const bin = &alloc->treebins[node->index];
    if (*bin == node) {
        *bin = replacement;
        if (replacement == nullptr)
            alloc->treemap &= ~(1U << node->index);
    } else {
        parent->child[parent->child[1] == node] = replacement;
    }
    if (replacement == nullptr)
        return;
    replacement->parent = parent;
    for (int i = 0; i < 2; i++) {
        replacement->child[i] = node->child[i];
        if (replacement->child[i] != nullptr)
            replacement->child[i]->parent = replacement;
    }
}

void tree_remove(CLI_alloc_t *alloc, treechunk_t *chunk) {
    treechunk_t *replacement = chunk->bk;
    if (replacement != chunk) {
        chunk->fd->bk = replacement;
        replacement->fd = chunk->fd;
        if (chunk->parent == nullptr)
            return;
    } else if (chunk->child[0] == nullptr && chunk->child[1] == nullptr) {
        replacement = nullptr;
    } else {
        replacement = detach_leaf(chunk);
    }
    tree_replace(alloc, chunk, replacement);
}

// A search's best chunk so far, and what it has more than was asked for.
struct fit_t {
    treechunk_t *node;
    csize_t excess;
};

constexpr fit_t kNoFit = {nullptr, INT64_MAX};

void consider(fit_t *fit, treechunk_t *node, csize_t size) {
    const csize_t excess = tree_size(node) - size; // of a smaller node: larger than any
    if (excess < fit->excess)
        *fit = {node, excess};
}

// Considers the nodes on the way down to the least sizes.
void search_leftmost(fit_t *fit, treechunk_t *node, csize_t size) {
    while (node != nullptr) {
        consider(fit, node, size);
        node = node->child[node->child[0] == nullptr];
    }
}

// The smallest tree chunk of at least size (256 or more) bytes.
fit_t tree_best_fit(const CLI_alloc_t *alloc, csize_t size) {
    const bindex_t index = tree_index(size);
    fit_t fit = kNoFit;
    treechunk_t *larger = nullptr; // subtree of the least sizes that are above all on size's path
    treechunk_t *node = alloc->treebins[index];
    for (csize_t bits = size << treebin_shift(index); node != nullptr; bits <<= 1) {
        consider(&fit, node, size);
        if (fit.excess == 0)
            return fit;
        treechunk_t *const right = node->child[1];
        node = node->child[bits >> 63];
        if (right != nullptr && right != node)
            larger = right;
    }
    search_leftmost(&fit, larger, size);
    const binmap_t above = alloc->treemap & ~((2U << index) - 1);
    if (fit.node == nullptr && above != 0)
        search_leftmost(&fit, alloc->treebins[lowest_bin(above)], size);
    return fit;
}

// ---- both kinds of bins ----

void bin_insert(CLI_alloc_t *alloc, chunk_t *chunk, csize_t size) {
    if (size < CHUNK_TREE_SIZE)
        small_insert(alloc, chunk, size);
    else
        tree_insert(alloc, as_tree(chunk), size);
}

void bin_remove(CLI_alloc_t *alloc, chunk_t *chunk, csize_t size) {
    if (size < CHUNK_TREE_SIZE)
        small_remove(alloc, chunk, size);
    else
        tree_remove(alloc, as_tree(chunk));
}

// ---- allocation ----

// Hands out the first size bytes of a free chunk, in no bin, that has excess bytes more. If those
// are worth a chunk of their own, they are marked as one and returned; NULL when the chunk is
// handed out whole.
chunk_t *split(chunk_t *chunk, csize_t size, csize_t excess) {
    if (excess < CHUNK_MIN_SIZE) {
        chunk_mark_used(chunk, size + excess);
        return nullptr;
    }
    chunk->head = size | PINUSE_BIT | CINUSE_BIT;
    chunk_t *const remainder = chunk_at(chunk, size);
    chunk_mark_free(remainder, excess);
    return remainder;
}

// Splits; the remainder becomes the designated victim. The old one is smaller than a small request,
// so it goes to a small bin.
chunk_t *split_to_victim(CLI_alloc_t *alloc, chunk_t *chunk, csize_t size, csize_t excess) {
    chunk_t *const remainder = split(chunk, size, excess);
    if (remainder != nullptr) {
        if (alloc->dvsize != 0)
            small_insert(alloc, alloc->dv, alloc->dvsize);
        alloc->dv = remainder;
        alloc->dvsize = excess;
    }
    return chunk;
}

// From the small bins above index, else the smallest tree chunk; NULL when all are empty.
chunk_t *take_larger(CLI_alloc_t *alloc, csize_t size, bindex_t index) {
    const binmap_t above = alloc->smallmap & ~((2U << index) - 1);
    if (above != 0) {
        const bindex_t bin = lowest_bin(above);
        const csize_t whole = static_cast<csize_t>(bin) * 8;
        chunk_t *const chunk = smallbin_at(alloc, bin)->fd;
        small_remove(alloc, chunk, whole);
        return split_to_victim(alloc, chunk, size, whole - size);
    }
    if (alloc->treemap == 0)
        return nullptr;
    fit_t fit = kNoFit;
    search_leftmost(&fit, alloc->treebins[lowest_bin(alloc->treemap)], size);
    tree_remove(alloc, fit.node);
    return split_to_victim(alloc, reinterpret_cast<chunk_t *>(fit.node), size, fit.excess);
}

chunk_t *take_small(CLI_alloc_t *alloc, csize_t size) {
    const bindex_t exact = static_cast<bindex_t>(size / 8);
    const binmap_t fitting = (alloc->smallmap >> exact) & 3;
    if (fitting != 0) {
        const bindex_t index = exact + lowest_bin(fitting);
        const csize_t whole = static_cast<csize_t>(index) * 8;
        chunk_t *const chunk = smallbin_at(alloc, index)->fd;
        small_remove(alloc, chunk, whole);
        chunk_mark_used(chunk, whole);
        return chunk;
    }
    return size > alloc->dvsize ? take_larger(alloc, size, exact) : nullptr;
}

chunk_t *take_large(CLI_alloc_t *alloc, csize_t size) {
    if (alloc->treemap == 0)
        return nullptr;
    const fit_t fit = tree_best_fit(alloc, size);
    const bool victim_fits_as_well = alloc->dvsize >= size && alloc->dvsize - size <= fit.excess;
    if (fit.node == nullptr || victim_fits_as_well)
        return nullptr;
    tree_remove(alloc, fit.node);
    chunk_t *const chunk = reinterpret_cast<chunk_t *>(fit.node);
    chunk_t *const remainder = split(chunk, size, fit.excess);
    if (remainder != nullptr)
        bin_insert(alloc, remainder, fit.excess);
    return chunk;
}

chunk_t *take_victim(CLI_alloc_t *alloc, csize_t size) {
    if (alloc->dvsize - size >= CHUNK_MIN_SIZE)
        return victim_carve(alloc, size);
    chunk_t *const chunk = alloc->dv;
    chunk_mark_used(chunk, alloc->dvsize);
    alloc->dv = nullptr;
    alloc->dvsize = 0;
    return chunk;
}

csize_t growth(const CLI_alloc_t *alloc, csize_t size) {
    csize_t bytes = (alloc->total_size / 2 + 7) & ~7LLU;
    if (bytes < kLeastGrowth)
        bytes = kLeastGrowth;
    if (bytes > kMostGrowth)
        bytes = kMostGrowth;
    return bytes < size + REGION_OVERHEAD ? size + REGION_OVERHEAD : bytes;
}

region_t *region_new(CLI_alloc_t *alloc, csize_t bytes) {
    region_t *const region = static_cast<region_t *>(malloc(bytes));
    if (region == nullptr)
        return nullptr;
    alloc->total_size += bytes;
    region_t *const first = alloc->regions.next;
    region->prev = &alloc->regions;
    region->next = first;
    region->size = bytes;
    first->prev = region;
    alloc->regions.next = region;
    region_fencepost(region)->head = bytes | PINUSE_BIT | CINUSE_BIT | FENCEPOST_BIT;
    return region;
}

void region_release(CLI_alloc_t *alloc, region_t *region) {
    const csize_t region_size = region->size;
    region->prev->next = region->next;
    region->next->prev = region->prev;
    free(region);
    ZD_ASSERT_AT("alloc_alg", 696, alloc->total_size >= region_size);
    alloc->total_size -= region_size;
}

chunk_t *take_from_new_region(CLI_alloc_t *alloc, csize_t size) {
    if (size > kLargestRegion - REGION_OVERHEAD)
        return nullptr;
    if (alloc->alloctype == REGION_ALLOC_FIXED)
        return nullptr;
    if (alloc->alloctype != REGION_ALLOC_SYS)
        zd_assert_fail("0", "alloc_alg", 483);
    region_t *const region = region_new(alloc, growth(alloc, size));
    if (region == nullptr)
        return nullptr;
    chunk_t *const chunk = region_first_chunk(region);
    chunk_t *const remainder = split(chunk, size, region->size - REGION_OVERHEAD - size);
    if (remainder != nullptr)
        CLI_free_internal(alloc, remainder);
    return chunk;
}

} // namespace

chunk_t *CLI_malloc_internal(CLI_alloc_t *alloc, uint64_t size) {
    chunk_t *const binned =
        size < CHUNK_TREE_SIZE ? take_small(alloc, size) : take_large(alloc, size);
    if (binned != nullptr)
        return binned;
    if (size <= alloc->dvsize)
        return take_victim(alloc, size);
    return take_from_new_region(alloc, size);
}

void CLI_free_internal(CLI_alloc_t *alloc, chunk_t *chunk) {
    csize_t size = chunk_size(chunk);
    bool victim = false;
    chunk_t *next = chunk_at(chunk, size);
    if ((chunk->head & PINUSE_BIT) == 0) {
        const csize_t before = chunk->prev_foot;
        chunk = reinterpret_cast<chunk_t *>(reinterpret_cast<char *>(chunk) - before);
        size += before;
        victim = chunk == alloc->dv;
        if (!victim)
            bin_remove(alloc, chunk, before);
    }
    if (is_free(next)) {
        const csize_t after = chunk_size(next);
        size += after;
        if (next == alloc->dv)
            victim = true;
        else
            bin_remove(alloc, next, after);
        next = chunk_at(chunk, size);
    }
    if ((next->head & FENCEPOST_BIT) != 0 && chunk_size(next) - REGION_OVERHEAD == size) {
        if (victim) {
            alloc->dv = nullptr;
            alloc->dvsize = 0;
        }
        region_release(alloc, reinterpret_cast<region_t *>(reinterpret_cast<char *>(chunk) -
                                                           REGION_HEAD_SIZE));
        return;
    }
    chunk_mark_free(chunk, size);
    next->head &= ~PINUSE_BIT;
    if (victim) {
        alloc->dv = chunk;
        alloc->dvsize = size;
    } else {
        bin_insert(alloc, chunk, size);
    }
}

chunk_t *CLI_realloc_internal(CLI_alloc_t *alloc, chunk_t *chunk, uint64_t size) {
    const csize_t old_size = chunk_size(chunk);
    if (old_size < size) {
        chunk_t *const moved = CLI_malloc_internal(alloc, size);
        if (moved == nullptr)
            return nullptr;
        // The last eight bytes are those that the next chunk lends.
        memcpy(&moved->fd, &chunk->fd, old_size - 8);
        CLI_free_internal(alloc, chunk);
        return moved;
    }
    if (old_size - size < CHUNK_MIN_SIZE)
        return chunk;
    chunk->head = size | (chunk->head & PINUSE_BIT) | CINUSE_BIT;
    chunk_t *const tail = chunk_at(chunk, size);
    chunk_mark_used(tail, old_size - size);
    CLI_free_internal(alloc, tail);
    return chunk;
}
