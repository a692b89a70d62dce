#include "value_format.h"

#include <gtest/gtest.h>

namespace {

using namespace zdepcall;

Bytes bytes_of(const char *hex) {
    return from_hex(hex).value();
}

std::string formatted(const char *type, const char *hex) {
    return format_value(*find_native_type(type), bytes_of(hex));
}

std::string json(const char *type, const char *hex) {
    return json_value(*find_native_type(type), bytes_of(hex));
}

TEST(ZdepcallHex, DigitsOfEitherCaseAreReadAndLowerCaseIsWritten) {
    EXPECT_EQ(to_hex(bytes_of("00fFAb")), "00ffab");
    EXPECT_EQ(to_hex(bytes_of("")), "");
}

TEST(ZdepcallHex, OddLengthAndOtherCharactersAreRefused) {
    for (const char *text : {"0", "000", "0g", "g0", " 0", "0x", "/0", ":0", "@0", "G0", "`0"})
        EXPECT_FALSE(from_hex(text).has_value()) << text;
}

TEST(ZdepcallValueFormat, NarrowIntegersAreReadFromTheLowBytesOfTheirCell) {
    EXPECT_EQ(formatted("char", "80ffff7f"), "-128");
    EXPECT_EQ(formatted("uchar", "80ffff7f"), "128");
    EXPECT_EQ(formatted("short", "feffaaaa"), "-2");
    EXPECT_EQ(formatted("ushort", "feffaaaa"), "65534");
    EXPECT_EQ(formatted("int", "00000080"), "-2147483648");
    EXPECT_EQ(formatted("uint", "00000080"), "2147483648");
    EXPECT_EQ(formatted("long", "ffffffffffffffff"), "-1");
    EXPECT_EQ(formatted("size_t", "ffffffffffffffff"), "18446744073709551615");
}

TEST(ZdepcallValueFormat, RealsAreWrittenAsShortAsTheyCanBeReadBack) {
    EXPECT_EQ(formatted("double", "9a9999999999b93f"), "0.1");
    EXPECT_EQ(formatted("float", "cdcccc3d"), "0.1");
    EXPECT_EQ(formatted("double", "000000000000f07f"), "inf");
}

TEST(ZdepcallValueFormat, NumberWithoutBytesIsNull) {
    EXPECT_EQ(formatted("int", ""), "NULL");
    EXPECT_EQ(json("int", ""), "null");
}

TEST(ZdepcallValueFormat, NumberWithTooFewBytesIsShownAsWhatItIs) {
    EXPECT_EQ(formatted("long", "01020304"), "01020304 (4 bytes are no long)");
    EXPECT_EQ(json("long", "01020304"), "null");
}

TEST(ZdepcallValueFormat, TextIsQuotedAndDisarmed) {
    EXPECT_EQ(formatted("string", ""), "\"\"");
    EXPECT_EQ(formatted("string", "61220a095c"), R"("a\"\n\t\\")");
    EXPECT_EQ(formatted("string", "1b5b327f"), R"("\x1b[2\x7f")");
    EXPECT_EQ(formatted("string", "c3a9"), "\"\xc3\xa9\"");
    EXPECT_EQ(formatted("string", "c29b"), R"("\xc2\x9b")");
    EXPECT_EQ(formatted("string", "e9"), R"("\xe9")");
}

TEST(ZdepcallValueFormat, BytesAreHexAndLongRunsAreCut) {
    EXPECT_EQ(formatted("raw", "0a0b"), "0a0b");
    EXPECT_EQ(formatted("raw", ""), "(no bytes)");
    EXPECT_EQ(formatted("raw", "0a0000000000000000"), "0a0000000000000000");
    EXPECT_EQ(formatted("raw", "0a000000000000000000"), "0a and 9 zero bytes");
    EXPECT_EQ(formatted("raw", "000000000000000000"), "9 zero bytes");
    const Bytes many(65, 0xff);
    EXPECT_EQ(format_value(*find_native_type("raw"), many),
              to_hex(ByteView(many).first(64)) + "... (65 bytes)");
}

TEST(ZdepcallValueFormat, JsonHasNumbersStringsAndHex) {
    EXPECT_EQ(json("int", "05000000"), "5");
    EXPECT_EQ(json("double", "0000000000000440"), "2.5");
    EXPECT_EQ(json("string", "61220a"), R"("a\"\n")");
    EXPECT_EQ(json("raw", "0a0b"), R"("0a0b")");
}

TEST(ZdepcallValueFormat, JsonHasNullForWhatItCannotSay) {
    EXPECT_EQ(json("double", "000000000000f07f"), "null");
    EXPECT_EQ(json("float", "0000c07f"), "null");
    EXPECT_EQ(json("string", "e9"), "null");
}

} // namespace
