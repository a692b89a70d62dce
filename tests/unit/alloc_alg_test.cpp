#include "common/alloc/alloc_alg.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <vector>

#include "support/region.h"

namespace {

// A FIXED allocator spends 1096 bytes on itself; its first chunk lies at 1080.
constexpr int64_t kFirst = 1080;

int64_t offset_of(const FixedRegion &region, const void *chunk) {
    return static_cast<const char *>(chunk) - region.buffer();
}

class Random {
  public:
    explicit Random(uint64_t seed) : state_(seed) {}
    uint32_t below(uint32_t bound) {
        state_ = state_ * 6364136223846793005u + 1442695040888963407u;
        return static_cast<uint32_t>(state_ >> 33) % bound;
    }

  private:
    uint64_t state_;
};

// ---- the designated victim and the small bins ----

TEST(ChunkAlgorithm, RemainderOfASmallRequestBecomesTheVictim) {
    const FixedRegion region(65536);
    const csize_t all = 65536 - 1096;
    EXPECT_EQ(offset_of(region, chunk_of(region.malloc(0))), kFirst);
    EXPECT_EQ(offset_of(region, region->dv), kFirst + 56);
    EXPECT_EQ(region->dvsize, all - 56);
    EXPECT_EQ(region->treemap, 0u);
    EXPECT_EQ(offset_of(region, chunk_of(region.malloc(100))), kFirst + 56);
    EXPECT_EQ(offset_of(region, region->dv), kFirst + 56 + 152);
    EXPECT_EQ(region->dvsize, all - 56 - 152);
    EXPECT_EQ(region.check(), 0);
}

TEST(ChunkAlgorithm, RemainderOfALargeRequestGoesToItsBin) {
    const FixedRegion region(65536);
    EXPECT_EQ(offset_of(region, chunk_of(region.malloc(1000))), kFirst);
    EXPECT_EQ(region->dvsize, 0u);
    EXPECT_EQ(region->treemap, 1u << 15); // 49152 to 65535
    EXPECT_EQ(offset_of(region, region->treebins[15]), kFirst + 1048);
    EXPECT_EQ(region.check(), 0);
}

TEST(ChunkAlgorithm, LargeRequestIsCarvedFromTheVictimWhereTheTreesAreEmpty) {
    const FixedRegion region(65536);
    EXPECT_NE(region.malloc(0), nullptr);
    EXPECT_EQ(offset_of(region, chunk_of(region.malloc(1000))), kFirst + 56);
    EXPECT_EQ(offset_of(region, region->dv), kFirst + 56 + 1048);
    EXPECT_EQ(region.check(), 0);
}

TEST(ChunkAlgorithm, VictimIsHandedOutWholeWhenLessThanAChunkWouldRemain) {
    const FixedRegion region(1096 + 160);
    EXPECT_NE(region.malloc(0), nullptr);
    EXPECT_EQ(region->dvsize, 104u);
    EXPECT_EQ(size_of(chunk_of(region.malloc(0))), 104u);
    EXPECT_EQ(region->dv, nullptr);
    EXPECT_EQ(region->dvsize, 0u);
    EXPECT_EQ(region->total_used, 160u);
    EXPECT_EQ(region.check(), 0);
}

TEST(ChunkAlgorithm, RemainderOfFiftySixBytesStaysTheVictim) {
    const FixedRegion region(1096 + 168);
    EXPECT_NE(region.malloc(0), nullptr);
    EXPECT_EQ(size_of(chunk_of(region.malloc(0))), 56u);
    EXPECT_EQ(region->dvsize, 56u);
    EXPECT_EQ(region.check(), 0);
}

TEST(ChunkAlgorithm, ExactSmallBinIsTakenFirst) {
    const FixedRegion region(65536);
    char *const block = region.malloc(100);
    EXPECT_NE(region.malloc(0), nullptr);
    region.free(block);
    EXPECT_EQ(region->smallmap, 1u << (152 / 8));
    EXPECT_EQ(region.malloc(97), block);
    EXPECT_EQ(region->smallmap, 0u);
    EXPECT_EQ(region.check(), 0);
}

TEST(ChunkAlgorithm, ChunkOfTheNextSmallBinIsHandedOutWhole) {
    const FixedRegion region(65536);
    char *const block = region.malloc(100);
    EXPECT_NE(region.malloc(0), nullptr);
    region.free(block);
    EXPECT_EQ(region.malloc(96), block); // 144 asked for, 152 given
    EXPECT_EQ(size_of(chunk_of(block)), 152u);
    EXPECT_EQ(region->total_used, 152u + 56);
    EXPECT_EQ(region.check(), 0);
    region.free(block);
    EXPECT_EQ(region->total_used, 56u);
}

TEST(ChunkAlgorithm, LastFreedChunkOfABinIsTheFirstTaken) {
    const FixedRegion region(65536);
    char *const one = region.malloc(100);
    EXPECT_NE(region.malloc(0), nullptr);
    char *const other = region.malloc(100);
    EXPECT_NE(region.malloc(0), nullptr);
    region.free(one);
    region.free(other);
    EXPECT_EQ(region.check(), 0);
    EXPECT_EQ(region.malloc(100), other);
    EXPECT_EQ(region.malloc(100), one);
}

TEST(ChunkAlgorithm, VictimComesBeforeALargerSmallBin) {
    const FixedRegion region(65536);
    char *const block = region.malloc(100);
    EXPECT_NE(region.malloc(0), nullptr);
    region.free(block);
    const chunk_t *const victim = region->dv;
    EXPECT_EQ(chunk_of(region.malloc(80)), victim); // 128; bins 16 and 17 are empty
    EXPECT_EQ(region->smallmap, 1u << (152 / 8));
}

// A chunk of 200 bytes in its bin, one of 56 in use, a victim of 64.
class SmallVictim : public testing::Test {
  protected:
    SmallVictim() : region_(1096 + 200 + 56 + 64) {
        char *const block = region_.malloc(152);
        guard_ = region_.malloc(0);
        region_.free(block);
    }
    FixedRegion region_;
    char *guard_;
};

TEST_F(SmallVictim, LargerSmallBinIsSplitAndTheOldVictimBinned) {
    ASSERT_EQ(region_->dvsize, 64u);
    ASSERT_EQ(region_->smallmap, 1u << (200 / 8));
    EXPECT_EQ(offset_of(region_, chunk_of(region_.malloc(24))), kFirst); // 72: more than 64
    EXPECT_EQ(offset_of(region_, region_->dv), kFirst + 72);
    EXPECT_EQ(region_->dvsize, 128u);
    EXPECT_EQ(region_->smallmap, 1u << (64 / 8));
    EXPECT_EQ(region_.check(), 0);
}

TEST_F(SmallVictim, OfExactlyTheSizeIsTakenBeforeALargerSmallBin) {
    EXPECT_EQ(offset_of(region_, chunk_of(region_.malloc(16))), kFirst + 200 + 56); // 64, all of it
    EXPECT_EQ(region_->dvsize, 0u);
    EXPECT_EQ(region_->dv, nullptr);
    EXPECT_EQ(region_->smallmap, 1u << (200 / 8));
    EXPECT_EQ(region_.check(), 0);
}

TEST_F(SmallVictim, ChunkBehindTheVictimMergesIntoIt) {
    EXPECT_NE(region_.malloc(24), nullptr);
    region_.free(guard_); // the victim before it, a binned chunk behind it
    EXPECT_EQ(offset_of(region_, region_->dv), kFirst + 72);
    EXPECT_EQ(region_->dvsize, 128u + 56 + 64);
    EXPECT_EQ(region_->smallmap, 0u);
    EXPECT_EQ(region_.check(), 0);
}

TEST_F(SmallVictim, LargerChunkIsHandedOutWholeWhenLittleWouldRemain) {
    EXPECT_EQ(size_of(chunk_of(region_.malloc(100))), 200u); // 152 of 200: 48 too much
    EXPECT_EQ(region_->dvsize, 64u);
    EXPECT_EQ(region_.check(), 0);
}

// ---- the tree bins ----

TEST(ChunkAlgorithm, TreeBinFollowsFromTheSize) {
    const struct {
        int64_t size;
        bindex_t index;
    } cases[] = {{256, 0},      {376, 0},
                 {384, 1},      {504, 1},
                 {512, 2},      {760, 2},
                 {768, 3},      {1016, 3},
                 {1024, 4},     {4096, 8},
                 {6136, 8},     {6144, 9},
                 {8184, 9},     {1 << 20, 24},
                 {3 << 19, 25}, {(1 << 21) - 8, 25},
                 {1 << 23, 30}, {(3 << 22) - 8, 30},
                 {3 << 22, 31}, {1 << 24, 31},
                 {20 << 20, 31}};
    for (const auto &one : cases) {
        const FixedRegion region(32 << 20);
        char *const block = region.malloc(one.size - 48);
        EXPECT_NE(region.malloc(0), nullptr);
        region.free(block);
        const treechunk_t *const chunk = reinterpret_cast<treechunk_t *>(chunk_of(block));
        EXPECT_EQ(chunk->index, one.index) << one.size;
        EXPECT_EQ(region->treebins[one.index], chunk) << one.size;
        EXPECT_EQ(region->treemap, 1u << one.index) << one.size;
        EXPECT_EQ(region.check(), 0) << one.size;
    }
}

TEST(ChunkAlgorithm, LargestSmallChunkIsOf248Bytes) {
    const FixedRegion region(65536);
    char *const block = region.malloc(200);
    EXPECT_NE(region.malloc(0), nullptr);
    region.free(block);
    EXPECT_EQ(region->smallmap, 1u << 31);
    EXPECT_EQ(region->treemap, 0u);
    EXPECT_EQ(region.check(), 0);
}

// Free chunks of the given sizes, kept apart by chunks in use; the rest of the buffer is the
// victim.
std::vector<char *> free_chunks(const FixedRegion &region, const std::vector<int64_t> &sizes) {
    std::vector<char *> blocks;
    for (const int64_t size : sizes) {
        blocks.push_back(region.malloc(size - 48));
        EXPECT_NE(region.malloc(0), nullptr);
    }
    for (char *const block : blocks)
        region.free(block);
    EXPECT_EQ(region.check(), 0);
    return blocks;
}

TEST(ChunkAlgorithm, LargeRequestTakesTheBestFit) {
    const FixedRegion region(65536);
    const std::vector<char *> blocks = free_chunks(region, {1048, 648, 752});
    const chunk_t *const victim = region->dv;
    EXPECT_EQ(region.malloc(650), blocks[2]); // 704 of 752: whole
    EXPECT_EQ(size_of(chunk_of(blocks[2])), 752u);
    EXPECT_EQ(region.malloc(600), blocks[1]); // exactly
    EXPECT_EQ(region.malloc(600), blocks[0]); // 648 of 1048
    const chunk_t *const rest = after(chunk_of(blocks[0]));
    EXPECT_EQ(size_of(rest), 400u);
    EXPECT_EQ(static_cast<void *>(region->treebins[1]), rest);
    EXPECT_EQ(region->dv, victim);
    EXPECT_EQ(region.check(), 0);
}

TEST(ChunkAlgorithm, RemainderOfALargeRequestMayBeSmall) {
    const FixedRegion region(65536);
    const std::vector<char *> blocks = free_chunks(region, {1048});
    EXPECT_EQ(region.malloc(900), blocks[0]); // 952 of 1048
    EXPECT_EQ(region->smallmap, 1u << (96 / 8));
    EXPECT_EQ(region.check(), 0);
}

// A free chunk of 400 bytes in its tree bin, one of 56 in use, a victim of the given size.
void expect_taken(int64_t victim_size, bool from_victim) {
    const FixedRegion region(1096 + 400 + 56 + victim_size);
    char *const block = region.malloc(352);
    EXPECT_NE(region.malloc(0), nullptr);
    region.free(block);
    EXPECT_EQ(region->dvsize, static_cast<csize_t>(victim_size));
    const chunk_t *const expected = from_victim ? region->dv : chunk_of(block);
    EXPECT_EQ(chunk_of(region.malloc(340)), expected) << victim_size; // 392
    EXPECT_EQ(region.check(), 0);
}

TEST(ChunkAlgorithm, VictimWinsOnlyWhereItFitsAsWell) {
    expect_taken(384, false); // too small
    expect_taken(392, true);
    expect_taken(400, true);
    expect_taken(408, false);
}

TEST(ChunkAlgorithm, SmallRequestTakesTheSmallestTreeChunk) {
    const FixedRegion region(1096 + 1048 + 56 + 648 + 56 + 752 + 56);
    const std::vector<char *> blocks = free_chunks(region, {1048, 648, 752});
    EXPECT_EQ(region->dvsize, 0u);
    EXPECT_EQ(region.malloc(0), blocks[1]);
    EXPECT_EQ(region->dv, after(chunk_of(blocks[1])));
    EXPECT_EQ(region->dvsize, 592u);
    EXPECT_EQ(region.check(), 0);
}

TEST(ChunkAlgorithm, EqualSizesShareOneNode) {
    const FixedRegion region(65536);
    std::vector<char *> blocks = free_chunks(region, {2048, 2048, 2048, 2048});
    int nodes = 0;
    for (char *const block : blocks)
        nodes += reinterpret_cast<treechunk_t *>(chunk_of(block))->parent != nullptr;
    EXPECT_EQ(nodes, 1);
    std::vector<char *> taken;
    for (size_t i = 0; i < blocks.size(); i++) {
        taken.push_back(region.malloc(2000));
        EXPECT_EQ(region.check(), 0);
    }
    std::sort(taken.begin(), taken.end());
    EXPECT_EQ(taken, blocks);
    EXPECT_EQ(region->treemap, 0u);
}

TEST(ChunkAlgorithm, TrieOfOneBinYieldsEverySizeInAnyOrder) {
    std::vector<int64_t> sizes;
    for (int64_t i = 0; i < 128; i++)
        sizes.push_back(2048 + i * 37 % 128 * 8); // all the sizes of bin 6, in disorder
    for (const size_t step : {1, 5, 127}) {
        const FixedRegion region(1 << 20);
        const std::vector<char *> blocks = free_chunks(region, sizes);
        EXPECT_EQ(region->treemap, 1u << 6);
        for (size_t i = 0; i < sizes.size(); i++) {
            const size_t at = i * step % sizes.size();
            EXPECT_EQ(region.malloc(sizes[at] - 48), blocks[at]) << sizes[at];
            ASSERT_EQ(region.check(), 0) << sizes[at];
        }
    }
}

// ---- freeing ----

TEST(ChunkAlgorithm, FreeChunksMergeOnBothSides) {
    const FixedRegion region(65536);
    char *blocks[4];
    for (char *&block : blocks)
        block = region.malloc(100);
    region.free(blocks[0]);
    region.free(blocks[2]);
    EXPECT_EQ(region->smallmap, 1u << (152 / 8));
    region.free(blocks[1]);
    EXPECT_EQ(size_of(chunk_of(blocks[0])), 456u);
    EXPECT_EQ(region->smallmap, 0u);
    EXPECT_EQ(static_cast<void *>(region->treebins[1]), chunk_of(blocks[0]));
    EXPECT_EQ(region.check(), 0);
    region.free(blocks[3]); // the tree chunk before it, the victim behind it
    EXPECT_EQ(region->dv, chunk_of(blocks[0]));
    EXPECT_EQ(region->dvsize, 65536u - 1096);
    EXPECT_EQ(region->treemap, 0u);
    EXPECT_EQ(region.check(), 0);
}

TEST(ChunkAlgorithm, EmptyRegionGoesBackWithItsVictim) {
    const SysRegion region;
    char *const one = region.malloc(8);
    char *const other = region.malloc(8);
    EXPECT_NE(region->dvsize, 0u);
    region.free(one);
    EXPECT_EQ(region.region_count(), 1);
    region.free(other);
    EXPECT_EQ(region.region_count(), 0);
    EXPECT_EQ(region->dv, nullptr);
    EXPECT_EQ(region->dvsize, 0u);
    EXPECT_EQ(region->total_size, 0u);
    EXPECT_EQ(region.check(), 0);
}

TEST(ChunkAlgorithm, VictimElsewhereSurvivesAnEmptyRegion) {
    const SysRegion region;
    EXPECT_NE(region.malloc(8), nullptr);
    EXPECT_NE(region.malloc(8), nullptr);
    const chunk_t *const victim = region->dv;
    region.free(region.malloc(10000));
    EXPECT_EQ(region.region_count(), 1);
    EXPECT_EQ(region->dv, victim);
    EXPECT_EQ(region.check(), 0);
}

TEST(ChunkAlgorithm, RegionInTheMiddleOfTheListGoesBack) {
    const SysRegion region;
    char *const oldest = region.malloc(4000);
    char *const middle = region.malloc(5000);
    char *const newest = region.malloc(6000);
    region.free(middle);
    EXPECT_EQ(region.region_count(), 2);
    EXPECT_EQ(region.check(), 0);
    region.free(newest);
    EXPECT_EQ(region.check(), 0);
    region.free(oldest);
    EXPECT_EQ(region->total_size, 0u);
}

TEST(ChunkAlgorithmDeathTest, RegionLargerThanAllRegionsIsAnAssertion) {
    const SysRegion region;
    char *const block = region.malloc(8);
    region->total_size = 4095;
    EXPECT_EXIT(region.free(block), testing::KilledBySignal(SIGABRT),
                "alloc_alg:696: Assertion fail with condition 'alloc->total_size >= region_size' ");
}

// ---- growing ----

TEST(ChunkAlgorithm, RegionIsLaidOutWithHeadAndFencepost) {
    const SysRegion region;
    char *const block = region.malloc(100);
    const region_t *const memory = region->regions.next;
    const char *const base = reinterpret_cast<const char *>(memory);
    EXPECT_EQ(reinterpret_cast<char *>(chunk_of(block)), base + 32);
    EXPECT_EQ(chunk_of(block)->head, 152u | 3);
    const chunk_t *const rest = after(chunk_of(block));
    EXPECT_EQ(rest->head, (4096u - 48 - 152) | 1);
    const chunk_t *const fencepost = reinterpret_cast<const chunk_t *>(base + 4096 - 16);
    EXPECT_EQ(fencepost->prev_foot, 4096u - 48 - 152);
    EXPECT_EQ(fencepost->head, 4096u | 6);
    EXPECT_EQ(memory->prev, &region->regions);
    EXPECT_EQ(memory->next, &region->regions);
    EXPECT_EQ(region->regions.prev, memory);
    EXPECT_EQ(region->dvsize, 0u); // the rest lies in its bin
    EXPECT_EQ(region->treemap, 1u << 7);
}

TEST(ChunkAlgorithm, RestOfANewRegionIsAChunkFromFiftySixBytesOn) {
    const SysRegion split;
    EXPECT_EQ(size_of(chunk_of(split.malloc(3944))), 3992u);
    EXPECT_EQ(split->smallmap, 1u << 7);
    EXPECT_EQ(split.check(), 0);
    const SysRegion whole;
    EXPECT_EQ(size_of(chunk_of(whole.malloc(3952))), 4048u); // 4000 asked for
    EXPECT_EQ(whole->smallmap, 0u);
    EXPECT_EQ(whole->total_used, 4048u);
    EXPECT_EQ(whole.check(), 0);
}

TEST(ChunkAlgorithm, RegionsGrowByHalfOfAllUpToOneMegabyte) {
    const SysRegion region;
    const csize_t expected[] = {4096,   4096,   4096,    6144,    9216,   13824,  20736,
                                31104,  46656,  69984,   104976,  157464, 236200, 354296,
                                531448, 797168, 1048576, 1048576, 1048576};
    for (const csize_t size : expected) {
        const region_t *const newest = region->regions.next;
        while (region->regions.next == newest)
            ASSERT_NE(region.malloc(4000), nullptr);
        EXPECT_EQ(region->regions.next->size, size);
    }
    EXPECT_EQ(region.check(), 0);
}

TEST(ChunkAlgorithm, RequestLargerThanTheGrowthGetsItsOwnRegion) {
    const SysRegion region;
    EXPECT_NE(region.malloc(4000), nullptr);
    EXPECT_NE(region.malloc(4008), nullptr); // 4056 and 48 exceed 4096
    EXPECT_EQ(region->regions.next->size, 4104u);
    EXPECT_NE(region.malloc(5000000), nullptr);
    EXPECT_EQ(region->regions.next->size, 5000096u);
    EXPECT_NE(region.malloc(4000), nullptr); // half of all is more than a megabyte now
    EXPECT_EQ(region->regions.next->size, 1048576u);
    EXPECT_EQ(region.check(), 0);
}

TEST(ChunkAlgorithm, InternalOperationsWorkOnChunks) {
    const SysRegion region;
    CLI_alloc_t *const alloc = region.operator->();
    chunk_t *const chunk = CLI_malloc_internal(alloc, 1000);
    EXPECT_EQ(size_of(chunk), 1000u);
    EXPECT_EQ(region->total_used, 0u); // the callers' account
    EXPECT_EQ(CLI_realloc_internal(alloc, chunk, 952), chunk);
    EXPECT_EQ(size_of(chunk), 1000u);
    EXPECT_EQ(CLI_realloc_internal(alloc, chunk, 944), chunk);
    EXPECT_EQ(size_of(chunk), 944u);
    memset(reinterpret_cast<char *>(chunk) + 16, 'c', 944 - 8);
    chunk_t *const moved = CLI_realloc_internal(alloc, chunk, 952);
    EXPECT_NE(moved, chunk);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(moved) + 16, 944 - 8),
              std::string(944 - 8, 'c'));
    EXPECT_EQ(CLI_realloc_internal(alloc, moved, 0x80000000), nullptr);
    EXPECT_EQ(CLI_malloc_internal(alloc, 0x80000000), nullptr);
    EXPECT_TRUE(in_use(moved));
    CLI_free_internal(alloc, moved);
    EXPECT_EQ(region->total_size, 0u);
}

TEST(ChunkAlgorithmDeathTest, UnknownKindCannotGrow) {
    const SysRegion region;
    region->alloctype = SLAB_ALLOC_SHP;
    EXPECT_EXIT((void)region.malloc(8), testing::KilledBySignal(SIGABRT),
                "^alloc_alg:483: Assertion fail with condition '0' ");
    region->alloctype = REGION_ALLOC_SYS;
}

// ---- everything at once, against a model ----

// The blocks that live and the byte that each is filled with. Every so often the allocator is
// checked, and told the blocks that must be in use.
class Model {
  public:
    Model(const Region &region, uint64_t seed) : region_(region), random_(seed) {}

    void run(int steps) {
        for (int step = 0; step < steps && !testing::Test::HasFatalFailure(); step++) {
            do_something();
            if (step % 97 == 0)
                check();
        }
        while (!blocks_.empty())
            release(0);
        check();
    }

    [[nodiscard]] int refused() const { return refused_; }

  private:
    struct Block {
        char *address;
        uint32_t size;
        char fill;
    };

    void do_something() {
        const uint32_t choice = random_.below(100);
        if (blocks_.empty() || choice < 40)
            allocate(false);
        else if (choice < 50)
            allocate(true);
        else if (choice < 70)
            resize(random_.below(static_cast<uint32_t>(blocks_.size())));
        else
            release(random_.below(static_cast<uint32_t>(blocks_.size())));
    }

    uint32_t any_size() {
        const uint32_t kinds[] = {60, 300, 300, 300, 1000, 4000, 40000};
        return random_.below(kinds[random_.below(random_.below(20) == 0 ? 7 : 5)]);
    }

    void allocate(bool zeroed) {
        const uint32_t size = any_size();
        char *const address =
            zeroed ? static_cast<char *>(region_calloc(region_.get(), size, "model.c", 1))
                   : region_.malloc(size);
        if (address == nullptr) {
            refused_++;
            return;
        }
        if (zeroed) {
            ASSERT_EQ(std::count(address, address + size, 0), size);
        }
        blocks_.push_back({address, size, 0});
        fill(blocks_.back());
    }

    void resize(uint32_t at) {
        Block &block = blocks_[at];
        const uint32_t size = 1 + any_size();
        expect_filled(block, block.size);
        char *const address = region_.realloc(block.address, size);
        if (address == nullptr) {
            refused_++;
            expect_filled(block, block.size);
            return;
        }
        block.address = address;
        expect_filled(block, std::min(size, block.size));
        block.size = size;
        fill(block);
    }

    void release(uint32_t at) {
        expect_filled(blocks_[at], blocks_[at].size);
        region_.free(blocks_[at].address);
        blocks_[at] = blocks_.back();
        blocks_.pop_back();
    }

    void fill(Block &block) {
        block.fill = static_cast<char>(random_.below(256));
        memset(block.address, block.fill, block.size);
    }

    static void expect_filled(const Block &block, uint32_t size) {
        ASSERT_EQ(std::count(block.address, block.address + size, block.fill), size);
    }

    void check() {
        std::vector<void *> blocks = {nullptr}; // never empty: NULL would mean no list
        for (const Block &block : blocks_)
            blocks.push_back(block.address);
        _region_alloc_internal_check(region_.get(), static_cast<unsigned int>(blocks_.size()),
                                     blocks.data() + 1, nullptr);
    }

    const Region &region_;
    Random random_;
    std::vector<Block> blocks_;
    int refused_ = 0;
};

TEST(ChunkAlgorithmStress, GrowingAllocatorStaysSound) {
    for (const uint64_t seed : {1, 2, 3}) {
        const SysRegion region;
        Model model(region, seed);
        model.run(20000);
        EXPECT_EQ(model.refused(), 0);
        EXPECT_EQ(region->total_used, 0u);
        EXPECT_EQ(region->total_size, 0u);
    }
}

TEST(ChunkAlgorithmStress, FixedAllocatorStaysSoundWhileItIsFullAgainAndAgain) {
    for (const uint64_t seed : {4, 5, 6}) {
        const FixedRegion region(100000);
        Model model(region, seed);
        model.run(20000);
        EXPECT_GT(model.refused(), 100);
        EXPECT_EQ(region->total_used, 0u);
        EXPECT_EQ(region->total_size, 100000u);
    }
}

// What a search may find, from a walk over all chunks: the free ones with their sizes.
std::map<const chunk_t *, csize_t> free_list(const FixedRegion &region) {
    std::map<const chunk_t *, csize_t> found;
    const chunk_t *const fencepost = region.chunk(static_cast<int64_t>(region->total_size) - 16);
    for (const chunk_t *chunk = region.chunk(32); chunk != fencepost; chunk = after(chunk))
        if (!in_use(chunk))
            found[chunk] = size_of(chunk);
    return found;
}

// The size that a large request must be served from, 0 for none; and whether by the victim.
std::pair<csize_t, bool> best_fit(const FixedRegion &region, csize_t size) {
    csize_t best = ~csize_t{0};
    for (const auto &[chunk, whole] : free_list(region))
        if (chunk != region->dv && whole >= size)
            best = std::min(best, whole);
    if (region->dvsize >= size && region->dvsize <= best)
        return {region->dvsize, true};
    return {best == ~csize_t{0} ? 0 : best, false};
}

TEST(ChunkAlgorithmStress, LargeRequestsAlwaysGetTheBestFit) {
    const FixedRegion region(4 << 20);
    CLI_alloc_t *const alloc = region.operator->();
    Random random(7);
    std::vector<chunk_t *> used;
    int served[2] = {0, 0}; // from a bin, from the victim
    for (int step = 0; step < 20000; step++) {
        const csize_t size = (32 + random.below(random.below(2) == 0 ? 100 : 4000)) * 8;
        const std::map<const chunk_t *, csize_t> before = free_list(region);
        const chunk_t *const victim = region->dv;
        const auto [whole, from_victim] = best_fit(region, size);
        chunk_t *const chunk = CLI_malloc_internal(alloc, size);
        ASSERT_EQ(chunk == nullptr ? 0 : before.at(chunk), whole);
        if (chunk != nullptr) {
            ASSERT_EQ(chunk == victim, from_victim);
            served[from_victim]++;
            used.push_back(chunk);
        }
        if (random.below(4) == 0) { // a small request, so that there is a victim
            chunk_t *const small = CLI_malloc_internal(alloc, 56);
            if (small != nullptr)
                used.push_back(small);
        }
        while (used.size() > 150 || (!used.empty() && random.below(3) == 0)) {
            std::swap(used[random.below(static_cast<uint32_t>(used.size()))], used.back());
            CLI_free_internal(alloc, used.back());
            used.pop_back();
        }
    }
    EXPECT_GT(served[0], 5000);
    EXPECT_GT(served[1], 20);
}

} // namespace
