#include "client/common/client_scan.h"

#include <ctype.h>
#include <string.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

#include "support/guarded_bytes.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// The tokens of a text, one call each.
std::vector<std::string> tokens_of(std::string text) {
    std::vector<std::string> tokens;
    char *cursor = nullptr;
    for (char *from = text.data(); cs_get_token(from, &cursor, 1) != nullptr; from = nullptr)
        tokens.push_back(cs_token_);
    return tokens;
}

TEST(CsGetToken, TokensRunToWhiteSpaceOrSlash) {
    EXPECT_THAT(tokens_of("select a,b\tfrom\nt;"), ElementsAre("select", "a,b", "from", "t;"));
    EXPECT_THAT(tokens_of("a\vb\fc\rd"), ElementsAre("a", "b", "c", "d"));
    EXPECT_THAT(tokens_of("a/b"), ElementsAre("a", "b"));
    EXPECT_THAT(tokens_of("a--b (c"), ElementsAre("a--b", "c"));
}

TEST(CsGetToken, LettersDigitsColonAndQuotesStartATokenAndNothingElse) {
    for (int c = 1; c < 256; c++) {
        const std::string text = std::string(1, static_cast<char>(c)) + "x";
        const bool starts = (c < 128 && isalnum(c)) || c == ':' || c == '\'' || c == '"';
        EXPECT_THAT(tokens_of(text), ElementsAre(starts ? text : "x")) << c;
    }
}

TEST(CsGetToken, QuotedTextEndsAtWhiteSpaceToo) {
    EXPECT_THAT(tokens_of("'it is' \"a b\" :1"), ElementsAre("'it", "is'", "\"a", "b\"", ":1"));
}

TEST(CsGetToken, CommentsAreSkipped) {
    EXPECT_THAT(tokens_of("/* a b */c/* d */-- e f\ng--h"), ElementsAre("c", "g--h"));
    EXPECT_THAT(tokens_of("-- a\r b"), IsEmpty()) << "a carriage return ends no comment";
    EXPECT_THAT(tokens_of("/*/ a */ b"), ElementsAre("b"));
    EXPECT_THAT(tokens_of("/**/a"), ElementsAre("a"));
    EXPECT_THAT(tokens_of("a /* /* */ b"), ElementsAre("a", "b")) << "they do not nest";
}

TEST(CsGetToken, CommentWithoutAnEndTakesTheRest) {
    EXPECT_THAT(tokens_of("a /* b"), ElementsAre("a"));
    EXPECT_THAT(tokens_of("a -- b"), ElementsAre("a"));
    EXPECT_THAT(tokens_of("a /*"), ElementsAre("a"));
    EXPECT_THAT(tokens_of("/*/"), IsEmpty());
}

TEST(CsGetToken, OtherCharactersArePassedOver) {
    EXPECT_THAT(tokens_of("(((select * from - / + t)"), ElementsAre("select", "from", "t)"));
    EXPECT_THAT(tokens_of("/ - *"), IsEmpty());
    EXPECT_THAT(tokens_of("("), IsEmpty());
}

TEST(CsGetToken, AnyTokenCanBeAskedFor) {
    char text[] = "one two /* x */ three";
    char *cursor = nullptr;
    EXPECT_EQ(cs_get_token(text, &cursor, 3), cs_token_);
    EXPECT_STREQ(cs_token_, "three");
    EXPECT_EQ(cursor, text + strlen(text));
    EXPECT_STREQ(cs_get_token(text, &cursor, 1), "one");
    EXPECT_EQ(cursor, text + 3);
    EXPECT_STREQ(cs_get_token(nullptr, &cursor, 2), "three") << "counted from the cursor";
}

TEST(CsGetToken, MissingTokenLeavesTheLastOneInPlace) {
    char text[] = "one two  ";
    char *cursor = nullptr;
    ASSERT_STREQ(cs_get_token(text, &cursor, 1), "one");
    EXPECT_EQ(cs_get_token(text, &cursor, 3), nullptr);
    EXPECT_EQ(cursor, text + 7) << "behind the last token that was passed";
    EXPECT_STREQ(cs_token_, "one");
    EXPECT_EQ(cs_get_token(text, &cursor, 0), nullptr) << "they are counted from 1";
    char none[] = " -- ";
    cursor = text;
    EXPECT_EQ(cs_get_token(none, &cursor, 1), nullptr);
    EXPECT_EQ(cursor, text);
}

TEST(CsGetToken, TokenIsCutTo128Characters) {
    std::string text =
        std::string(128, 'a') + " " + std::string(129, 'b') + " " + std::string(5000, 'c') + " d";
    EXPECT_THAT(tokens_of(text), ElementsAre(std::string(128, 'a'), std::string(128, 'b'),
                                             std::string(128, 'c'), "d"));
    EXPECT_EQ(sizeof cs_token_, 129u);
}

TEST(CsGetToken, NothingBehindTheTextIsRead) {
    GuardedBytes bytes(16);
    for (const char *text : {"", "a", "/", "/*", "/**", "-", "--", "a/", "a-", "(", "'"}) {
        char *cursor = nullptr;
        cs_get_token(bytes.hold(text + std::string(1, '\0')), &cursor, 2);
    }
}

cs_token_e class_of(std::string text, int n = 1) {
    char *cursor = nullptr;
    return cs_get_token_type(text.data(), &cursor, n);
}

struct Keyword {
    const char *text;
    int number;
};

void PrintTo(const Keyword &keyword, std::ostream *stream) {
    *stream << keyword.text;
}

class Classified : public testing::TestWithParam<Keyword> {};

TEST_P(Classified, InAnyCaseAndWithAnythingBehind) {
    const auto &[text, number] = GetParam();
    std::string lower = text;
    for (char &c : lower)
        c = static_cast<char>(tolower(c));
    EXPECT_EQ(class_of(text), number);
    EXPECT_EQ(class_of(lower), number);
    EXPECT_EQ(class_of(std::string(text) + "X"), number);
    EXPECT_EQ(class_of(std::string(text) + "; x"), number);
    EXPECT_EQ(class_of("X" + std::string(text)), TT_OTHERS);
}

INSTANTIATE_TEST_SUITE_P(
    CsGetTokenType, Classified,
    testing::Values(Keyword{"ALTER", 2}, Keyword{"BEGIN", 3}, Keyword{"CALL", 4},
                    Keyword{"CREATE", 5}, Keyword{"COMMENT", 6}, Keyword{"COMMIT", 7},
                    Keyword{"CURRENT", 8}, Keyword{"DECLARE", 9}, Keyword{"DELETE", 10},
                    Keyword{"DROP", 11}, Keyword{"GLOBAL", 12}, Keyword{"GRANT", 13},
                    Keyword{"INSERT", 14}, Keyword{"MERGE", 15}, Keyword{"NOAUDIT", 16},
                    Keyword{"OF", 17}, Keyword{"OR", 18}, Keyword{"PUBLIC", 19},
                    Keyword{"RENAME", 20}, Keyword{"REPLACE", 21}, Keyword{"REVOKE", 22},
                    Keyword{"ROLLBACK", 23}, Keyword{"SAVEPOINT", 24}, Keyword{"SELECT", 25},
                    Keyword{"SET", 26}, Keyword{"TABLE", 27}, Keyword{"TEMPORARY", 28},
                    Keyword{"TRUNCATE", 29}, Keyword{"UPDATE", 30}, Keyword{"WITH", 31},
                    Keyword{"EXPLAIN", 32}));

TEST(CsGetTokenType, FirstKeywordThatTheTokenBeginsWithGivesTheClass) {
    EXPECT_EQ(class_of("SELECTX"), TT_SELECT);
    EXPECT_EQ(class_of("ORDER"), TT_OR);
    EXPECT_EQ(class_of("OFFSET"), TT_OF);
    EXPECT_EQ(class_of("settings"), TT_SET);
}

TEST(CsGetTokenType, PartOfAKeywordIsNone) {
    EXPECT_EQ(class_of("SELEC"), TT_OTHERS);
    EXPECT_EQ(class_of("O"), TT_OTHERS);
    EXPECT_EQ(class_of("1"), TT_OTHERS);
}

TEST(CsGetTokenType, CommentsInFrontDoNotCount) {
    char text[] = "  /* c */ -- x\n  select 1";
    char *cursor = nullptr;
    EXPECT_EQ(cs_get_token_type(text, &cursor, 1), TT_SELECT);
    EXPECT_STREQ(cs_token_, "select");
    EXPECT_STREQ(cursor, " 1");
    EXPECT_EQ(cs_get_token_type(nullptr, &cursor, 1), TT_OTHERS);
    EXPECT_EQ(cs_get_token_type(nullptr, &cursor, 1), TT_EOL);
}

TEST(CsGetTokenType, TextWithoutThatTokenIsEndOfLine) {
    EXPECT_EQ(class_of(""), TT_EOL);
    EXPECT_EQ(class_of("-- select"), TT_EOL);
    EXPECT_EQ(class_of("create or replace", 4), TT_EOL);
    EXPECT_EQ(class_of("create or replace", 3), TT_REPLACE);
    EXPECT_EQ(TT_EOL, 0);
    EXPECT_EQ(TT_MAX, 33);
}

} // namespace
