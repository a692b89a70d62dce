// What does it cost to take the literals out of a statement? A whole conversion (the list, a
// prefix, the new text) of everyday statements, beside a parser's own way to the same end and
// beside the least that anybody can do, which is to look at every byte once. And whether the cost
// of a literal depends on its length, or on how many there are.
//
// Both converters put their memory into a context that is emptied after each statement.

#include <benchmark/benchmark.h>
#include <limits.h>
#include <malloc.h>
#include <pg_query.h>
#include <string.h>

#include <string>

#include "common/alloc/region_clialloc.h"
#include "common/alloc/system_clialloc.h"
#include "common/lit_cnv.h"
#include "statements.h"

namespace {

// A region that is emptied after each statement.
class Region {
  public:
    Region()
        : root_(real_sys_region_allocator_new(&_system_allocator, "bench", 1)),
          statement_(real_sys_region_allocator_new(root_, "bench", 2)) {}
    Region(const Region &) = delete;
    Region &operator=(const Region &) = delete;
    ~Region() { root_->desc->func_delete(root_); }

    [[nodiscard]] allocator_t *get() const { return statement_; }
    void empty() { region_cleanup(statement_); }

  private:
    allocator_t *root_;
    allocator_t *statement_;
};

struct Converted {
    listc_t *literals;
    char *prefix;
    char *text;
};

Converted convert(const char *statement, allocator_t *alloc) {
    char *const stmt = const_cast<char *>(statement); // it is only read
    auto_param_info_t info;
    Converted converted;
    converted.literals = lit_cnv_get_literal_list(stmt, 0, &info, ZDSTR_CHARSET_UTF8, alloc);
    converted.prefix = lit_cnv_get_param_prefix(&info, 0, alloc);
    converted.text = lit_cnv_get_replaced_sql(stmt, converted.prefix, converted.literals, alloc);
    benchmark::DoNotOptimize(converted.text);
    return converted;
}

void everyday_in_a_region(benchmark::State &state) {
    Region region;
    for (auto _ : state) {
        for (const char *statement : kStatements) {
            convert(statement, region.get());
            region.empty();
        }
    }
}
BENCHMARK(everyday_in_a_region)->Name("literals, everyday statements/zdepl");

void heap_throw(allocator_t *) {
    abort();
}

void everyday_on_the_heap(benchmark::State &state) {
    allocator_desc_t desc = _system_allocator_desc;
    desc.func_throw = heap_throw;
    allocator_t heap = {};
    heap.desc = &desc;
    for (auto _ : state) {
        for (const char *statement : kStatements) {
            const Converted converted = convert(statement, &heap);
            free(converted.text);
            free(converted.prefix);
            list_for_each(link, &converted.literals->link)
                free(static_cast<literal_t *>(reinterpret_cast<listc_t *>(link)->data)->text);
            listc_clear_with_data(converted.literals, &heap);
            listc_free(converted.literals, &heap);
        }
    }
}
BENCHMARK(everyday_on_the_heap)->Name("literals, everyday statements/zdepl, process heap");

void everyday_plain_pass(benchmark::State &state) {
    for (auto _ : state) {
        for (const char *statement : kStatements) {
            size_t quotes = 0;
            size_t digits = 0;
            for (const char *c = statement; *c != '\0'; c++) {
                quotes += *c == '\'' ? 1 : 0;
                digits += *c >= '0' && *c <= '9' ? 1 : 0;
            }
            benchmark::DoNotOptimize(quotes);
            benchmark::DoNotOptimize(digits);
        }
    }
}
BENCHMARK(everyday_plain_pass)->Name("literals, everyday statements/plain pass");

void everyday_pg_query(benchmark::State &state) {
    for (auto _ : state) {
        for (const char *statement : kStatements) {
            const PgQueryNormalizeResult result = pg_query_normalize(statement);
            if (result.error != nullptr)
                state.SkipWithError(result.error->message);
            benchmark::DoNotOptimize(result.normalized_query);
            pg_query_free_normalize_result(result);
        }
    }
}
BENCHMARK(everyday_pg_query)->Name("literals, everyday statements/libpg_query normalize");

// The same number of bytes in one iteration, or of literals: figures compare as they are.

// The process keeps the memory that it once had: otherwise every page of a large statement, and of
// none that is small, would come from the kernel anew each time, and that is what the figures say.
[[maybe_unused]] const bool kKeepsMemory =
    mallopt(M_MMAP_MAX, 0) == 1 && mallopt(M_TRIM_THRESHOLD, INT_MAX) == 1;

constexpr int kLongBytes = 64 << 20;
constexpr int kShortBytes = 1 << 20;

void long_literal(benchmark::State &state, int bytes) {
    const std::string statement = "select '" + std::string(static_cast<size_t>(bytes), 'x') + "'";
    Region region;
    for (auto _ : state) {
        for (int converted = 0; converted < kLongBytes; converted += bytes) {
            convert(statement.c_str(), region.get());
            region.empty();
        }
    }
}
BENCHMARK_CAPTURE(long_literal, large, kLongBytes)->Name("64 MiB of literal/zdepl, one");
BENCHMARK_CAPTURE(long_literal, small, kShortBytes)->Name("64 MiB of literal/zdepl, 64 of 1 MiB");

constexpr int kManyLiterals = 1000000;
constexpr int kFewLiterals = 10000;

void many_literals(benchmark::State &state, int count) {
    std::string statement = "select 0";
    for (int i = 1; i < count; i++)
        statement += i % 3 == 0 ? ", 'text'" : ", 4711";
    Region region;
    for (auto _ : state) {
        for (int converted = 0; converted < kManyLiterals; converted += count) {
            convert(statement.c_str(), region.get());
            region.empty();
        }
    }
}
BENCHMARK_CAPTURE(many_literals, many, kManyLiterals)->Name("a million literals/zdepl, at once");
BENCHMARK_CAPTURE(many_literals, few, kFewLiterals)
    ->Name("a million literals/zdepl, 10,000 at a time");

} // namespace
