#include "common/zd_err.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <string>

#include "support/test_allocator.h"

namespace {

class Err : public testing::Test {
  protected:
    Err() { zd_err_stack_init(&stack_, alloc_.get()); }
    ~Err() override {
        zd_err_stack_clear(&stack_);
        EXPECT_EQ(alloc_.live_blocks(), 0);
    }

    template <class... A>
    ec_t raise(ec_t ec, A... args) {
        return zd_err_internal_va(&stack_, "epa_msg", 321, "epa_recv_msg", ec, args...);
    }
    const zd_err_inst_t &top() const { return *stack_.top; }

    TestAllocator alloc_;
    zd_err_stack_t stack_;
};

TEST_F(Err, RaisedErrorIsTheRowAndTheRaiseSite) {
    EXPECT_EQ(raise(-140002), -140002);
    ASSERT_EQ(stack_.count, 1);
    EXPECT_EQ(top().code, -140002);
    EXPECT_EQ(top().id, 0);
    EXPECT_EQ(top().obj_id, 0u);
    EXPECT_EQ(top().err_num, 0u);
    EXPECT_EQ(top().is_usrerr, 1);
    EXPECT_STREQ(top().sqlstate, "ERREP");
    EXPECT_STREQ(top().complete_desc, " Invalid protocol.   ");
    EXPECT_EQ(top().obj_id_occurred, 0xFFFFFFFFu);
    EXPECT_EQ(memcmp(&top().src_pos, &_zd_src_pos_null, sizeof top().src_pos), 0);
    EXPECT_STREQ(top().file, "epa_msg");
    EXPECT_EQ(top().line, 321);
    EXPECT_STREQ(top().func, "epa_recv_msg");
}

TEST_F(Err, ArgumentsAreTakenByPosition) {
    raise(-140004, "libx.so", "no such file");
    EXPECT_STREQ(top().complete_desc, " Failed to open library ('libx.so') - no such file.   ");
    raise(-18007, "denied", "/a/b");
    EXPECT_STREQ(top().complete_desc, " mkdir('/a/b') failed -- denied.   ");
    raise(-220015, "/a", 13, "why");
    EXPECT_STREQ(top().complete_desc, "Failure to create directory: /a (13:why)\n");
    raise(-140010, 4294967295u);
    EXPECT_STREQ(top().complete_desc, " Invalid error code - 4294967295.   ");
}

TEST_F(Err, UsersCodeKeepsItsNumber) {
    EXPECT_EQ(raise(-20500, "salary too high"), -20500);
    EXPECT_EQ(top().code, -20500);
    EXPECT_STREQ(top().complete_desc, " salary too high.   ");
    EXPECT_STREQ(top().sqlstate, "ERRPS");
    EXPECT_EQ(top().is_usrerr, 1);
    EXPECT_EQ(stack_.usrcount, 1);
}

TEST_F(Err, UserRangeIsClosedAtBothEnds) {
    raise(-20000, "first");
    EXPECT_EQ(top().code, -20000);
    EXPECT_STREQ(top().complete_desc, " first.   ");
    raise(-20999, "last");
    EXPECT_EQ(top().code, -20999);
    raise(-20001, "one that has a row of its own");
    EXPECT_EQ(top().code, -20001);
    EXPECT_STREQ(top().complete_desc, " one that has a row of its own.   ");
}

TEST_F(Err, InternalConditionLeavesTheUserCountAlone) {
    raise(-502128);
    EXPECT_EQ(top().is_usrerr, 0);
    EXPECT_EQ(stack_.count, 1);
    EXPECT_EQ(stack_.usrcount, 0);
}

TEST_F(Err, MessageOfSevenHundredElevenCharactersIsWhole) {
    const std::string text(711 - strlen(" .   "), 'm');
    raise(-15116, text.c_str());
    EXPECT_EQ(top().complete_desc, " " + text + ".   ");
}

TEST_F(Err, LongerMessageIsCut) {
    const std::string text(1000, 'm');
    raise(-15116, text.c_str());
    EXPECT_EQ(top().complete_desc, " " + std::string(710, 'm'));
}

TEST_F(Err, RowWithoutTemplateHasAnEmptyMessage) {
    raise(INT_MIN);
    EXPECT_EQ(std::string(top().complete_desc, 712), std::string(712, '\0'));
}

TEST_F(Err, ErrorsPileUp) {
    raise(-140002);
    raise(-140006);
    EXPECT_EQ(stack_.count, 2);
    EXPECT_EQ(top().code, -140006);
    EXPECT_EQ(top().next->code, -140002);
}

void raise_args(zd_err_stack_t *stack, const zd_err_args_t *args, ...) {
    va_list list;
    va_start(list, args);
    zd_err_internal(stack, args, list);
    va_end(list);
}

TEST_F(Err, ArgumentsCarryObjectNumberAndSpan) {
    const zd_src_pos_t span = {{1, 2, 3}, {4, 5, 6}};
    const zd_err_args_t args = {-140005, 5, 77, &span, "psm", 12, "run"};
    raise_args(&stack_, &args, "fn");
    EXPECT_EQ(top().code, -140005);
    EXPECT_STREQ(top().complete_desc, " Invalid function name ('fn').   ");
    EXPECT_EQ(top().err_num, 5u);
    EXPECT_EQ(top().obj_id, 77u);
    EXPECT_EQ(memcmp(&top().src_pos, &span, sizeof span), 0);
    EXPECT_STREQ(top().file, "psm");
    EXPECT_EQ(top().line, 12);
    EXPECT_STREQ(top().func, "run");
}

ec_t raise_list(zd_err_stack_t *stack, ec_t ec, ...) {
    va_list list;
    va_start(list, ec);
    const ec_t raised = zd_err_internal_valist(stack, "unit", 5, "function", ec, list);
    va_end(list);
    return raised;
}

TEST_F(Err, ListOfArgumentsServesAsWell) {
    EXPECT_EQ(raise_list(&stack_, -140009, "f", "why"), -140009);
    EXPECT_STREQ(top().complete_desc, " Function ('f') call failed - why.   ");
    EXPECT_STREQ(top().file, "unit");
    EXPECT_EQ(top().line, 5);
    EXPECT_STREQ(top().func, "function");
    EXPECT_EQ(top().obj_id, 0u);
    EXPECT_EQ(memcmp(&top().src_pos, &_zd_src_pos_null, sizeof top().src_pos), 0);
}

TEST_F(Err, NoErrorEmptiesAStackOfInternalConditions) {
    raise(-502128);
    raise(-640001);
    EXPECT_EQ(raise(0), 0);
    EXPECT_EQ(stack_.count, 0);
    EXPECT_EQ(stack_.top, nullptr);
    EXPECT_EQ(stack_.id_next, 2);
}

TEST_F(Err, NoErrorOnAnEmptyStackChangesNothing) {
    EXPECT_EQ(raise(0), 0);
    EXPECT_EQ(stack_.count, 0);
}

TEST_F(Err, ClearEmptiesAStackOfInternalConditions) {
    raise(-502128);
    zd_err_clear(&stack_);
    EXPECT_EQ(stack_.count, 0);
}

TEST_F(Err, PushAndThrowDoesBoth) {
    const ec_t thrown = client_try(
        [&] { zd_push_and_throw(&stack_, "epa_msg", 321, "epa_recv_msg", -140005, "fn"); });
    EXPECT_EQ(thrown, -140005);
    ASSERT_EQ(stack_.count, 1);
    EXPECT_STREQ(top().complete_desc, " Invalid function name ('fn').   ");
    EXPECT_EQ(top().line, 321);
}

TEST_F(Err, ExhaustionIsThrownInTheErrorsPlace) {
    alloc_.refuse(true);
    EXPECT_EQ(client_try([&] { raise(-140006); }), -3003);
    EXPECT_EQ(stack_.count, 0);
    alloc_.refuse(false);
}

using ErrDeathTest = Err;

TEST_F(ErrDeathTest, UserErrorsCannotBeClearedAway) {
    raise(-140006);
    raise(-502128);
    const char *const report =
        "^zd_err:62: Assertion fail with condition 'errstack->usrcount == 0' ";
    EXPECT_EXIT(zd_err_clear(&stack_), testing::KilledBySignal(SIGABRT), report);
    EXPECT_EXIT(raise(0), testing::KilledBySignal(SIGABRT), report);
}

TEST_F(ErrDeathTest, UnknownCodeIsAnAssertion) {
    EXPECT_EXIT(raise(-140007), testing::KilledBySignal(SIGABRT),
                "^zd_err_info:102: Assertion fail with condition 'false' ");
    EXPECT_EXIT(raise(7), testing::KilledBySignal(SIGABRT),
                "^zd_err_info:102: Assertion fail with condition 'false' ");
}

TEST_F(ErrDeathTest, StackMustBeGiven) {
    EXPECT_EXIT(zd_err_internal_va(nullptr, "unit", 1, "f", -140006),
                testing::KilledBySignal(SIGABRT),
                "^zd_err:[0-9]+: Assertion fail with condition 'errstack != NULL' ");
    EXPECT_EXIT(zd_err_clear(nullptr), testing::KilledBySignal(SIGABRT),
                "^zd_err:[0-9]+: Assertion fail with condition 'errstack != NULL' ");
}

} // namespace
