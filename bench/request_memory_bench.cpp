// What does the memory of one request cost? 64 blocks of 16 to 512 bytes are allocated, then all of
// them are released at once. Our figures include what the region allocator keeps of every block:
// its call site, its two red zones, and the mutex. No peer does any of that.

#include <apr_general.h>
#include <apr_pools.h>
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <talloc.h>

#include <array>

#include "common/alloc/region_clialloc.h"
#include "common/alloc/system_clialloc.h"

namespace {

constexpr size_t kBlocks = 64;

constexpr std::array<size_t, kBlocks> make_sizes() {
    std::array<size_t, kBlocks> sizes{};
    uint32_t state = 12345;
    for (size_t &size : sizes) {
        state = state * 1664525 + 1013904223;
        size = 16 + (state >> 8) % 497;
    }
    return sizes;
}

constexpr std::array<size_t, kBlocks> kSizes = make_sizes();

void allocate_all(allocator_t *region) {
    for (const size_t size : kSizes)
        benchmark::DoNotOptimize(
            zd_malloc(region, static_cast<int64_t>(size), "request_memory_bench", 1));
}

void region_new_and_delete(benchmark::State &state) {
    allocator_t *const root = real_sys_region_allocator_new(&_system_allocator, "bench", 1);
    for (auto _ : state) {
        allocator_t *const request = real_sys_region_allocator_new(root, "bench", 2);
        allocate_all(request);
        request->desc->func_delete(request);
    }
    root->desc->func_delete(root);
}
BENCHMARK(region_new_and_delete)->Name("request memory/zdepl new+delete");

void region_reuse(benchmark::State &state) {
    allocator_t *const root = real_sys_region_allocator_new(&_system_allocator, "bench", 1);
    allocator_t *const request = real_sys_region_allocator_new(root, "bench", 2);
    for (auto _ : state) {
        allocate_all(request);
        region_cleanup(request);
    }
    root->desc->func_delete(root);
}
BENCHMARK(region_reuse)->Name("request memory/zdepl cleanup");

void process_heap(benchmark::State &state) {
    std::array<void *, kBlocks> blocks;
    for (auto _ : state) {
        for (size_t i = 0; i < kBlocks; i++)
            benchmark::DoNotOptimize(blocks[i] = malloc(kSizes[i]));
        for (void *block : blocks)
            free(block);
    }
}
BENCHMARK(process_heap)->Name("request memory/glibc malloc+free");

void talloc_context(benchmark::State &state) {
    for (auto _ : state) {
        void *const context = talloc_new(nullptr);
        for (const size_t size : kSizes)
            benchmark::DoNotOptimize(talloc_size(context, size));
        talloc_free(context);
    }
}
BENCHMARK(talloc_context)->Name("request memory/talloc");

void apr_pool(benchmark::State &state) {
    if (apr_initialize() != APR_SUCCESS) {
        state.SkipWithError("apr_initialize failed");
        return;
    }
    apr_pool_t *root = nullptr;
    if (apr_pool_create(&root, nullptr) != APR_SUCCESS) {
        state.SkipWithError("apr_pool_create failed");
        return;
    }
    for (auto _ : state) {
        apr_pool_t *request = nullptr;
        apr_pool_create(&request, root);
        for (const size_t size : kSizes)
            benchmark::DoNotOptimize(apr_palloc(request, size));
        apr_pool_destroy(request);
    }
    apr_pool_destroy(root);
    apr_terminate();
}
BENCHMARK(apr_pool)->Name("request memory/APR pool");

} // namespace
