#include "common/alloc/system_clialloc.h"

#include <gtest/gtest.h>

#include <cstring>

#include "support/refusing_heap.h"

namespace {

allocator_t *const kSystem = &_system_allocator;

TEST(SystemAllocator, IsTheNamedRootOfEveryTree) {
    EXPECT_EQ(kSystem->alloc_type, ALLOC_TYPE_CLIENT_SYSTEM);
    EXPECT_EQ(kSystem->desc, &_system_allocator_desc);
    EXPECT_STREQ(kSystem->name, "SYSTEM_ALLOC");
    EXPECT_EQ(kSystem->logging, 0);
    EXPECT_STREQ(kSystem->file, "common/alloc/system_clialloc");
    EXPECT_EQ(kSystem->line, 52u);
    EXPECT_EQ(kSystem->parent, nullptr);
    EXPECT_TRUE(list_is_empty(&kSystem->child));
    EXPECT_TRUE(list_is_empty(&kSystem->link));
}

TEST(SystemAllocator, HasNeitherTraceDumpNorThrow) {
    EXPECT_EQ(_system_allocator_desc.func_tracedump, nullptr);
    EXPECT_EQ(_system_allocator_desc.func_throw, nullptr);
    EXPECT_EQ(_system_allocator_desc.func_valloc, _system_allocator_desc.func_malloc);
}

TEST(SystemAllocator, CallocZeroesAndReallocKeepsContents) {
    char *memory = static_cast<char *>(zd_calloc(kSystem, 64, "test", 1));
    for (int i = 0; i < 64; i++)
        ASSERT_EQ(memory[i], 0) << i;
    memcpy(memory, "contents", 9);
    memory = static_cast<char *>(zd_realloc(kSystem, memory, 4096, "test", 2));
    EXPECT_STREQ(memory, "contents");
    zd_free(kSystem, memory, "test", 3);
}

TEST(SystemAllocatorDeathTest, CannotBeDeleted) {
    EXPECT_EXIT(kSystem->desc->func_delete(kSystem), testing::KilledBySignal(SIGABRT),
                "^system_clialloc:99: Assertion fail with condition '0' ");
}

TEST(SystemAllocatorDeathTest, ExhaustionEndsInAnAssertion) {
    EXPECT_EXIT(zd_malloc(kSystem, INT64_MAX, "test", 5), testing::KilledBySignal(SIGABRT),
                "test:5: Assertion fail with condition 'alloc->desc->func_throw != NULL'");
}

} // namespace
