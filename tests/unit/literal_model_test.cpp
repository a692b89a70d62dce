// The generated scanners against the plain matcher, on statements glued at random out of fragments
// of every kind.

#include <gtest/gtest.h>

#include <random>

#include "common/alloc/system_clialloc.h"
#include "support/ledger_allocator.h"
#include "support/literal_scan.h"

namespace {

const std::vector<std::string> kFragments = {
    "select",
    "SELECT",
    "insert ",
    "Update",
    "delete",
    "merge",
    "with ",
    "call",
    "selectx",
    "x",
    "N",
    "n",
    "a_1",
    "t1",
    "abc$#9",
    "e",
    "E5",
    "q",
    "_",
    "ab",
    "Nn",
    "xN",
    "1",
    "42",
    "1.5",
    ".5",
    "12.",
    ".",
    "..",
    "1e5",
    "1.e+3",
    ".5E-2",
    "1e",
    "1e+",
    "2E-",
    "007",
    "'",
    "''",
    "'a'",
    "'it''s'",
    "N'x'",
    "n''",
    "' -- '",
    "'/*'",
    "\"",
    "\"id\"",
    "\"it's\"",
    "\"1\"",
    "\"\"",
    ":",
    "::",
    ":1",
    ":a",
    ":SYS_B_1",
    ":sys_b_22",
    ":\"SYS_B_3\"",
    ":\"sys_b_4\"",
    ":\"SYS_b_5\"",
    ":SYS_B_",
    ":SYS_B_1x",
    ":B1",
    ":bb22",
    ":BBb333",
    ":\"B1\"",
    ":\"BB4444\"",
    ":\"Bb5\"",
    ":BB",
    ":ABCD1",
    ":abCd22",
    ":\"ABCD3\"",
    ":\"ABcD4\"",
    ":BBBB1",
    ":\"bbbb2\"",
    ":ABCDE1",
    ":\"open",
    ":\"x y\"",
    ":B12$",
    ":wxyz9#",
    "?",
    "-",
    "--",
    "-- c\n",
    "--'\n",
    "/",
    "*",
    "/*",
    "*/",
    "/**/",
    "/***/",
    "/*'*/",
    "/*+ hint 1 */",
    "/*/",
    " ",
    "  ",
    "\t",
    "\n",
    "\r\n",
    ",",
    "(",
    ")",
    "=",
    "<>",
    "||",
    ";",
    "@",
    "\\",
    "$",
    "#",
    "$1",
    "#2",
    "\x80",
    "\xFF",
    "\xB1",
    "\x83\x41",
    "\x83'",
    "\x81\x40",
    "\xE0\x80",
    "\xFC\xFC",
    "\x9F\x7E",
    "\x9F\x7F",
    "\xA0"
    "5",
    "\xC3\xA9",
    "\x83"
    "1",
    "\xE3\x81\x82",
    "\xFD\x41",
    "\xE0",
};

class LiteralModel : public testing::Test {
  protected:
    void compare(const std::string &text) {
        for (const bool is_sjis : {false, true}) {
            const literal_model::Result expected = literal_model::scan(text, is_sjis);
            const literal_model::Result found = scan_literals(
                text, is_sjis ? ZDSTR_CHARSET_SJIS : ZDSTR_CHARSET_UTF8, alloc_.get());
            ASSERT_TRUE(expected.literals == found.literals &&
                        literal_model::same_info(expected.info, found.info))
                << (is_sjis ? "Shift-JIS" : "single-byte") << ", of " << text.size()
                << " bytes: " << testing::PrintToString(text.substr(0, 400)) << ": "
                << expected.literals.size() << " literals expected, " << found.literals.size()
                << " found" << first_difference(expected, found);
            ASSERT_EQ(alloc_.still_out(), 0U);
            literals_met_ += found.info.literal_cnt;
        }
        alloc_.asked.clear();
        alloc_.returned.clear();
    }

    // The literals put back into the replaced text make the original.
    void convert_and_put_back(std::string text) {
        allocator_t *const alloc = alloc_.get();
        auto_param_info_t info;
        listc_t *const list =
            lit_cnv_get_literal_list(text.data(), 0, &info, ZDSTR_CHARSET_ASCII, alloc);
        char *const prefix = lit_cnv_get_param_prefix(&info, 0, alloc);
        char *const replaced = lit_cnv_get_replaced_sql(text.data(), prefix, list, alloc);
        ASSERT_EQ(literal_model::put_back(replaced, literals_of(list)), text);
        literals_met_ += info.literal_cnt;
        alloc_.release();
        alloc_.asked.clear();
        alloc_.returned.clear();
    }

    std::string glue(int fragments) {
        std::string text;
        for (int i = 0; i < fragments; i++)
            text += kFragments[random_() % kFragments.size()];
        return text;
    }

    int64_t literals_met_ = 0;
    LedgerAllocator alloc_;
    std::mt19937 random_{12345};

    // A comparison of empty lists would prove nothing.
    void TearDown() override { EXPECT_GT(literals_met_, 1000); }

  private:
    static std::string first_difference(const literal_model::Result &expected,
                                        const literal_model::Result &found) {
        for (size_t i = 0; i < expected.literals.size() && i < found.literals.size(); i++) {
            const literal_model::Literal &one = expected.literals[i];
            const literal_model::Literal &other = found.literals[i];
            if (!(one == other))
                return "; number " + std::to_string(i) + " is '" + one.text.substr(0, 40) +
                       "' at " + std::to_string(one.offset) + ", found '" +
                       other.text.substr(0, 40) + "' at " + std::to_string(other.offset);
        }
        return "";
    }
};

TEST_F(LiteralModel, AgreesOnEveryPairOfFragments) {
    for (const std::string &one : kFragments) {
        for (const std::string &other : kFragments) {
            ASSERT_NO_FATAL_FAILURE(compare(one + other));
            ASSERT_NO_FATAL_FAILURE(compare("select " + one + other));
            // Far enough from the end to be passed over in strides.
            ASSERT_NO_FATAL_FAILURE(
                compare("select " + one + other + " , the_rest_of_a_longer_statement"));
        }
    }
}

TEST_F(LiteralModel, AgreesOnShortStatementsGluedAtRandom) {
    for (int i = 0; i < 30000; i++)
        ASSERT_NO_FATAL_FAILURE(compare((i % 4 == 0 ? "" : "select ") + glue(i % 12)));
}

TEST_F(LiteralModel, AgreesOnLongStatementsGluedAtRandom) {
    for (int i = 0; i < 300; i++)
        ASSERT_NO_FATAL_FAILURE(compare("select " + glue(2000 + i * 20)));
}

TEST_F(LiteralModel, AgreesOnRandomBytesOfTheSignsThatMatter) {
    const std::string signs = "'\"::-/*.N1e+Bb_ \n,a\x83\x41\xB1";
    for (int i = 0; i < 30000; i++) {
        std::string text = "select ";
        for (int length = i % 97; length > 0; length--)
            text += signs[random_() % signs.size()];
        ASSERT_NO_FATAL_FAILURE(compare(text));
    }
}

TEST_F(LiteralModel, AgreesWhenAFragmentStraddlesTheEndOfABuffer) {
    for (const size_t boundary : {8192U, 16384U, 24576U}) {
        for (const std::string &fragment : kFragments) {
            for (size_t back = 0; back <= fragment.size() + 1; back++) {
                for (const char *filling : {" ", "x", ", "}) {
                    std::string text = "select ";
                    while (text.size() < boundary - back)
                        text += filling;
                    text.resize(boundary - back);
                    ASSERT_NO_FATAL_FAILURE(compare(text + fragment + "7'z' 8"));
                }
            }
        }
    }
}

TEST_F(LiteralModel, AgreesWhenTokensAreLongerThanABuffer) {
    for (const size_t length : {8180U, 8192U, 8193U, 16383U, 16384U, 16385U, 40000U, 100000U}) {
        for (const std::string &text : std::vector<std::string>{
                 std::string(length, 'x'),
                 std::string(length, '1'),
                 "1." + std::string(length, '2'),
                 "1e" + std::string(length, '2'),
                 ":B" + std::string(length, '2'),
                 ":" + std::string(length, 'B') + "1",
                 ":\"" + std::string(length, 'x') + "\"",
                 "'" + std::string(length, 'x') + "'",
                 "'" + std::string(length, '\'') + "x",
                 "N'" + std::string(length, 'x') + "''y'",
                 "\"" + std::string(length, 'x') + "\"",
                 "--" + std::string(length, '-') + "\n",
                 "/*" + std::string(length, '*') + "/",
                 "/*" + std::string(length, '/') + "*/",
                 std::string(length, '\n'),
                 std::string(length, '-'),
                 std::string(length, '\x83'),
             }) {
            ASSERT_NO_FATAL_FAILURE(compare("select " + text));
            ASSERT_NO_FATAL_FAILURE(compare("select " + text + "7'z' N'8' .5"));
            ASSERT_NO_FATAL_FAILURE(compare(text + " select 1"));
        }
    }
}

TEST_F(LiteralModel, EveryConversionCanBeUndone) {
    for (int i = 0; i < 3000; i++)
        ASSERT_NO_FATAL_FAILURE(convert_and_put_back("select " + glue(i % 60)));
    for (int i = 0; i < 20; i++)
        ASSERT_NO_FATAL_FAILURE(convert_and_put_back("select " + glue(5000)));
}

} // namespace
