// Every invariant that the full check states, broken by hand: the check must notice.

#include <unistd.h>

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>

#include "support/region.h"

namespace {

treechunk_t *tree_of(char *block) {
    return reinterpret_cast<treechunk_t *>(chunk_of(block));
}

// An allocator that has something of everything: chunks in a small bin, a trie with two children
// and a ring, a victim. Blocks in use stand between the free ones.
class Furnished {
  public:
    Furnished() : region(1 << 20) {
        small[0] = freed_later(100);
        small[1] = freed_later(100);
        root = freed_later(2048 - 48);
        twin = freed_later(2048 - 48);
        right = freed_later(2560 - 48);
        left = freed_later(2304 - 48);
        for (char *const block : {small[0], small[1], root, twin, right, left})
            region.free(block);
        EXPECT_EQ(region.check(), 0);
        EXPECT_EQ(region->treebins[6], tree_of(root));
        EXPECT_EQ(tree_of(root)->child[0], tree_of(left));
        EXPECT_EQ(tree_of(root)->child[1], tree_of(right));
        EXPECT_EQ(tree_of(twin)->parent, nullptr);
        EXPECT_NE(region->dvsize, 0u);
    }

    [[nodiscard]] region_t *memory() const { return region->regions.next; }

    FixedRegion region;
    char *small[2];
    char *root;
    char *twin;
    char *right;
    char *left;
    char *guard = nullptr; // in use, behind the last of them

  private:
    char *freed_later(int64_t bytes) {
        char *const block = region.malloc(bytes);
        guard = region.malloc(0);
        return block;
    }
};

// condition is what the assertion prints, with the characters that mean something to a regular
// expression written as dots.
void expect_noticed(const std::string &condition, const std::function<void(Furnished &)> &damage) {
    Furnished furnished;
    damage(furnished);
    EXPECT_EXIT((void)furnished.region.check(), testing::KilledBySignal(SIGABRT),
                "region_clialloc:[0-9]+: .*: Assertion `" + condition + "' failed\\.\n$")
        << condition;
}

#define EXPECT_NOTICED(condition, ...) expect_noticed(condition, [](Furnished &f) { __VA_ARGS__; })

TEST(RegionCheckDeathTest, RegionListIsConsistent) {
    EXPECT_NOTICED("region->prev == region_prev", f.memory()->prev = f.memory());
    EXPECT_NOTICED("alloc->regions.prev == region_prev",
                   f.region->regions.prev = &f.region->regions);
}

TEST(RegionCheckDeathTest, FencepostShowsTheRegionsSize) {
    const std::string condition = ".*fencepost->head.*";
    EXPECT_NOTICED(condition, f.region.chunk((1 << 20) - 16)->head += 8);
    EXPECT_NOTICED(condition, f.region.chunk((1 << 20) - 16)->head &= ~csize_t{4});
    EXPECT_NOTICED(condition, f.region.chunk((1 << 20) - 16)->head &= ~csize_t{2});
}

TEST(RegionCheckDeathTest, FlagsOfChunksAgreeWithTheirNeighbours) {
    EXPECT_NOTICED(".*chunk->head & .*", f.region.chunk(32)->head &= ~csize_t{1});
    EXPECT_NOTICED(".*chunk->head & .*", chunk_of(f.guard)->head |= 4);
    EXPECT_NOTICED(".*next->head & .*", after(chunk_of(f.guard))->head &= ~csize_t{1});
    EXPECT_NOTICED(".*next->head & .*", after(chunk_of(f.root))->head |= 1);
    EXPECT_NOTICED("\\(\\(next\\)->head & \\(2LLU\\)\\)",
                   after(chunk_of(f.root))->head &= ~csize_t{2});
}

TEST(RegionCheckDeathTest, ChunksFillTheirRegion) {
    EXPECT_NOTICED("size >= CHUNK_MIN_SIZE", chunk_of(f.guard)->head = 2);
    EXPECT_NOTICED("size <= .*", chunk_of(f.guard)->head = (1 << 20) | 2);
    EXPECT_NOTICED("next->prev_foot == size", after(chunk_of(f.root))->prev_foot += 8);
}

TEST(RegionCheckDeathTest, TotalsAreTrue) {
    EXPECT_NOTICED("alloc->total_size == total_region_size", f.region->total_size += 8);
    EXPECT_NOTICED("alloc->total_used .*", f.region->total_used += 8);
    EXPECT_NOTICED("0", f.region->alloctype = REGION_ALLOC_ROOT);
    EXPECT_NOTICED("alloc->total_used == .*", f.region->alloctype = REGION_ALLOC_SYS);
}

TEST(RegionCheckDeathTest, SmallMapAgreesWithTheBins) {
    const std::string condition = "marked == \\(bin->fd != bin\\)";
    EXPECT_NOTICED(condition, f.region->smallmap = 0);
    EXPECT_NOTICED(condition, f.region->smallmap |= 1);
    EXPECT_NOTICED(condition, f.region->smallmap |= 1U << 31);
}

// The links of a small bin's head: the words behind its place.
chunk_t **smallbin(const Furnished &f, int index) {
    return &f.region->smallbins[2 * index + 2];
}

TEST(RegionCheckDeathTest, SmallBinsAreLinkedBothWays) {
    EXPECT_NOTICED("chunk->bk == previous", chunk_of(f.small[0])->bk = chunk_of(f.small[0]));
    EXPECT_NOTICED("bin->bk == previous", smallbin(f, 19)[1] = chunk_of(f.small[1]));
    EXPECT_NOTICED("is_aligned\\(chunk\\)",
                   smallbin(f, 19)[0] = reinterpret_cast<chunk_t *>(f.small[0] - 47));
}

TEST(RegionCheckDeathTest, SmallBinsHoldFreeChunksOfTheirSize) {
    EXPECT_NOTICED("chunk_size\\(chunk\\) == .*", {
        chunk_t **const from = smallbin(f, 19);
        chunk_t **const to = smallbin(f, 20);
        chunk_t *const head = reinterpret_cast<chunk_t *>(to - 2);
        to[0] = from[0];
        to[1] = from[1];
        to[0]->bk = head;
        to[1]->fd = head;
        from[0] = from[1] = reinterpret_cast<chunk_t *>(from - 2);
        f.region->smallmap = 1U << 20;
    });
    EXPECT_NOTICED("!is_used\\(chunk\\)", {
        chunk_of(f.small[0])->head |= 2;
        after(chunk_of(f.small[0]))->head |= 1;
        f.region->total_used += 152;
    });
}

TEST(RegionCheckDeathTest, TreeMapAgreesWithTheBins) {
    const std::string condition = "marked == \\(root != NULL\\)";
    EXPECT_NOTICED(condition, f.region->treemap = 0);
    EXPECT_NOTICED(condition, f.region->treemap |= 1U << 31);
    EXPECT_NOTICED(condition, f.region->treebins[6] = nullptr);
}

TEST(RegionCheckDeathTest, ParentsAndChildrenAgree) {
    EXPECT_NOTICED("node->parent == parent", tree_of(f.root)->parent = nullptr);
    EXPECT_NOTICED("node->parent == parent", tree_of(f.left)->parent = tree_of(f.right));
    EXPECT_NOTICED("node->parent == parent", tree_of(f.root)->child[1] = tree_of(f.root));
}

TEST(RegionCheckDeathTest, NodesLieWhereTheirSizeSays) {
    EXPECT_NOTICED(".*== at.path",
                   { std::swap(tree_of(f.root)->child[0], tree_of(f.root)->child[1]); });
    EXPECT_NOTICED("chunk->index == index", tree_of(f.left)->index = 7);
    EXPECT_NOTICED("size >= treebin_min_size\\(index\\)", {
        std::swap(f.region->treebins[6], f.region->treebins[8]);
        f.region->treemap = 1U << 8;
        tree_of(f.root)->parent = reinterpret_cast<treechunk_t *>(&f.region->treebins[8]);
    });
    EXPECT_NOTICED(".*size < treebin_min_size\\(index \\+ 1\\)", {
        std::swap(f.region->treebins[6], f.region->treebins[5]);
        f.region->treemap = 1U << 5;
        tree_of(f.root)->parent = reinterpret_cast<treechunk_t *>(&f.region->treebins[5]);
    });
}

TEST(RegionCheckDeathTest, TreesHoldAlignedFreeChunks) {
    EXPECT_NOTICED("is_aligned\\(chunk\\)", {
        static treechunk_t copy[2];
        treechunk_t *const askew =
            reinterpret_cast<treechunk_t *>(reinterpret_cast<char *>(copy) + 4);
        memcpy(static_cast<void *>(askew), tree_of(f.left), sizeof *askew);
        memcpy(&tree_of(f.root)->child[0], &askew, sizeof askew);
    });
    EXPECT_NOTICED("!is_used\\(chunk\\)", {
        chunk_of(f.left)->head |= 2;
        after(chunk_of(f.left))->head |= 1;
        f.region->total_used += 2304;
    });
}

TEST(RegionCheckDeathTest, OneOfARingIsTheNode) {
    EXPECT_NOTICED("chunk->parent == NULL", tree_of(f.twin)->parent = tree_of(f.root));
    EXPECT_NOTICED("chunk->child.0. == NULL", tree_of(f.twin)->child[0] = tree_of(f.left));
    EXPECT_NOTICED("chunk->child.1. == NULL", tree_of(f.twin)->child[1] = tree_of(f.left));
    EXPECT_NOTICED("node->fd->bk == node", tree_of(f.twin)->bk = tree_of(f.twin));
    EXPECT_NOTICED("chunk->fd->bk == chunk", tree_of(f.root)->bk = tree_of(f.root));
    EXPECT_NOTICED("tree_size\\(chunk\\) == tree_size\\(node\\)", {
        treechunk_t *const node = tree_of(f.root);
        treechunk_t *const stranger = tree_of(f.left); // in the ring, and out of the trie
        node->child[0] = nullptr;
        stranger->parent = nullptr;
        stranger->fd = node->fd;
        stranger->bk = node;
        node->fd->bk = stranger;
        node->fd = stranger;
    });
}

TEST(RegionCheckDeathTest, VictimIsAChunkOfItsSize) {
    EXPECT_NOTICED("alloc->dv != NULL", f.region->dv = nullptr);
    EXPECT_NOTICED("chunk_size\\(alloc->dv\\) == alloc->dvsize", f.region->dvsize += 8);
    EXPECT_NOTICED("is_aligned\\(alloc->dv\\)", f.region->dv = reinterpret_cast<chunk_t *>(
                                                    reinterpret_cast<char *>(f.region->dv) + 1));
    EXPECT_NOTICED("alloc->dvsize >= CHUNK_MIN_SIZE", {
        static chunk_t tiny = {0, 48 | 1, nullptr, nullptr};
        f.region->dv = &tiny;
        f.region->dvsize = 48;
    });
}

TEST(RegionCheckDeathTest, FreeChunksAreExactlyThoseInTheBins) {
    EXPECT_NOTICED("freechunks.num == chunks_from_bins.num", f.region->dvsize = 0);
    EXPECT_NOTICED("freechunks.ptrs.i. == chunks_from_bins.ptrs.i.", {
        f.region->dv = chunk_of(f.guard);
        f.region->dvsize = 56;
    });
}

TEST(RegionCheckDeathTest, DifferentNumbersOfFreeChunksAreListed) {
    const FixedRegion region(4096);
    EXPECT_NE(region.malloc(0), nullptr);
    char victim[32];
    snprintf(victim, sizeof victim, "%p", static_cast<void *>(region->dv));
    region->dvsize = 0;
    const std::string line(47, '*');
    const std::string pattern = [&] {
        std::string text;
        for (const char c : line + "\nfreechunks:\n" + victim + "\n" + line +
                                "\nchunks_from_bins:\n" + line + "\n")
            text += c == '*' ? std::string("\\*") : std::string(1, c);
        return text;
    }();
    EXPECT_EXIT(
        {
            dup2(2, 1); // only standard error is looked at
            (void)region.check();
        },
        testing::KilledBySignal(SIGABRT), "^" + pattern);
}

} // namespace
