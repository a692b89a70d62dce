// Values and argument blocks against pages that nobody may touch: one byte read or written outside
// ends the test. In the agent a request's values lie in its receive buffer, where this cannot be
// arranged; so the direct form is given the same requests here, in memory of the test's own.

#include <dlfcn.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include <memory>
#include <span>

#include "client/zdepa/dlc_x64_system_v.h"
#include "client/zdepa/epa_proc.h"
#include "common/alloc/region_clialloc.h"
#include "common/alloc/system_clialloc.h"
#include "common/zdmsg/zdmsg_setter_gen.h"
#include "signatures.h"
#include "support/agent_context.h"

namespace {

// Where a block lies in its pages: its last byte before the guard, or its first one behind it.
enum class Edge { kEnd, kStart };

// A copy of a block with a page behind it (and one before it) that cannot be touched.
class Guarded {
  public:
    Guarded(const void *bytes, size_t count, Edge edge) {
        const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        const size_t room = (count + page - 1) / page * page;
        size_ = room + 2 * page;
        pages_ = static_cast<char *>(
            mmap(nullptr, size_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        if (pages_ == MAP_FAILED)
            abort();
        if (room > 0 && mprotect(pages_ + page, room, PROT_READ | PROT_WRITE) != 0)
            abort();
        data_ = edge == Edge::kEnd ? pages_ + page + room - count : pages_ + page;
        if (count > 0)
            memcpy(data_, bytes, count);
    }
    Guarded(const Guarded &) = delete;
    Guarded &operator=(const Guarded &) = delete;
    ~Guarded() { munmap(pages_, size_); }

    char *data() const { return data_; }

  private:
    char *pages_;
    size_t size_;
    char *data_;
};

// --- the direct form
// ------------------------------------------------------------------------------

class GuardedRequest : public AgentContextTest, public testing::WithParamInterface<Edge> {
  protected:
    void SetUp() override {
        caller_ = real_sys_region_allocator_new(&_system_allocator, "test", 1);
        library_ = dlopen(SIGNATURE_LIBRARY, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(library_, nullptr) << dlerror();
    }

    void TearDown() override {
        if (library_ != nullptr)
            dlclose(library_);
        caller_->desc->func_delete(caller_);
        AgentContextTest::TearDown();
    }

    // Serves the call with every value in pages of its own.
    void serve(const char *library, const char *function, int property, int return_flag,
               std::span<const signature_param> given) {
        std::vector<std::unique_ptr<Guarded>> values;
        std::vector<zdmsg_struct_extproc_param_t> params;
        for (const signature_param &param : given) {
            values.push_back(std::make_unique<Guarded>(
                param.value, static_cast<size_t>(param.length), GetParam()));
            params.emplace_back();
            zdmsg_struct_extproc_param_set(&params.back(), param.flag, param.maxlen, param.length,
                                           values.back()->data());
        }
        zdmsg_extproc_execute_t request;
        zdmsg_extproc_execute_set(&request, library, function, property, return_flag,
                                  static_cast<int>(params.size()), params.data());
        epa_process_request_dir(&request.base, &reply_.base, caller_);
        copy_entries();
    }

    // OUT values may lie in the pages, which end with the call.
    void copy_entries() {
        entries_.clear();
        for (int i = 0; i < reply_.reply_param.array_cnt; i++) {
            const zdmsg_str_t &value = reply_.reply_param.data[i].data_value;
            entries_.emplace_back(value.data, static_cast<size_t>(value.len));
        }
    }

    void serve_all_signatures() {
        for (int i = 0; i < signature_cnt && !HasFailure(); i++) {
            const signature &signature = signatures[i];
            SCOPED_TRACE(signature.function);
            serve(SIGNATURE_LIBRARY, signature.function, signature.property, signature.return_flag,
                  {signature.params, static_cast<size_t>(signature.param_cnt)});
            compare(signature);
        }
    }

    void compare(const signature &signature) {
        ASSERT_EQ(reply_.errstack.len, 0);
        auto expected = std::make_unique<outcome>();
        signature.call(dlsym(library_, signature.function), expected.get());
        size_t entry = 0;
        if (signature.return_flag != 0)
            expect_starts_with(entries_.at(entry++), expected->result);
        ASSERT_EQ(entries_.size(), entry + static_cast<size_t>(expected->out_cnt));
        for (int i = 0; i < expected->out_cnt; i++, entry++) {
            EXPECT_EQ(entries_[entry].size(), static_cast<size_t>(expected->out[i].length));
            expect_starts_with(entries_[entry], expected->out[i]);
        }
    }

    static void expect_starts_with(const std::string &value, const outcome_value &expected) {
        EXPECT_EQ(value.substr(0, static_cast<size_t>(expected.length)),
                  std::string(reinterpret_cast<const char *>(expected.bytes),
                              static_cast<size_t>(expected.length)));
    }

    allocator_t *caller_ = nullptr;
    void *library_ = nullptr;
    zdmsg_extproc_execute_reply_t reply_ = {};
    std::vector<std::string> entries_;
};

TEST_P(GuardedRequest, NothingOutsideTheValuesIsTouched) {
    start();
    serve_all_signatures();
}

TEST_P(GuardedRequest, NothingOutsideTheValuesIsTraced) {
    start("LOG_LVL=5\n");
    serve_all_signatures();
}

TEST_P(GuardedRequest, ValueShorterThanItsTypeIsFilledUpAndNotReadOn) {
    start("LOG_LVL=5\n");
    const signature_param params[] = {
        {ZD_TYPE_BIN_DOUBLE << 8 | EXT_TYPE_LONG, 8, 2, "\x01\x02"},
        {ZD_TYPE_BIN_DOUBLE << 8 | EXT_TYPE_LONG, 8, 0, ""},
    };
    serve(ROUTINES_LIBRARY, "add_long", 0, ZD_TYPE_BIN_DOUBLE << 8 | EXT_TYPE_LONG, params);
    ASSERT_EQ(entries_.size(), 1u);
    EXPECT_EQ(entries_[0], std::string("\x01\x02\0\0\0\0\0\0", 8));
}

INSTANTIATE_TEST_SUITE_P(BothEdges, GuardedRequest, testing::Values(Edge::kEnd, Edge::kStart),
                         [](const testing::TestParamInfo<Edge> &edge) {
                             return edge.param == Edge::kEnd ? "End" : "Start";
                         });

// --- the trampoline
// -------------------------------------------------------------------------------

int64_t weigh(int64_t a, int64_t b, int64_t c, int64_t d, int64_t e, int64_t f) {
    return a + 3 * b + 5 * c + 7 * d + 11 * e + 13 * f;
}

double weigh_doubles(double a, double b, double c, double d, double e, double f, double g,
                     double h) {
    return a + 3 * b + 5 * c + 7 * d + 11 * e + 13 * f + 17 * g + 19 * h;
}

class GuardedTrampoline : public testing::TestWithParam<Edge> {
  protected:
    const std::vector<int64_t> ints_ = {1, 2, 3, 4, 5, 6};
    const std::vector<double> doubles_ = {1, 2, 3, 4, 5, 6, 7, 8};
    const Guarded int_regs_{ints_.data(), 48, GetParam()};
    const Guarded float_regs_{doubles_.data(), 64, GetParam()};
};

TEST_P(GuardedTrampoline, BlockAndRegistersAreReadToTheirLastByteOnly) {
    for (size_t slots = 0; slots <= 600; slots = slots < 40 ? slots + 1 : slots * 2) {
        const std::vector<int64_t> block(slots, 9);
        const Guarded stack(block.data(), slots * 8, GetParam());
        const auto *const ints = reinterpret_cast<const int64_t *>(int_regs_.data());
        const auto *const doubles = reinterpret_cast<const double *>(float_regs_.data());
        EXPECT_EQ(dl_call_linux_x64(slots * 8, stack.data(), ints, doubles,
                                    reinterpret_cast<void *>(weigh)),
                  weigh(1, 2, 3, 4, 5, 6))
            << slots;
        EXPECT_EQ(dlc_view<ext_func_dbl_t>()(slots * 8, stack.data(), ints, doubles,
                                             reinterpret_cast<void *>(weigh_doubles)),
                  weigh_doubles(1, 2, 3, 4, 5, 6, 7, 8))
            << slots;
    }
}

TEST_P(GuardedTrampoline, EmptyBlockIsNotReadAtAll) {
    const Guarded nothing("", 0, GetParam());
    EXPECT_EQ(dl_call_linux_x64(0, nothing.data(),
                                reinterpret_cast<const int64_t *>(int_regs_.data()),
                                reinterpret_cast<const double *>(float_regs_.data()),
                                reinterpret_cast<void *>(weigh)),
              weigh(1, 2, 3, 4, 5, 6));
}

INSTANTIATE_TEST_SUITE_P(BothEdges, GuardedTrampoline, testing::Values(Edge::kEnd, Edge::kStart),
                         [](const testing::TestParamInfo<Edge> &edge) {
                             return edge.param == Edge::kEnd ? "End" : "Start";
                         });

} // namespace
