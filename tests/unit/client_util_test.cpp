#include "client/common/client_util.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

std::string trimmed(const char *text) {
    std::string copy = text;
    return client_trim(copy.data());
}

TEST(ClientTrim, LeadingTabsAndBlanksGo) {
    EXPECT_EQ(trimmed(" \t x y"), "x y");
}

TEST(ClientTrim, LeadingNewlinesGoWithTheBlanksAfterThem) {
    EXPECT_EQ(trimmed("  \n  \n\n x"), "x");
}

TEST(ClientTrim, LeadingCarriageReturnStays) {
    EXPECT_EQ(trimmed("\r x"), "\r x");
}

TEST(ClientTrim, TrailingBlanksAndLineEndsGo) {
    EXPECT_EQ(trimmed("x \t\r\n \r\n"), "x");
}

TEST(ClientTrim, NothingButBlanksLeavesNothing) {
    EXPECT_EQ(trimmed(" \t\n \r\n"), "");
    EXPECT_EQ(trimmed(""), "");
}

TEST(ClientTrim, StartPointsIntoTheText) {
    char text[] = "  x  ";
    EXPECT_EQ(client_trim(text), text + 2);
    EXPECT_STREQ(text, "  x");
}

struct Option {
    std::string name;
    std::string value;
};

Option parsed(const std::string &line, int name_size = 32, int value_size = 1024) {
    char name[64];
    char value[2048];
    strcpy(name, "untouched");
    strcpy(value, "untouched");
    std::string copy = line;
    client_parse_value(copy.data(), name, name_size, value, value_size);
    return {name, value};
}

TEST(ClientParseValue, BlanksAroundNameAndValueGo) {
    const Option option = parsed(" LOG_LVL = 5 \r\n");
    EXPECT_EQ(option.name, "LOG_LVL");
    EXPECT_EQ(option.value, "5");
}

TEST(ClientParseValue, FirstEqualsSignSplits) {
    const Option option = parsed("a=b=c");
    EXPECT_EQ(option.name, "a");
    EXPECT_EQ(option.value, "b=c");
}

TEST(ClientParseValue, LineWithoutEqualsWritesNothing) {
    const Option option = parsed("LOG_LVL 5\n");
    EXPECT_EQ(option.name, "untouched");
    EXPECT_EQ(option.value, "untouched");
}

TEST(ClientParseValue, MissingSidesAreEmpty) {
    EXPECT_EQ(parsed("=5").name, "");
    EXPECT_EQ(parsed("=5").value, "5");
    EXPECT_EQ(parsed("LOG_DIR=\n").value, "");
}

TEST(ClientParseValue, HashAfterABlankBelongsToTheName) {
    EXPECT_EQ(parsed(" # LOG_LVL=5").name, "# LOG_LVL");
}

TEST(ClientParseValue, NameKeepsThirtyOneCharacters) {
    EXPECT_EQ(parsed(std::string(31, 'n') + "=1").name, std::string(31, 'n'));
    EXPECT_EQ(parsed(std::string(32, 'n') + "=1").name, std::string(31, 'n'));
}

TEST(ClientParseValue, ValueKeepsOneThousandAndTwentyThreeCharacters) {
    EXPECT_EQ(parsed("n=" + std::string(1023, 'v')).value, std::string(1023, 'v'));
    EXPECT_EQ(parsed("n=" + std::string(1024, 'v')).value, std::string(1023, 'v'));
}

TEST(ClientParseValue, CutTextIsTrimmedAfterTheCut) {
    EXPECT_EQ(parsed("n=ab  cd", 32, 4).value, "ab");
    EXPECT_EQ(parsed("n=  abcd", 32, 4).value, "a");
}

TEST(ClientParseValue, BufferOfOneByteGetsTheTerminator) {
    const Option option = parsed("name=value", 1, 1);
    EXPECT_EQ(option.name, "");
    EXPECT_EQ(option.value, "");
}

TEST(ClientAtoiKmg, PlainNumbersAreDecimal) {
    EXPECT_EQ(client_atoi_kmg("0"), 0);
    EXPECT_EQ(client_atoi_kmg("1048576"), 1048576);
    EXPECT_EQ(client_atoi_kmg("010"), 10);
    EXPECT_EQ(client_atoi_kmg("-7"), -7);
}

TEST(ClientAtoiKmg, UnitsOfBothCasesShift) {
    EXPECT_EQ(client_atoi_kmg("3K"), 3 * 1024);
    EXPECT_EQ(client_atoi_kmg("3k"), 3 * 1024);
    EXPECT_EQ(client_atoi_kmg("2M"), 2097152);
    EXPECT_EQ(client_atoi_kmg("2m"), 2097152);
    EXPECT_EQ(client_atoi_kmg("10m"), 10485760);
    EXPECT_EQ(client_atoi_kmg("1G"), 1073741824);
    EXPECT_EQ(client_atoi_kmg("1g"), 1073741824);
    EXPECT_EQ(client_atoi_kmg("-1K"), -1024);
}

TEST(ClientAtoiKmg, ShiftWrapsInThirtyTwoBits) {
    EXPECT_EQ(client_atoi_kmg("2G"), -2147483647 - 1);
    EXPECT_EQ(client_atoi_kmg("4G"), 0);
    EXPECT_EQ(client_atoi_kmg("5G"), 1073741824);
    EXPECT_EQ(client_atoi_kmg("4096M"), 0);
}

TEST(ClientAtoiKmg, UnitCountsAsTheLastCharacterAlone) {
    EXPECT_EQ(client_atoi_kmg("10 M"), 10485760);
    EXPECT_EQ(client_atoi_kmg("10MB"), 10);
    EXPECT_EQ(client_atoi_kmg("10x"), 10);
}

TEST(ClientAtoiKmg, WhatIsNoNumberIsZero) {
    EXPECT_EQ(client_atoi_kmg(""), 0);
    EXPECT_EQ(client_atoi_kmg("M"), 0);
    EXPECT_EQ(client_atoi_kmg("many"), 0);
}

} // namespace
