#include "common/alloc/clialloc_dbginfo.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "support/region.h"

namespace {

std::string bytes_at(const void *address, size_t size) {
    return {static_cast<const char *>(address), size};
}

uint64_t word_at(const void *address) {
    uint64_t word;
    memcpy(&word, address, sizeof word);
    return word;
}

const std::string kFront = "\xA7\xA7\xA7\xA7\xA7\xA7\xA7\xA7";
const std::string kRear = "\x9D\x9D\x9D\x9D\x9D\x9D\x9D\x9D";

TEST(AllocDbginfo, ChunkInUseIsLaidOutByteForByte) {
    const SysRegion region;
    static const char *const file = "some/file.cpp";
    char *const block = static_cast<char *>(region_malloc(region.get(), 21, file, 0x12345678));
    const char *const chunk = block - 48;
    EXPECT_EQ(word_at(chunk + 8), 72u | 3); // 21 + 48, rounded up; in use, as is the one before
    EXPECT_EQ(word_at(chunk + 16), reinterpret_cast<uintptr_t>(file));
    EXPECT_EQ(word_at(chunk + 24), 21u);
    EXPECT_EQ(bytes_at(chunk + 32, 4), "\x78\x56\x34\x12");
    EXPECT_EQ(bytes_at(chunk + 40, 8), kFront);
    EXPECT_EQ(bytes_at(chunk + 48 + 21, 8), kRear);
}

TEST(AllocDbginfo, RearRedZoneStandsRightBehindTheBlockOfAnySize) {
    const SysRegion region;
    for (int64_t size = 0; size <= 40; size++) {
        char *const block = region.malloc(size);
        memset(block, 'u', static_cast<size_t>(size));
        EXPECT_EQ(bytes_at(block - 8, 8), kFront) << size;
        EXPECT_EQ(bytes_at(block + size, 8), kRear) << size;
        region.free(block);
    }
}

TEST(AllocDbginfo, RearRedZoneMayEndInTheNextChunk) {
    const SysRegion region;
    char *const block = region.malloc(8);
    chunk_t *const next = after(chunk_of(block));
    EXPECT_EQ(reinterpret_cast<char *>(next), block + 8);
    EXPECT_EQ(bytes_at(&next->prev_foot, 8), kRear);
}

TEST(AllocDbginfo, RearRedZoneMayEndInTheFencepost) {
    const SysRegion region;
    char *const block = region.malloc(4000);
    const chunk_t *const fencepost = after(chunk_of(block));
    EXPECT_EQ(bytes_at(&fencepost->prev_foot, 8), kRear);
    EXPECT_EQ(fencepost->head, 4096u | 7);
    EXPECT_EQ(region.check(), 0);
    region.free(block);
}

TEST(AllocDbginfo, ReallocTakesOverTheNewCallSite) {
    const SysRegion region;
    for (const int64_t size : {3, 22, 24, 500}) { // of a block of 21 bytes; only the last one moves
        char *const block = region.realloc(region.malloc(21), size);
        const alloc_dbginfo_t *const dbginfo = reinterpret_cast<alloc_dbginfo_t *>(block - 32);
        EXPECT_STREQ(dbginfo->file, "dir/again.c");
        EXPECT_EQ(dbginfo->line, 8u);
        EXPECT_EQ(dbginfo->size, size);
        EXPECT_EQ(bytes_at(block - 8, 8), kFront) << size;
        EXPECT_EQ(bytes_at(block + size, 8), kRear) << size;
        region.free(block);
    }
}

TEST(AllocDbginfoDeathTest, ByteBehindTheBlockIsReportedByFree) {
    const SysRegion region;
    char *const block = region.malloc(5);
    memcpy(block, "12345A", 6);
    EXPECT_EXIT(
        region.free(block), testing::KilledBySignal(SIGABRT),
        "^REDZONE CHECK ERROR\\. \\(malloc from:filename=dir/test\\.c, line=7, size=5\n"
        "FRONT REDZONE:\n"
        "0000: A7 A7 A7 A7 A7 A7 A7 A7                         \\.\\.\\.\\.\\.\\.\\.\\.        \n"
        "REAR REDZONE:\n"
        "0000: 41 9D 9D 9D 9D 9D 9D 9D                         A\\.\\.\\.\\.\\.\\.\\.        \n"
        "alloc_dbginfo:390: Assertion fail with condition 'false' ");
}

TEST(AllocDbginfoDeathTest, ByteBeforeTheBlockIsReportedByRealloc) {
    const SysRegion region;
    char *const block = region.malloc(0);
    block[-1] = 'z';
    for (const int64_t size : {1, 5000})
        EXPECT_EXIT((void)region.realloc(block, size), testing::KilledBySignal(SIGABRT),
                    "^REDZONE CHECK ERROR\\. \\(malloc from:filename=dir/test\\.c, line=7, size=0\n"
                    "FRONT REDZONE:\n"
                    "0000: A7 A7 A7 A7 A7 A7 A7 7A .*\n"
                    "REAR REDZONE:\n"
                    "0000: 9D 9D 9D 9D 9D 9D 9D 9D .*\n"
                    "alloc_dbginfo:390: Assertion fail with condition 'false' ");
}

TEST(AllocDbginfoDeathTest, EveryByteOfBothRedZonesCounts) {
    const SysRegion region;
    char *const block = region.malloc(13);
    for (const int at : {-8, -7, -6, -5, -4, -3, -2, -1, 13, 14, 15, 16, 17, 18, 19, 20}) {
        block[at] = static_cast<char>(block[at] ^ 1);
        EXPECT_EXIT(region.free(block), testing::KilledBySignal(SIGABRT), "REDZONE") << at;
        block[at] = static_cast<char>(block[at] ^ 1);
    }
    region.free(block);
}

TEST(AllocDbginfoDeathTest, ImpossibleSizeIsAnAssertion) {
    const SysRegion region;
    char *const block = region.malloc(5);
    int64_t *const size = reinterpret_cast<int64_t *>(block - 24);
    *size = INT64_MAX;
    EXPECT_EXIT(region.free(block), testing::KilledBySignal(SIGABRT),
                "^alloc_dbginfo:345: Assertion fail with condition 'size < INT64_MAX' ");
    *size = -1;
    EXPECT_EXIT(region.free(block), testing::KilledBySignal(SIGABRT),
                "^alloc_dbginfo:346: Assertion fail with condition 'size >= 0' ");
    EXPECT_EXIT((void)region.realloc(block, 1), testing::KilledBySignal(SIGABRT),
                "^alloc_dbginfo:346: ");
}

TEST(AllocDbginfoDeathTest, LargestSizeOfAllCannotBeRecorded) {
    char memory[64] = {};
    EXPECT_EXIT(dbginfo_set(memory + 48, INT64_MAX, "file", 1), testing::KilledBySignal(SIGABRT),
                "^alloc_dbginfo:235: Assertion fail with condition 'dbginfo->size < INT64_MAX' ");
}

} // namespace
