#include "common/alloc/alloc_tracedump.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "support/captured_stream.h"
#include "support/region.h"

namespace {

using testing::EndsWith;
using testing::HasSubstr;

template <class Print>
std::string printed(Print print) {
    const CapturedStream stream;
    print(stream.get());
    return stream.text();
}

std::string dump_of(allocator_t *alloc) {
    return printed([=](dstream_t *stream) { alloc_tracedump(stream, alloc); });
}

std::string address(const void *pointer) {
    char text[32];
    snprintf(text, sizeof text, "%p", pointer);
    return text;
}

const void *inside(const void *base, size_t offset) {
    return static_cast<const char *>(base) + offset;
}

TEST(AllocTracedump, NoAllocatorIsSaidSo) {
    EXPECT_EQ(dump_of(nullptr), "Allocator == NULL\n");
}

TEST(AllocTracedump, RegionAllocatorIsShownToTheLastChunk) {
    const SysRegion region;
    char *const first = region.malloc(100);
    char *const second = region.malloc(0);
    const region_t *const memory = region->regions.next;
    EXPECT_EQ(dump_of(region.get()),
              "Allocator[1] \"(SYSTEM region allocator)\" (" + address(region.get()) +
                  "): {{{\n"
                  "  parent allocator = " +
                  address(&_system_allocator) +
                  " (SYSTEM_ALLOC)\n"
                  "  region " +
                  address(memory) +
                  " [size :4096]\n"
                  "  mem " +
                  address(first) + " chunk " + address(inside(memory, 32)) +
                  " (size   100 real   152) test.c:7\n"
                  "  mem " +
                  address(second) + " chunk " + address(inside(memory, 32 + 152)) +
                  " (size     0 real    56) test.c:7\n"
                  "  chunk " +
                  address(inside(memory, 32 + 152 + 56 + 16)) +
                  " (size  3840) free\n"
                  "  total 0 chunks in 0 bytes.\n"
                  "  4096 bytes are allocated in total (used + reserved).\n"
                  "  208 bytes are actually being used.\n"
                  "  beginning sanity check...\n"
                  "  ...sanity check OK!\n"
                  "  this allocator has no child allocator. }}}\n");
}

TEST(AllocTracedump, RegionsAreShownNewestFirst) {
    const SysRegion region;
    EXPECT_NE(region.malloc(4000), nullptr);
    EXPECT_NE(region.malloc(5000), nullptr);
    const std::string text = dump_of(region.get());
    EXPECT_LT(text.find("[size :5096]"), text.find("[size :4096]"));
    EXPECT_THAT(text, HasSubstr("  total 0 chunks in 0 bytes.\n"));
}

TEST(AllocTracedump, EmptyAllocatorHasNoRegions) {
    const SysRegion region;
    EXPECT_THAT(dump_of(region.get()), HasSubstr(" (SYSTEM_ALLOC)\n"
                                                 "  total 0 chunks in 0 bytes.\n"
                                                 "  0 bytes are allocated"));
}

TEST(AllocTracedump, ChildrenAreIndentedInTheirOrder) {
    const SysRegion root;
    const SysRegion first(root.get());
    const SysRegion second(root.get());
    const SysRegion below(second.get());
    const auto head = [](const char *indent, int level, allocator_t *alloc) {
        return indent + ("Allocator[" + std::to_string(level)) +
               "] \"(SYSTEM region allocator)\" (" + address(alloc) + "): ";
    };
    const auto body = [](const std::string &indent, allocator_t *parent, const char *suffix) {
        return indent + "  parent allocator = " + address(parent) + suffix + "\n" + indent +
               "  total 0 chunks in 0 bytes.\n" + indent +
               "  0 bytes are allocated in total (used + reserved).\n" + indent +
               "  0 bytes are actually being used.\n" + indent + "  beginning sanity check...\n" +
               indent + "  ...sanity check OK!\n";
    };
    EXPECT_EQ(dump_of(root.get()),
              head("", 1, root.get()) + "{{{\n" + body("", &_system_allocator, " (SYSTEM_ALLOC)") +
                  "  ----- starting child allocator dump -----\n" + //
                  head("  ", 2, first.get()) + "{{{\n" + body("  ", root.get(), "") +
                  "    this allocator has no child allocator. }}}\n" + //
                  head("  ", 2, second.get()) + "{{{\n" + body("  ", root.get(), "") +
                  "    ----- starting child allocator dump -----\n" + //
                  head("    ", 3, below.get()) + "{{{\n" + body("    ", second.get(), "") +
                  "      this allocator has no child allocator. }}}\n" + //
                  head("  ", 2, second.get()) + "finished child allocator dump. }}}\n" +
                  head("", 1, root.get()) + "finished child allocator dump. }}}\n");
}

TEST(AllocTracedump, IndentationEndsAtNineteenColumns) {
    const SysRegion region;
    const auto indent_at = [&](int level) {
        return printed([&](dstream_t *stream) {
                   alloc_tracedump_internal(stream, region.get(), level);
               })
            .find("Allocator[" + std::to_string(level) + "]");
    };
    EXPECT_EQ(indent_at(1), 0u);
    EXPECT_EQ(indent_at(2), 2u);
    EXPECT_EQ(indent_at(10), 18u);
    EXPECT_EQ(indent_at(11), 19u);
    EXPECT_EQ(indent_at(50), 19u);
}

TEST(AllocTracedump, SystemAllocatorIsSkippedButItsChildrenAreNot) {
    const SysRegion region;
    const std::string text = dump_of(&_system_allocator);
    EXPECT_THAT(text, testing::StartsWith("Allocator[1] \"SYSTEM_ALLOC\" (" +
                                          address(&_system_allocator) +
                                          "): {{{\n"
                                          "  parent allocator = 0x0\n"
                                          "  skipped SYSTEM_ALLOC dump...\n"
                                          "  ----- starting child allocator dump -----\n"));
    EXPECT_THAT(text, HasSubstr("\n  Allocator[2] \"(SYSTEM region allocator)\" (" +
                                address(region.get())));
}

TEST(AllocTracedump, BusyAllocatorIsReportedAndLeftAlone) {
    const SysRegion region;
    const SysRegion child(region.get());
    pthread_mutex_lock(&region.get()->mutex);
    EXPECT_EQ(dump_of(region.get()), "Allocator[1] \"(SYSTEM region allocator)\" (" +
                                         address(region.get()) +
                                         "): {{{\n"
                                         "  parent allocator = " +
                                         address(&_system_allocator) +
                                         " (SYSTEM_ALLOC)\n"
                                         "  Allocator[1] busy: dump aborted. }}}\n");
    pthread_mutex_unlock(&region.get()->mutex);
}

TEST(AllocTracedump, BusyChildDoesNotStopItsSiblings) {
    const SysRegion region;
    const SysRegion busy(region.get());
    const SysRegion sibling(region.get());
    pthread_mutex_lock(&busy.get()->mutex);
    const std::string text = dump_of(region.get());
    pthread_mutex_unlock(&busy.get()->mutex);
    EXPECT_THAT(text, HasSubstr("\n    Allocator[2] busy: dump aborted. }}}\n"));
    EXPECT_THAT(text, HasSubstr(address(sibling.get()) + "): {{{\n"));
    EXPECT_THAT(text, EndsWith("finished child allocator dump. }}}\n"));
}

TEST(AllocTracedump, MutexesAreFreeAgainAfterwards) {
    const SysRegion region;
    const SysRegion child(region.get());
    dump_of(region.get());
    for (allocator_t *const alloc : {region.get(), child.get()}) {
        EXPECT_EQ(pthread_mutex_trylock(&alloc->mutex), 0);
        pthread_mutex_unlock(&alloc->mutex);
    }
}

// Looks, while it is dumped itself, whether its parent is held.
struct Watcher {
    static void look(dstream_t *stream, allocator_t *alloc, const char *) {
        dprint(stream, "parent held: %d\n", pthread_mutex_trylock(&alloc->parent->mutex) != 0);
    }
    static constexpr allocator_desc_t kDesc = {nullptr, nullptr, nullptr, nullptr,
                                               nullptr, nullptr, look,    nullptr};
};

TEST(AllocTracedump, ParentIsHeldWhileItsChildrenAreDumped) {
    const SysRegion region;
    SysRegion child(region.get());
    child.get()->desc = &Watcher::kDesc;
    EXPECT_THAT(dump_of(region.get()), HasSubstr("parent held: 1\n"));
    child.get()->desc = &region_allocator_desc;
}

TEST(AllocTracedump, KindWithoutADumpOfItsOwnIsFine) {
    const SysRegion region;
    allocator_desc_t desc = region_allocator_desc;
    desc.func_tracedump = nullptr;
    region.get()->desc = &desc;
    EXPECT_THAT(dump_of(region.get()), HasSubstr("  total 0 chunks in 0 bytes.\n"
                                                 "  this allocator has no child allocator. }}}\n"));
    region.get()->desc = &region_allocator_desc;
}

TEST(AllocTracedump, RecordOfAFixedAllocatorHasNoCallSite) {
    const FixedRegion region(2048);
    char *const block = region.malloc(3);
    EXPECT_THAT(dump_of(region.get()),
                HasSubstr("  parent allocator = 0x0\n"
                          "  region " +
                          address(region.buffer()) +
                          " [size :2048]\n"
                          "  mem " +
                          address(region.get()) + " chunk " + address(region.chunk(32)) +
                          " (size  1040 real  1048) (allocator record):0\n"
                          "  mem " +
                          address(block) + " chunk " + address(region.chunk(1080)) +
                          " (size     3 real    56) test.c:7\n"));
}

TEST(AllocTracedump, ChunkLineNamesTheFileWithoutItsFolders) {
    const SysRegion region;
    const auto line_of = [&](const char *file) {
        void *const block = region_malloc(region.get(), 123456, file, 42);
        const std::string text =
            printed([&](dstream_t *stream) { alloc_chunkdump(stream, chunk_of(block), "    "); });
        EXPECT_THAT(text,
                    testing::StartsWith("      mem " + address(block) + " chunk " +
                                        address(chunk_of(block)) + " (size 123456 real 123504) "));
        return text.substr(text.find(") ") + 2);
    };
    EXPECT_EQ(line_of("a/b/c.cpp"), "c.cpp:42\n");
    EXPECT_EQ(line_of("c.cpp"), "c.cpp:42\n");
    EXPECT_EQ(line_of("a/"), ":42\n");
    EXPECT_EQ(line_of(nullptr), "<NULL>:42\n");
}

TEST(AllocTracedump, FreeChunkLineShowsWhatFollowsItsSizes) {
    const SysRegion region;
    chunk_t *const rest = after(chunk_of(region.malloc(3000)));
    EXPECT_EQ(printed([&](dstream_t *stream) { alloc_freechunkdump(stream, rest, "  "); }),
              "    chunk " + address(inside(rest, 16)) + " (size  1000) free\n");
}

} // namespace
