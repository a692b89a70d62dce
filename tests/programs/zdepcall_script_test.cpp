#include "script.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "usage_error.h"

namespace {

using programs::UsageError;
using testing::ElementsAre;
using testing::IsEmpty;
using zdepcall::split_words;

TEST(ZdepcallScript, BlanksAndTabsSeparateWords) {
    EXPECT_THAT(split_words("  lib.so\tadd  int=5 "), ElementsAre("lib.so", "add", "int=5"));
    EXPECT_THAT(split_words(" \t "), IsEmpty());
}

TEST(ZdepcallScript, SingleQuotesKeepEverything) {
    EXPECT_THAT(split_words(R"('string=a  "\#b')"), ElementsAre(R"(string=a  "\#b)"));
}

TEST(ZdepcallScript, DoubleQuotesKeepAllButTheBackslash) {
    EXPECT_THAT(split_words(R"("a 'b' \" \\ c")"), ElementsAre(R"(a 'b' " \ c)"));
}

TEST(ZdepcallScript, QuotesWithinAWordJoinIt) {
    EXPECT_THAT(split_words("string='a b'c\" d\""), ElementsAre("string=a bc d"));
}

TEST(ZdepcallScript, EmptyQuotesAreAWord) {
    EXPECT_THAT(split_words("'' \"\""), ElementsAre("", ""));
}

TEST(ZdepcallScript, BackslashTakesTheNextCharacter) {
    EXPECT_THAT(split_words(R"(a\ b \# \')"), ElementsAre("a b", "#", "'"));
}

TEST(ZdepcallScript, HashBeginsACommentOnlyAtTheStartOfAWord) {
    EXPECT_THAT(split_words("# all"), IsEmpty());
    EXPECT_THAT(split_words("a #b"), ElementsAre("a"));
    EXPECT_THAT(split_words("string=a#b"), ElementsAre("string=a#b"));
}

TEST(ZdepcallScript, WhatIsNotClosedIsRefused) {
    for (const char *line : {"'a", "\"a", "\"a\\\"", "a\\", "\"a\\"})
        EXPECT_THROW(split_words(line), UsageError) << line;
}

} // namespace
