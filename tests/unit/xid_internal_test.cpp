#include "common/xid_internal.h"

#include <gtest/gtest.h>
#include <string.h>

#include <string>

#include "support/abort_trap.h"
#include "support/guarded_bytes.h"

namespace {

// The parts as given; the bytes of data behind them are 0xEE.
xid_internal_t xid(int64_t format, const std::string &gtrid, const std::string &bqual) {
    xid_internal_t made;
    made.formatID = format;
    made.gtrid_length = static_cast<int64_t>(gtrid.size());
    made.bqual_length = static_cast<int64_t>(bqual.size());
    memset(made.data, 0xEE, sizeof made.data);
    memcpy(made.data, (gtrid + bqual).data(), gtrid.size() + bqual.size());
    return made;
}

std::string bytes_of(const void *from, size_t size) {
    return {static_cast<const char *>(from), size};
}

std::string bytes_of(const xid_internal_t &xid) {
    return bytes_of(&xid, sizeof xid);
}

// The condition that an assertion printed; empty when none failed.
template <class Code>
std::string asserted(Code code) {
    AbortTrap trap;
    if (!trap.aborts(code))
        return "";
    const std::string &text = trap.text();
    EXPECT_EQ(text.substr(0, 13), "xid_internal:") << text;
    const size_t start = text.find('\'') + 1;
    return text.substr(start, text.find("' (PID=") - start);
}

// ---- The record of the standard

TEST(XidConversion, CopiesNumbersAndAllDataBothWays) {
    XID standard;
    standard.formatID = -1;
    standard.gtrid_length = 2;
    standard.bqual_length = 3;
    for (int k = 0; k < 128; k++)
        standard.data[k] = static_cast<char>(k + 100);
    xid_internal_t inside;
    XID_to_xid_internal(&standard, &inside);
    EXPECT_EQ(inside.formatID, -1);
    EXPECT_EQ(inside.gtrid_length, 2);
    EXPECT_EQ(inside.bqual_length, 3);
    EXPECT_EQ(bytes_of(inside.data, 128), bytes_of(standard.data, 128));
    XID back;
    memset(&back, 0x55, sizeof back);
    xid_internal_to_XID(&inside, &back);
    EXPECT_EQ(bytes_of(&back, sizeof back), bytes_of(&standard, sizeof standard));
}

// ---- Full form

TEST(XidSerialize, WritesNumbersBigEndianAndAllDataAsItLies) {
    const xid_internal_t from = xid(0x0102030405060708, "AB", "C");
    char buf[153];
    memset(buf, 0x77, sizeof buf);
    xa_xid_internal_serialize(&from, buf);
    EXPECT_EQ(bytes_of(buf, 152), std::string("\x01\x02\x03\x04\x05\x06\x07\x08"
                                              "\0\0\0\0\0\0\0\x02"
                                              "\0\0\0\0\0\0\0\x01"
                                              "ABC",
                                              27) +
                                      std::string(125, '\xEE'));
    EXPECT_EQ(buf[152], 0x77);
}

TEST(XidSerialize, KeepsTheSignOfTheFormat) {
    const xid_internal_t from = xid(-2, "A", "B");
    char buf[152];
    xa_xid_internal_serialize(&from, buf);
    EXPECT_EQ(bytes_of(buf, 8), "\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFE");
}

TEST(XidSerialize, IsReadBackWhole) {
    for (const xid_internal_t &from :
         {xid(1, "AB", "C"), xid(-1, "", ""), xid(INT64_MIN, std::string(64, 'g'), "")}) {
        char buf[152];
        xa_xid_internal_serialize(&from, buf);
        xid_internal_t back;
        memset(&back, 0x55, sizeof back);
        xa_xid_internal_deserialize(buf, &back);
        EXPECT_EQ(bytes_of(back), bytes_of(from));
    }
}

TEST(XidDeserialize, ReadsBytesThatWereWrittenByHand) {
    const std::string bytes = std::string("\xFF\xFF\xFF\xFF\xFF\xFF\xFF\x9C"
                                          "\0\0\0\0\0\0\0\x03"
                                          "\0\0\0\0\0\0\0\x04"
                                          "gtrbqua",
                                          31) +
                              std::string(121, '\x33');
    GuardedBytes guarded(152);
    xid_internal_t read;
    xa_xid_internal_deserialize(guarded.hold(bytes), &read);
    EXPECT_EQ(read.formatID, -100);
    EXPECT_EQ(read.gtrid_length, 3);
    EXPECT_EQ(read.bqual_length, 4);
    EXPECT_EQ(bytes_of(read.data, 128), "gtrbqua" + std::string(121, '\x33'));
}

// ---- Compressed form

TEST(XidCompress, WritesTheFormatInTheOrderOfTheHostAndTheUsedBytesOnly) {
    const xid_internal_t from = xid(0x0102030405060708, "AB", "C");
    char buf[153];
    memset(buf, 0x77, sizeof buf);
    size_t len = 0;
    xa_xid_internal_compress(&from, buf, &len);
    EXPECT_EQ(len, 13u);
    // Little-endian: the library is for such machines alone.
    EXPECT_EQ(bytes_of(buf, 152), "\x08\x07\x06\x05\x04\x03\x02\x01"
                                  "\x02\x01"
                                  "ABC" +
                                      std::string(139, '\0'));
    EXPECT_EQ(buf[152], 0x77);
}

TEST(XidCompress, IsReadBackWithTheUnusedBytesZeroed) {
    const xid_internal_t from = xid(-5, "global", "branch");
    char buf[152];
    size_t len;
    xa_xid_internal_compress(&from, buf, &len);
    xid_internal_t back;
    memset(&back, 0x55, sizeof back);
    xa_xid_internal_decompress(buf, &back);
    EXPECT_EQ(back.formatID, -5);
    EXPECT_EQ(back.gtrid_length, 6);
    EXPECT_EQ(back.bqual_length, 6);
    EXPECT_EQ(bytes_of(back.data, 128), "globalbranch" + std::string(116, '\0'));
}

TEST(XidCompress, LongestPartsTakeAHundredAndThirtyEightBytes) {
    const xid_internal_t from = xid(1, std::string(64, 'g'), std::string(64, 'b'));
    char buf[152];
    size_t len = 0;
    xa_xid_internal_compress(&from, buf, &len);
    EXPECT_EQ(len, 138u);
    EXPECT_EQ(xa_xid_internal_get_compressed_len(&from), 138u);
    EXPECT_EQ(bytes_of(buf + 8, 2), "@@");
    EXPECT_EQ(bytes_of(buf + 138, 14), std::string(14, '\0'));
}

TEST(XidCompress, PartsNeedNotBeOfLikeLength) {
    const xid_internal_t from = xid(1, std::string(127, 'g'), "b");
    char buf[152];
    size_t len = 0;
    xa_xid_internal_compress(&from, buf, &len);
    EXPECT_EQ(len, 138u);
    xid_internal_t back;
    xa_xid_internal_decompress(buf, &back);
    EXPECT_EQ(bytes_of(back), bytes_of(from));
}

TEST(XidCompress, LengthIsTenMoreThanTheParts) {
    const xid_internal_t small = xid(1, "A", "B");
    EXPECT_EQ(xa_xid_internal_get_compressed_len(&small), 12u);
    const xid_internal_t empty = xid(1, "", "");
    EXPECT_EQ(xa_xid_internal_get_compressed_len(&empty), 10u);
}

TEST(XidDecompress, ReadsNoFurtherThanTheLengthsSay) {
    GuardedBytes guarded(64);
    xid_internal_t read;
    xa_xid_internal_decompress(guarded.hold(std::string("\x01\0\0\0\0\0\0\0\x02\x01"
                                                        "ABC",
                                                        13)),
                               &read);
    EXPECT_EQ(read.formatID, 1);
    EXPECT_EQ(bytes_of(read.data, 3), "ABC");
}

TEST(XidDecompress, TakesEmptyPartsThoughNoneAreWritten) {
    xid_internal_t read;
    memset(&read, 0x55, sizeof read);
    xa_xid_internal_decompress("\x07\0\0\0\0\0\0\0\0", &read);
    EXPECT_EQ(bytes_of(read), "\x07" + std::string(151, '\0'));
}

TEST(XidDecompress, RefusesMoreThanDataCanHold) {
    xid_internal_t read;
    const auto head = [](int gtrid, int bqual) {
        return std::string(8, '\0') + static_cast<char>(gtrid) + static_cast<char>(bqual) +
               std::string(510, 'x');
    };
    const auto condition_for = [&](int gtrid, int bqual) {
        const std::string bytes = head(gtrid, bqual); // outlives the abort
        return asserted([&] { xa_xid_internal_decompress(bytes.data(), &read); });
    };
    EXPECT_EQ(condition_for(64, 64), "");
    EXPECT_EQ(condition_for(128, 0), "");
    const char *const condition = "data_holds(gtrid_length, bqual_length)";
    EXPECT_EQ(condition_for(64, 65), condition);
    EXPECT_EQ(condition_for(129, 0), condition);
    EXPECT_EQ(condition_for(255, 255), condition);
}

// ---- Comparison

TEST(XidCompare, DifferentNumbersAreMinusOneBothWays) {
    const xid_internal_t base = xid(1, "AB", "C");
    for (const xid_internal_t &other :
         {xid(2, "AB", "C"), xid(1, "A", "C"), xid(1, "AB", "CD"), xid(1, "A", "BC")}) {
        EXPECT_EQ(xa_xid_internal_compare(&base, &other), -1);
        EXPECT_EQ(xa_xid_internal_compare(&other, &base), -1);
        EXPECT_EQ(xa_xid_internal_compare_gtrid(&base, &other), -1);
        EXPECT_EQ(xa_xid_internal_compare_gtrid(&other, &base), -1);
    }
}

TEST(XidCompare, TheFirstByteThatDiffersDecidesAsAnUnsignedNumber) {
    const xid_internal_t low = xid(1, "A\x7F", "Z");
    const xid_internal_t high = xid(1, "A\x80", "B");
    EXPECT_EQ(xa_xid_internal_compare(&low, &high), -1);
    EXPECT_EQ(xa_xid_internal_compare(&high, &low), 1);
    EXPECT_EQ(xa_xid_internal_compare_gtrid(&low, &high), -1);
    EXPECT_EQ(xa_xid_internal_compare_gtrid(&high, &low), 1);
    const xid_internal_t far = xid(1, "A\xFF", "B");
    EXPECT_EQ(xa_xid_internal_compare(&low, &far), -1);
    EXPECT_EQ(xa_xid_internal_compare(&far, &low), 1);
}

TEST(XidCompare, TheBranchQualifierCountsToo) {
    const xid_internal_t first = xid(1, "AB", "CD");
    const xid_internal_t second = xid(1, "AB", "CE");
    EXPECT_EQ(xa_xid_internal_compare(&first, &second), -1);
    EXPECT_EQ(xa_xid_internal_compare(&second, &first), 1);
}

TEST(XidCompare, UnusedBytesDoNotCount) {
    xid_internal_t first = xid(1, "AB", "C");
    xid_internal_t second = first;
    second.data[3] = 'x';
    EXPECT_EQ(xa_xid_internal_compare(&first, &second), 0);
    first.gtrid_length = first.bqual_length = second.gtrid_length = second.bqual_length = 0;
    second.data[0] = 'x';
    EXPECT_EQ(xa_xid_internal_compare(&first, &second), 0);
    EXPECT_EQ(xa_xid_internal_compare_gtrid(&first, &second), 0);
}

TEST(XidCompareGtrid, BranchesOfOneTransactionAreEqualWhenTheirQualifiersAreOfOneLength) {
    const xid_internal_t first = xid(1, "AB", "CD");
    const xid_internal_t same_length = xid(1, "AB", "XY");
    const xid_internal_t other_length = xid(1, "AB", "CDE");
    EXPECT_EQ(xa_xid_internal_compare_gtrid(&first, &same_length), 0);
    EXPECT_EQ(xa_xid_internal_compare_gtrid(&first, &other_length), -1);
}

TEST(XidCompare, LengthsBeyondDataReadNoFurther) {
    GuardedBytes guarded(152);
    xid_internal_t first = xid(1, "AB", "C");
    first.gtrid_length = 100;
    first.bqual_length = INT64_MAX;
    auto *const second = reinterpret_cast<const xid_internal_t *>(guarded.hold(bytes_of(first)));
    EXPECT_EQ(xa_xid_internal_compare(&first, second), 0);
    first.gtrid_length = INT64_MAX;
    guarded.hold(bytes_of(first));
    EXPECT_EQ(xa_xid_internal_compare_gtrid(&first, second), 0);
    first.gtrid_length = first.bqual_length = -1;
    guarded.hold(bytes_of(first));
    EXPECT_EQ(xa_xid_internal_compare(&first, second), 0);
}

// ---- Text form

// What to_str leaves in a buffer of 'z', as far as the first 'z' behind position buf_len.
std::string to_str(const xid_internal_t &xid, int buf_len) {
    std::string buf(1000, 'z');
    xa_xid_internal_to_str(&xid, buf.data(), buf_len);
    return buf.substr(0, static_cast<size_t>(buf_len) + 2);
}

TEST(XidText, HasThreeDigitsForEveryByteAndTheFormatLast) {
    EXPECT_EQ(to_str(xid(1, "AB", "C"), 100),
              "/065/066./067.1" + std::string(1, '\0') + std::string(86, 'z'));
    EXPECT_STREQ(to_str(xid(-77, std::string("\0\x09\xFF", 3), "\x64"), 100).c_str(),
                 "/000/009/255./100.-77");
    EXPECT_STREQ(to_str(xid(INT64_MIN, "", ""), 100).c_str(), "..-9223372036854775808");
}

TEST(XidText, ThatIsOneShorterThanTheLengthIsWhole) {
    EXPECT_EQ(to_str(xid(1, "AB", "C"), 16), std::string("/065/066./067.1\0zz", 18));
}

TEST(XidText, ThatIsCutLeavesALastByteAloneAndEndsBehindIt) {
    EXPECT_EQ(to_str(xid(1, "AB", "C"), 15), std::string("/065/066./067.z\0z", 17));
    EXPECT_EQ(to_str(xid(1, "AB", "C"), 5), std::string("/065z\0z", 7));
    EXPECT_EQ(to_str(xid(1, "AB", "C"), 1), std::string("z\0z", 3));
}

TEST(XidText, OfAPartLongerThanSixtyFourBytesIsNotWritten) {
    EXPECT_EQ(to_str(xid(1, std::string(65, 'g'), "b"), 100), std::string(102, 'z'));
    EXPECT_EQ(to_str(xid(1, "g", std::string(65, 'b')), 100), std::string(102, 'z'));
}

TEST(XidText, OfTheLongestPartsFits) {
    std::string expected;
    for (int k = 0; k < 64; k++)
        expected += "/103";
    expected += '.';
    for (int k = 0; k < 64; k++)
        expected += "/098";
    expected += ".-9223372036854775808";
    EXPECT_STREQ(to_str(xid(INT64_MIN, std::string(64, 'g'), std::string(64, 'b')), 600).c_str(),
                 expected.c_str());
}

TEST(XidText, OfNegativeLengthsReadsNothingBeforeData) {
    xid_internal_t negative = xid(3, "AB", "C");
    negative.gtrid_length = -8;
    EXPECT_STREQ(to_str(negative, 100).c_str(), "./065.3");
    negative.bqual_length = INT64_MIN;
    EXPECT_STREQ(to_str(negative, 100).c_str(), "..3");
}

// ---- What fails an assertion

TEST(XidPrecondition, MissingIdentifierIsRefused) {
    char buf[152];
    size_t len;
    xid_internal_t some = xid(1, "A", "B");
    XID standard;
    const char *const condition = "xid_internal != NULL";
    EXPECT_EQ(asserted([&] { xa_xid_internal_serialize(nullptr, buf); }), condition);
    EXPECT_EQ(asserted([&] { xa_xid_internal_deserialize(buf, nullptr); }), condition);
    EXPECT_EQ(asserted([&] { xa_xid_internal_compress(nullptr, buf, &len); }), condition);
    EXPECT_EQ(asserted([&] { xa_xid_internal_decompress(buf, nullptr); }), condition);
    EXPECT_EQ(asserted([&] { xa_xid_internal_get_compressed_len(nullptr); }), condition);
    EXPECT_EQ(asserted([&] { XID_to_xid_internal(&standard, nullptr); }), condition);
    EXPECT_EQ(asserted([&] { xid_internal_to_XID(nullptr, &standard); }), condition);
    EXPECT_EQ(asserted([&] { xa_xid_internal_compare(nullptr, &some); }), "xid_internal1 != NULL");
    EXPECT_EQ(asserted([&] { xa_xid_internal_compare(&some, nullptr); }), "xid_internal2 != NULL");
    EXPECT_EQ(asserted([&] { xa_xid_internal_compare_gtrid(nullptr, &some); }),
              "xid_internal1 != NULL");
    EXPECT_EQ(asserted([&] { xa_xid_internal_compare_gtrid(&some, nullptr); }),
              "xid_internal2 != NULL");
}

TEST(XidPrecondition, MissingBufferIsRefused) {
    size_t len;
    char buf[152];
    xid_internal_t some = xid(1, "A", "B");
    const char *const condition = "buf != NULL";
    EXPECT_EQ(asserted([&] { xa_xid_internal_serialize(&some, nullptr); }), condition);
    EXPECT_EQ(asserted([&] { xa_xid_internal_deserialize(nullptr, &some); }), condition);
    EXPECT_EQ(asserted([&] { xa_xid_internal_compress(&some, nullptr, &len); }), condition);
    EXPECT_EQ(asserted([&] { xa_xid_internal_decompress(nullptr, &some); }), condition);
    EXPECT_EQ(asserted([&] { xa_xid_internal_compress(&some, buf, nullptr); }), "len != NULL");
    EXPECT_EQ(asserted([&] { XID_to_xid_internal(nullptr, &some); }), "xid != NULL");
    EXPECT_EQ(asserted([&] { xid_internal_to_XID(&some, nullptr); }), "xid != NULL");
}

TEST(XidPrecondition, TextNeedsABufferAndALength) {
    xid_internal_t some = xid(1, "A", "B");
    char buf[8];
    const char *const condition = "xid_internal != NULL && buf != NULL && buf_len > 0";
    EXPECT_EQ(asserted([&] { xa_xid_internal_to_str(nullptr, buf, 7); }), condition);
    EXPECT_EQ(asserted([&] { xa_xid_internal_to_str(&some, nullptr, 7); }), condition);
    EXPECT_EQ(asserted([&] { xa_xid_internal_to_str(&some, buf, 0); }), condition);
    EXPECT_EQ(asserted([&] { xa_xid_internal_to_str(&some, buf, -1); }), condition);
}

TEST(XidPrecondition, EmptyPartsAreNotCompressed) {
    char buf[152];
    size_t len;
    xid_internal_t no_global = xid(1, "", "B");
    xid_internal_t no_branch = xid(1, "A", "");
    EXPECT_EQ(asserted([&] { xa_xid_internal_compress(&no_global, buf, &len); }),
              "xid_internal->gtrid_length");
    EXPECT_EQ(asserted([&] { xa_xid_internal_compress(&no_branch, buf, &len); }),
              "xid_internal->bqual_length");
}

TEST(XidPrecondition, PartsThatDataCannotHoldAreNotCompressed) {
    char buf[152];
    size_t len;
    for (const auto &[gtrid, bqual] : {std::pair<int64_t, int64_t>{64, 65},
                                       {129, 1},
                                       {-1, 3},
                                       {3, -1},
                                       {INT64_MAX, INT64_MAX}}) {
        xid_internal_t some = xid(1, "A", "B");
        some.gtrid_length = gtrid;
        some.bqual_length = bqual;
        EXPECT_EQ(asserted([&] { xa_xid_internal_compress(&some, buf, &len); }),
                  "data_holds(xid_internal->gtrid_length, xid_internal->bqual_length)");
    }
}

} // namespace
