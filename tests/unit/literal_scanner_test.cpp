#include "common/literal_scanner.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "client/common/client_try.h"
#include "support/ledger_allocator.h"
#include "support/literal_scan.h"
#include "support/refusing_heap.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Texts = std::vector<std::string>;

constexpr zdstr_charset_t kSingleByte = ZDSTR_CHARSET_UTF8;
constexpr zdstr_charset_t kShiftJis = ZDSTR_CHARSET_SJIS;

class LiteralScanner : public testing::Test {
  protected:
    ~LiteralScanner() override { EXPECT_EQ(alloc_.still_out(), 0U); }

    literal_model::Result scan(const std::string &text, zdstr_charset_t charset = kSingleByte,
                               uchar big_only = 0) {
        return scan_literals(text, charset, alloc_.get(), big_only);
    }

    Texts texts(const std::string &text, zdstr_charset_t charset = kSingleByte) {
        Texts texts;
        for (const literal_model::Literal &literal : scan(text, charset).literals)
            texts.push_back(literal.text);
        return texts;
    }

    std::vector<zd_type_t> types(const std::string &text) {
        std::vector<zd_type_t> types;
        for (const literal_model::Literal &literal : scan(text).literals)
            types.push_back(literal.type);
        return types;
    }

    auto_param_info_t info(const std::string &text) { return scan("select " + text).info; }

    LedgerAllocator alloc_;
};

// ---- what is a literal ----

TEST_F(LiteralScanner, TextInALineCommentIsNoLiteral) {
    EXPECT_THAT(texts("select 1 from dual -- 'x'"), ElementsAre("1"));
    EXPECT_THAT(texts("select 1 -- 2 'x\n, 3"), ElementsAre("1", "3"));
    EXPECT_THAT(texts("select 1 -- 2\r3\n4"), ElementsAre("1", "4"));
}

TEST_F(LiteralScanner, TextInABlockCommentIsNoLiteral) {
    EXPECT_THAT(texts("select 1 /* 2 'x \n -- */ 3"), ElementsAre("1", "3"));
    EXPECT_THAT(texts("select/**/1/***/2/*/ 3 */4"), ElementsAre("1", "2", "4"));
    EXPECT_THAT(texts("select /*+ INDEX(t 5) */ 6"), ElementsAre("6"));
}

TEST_F(LiteralScanner, CommentThatIsNotClosedEmptiesTheList) {
    EXPECT_THAT(texts("select 1 /* unterminated"), IsEmpty());
    EXPECT_THAT(texts("select 1, 'a' /*"), IsEmpty());
    EXPECT_THAT(texts("select 1 /*/"), IsEmpty());
    EXPECT_THAT(texts("select 1 /* *"), IsEmpty());
}

TEST_F(LiteralScanner, LineCommentThatIsNotClosedKeepsTheList) {
    EXPECT_THAT(texts("select 1 --"), ElementsAre("1"));
}

TEST_F(LiteralScanner, QuotesInALiteralAreDoubled) {
    const literal_model::Result result = scan("insert into t values ('it''s', N'x')");
    ASSERT_EQ(result.literals.size(), 2U);
    EXPECT_EQ(result.literals[0], (literal_model::Literal{"'it''s'", 22, 1, ZD_TYPE_CHAR}));
    EXPECT_EQ(result.literals[1], (literal_model::Literal{"N'x'", 31, 2, ZD_TYPE_NCHAR}));
}

TEST_F(LiteralScanner, BackslashAndNewlineAreOrdinaryInALiteral) {
    EXPECT_THAT(texts("select 'a\\' , 'b\nc' , '\\'"), ElementsAre("'a\\'", "'b\nc'", "'\\'"));
}

TEST_F(LiteralScanner, EmptyAndDoubledLiteralsAreSeen) {
    EXPECT_THAT(texts("select '', '''', '''''', 1"), ElementsAre("''", "''''", "''''''", "1"));
}

TEST_F(LiteralScanner, NationalLiteralNeedsItsLetterRightBefore) {
    EXPECT_THAT(texts("select N'a', n'b', N 'c', xn'd'"),
                ElementsAre("N'a'", "n'b'", "'c'", "'d'"));
    EXPECT_THAT(types("select N'a', n'b', N 'c', xn'd'"),
                ElementsAre(ZD_TYPE_NCHAR, ZD_TYPE_NCHAR, ZD_TYPE_CHAR, ZD_TYPE_CHAR));
    EXPECT_THAT(types("select 1N'a', _N'b', $N'c'"),
                ElementsAre(ZD_TYPE_NUMBER, ZD_TYPE_NCHAR, ZD_TYPE_CHAR, ZD_TYPE_NCHAR));
}

TEST_F(LiteralScanner, OtherPrefixesOfLiteralsAreWords) {
    EXPECT_THAT(texts("select X'0F', q'[a]', DATE'2024-01-01'"),
                ElementsAre("'0F'", "'[a]'", "'2024-01-01'"));
}

TEST_F(LiteralScanner, LiteralThatIsNotClosedSwallowsTheRest) {
    EXPECT_THAT(texts("select 1, 'abc 2"), ElementsAre("1"));
    EXPECT_THAT(texts("select 1, 'it''"), ElementsAre("1"));
    EXPECT_THAT(texts("select 1, N'abc 2"), ElementsAre("1"));
    EXPECT_THAT(texts("select 1, '"), ElementsAre("1"));
    EXPECT_THAT(texts("select 1, 'abc /* 2"), ElementsAre("1"));
    EXPECT_THAT(texts("1 N'abc explain"), ElementsAre("1"));
}

TEST_F(LiteralScanner, QuotedIdentifierHidesWhatIsInIt) {
    EXPECT_THAT(texts("select \"a 1 'b' -- \", 2"), ElementsAre("2"));
    EXPECT_THAT(texts("select \"a\"\"1\", \"\", 2"), ElementsAre("2"));
    EXPECT_THAT(texts("\"create\" select 2"), ElementsAre("2"));
}

TEST_F(LiteralScanner, QuotedIdentifierThatIsNotClosedSwallowsTheRest) {
    EXPECT_THAT(texts("select 1, \"a 2"), ElementsAre("1"));
    EXPECT_THAT(texts("select 1, :\"a 2 'x'"), ElementsAre("1"));
}

TEST_F(LiteralScanner, EveryFormOfANumberIsALiteral) {
    EXPECT_THAT(texts("select 1, 12., 1.5, .5, 1E5, 1.5E+3, 1.e5, .5e-2, 007"),
                ElementsAre("1", "12.", "1.5", ".5", "1E5", "1.5E+3", "1.e5", ".5e-2", "007"));
    EXPECT_THAT(types("select 1.5e3"), ElementsAre(ZD_TYPE_NUMBER));
}

TEST_F(LiteralScanner, SignIsNoPartOfANumber) {
    EXPECT_THAT(texts("select -3, +4, 5-6, 7--8"), ElementsAre("3", "4", "5", "6", "7"));
}

TEST_F(LiteralScanner, NumberEndsBeforeLetters) {
    EXPECT_THAT(texts("select 123abc, 1e, 1e+, 2E-x, 3ex, 0x1F"),
                ElementsAre("123", "1", "1", "2", "3", "0"));
    EXPECT_THAT(texts("1e5e6"), IsEmpty()) << "the word e6 ends the scan";
    EXPECT_THAT(texts("select 1e+5, 1e5+6"), ElementsAre("1e+5", "1e5", "6"));
}

TEST_F(LiteralScanner, PointsSplitNumbers) {
    EXPECT_THAT(texts("select 1..2, 1.2.3, t.5, t1.c2, a.b, .., 7."),
                ElementsAre("1.", ".2", "1.2", ".3", ".5", "7."));
}

TEST_F(LiteralScanner, DigitsInAWordAreNoLiteral) {
    EXPECT_THAT(texts("select t1, a$2, b#3, _4, c_5d6 from e7"), IsEmpty());
    EXPECT_THAT(texts("select $1, #2, a, $$3"), ElementsAre("1", "2", "3"));
}

TEST_F(LiteralScanner, OperatorsBesideNumbersAreSkipped) {
    EXPECT_THAT(texts("select 1/2*3||4<>5;?6:=7"), ElementsAre("1", "2", "3", "4", "5", "6", "7"));
}

TEST_F(LiteralScanner, OffsetsAndOrdinalsFollowTheStatement) {
    const literal_model::Result result = scan(" select 1,/* 2 */'a' , N'b'\n-- 3\n,.5e1");
    EXPECT_THAT(result.literals,
                ElementsAre(literal_model::Literal{"1", 8, 1, ZD_TYPE_NUMBER},
                            literal_model::Literal{"'a'", 17, 2, ZD_TYPE_CHAR},
                            literal_model::Literal{"N'b'", 23, 3, ZD_TYPE_NCHAR},
                            literal_model::Literal{".5e1", 34, 4, ZD_TYPE_NUMBER}));
    EXPECT_EQ(result.info.literal_cnt, 4);
}

TEST_F(LiteralScanner, OnlyLiteralsOf64KiBAreRecordedWhenBigOnesAreWanted) {
    const std::string below = "'" + std::string(65533, 'a') + "'";
    const std::string big = "'" + std::string(65534, 'b') + "'";
    const std::string number(65536, '7');
    const literal_model::Result result =
        scan("select 1, " + below + ", " + big + ", 2, " + number, kSingleByte, 1);
    ASSERT_EQ(result.literals.size(), 2U);
    EXPECT_EQ(result.literals[0].text, big);
    EXPECT_EQ(result.literals[0].offset, 10 + 65535 + 2);
    EXPECT_EQ(result.literals[0].idx, 1);
    EXPECT_EQ(result.literals[1].text, number);
    EXPECT_EQ(result.literals[1].idx, 2);
    EXPECT_EQ(result.info.literal_cnt, 2);
}

TEST_F(LiteralScanner, ShortLiteralsStayInTheTextWhenBigOnesAreWanted) {
    const literal_model::Result result = scan("select 1, 'a' from t", kSingleByte, 1);
    EXPECT_THAT(result.literals, IsEmpty());
    EXPECT_EQ(result.info.literal_cnt, 0);
}

// ---- which statements are converted ----

TEST_F(LiteralScanner, EveryWordOfDataManipulationBeginsAStatement) {
    for (const char *word : {"SELECT", "insert", "Update", "deLEte", "MERGE", "with", "Call"})
        EXPECT_THAT(texts(std::string(word) + " x 1"), ElementsAre("1")) << word;
}

TEST_F(LiteralScanner, StatementThatBeginsWithAnotherWordIsLeftAlone) {
    EXPECT_THAT(texts("explain select 1"), IsEmpty());
    EXPECT_THAT(texts("CREATE TABLE t (a number default 5)"), IsEmpty());
    EXPECT_THAT(texts("1, 'a' (x select 2"), IsEmpty());
}

TEST_F(LiteralScanner, BeginningOfALongerWordIsNoKeyword) {
    for (const char *word : {"selectx", "SELECT_X", "INSERT1", "xselect", "update$", "with#",
                             "call\xC3\xA9", "_merge"})
        EXPECT_THAT(texts(std::string(word) + " 1"), IsEmpty()) << word;
}

TEST_F(LiteralScanner, WhatIsNoWordMayStandBeforeTheFirst) {
    EXPECT_THAT(texts(" \t\n( 1 'a' :x ? \"y\" /* z */ -- u\n SELECT 2"),
                ElementsAre("1", "'a'", "2"));
}

TEST_F(LiteralScanner, StatementWithoutAnyWordKeepsItsLiterals) {
    EXPECT_THAT(texts("1 + 'a'"), ElementsAre("1", "'a'"));
    EXPECT_THAT(texts(""), IsEmpty());
}

TEST_F(LiteralScanner, WordsAreFreeOnceTheStatementIsConvertible) {
    EXPECT_THAT(texts("with a as (select 1 from dual) select * from a"), ElementsAre("1"));
    EXPECT_THAT(texts("select 1 explain create 2"), ElementsAre("1", "2"));
}

TEST_F(LiteralScanner, LiteralMayFollowTheKeywordAtOnce) {
    EXPECT_THAT(texts("SELECT'a'"), ElementsAre("'a'"));
    EXPECT_THAT(texts("SELECT \t\n'a'"), ElementsAre("'a'"));
    EXPECT_THAT(texts("SELECT.5"), ElementsAre(".5"));
    EXPECT_THAT(texts("SELECT--1\n/*2*/3"), ElementsAre("3"));
}

// ---- bind names ----

TEST_F(LiteralScanner, SystemBindNameIsNotedInAnyCase) {
    EXPECT_EQ(info("a = 1").has_sys_bind_name, 0);
    EXPECT_EQ(info(":SYS_B_0").has_sys_bind_name, 1);
    EXPECT_EQ(info(":sys_b_12").has_sys_bind_name, 1);
    EXPECT_EQ(info(":Sys_B_1").has_sys_bind_name, 1);
}

TEST_F(LiteralScanner, QuotedSystemBindNameIsNotedUnlessItIsAGeneratedOne) {
    EXPECT_EQ(info(":\"SYS_B_0\"").has_sys_bind_name, 0);
    EXPECT_EQ(info(":\"sys_b_0\"").has_sys_bind_name, 1);
    EXPECT_EQ(info(":\"SYS_b_0\"").has_sys_bind_name, 1);
    EXPECT_EQ(info(":\"sYS_B_0\"").has_sys_bind_name, 1);
}

TEST_F(LiteralScanner, NamesThatOnlyBeginLikeASystemBindNameAreNotNoted) {
    for (const char *name :
         {":SYS_B_", ":SYS_B_1x", ":SYS_B_1_", ":SYS_B_1$", ":SYS_B_1\xE9", ":xSYS_B_1",
          ":\"SYS_b_\"", ":\"sys_b_1", ":\"sys_b_1 \"", "SYS_B_1", "\"sys_b_1\"", ": sys_b_1"})
        EXPECT_EQ(info(name).has_sys_bind_name, 0) << name;
}

TEST_F(LiteralScanner, BNamesAreNotedByLettersAndDigits) {
    const auto_param_info_t found = info(":B1, :bB22, :BB4444, :\"BBB333\"");
    EXPECT_EQ(found.b_param_infos[0].exists, 1);
    EXPECT_EQ(found.b_param_infos[0].digit_len_bit, 0x1);
    EXPECT_EQ(found.b_param_infos[1].exists, 1);
    EXPECT_EQ(found.b_param_infos[1].digit_len_bit, 0xA);
    EXPECT_EQ(found.b_param_infos[2].exists, 1);
    EXPECT_EQ(found.b_param_infos[2].digit_len_bit, 0x4);
    EXPECT_EQ(found.b_param_infos[3].exists, 0);
}

TEST_F(LiteralScanner, QuotedBNameWithASmallLetterIsNotNoted) {
    for (const char *name : {":\"b1\"", ":\"Bb1\"", ":\"bB1\"", ":\"BBbB1\"", ":\"bbbb1\""}) {
        const auto_param_info_t found = info(name);
        for (const b_param_info_t &names : found.b_param_infos)
            EXPECT_EQ(names.exists, 0) << name;
        EXPECT_EQ(found.alpha4[1], 0) << name;
    }
}

TEST_F(LiteralScanner, NamesThatOnlyBeginLikeABNameAreNotNoted) {
    for (const char *name : {":BB", ":B1x", ":B1#", ":\"B\"", ":\"B1\xC3\xA9\"", ":\"B1", "B1"}) {
        for (const b_param_info_t &names : info(name).b_param_infos)
            EXPECT_EQ(names.exists, 0) << name;
    }
}

TEST_F(LiteralScanner, BNameOfThirtyLettersLeavesNoMark) {
    const auto_param_info_t longest = info(":" + std::string(29, 'B') + "1");
    EXPECT_EQ(longest.b_param_infos[28].exists, 1);
    EXPECT_EQ(longest.b_param_infos[28].digit_len_bit, 1);
    EXPECT_EQ(longest.alpha4[0], 0x02020202);
    const auto_param_info_t longer = info(":" + std::string(30, 'B') + "1");
    for (const b_param_info_t &names : longer.b_param_infos)
        EXPECT_EQ(names.exists, 0);
    EXPECT_EQ(longer.alpha4[0], 0x02020202);
}

TEST_F(LiteralScanner, DigitsPastTheThirtySecondHaveNoBit) {
    EXPECT_EQ(info(":B" + std::string(32, '1')).b_param_infos[0].digit_len_bit, INT32_MIN);
    const auto_param_info_t found = info(":B" + std::string(33, '1'));
    EXPECT_EQ(found.b_param_infos[0].exists, 1);
    EXPECT_EQ(found.b_param_infos[0].digit_len_bit, 0);
}

TEST_F(LiteralScanner, NamesOfFourLettersAreNotedLetterByLetter) {
    const auto_param_info_t found = info(":ACdZ1, :xyza22");
    EXPECT_EQ(found.alpha4[0], 0x02020202 | 1 << 0 | 1 << 23);
    EXPECT_EQ(found.alpha4[1], 1 << 2 | 1 << 24);
    EXPECT_EQ(found.alpha4[2], 1 << 3 | 1 << 25);
    EXPECT_EQ(found.alpha4[3], 1 << 25 | 1 << 0);
}

TEST_F(LiteralScanner, FirstSmallLetterEndsTheMarksOfAQuotedName) {
    const auto_param_info_t found = info(":\"ACdE1\"");
    EXPECT_EQ(found.alpha4[0], 0x02020202 | 1 << 0);
    EXPECT_EQ(found.alpha4[1], 1 << 2);
    EXPECT_EQ(found.alpha4[2], 0);
    EXPECT_EQ(found.alpha4[3], 0);
}

TEST_F(LiteralScanner, FourLettersBAreABName) {
    const auto_param_info_t found = info(":BbBB7");
    EXPECT_EQ(found.b_param_infos[3].exists, 1);
    EXPECT_EQ(found.alpha4[1], 0);
}

TEST_F(LiteralScanner, OtherBindNamesLeaveNoMark) {
    for (const char *name : {":1", ":a_1", ":ABCD", ":ABCDE1", ":ABC1", ":\"ABCD\"", ":AB1D1",
                             ":\"ABCD1x\"", ":\"AB D1\"", "?"}) {
        const auto_param_info_t found = info(name);
        EXPECT_EQ(found.alpha4[0], 0x02020202) << name;
        EXPECT_EQ(found.alpha4[1] | found.alpha4[2] | found.alpha4[3], 0) << name;
        EXPECT_EQ(found.literal_cnt, 0) << name;
    }
}

TEST_F(LiteralScanner, BindNamesAreNotedBeforeTheStatementIsConvertible) {
    EXPECT_EQ(scan(":SYS_B_1 create").info.has_sys_bind_name, 1);
}

// ---- bytes above 127 ----

TEST_F(LiteralScanner, EveryByteAbove127IsOfAWordInSingleByteSets) {
    EXPECT_THAT(texts("select \x80"
                      "1, a\xFF"
                      "2, \xE9, \x83"
                      "'b'"),
                ElementsAre("'b'"));
    EXPECT_THAT(texts("\xE9 select 1"), IsEmpty());
}

TEST_F(LiteralScanner, WholeCharacterIsOfAWordInShiftJis) {
    for (const char *character : {"\x81\x40", "\x9F\x7E", "\xE0\x80", "\xFC\xFC", "\x83\x41"}) {
        EXPECT_THAT(texts("select " + std::string(character) + "1", kShiftJis), IsEmpty());
        EXPECT_THAT(texts(std::string(character) + " select 1", kShiftJis), IsEmpty());
        EXPECT_THAT(texts("select" + std::string(character) + " 1", kShiftJis), IsEmpty());
    }
}

TEST_F(LiteralScanner, StrayByteIsNoPartOfAWordInShiftJis) {
    for (const char *byte : {"\x80", "\xA0", "\xB1", "\xDF", "\xFD", "\xFF", "\x81", "\xFC"}) {
        EXPECT_THAT(texts(std::string(byte) + " select " + byte + "1, a" + byte + "2", kShiftJis),
                    ElementsAre("1", "2"));
        EXPECT_THAT(texts("select" + std::string(byte) + " 1", kShiftJis), ElementsAre("1"));
    }
    // Not trail bytes: 3F, 7F, FD.
    EXPECT_THAT(texts("select \x81\x3F"
                      "1, \x81\x7F"
                      "2, \x81\xFD"
                      "3",
                      kShiftJis),
                ElementsAre("1", "2", "3"));
}

TEST_F(LiteralScanner, QuoteBehindALeadByteOpensALiteral) {
    EXPECT_THAT(texts("select \x83'a', \x83N'b'", kShiftJis), ElementsAre("'a'", "'b'"));
}

TEST_F(LiteralScanner, BytesAbove127AreOrdinaryInQuotesAndComments) {
    for (const zdstr_charset_t charset : {kSingleByte, kShiftJis}) {
        EXPECT_THAT(texts("select '\x83', \"\x83\", /*\x83*/ 1 --\x83\n, 2", charset),
                    ElementsAre("'\x83'", "1", "2"));
    }
}

// ---- the scanner itself ----

// The operations of both scanners, as one would call them.
struct SingleByte {
    static constexpr auto init = lit_yylex_init;
    static constexpr auto init_alloc = lit_yylex_init_alloc;
    static constexpr auto destroy = lit_yylex_destroy;
    static constexpr auto lex = lit_yylex;
    static constexpr auto set_extra = lit_yyset_extra;
    static constexpr auto get_extra = lit_yyget_extra;
    static constexpr auto scan_string = lit_yy_scan_string;
    static constexpr auto scan_bytes = lit_yy_scan_bytes;
    static constexpr auto scan_buffer = lit_yy_scan_buffer;
    static constexpr auto create_buffer = lit_yy_create_buffer;
    static constexpr auto delete_buffer = lit_yy_delete_buffer;
    static constexpr auto switch_to_buffer = lit_yy_switch_to_buffer;
    static constexpr auto push = lit_yypush_buffer_state;
    static constexpr auto pop = lit_yypop_buffer_state;
    static constexpr auto flush = lit_yy_flush_buffer;
    static constexpr auto restart = lit_yyrestart;
    static constexpr auto get_lineno = lit_yyget_lineno;
    static constexpr auto set_lineno = lit_yyset_lineno;
    static constexpr auto get_column = lit_yyget_column;
    static constexpr auto set_column = lit_yyset_column;
    static constexpr auto get_in = lit_yyget_in;
    static constexpr auto set_in = lit_yyset_in;
    static constexpr auto get_out = lit_yyget_out;
    static constexpr auto set_out = lit_yyset_out;
    static constexpr auto get_debug = lit_yyget_debug;
    static constexpr auto set_debug = lit_yyset_debug;
    static constexpr auto alloc = lit_yyalloc;
    static constexpr auto realloc = lit_yyrealloc;
    static constexpr auto free = lit_yyfree;
};

struct ShiftJis {
    static constexpr auto init = lit_sjis_yylex_init;
    static constexpr auto init_alloc = lit_sjis_yylex_init_alloc;
    static constexpr auto destroy = lit_sjis_yylex_destroy;
    static constexpr auto lex = lit_sjis_yylex;
    static constexpr auto set_extra = lit_sjis_yyset_extra;
    static constexpr auto get_extra = lit_sjis_yyget_extra;
    static constexpr auto scan_string = lit_sjis_yy_scan_string;
    static constexpr auto scan_bytes = lit_sjis_yy_scan_bytes;
    static constexpr auto scan_buffer = lit_sjis_yy_scan_buffer;
    static constexpr auto create_buffer = lit_sjis_yy_create_buffer;
    static constexpr auto delete_buffer = lit_sjis_yy_delete_buffer;
    static constexpr auto switch_to_buffer = lit_sjis_yy_switch_to_buffer;
    static constexpr auto push = lit_sjis_yypush_buffer_state;
    static constexpr auto pop = lit_sjis_yypop_buffer_state;
    static constexpr auto flush = lit_sjis_yy_flush_buffer;
    static constexpr auto restart = lit_sjis_yyrestart;
    static constexpr auto get_lineno = lit_sjis_yyget_lineno;
    static constexpr auto set_lineno = lit_sjis_yyset_lineno;
    static constexpr auto get_column = lit_sjis_yyget_column;
    static constexpr auto set_column = lit_sjis_yyset_column;
    static constexpr auto get_in = lit_sjis_yyget_in;
    static constexpr auto set_in = lit_sjis_yyset_in;
    static constexpr auto get_out = lit_sjis_yyget_out;
    static constexpr auto set_out = lit_sjis_yyset_out;
    static constexpr auto get_debug = lit_sjis_yyget_debug;
    static constexpr auto set_debug = lit_sjis_yyset_debug;
    static constexpr auto alloc = lit_sjis_yyalloc;
    static constexpr auto realloc = lit_sjis_yyrealloc;
    static constexpr auto free = lit_sjis_yyfree;
};

template <class Scanner>
class ScannerOperations : public testing::Test {
  protected:
    ScannerOperations() {
        extra_.alloc = alloc_.get();
        extra_.literal_list = listc_new(alloc_.get());
        extra_.ap_info = &info_;
    }
    ~ScannerOperations() override {
        if (scan_ != nullptr)
            Scanner::destroy(scan_);
        free_literals(extra_.literal_list, alloc_.get());
        EXPECT_EQ(alloc_.still_out(), 0U);
    }

    // A scanner over the text in the record.
    void begin(const std::string &text) {
        text_ = text;
        extra_.stmt = text_.data();
        extra_.stmt_len = static_cast<unsigned int>(text_.size());
        ASSERT_EQ(Scanner::init_alloc(alloc_.get(), &scan_), 0);
        Scanner::set_extra(&extra_, scan_);
    }

    Texts recorded() {
        Texts texts;
        for (const literal_t &literal : literals_of(extra_.literal_list))
            texts.push_back(literal.text);
        return texts;
    }

    LedgerAllocator alloc_;
    auto_param_info_t info_ = {};
    literal_scanner_extra_t extra_ = {};
    std::string text_;
    yyscan_t scan_ = nullptr;
};

using Scanners = testing::Types<SingleByte, ShiftJis>;
TYPED_TEST_SUITE(ScannerOperations, Scanners);

TYPED_TEST(ScannerOperations, LexGoesOverTheWholeRecordAndReturnsZero) {
    this->begin("select 1, 2");
    EXPECT_EQ(TypeParam::lex(this->scan_), 0);
    EXPECT_THAT(this->recorded(), ElementsAre("1", "2"));
    EXPECT_EQ(this->extra_.stmt_len, 0U);
    EXPECT_EQ(this->extra_.stmt, this->text_.data() + 11);
}

TYPED_TEST(ScannerOperations, RecordIsReadInPiecesOf8192Bytes) {
    this->begin("create table" + std::string(20000, ' '));
    EXPECT_EQ(TypeParam::lex(this->scan_), 0);
    EXPECT_EQ(this->extra_.stmt, this->text_.data() + 8192);
    EXPECT_EQ(this->extra_.stmt_len, 20012U - 8192U);
}

TYPED_TEST(ScannerOperations, NewBufferHasRoomFor16384Bytes) {
    this->begin("select " + std::string(8190 + 8190, 'x'));
    const size_t before = this->alloc_.asked.size();
    TypeParam::lex(this->scan_);
    EXPECT_EQ(this->alloc_.asked.size(), before);
    TypeParam::destroy(this->scan_);
    this->begin("select " + std::string(16384, 'x'));
    TypeParam::lex(this->scan_);
    EXPECT_EQ(this->alloc_.asked.back(), 2 * 16384 + 2);
}

TYPED_TEST(ScannerOperations, BufferDoesNotGrowForQuotedTextAndComments) {
    const std::string fill(100000, 'x');
    this->begin("select '" + fill + "', \"" + fill + "\", /*" + fill + "*/ --" + fill + "\n, 1");
    TypeParam::lex(this->scan_);
    EXPECT_EQ(this->recorded().size(), 2U);
    // Beside the scanner and the text of the literal nothing of such a size was asked for.
    EXPECT_EQ(std::count_if(this->alloc_.asked.begin(), this->alloc_.asked.end(),
                            [](int64_t size) { return size > 10000; }),
              2);
}

TYPED_TEST(ScannerOperations, StopAtAWordFreesWhatWasRecorded) {
    this->begin("1, 'a' create 2");
    EXPECT_EQ(TypeParam::lex(this->scan_), 0);
    EXPECT_THAT(this->recorded(), IsEmpty());
}

TYPED_TEST(ScannerOperations, LexWithoutARecordReturnsZero) {
    ASSERT_EQ(TypeParam::init_alloc(this->alloc_.get(), &this->scan_), 0);
    EXPECT_EQ(TypeParam::lex(this->scan_), 0);
}

TYPED_TEST(ScannerOperations, LexEndsWithItsPlaceSet) {
    this->begin("select 1\n , 'a\nb' /* \n */ c");
    EXPECT_EQ(TypeParam::get_lineno(this->scan_), 1);
    EXPECT_EQ(TypeParam::get_column(this->scan_), 0);
    TypeParam::lex(this->scan_);
    EXPECT_EQ(TypeParam::get_lineno(this->scan_), 4);
    EXPECT_EQ(TypeParam::get_column(this->scan_), 5);
}

TYPED_TEST(ScannerOperations, LexThatStopsHasThePlaceBehindTheWord) {
    this->begin("\n\n create table");
    TypeParam::lex(this->scan_);
    EXPECT_EQ(TypeParam::get_lineno(this->scan_), 3);
    EXPECT_EQ(TypeParam::get_column(this->scan_), 7);
}

TYPED_TEST(ScannerOperations, PlaceMayBeSetBeforeThereIsABuffer) {
    this->begin("select 1");
    TypeParam::set_lineno(10, this->scan_);
    TypeParam::set_column(20, this->scan_);
    EXPECT_EQ(TypeParam::get_lineno(this->scan_), 10);
    EXPECT_EQ(TypeParam::get_column(this->scan_), 20);
    TypeParam::lex(this->scan_);
    EXPECT_EQ(TypeParam::get_lineno(this->scan_), 10);
    EXPECT_EQ(TypeParam::get_column(this->scan_), 28);
}

TYPED_TEST(ScannerOperations, WhatIsSetCanBeAskedFor) {
    ASSERT_EQ(TypeParam::init(&this->scan_), 0);
    EXPECT_EQ(TypeParam::get_extra(this->scan_), nullptr);
    EXPECT_EQ(TypeParam::get_in(this->scan_), nullptr);
    EXPECT_EQ(TypeParam::get_out(this->scan_), nullptr);
    EXPECT_EQ(TypeParam::get_debug(this->scan_), 0);
    TypeParam::set_extra(&this->extra_, this->scan_);
    TypeParam::set_in(stdin, this->scan_);
    TypeParam::set_out(stderr, this->scan_);
    TypeParam::set_debug(1, this->scan_);
    EXPECT_EQ(TypeParam::get_extra(this->scan_), &this->extra_);
    EXPECT_EQ(TypeParam::get_in(this->scan_), stdin);
    EXPECT_EQ(TypeParam::get_out(this->scan_), stderr);
    EXPECT_EQ(TypeParam::get_debug(this->scan_), 1);
}

TYPED_TEST(ScannerOperations, AllMemoryOfTheScannerIsItsAllocatorsAndGoesBack) {
    this->begin("select " + std::string(50000, 'x'));
    const size_t before = this->alloc_.still_out();
    TypeParam::lex(this->scan_);
    EXPECT_EQ(this->alloc_.still_out(), before + 1) << "a buffer of its own";
    TypeParam::destroy(this->scan_);
    this->scan_ = nullptr;
    EXPECT_EQ(this->alloc_.still_out(), 1U) << "the list";
}

TYPED_TEST(ScannerOperations, RefusalAtInitGoesToTheThrow) {
    this->alloc_.fail_at(static_cast<int64_t>(this->alloc_.asked.size()));
    EXPECT_EQ(client_try([&] { TypeParam::init_alloc(this->alloc_.get(), &this->scan_); }), -3003);
    EXPECT_EQ(this->alloc_.thrown, 1);
}

TYPED_TEST(ScannerOperations, WithoutAnAllocatorMemoryIsTheProcessHeaps) {
    for (const bool with_null : {false, true}) {
        yyscan_t scan = nullptr;
        ASSERT_EQ(with_null ? TypeParam::init_alloc(nullptr, &scan) : TypeParam::init(&scan), 0);
        const size_t before = this->alloc_.asked.size();
        std::string text = "create " + std::string(30000, ' ');
        this->extra_.stmt = text.data();
        this->extra_.stmt_len = static_cast<unsigned int>(text.size());
        TypeParam::set_extra(&this->extra_, scan);
        EXPECT_EQ(TypeParam::lex(scan), 0);
        EXPECT_EQ(TypeParam::destroy(scan), 0);
        EXPECT_EQ(this->alloc_.asked.size(), before);
    }
}

TYPED_TEST(ScannerOperations, InitWithoutAnAddressIsRefused) {
    errno = 0;
    EXPECT_EQ(TypeParam::init(nullptr), 1);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(TypeParam::init_alloc(this->alloc_.get(), nullptr), 1);
    EXPECT_EQ(errno, EINVAL);
}

TYPED_TEST(ScannerOperations, TextCanBeAString) {
    this->begin("select 1");
    ASSERT_NE(TypeParam::scan_string("select 'two'", this->scan_), nullptr);
    EXPECT_EQ(TypeParam::lex(this->scan_), 0);
    EXPECT_THAT(this->recorded(), ElementsAre("'two'"));
    EXPECT_EQ(this->extra_.stmt_len, 8U) << "the record is not read";
}

TYPED_TEST(ScannerOperations, TextCanBeBytesWithZerosAmongThem) {
    this->begin("");
    const std::string text("select '\0' , \0 7 \0"
                           "b\0",
                           21);
    ASSERT_NE(TypeParam::scan_bytes(text.data(), 21, this->scan_), nullptr);
    EXPECT_EQ(TypeParam::lex(this->scan_), 0);
    const std::vector<literal_t> found = literals_of(this->extra_.literal_list);
    ASSERT_EQ(found.size(), 2U);
    EXPECT_EQ(std::string(found[0].text, 4), std::string("'\0'\0", 4));
    EXPECT_STREQ(found[1].text, "7");
    EXPECT_EQ(found[1].offset, 15);
    EXPECT_EQ(TypeParam::get_column(this->scan_), 21);
}

TYPED_TEST(ScannerOperations, TextCanBeTheCallersBuffer) {
    this->begin("");
    char text[] = "select 12\0";
    ASSERT_NE(TypeParam::scan_buffer(text, sizeof text, this->scan_), nullptr);
    EXPECT_EQ(TypeParam::lex(this->scan_), 0);
    EXPECT_THAT(this->recorded(), ElementsAre("12"));
}

TYPED_TEST(ScannerOperations, BufferWithoutTwoZerosAtItsEndIsRefused) {
    this->begin("");
    char one_zero[] = "select 1";
    EXPECT_EQ(TypeParam::scan_buffer(one_zero, sizeof one_zero, this->scan_), nullptr);
    EXPECT_EQ(TypeParam::scan_buffer(one_zero, 1, this->scan_), nullptr);
}

TYPED_TEST(ScannerOperations, BuffersCanBeChangedAndStacked) {
    this->begin("select 1");
    const YY_BUFFER_STATE first = TypeParam::create_buffer(nullptr, 64, this->scan_);
    TypeParam::switch_to_buffer(first, this->scan_);
    const YY_BUFFER_STATE second = TypeParam::create_buffer(nullptr, 64, this->scan_);
    TypeParam::push(second, this->scan_);
    TypeParam::flush(second, this->scan_);
    TypeParam::pop(this->scan_); // deletes the second
    EXPECT_EQ(TypeParam::lex(this->scan_), 0);
    EXPECT_THAT(this->recorded(), ElementsAre("1"));
    TypeParam::delete_buffer(first, this->scan_);
    TypeParam::push(nullptr, this->scan_);
    TypeParam::pop(this->scan_);
    TypeParam::delete_buffer(nullptr, this->scan_);
    TypeParam::flush(nullptr, this->scan_);
}

TYPED_TEST(ScannerOperations, SmallBufferGrowsForALongWord) {
    const std::string word(5000, 'w');
    this->begin("select " + word + "1 2");
    TypeParam::switch_to_buffer(TypeParam::create_buffer(nullptr, 64, this->scan_), this->scan_);
    EXPECT_EQ(TypeParam::lex(this->scan_), 0);
    EXPECT_THAT(this->recorded(), ElementsAre("2"));
}

TYPED_TEST(ScannerOperations, RestartReadsTheRecordAnew) {
    this->begin("select 1");
    TypeParam::lex(this->scan_);
    std::string next = "select 2";
    this->extra_.stmt = next.data();
    this->extra_.stmt_len = 8;
    TypeParam::restart(nullptr, this->scan_);
    EXPECT_EQ(TypeParam::lex(this->scan_), 0);
    EXPECT_THAT(this->recorded(), ElementsAre("1", "2"));
}

TYPED_TEST(ScannerOperations, MemoryIsTheScannersOrTheProcessHeaps) {
    this->begin("");
    char *small = static_cast<char *>(TypeParam::alloc(10, this->scan_));
    memset(small, 2, 10);
    small = static_cast<char *>(TypeParam::realloc(small, 20, this->scan_));
    EXPECT_EQ(small[9], 2);
    void *block = TypeParam::alloc(100000, this->scan_);
    EXPECT_EQ(this->alloc_.asked.back(), 100000);
    block = TypeParam::realloc(block, 200000, this->scan_);
    EXPECT_EQ(this->alloc_.asked.back(), 200000);
    small = static_cast<char *>(TypeParam::realloc(small, 30000, this->scan_));
    EXPECT_EQ(this->alloc_.asked.back(), 30000);
    EXPECT_EQ(small[9], 2);
    TypeParam::free(small, this->scan_);
    TypeParam::free(block, this->scan_);
    EXPECT_EQ(this->alloc_.returned.back(), block);
    TypeParam::free(nullptr, this->scan_);

    const size_t asked = this->alloc_.asked.size();
    char *heap = static_cast<char *>(TypeParam::alloc(10, nullptr));
    memset(heap, 1, 10);
    heap = static_cast<char *>(TypeParam::realloc(heap, 20000, nullptr));
    EXPECT_EQ(heap[9], 1);
    TypeParam::free(heap, nullptr);
    EXPECT_EQ(this->alloc_.asked.size(), asked);
}

TYPED_TEST(ScannerOperations, BlockThatTheScannersAllocatorRefusesIsThrown) {
    this->begin("");
    this->alloc_.fail_at(static_cast<int64_t>(this->alloc_.asked.size()));
    EXPECT_EQ(client_try([&] { TypeParam::alloc(100000, this->scan_); }), -3003);
}

TYPED_TEST(ScannerOperations, BlockThatTheProcessHeapRefusesIsThrown) {
    ASSERT_EQ(TypeParam::init(&this->scan_), 0);
    const HeapWithoutLargeBlocks heap;
    EXPECT_EQ(client_try([&] { TypeParam::alloc(size_t{4} << 30, this->scan_); }), -3003);
    EXPECT_EQ(TypeParam::alloc(size_t{4} << 30, nullptr), nullptr);
}

template <class Scanner>
using ScannerOperationsDeathTest = ScannerOperations<Scanner>;
TYPED_TEST_SUITE(ScannerOperationsDeathTest, Scanners);

TYPED_TEST(ScannerOperationsDeathTest, TokenThatDoesNotFitTheCallersBufferEndsTheProcess) {
    this->begin("select " + std::string(100, 'x'));
    char buffer[20] = {};
    ASSERT_NE(TypeParam::scan_buffer(buffer, sizeof buffer, this->scan_), nullptr);
    TypeParam::restart(nullptr, this->scan_); // filled from the record from now on
    EXPECT_EXIT(TypeParam::lex(this->scan_), testing::ExitedWithCode(2),
                "^fatal error - scanner input buffer overflow\n$");
}

} // namespace
