#include "common/alloc/region_clialloc.h"

#include <malloc.h>
#include <sys/resource.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "client/common/client_try.h"
#include "support/captured_stream.h"
#include "support/refusing_heap.h"
#include "support/region.h"

namespace {

constexpr ec_t kOutOfMemory = -3003;
constexpr int64_t kTwoGigabytes = 0x7FFFFFFF;

void expect_empty(const Region &region) {
    EXPECT_EQ(region->total_size, 0u);
    EXPECT_EQ(region->total_used, 0u);
    EXPECT_EQ(region->regions.next, &region->regions);
    EXPECT_EQ(region->regions.prev, &region->regions);
    EXPECT_EQ(region->smallmap, 0u);
    EXPECT_EQ(region->treemap, 0u);
    EXPECT_EQ(region->dvsize, 0u);
    EXPECT_EQ(region->dv, nullptr);
    for (int i = 0; i < 32; i++) {
        const void *const bin = &region->smallbins[2 * i];
        EXPECT_EQ(region->smallbins[2 * i + 2], bin) << i;
        EXPECT_EQ(region->smallbins[2 * i + 3], bin) << i;
        EXPECT_EQ(region->treebins[i], nullptr) << i;
    }
}

bool mutex_is_free(allocator_t *alloc) {
    if (pthread_mutex_trylock(&alloc->mutex) != 0)
        return false;
    pthread_mutex_unlock(&alloc->mutex);
    return true;
}

// ---- creation ----

TEST(RegionAllocator, OperationsStandInTheirSlots) {
    EXPECT_EQ(region_allocator_desc.func_malloc, region_malloc);
    EXPECT_EQ(region_allocator_desc.func_valloc, region_malloc);
    EXPECT_EQ(region_allocator_desc.func_calloc, region_calloc);
    EXPECT_EQ(region_allocator_desc.func_realloc, region_realloc);
    EXPECT_EQ(region_allocator_desc.func_free, region_free);
    EXPECT_EQ(region_allocator_desc.func_delete, region_delete);
    EXPECT_EQ(region_allocator_desc.func_tracedump, region_tracedump);
    EXPECT_EQ(region_allocator_desc.func_throw, region_throw);
}

TEST(RegionAllocator, KindsKeepTheirNumbers) {
    EXPECT_EQ(REGION_ALLOC_ROOT, 0);
    EXPECT_EQ(REGION_ALLOC_SYS, 1);
    EXPECT_EQ(REGION_ALLOC_FIXED, 2);
    EXPECT_EQ(SLAB_ALLOC_SHP, 3);
}

TEST(RegionAllocator, NewOneIsEmptyAndKnowsItsCreator) {
    const SysRegion parent;
    const SysRegion region(parent.get());
    const allocator_t *const head = region.get();
    EXPECT_EQ(head->alloc_type, 101);
    EXPECT_EQ(head->desc, &region_allocator_desc);
    EXPECT_STREQ(head->name, "(SYSTEM region allocator)");
    EXPECT_STREQ(head->file, "sys.c");
    EXPECT_EQ(head->line, 3u);
    EXPECT_EQ(head->parent, parent.get());
    EXPECT_TRUE(list_is_empty(&head->child));
    EXPECT_TRUE(mutex_is_free(region.get()));
    EXPECT_EQ(region->alloctype, REGION_ALLOC_SYS);
    expect_empty(region);
    EXPECT_EQ(region.check(), 0);
}

TEST(RegionAllocator, NewOneIsItsParentsLastChild) {
    const SysRegion parent;
    const SysRegion first(parent.get());
    const SysRegion second(parent.get());
    EXPECT_EQ(parent.get()->child.next, &first.get()->link);
    EXPECT_EQ(first.get()->link.next, &second.get()->link);
    EXPECT_EQ(second.get()->link.next, &parent.get()->child);
    EXPECT_TRUE(mutex_is_free(parent.get()));
}

// All that the heap still has is taken away first, so that it cannot give the record.
void create_without_memory() {
    const rlimit none = {0, 0};
    setrlimit(RLIMIT_AS, &none);
    void *volatile taken = nullptr; // or the compiler would leave out the calls
    for (size_t size : {1 << 20, 1 << 16, 1 << 12, 1040})
        do {
            taken = malloc(size);
        } while (taken != nullptr);
    const ec_t ec =
        client_try([] { real_sys_region_allocator_new(&_system_allocator, "test", 1); });
    _exit(ec == kOutOfMemory ? 42 : 1);
}

TEST(RegionAllocatorDeathTest, CreationWithoutMemoryThrows) {
    if (kSanitized)
        GTEST_SKIP() << "the sanitizers' heaps end the process instead";
    EXPECT_EXIT(create_without_memory(), testing::ExitedWithCode(42), "");
}

// ---- blocks ----

TEST(RegionAllocator, ChunkIsTheBlockAndFortyEightBytesInEights) {
    const struct {
        int64_t bytes;
        csize_t chunk;
    } cases[] = {{0, 56},    {1, 56},    {7, 56},     {8, 56},      {9, 64},      {16, 64},
                 {17, 72},   {199, 248}, {200, 248},  {201, 256},   {208, 256},   {209, 264},
                 {464, 512}, {465, 520}, {999, 1048}, {4000, 4048}, {5000, 5048}, {5001, 5056}};
    for (const auto &one : cases) {
        const SysRegion region;
        chunk_t *const chunk = chunk_of(region.malloc(one.bytes));
        EXPECT_EQ(size_of(chunk), one.chunk) << one.bytes;
        EXPECT_EQ(region->total_used, one.chunk) << one.bytes;
    }
}

TEST(RegionAllocator, EveryBlockIsAlignedToEight) {
    const SysRegion region;
    for (int64_t bytes = 0; bytes < 600; bytes++)
        ASSERT_EQ(reinterpret_cast<uintptr_t>(region.malloc(bytes)) % 8, 0u) << bytes;
    EXPECT_EQ(region.check(), 0);
}

TEST(RegionAllocator, FirstBlockTakesARegionOfFourKilobytes) {
    const SysRegion region;
    EXPECT_NE(region.malloc(1), nullptr);
    EXPECT_EQ(region.region_count(), 1);
    EXPECT_EQ(region->total_size, 4096u);
    EXPECT_EQ(region->regions.next->size, 4096u);
    EXPECT_EQ(region.check(), 0);
}

TEST(RegionAllocator, LargeBlockTakesARegionOfItsChunkAndFortyEightBytes) {
    const SysRegion region;
    char *const block = region.malloc(2 * 1024 * 1024);
    EXPECT_EQ(size_of(chunk_of(block)), 2097152u + 48);
    EXPECT_EQ(region->total_size, 2097152u + 48 + 48);
    EXPECT_EQ(region.check(), 0);
}

TEST(RegionAllocator, FreeingTheOnlyBlockGivesItsRegionBack) {
    const SysRegion region;
    char *const kept = region.malloc(4000);
    char *const block = region.malloc(100000);
    EXPECT_EQ(region->total_size, 4096u + 100096);
    region.free(block);
    EXPECT_EQ(region->total_size, 4096u);
    EXPECT_EQ(region->total_used, 4048u);
    EXPECT_EQ(region.region_count(), 1);
    region.free(kept);
    expect_empty(region);
}

TEST(RegionAllocator, CallocZeroesTheBlockAndNoMore) {
    const SysRegion region;
    char *const guard = region.malloc(8);
    char *const dirty = region.malloc(100);
    memset(dirty, 0xEE, 100);
    region.free(dirty);
    char *const block = static_cast<char *>(region_calloc(region.get(), 33, "test.c", 1));
    ASSERT_EQ(block, dirty);
    EXPECT_EQ(std::string(block, 33), std::string(33, '\0'));
    // 33 bytes, 8 of the red zone; a chunk of 88 bytes follows, and what it does not overwrite.
    EXPECT_EQ(std::string(block + 72, 24), std::string(24, '\xEE'));
    region.free(guard);
}

TEST(RegionAllocator, CallocWithoutMemoryReturnsNull) {
    const SysRegion region;
    EXPECT_EQ(region_calloc(region.get(), kTwoGigabytes, "test.c", 1), nullptr);
}

TEST(RegionAllocatorDeathTest, NegativeSizeIsAnAssertion) {
    const SysRegion region;
    EXPECT_EXIT((void)region.malloc(-1), testing::KilledBySignal(SIGABRT),
                "^region_clialloc:380: Assertion fail with condition 'bytes >= 0' ");
    EXPECT_EXIT(region_calloc(region.get(), -1, "test.c", 1), testing::KilledBySignal(SIGABRT),
                "^region_clialloc:380: Assertion fail with condition 'bytes >= 0' ");
}

// ---- exhaustion ----

TEST(RegionAllocator, RequestBeyondTwoGigabytesReturnsNull) {
    const SysRegion region;
    // The first whose chunk and 48 bytes exceed 0x7FFFFFFF.
    EXPECT_EQ(region.malloc(0x7FFFFF99), nullptr);
    EXPECT_EQ(region.malloc(kTwoGigabytes), nullptr);
    EXPECT_EQ(region.malloc(INT64_MAX - 1), nullptr);
    EXPECT_EQ(region.malloc(INT64_MAX), nullptr);
    expect_empty(region);
    EXPECT_TRUE(mutex_is_free(region.get()));
}

TEST(RegionAllocator, LargestRequestGetsARegionOfItsOwn) {
    void *const probe = malloc(kTwoGigabytes);
    free(probe);
    if (probe == nullptr)
        GTEST_SKIP() << "this machine does not give 2 GiB in one piece";
    const SysRegion region;
    EXPECT_NE(region.malloc(0x7FFFFF98), nullptr);
    EXPECT_EQ(region->total_size, 0x7FFFFFF8u);
}

TEST(RegionAllocator, HeapThatRefusesARegionYieldsNullAndChangesNothing) {
    const SysRegion region;
    char *const block = region.malloc(10);
    const HeapWithoutLargeBlocks heap;
    EXPECT_EQ(region.malloc(0x60000000), nullptr);
    EXPECT_EQ(region->total_size, 4096u);
    EXPECT_EQ(region->total_used, 64u);
    EXPECT_TRUE(mutex_is_free(region.get()));
    EXPECT_EQ(region.check(), 0);
    region.free(block);
}

TEST(RegionAllocator, ReallocWithoutMemoryLeavesTheOldBlock) {
    const SysRegion region;
    char *const block = region.malloc(10);
    strcpy(block, "contents");
    EXPECT_EQ(region.realloc(block, kTwoGigabytes), nullptr);
    EXPECT_STREQ(block, "contents");
    EXPECT_EQ(region->total_used, 64u);
    EXPECT_TRUE(mutex_is_free(region.get()));
    region.free(block);
}

TEST(RegionAllocator, ThrowLandsInTheFrameWithTheCodeForNoMemory) {
    const SysRegion region;
    EXPECT_EQ(client_try([&] { region_throw(region.get()); }), kOutOfMemory);
    EXPECT_EQ(client_try([&] { zd_malloc(region.get(), kTwoGigabytes, "test", 1); }), kOutOfMemory);
    EXPECT_TRUE(mutex_is_free(region.get()));
}

TEST(RegionAllocatorDeathTest, OnlyAGrowingAllocatorThrows) {
    const FixedRegion fixed(2048);
    EXPECT_EXIT(region_throw(fixed.get()), testing::KilledBySignal(SIGABRT),
                "^region_clialloc:649: Assertion fail with condition '0' ");
    fixed->alloctype = REGION_ALLOC_ROOT;
    EXPECT_EXIT(region_throw(fixed.get()), testing::KilledBySignal(SIGABRT),
                "^region_clialloc:652: Assertion fail with condition '0' ");
}

// ---- resizing ----

TEST(RegionAllocator, ShrinkingByLessThanAChunkChangesNothing) {
    const SysRegion region;
    char *const block = region.malloc(200);
    EXPECT_EQ(region.realloc(block, 152), block); // a chunk of 200 instead of 248
    EXPECT_EQ(size_of(chunk_of(block)), 248u);
    EXPECT_EQ(region->total_used, 248u);
    EXPECT_EQ(region.check(), 0);
}

TEST(RegionAllocator, ShrinkingByAChunkFreesTheTail) {
    const SysRegion region;
    char *const block = region.malloc(200);
    char *const guard = region.malloc(8);
    EXPECT_EQ(region.realloc(block, 144), block); // a chunk of 192: 56 less
    EXPECT_EQ(size_of(chunk_of(block)), 192u);
    EXPECT_EQ(region->total_used, 192u + 56);
    const chunk_t *const tail = after(chunk_of(block));
    EXPECT_EQ(size_of(tail), 56u);
    EXPECT_FALSE(in_use(tail));
    EXPECT_TRUE(previous_in_use(tail));
    EXPECT_FALSE(previous_in_use(chunk_of(guard)));
    EXPECT_EQ(region.check(), 0);
}

TEST(RegionAllocator, ShrunkTailMergesWithTheFreeChunkBehindIt) {
    const SysRegion region;
    char *const block = region.malloc(1000); // the rest of the region lies free behind it
    EXPECT_EQ(region.realloc(block, 8), block);
    EXPECT_EQ(size_of(after(chunk_of(block))), 4096u - 48 - 56);
    EXPECT_EQ(region->total_used, 56u);
    EXPECT_EQ(region.check(), 0);
}

TEST(RegionAllocator, ShrinkingKeepsTheFlagOfTheChunkBefore) {
    const SysRegion region;
    char *const before = region.malloc(100);
    char *const block = region.malloc(400);
    region.free(before);
    EXPECT_EQ(region.realloc(block, 8), block);
    EXPECT_FALSE(previous_in_use(chunk_of(block)));
    EXPECT_EQ(region.check(), 0);
}

TEST(RegionAllocator, GrowingMovesEvenWhereThereIsRoomBehind) {
    const SysRegion region;
    char *const block = region.malloc(100);
    for (int i = 0; i < 100; i++)
        block[i] = static_cast<char>(i);
    char *const moved = region.realloc(block, 300);
    ASSERT_NE(moved, block);
    for (int i = 0; i < 100; i++)
        EXPECT_EQ(moved[i], i);
    EXPECT_FALSE(in_use(chunk_of(block)));
    EXPECT_EQ(region->total_used, 352u);
    EXPECT_EQ(region.check(), 0);
}

TEST(RegionAllocator, GrowingWithinTheChunkStays) {
    const SysRegion region;
    char *const block = region.malloc(1);
    EXPECT_EQ(region.realloc(block, 8), block);
    EXPECT_EQ(region->total_used, 56u);
    EXPECT_EQ(region.check(), 0);
}

TEST(RegionAllocatorDeathTest, ReallocToNothingOrFromNothingIsAnAssertion) {
    const SysRegion region;
    char *const block = region.malloc(10);
    EXPECT_EXIT((void)region.realloc(block, 0), testing::KilledBySignal(SIGABRT),
                "^region_clialloc:493: Assertion fail with condition 'bytes != 0' ");
    EXPECT_EXIT((void)region.realloc(block, -1), testing::KilledBySignal(SIGABRT),
                "^region_clialloc:494: Assertion fail with condition 'bytes > 0' ");
    EXPECT_EXIT((void)region.realloc(nullptr, 1), testing::KilledBySignal(SIGABRT),
                "^region_clialloc:500: Assertion fail with condition 'ptr != NULL' ");
    EXPECT_EXIT((void)region.realloc(nullptr, 0), testing::KilledBySignal(SIGABRT),
                "^region_clialloc:493: ");
}

TEST(RegionAllocatorDeathTest, BlockLargerThanAllThatIsUsedIsAnAssertion) {
    const SysRegion region;
    char *const block = region.malloc(10);
    region->total_used = 63;
    EXPECT_EXIT((void)region.realloc(block, 5), testing::KilledBySignal(SIGABRT),
                "^region_clialloc:537: Assertion fail with condition "
                "'alloc->total_used >= oldsize' ");
    EXPECT_EXIT(region.free(block), testing::KilledBySignal(SIGABRT),
                "^region_clialloc:582: Assertion fail with condition "
                "'alloc->total_used >= chunksize' ");
}

TEST(RegionAllocatorDeathTest, FreeingTwiceIsAnAssertion) {
    const SysRegion region;
    char *const block = region.malloc(10);
    char *const guard = region.malloc(10);
    region.free(block);
    EXPECT_EXIT(region.free(block), testing::KilledBySignal(SIGABRT),
                "^region_clialloc:574: Assertion fail with condition "
                "'CINUSE\\(MEM2CHUNK\\(base\\)\\)' ");
    region.free(guard);
}

// ---- the tree of allocators ----

struct FakeChild {
    explicit FakeChild(allocator_t *parent, const char *name) {
        head.desc = &kDesc;
        strcpy(head.name, name);
        head.parent = parent;
        list_init(&head.child);
        list_add_tail(&parent->child, &head.link);
    }
    static void remove(allocator_t *alloc) {
        while (!list_is_empty(&alloc->child)) {
            allocator_t *const child = list_entry(alloc->child.next, allocator_t, link);
            child->desc->func_delete(child);
        }
        list_unlink(&alloc->link);
        removed += std::string(alloc->name) + " ";
        fprintf(stderr, "removed %s\n", alloc->name);
    }
    static constexpr allocator_desc_t kDesc = {nullptr, nullptr, nullptr, nullptr,
                                               nullptr, remove,  nullptr, nullptr};
    inline static std::string removed;
    allocator_t head = {};
};

TEST(RegionAllocator, DeletionGoesThroughTheTreeDepthFirst) {
    const SysRegion root;
    allocator_t *const alloc = real_sys_region_allocator_new(root.get(), "test.c", 1);
    FakeChild::removed.clear();
    FakeChild first(alloc, "first");
    FakeChild grandchild(&first.head, "grandchild");
    allocator_t *const second = real_sys_region_allocator_new(alloc, "test.c", 2);
    FakeChild below_second(second, "below-second");
    FakeChild third(alloc, "third");
    alloc->desc->func_delete(alloc);
    EXPECT_EQ(FakeChild::removed, "grandchild first below-second third ");
    EXPECT_TRUE(list_is_empty(&root.get()->child));
    EXPECT_TRUE(mutex_is_free(root.get()));
}

// Bytes in use in the process heap; under a sanitizer, whose leak check says the same, always 0.
size_t heap_in_use() {
    const struct mallinfo2 heap = mallinfo2();
    return heap.uordblks + heap.hblkhd;
}

TEST(RegionAllocator, DeletionGivesEverythingBackToTheHeap) {
    const size_t before = heap_in_use();
    allocator_t *const alloc = real_sys_region_allocator_new(&_system_allocator, "test.c", 1);
    for (int i = 0; i < 100; i++)
        region_malloc(alloc, 10000, "test.c", 2);
    region_delete(alloc);
    const size_t after = heap_in_use();
    EXPECT_EQ(after, before);
}

TEST(RegionAllocator, CleanupGivesAllButTheRecordBackToTheHeap) {
    const SysRegion region;
    const size_t before = heap_in_use();
    for (int i = 0; i < 100; i++)
        ASSERT_NE(region.malloc(10000), nullptr);
    region_cleanup(region.get());
    const size_t after = heap_in_use();
    EXPECT_EQ(after, before);
}

TEST(RegionAllocator, DeletionLeavesTheSiblings) {
    const SysRegion root;
    const SysRegion before(root.get());
    allocator_t *const alloc = real_sys_region_allocator_new(root.get(), "test.c", 1);
    const SysRegion behind(root.get());
    region_delete(alloc);
    EXPECT_EQ(before.get()->link.next, &behind.get()->link);
    EXPECT_EQ(behind.get()->link.prev, &before.get()->link);
}

TEST(RegionAllocator, CleanupMakesItFreshAndItsParentsLastChild) {
    const SysRegion root;
    const SysRegion region(root.get());
    const SysRegion sibling(root.get());
    FakeChild::removed.clear();
    FakeChild child(region.get(), "child");
    for (int i = 0; i < 100; i++) {
        char *const block = region.malloc(i * 20);
        if (i % 3 == 0)
            region.free(block);
    }
    region_cleanup(region.get());
    EXPECT_EQ(FakeChild::removed, "child ");
    expect_empty(region);
    EXPECT_TRUE(list_is_empty(&region.get()->child));
    EXPECT_EQ(root.get()->child.next, &sibling.get()->link);
    EXPECT_EQ(sibling.get()->link.next, &region.get()->link);
    EXPECT_EQ(region.get()->link.next, &root.get()->child);
    EXPECT_EQ(region.get()->parent, root.get());
    EXPECT_TRUE(mutex_is_free(region.get()));
    EXPECT_TRUE(mutex_is_free(root.get()));
    EXPECT_NE(region.malloc(10), nullptr);
    EXPECT_EQ(region->total_size, 4096u);
    EXPECT_EQ(region.check(), 0);
}

TEST(RegionAllocatorDeathTest, FixedAllocatorCannotBeDeletedOrCleanedUp) {
    const FixedRegion fixed(2048);
    FakeChild child(fixed.get(), "child");
    const char *const condition =
        "Assertion fail with condition '!\"Cannot delete FIXED region allocator!\"' ";
    EXPECT_EXIT(region_delete(fixed.get()), testing::KilledBySignal(SIGABRT),
                std::string("^removed child\nregion_clialloc:278: ") + condition);
    EXPECT_EXIT(region_cleanup(fixed.get()), testing::KilledBySignal(SIGABRT),
                std::string("^removed child\nregion_clialloc:347: ") + condition);
}

TEST(RegionAllocatorDeathTest, UnknownKindCannotBeDeletedOrCleanedUp) {
    SysRegion region;
    region->alloctype = SLAB_ALLOC_SHP;
    EXPECT_EXIT(region_delete(region.get()), testing::KilledBySignal(SIGABRT),
                "^region_clialloc:281: Assertion fail with condition '0' ");
    EXPECT_EXIT(region_cleanup(region.get()), testing::KilledBySignal(SIGABRT),
                "^region_clialloc:350: Assertion fail with condition '0' ");
    region->alloctype = REGION_ALLOC_SYS;
}

// What the handler of the abort sees, after children and parent are through.
allocator_t *orphan;

TEST(RegionAllocatorDeathTest, KindIsCheckedAfterTheAllocatorHasLeftItsParent) {
    SysRegion root;
    SysRegion region(root.get());
    region->alloctype = REGION_ALLOC_ROOT;
    orphan = root.get();
    EXPECT_EXIT(
        {
            signal(SIGABRT, [](int) { _exit(list_is_empty(&orphan->child) ? 42 : 1); });
            region_delete(region.get());
        },
        testing::ExitedWithCode(42), "region_clialloc:281: ");
    region->alloctype = REGION_ALLOC_SYS;
}

// ---- the FIXED kind ----

TEST(FixedRegionAllocator, LiesInsideItsBuffer) {
    const FixedRegion region(4096);
    const char *const buffer = region.buffer();
    EXPECT_EQ(static_cast<void *>(region.get()), buffer + 48);
    EXPECT_EQ(region.get()->alloc_type, 102);
    EXPECT_EQ(region.get()->desc, &region_allocator_desc);
    EXPECT_STREQ(region.get()->name, "(Fixed region allocator)");
    EXPECT_EQ(region.get()->parent, nullptr);
    EXPECT_TRUE(list_is_empty(&region.get()->child));
    EXPECT_TRUE(mutex_is_free(region.get()));
    EXPECT_EQ(region->alloctype, REGION_ALLOC_FIXED);
    EXPECT_EQ(region->total_size, 4096u);
    EXPECT_EQ(region->total_used, 0u);
    const region_t *const head = reinterpret_cast<const region_t *>(buffer);
    EXPECT_EQ(region->regions.next, head);
    EXPECT_EQ(region->regions.prev, head);
    EXPECT_EQ(head->next, &region->regions);
    EXPECT_EQ(head->prev, &region->regions);
    EXPECT_EQ(head->size, 4096u);
}

TEST(FixedRegionAllocator, FirstChunkIsItsRecordAndTheRestLiesFree) {
    const FixedRegion region(4096);
    EXPECT_EQ(region.chunk(32)->head, 1048u | 3);
    EXPECT_EQ(region.chunk(1080)->head, 3000u | 1);
    EXPECT_EQ(region.chunk(4080)->prev_foot, 3000u);
    EXPECT_EQ(region.chunk(4080)->head, 4096u | 6); // the chunk before it is free
    EXPECT_EQ(region->dvsize, 0u);
    EXPECT_EQ(region->treemap, 1u << 6); // 2048 to 3071
    EXPECT_EQ(static_cast<void *>(region->treebins[6]), region.chunk(1080));
    EXPECT_EQ(region.check(), 0);
}

TEST(FixedRegionAllocator, BlocksComeOutOfTheBufferUntilItIsFull) {
    const FixedRegion region(4096);
    EXPECT_EQ(region.malloc(2952), region.buffer() + 1080 + 48);
    EXPECT_EQ(region.chunk(4080)->head, 4096u | 7);
    EXPECT_EQ(region->total_used, 3000u);
    EXPECT_EQ(region.malloc(0), nullptr);
    EXPECT_TRUE(mutex_is_free(region.get()));
    EXPECT_EQ(region.check(), 0);
}

TEST(FixedRegionAllocator, OneMinimalChunkFitsInto1152Bytes) {
    const FixedRegion region(1152);
    EXPECT_EQ(region.chunk(1080)->head, 56u | 1);
    EXPECT_EQ(region->smallmap, 1u << 7);
    char *const block = region.malloc(8);
    EXPECT_EQ(block, region.buffer() + 1128);
    EXPECT_EQ(region.malloc(0), nullptr);
    EXPECT_EQ(region.check(), 0);
    region.free(block);
    EXPECT_EQ(region->total_size, 1152u); // never given back
    EXPECT_EQ(region.check(), 0);
    EXPECT_EQ(region.malloc(8), block);
}

TEST(FixedRegionAllocator, RecordAbsorbsARestOfLessThanAChunk) {
    for (int64_t size = 1096; size <= 1144; size += 8) {
        const FixedRegion region(size);
        EXPECT_EQ(region.chunk(32)->head, static_cast<csize_t>(size - 48) | 3) << size;
        EXPECT_EQ(region.chunk(size - 16)->head, static_cast<csize_t>(size) | 7) << size;
        EXPECT_EQ(region.malloc(0), nullptr) << size;
        EXPECT_EQ(region->total_used, 0u);
        EXPECT_EQ(region.check(), 0) << size;
    }
}

TEST(FixedRegionAllocatorDeathTest, SizeMustBeAMultipleOfEight) {
    alignas(8) static char buffer[4096];
    EXPECT_EXIT(fixed_region_allocator_new(buffer, 4092), testing::KilledBySignal(SIGABRT),
                "region_clialloc:[0-9]+: .*Assertion `size == \\(\\(\\(size\\) \\+ "
                "\\(\\(8\\) - 1\\)\\) & ~\\(\\(8\\) - 1\\)\\)' failed");
}

TEST(FixedRegionAllocatorDeathTest, BufferMustHoldTheAllocatorAndBeAligned) {
    alignas(8) static char buffer[4096];
    EXPECT_EXIT(fixed_region_allocator_new(buffer, 1088), testing::KilledBySignal(SIGABRT),
                "^region_clialloc:[0-9]+: Assertion fail with condition 'size >= ");
    EXPECT_EXIT(fixed_region_allocator_new(buffer + 4, 2048), testing::KilledBySignal(SIGABRT),
                "^region_clialloc:[0-9]+: Assertion fail with condition ");
}

// ---- dump and check ----

TEST(RegionAllocator, TraceDumpPrintsTotalsAndTheCheck) {
    const SysRegion region;
    EXPECT_NE(region.malloc(10), nullptr);
    const CapturedStream stream;
    region_tracedump(stream.get(), region.get(), "  ");
    EXPECT_EQ(stream.text(), "    4096 bytes are allocated in total (used + reserved).\n"
                             "    64 bytes are actually being used.\n"
                             "    beginning sanity check...\n"
                             "    ...sanity check OK!\n");
}

TEST(RegionAllocator, CheckTellsTheBlocksInUse) {
    const SysRegion region;
    void *blocks[3] = {region.malloc(10), region.malloc(5000), region.malloc(20)};
    EXPECT_EQ(_region_alloc_internal_check(region.get(), 3, blocks, nullptr), 0);
    std::swap(blocks[0], blocks[1]); // in any order
    EXPECT_EQ(_region_alloc_internal_check(region.get(), 3, blocks, nullptr), 0);
    region.free(blocks[0]);
    EXPECT_EQ(_region_alloc_internal_check(region.get(), 2, blocks + 1, nullptr), 0);
}

TEST(RegionAllocator, CheckOfAFixedOneDoesNotCountTheRecord) {
    const FixedRegion region(4096);
    void *blocks[2] = {region.malloc(10), region.malloc(20)};
    EXPECT_EQ(_region_alloc_internal_check(region.get(), 2, blocks, nullptr), 0);
    region.free(blocks[1]);
    region.free(blocks[0]);
    EXPECT_EQ(_region_alloc_internal_check(region.get(), 0, blocks, nullptr), 0);
}

TEST(RegionAllocatorDeathTest, CheckWithTheWrongBlocksIsAnAssertion) {
    const SysRegion region;
    void *blocks[2] = {region.malloc(10), region.malloc(20)};
    EXPECT_EXIT(_region_alloc_internal_check(region.get(), 1, blocks, nullptr),
                testing::KilledBySignal(SIGABRT), "region_clialloc:[0-9]+: .*Assertion `");
    EXPECT_EXIT(_region_alloc_internal_check(region.get(), 0, blocks, nullptr),
                testing::KilledBySignal(SIGABRT), "region_clialloc:[0-9]+: .*Assertion `");
    blocks[1] = static_cast<char *>(blocks[1]) + 8;
    EXPECT_EXIT(_region_alloc_internal_check(region.get(), 2, blocks, nullptr),
                testing::KilledBySignal(SIGABRT), "region_clialloc:[0-9]+: .*Assertion `");
}

TEST(RegionAllocator, SortIsByAddress) {
    std::vector<char> bytes(3000);
    for (const unsigned int num : {0u, 1u, 2u, 3u, 10u, 1025u, 3000u}) {
        std::vector<void *> sorted;
        for (unsigned int i = 0; i < num; i++)
            sorted.push_back(&bytes[i / 2]); // twice each
        std::vector<void *> ptrs = sorted;
        for (unsigned int i = 0; i < num; i++)
            std::swap(ptrs[i], ptrs[(i * 7919 + 13) % num]);
        _ptrlist_sort(ptrs.data(), num);
        EXPECT_EQ(ptrs, sorted) << num;
    }
}

TEST(RegionAllocator, CheckCountsBeyondItsFirstThousandChunks) {
    const SysRegion region;
    std::vector<void *> used;
    std::vector<char *> released;
    for (int i = 0; i < 5000; i++) {
        char *const block = region.malloc(i % 400);
        if (i % 2 == 0)
            used.push_back(block);
        else
            released.push_back(block);
    }
    for (char *const block : released)
        region.free(block);
    EXPECT_EQ(_region_alloc_internal_check(region.get(), 2500, used.data(), nullptr), 0);
}

// ---- several threads ----

TEST(RegionAllocator, ThreadsShareOneAllocatorAndOneParent) {
    const SysRegion region;
    const auto work = [&region](unsigned int seed) {
        std::vector<char *> blocks;
        for (unsigned int i = 0; i < 2000; i++) {
            seed = seed * 1664525 + 1013904223;
            if (blocks.size() < 20 || seed % 2 == 0) {
                blocks.push_back(region.malloc((seed >> 8) % 1000));
                continue;
            }
            std::swap(blocks[seed % blocks.size()], blocks.back());
            region.free(blocks.back());
            blocks.pop_back();
            if (i % 64 == 0) {
                allocator_t *const child =
                    real_sys_region_allocator_new(region.get(), "thread.c", 1);
                region_malloc(child, 100, "thread.c", 2);
                child->desc->func_delete(child);
            }
        }
        for (char *const block : blocks)
            region.free(block);
    };
    std::vector<std::thread> threads;
    for (unsigned int seed = 1; seed <= 4; seed++)
        threads.emplace_back(work, seed);
    for (std::thread &thread : threads)
        thread.join();
    expect_empty(region);
    EXPECT_TRUE(list_is_empty(&region.get()->child));
}

// A crash handler's dump must see that the allocator is in the middle of something.
allocator_t *interrupted;

void abort_inside_an_operation() {
    const SysRegion region;
    interrupted = region.get();
    signal(SIGABRT,
           [](int) { _exit(pthread_mutex_trylock(&interrupted->mutex) == EBUSY ? 42 : 1); });
    char *const block = region.malloc(1);
    block[1] = 'x';
    region.free(block);
}

TEST(RegionAllocatorDeathTest, MutexIsHeldWhileTheOnlyThreadIsInside) {
    EXPECT_EXIT(abort_inside_an_operation(), testing::ExitedWithCode(42), "REDZONE");
}

TEST(RegionAllocatorDeathTest, MutexIsHeldWhileOneOfTwoThreadsIsInside) {
    EXPECT_EXIT(
        {
            std::thread other([] { pause(); });
            abort_inside_an_operation();
        },
        testing::ExitedWithCode(42), "REDZONE");
}

} // namespace
