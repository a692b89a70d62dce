// For tests of what happens when the process heap has no memory: a heap that refuses large blocks,
// also under the sanitizers, whose own heaps would end the process. For one source file a program.

#ifndef TESTS_SUPPORT_REFUSING_HEAP_H
#define TESTS_SUPPORT_REFUSING_HEAP_H

#include <sys/resource.h>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

// Blocks of more than 1 GiB are refused all the time.
extern "C" const char *__asan_default_options() {
    return "allocator_may_return_null=1:max_allocation_size_mb=1024";
}
extern "C" const char *__tsan_default_options() {
    return "allocator_may_return_null=1:max_allocation_size_mb=1024";
}

// While it lives, blocks of more than 1 GiB are refused.
class HeapWithoutLargeBlocks {
  public:
    HeapWithoutLargeBlocks() {
        getrlimit(RLIMIT_AS, &saved_);
        rlimit limit = saved_;
        limit.rlim_cur = 1 << 30;
        if (!kSanitized)
            setrlimit(RLIMIT_AS, &limit);
    }
    HeapWithoutLargeBlocks(const HeapWithoutLargeBlocks &) = delete;
    HeapWithoutLargeBlocks &operator=(const HeapWithoutLargeBlocks &) = delete;
    ~HeapWithoutLargeBlocks() { setrlimit(RLIMIT_AS, &saved_); }

  private:
    rlimit saved_;
};

#endif
