#include "hex.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace programs;
using testing::ElementsAre;

// The starts of the lines; -1 where some are left out.
std::vector<int> starts(const Bytes &bytes) {
    std::vector<int> result;
    for (const HexLine &line : hex_lines(bytes))
        result.push_back(line.bytes.empty() ? -1 : static_cast<int>(line.at));
    return result;
}

TEST(HexLines, AreSixteenBytesLongAndTheLastAsLongAsItIs) {
    const Bytes bytes(35, 0x41);
    const std::vector<HexLine> lines = hex_lines(bytes);
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(to_hex(lines[0].bytes), "41414141414141414141414141414141");
    EXPECT_EQ(to_hex(lines[2].bytes), "414141");
    EXPECT_EQ(lines[2].at, 32u);
}

TEST(HexLines, OfNoBytesAreNone) {
    EXPECT_TRUE(hex_lines({}).empty());
}

TEST(HexLines, LeaveOutRunsOfZerosButNeitherTheFirstLineNorTheLast) {
    EXPECT_THAT(starts(Bytes(16, 0)), ElementsAre(0));
    EXPECT_THAT(starts(Bytes(32, 0)), ElementsAre(0, 16));
    EXPECT_THAT(starts(Bytes(48, 0)), ElementsAre(0, -1, 32));
    EXPECT_THAT(starts(Bytes(80, 0)), ElementsAre(0, -1, 64));
    Bytes bytes(112, 0);
    bytes[63] = 1;
    EXPECT_THAT(starts(bytes), ElementsAre(0, -1, 48, -1, 96));
}

TEST(Hex, IsReadInEitherCaseAndInPairsOnly) {
    EXPECT_EQ(from_hex("00fFAb"), (Bytes{0, 255, 171}));
    EXPECT_EQ(from_hex(""), Bytes());
    EXPECT_EQ(from_hex("0"), std::nullopt);
    EXPECT_EQ(from_hex("0g"), std::nullopt);
    EXPECT_EQ(from_hex("0 0"), std::nullopt);
}

} // namespace
