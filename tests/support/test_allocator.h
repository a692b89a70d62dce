// An allocator for tests: counts the blocks that live, hands out memory that is not zero, refuses
// on demand, and throws like the region allocators do.

#ifndef TEST_ALLOCATOR_H
#define TEST_ALLOCATOR_H

#include <cstdlib>
#include <cstring>

#include "client/common/client_try.h"
#include "common/alloc/allocator.h"

class TestAllocator {
  public:
    static constexpr ec_t kThrown = -3003;
    static constexpr unsigned char kFill = 0xA5;

    TestAllocator() {
        head_.alloc_type = ALLOC_TYPE_DUMMY;
        head_.desc = &kDesc;
    }
    TestAllocator(const TestAllocator &) = delete;
    TestAllocator &operator=(const TestAllocator &) = delete;

    allocator_t *get() { return &head_; }
    int live_blocks() const { return live_blocks_; }
    int64_t last_size() const { return last_size_; }
    // Of the call that last gave or took back a block.
    const char *last_file() const { return last_file_; }
    int last_line() const { return last_line_; }
    void refuse(bool refuse) { refuse_ = refuse; }

  private:
    static TestAllocator *of(allocator_t *alloc) {
        return reinterpret_cast<TestAllocator *>(alloc);
    }

    void saw(const char *file, int line) {
        last_file_ = file;
        last_line_ = line;
    }

    static void *allocate(allocator_t *alloc, int64_t bytes, const char *file, int line) {
        TestAllocator *const self = of(alloc);
        self->saw(file, line);
        if (self->refuse_)
            return nullptr;
        self->live_blocks_++;
        self->last_size_ = bytes;
        return memset(malloc(static_cast<size_t>(bytes)), kFill, static_cast<size_t>(bytes));
    }
    static void *allocate_zeroed(allocator_t *alloc, int64_t bytes, const char *file, int line) {
        void *const memory = allocate(alloc, bytes, file, line);
        return memory != nullptr ? memset(memory, 0, static_cast<size_t>(bytes)) : nullptr;
    }
    static void *resize(allocator_t *alloc, void *ptr, int64_t bytes, const char *, int) {
        return of(alloc)->refuse_ ? nullptr : realloc(ptr, static_cast<size_t>(bytes));
    }
    static void release(allocator_t *alloc, void *ptr, const char *file, int line) {
        of(alloc)->saw(file, line);
        of(alloc)->live_blocks_--;
        free(ptr);
    }
    static void raise(allocator_t *) {
        zd_err_and_jmp("test_allocator", 0, "raise", 0, 0, kThrown);
    }

    static constexpr allocator_desc_t kDesc = {allocate, allocate, allocate_zeroed, resize,
                                               release,  nullptr,  nullptr,         raise};

    allocator_t head_ = {}; // first: what the operations get is where the object is
    int live_blocks_ = 0;
    int64_t last_size_ = 0;
    const char *last_file_ = nullptr;
    int last_line_ = 0;
    bool refuse_ = false;
};

#endif
