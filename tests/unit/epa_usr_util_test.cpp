#include "client/zdepa/epa_usr_util.h"

#include <limits.h>
#include <signal.h>

#include <gmock/gmock.h>

#include "client/common/client_try.h"
#include "common/alloc/region_clialloc.h"
#include "common/alloc/system_clialloc.h"
#include "common/ec.h"

namespace {

// A routine's context, as the agent would hand it over.
class EpaUsrUtil : public testing::Test {
  protected:
    void SetUp() override {
        context_.alloc = real_sys_region_allocator_new(&_system_allocator, "test", 1);
        errors_ = real_sys_region_allocator_new(&_system_allocator, "test", 2);
        zd_err_stack_init(&stack_, errors_);
        context_.errstack = &stack_;
    }

    void TearDown() override {
        context_.alloc->desc->func_delete(context_.alloc);
        errors_->desc->func_delete(errors_);
    }

    // What is thrown, 0 when the service returns.
    ec_t raise(int code) {
        return client_try([&] { SQLExtProcDirectRaiseError(&context_, code); });
    }

    ec_t raise(int code, const char *text) {
        return client_try(
            [&] { SQLExtProcDirectRaiseErrorWithMsg(&context_, code, const_cast<char *>(text)); });
    }

    const zd_err_inst_t *top() { return zd_err_stack_get(&stack_, 0); }

    epa_util_context_t context_ = {};
    zd_err_stack_t stack_;
    allocator_t *errors_;
};

// --- memory --------------------------------------------------------------------------------------

TEST_F(EpaUsrUtil, MemoryComesFromTheContextsAllocator) {
    const auto *const region = reinterpret_cast<const CLI_alloc_t *>(context_.alloc);
    void *const memory = SQLExtProcDirectAllocMemory(&context_, 100);
    ASSERT_NE(memory, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(memory) % 8, 0u);
    EXPECT_GE(region->total_used, 100u);
    EXPECT_EQ(region_alloc_check(context_.alloc, nullptr), 0);
}

TEST_F(EpaUsrUtil, EveryBlockOfMemoryIsAnother) {
    EXPECT_NE(SQLExtProcDirectAllocMemory(&context_, 0), SQLExtProcDirectAllocMemory(&context_, 0));
}

TEST_F(EpaUsrUtil, LargeBlockIsGiven) {
    char *const memory =
        static_cast<char *>(SQLExtProcDirectAllocMemory(&context_, 3 * 1024 * 1024));
    memory[0] = 'a';
    memory[3 * 1024 * 1024 - 1] = 'z';
    EXPECT_EQ(region_alloc_check(context_.alloc, nullptr), 0);
}

TEST_F(EpaUsrUtil, MemoryThatCannotBeHadIsThrownWithoutAnErrorOnTheStack) {
    for (const size_t size : {size_t{0x80000000u}, size_t{1} << 40, size_t{INT64_MAX}, SIZE_MAX}) {
        EXPECT_EQ(client_try([&] { SQLExtProcDirectAllocMemory(&context_, size); }),
                  ERROR_OUT_OF_PHYSICAL_MEM)
            << size;
        EXPECT_EQ(stack_.count, 0);
    }
}

// An allocator that never has memory; what its throw operation does is the test's.
class EpaUsrUtilExhausted : public testing::Test {
  protected:
    void set_throw(void (*func_throw)(allocator_t *)) {
        operations_.func_malloc = [](allocator_t *, int64_t, const char *, int) -> void * {
            return nullptr;
        };
        operations_.func_throw = func_throw;
        allocator_.desc = &operations_;
        context_.alloc = &allocator_;
    }

    allocator_desc_t operations_ = {};
    allocator_t allocator_ = {};
    epa_util_context_t context_ = {};
};

TEST_F(EpaUsrUtilExhausted, ThrowThatReturnsMeansNoMemory) {
    set_throw([](allocator_t *) {});
    EXPECT_EQ(SQLExtProcDirectAllocMemory(&context_, 8), nullptr);
}

using EpaUsrUtilExhaustedDeathTest = EpaUsrUtilExhausted;

TEST_F(EpaUsrUtilExhaustedDeathTest, AllocatorThatCannotThrowFailsAnAssertion) {
    set_throw(nullptr);
    EXPECT_EXIT(SQLExtProcDirectAllocMemory(&context_, 8), testing::KilledBySignal(SIGABRT),
                "epa_usr_util:[0-9]+: Assertion fail with condition "
                "'alloc->desc->func_throw != NULL'");
}

// --- errors --------------------------------------------------------------------------------------

TEST_F(EpaUsrUtil, ZeroAndNegativeCodesDoNothing) {
    for (const int code : {0, -1, -5, -20001, INT_MIN}) {
        EXPECT_EQ(raise(code), 0) << code;
        EXPECT_EQ(raise(code, "text"), 0) << code;
    }
    EXPECT_EQ(stack_.count, 0);
}

TEST_F(EpaUsrUtil, OwnCodeWithoutTextIsRaisedWithAnEmptyOne) {
    EXPECT_EQ(raise(20001), -20001);
    ASSERT_EQ(stack_.count, 1);
    EXPECT_EQ(top()->code, -20001);
    EXPECT_STREQ(top()->complete_desc, " .   ");
    EXPECT_STREQ(top()->sqlstate, "ERRPS");
    EXPECT_STREQ(top()->file, "epa_usr_util");
    EXPECT_STREQ(top()->func, "SQLExtProcDirectRaiseError");
}

TEST_F(EpaUsrUtil, OwnCodeIsRaisedWithItsText) {
    EXPECT_EQ(raise(20500, "the text"), -20500);
    EXPECT_STREQ(top()->complete_desc, " the text.   ");
    EXPECT_STREQ(top()->func, "SQLExtProcDirectRaiseErrorWithMsg");
}

TEST_F(EpaUsrUtil, OwnCodesAreTwentyThousandToTwentyThousandNineHundredNinetyNine) {
    EXPECT_EQ(raise(19999, "x"), ERROR_EPA_INVALID_ERROR_CODE);
    EXPECT_EQ(raise(20000, "x"), -20000);
    EXPECT_EQ(raise(20999, "x"), -20999);
    EXPECT_EQ(raise(21000, "x"), ERROR_EPA_INVALID_ERROR_CODE);
}

TEST_F(EpaUsrUtil, KnownCodeIsRaisedWithTheTextOfTheCatalogue) {
    EXPECT_EQ(raise(140006, "not used"), ERROR_EPA_FAIL);
    EXPECT_STREQ(top()->complete_desc, " Unexpected external procedure failed.   ");
    EXPECT_EQ(raise(640007), ERROR_EPA_INVALID_PARAMETER_INFO);
    EXPECT_EQ(top()->is_usrerr, 0);
    EXPECT_EQ(stack_.count, 2);
}

TEST_F(EpaUsrUtil, EveryKnownCodeCanBeRaised) {
    // Whatever values a text wants to be filled with: a routine has none to give.
    int known = 0;
    for (int code = 1; code < 700000; code++) {
        if ((code >= 20000 && code <= 20999) || !zd_err_info_exist(-code))
            continue;
        known++;
        ASSERT_EQ(raise(code), -code);
        zd_err_stack_clear(&stack_);
    }
    EXPECT_GT(known, 20); // the loop did find them
}

TEST_F(EpaUsrUtil, UnknownCodeIsRaisedByItsNumber) {
    for (const int code : {1, 999999, 140001, INT_MAX}) {
        EXPECT_EQ(raise(code, "not used"), ERROR_EPA_INVALID_ERROR_CODE);
        EXPECT_EQ(std::string(top()->complete_desc),
                  " Invalid error code - " + std::to_string(code) + ".   ");
    }
}

} // namespace
