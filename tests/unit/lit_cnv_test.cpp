#include "common/lit_cnv.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "client/common/client_try.h"
#include "common/ec.h"
#include "support/ledger_allocator.h"
#include "support/literal_scan.h"
#include "support/region.h"

namespace {

class LitCnv : public testing::Test {
  protected:
    // With count literals and no bind names.
    static auto_param_info_t info_of(int count) {
        auto_param_info_t info = {};
        info.literal_cnt = count;
        info.alpha4[0] = 0x02020202;
        return info;
    }

    std::string prefix(auto_param_info_t info, uchar is_cli = 0) {
        char *const chosen = lit_cnv_get_param_prefix(&info, is_cli, alloc_.get());
        const std::string text = chosen;
        zd_free(alloc_.get(), chosen, "test", 1);
        return text;
    }

    // All three calls.
    std::string convert(std::string stmt, uchar is_cli = 0) {
        auto_param_info_t info;
        listc_t *const list =
            lit_cnv_get_literal_list(stmt.data(), 0, &info, ZDSTR_CHARSET_UTF8, alloc_.get());
        char *const chosen = lit_cnv_get_param_prefix(&info, is_cli, alloc_.get());
        char *const text = lit_cnv_get_replaced_sql(stmt.data(), chosen, list, alloc_.get());
        const std::string replaced = text;
        literals_ = literals_of(list);
        zd_free(alloc_.get(), text, "test", 1);
        zd_free(alloc_.get(), chosen, "test", 1);
        free_literals(list, alloc_.get());
        return replaced;
    }

    LedgerAllocator alloc_;
    std::vector<literal_t> literals_; // of the last conversion; their texts are gone
};

// ---- tables ----

TEST(LitCnvTables, ShiftJisSetsHaveTheirScannerAndAllOthersTheSingleByteOne) {
    for (int charset = 0; charset < ZDSTR_CHARSET_MAX; charset++) {
        const bool is_sjis = charset == 5 || charset == 6 || charset == 7;
        EXPECT_EQ(_charset_info[charset].scanner_id_type, is_sjis ? 1 : 0) << charset;
    }
}

TEST(LitCnvTables, EachScannerHasItsOperations) {
    EXPECT_EQ(lit_scanner[0].init, lit_yylex_init_alloc);
    EXPECT_EQ(lit_scanner[0].destroy, lit_yylex_destroy);
    EXPECT_EQ(lit_scanner[0].lex, lit_yylex);
    EXPECT_EQ(lit_scanner[0].set_extra, lit_yyset_extra);
    EXPECT_EQ(lit_scanner[1].init, lit_sjis_yylex_init_alloc);
    EXPECT_EQ(lit_scanner[1].destroy, lit_sjis_yylex_destroy);
    EXPECT_EQ(lit_scanner[1].lex, lit_sjis_yylex);
    EXPECT_EQ(lit_scanner[1].set_extra, lit_sjis_yyset_extra);
}

// ---- the list ----

TEST_F(LitCnv, InformationIsFilledAnewByEachScan) {
    std::string stmt = "create";
    auto_param_info_t info;
    memset(&info, 0xFF, sizeof info);
    listc_t *const list =
        lit_cnv_get_literal_list(stmt.data(), 0, &info, ZDSTR_CHARSET_ASCII, alloc_.get());
    EXPECT_EQ(info.literal_cnt, 0);
    EXPECT_EQ(info.has_sys_bind_name, 0);
    for (const b_param_info_t &names : info.b_param_infos) {
        EXPECT_EQ(names.exists, 0);
        EXPECT_EQ(names.digit_len_bit, 0);
    }
    EXPECT_EQ(info.alpha4[0], 0x02020202);
    EXPECT_EQ(info.alpha4[1], 0);
    EXPECT_EQ(info.alpha4[2], 0);
    EXPECT_EQ(info.alpha4[3], 0);
    free_literals(list, alloc_.get());
}

TEST_F(LitCnv, CharacterSetChoosesTheScanner) {
    const std::string stmt = "select \xB1"
                             "1";
    EXPECT_TRUE(scan_literals(stmt, ZDSTR_CHARSET_UTF8, alloc_.get()).literals.empty());
    for (const zdstr_charset_t charset :
         {ZDSTR_CHARSET_SJIS, ZDSTR_CHARSET_MSWIN932, ZDSTR_CHARSET_MSWIN932_TILDE})
        EXPECT_EQ(scan_literals(stmt, charset, alloc_.get()).literals.size(), 1U);
}

TEST_F(LitCnv, UnknownCharacterSetIsASingleByteOne) {
    for (const int charset : {-1, 23, 1000})
        EXPECT_TRUE(scan_literals("select \xB1"
                                  "1",
                                  static_cast<zdstr_charset_t>(charset), alloc_.get())
                        .literals.empty());
}

TEST_F(LitCnv, NothingButTheListIsLeftOfAScan) {
    std::string stmt = "select 1, 'a'";
    auto_param_info_t info;
    listc_t *const list =
        lit_cnv_get_literal_list(stmt.data(), 0, &info, ZDSTR_CHARSET_ASCII, alloc_.get());
    EXPECT_EQ(alloc_.still_out(), 1U + 2 * 3) << "a head; a node, a record and a text each";
    free_literals(list, alloc_.get());
}

TEST_F(LitCnv, EveryAllocationThatFailsIsThrown) {
    int64_t allocations = 0;
    for (;; allocations++) {
        LedgerAllocator alloc;
        alloc.fail_at(allocations);
        std::string stmt = "select 1, 'a'";
        const ec_t ec = client_try([&] {
            auto_param_info_t info;
            listc_t *const list =
                lit_cnv_get_literal_list(stmt.data(), 0, &info, ZDSTR_CHARSET_ASCII, alloc.get());
            char *const chosen = lit_cnv_get_param_prefix(&info, 0, alloc.get());
            lit_cnv_get_replaced_sql(stmt.data(), chosen, list, alloc.get());
        });
        if (ec == 0)
            break;
        EXPECT_EQ(ec, -3003);
        EXPECT_EQ(alloc.thrown, 1);
    }
    EXPECT_EQ(allocations, 10); // scanner, list, three for each literal, prefix and text
}

TEST_F(LitCnv, RegionGetsAllOfItBack) {
    const SysRegion region;
    std::string stmt = "select 1, 'a', " + std::string(30000, 'x') + "1, N'b'";
    auto_param_info_t info;
    listc_t *const list =
        lit_cnv_get_literal_list(stmt.data(), 0, &info, ZDSTR_CHARSET_SJIS, region.get());
    EXPECT_EQ(info.literal_cnt, 3);
    free_literals(list, region.get());
    EXPECT_EQ(region->total_used, 0U);
    EXPECT_EQ(region.check(), 0);
}

// ---- the prefix ----

TEST_F(LitCnv, StatementWithoutSuchNamesGetsTheSystemsPrefix) {
    for (const int count : {1, 2, 10, 11, 100, 1000000000, 2147483647})
        EXPECT_EQ(prefix(info_of(count)), ":\"SYS_B_") << count;
}

TEST_F(LitCnv, EmptyListGetsTheSystemsPrefix) {
    auto_param_info_t info = info_of(0);
    EXPECT_EQ(prefix(info), ":\"SYS_B_");
    info.has_sys_bind_name = 1;
    EXPECT_EQ(prefix(info, 1), ":\"SYS_B_");
}

TEST_F(LitCnv, ClientsGetAPrefixOfTheirOwn) {
    EXPECT_EQ(prefix(info_of(1), 1), ":\"B");
    EXPECT_EQ(prefix(info_of(100), 1), ":\"B");
}

TEST_F(LitCnv, StatementWithSystemNamesGetsAnotherPrefix) {
    EXPECT_EQ(convert("select :SYS_B_1, 7, 8, 9"), "select :SYS_B_1, :\"B0\", :\"B1\", :\"B2\"");
}

TEST_F(LitCnv, FirstNumberOfLettersThatIsFreeIsTaken) {
    auto_param_info_t info = info_of(5);
    info.b_param_infos[0].exists = 1;
    info.b_param_infos[1].exists = 1;
    EXPECT_EQ(prefix(info, 1), ":\"BBB");
}

TEST_F(LitCnv, NumberOfLettersWithNamesOfOurLengthIsTaken) {
    auto_param_info_t info = info_of(5); // names of one digit
    info.b_param_infos[0] = {1, 0x6};
    info.b_param_infos[1] = {1, 0x1};
    EXPECT_EQ(prefix(info, 1), ":\"BB");
    info.literal_cnt = 11; // of two
    EXPECT_EQ(prefix(info, 1), ":\"B");
}

TEST_F(LitCnv, OneLiteralHasNoLengthThatNamesCouldShare) {
    auto_param_info_t info = info_of(1);
    info.b_param_infos[0] = {1, -1};
    EXPECT_EQ(prefix(info, 1), ":\"BB");
}

TEST_F(LitCnv, BPrefixLeavesRoomForTheDigits) {
    auto_param_info_t info = info_of(5);
    for (int i = 0; i < 28; i++)
        info.b_param_infos[i].exists = 1;
    EXPECT_EQ(prefix(info, 1), ":\"" + std::string(29, 'B'));
    info.literal_cnt = 11; // two digits: 28 letters at most
    EXPECT_EQ(prefix(info, 1), ":\"AAAA");
    info.b_param_infos[27].exists = 0;
    EXPECT_EQ(prefix(info, 1), ":\"" + std::string(28, 'B'));
}

TEST_F(LitCnv, FourLettersAreTheLowestThatAreFree) {
    auto_param_info_t info = info_of(2);
    for (b_param_info_t &names : info.b_param_infos)
        names.exists = 1;
    EXPECT_EQ(prefix(info, 1), ":\"AAAA");
    info.alpha4[0] |= 0x1; // A, beside B from the start
    info.alpha4[1] = 0x7;
    info.alpha4[2] = 0x1FFFFFF;
    info.alpha4[3] = 0x2;
    EXPECT_EQ(prefix(info, 1), ":\"CDZA");
}

TEST_F(LitCnv, PrefixThatCannotBeFoundIsThrown) {
    for (int place = 0; place < 4; place++) {
        auto_param_info_t info = info_of(2);
        for (b_param_info_t &names : info.b_param_infos)
            names.exists = 1;
        info.alpha4[place] = 0x3FFFFFF;
        EXPECT_EQ(client_try([&] { lit_cnv_get_param_prefix(&info, 1, alloc_.get()); }),
                  ERROR_LC_PREFIX_GEN_FAILED);
        EXPECT_EQ(alloc_.still_out(), 0U);
    }
}

// ---- the new text ----

TEST_F(LitCnv, OnlyLiteralGetsTheNumberZero) {
    EXPECT_EQ(convert("select 'abc' from dual"), "select :\"SYS_B_0\" from dual");
    EXPECT_EQ(literals_[0].diff, -5);
}

TEST_F(LitCnv, NumbersHaveAsManyDigitsAsTheCountNeeds) {
    for (const auto &[count, first, last] : std::vector<std::tuple<int, std::string, std::string>>{
             {2, ":\"SYS_B_0\"", ":\"SYS_B_1\""},
             {10, ":\"SYS_B_0\"", ":\"SYS_B_9\""},
             {11, ":\"SYS_B_00\"", ":\"SYS_B_10\""},
             {12, ":\"SYS_B_00\"", ":\"SYS_B_11\""},
             {100, ":\"SYS_B_00\"", ":\"SYS_B_99\""},
             {101, ":\"SYS_B_000\"", ":\"SYS_B_100\""},
             {1000, ":\"SYS_B_000\"", ":\"SYS_B_999\""}}) {
        std::string stmt = "select 7";
        for (int i = 1; i < count; i++)
            stmt += ",7";
        const std::string replaced = convert(stmt);
        EXPECT_EQ(replaced.substr(7, first.size()), first) << count;
        EXPECT_EQ(replaced.substr(replaced.size() - last.size()), last) << count;
        EXPECT_EQ(replaced.size(), 7 + (first.size() + 1) * static_cast<size_t>(count) - 1);
    }
}

TEST_F(LitCnv, TextBetweenTheLiteralsStays) {
    EXPECT_EQ(convert("insert into t values('it''s',N'x' /*1*/,-2.5e3)\n-- 9"),
              "insert into t values(:\"SYS_B_0\",:\"SYS_B_1\" /*1*/,-:\"SYS_B_2\")\n-- 9");
    EXPECT_EQ(literals_[0].diff, 7 - 10);
    EXPECT_EQ(literals_[1].diff, 4 - 10);
    EXPECT_EQ(literals_[2].diff, 5 - 10);
}

TEST_F(LitCnv, DifferenceIsPositiveWhenTheStatementGetsShorter) {
    EXPECT_EQ(convert("select 'a long literal'"), "select :\"SYS_B_0\"");
    EXPECT_EQ(literals_[0].diff, 16 - 10);
}

TEST_F(LitCnv, StatementWithoutLiteralsIsCopied) {
    EXPECT_EQ(convert("create table t (a number default 5)"),
              "create table t (a number default 5)");
    EXPECT_EQ(convert(""), "");
}

TEST_F(LitCnv, NewTextIsAllocatedAsLongAsItIs) {
    EXPECT_EQ(convert("select 1"), "select :\"SYS_B_0\"");
    EXPECT_EQ(alloc_.asked.back(), 17 + 1);
}

TEST_F(LitCnv, ListMayBeAPartOfWhatTheScanFound) {
    std::string stmt = "select 1";
    for (int i = 0; i < 100; i++)
        stmt += ", 2";
    stmt += ", 'x'";
    auto_param_info_t info;
    listc_t *const list =
        lit_cnv_get_literal_list(stmt.data(), 0, &info, ZDSTR_CHARSET_ASCII, alloc_.get());
    listc_t *const part = listc_new(alloc_.get());
    listc_add_tail(reinterpret_cast<listc_t *>(list->link.next)->data, part, alloc_.get());
    listc_add_tail(reinterpret_cast<listc_t *>(list->link.prev)->data, part, alloc_.get());
    char chosen[] = ":x";
    char *const text = lit_cnv_get_replaced_sql(stmt.data(), chosen, part, alloc_.get());
    std::string expected = "select :x0\"";
    for (int i = 0; i < 100; i++)
        expected += ", 2";
    EXPECT_EQ(text, expected + ", :x1\"");
    EXPECT_EQ(literals_of(part)[0].diff, 1 - 4);
    EXPECT_EQ(literals_of(part)[1].diff, 3 - 4);
    zd_free(alloc_.get(), text, "test", 1);
    listc_free(part, alloc_.get());
    free_literals(list, alloc_.get());
    EXPECT_EQ(alloc_.still_out(), 0U);
}

TEST_F(LitCnv, AnyPrefixWillDo) {
    std::string stmt = "select 1,2,3,4,5,6,7,8,9,0";
    for (const char *wanted : {"", "9", "999", ":x"}) {
        auto_param_info_t info;
        listc_t *const list =
            lit_cnv_get_literal_list(stmt.data(), 0, &info, ZDSTR_CHARSET_ASCII, alloc_.get());
        std::string mine = wanted;
        char *const text = lit_cnv_get_replaced_sql(stmt.data(), mine.data(), list, alloc_.get());
        const std::string replaced = text;
        EXPECT_EQ(replaced.substr(0, 7), "select ");
        EXPECT_EQ(replaced.substr(replaced.rfind(',') + 1), mine + "9\"");
        zd_free(alloc_.get(), text, "test", 1);
        free_literals(list, alloc_.get());
    }
    EXPECT_EQ(alloc_.still_out(), 0U);
}

TEST_F(LitCnv, EachThreadScansOnItsOwn) {
    const auto work = [] {
        LedgerAllocator alloc;
        for (int i = 0; i < 300; i++) {
            const std::string text = "select " + std::to_string(i) + " , 'x'";
            EXPECT_EQ(scan_literals(text, ZDSTR_CHARSET_UTF8, alloc.get()).literals.size(), 2U);
        }
    };
    std::thread other(work);
    work();
    other.join();
}

// ---- faults ----

using LitCnvDeathTest = LitCnv;

TEST_F(LitCnvDeathTest, MissingStatementOrAllocatorIsAnAssertion) {
    char stmt[] = "select 1";
    char chosen[] = ":x";
    auto_param_info_t info = info_of(0);
    listc_t *const list = listc_new(alloc_.get());
    const testing::KilledBySignal aborted(SIGABRT);
    const char *const no_alloc = "^lit_cnv:[0-9]+: Assertion fail with condition 'alloc != NULL'";
    const char *const no_stmt = "^lit_cnv:[0-9]+: Assertion fail with condition 'stmt != NULL'";
    EXPECT_EXIT(lit_cnv_get_literal_list(stmt, 0, &info, ZDSTR_CHARSET_ASCII, nullptr), aborted,
                no_alloc);
    EXPECT_EXIT(lit_cnv_get_literal_list(nullptr, 0, &info, ZDSTR_CHARSET_ASCII, alloc_.get()),
                aborted, no_stmt);
    EXPECT_EXIT(lit_cnv_get_param_prefix(&info, 0, nullptr), aborted, no_alloc);
    EXPECT_EXIT(lit_cnv_get_replaced_sql(stmt, chosen, list, nullptr), aborted, no_alloc);
    EXPECT_EXIT(lit_cnv_get_replaced_sql(nullptr, chosen, list, alloc_.get()), aborted, no_stmt);
}

} // namespace
