#include "common/zd_err_inst.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include "support/captured_stream.h"
#include "support/test_allocator.h"

namespace {

constexpr zd_src_pos_t kSpan = {{1, 2, 3}, {4, 5, 6}};

zd_err_args_t args_of(ec_t ec) {
    return {ec, 17, 99, &kSpan, "epa_msg", 321, "epa_recv_msg"};
}

class ErrInst : public testing::Test {
  protected:
    // Owned by the fixture.
    zd_err_inst_t *make(ec_t ec, const char *message = "message",
                        const zd_err_info_t *info = nullptr) {
        const zd_err_args_t args = args_of(ec);
        return keep(zd_err_inst_new(alloc_.get(), &args, info, message));
    }
    zd_err_inst_t *keep(zd_err_inst_t *errinst) {
        kept_.push_back(errinst);
        return errinst;
    }
    void TearDown() override {
        for (zd_err_inst_t *errinst : kept_)
            zd_err_inst_destroy(errinst, alloc_.get());
        EXPECT_EQ(alloc_.live_blocks(), 0);
    }

    TestAllocator alloc_;

  private:
    std::vector<zd_err_inst_t *> kept_;
};

TEST_F(ErrInst, NewInstanceTakesEverythingFromItsArguments) {
    const zd_err_inst_t *const errinst = make(-140006, " a message");
    EXPECT_EQ(errinst->next, nullptr);
    EXPECT_EQ(errinst->id, -1);
    EXPECT_EQ(errinst->code, -140006);
    EXPECT_EQ(errinst->obj_id, 99u);
    EXPECT_EQ(errinst->err_num, 17u);
    EXPECT_EQ(errinst->is_usrerr, 1);
    EXPECT_STREQ(errinst->complete_desc, " a message");
    EXPECT_EQ(errinst->obj_id_occurred, 0xFFFFFFFFu);
    EXPECT_EQ(memcmp(&errinst->src_pos, &kSpan, sizeof kSpan), 0);
    EXPECT_STREQ(errinst->file, "epa_msg");
    EXPECT_EQ(errinst->line, 321);
    EXPECT_STREQ(errinst->func, "epa_recv_msg");
}

TEST_F(ErrInst, SqlstateWithoutARowIsZero) {
    const zd_err_inst_t *const errinst = make(-140006);
    EXPECT_EQ(memcmp(errinst->sqlstate, "\0\0\0\0\0\0", 6), 0);
}

TEST_F(ErrInst, RowOverridesTheCodeAndGivesTheSqlstate) {
    const zd_err_inst_t *const errinst = make(-1, "m", zd_get_err_info(-3003));
    EXPECT_EQ(errinst->code, -3003);
    EXPECT_STREQ(errinst->sqlstate, "82100");
}

TEST_F(ErrInst, RowsCodeDecidesWhoseErrorItIs) {
    EXPECT_EQ(make(-3003, "m", zd_get_err_info(-640001))->is_usrerr, 0);
    EXPECT_EQ(make(-640001, "m", zd_get_err_info(-3003))->is_usrerr, 1);
}

TEST_F(ErrInst, UserErrorsEndBeforeFiveHundredThousand) {
    EXPECT_EQ(make(-499999)->is_usrerr, 1);
    EXPECT_EQ(make(-500000)->is_usrerr, 0);
    EXPECT_EQ(make(-502128)->is_usrerr, 0);
    EXPECT_EQ(make(INT_MIN + 1)->is_usrerr, 0);
    EXPECT_EQ(make(INT_MIN)->is_usrerr, 1) << "it is its own negative";
}

TEST_F(ErrInst, MessageOfSevenHundredElevenCharactersIsWhole) {
    const std::string message(711, 'm');
    EXPECT_EQ(make(-1, message.c_str())->complete_desc, message);
}

TEST_F(ErrInst, LongerMessageIsCut) {
    const std::string message(712, 'm');
    EXPECT_EQ(make(-1, message.c_str())->complete_desc, std::string(711, 'm'));
}

TEST_F(ErrInst, FileAndFunctionAreCutAtSeventyNine) {
    const std::string file(80, 'f');
    const std::string func(200, 'g');
    const zd_err_args_t args = {-1, 0, 0, &kSpan, file.c_str(), 1, func.c_str()};
    const zd_err_inst_t *const errinst = keep(zd_err_inst_new(alloc_.get(), &args, nullptr, "m"));
    EXPECT_EQ(errinst->file, std::string(79, 'f'));
    EXPECT_EQ(errinst->func, std::string(79, 'g'));
    EXPECT_EQ(errinst->line, 1);
}

TEST_F(ErrInst, TextsAreFilledUpWithZeros) {
    const zd_err_inst_t *const errinst = make(-1, "m");
    EXPECT_EQ(std::string(errinst->complete_desc, 712), "m" + std::string(711, '\0'));
    EXPECT_EQ(std::string(errinst->file, 80), "epa_msg" + std::string(73, '\0'));
    EXPECT_EQ(std::string(errinst->func, 80), "epa_recv_msg" + std::string(68, '\0'));
}

TEST_F(ErrInst, NullSpanIsAllZero) {
    constexpr zd_src_pos_t zero = {{0, 0, 0}, {0, 0, 0}};
    EXPECT_EQ(memcmp(&_zd_src_pos_null, &zero, sizeof zero), 0);
}

TEST_F(ErrInst, ExhaustionIsTheAllocatorsThrow) {
    const zd_err_inst_t *const errinst = make(-1);
    alloc_.refuse(true);
    const zd_err_args_t args = args_of(-1);
    EXPECT_EQ(client_try([&] { zd_err_inst_new(alloc_.get(), &args, nullptr, "m"); }), -3003);
    EXPECT_EQ(client_try([&] { zd_err_inst_duplicate(alloc_.get(), errinst); }), -3003);
    alloc_.refuse(false);
}

TEST_F(ErrInst, InstancesComeAndGoUnderTheUnitsName) {
    zd_err_inst_t *const errinst = make(-1);
    EXPECT_STREQ(alloc_.last_file(), "zd_err_inst");
    EXPECT_GT(alloc_.last_line(), 0);
    zd_err_inst_t *const twin = zd_err_inst_duplicate(alloc_.get(), errinst);
    EXPECT_STREQ(alloc_.last_file(), "zd_err_inst");
    void *const other = zd_malloc(alloc_.get(), 8, "other", 1);
    zd_err_inst_destroy(twin, alloc_.get());
    EXPECT_STREQ(alloc_.last_file(), "zd_err_inst");
    zd_free(alloc_.get(), other, "other", 1);
}

TEST_F(ErrInst, CopyIsEverythingButTheLink) {
    zd_err_inst_t *const source = make(-15086, "copied", zd_get_err_info(-15086));
    source->id = 7;
    source->obj_id_occurred = 8;
    source->next = source;
    zd_err_inst_t copy;
    memset(&copy, 0x5a, sizeof copy);
    zd_err_inst_copy(&copy, source);
    EXPECT_EQ(copy.next, nullptr);
    EXPECT_EQ(copy.id, 7);
    EXPECT_EQ(copy.code, -15086);
    EXPECT_EQ(copy.obj_id, 99u);
    EXPECT_EQ(copy.err_num, 17u);
    EXPECT_EQ(copy.is_usrerr, 1);
    EXPECT_STREQ(copy.sqlstate, "ERRPS");
    EXPECT_STREQ(copy.complete_desc, "copied");
    EXPECT_EQ(copy.obj_id_occurred, 8u);
    EXPECT_EQ(memcmp(&copy.src_pos, &kSpan, sizeof kSpan), 0);
    EXPECT_STREQ(copy.file, "epa_msg");
    EXPECT_EQ(copy.line, 321);
    EXPECT_STREQ(copy.func, "epa_recv_msg");
}

TEST_F(ErrInst, CopyEndsTextsThatHaveNoEnd) {
    zd_err_inst_t *const source = make(-1);
    memset(source->file, 'f', sizeof source->file);
    memset(source->func, 'g', sizeof source->func);
    zd_err_inst_t copy;
    zd_err_inst_copy(&copy, source);
    EXPECT_EQ(copy.file, std::string(79, 'f'));
    EXPECT_EQ(copy.func, std::string(79, 'g'));
}

TEST_F(ErrInst, DuplicateIsACopyInTheGivenAllocator) {
    zd_err_inst_t *const source = make(-140006, "twice");
    source->next = source;
    const zd_err_inst_t *const twin = keep(zd_err_inst_duplicate(alloc_.get(), source));
    EXPECT_EQ(alloc_.live_blocks(), 2);
    EXPECT_NE(twin, source);
    EXPECT_EQ(twin->next, nullptr);
    EXPECT_EQ(twin->code, -140006);
    EXPECT_STREQ(twin->complete_desc, "twice");
}

TEST_F(ErrInst, OrdinaryErrorsMatchByCodeAlone) {
    const zd_err_inst_t *const errinst = make(-140006);
    EXPECT_TRUE(zd_err_inst_match(errinst, -140006, 1, 2));
    EXPECT_FALSE(zd_err_inst_match(errinst, -140005, 99, 17));
}

TEST_F(ErrInst, AnswerToAMatchIsAByteOfOneOrZero) {
    const zd_err_inst_t *const errinst = make(-15086);
    const uchar yes{zd_err_inst_match(errinst, -15086, 99, 17)}; // braces refuse a wider answer
    const uchar no{zd_err_inst_match(errinst, -15086, 98, 17)};
    EXPECT_EQ(yes, 1);
    EXPECT_EQ(no, 0);
}

TEST_F(ErrInst, UserDefinedErrorsMatchByObjectAndNumberToo) {
    const zd_err_inst_t *const errinst = make(-15086);
    EXPECT_TRUE(zd_err_inst_match(errinst, -15086, 99, 17));
    EXPECT_FALSE(zd_err_inst_match(errinst, -15086, 98, 17));
    EXPECT_FALSE(zd_err_inst_match(errinst, -15086, 99, 18));
    EXPECT_FALSE(zd_err_inst_match(errinst, -15116, 99, 17));
}

TEST_F(ErrInst, MessageIsCopiedWithItsEnd) {
    char text[16];
    zd_err_inst_to_str(text, make(-1, "message"), sizeof text);
    EXPECT_STREQ(text, "message");
    EXPECT_EQ(text[15], '\0');
}

TEST_F(ErrInst, MessageIsCutToTheSpaceThereIs) {
    char text[8];
    memset(text, 'z', sizeof text);
    zd_err_inst_to_str(text, make(-1, "message"), 5);
    EXPECT_EQ(std::string(text, 8), std::string("mess\0zzz", 8));
    zd_err_inst_to_str(text, make(-1, "message"), 8);
    EXPECT_STREQ(text, "message");
}

TEST_F(ErrInst, MessageInOneCharacterIsEmpty) {
    char text[2] = {'a', 'z'};
    zd_err_inst_to_str(text, make(-1, "message"), 1);
    EXPECT_EQ(text[0], '\0');
    EXPECT_EQ(text[1], 'z');
}

std::string dump_of(const zd_err_inst_t *errinst) {
    const CapturedStream stream;
    zd_err_inst_dump(stream.get(), errinst);
    return stream.text();
}

TEST_F(ErrInst, DumpIsOneItemALine) {
    EXPECT_EQ(dump_of(make(-140006, " Failed.   ")), "code = -140006 (ERROR_EPA_FAIL)\n"
                                                     "is_usrerr = 1\n"
                                                     "(desc = \" Failed.   \")\n"
                                                     "first line = 1, first col = 2\n"
                                                     "last line = 4, last col = 5\n"
                                                     "file = <epa_msg>\n"
                                                     "line = 321\n"
                                                     "func = <epa_recv_msg>\n"
                                                     "-------------------------------\n");
}

TEST_F(ErrInst, DumpOfAUserCodeHasTheNameOfItsRow) {
    EXPECT_EQ(dump_of(make(-20500)).substr(0, 51),
              "code = -20500 (ERROR_PSM_USER_RAISE_APPLICATION)\nis");
}

TEST_F(ErrInst, DumpOfAnUnknownCodeSaysSo) {
    EXPECT_EQ(dump_of(make(-140007)).substr(0, 31), "code = -140007 (invalid code)\ni");
}

using ErrInstDeathTest = ErrInst;

TEST_F(ErrInstDeathTest, NullCannotBeDestroyed) {
    EXPECT_EXIT(zd_err_inst_destroy(nullptr, alloc_.get()), testing::KilledBySignal(SIGABRT),
                "^zd_err_inst:78: Assertion fail with condition 'errinst != NULL' ");
}

TEST_F(ErrInstDeathTest, MessageNeedsRoom) {
    char text[1];
    const zd_err_inst_t *const errinst = make(-1);
    EXPECT_EXIT(zd_err_inst_to_str(text, errinst, 0), testing::KilledBySignal(SIGABRT),
                "^zd_err_inst:[0-9]+: Assertion fail with condition 'len > 0' ");
}

} // namespace
