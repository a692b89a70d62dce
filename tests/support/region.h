// Region allocators for tests, and the way from a block to what lies around it.

#ifndef TESTS_SUPPORT_REGION_H
#define TESTS_SUPPORT_REGION_H

#include <cstdlib>

#include "common/alloc/region_clialloc.h"
#include "common/alloc/system_clialloc.h"

inline chunk_t *chunk_of(void *block) {
    return reinterpret_cast<chunk_t *>(static_cast<char *>(block) - 48);
}

inline csize_t size_of(const chunk_t *chunk) {
    return chunk->head / 8 * 8;
}

inline chunk_t *after(const chunk_t *chunk) {
    return reinterpret_cast<chunk_t *>(
        const_cast<char *>(reinterpret_cast<const char *>(chunk) + size_of(chunk)));
}

inline bool in_use(const chunk_t *chunk) {
    return (chunk->head & 2) != 0;
}

inline bool previous_in_use(const chunk_t *chunk) {
    return (chunk->head & 1) != 0;
}

class Region {
  public:
    explicit Region(allocator_t *alloc) : alloc_(alloc) {}
    Region(const Region &) = delete;
    Region &operator=(const Region &) = delete;

    [[nodiscard]] allocator_t *get() const { return alloc_; }
    CLI_alloc_t *operator->() const { return reinterpret_cast<CLI_alloc_t *>(alloc_); }

    [[nodiscard]] char *malloc(int64_t bytes) const {
        return static_cast<char *>(region_malloc(alloc_, bytes, "dir/test.c", 7));
    }
    [[nodiscard]] char *realloc(void *block, int64_t bytes) const {
        return static_cast<char *>(region_realloc(alloc_, block, bytes, "dir/again.c", 8));
    }
    void free(void *block) const { region_free(alloc_, block, "dir/gone.c", 9); }
    [[nodiscard]] int check() const { return region_alloc_check(alloc_, nullptr); }

    [[nodiscard]] int region_count() const {
        int count = 0;
        for (const region_t *region = (*this)->regions.next; region != &(*this)->regions;
             region = region->next)
            count++;
        return count;
    }

  protected:
    allocator_t *alloc_;
};

class SysRegion : public Region {
  public:
    explicit SysRegion(allocator_t *parent = &_system_allocator)
        : Region(real_sys_region_allocator_new(parent, "sys.c", 3)) {}
    ~SysRegion() { alloc_->desc->func_delete(alloc_); }
};

// Bytes that no test sets are not touched, so that large buffers cost nothing.
class FixedRegion : public Region {
  public:
    explicit FixedRegion(int64_t size)
        : Region(fixed_region_allocator_new(::malloc(static_cast<size_t>(size)), size)) {}
    ~FixedRegion() { ::free(buffer()); }

    // The allocator's record is 48 bytes into its buffer.
    [[nodiscard]] char *buffer() const { return reinterpret_cast<char *>(alloc_) - 48; }
    [[nodiscard]] chunk_t *chunk(int64_t offset) const {
        return reinterpret_cast<chunk_t *>(buffer() + offset);
    }
};

#endif
