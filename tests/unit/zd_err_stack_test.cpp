#include "common/zd_err_stack.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <memory>
#include <string>

#include "support/captured_stream.h"
#include "support/test_allocator.h"

namespace {

constexpr zd_src_pos_t kSpan = {{1, 2, 3}, {-4, 5, 0x01020304}};

std::string assertion(const char *condition, int line) {
    return "^zd_err_stack:" + std::to_string(line) + ": Assertion fail with condition '" +
           condition + "' ";
}

std::string unpinned_assertion(const char *condition) {
    return std::string("^zd_err_stack:[0-9]+: Assertion fail with condition '") + condition + "' ";
}

class ErrStack : public testing::Test {
  protected:
    ErrStack() { zd_err_stack_init(&stack_, alloc_.get()); }
    ~ErrStack() override {
        zd_err_stack_clear(&stack_);
        EXPECT_EQ(alloc_.live_blocks(), 0);
    }

    zd_err_inst_t *make(ec_t ec, const char *message = "message") {
        const zd_err_args_t args = {ec, 17, 99, &kSpan, "epa_msg", 321, "epa_recv_msg"};
        return zd_err_inst_new(alloc_.get(), &args, zd_get_err_info_for_zderr(ec), message);
    }
    zd_err_inst_t *push(ec_t ec, const char *message = "message") {
        zd_err_inst_t *const errinst = make(ec, message);
        zd_err_stack_push(&stack_, errinst);
        return errinst;
    }

    TestAllocator alloc_;
    zd_err_stack_t stack_;
};

TEST_F(ErrStack, InitialisedStackIsEmpty) {
    zd_err_stack_t stack;
    memset(&stack, 0x5a, sizeof stack);
    zd_err_stack_init(&stack, alloc_.get());
    EXPECT_EQ(stack.alloc, alloc_.get());
    EXPECT_EQ(stack.count, 0);
    EXPECT_EQ(stack.usrcount, 0);
    EXPECT_EQ(stack.id_next, 0);
    EXPECT_EQ(stack.top, nullptr);
}

TEST_F(ErrStack, PushLinksNumbersAndCounts) {
    zd_err_inst_t *const below = push(-140002);
    zd_err_inst_t *const above = push(-140006);
    EXPECT_EQ(stack_.top, above);
    EXPECT_EQ(above->next, below);
    EXPECT_EQ(below->next, nullptr);
    EXPECT_EQ(below->id, 0);
    EXPECT_EQ(above->id, 1);
    EXPECT_EQ(stack_.id_next, 2);
    EXPECT_EQ(stack_.count, 2);
    EXPECT_EQ(stack_.usrcount, 2);
}

TEST_F(ErrStack, InternalConditionsAreNotCountedAsUserErrors) {
    push(-502128);
    EXPECT_EQ(stack_.count, 1);
    EXPECT_EQ(stack_.usrcount, 0);
    zd_err_inst_destroy(zd_err_stack_pop(&stack_), alloc_.get());
    EXPECT_EQ(stack_.count, 0);
    EXPECT_EQ(stack_.usrcount, 0);
}

TEST_F(ErrStack, PopGivesTheTopAway) {
    push(-140002);
    zd_err_inst_t *const above = push(-140006);
    EXPECT_EQ(zd_err_stack_pop(&stack_), above);
    EXPECT_EQ(above->next, nullptr) << "nothing of the stack goes with it";
    EXPECT_EQ(stack_.count, 1);
    EXPECT_EQ(stack_.usrcount, 1);
    EXPECT_EQ(stack_.id_next, 2) << "numbering goes on";
    EXPECT_EQ(zd_err_stack_peek_code(&stack_), -140002);
    zd_err_inst_destroy(above, alloc_.get());
}

TEST_F(ErrStack, PopOfAnEmptyStackIsNull) {
    EXPECT_EQ(zd_err_stack_pop(&stack_), nullptr);
    EXPECT_EQ(stack_.count, 0);
}

TEST_F(ErrStack, ClearDestroysAllAndKeepsTheNumbering) {
    push(-140002);
    push(-502128);
    zd_err_stack_clear(&stack_);
    EXPECT_EQ(alloc_.live_blocks(), 0);
    EXPECT_EQ(stack_.top, nullptr);
    EXPECT_EQ(stack_.count, 0);
    EXPECT_EQ(stack_.usrcount, 0);
    EXPECT_EQ(stack_.id_next, 2);
}

TEST_F(ErrStack, ClearLeavesNoCountHoweverWrongItWas) {
    push(-140002);
    stack_.count = 5;
    stack_.usrcount = 7;
    zd_err_stack_clear(&stack_);
    EXPECT_EQ(stack_.count, 0);
    EXPECT_EQ(stack_.usrcount, 0);
}

TEST_F(ErrStack, ClearToAnIdUndoesWhatWasPushedSince) {
    push(-140002);
    push(-502128);
    const int mark = stack_.id_next;
    push(-140006);
    push(-640001);
    zd_err_stack_clear_to_id(&stack_, mark);
    EXPECT_EQ(alloc_.live_blocks(), 2);
    EXPECT_EQ(stack_.count, 2);
    EXPECT_EQ(stack_.usrcount, 1);
    EXPECT_EQ(stack_.id_next, 4);
    EXPECT_EQ(zd_err_stack_peek_code(&stack_), -502128);
}

TEST_F(ErrStack, ClearToAnIdStopsAtTheFirstOlderInstance) {
    push(-140002)->id = 9;
    push(-140006)->id = 3;
    push(-140005)->id = 8;
    zd_err_stack_clear_to_id(&stack_, 5);
    EXPECT_EQ(stack_.count, 2);
    EXPECT_EQ(zd_err_stack_peek_code(&stack_), -140006);
}

TEST_F(ErrStack, ClearToAnIdAheadOfAllChangesNothing) {
    push(-140002);
    zd_err_stack_clear_to_id(&stack_, stack_.id_next);
    EXPECT_EQ(stack_.count, 1);
    zd_err_stack_clear_to_id(&stack_, 0);
    EXPECT_EQ(stack_.count, 0);
    zd_err_stack_clear_to_id(&stack_, 0);
    EXPECT_EQ(stack_.count, 0);
}

TEST_F(ErrStack, GetCountsFromTheTop) {
    zd_err_inst_t *const bottom = push(-140002);
    zd_err_inst_t *const middle = push(-140005);
    zd_err_inst_t *const top = push(-140006);
    EXPECT_EQ(zd_err_stack_get(&stack_, 0), top);
    EXPECT_EQ(zd_err_stack_get(&stack_, 1), middle);
    EXPECT_EQ(zd_err_stack_get(&stack_, 2), bottom);
}

TEST_F(ErrStack, GetOutsideTheStackIsNull) {
    EXPECT_EQ(zd_err_stack_get(&stack_, 0), nullptr);
    push(-140002);
    EXPECT_EQ(zd_err_stack_get(&stack_, -1), nullptr);
    EXPECT_EQ(zd_err_stack_get(&stack_, 1), nullptr);
}

TEST_F(ErrStack, PeekIsTheTopCodeOrNone) {
    EXPECT_EQ(zd_err_stack_peek_code(&stack_), 0);
    push(-140002);
    push(-140006);
    EXPECT_EQ(zd_err_stack_peek_code(&stack_), -140006);
}

TEST_F(ErrStack, EmptyStackMatchesNoErrorAlone) {
    EXPECT_TRUE(zd_err_stack_match(&stack_, 0, 1, 2));
    EXPECT_FALSE(zd_err_stack_match(&stack_, -140006, 0, 0));
}

TEST_F(ErrStack, AnswerToAMatchIsAByteOfOneOrZero) {
    const uchar yes{zd_err_stack_match(&stack_, 0, 0, 0)}; // braces refuse a wider answer
    const uchar no{zd_err_stack_match(&stack_, -140006, 0, 0)};
    EXPECT_EQ(yes, 1);
    EXPECT_EQ(no, 0);
}

TEST_F(ErrStack, MatchAsksTheTop) {
    push(-140002);
    push(-15086);
    EXPECT_TRUE(zd_err_stack_match(&stack_, -15086, 99, 17));
    EXPECT_FALSE(zd_err_stack_match(&stack_, -15086, 99, 16));
    EXPECT_FALSE(zd_err_stack_match(&stack_, -140002, 99, 17));
    EXPECT_FALSE(zd_err_stack_match(&stack_, 0, 99, 17));
}

class ErrStackCopy : public ErrStack {
  protected:
    ErrStackCopy() { zd_err_stack_init(&target_, target_alloc_.get()); }
    ~ErrStackCopy() override {
        zd_err_stack_clear(&target_);
        EXPECT_EQ(target_alloc_.live_blocks(), 0);
    }

    TestAllocator target_alloc_;
    zd_err_stack_t target_;
};

TEST_F(ErrStackCopy, MovesTheTopErrorWithoutItsSpan) {
    push(-140002);
    zd_err_inst_t *const popped = push(-140006, "moved");
    popped->obj_id_occurred = 8;
    target_.id_next = 40;
    zd_err_stack_copy(&target_, &stack_);
    ASSERT_EQ(target_.count, 1);
    const zd_err_inst_t *const moved = target_.top;
    EXPECT_NE(moved, popped);
    EXPECT_EQ(moved->id, 40);
    EXPECT_EQ(moved->code, -140006);
    EXPECT_EQ(moved->obj_id, 99u);
    EXPECT_EQ(moved->err_num, 17u);
    EXPECT_STREQ(moved->sqlstate, "ERREP");
    EXPECT_STREQ(moved->complete_desc, "moved");
    EXPECT_EQ(moved->obj_id_occurred, 0xFFFFFFFFu);
    EXPECT_EQ(memcmp(&moved->src_pos, &_zd_src_pos_null, sizeof moved->src_pos), 0);
    EXPECT_STREQ(moved->file, "epa_msg");
    EXPECT_EQ(moved->line, 321);
    EXPECT_STREQ(moved->func, "epa_recv_msg");
    zd_err_inst_destroy(popped, alloc_.get());
}

TEST_F(ErrStackCopy, OnlyOneErrorMovesAndItsInstanceLives) {
    push(-140002);
    zd_err_inst_t *const popped = push(-140006);
    zd_err_stack_copy(&target_, &stack_);
    EXPECT_EQ(stack_.count, 1);
    EXPECT_EQ(stack_.usrcount, 1);
    EXPECT_EQ(zd_err_stack_peek_code(&stack_), -140002);
    EXPECT_EQ(alloc_.live_blocks(), 2) << "the popped one is not destroyed";
    EXPECT_EQ(target_alloc_.live_blocks(), 1);
    zd_err_inst_destroy(popped, alloc_.get());
}

TEST_F(ErrStackCopy, WhoseErrorItIsFollowsFromTheCode) {
    zd_err_inst_t *const popped = push(-140006);
    popped->is_usrerr = 0;
    stack_.usrcount = 0;
    zd_err_stack_copy(&target_, &stack_);
    EXPECT_EQ(target_.top->is_usrerr, 1);
    EXPECT_EQ(target_.usrcount, 1);
    zd_err_inst_destroy(popped, alloc_.get());
}

TEST_F(ErrStack, DumpFramesTheInstancesFromTheTop) {
    push(-140002, "below");
    push(-502128, "above");
    const CapturedStream stream;
    zd_err_stack_dump(stream.get(), &stack_);
    EXPECT_EQ(stream.text(), "error stack dump ===================\n"
                             "count = 2\n"
                             "usrcount = 1\n"
                             "code = -502128 (ERROR_CLI_NEED_MORE_FETCH_NEXT)\n"
                             "is_usrerr = 0\n"
                             "(desc = \"above\")\n"
                             "first line = 1, first col = 2\n"
                             "last line = -4, last col = 5\n"
                             "file = <epa_msg>\n"
                             "line = 321\n"
                             "func = <epa_recv_msg>\n"
                             "-------------------------------\n"
                             "code = -140002 (ERROR_EPA_INVALID_PROTOCOL)\n"
                             "is_usrerr = 1\n"
                             "(desc = \"below\")\n"
                             "first line = 1, first col = 2\n"
                             "last line = -4, last col = 5\n"
                             "file = <epa_msg>\n"
                             "line = 321\n"
                             "func = <epa_recv_msg>\n"
                             "-------------------------------\n"
                             "====================================\n");
}

// A serialized stack written down by hand.
class Wire {
  public:
    Wire(int records, int id_next, int count, int usrcount)
        : bytes_(static_cast<size_t>(16 + 936 * records), '\0') {
        word(0, id_next).word(4, count).word(8, usrcount);
    }

    Wire &word(size_t offset, int64_t value) {
        for (size_t i = 0; i < 4; i++)
            bytes_[offset + i] = static_cast<char>(value >> (24 - 8 * i));
        return *this;
    }
    Wire &text(size_t offset, const std::string &text) {
        bytes_.replace(offset, text.size(), text);
        return *this;
    }
    // What ErrStack::push makes, as the index-th record.
    Wire &record(size_t index, int id, int code, char is_usrerr, const char *sqlstate,
                 const std::string &message) {
        const size_t at = 16 + 936 * index;
        word(at + 8, id).word(at + 12, code).word(at + 16, 99).word(at + 20, 17);
        bytes_[at + 24] = is_usrerr;
        text(at + 25, sqlstate).text(at + 31, message).word(at + 744, 0xFFFFFFFF);
        word(at + 748, 1).word(at + 752, 2).word(at + 756, 3);
        word(at + 760, -4).word(at + 764, 5).word(at + 768, 0x01020304);
        return text(at + 772, "epa_msg").word(at + 852, 321).text(at + 856, "epa_recv_msg");
    }

    const std::string &bytes() const { return bytes_; }

  private:
    std::string bytes_;
};

class ErrStackWire : public ErrStack {
  protected:
    std::string serialize(uchar usrerr_only = 0) {
        void *buf = nullptr;
        unsigned int len = 0;
        zd_err_stack_serialize(&stack_, usrerr_only, alloc_.get(), &buf, &len);
        EXPECT_EQ(alloc_.last_size(), len);
        const std::string bytes(static_cast<const char *>(buf), len);
        zd_free(alloc_.get(), buf, "test", 0);
        return bytes;
    }
    // Exactly as long as it has to be, so that the sanitizer sees a read beyond.
    void deserialize(const std::string &bytes, uchar usrerr_only = 0) {
        zd_err_stack_clear(&stack_);
        const std::unique_ptr<char[]> buffer(new char[bytes.size()]);
        memcpy(buffer.get(), bytes.data(), bytes.size());
        zd_err_stack_deserialize(buffer.get(), static_cast<unsigned int>(bytes.size()),
                                 alloc_.get(), usrerr_only, &stack_);
    }

    void expect_bytes(const std::string &actual, const Wire &expected) {
        ASSERT_EQ(actual.size(), expected.bytes().size());
        for (size_t i = 0; i < actual.size(); i++)
            ASSERT_EQ(actual[i], expected.bytes()[i])
                << "byte " << i << ", record " << (i < 16 ? 0 : (i - 16) / 936) << " + "
                << (i < 16 ? 0 : (i - 16) % 936);
    }
};

TEST_F(ErrStackWire, EmptyStackIsItsHeader) {
    stack_.id_next = 0x01020304;
    expect_bytes(serialize(), Wire(0, 0x01020304, 0, 0));
}

TEST_F(ErrStackWire, RecordsGoFromTheTopDownInNetworkByteOrder) {
    push(-140002, "first");
    push(-502128, "second");
    push(-15086, "third");
    expect_bytes(serialize(), Wire(3, 3, 3, 2)
                                  .record(0, 2, -15086, '1', "ERRPS", "third")
                                  .record(1, 1, -502128, '0', "", "second")
                                  .record(2, 0, -140002, '1', "ERREP", "first"));
}

TEST_F(ErrStackWire, BytesAreAllocatedUnderTheUnitsName) {
    void *buf;
    unsigned int len;
    zd_err_stack_serialize(&stack_, 0, alloc_.get(), &buf, &len);
    EXPECT_STREQ(alloc_.last_file(), "zd_err_stack");
    EXPECT_GT(alloc_.last_line(), 0);
    zd_free(alloc_.get(), buf, "test", 0);
}

TEST_F(ErrStackWire, ThreeErrorsMakeTwoThousandEightHundredTwentyFourBytes) {
    push(-140002);
    push(-140002);
    push(-140002);
    EXPECT_EQ(serialize().size(), 2824u);
}

TEST_F(ErrStackWire, LongTextsTravelWhole) {
    const std::string message(711, 'm');
    push(-140002, message.c_str());
    expect_bytes(serialize(), Wire(1, 1, 1, 1).record(0, 0, -140002, '1', "ERREP", message));
}

TEST_F(ErrStackWire, UserErrorsAlonePackAndLeaveTheRestZero) {
    push(-140002, "first");
    push(-502128, "second");
    push(-15086, "third");
    expect_bytes(serialize(1), Wire(3, 3, 3, 2)
                                   .record(0, 2, -15086, '1', "ERRPS", "third")
                                   .record(1, 0, -140002, '1', "ERREP", "first"));
}

TEST_F(ErrStackWire, ExhaustionIsTheAllocatorsThrow) {
    alloc_.refuse(true);
    void *buf;
    unsigned int len;
    EXPECT_EQ(client_try([&] { zd_err_stack_serialize(&stack_, 0, alloc_.get(), &buf, &len); }),
              -3003);
    alloc_.refuse(false);
}

TEST_F(ErrStackWire, WhatTheStackHeldBeforeIsNotLookedAt) {
    memset(&stack_, 0x5a, sizeof stack_);
    const Wire wire = Wire(1, 4, 1, 1).record(0, 0, -140002, '1', "ERREP", "message");
    zd_err_stack_deserialize(wire.bytes().data(), 952, alloc_.get(), 0, &stack_);
    EXPECT_EQ(stack_.alloc, alloc_.get());
    EXPECT_EQ(stack_.count, 1);
    EXPECT_EQ(stack_.usrcount, 1);
    ASSERT_NE(stack_.top, nullptr);
    EXPECT_EQ(stack_.top->next, nullptr);
    EXPECT_EQ(stack_.top->id, 4);
    EXPECT_EQ(stack_.id_next, 5);
}

TEST_F(ErrStackWire, SendersTopEndsOnTop) {
    deserialize(Wire(3, 3, 3, 2)
                    .record(0, 2, -15086, '1', "ERRPS", "third")
                    .record(1, 1, -502128, '0', "ERRCL", "second")
                    .record(2, 0, -140002, '1', "ERREP", "first")
                    .bytes());
    ASSERT_EQ(stack_.count, 3);
    EXPECT_EQ(stack_.usrcount, 2);
    EXPECT_STREQ(zd_err_stack_get(&stack_, 0)->complete_desc, "third");
    EXPECT_STREQ(zd_err_stack_get(&stack_, 1)->complete_desc, "second");
    EXPECT_STREQ(zd_err_stack_get(&stack_, 2)->complete_desc, "first");
    EXPECT_EQ(zd_err_stack_get(&stack_, 0)->code, -15086);
    EXPECT_EQ(zd_err_stack_get(&stack_, 1)->is_usrerr, 0);
}

TEST_F(ErrStackWire, EveryFieldComesBack) {
    deserialize(Wire(1, 1, 1, 1)
                    .record(0, 0, -140002, '1', "ABCDE", "message")
                    .word(16 + 744, 0x0A0B0C0D)
                    .bytes());
    ASSERT_NE(stack_.top, nullptr);
    const zd_err_inst_t *const errinst = stack_.top;
    EXPECT_EQ(errinst->next, nullptr);
    EXPECT_EQ(errinst->code, -140002);
    EXPECT_EQ(errinst->obj_id, 99u);
    EXPECT_EQ(errinst->err_num, 17u);
    EXPECT_EQ(errinst->is_usrerr, 1);
    EXPECT_STREQ(errinst->sqlstate, "ABCDE") << "the sender's, not the catalogue's";
    EXPECT_STREQ(errinst->complete_desc, "message");
    EXPECT_EQ(errinst->obj_id_occurred, 0x0A0B0C0Du);
    EXPECT_EQ(memcmp(&errinst->src_pos, &kSpan, sizeof kSpan), 0);
    EXPECT_STREQ(errinst->file, "epa_msg");
    EXPECT_EQ(errinst->line, 321);
    EXPECT_STREQ(errinst->func, "epa_recv_msg");
    EXPECT_EQ(stack_.alloc, alloc_.get());
}

TEST_F(ErrStackWire, InstancesAreNumberedAnewFromTheOldestUp) {
    deserialize(Wire(2, 40, 2, 2)
                    .record(0, 7, -15086, '1', "ERRPS", "top")
                    .record(1, 3, -140002, '1', "ERREP", "bottom")
                    .bytes());
    EXPECT_EQ(zd_err_stack_get(&stack_, 1)->id, 40);
    EXPECT_EQ(zd_err_stack_get(&stack_, 0)->id, 41);
    EXPECT_EQ(stack_.id_next, 42);
}

TEST_F(ErrStackWire, NumberingGoesRoundAtTheLastNumber) {
    deserialize(Wire(2, INT_MAX, 2, 2)
                    .record(0, 7, -15086, '1', "ERRPS", "top")
                    .record(1, 3, -140002, '1', "ERREP", "bottom")
                    .bytes());
    EXPECT_EQ(zd_err_stack_get(&stack_, 1)->id, INT_MAX);
    EXPECT_EQ(zd_err_stack_get(&stack_, 0)->id, INT_MIN);
}

TEST_F(ErrStackWire, FlagOfARecordIsBelievedAndOnlyOneMeansUser) {
    deserialize(Wire(3, 3, 3, 0)
                    .record(0, 2, -140002, '0', "ERREP", "top")
                    .record(1, 1, -502128, '1', "ERRCL", "middle")
                    .record(2, 0, -140002, 1, "ERREP", "bottom")
                    .bytes());
    EXPECT_EQ(zd_err_stack_get(&stack_, 0)->is_usrerr, 0);
    EXPECT_EQ(zd_err_stack_get(&stack_, 1)->is_usrerr, 1);
    EXPECT_EQ(zd_err_stack_get(&stack_, 2)->is_usrerr, 0);
    EXPECT_EQ(stack_.usrcount, 1);
}

TEST_F(ErrStackWire, UnknownCodeIsNoReasonToRefuse) {
    deserialize(Wire(1, 1, 1, 1).record(0, 0, -499000, '1', "ERRXX", "new").bytes());
    EXPECT_EQ(zd_err_stack_peek_code(&stack_), -499000);
}

TEST_F(ErrStackWire, CountThatIsNotPositiveMakesAnEmptyStack) {
    deserialize(Wire(0, 12, 0, 0).bytes());
    EXPECT_EQ(stack_.count, 0);
    EXPECT_EQ(stack_.id_next, 12);
    deserialize(Wire(0, 12, -1, 3).bytes());
    EXPECT_EQ(stack_.count, 0);
    EXPECT_EQ(stack_.top, nullptr);
}

TEST_F(ErrStackWire, UserErrorsAloneAreAsManyAsTheirCount) {
    deserialize(Wire(3, 3, 3, 2)
                    .record(0, 2, -15086, '1', "ERRPS", "third")
                    .record(1, 0, -140002, '1', "ERREP", "first")
                    .bytes(),
                1);
    ASSERT_EQ(stack_.count, 2);
    EXPECT_EQ(stack_.usrcount, 2);
    EXPECT_STREQ(zd_err_stack_get(&stack_, 0)->complete_desc, "third");
    EXPECT_STREQ(zd_err_stack_get(&stack_, 1)->complete_desc, "first");
    EXPECT_EQ(stack_.id_next, 5);
}

TEST_F(ErrStackWire, LengthIsNotLookedAt) {
    const Wire wire = Wire(1, 1, 1, 1).record(0, 0, -140002, '1', "ERREP", "message");
    zd_err_stack_deserialize(wire.bytes().data(), 0, alloc_.get(), 0, &stack_);
    EXPECT_EQ(stack_.count, 1);
}

TEST_F(ErrStackWire, TextsWithoutEndAreCutAtTheirFields) {
    deserialize(Wire(1, 1, 1, 1)
                    .record(0, 0, -140002, '1', "SQLST!", std::string(712, 'm'))
                    .text(16 + 772, std::string(80, 'f'))
                    .text(16 + 856, std::string(80, 'g'))
                    .bytes());
    ASSERT_NE(stack_.top, nullptr);
    EXPECT_EQ(stack_.top->complete_desc, std::string(711, 'm'));
    EXPECT_EQ(stack_.top->file, std::string(79, 'f'));
    EXPECT_EQ(stack_.top->func, std::string(79, 'g'));
    EXPECT_EQ(memcmp(stack_.top->sqlstate, "SQLST!", 6), 0);
}

TEST_F(ErrStackWire, StackSurvivesTheJourney) {
    push(-140002, "first");
    push(-502128, "second");
    deserialize(serialize());
    EXPECT_EQ(serialize(), Wire(2, 4, 2, 1)
                               .record(0, 3, -502128, '0', "", "second")
                               .record(1, 2, -140002, '1', "ERREP", "first")
                               .bytes());
}

using ErrStackDeathTest = ErrStackWire;

TEST_F(ErrStackDeathTest, StackMustBeGiven) {
    EXPECT_EXIT(zd_err_stack_init(nullptr, alloc_.get()), testing::KilledBySignal(SIGABRT),
                assertion("errstack != NULL", 69));
    EXPECT_EXIT(zd_err_stack_clear(nullptr), testing::KilledBySignal(SIGABRT),
                assertion("errstack != NULL", 91));
    EXPECT_EXIT(zd_err_stack_clear_to_id(nullptr, 0), testing::KilledBySignal(SIGABRT),
                assertion("errstack != NULL", 128));
    EXPECT_EXIT(zd_err_stack_get(nullptr, 0), testing::KilledBySignal(SIGABRT),
                assertion("errstack != NULL", 227));
    EXPECT_EXIT(zd_err_stack_peek_code(nullptr), testing::KilledBySignal(SIGABRT),
                assertion("errstack != NULL", 254));
}

TEST_F(ErrStackDeathTest, StackMustBeGivenWhereNoLineIsFixed) {
    zd_err_inst_t errinst = {};
    void *buf;
    unsigned int len;
    EXPECT_EXIT(zd_err_stack_push(nullptr, &errinst), testing::KilledBySignal(SIGABRT),
                unpinned_assertion("errstack != NULL"));
    EXPECT_EXIT(zd_err_stack_pop(nullptr), testing::KilledBySignal(SIGABRT),
                unpinned_assertion("errstack != NULL"));
    EXPECT_EXIT(zd_err_stack_match(nullptr, 0, 0, 0), testing::KilledBySignal(SIGABRT),
                unpinned_assertion("errstack != NULL"));
    EXPECT_EXIT(zd_err_stack_copy(nullptr, &stack_), testing::KilledBySignal(SIGABRT),
                unpinned_assertion("target != NULL"));
    EXPECT_EXIT(zd_err_stack_copy(&stack_, nullptr), testing::KilledBySignal(SIGABRT),
                unpinned_assertion("errstack != NULL"));
    EXPECT_EXIT(zd_err_stack_dump(nullptr, nullptr), testing::KilledBySignal(SIGABRT),
                unpinned_assertion("errstack != NULL"));
    EXPECT_EXIT(zd_err_stack_serialize(nullptr, 0, alloc_.get(), &buf, &len),
                testing::KilledBySignal(SIGABRT), unpinned_assertion("errstack != NULL"));
}

TEST_F(ErrStackDeathTest, InstanceMustBeGiven) {
    EXPECT_EXIT(zd_err_stack_push(&stack_, nullptr), testing::KilledBySignal(SIGABRT),
                unpinned_assertion("errinst != NULL"));
}

TEST_F(ErrStackDeathTest, ListShorterThanItsCountIsCorrupt) {
    push(-140002);
    stack_.count = 3;
    EXPECT_EXIT(zd_err_stack_get(&stack_, 1), testing::KilledBySignal(SIGABRT),
                assertion("false", 239));
    EXPECT_EXIT(zd_err_stack_get(&stack_, 2), testing::KilledBySignal(SIGABRT),
                assertion("false", 239));
}

TEST_F(ErrStackDeathTest, ListLongerThanItsCountIsNotWritten) {
    push(-140002);
    stack_.count = 0;
    EXPECT_EXIT(serialize(), testing::KilledBySignal(SIGABRT),
                unpinned_assertion("record \\+ kRecordSize <= bytes \\+ size"));
}

TEST_F(ErrStackDeathTest, CopyNeedsAnError) {
    zd_err_stack_t target;
    zd_err_stack_init(&target, alloc_.get());
    EXPECT_EXIT(zd_err_stack_copy(&target, &stack_), testing::KilledBySignal(SIGABRT),
                assertion("errinst != NULL", 430));
}

TEST_F(ErrStackDeathTest, DeserializingNeedsBytesAndAStack) {
    const std::string header(16, '\0');
    EXPECT_EXIT(zd_err_stack_deserialize(nullptr, 16, alloc_.get(), 0, &stack_),
                testing::KilledBySignal(SIGABRT),
                assertion("buf != NULL && errstack != NULL", 357));
    EXPECT_EXIT(zd_err_stack_deserialize(header.data(), 16, alloc_.get(), 0, nullptr),
                testing::KilledBySignal(SIGABRT),
                assertion("buf != NULL && errstack != NULL", 357));
}

TEST_F(ErrStackDeathTest, UserErrorsAloneMustBeUserErrors) {
    const Wire wire = Wire(1, 1, 1, 1).record(0, 0, -502128, '0', "ERRCL", "internal");
    EXPECT_EXIT(deserialize(wire.bytes(), 1), testing::KilledBySignal(SIGABRT),
                assertion("errinst->is_usrerr", 412));
}

} // namespace
