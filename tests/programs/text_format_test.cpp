#include "text_format.h"

#include <gtest/gtest.h>

#include "hex.h"

namespace {

using namespace programs;

TEST(TextFormat, JsonStringsAreAlwaysValid) {
    EXPECT_EQ(json_string("a\x01\x1b\x7f"), R"("a\u0001\u001b\u007f")");
    EXPECT_EQ(json_string("\xc3\xa9\xe9"), "\"\xc3\xa9\\ufffd\"");
}

TEST(TextFormat, Utf8IsHeldToItsRules) {
    for (const char *text : {"", "a", "\xc2\x80", "\xe0\xa0\x80", "\xed\x9f\xbf",
                             "\xf0\x90\x80\x80", "\xf4\x8f\xbf\xbf"})
        EXPECT_TRUE(is_utf8(text)) << text;
    for (const char *text :
         {"\x80", "\xc0\x80", "\xc1\xbf", "\xc2", "\xe0\x9f\xbf", "\xed\xa0\x80",
          "\xf0\x8f\xbf\xbf", "\xf4\x90\x80\x80", "\xf5\x80\x80\x80", "\xe2\x82", "\xe2\x28\xa1"})
        EXPECT_FALSE(is_utf8(text)) << to_hex({reinterpret_cast<const uint8_t *>(text), 2});
}

TEST(TextFormat, AnObjectKeepsTheOrderOfItsMembers) {
    EXPECT_EQ(JsonObject().str(), "{}");
    EXPECT_EQ(JsonObject().member("b", "1").text("a", "x\"y").str(), R"({"b":1,"a":"x\"y"})");
}

TEST(TextFormat, AnArrayJoinsWhatIsJsonAlready) {
    EXPECT_EQ(json_array({}), "[]");
    EXPECT_EQ(json_array({"1", "\"two\"", "{}"}), R"([1,"two",{}])");
}

} // namespace
