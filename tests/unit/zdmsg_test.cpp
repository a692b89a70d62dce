#include "common/zdmsg/zdmsg.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "common/alloc/system_clialloc.h"
#include "common/zdmsg/zdmsg_setter_gen.h"
#include "common/zdmsg/zdmsg_validate.h"
#include "support/abort_trap.h"
#include "support/guarded_bytes.h"
#include "support/hostile.h"
#include "support/ledger_allocator.h"
#include "support/zdmsg_shapes.h"

namespace {

using testing::ContainsRegex;
using testing::HasSubstr;
using zdmsg_shapes::big_endian;

// Bytes from hex digits; anything else is there for the eye.
std::string hex(const char *digits) {
    const auto value = [](char c) { return c <= '9' ? c - '0' : c - 'A' + 10; };
    std::string bytes;
    int high = -1;
    for (; *digits != '\0'; digits++) {
        if (strchr("0123456789ABCDEF", *digits) == nullptr)
            continue;
        if (high < 0) {
            high = value(*digits);
        } else {
            bytes.push_back(static_cast<char>(high * 16 + value(*digits)));
            high = -1;
        }
    }
    return bytes;
}

std::string in_hex(const std::string &bytes) {
    std::string text;
    for (size_t i = 0; i < bytes.size(); i++) {
        char digits[4];
        snprintf(digits, sizeof digits, "%02X", static_cast<unsigned char>(bytes[i]));
        text += digits;
        if (i % 4 == 3)
            text += ' ';
    }
    return text;
}

#define EXPECT_BYTES(actual, expected) EXPECT_EQ(in_hex(actual), in_hex(expected))

// The whole message as bytes. It must take up exactly what was announced.
std::string serialized(zdmsg_t *msg) {
    const size_t size = static_cast<size_t>(zdmsg_get_msg_raw_size(msg));
    std::string bytes(size + 8, '\x77');
    zdmsg_serialize(nullptr, msg, bytes.data());
    EXPECT_EQ(bytes.substr(size), std::string(8, '\x77')) << "written past the announced size";
    EXPECT_EQ(msg->body_size, size - ZDMSG_HDR_SIZE);
    return bytes.substr(0, size);
}

std::string body_of(zdmsg_t *msg) {
    return serialized(msg).substr(ZDMSG_HDR_SIZE);
}

template <class Message>
void decode(LedgerAllocator &alloc, Message *msg, int type, std::string &body) {
    msg->base.type = type;
    msg->base.body_size = static_cast<uint32_t>(body.size());
    zdmsg_deserialize_body(alloc.get(), &msg->base, body.data());
}

// ---- Header and framing

TEST(ZdmsgHeader, HoldsTypeBodySizeAndTransactionNumberBigEndian) {
    zdmsg_ok_reply_t msg;
    zdmsg_ok_reply_set(&msg, "abc");
    zdmsg_set_tsn(&msg.base, 0x0102030405060708u);
    EXPECT_BYTES(serialized(&msg.base),
                 hex("0000004B 00000008 01020304 05060708 | 00000003 61626300"));
}

TEST(ZdmsgHeader, HasTransactionNumberZeroWhenNoneWasSet) {
    zdmsg_extproc_execute_reply_t msg;
    zdmsg_extproc_execute_reply_set(&msg, nullptr, 0, nullptr, 0, nullptr);
    EXPECT_BYTES(serialized(&msg.base).substr(0, 16), hex("0000008C 00000014 00000000 00000000"));
}

TEST(ZdmsgHeader, IsAllOfAMessageWithoutFields) {
    zdmsg_commit_t msg;
    zdmsg_commit_set(&msg);
    EXPECT_EQ(zdmsg_get_msg_raw_size(&msg.base), 16);
    EXPECT_BYTES(serialized(&msg.base), hex("00000017 00000000 00000000 00000000"));
}

TEST(ZdmsgSerialize, SetsRawAndRecomputesTheBodySize) {
    zdmsg_fetch_t msg;
    zdmsg_fetch_set(&msg, 1, 2);
    msg.base.body_size = 12345;
    char buffer[24];
    zdmsg_serialize(nullptr, &msg.base, buffer);
    EXPECT_EQ(msg.base.raw, buffer);
    EXPECT_EQ(msg.base.body_size, 8u);
}

TEST(ZdmsgSerialize, BodyAloneGoesWhereTheOffsetSays) {
    zdmsg_fetch_t msg;
    zdmsg_fetch_set(&msg, 1, -2);
    std::string buffer(16, '\x77');
    msg.base.raw = buffer.data();
    msg.base.body_size = 99;
    zdmsg_serialize_body(&msg.base, 4);
    EXPECT_BYTES(buffer, hex("77777777 00000001 FFFFFFFE 77777777"));
    EXPECT_EQ(msg.base.body_size, 8u);
}

TEST(ZdmsgSerialize, BodyOfAMessageWithoutFieldsIsEmpty) {
    zdmsg_commit_t msg;
    zdmsg_commit_set(&msg);
    char buffer = 'x';
    msg.base.raw = &buffer;
    msg.base.body_size = 99;
    zdmsg_serialize_body(&msg.base, 16);
    EXPECT_EQ(msg.base.body_size, 0u);
    EXPECT_EQ(buffer, 'x');
}

TEST(ZdmsgSetTsn, StoresTheNumber) {
    zdmsg_commit_t msg;
    zdmsg_commit_set(&msg);
    zdmsg_set_tsn(&msg.base, UINT64_MAX);
    EXPECT_EQ(msg.base.tsn, UINT64_MAX);
}

struct ChunkCase {
    int data_len;
    const char *head;
    int zeros;
};

class ZdmsgChunk : public testing::TestWithParam<ChunkCase> {};

TEST_P(ZdmsgChunk, HeadDataAndZerosAreWhatTheWholeMessageWouldBe) {
    const ChunkCase &chunk = GetParam();
    const std::string data(static_cast<size_t>(chunk.data_len), 'd');
    std::string head(20, '\x77');
    // The data is not read, so its address need not be one.
    char *const nowhere = reinterpret_cast<char *>(1);
    const int zeros = zdmsg_serialize_chunk(head.data(), nowhere, chunk.data_len);
    EXPECT_EQ(zeros, chunk.zeros);
    EXPECT_BYTES(head, hex(chunk.head));

    zdmsg_tmc_chunk_t msg;
    zdmsg_tmc_chunk_set(&msg, chunk.data_len, data.data());
    EXPECT_BYTES(head + data + std::string(static_cast<size_t>(zeros), '\0'),
                 serialized(&msg.base));
}

INSTANTIATE_TEST_SUITE_P(
    Lengths, ZdmsgChunk,
    testing::Values(ChunkCase{0, "000000CF 00000008 00000000 00000000 00000000", 4},
                    ChunkCase{1, "000000CF 00000008 00000000 00000000 00000001", 3},
                    ChunkCase{3, "000000CF 00000008 00000000 00000000 00000003", 1},
                    ChunkCase{4, "000000CF 0000000C 00000000 00000000 00000004", 4},
                    ChunkCase{5, "000000CF 0000000C 00000000 00000000 00000005", 3}));

TEST(ZdmsgChunk, LongestDataStillHasARightBodySize) {
    char head[20];
    EXPECT_EQ(zdmsg_serialize_chunk(head, nullptr, INT32_MAX), 1);
    EXPECT_BYTES(std::string(head, 20), hex("000000CF 80000004 00000000 00000000 7FFFFFFF"));
}

// ---- Encoding

std::string encoded_text(const char *text) {
    zdmsg_ok_reply_t msg;
    zdmsg_ok_reply_set(&msg, text);
    return body_of(&msg.base);
}

TEST(ZdmsgEncode, StringIsFollowedByZerosToTheNextMultipleOfFour) {
    EXPECT_BYTES(encoded_text("abc"), hex("00000003 61626300"));
    EXPECT_BYTES(encoded_text("abcd"), hex("00000004 61626364 00000000"));
    EXPECT_BYTES(encoded_text("abcde"), hex("00000005 61626364 65000000"));
}

TEST(ZdmsgEncode, EmptyAndMissingStringsAreFourZeroBytesLong) {
    EXPECT_BYTES(encoded_text(""), hex("00000000 00000000"));
    EXPECT_BYTES(encoded_text(nullptr), hex("00000000 00000000"));
}

TEST(ZdmsgEncode, IntegersKeepTheirSign) {
    zdmsg_xa_open_t msg;
    zdmsg_xa_open_set(&msg, -1, INT32_MIN, INT32_MAX, 0x01020304);
    EXPECT_BYTES(body_of(&msg.base), hex("FFFFFFFF 80000000 7FFFFFFF 01020304"));
}

TEST(ZdmsgEncode, FixedFieldsAreCopiedAsTheyLieInMemory) {
    zdmsg_tmc_reply_t msg;
    zdmsg_tmc_reply_set(&msg, "\x01\x02\x03\x04\x05\x06\x07\x08", 9);
    EXPECT_BYTES(body_of(&msg.base), hex("01020304 05060708 00000009"));
}

// The bytes of one column value.
std::string encoded_column(int32_t len, const char *data) {
    zdmsg_struct_bindparam_t param;
    zdmsg_struct_bindparam_set(&param, 7, len, data);
    zdmsg_tmc_anon_psm_t msg;
    zdmsg_tmc_anon_psm_set(&msg, 0, nullptr, 1, &param);
    const std::string body = body_of(&msg.base);
    EXPECT_BYTES(body.substr(0, 20), hex("00000000 | 00000000 00000000 | 00000001 | 00000007"));
    return body.substr(20);
}

std::string encoded_column(const std::string &data) {
    return encoded_column(static_cast<int32_t>(data.size()), data.data());
}

TEST(ZdmsgEncode, ShortColumnsHaveAOneBytePrefix) {
    EXPECT_BYTES(encoded_column(""), hex("00000000"));
    EXPECT_BYTES(encoded_column("a"), hex("01610000"));
    EXPECT_BYTES(encoded_column("ab"), hex("02616200"));
    EXPECT_BYTES(encoded_column("abc"), hex("03616263 00000000"));
}

TEST(ZdmsgEncode, MissingColumnDataIsAnEmptyColumn) {
    EXPECT_BYTES(encoded_column(0, nullptr), hex("00000000"));
    EXPECT_BYTES(encoded_column(-5, nullptr), hex("00000000"));
}

TEST(ZdmsgEncode, ColumnPrefixGrowsToThreeBytesAboveTwoHundredFifty) {
    const std::string data(300, 'd');
    EXPECT_BYTES(encoded_column(data.substr(0, 250)), "\xFA" + data.substr(0, 250) + '\0');
    EXPECT_BYTES(encoded_column(data.substr(0, 251)),
                 hex("FE00FB") + data.substr(0, 251) + hex("0000"));
    const std::string longer = encoded_column(data);
    EXPECT_BYTES(longer, hex("FE012C") + data + '\0');
    EXPECT_EQ(longer.size(), 304u);
}

TEST(ZdmsgEncode, LongestColumnFillsBothLengthBytes) {
    const std::string data(65535, 'd');
    EXPECT_BYTES(encoded_column(data), hex("FEFFFF") + data + hex("0000"));
}

TEST(ZdmsgEncode, OnlySixteenBitsOfAColumnLengthChooseThePrefix) {
    // Two bytes of prefix too few to carry it, and yet all of the data follows.
    const std::string data(65536 + 251, 'd');
    EXPECT_BYTES(encoded_column(data.substr(0, 65536)),
                 hex("00") + data.substr(0, 65536) + hex("000000"));
    EXPECT_BYTES(encoded_column(data.substr(0, 65536 + 10)),
                 hex("0A") + data.substr(0, 65536 + 10) + hex("00"));
    EXPECT_BYTES(encoded_column(data.substr(0, 65536 + 250)),
                 hex("FA") + data.substr(0, 65536 + 250) + hex("00"));
    EXPECT_BYTES(encoded_column(data), hex("FE00FB") + data + hex("0000"));
}

TEST(ZdmsgEncode, ReplyWithOneValueMatchesTheKnownBytes) {
    zdmsg_struct_extproc_reply_param_t value;
    zdmsg_struct_extproc_reply_param_set(&value, 4, "\x01\x02\x03\x04");
    zdmsg_extproc_execute_reply_t msg;
    zdmsg_extproc_execute_reply_set(&msg, nullptr, 0, nullptr, 1, &value);
    EXPECT_BYTES(body_of(&msg.base), hex("00000000 00000000 | 00000000 00000000 | 00000001 |"
                                         "00000004 01020304 00000000"));
    EXPECT_EQ(msg.base.body_size, 32u);
}

TEST(ZdmsgEncode, RequestMatchesTheKnownBytes) {
    zdmsg_struct_extproc_param_t params[2];
    zdmsg_struct_extproc_param_set(&params[0], 0x01020A03, 16, 2, "hi");
    zdmsg_struct_extproc_param_set(&params[1], 0x00000100, 4, 0, nullptr);
    zdmsg_extproc_execute_t msg;
    zdmsg_extproc_execute_set(&msg, "/u/lib.so", "fn", 0x0100, 1, 2, params);
    EXPECT_BYTES(serialized(&msg.base),
                 hex("0000008B 00000044 00000000 00000000 |"
                     "00000009 2F752F6C 69622E73 6F000000 | 00000002 666E0000 |"
                     "00000100 | 00000001 | 00000002 |"
                     "01020A03 00000010 00000002 68690000 |"
                     "00000100 00000004 00000000 00000000"));
}

TEST(ZdmsgEncode, RequestWithoutParametersCarriesTheCountZero) {
    zdmsg_extproc_execute_t msg;
    zdmsg_extproc_execute_set(&msg, "a", "b", 2, 3, 0, nullptr);
    EXPECT_BYTES(body_of(&msg.base),
                 hex("00000001 61000000 00000001 62000000 00000002 00000003 00000000"));
}

TEST(ZdmsgEncode, NegativeArrayCountIsWrittenAndBringsNoElements) {
    zdmsg_extproc_execute_t msg;
    zdmsg_extproc_execute_set(&msg, nullptr, nullptr, 2, 3, -4, nullptr);
    EXPECT_BYTES(body_of(&msg.base),
                 hex("00000000 00000000 00000000 00000000 00000002 00000003 FFFFFFFC"));
}

TEST(ZdmsgEncode, ArraysNestInsideElements) {
    zdmsg_struct_bindparam_udt_t inner[2];
    zdmsg_struct_bindparam_udt_set(&inner[0], 21, 1, "x", 0, nullptr);
    zdmsg_struct_bindparam_udt_set(&inner[1], 22, 0, nullptr, 0, nullptr);
    zdmsg_struct_bindparam_udt_t outer;
    zdmsg_struct_bindparam_udt_set(&outer, 11, 2, "ab", 2, inner);
    zdmsg_execute_udt_t msg;
    zdmsg_execute_udt_set(&msg, "PPIDPPID", 1, 2, 1, &outer);
    EXPECT_BYTES(body_of(&msg.base), hex("50504944 50504944 00000001 00000002 | 00000001 |"
                                         "0000000B 02616200 00000002 |"
                                         "00000015 01780000 00000000 |"
                                         "00000016 00000000 00000000"));
}

// ---- Decoding

TEST(ZdmsgDecode, RequestIsReadInPlace) {
    std::string body = hex("00000009 2F752F6C 69622E73 6F000000 | 00000002 666E0000 |"
                           "00000100 | FFFFFFFF | 00000002 |"
                           "01020A03 00000010 00000002 68690000 |"
                           "00000100 00000004 00000000 00000000");
    LedgerAllocator alloc;
    zdmsg_extproc_execute_t msg;
    msg.base.str_auto_free = 1;
    decode(alloc, &msg, ZDMSG_EXTPROC_EXECUTE, body);
    EXPECT_EQ(msg.base.raw, body.data());
    EXPECT_EQ(msg.base.str_auto_free, 0);
    EXPECT_EQ(msg.library_path.len, 9);
    EXPECT_EQ(msg.library_path.data, body.data() + 4);
    EXPECT_STREQ(msg.library_path.data, "/u/lib.so");
    EXPECT_EQ(msg.function_name.len, 2);
    EXPECT_EQ(msg.function_name.data, body.data() + 20);
    EXPECT_EQ(msg.property, 0x100);
    EXPECT_EQ(msg.return_flag, -1);
    ASSERT_EQ(msg.param.array_cnt, 2);
    EXPECT_EQ(msg.param.data[0].flag, 0x01020A03);
    EXPECT_EQ(msg.param.data[0].maxlen, 16);
    EXPECT_EQ(msg.param.data[0].data_value.len, 2);
    EXPECT_EQ(msg.param.data[0].data_value.data, body.data() + 48);
    EXPECT_EQ(msg.param.data[1].flag, 0x100);
    EXPECT_EQ(msg.param.data[1].data_value.len, 0);
    EXPECT_EQ(msg.param.data[1].data_value.data, body.data() + 64);
}

TEST(ZdmsgDecode, ParameterFlagHoldsMethodModeTypeAndExtension) {
    std::string body = hex("00000000 00000000 00000000 00000000 00000000 00000000 |"
                           "00000001 | 01020A03 00000000 00000000 00000000");
    LedgerAllocator alloc;
    zdmsg_extproc_execute_t msg;
    decode(alloc, &msg, ZDMSG_EXTPROC_EXECUTE, body);
    const int flag = msg.param.data[0].flag;
    EXPECT_EQ(flag >> 24 & 0xff, 1);
    EXPECT_EQ(flag >> 16 & 0xff, 2);
    EXPECT_EQ(flag >> 8 & 0xff, 10);
    EXPECT_EQ(flag & 0xff, 3);
}

TEST(ZdmsgDecode, ArraysComeFromTheAllocatorInOneRequestEach) {
    std::string body = hex("00000000 00000000 00000000 00000000 00000000 00000000 | 00000002 |"
                           "00000001 00000000 00000000 00000000 |"
                           "00000002 00000000 00000000 00000000");
    LedgerAllocator alloc;
    zdmsg_extproc_execute_t msg;
    decode(alloc, &msg, ZDMSG_EXTPROC_EXECUTE, body);
    ASSERT_EQ(alloc.asked.size(), 1u);
    EXPECT_EQ(alloc.asked[0], int64_t{2 * sizeof(zdmsg_struct_extproc_param_t)});
    EXPECT_EQ(alloc.last_file, "zdmsg");
    EXPECT_GT(alloc.last_line, 0);
}

TEST(ZdmsgDecode, EmptyArrayHasNoDataAndTakesNoMemory) {
    std::string body = hex("00000000 00000000 00000000 00000000 00000000 00000000 00000000");
    LedgerAllocator alloc;
    zdmsg_extproc_execute_t msg;
    msg.param.data = reinterpret_cast<zdmsg_struct_extproc_param_t *>(1);
    decode(alloc, &msg, ZDMSG_EXTPROC_EXECUTE, body);
    EXPECT_EQ(msg.param.array_cnt, 0);
    EXPECT_EQ(msg.param.data, nullptr);
    EXPECT_TRUE(alloc.asked.empty());
    zdmsg_free(alloc.get(), &msg.base);
    EXPECT_TRUE(alloc.returned.empty());
}

TEST(ZdmsgDecode, NegativeArrayCountIsKeptAndTakesNoMemory) {
    std::string body = hex("00000000 00000000 00000000 00000000 00000000 00000000 FFFFFFFF");
    LedgerAllocator alloc;
    zdmsg_extproc_execute_t msg;
    decode(alloc, &msg, ZDMSG_EXTPROC_EXECUTE, body);
    EXPECT_EQ(msg.param.array_cnt, -1);
    EXPECT_EQ(msg.param.data, nullptr);
    EXPECT_TRUE(alloc.asked.empty());
    zdmsg_free(alloc.get(), &msg.base);
    EXPECT_TRUE(alloc.returned.empty());
}

TEST(ZdmsgDecode, MessageWithoutFieldsIgnoresItsBody) {
    std::string body = hex("DEADBEEF");
    LedgerAllocator alloc;
    zdmsg_commit_t msg;
    decode(alloc, &msg, ZDMSG_COMMIT, body);
    EXPECT_EQ(msg.base.raw, body.data());
}

TEST(ZdmsgDecode, BytesBehindTheLastFieldAreIgnored) {
    std::string body = hex("00000001 00000002 DEADBEEF");
    LedgerAllocator alloc;
    zdmsg_fetch_t msg;
    decode(alloc, &msg, ZDMSG_FETCH, body);
    EXPECT_EQ(msg.csrid, 1);
    EXPECT_EQ(msg.fetch_row_chunk_cnt, 2);
}

TEST(ZdmsgDecode, FixedFieldIsCopiedIntoTheRecord) {
    std::string body = hex("01020304 05060708 00000009");
    LedgerAllocator alloc;
    zdmsg_tmc_reply_t msg;
    decode(alloc, &msg, ZDMSG_TMC_REPLY, body);
    EXPECT_BYTES(std::string(msg.xid, 8), hex("01020304 05060708"));
    EXPECT_EQ(msg.handle, 9);
}

// One decoded column: where its bytes start, and how many belong to it, prefix included.
class ZdmsgDecodeColumn : public testing::Test {
  protected:
    void decode_column(const std::string &column) {
        body_ = hex("00000000 | 00000000 00000000 | 00000002 | 00000007") + column +
                hex("00000008 01780000");
        decode(alloc_, &msg_, ZDMSG_TMC_ANON_PSM, body_);
        EXPECT_EQ(msg_.param_info.data[0].data_value.data, body_.data() + 20);
        // What follows is found where the column ends.
        EXPECT_EQ(msg_.param_info.data[1].flag, 8);
        EXPECT_EQ(msg_.param_info.data[1].data_value.len, 2);
    }
    [[nodiscard]] int32_t len() const { return msg_.param_info.data[0].data_value.len; }

    LedgerAllocator alloc_;
    std::string body_;
    zdmsg_tmc_anon_psm_t msg_;
};

TEST_F(ZdmsgDecodeColumn, KeepsItsOneBytePrefix) {
    decode_column(hex("00000000"));
    EXPECT_EQ(len(), 1);
    decode_column(hex("03616263 00000000"));
    EXPECT_EQ(len(), 4);
    decode_column("\xFA" + std::string(250, 'd') + '\0');
    EXPECT_EQ(len(), 251);
}

TEST_F(ZdmsgDecodeColumn, KeepsItsThreeBytePrefix) {
    decode_column(hex("FE012C") + std::string(300, 'd') + '\0');
    EXPECT_EQ(len(), 303);
    // Shorter than a writer would choose this form for, but read all the same.
    decode_column(hex("FE000261 62000000"));
    EXPECT_EQ(len(), 5);
    decode_column(hex("FE000000"));
    EXPECT_EQ(len(), 3);
}

TEST_F(ZdmsgDecodeColumn, PrefixesThatNoWriterMakesCountAsOneOrThreeBytes) {
    for (const char *first : {"FB", "FC", "FD", "FF"}) {
        decode_column(hex(first) + hex("0000 61 00000000"));
        EXPECT_EQ(len(), 4) << first;
        decode_column(hex(first) + hex("FE00 616263 0000"));
        EXPECT_EQ(len(), 6) << first;
    }
}

TEST_F(ZdmsgDecodeColumn, EncodedAgainWrapsThePrefixAsIfItWereData) {
    decode_column(hex("03616263 00000000"));
    EXPECT_BYTES(encoded_column(len(), msg_.param_info.data[0].data_value.data),
                 hex("04 03616263 000000"));
    decode_column(hex("FB0000 61 00000000"));
    EXPECT_BYTES(encoded_column(len(), msg_.param_info.data[0].data_value.data),
                 hex("04 FB000061 000000"));
}

TEST(ZdmsgDecode, StructAloneStartsAtItsOffsetAndMovesIt) {
    std::string body = hex("EEEEEEEE 01020A03 00000010 00000002 68690000 EEEEEEEE");
    zdmsg_t msg = {body.data(), 0, 0, ZDMSG_EXTPROC_EXECUTE, static_cast<uint32_t>(body.size()), 0};
    zdmsg_struct_extproc_param_t param;
    int offset = 4;
    zdmsg_struct_deserialize(nullptr, &msg, &offset, &param, sizeof param,
                             ZDMSG_STRUCT_EXTPROC_PARAM);
    EXPECT_EQ(offset, 20);
    EXPECT_EQ(param.flag, 0x01020A03);
    EXPECT_EQ(param.maxlen, 16);
    EXPECT_EQ(std::string(param.data_value.data, 2), "hi");
}

// ---- Every message, against a second opinion

class ZdmsgEveryMessage : public testing::Test {
  protected:
    template <class Check>
    void for_each(Check check) {
        for (const zdmsg_shapes::Shape &shape : zdmsg_shapes::messages()) {
            SCOPED_TRACE(shape.name);
            zdmsg_shapes::Sample sample(shape);
            zdmsg_t *const msg = reinterpret_cast<zdmsg_t *>(sample.record());
            msg->type = shape.number;
            check(sample, msg);
            if (HasFailure())
                return;
        }
    }
};

TEST_F(ZdmsgEveryMessage, IsEncodedFieldByField) {
    for_each([](zdmsg_shapes::Sample &sample, zdmsg_t *msg) {
        EXPECT_BYTES(body_of(msg), sample.body());
    });
}

TEST_F(ZdmsgEveryMessage, IsDecodedToWhatWasEncoded) {
    GuardedBytes guarded(1 << 16);
    for_each([&](zdmsg_shapes::Sample &sample, zdmsg_t *) {
        LedgerAllocator alloc;
        std::vector<uint64_t> memory(sample.shape().size / 8, 0x5A5A5A5A5A5A5A5A);
        zdmsg_t *const decoded = reinterpret_cast<zdmsg_t *>(memory.data());
        decoded->type = sample.shape().number;
        decoded->body_size = static_cast<uint32_t>(sample.body().size());
        zdmsg_deserialize_body(alloc.get(), decoded, guarded.hold(sample.body()));
        EXPECT_EQ(sample.difference(reinterpret_cast<const char *>(decoded)), "");
        const size_t taken = alloc.asked.size();
        zdmsg_free(alloc.get(), decoded);
        EXPECT_EQ(alloc.returned.size(), taken);
        EXPECT_EQ(alloc.still_out(), 0u);
    });
}

TEST_F(ZdmsgEveryMessage, IsEqualToItself) {
    for_each([](zdmsg_shapes::Sample &, zdmsg_t *msg) { EXPECT_EQ(zdmsg_equals(msg, msg), 1); });
}

// ---- Malformed bodies

struct MalformedCase {
    const char *what;
    int type;
    const char *body;
    const char *report; // up to the dump
};

class ZdmsgMalformed : public testing::TestWithParam<MalformedCase> {};

TEST_P(ZdmsgMalformed, IsReportedWithTheVariablesThatWereLookedAt) {
    Hostile hostile;
    ASSERT_TRUE(hostile.refuses(GetParam().type, hex(GetParam().body)));
    std::string report = hostile.report().substr(0, hostile.report().find("[ZDMSG Dump]"));
    // The line is the codec's own business.
    const size_t line = report.find(':') + 1;
    report.replace(line, report.find(':', line) - line, "LINE");
    EXPECT_EQ(report, GetParam().report);
}

#define AT_TOP "zdmsg:LINE:zdmsg_deserialize_body: Assert failed: "
#define NESTED "zdmsg:LINE:zdmsg_struct_deserialize: Assert failed: "

INSTANTIATE_TEST_SUITE_P(
    Bodies, ZdmsgMalformed,
    testing::Values(
        MalformedCase{"IntegerCutShort", ZDMSG_FETCH, "00000001 000000",
                      AT_TOP "(offset + sizeof(int)) <= msg->body_size (4 args)"
                             "\n\ti = 1 = 1 = 0x1\n\tmsg->type = 18 = 18 = 0x12"
                             "\n\toffset = 4 = 4 = 0x4\n\tmsg->body_size = 7 = 7 = 0x7\n"},
        MalformedCase{"StringLengthMissing", ZDMSG_OK_REPLY, "",
                      AT_TOP "(offset + sizeof(int)) <= msg->body_size (4 args)"
                             "\n\ti = 0 = 0 = 0x0\n\tmsg->type = 75 = 75 = 0x4b"
                             "\n\toffset = 0 = 0 = 0x0\n\tmsg->body_size = 0 = 0 = 0x0\n"},
        MalformedCase{"StringWithoutItsPadding", ZDMSG_OK_REPLY, "00000004 61626364",
                      AT_TOP "offset <= msg->body_size (5 args)"
                             "\n\ti = 0 = 0 = 0x0\n\tmsg->type = 75 = 75 = 0x4b"
                             "\n\toffset = 12 = 12 = 0xc\n\tmsg->body_size = 8 = 8 = 0x8"
                             "\n\tstr_len = 4 = 4 = 0x4\n"},
        MalformedCase{"StringOfNegativeLength", ZDMSG_OK_REPLY, "FFFFFFFF 00000000",
                      AT_TOP "offset <= msg->body_size (5 args)"
                             "\n\ti = 0 = 0 = 0x0\n\tmsg->type = 75 = 75 = 0x4b"
                             "\n\toffset = 4 = 4 = 0x4\n\tmsg->body_size = 8 = 8 = 0x8"
                             "\n\tstr_len = -1 = 4294967295 = 0xffffffff\n"},
        MalformedCase{"StringLongerThanAnyBody", ZDMSG_OK_REPLY, "7FFFFFFF 00000000",
                      AT_TOP "offset <= msg->body_size (5 args)"
                             "\n\ti = 0 = 0 = 0x0\n\tmsg->type = 75 = 75 = 0x4b"
                             "\n\toffset = -2147483644 = 2147483652 = 0x80000004"
                             "\n\tmsg->body_size = 8 = 8 = 0x8"
                             "\n\tstr_len = 2147483647 = 2147483647 = 0x7fffffff\n"},
        MalformedCase{"FixedCutShort", ZDMSG_TMC_REPLY, "01020304 050607",
                      AT_TOP "(offset + meta->fields[i].type_or_len) <= msg->body_size (5 args)"
                             "\n\ti = 0 = 0 = 0x0\n\tmsg->type = 201 = 201 = 0xc9"
                             "\n\toffset = 0 = 0 = 0x0\n\tmsg->body_size = 7 = 7 = 0x7"
                             "\n\tmeta->fields[i].type_or_len = 8 = 8 = 0x8\n"},
        MalformedCase{"CountMissing", ZDMSG_EXTPROC_EXECUTE_REPLY,
                      "00000000 00000000 00000000 00000000 0000",
                      AT_TOP "(offset + sizeof(int)) <= msg->body_size (4 args)"
                             "\n\ti = 2 = 2 = 0x2\n\tmsg->type = 140 = 140 = 0x8c"
                             "\n\toffset = 16 = 16 = 0x10\n\tmsg->body_size = 18 = 18 = 0x12\n"},
        MalformedCase{"ElementIntegerMissing", ZDMSG_EXTPROC_EXECUTE,
                      "00000000 00000000 00000000 00000000 00000000 00000000 | 00000002 |"
                      "00000001 00000002 00000000 00000000 | 00000001",
                      NESTED "(*offset + sizeof(int)) <= body_size (5 args)"
                             "\n\ti = 1 = 1 = 0x1\n\tj = 1 = 1 = 0x1\n\tstruct_type = 11 = 11 = 0xb"
                             "\n\t*offset = 48 = 48 = 0x30\n\tbody_size = 48 = 48 = 0x30\n"},
        MalformedCase{"CountBeyondTheBody", ZDMSG_EXTPROC_EXECUTE,
                      "00000000 00000000 00000000 00000000 00000000 00000000 | 7FFFFFFF |"
                      "00000001 00000002 00000000 00000000",
                      NESTED "(*offset + sizeof(int)) <= body_size (5 args)"
                             "\n\ti = 0 = 0 = 0x0\n\tj = 1 = 1 = 0x1\n\tstruct_type = 11 = 11 = 0xb"
                             "\n\t*offset = 44 = 44 = 0x2c\n\tbody_size = 44 = 44 = 0x2c\n"},
        MalformedCase{"ElementStringCutShort", ZDMSG_EXTPROC_EXECUTE_REPLY,
                      "00000000 00000000 00000000 00000000 00000001 | 00000004 01020304",
                      NESTED "*offset <= body_size (6 args)"
                             "\n\ti = 0 = 0 = 0x0\n\tj = 0 = 0 = 0x0\n\tstruct_type = 12 = 12 = 0xc"
                             "\n\t*offset = 32 = 32 = 0x20\n\tbody_size = 28 = 28 = 0x1c"
                             "\n\tstr_len = 4 = 4 = 0x4\n"},
        MalformedCase{"ElementStringOfNegativeLength", ZDMSG_EXTPROC_EXECUTE_REPLY,
                      "00000000 00000000 00000000 00000000 00000001 | 80000000 01020304",
                      NESTED "*offset <= body_size (6 args)"
                             "\n\ti = 0 = 0 = 0x0\n\tj = 0 = 0 = 0x0\n\tstruct_type = 12 = 12 = 0xc"
                             "\n\t*offset = -2147483620 = 2147483676 = 0x8000001c"
                             "\n\tbody_size = 28 = 28 = 0x1c"
                             "\n\tstr_len = -2147483648 = 2147483648 = 0x80000000\n"},
        MalformedCase{"ColumnMissing", ZDMSG_TMC_ANON_PSM,
                      "00000000 | 00000000 00000000 | 00000001 | 00000007",
                      NESTED "*offset <= body_size (6 args)"
                             "\n\ti = 1 = 1 = 0x1\n\tj = 0 = 0 = 0x0\n\tstruct_type = 3 = 3 = 0x3"
                             "\n\t*offset = 24 = 24 = 0x18\n\tbody_size = 20 = 20 = 0x14"
                             "\n\tstr_len = 1 = 1 = 0x1\n"},
        MalformedCase{"ColumnPrefixCutAfterItsMark", ZDMSG_TMC_ANON_PSM,
                      "00000000 | 00000000 00000000 | 00000001 | 00000007 | FE",
                      NESTED "*offset <= body_size (6 args)"
                             "\n\ti = 1 = 1 = 0x1\n\tj = 0 = 0 = 0x0\n\tstruct_type = 3 = 3 = 0x3"
                             "\n\t*offset = 24 = 24 = 0x18\n\tbody_size = 21 = 21 = 0x15"
                             "\n\tstr_len = 3 = 3 = 0x3\n"},
        MalformedCase{"ColumnPrefixCutInItsLength", ZDMSG_TMC_ANON_PSM,
                      "00000000 | 00000000 00000000 | 00000001 | 00000007 | FE01",
                      NESTED "*offset <= body_size (6 args)"
                             "\n\ti = 1 = 1 = 0x1\n\tj = 0 = 0 = 0x0\n\tstruct_type = 3 = 3 = 0x3"
                             "\n\t*offset = 280 = 280 = 0x118\n\tbody_size = 22 = 22 = 0x16"
                             "\n\tstr_len = 259 = 259 = 0x103\n"},
        MalformedCase{"ColumnOfAnUnknownPrefixCutShort", ZDMSG_TMC_ANON_PSM,
                      "00000000 | 00000000 00000000 | 00000001 | 00000007 | FB",
                      NESTED "*offset <= body_size (6 args)"
                             "\n\ti = 1 = 1 = 0x1\n\tj = 0 = 0 = 0x0\n\tstruct_type = 3 = 3 = 0x3"
                             "\n\t*offset = 28 = 28 = 0x1c\n\tbody_size = 21 = 21 = 0x15"
                             "\n\tstr_len = 4 = 4 = 0x4\n"},
        MalformedCase{"ElementFixedCutShort", ZDMSG_TMC_TBL_DSAMPLE_REPLY,
                      "00000001 00000002 00000003 | 00000001 | 00000004 00000005 01020304",
                      NESTED
                      "(*offset + struct_meta->fields[i].type_or_len) <= body_size (6 args)"
                      "\n\ti = 2 = 2 = 0x2\n\tj = 0 = 0 = 0x0\n\tstruct_type = 32 = 32 = 0x20"
                      "\n\t*offset = 24 = 24 = 0x18\n\tbody_size = 28 = 28 = 0x1c"
                      "\n\tstruct_meta->fields[i].type_or_len = 8 = 8 = 0x8\n"},
        MalformedCase{"NestedCountMissing", ZDMSG_EXECUTE_UDT,
                      "01020304 05060708 00000000 00000000 | 00000001 | 00000007 00000000",
                      NESTED
                      "(*offset + sizeof(int)) <= body_size (5 args)"
                      "\n\ti = 2 = 2 = 0x2\n\tj = 0 = 0 = 0x0\n\tstruct_type = 22 = 22 = 0x16"
                      "\n\t*offset = 28 = 28 = 0x1c\n\tbody_size = 28 = 28 = 0x1c\n"}),
    [](const auto &malformed) { return std::string(malformed.param.what); });

TEST(ZdmsgMalformed, DumpFollowsTheReport) {
    Hostile hostile;
    ASSERT_TRUE(hostile.refuses(ZDMSG_FETCH, hex("00000001 000000")));
    EXPECT_THAT(hostile.report(), HasSubstr("\n[ZDMSG Dump]\ncreated at "));
    EXPECT_THAT(hostile.report(), HasSubstr("\ntype: 18\nbodysize: 7\ntsn: 0\nstr_auto_free: 0\n"));
    EXPECT_THAT(hostile.report(), HasSubstr("\n[raw msg body]\n00000001 000000\n"));
}

TEST(ZdmsgMalformedDeathTest, EndsTheProcess) {
    std::string body = hex("00000001 000000");
    zdmsg_fetch_t msg;
    LedgerAllocator alloc;
    EXPECT_EXIT(decode(alloc, &msg, ZDMSG_FETCH, body), testing::KilledBySignal(SIGABRT),
                "zdmsg:[0-9]+:zdmsg_deserialize_body: Assert failed: "
                "\\(offset \\+ sizeof\\(int\\)\\) <= msg->body_size");
}

// What an allocator is asked for on behalf of hostile bodies, per byte of body: an element record
// has at most 18 times the bytes of the least that it takes up on the wire.
constexpr int64_t kMostMemoryPerByte = 18;

TEST(ZdmsgMalformed, CountBeyondTheBodyTakesNoMoreMemoryThanOneElement) {
    Hostile hostile;
    ASSERT_TRUE(hostile.refuses(ZDMSG_EXTPROC_EXECUTE,
                                hex("00000000 00000000 00000000 00000000 00000000 00000000 |"
                                    "7FFFFFFF | 00000001 00000002 00000000 00000000")));
    ASSERT_EQ(hostile.alloc.asked.size(), 1u);
    EXPECT_EQ(hostile.alloc.asked[0], int64_t{sizeof(zdmsg_struct_extproc_param_t)});
}

TEST(ZdmsgMalformed, HostileCountsAtEveryLevelTakeMemoryLinearInTheBody) {
    Hostile hostile;
    for (const uint32_t count : {2u, 1000u, 40000u, 0x7FFFFFFFu}) {
        std::string body = hex("01020304 05060708 00000000 00000000") + big_endian(1);
        for (int level = 0; level < 900; level++)
            body += hex("00000007 00000000") + big_endian(count);
        hostile.alloc.total = 0;
        ASSERT_TRUE(hostile.refuses(ZDMSG_EXECUTE_UDT, body)) << count;
        EXPECT_LE(hostile.alloc.total, static_cast<int64_t>(body.size()) * kMostMemoryPerByte)
            << count;
    }
}

std::string nested_body(int levels) {
    std::string body = hex("01020304 05060708 00000000 00000000");
    for (int level = 0; level < levels; level++)
        body += big_endian(1) + hex("00000007 00000000");
    return body + big_endian(0);
}

TEST(ZdmsgDecode, ArraysNestAThousandDeep) {
    std::string body = nested_body(ZDMSG_MAX_NESTING);
    LedgerAllocator alloc;
    zdmsg_execute_udt_t msg;
    decode(alloc, &msg, ZDMSG_EXECUTE_UDT, body);
    EXPECT_EQ(alloc.asked.size(), size_t{ZDMSG_MAX_NESTING});
    zdmsg_free(alloc.get(), &msg.base);
    EXPECT_EQ(alloc.still_out(), 0u);
}

// Elements of struct_bindparam_udt, each with the given number of elements of its own.
std::string wide_body(const std::vector<uint32_t> &counts) {
    std::string body = hex("01020304 05060708 00000000 00000000") +
                       big_endian(static_cast<uint32_t>(counts.size()));
    uint32_t flag = 0;
    for (const uint32_t count : counts) {
        body += big_endian(flag++) + hex("00000000") + big_endian(count);
        for (uint32_t k = 0; k < count; k++)
            body += big_endian(flag++) + hex("00000000 00000000");
    }
    return body;
}

void expect_wide_body_is_read(const std::vector<uint32_t> &counts) {
    std::string body = wide_body(counts);
    LedgerAllocator alloc;
    zdmsg_execute_udt_t msg;
    decode(alloc, &msg, ZDMSG_EXECUTE_UDT, body);
    ASSERT_EQ(static_cast<size_t>(msg.param_info.array_cnt), counts.size());
    int flag = 0;
    for (size_t j = 0; j < counts.size(); j++) {
        const zdmsg_struct_bindparam_udt_t &element = msg.param_info.data[j];
        ASSERT_EQ(element.flag, flag++);
        ASSERT_EQ(static_cast<uint32_t>(element.sub_bindparam.array_cnt), counts[j]);
        for (uint32_t k = 0; k < counts[j]; k++)
            ASSERT_EQ(element.sub_bindparam.data[k].flag, flag++);
    }
}

TEST(ZdmsgDecode, SideBySideThereIsRoomForMoreArraysThanDeep) {
    expect_wide_body_is_read(std::vector<uint32_t>(2 * ZDMSG_MAX_NESTING, 1));
}

TEST(ZdmsgDecode, LastOfManyElementsMayHoldWhatIsLeftOfTheBody) {
    std::vector<uint32_t> counts(200, 0);
    counts.back() = 50;
    expect_wide_body_is_read(counts);
    counts.assign(200, 3);
    counts.front() = 400;
    expect_wide_body_is_read(counts);
}

TEST(ZdmsgMalformed, DeeperNestingIsRefusedBeforeItUsesUpTheStack) {
    Hostile hostile;
    ASSERT_TRUE(hostile.refuses(ZDMSG_EXECUTE_UDT, nested_body(ZDMSG_MAX_NESTING + 1)));
    EXPECT_THAT(hostile.report(),
                HasSubstr(": Assert failed: depth < ZDMSG_MAX_NESTING (6 args)\n"));
    ASSERT_TRUE(hostile.refuses(ZDMSG_EXECUTE_UDT, nested_body(40000)));
}

TEST(ZdmsgDecode, ExhaustedAllocatorThrowsItsOwnCode) {
    std::string body = hex("00000000 00000000 00000000 00000000 00000000 00000000 |"
                           "00000001 | 00000001 00000002 00000000 00000000");
    LedgerAllocator alloc;
    alloc.fail_at(0);
    zdmsg_extproc_execute_t msg;
    EXPECT_EQ(client_try([&] { decode(alloc, &msg, ZDMSG_EXTPROC_EXECUTE, body); }), -3003);
    EXPECT_EQ(alloc.thrown, 1);
}

TEST(ZdmsgDecodeDeathTest, ExhaustedAllocatorThatCannotThrowFailsAnAssertion) {
    allocator_desc_t desc = _system_allocator_desc;
    desc.func_malloc = [](allocator_t *, int64_t, const char *, int) -> void * { return nullptr; };
    allocator_t empty = {};
    empty.desc = &desc;
    std::string body = hex("00000000 00000000 00000000 00000000 00000000 00000000 |"
                           "00000001 | 00000001 00000002 00000000 00000000");
    zdmsg_extproc_execute_t msg;
    msg.base.type = ZDMSG_EXTPROC_EXECUTE;
    msg.base.body_size = static_cast<uint32_t>(body.size());
    EXPECT_EXIT(zdmsg_deserialize_body(&empty, &msg.base, body.data()),
                testing::KilledBySignal(SIGABRT),
                "zdmsg:[0-9]+: Assertion fail with condition 'alloc->desc->func_throw != NULL'");
}

// ---- Preconditions

// The condition that an assertion without variables printed; empty when none failed.
template <class Code>
std::string asserted(Code code) {
    AbortTrap trap;
    if (!trap.aborts(code))
        return "";
    const std::string &text = trap.text();
    const size_t start = text.find('\'') + 1;
    EXPECT_EQ(text.substr(0, 6), "zdmsg:") << text;
    return text.substr(start, text.find("' (PID=") - start);
}

TEST(ZdmsgPrecondition, NullMessageIsRefused) {
    char buffer[64];
    EXPECT_EQ(asserted([&] { zdmsg_set_tsn(nullptr, 1); }), "msg != NULL");
    EXPECT_EQ(asserted([&] { zdmsg_deserialize_body(nullptr, nullptr, buffer); }), "msg != NULL");
    EXPECT_EQ(asserted([&] { zdmsg_serialize(nullptr, nullptr, buffer); }), "msg != NULL");
    EXPECT_EQ(asserted([&] { zdmsg_serialize_body(nullptr, 16); }), "msg != NULL");
    EXPECT_EQ(asserted([&] { zdmsg_get_msg_raw_size(nullptr); }), "msg != NULL");
    EXPECT_EQ(asserted([&] { zdmsg_free(nullptr, nullptr); }), "msg != NULL");
}

TEST(ZdmsgPrecondition, NullBytesAreRefused) {
    zdmsg_fetch_t msg;
    zdmsg_fetch_set(&msg, 1, 2);
    EXPECT_EQ(asserted([&] { zdmsg_serialize(nullptr, &msg.base, nullptr); }), "msg_raw != NULL");
    EXPECT_EQ(asserted([&] { zdmsg_serialize_chunk(nullptr, nullptr, 0); }), "msg_raw != NULL");
    EXPECT_EQ(asserted([&] { zdmsg_serialize_body(&msg.base, 16); }), "msg->raw != NULL");
    EXPECT_EQ(asserted([&] { zdmsg_deserialize_body(nullptr, &msg.base, nullptr); }),
              "buffer != NULL");
}

TEST(ZdmsgPrecondition, NegativeOffsetIsRefused) {
    zdmsg_fetch_t msg;
    zdmsg_fetch_set(&msg, 1, 2);
    char buffer[64];
    msg.base.raw = buffer + 32;
    EXPECT_EQ(asserted([&] { zdmsg_serialize_body(&msg.base, -4); }),
              "offset != NULL && *offset >= 0");
}

TEST(ZdmsgPrecondition, StructDecodingNeedsBytesARecordAndAnOffset) {
    char body[32] = {};
    zdmsg_struct_affected_cnt_t element;
    zdmsg_t msg = {body, 0, 0, ZDMSG_BATCH_UPDATE_REPLY, sizeof body, 0};
    int offset = 0;
    const auto decode_one = [&](int *at, void *record) {
        zdmsg_struct_deserialize(nullptr, &msg, at, record, sizeof element,
                                 ZDMSG_STRUCT_AFFECTED_CNT);
    };
    EXPECT_EQ(asserted([&] { decode_one(&offset, nullptr); }), "val != NULL");
    EXPECT_EQ(asserted([&] { decode_one(nullptr, &element); }), "offset != NULL && *offset >= 0");
    offset = -1;
    EXPECT_EQ(asserted([&] { decode_one(&offset, &element); }), "offset != NULL && *offset >= 0");
    offset = 0;
    msg.raw = nullptr;
    EXPECT_EQ(asserted([&] { decode_one(&offset, &element); }), "msg_raw != NULL");
}

TEST(ZdmsgPrecondition, StructDecodingStopsAtTheBodyAndAtTheRecord) {
    char body[16] = {};
    char record[64];
    zdmsg_t msg = {body, 0, 0, ZDMSG_EXTPROC_EXECUTE, sizeof body, 0};
    const auto report = [&](int offset, int struct_size, int struct_type) {
        AbortTrap trap;
        EXPECT_TRUE(trap.aborts([&] {
            zdmsg_struct_deserialize(nullptr, &msg, &offset, record, struct_size, struct_type);
        }));
        return trap.text();
    };
    EXPECT_THAT(report(17, 24, ZDMSG_STRUCT_EXTPROC_PARAM),
                HasSubstr("Assert failed: *offset <= body_size ("));
    EXPECT_THAT(report(0, 4, ZDMSG_STRUCT_EXTPROC_PARAM),
                HasSubstr("Assert failed: (struct_meta->fields[i].offset + (int)sizeof(int)) <= "
                          "struct_size (7 args)\n\ti = 1 = 1 = 0x1"));
    EXPECT_THAT(report(0, 4, ZDMSG_STRUCT_GPP_CHUNK_PTR),
                HasSubstr("Assert failed: (struct_meta->fields[i].offset + "
                          "struct_meta->fields[i].type_or_len) <= struct_size (8 args)"));
}

TEST(ZdmsgPrecondition, TypeOutsideTheCatalogueIsRefused) {
    char buffer[64] = {};
    for (const int type : {-1, ZDMSG_TYPE_CNT, INT32_MAX, INT32_MIN}) {
        zdmsg_t msg = {buffer, 0, 0, type, 0, 0};
        zdmsg_t same = msg;
        const char *const condition = "msg->type >= 0 && msg->type < ZDMSG_TYPE_CNT";
        EXPECT_EQ(asserted([&] { zdmsg_serialize(nullptr, &msg, buffer); }), condition);
        EXPECT_EQ(asserted([&] { zdmsg_get_msg_raw_size(&msg); }), condition);
        EXPECT_EQ(asserted([&] { zdmsg_deserialize_body(nullptr, &msg, buffer); }), condition);
        EXPECT_EQ(asserted([&] { zdmsg_free(nullptr, &msg); }), condition);
        EXPECT_EQ(asserted([&] { zdmsg_equals(&msg, &same); }), condition);
        int offset = 0;
        msg.type = ZDMSG_FETCH;
        EXPECT_EQ(
            asserted([&] { zdmsg_struct_deserialize(nullptr, &msg, &offset, buffer, 4, type); }),
            "struct_type >= 0 && struct_type < ZDMSG_STRUCT_CNT");
        EXPECT_EQ(asserted([&] { zdmsg_struct_free(nullptr, buffer, type); }),
                  "struct_type >= 0 && struct_type < ZDMSG_STRUCT_CNT");
    }
}

TEST(ZdmsgPrecondition, RecordThatPointsNowhereIsNotEncoded) {
    char buffer[256];
    zdmsg_lob_read_reply_t string;
    zdmsg_lob_read_reply_set(&string, 5, nullptr);
    EXPECT_EQ(asserted([&] { zdmsg_get_msg_raw_size(&string.base); }),
              "str.len == 0 || str.data != NULL");
    zdmsg_lob_read_reply_set(&string, -5, "abc");
    EXPECT_EQ(asserted([&] { zdmsg_get_msg_raw_size(&string.base); }), "str.len >= 0");
    EXPECT_EQ(asserted([&] { zdmsg_serialize(nullptr, &string.base, buffer); }), "str.len >= 0");
    zdmsg_extproc_execute_t array;
    zdmsg_extproc_execute_set(&array, "a", "b", 0, 0, 1, nullptr);
    EXPECT_EQ(asserted([&] { zdmsg_get_msg_raw_size(&array.base); }),
              "array.array_cnt <= 0 || array.data != NULL");
    EXPECT_EQ(asserted([&] { zdmsg_serialize(nullptr, &array.base, buffer); }),
              "array.array_cnt <= 0 || array.data != NULL");
    EXPECT_EQ(asserted([&] { zdmsg_serialize_chunk(buffer, nullptr, -1); }), "data_len >= 0");
}

// ---- Tables that hold what they must not

// Puts a table of one field in the place of a message's or an element record's.
class OneField {
  public:
    OneField(int type, int struct_type, zdmsg_field_type_t kind)
        : field_{kind, struct_type < 0 ? int{sizeof(zdmsg_t)} : 0, 0},
          entry_(struct_type < 0 ? address(&_zdmsg_meta[type])
                                 : address(&_zdmsg_struct_meta[struct_type])) {
        memcpy(saved_, entry_, sizeof saved_);
        const zdmsg_meta_t meta = {1, &field_};
        static_assert(offsetof(zdmsg_struct_meta_t, fields) == offsetof(zdmsg_meta_t, fields));
        protect(PROT_READ | PROT_WRITE);
        memcpy(entry_, &meta, sizeof meta);
    }
    OneField(const OneField &) = delete;
    OneField &operator=(const OneField &) = delete;
    ~OneField() {
        memcpy(entry_, saved_, sizeof saved_);
        protect(PROT_READ);
    }

  private:
    static char *address(const void *entry) {
        return const_cast<char *>(static_cast<const char *>(entry));
    }

    void protect(int protection) {
        const uintptr_t page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
        const uintptr_t start = reinterpret_cast<uintptr_t>(entry_) / page * page;
        const uintptr_t end = reinterpret_cast<uintptr_t>(entry_) + sizeof saved_;
        ASSERT_EQ(mprotect(reinterpret_cast<void *>(start), end - start, protection), 0);
    }

    zdmsg_field_t field_;
    char *entry_;
    char saved_[sizeof(zdmsg_meta_t)];
};

const zdmsg_field_type_t kNoKind = static_cast<zdmsg_field_type_t>(7);

class ZdmsgBadTable : public testing::Test {
  protected:
    ZdmsgBadTable() {
        memset(&msg_, 0, sizeof msg_);
        msg_.base.type = ZDMSG_OK_REPLY;
        msg_.base.raw = buffer_;
        msg_.base.body_size = 32;
    }

    std::string decoding() {
        AbortTrap trap;
        EXPECT_TRUE(trap.aborts([&] { zdmsg_deserialize_body(nullptr, &msg_.base, buffer_); }));
        return trap.text();
    }

    std::string decoding_element() {
        AbortTrap trap;
        EXPECT_TRUE(trap.aborts([&] {
            int offset = 0;
            char record[8];
            zdmsg_struct_deserialize(nullptr, &msg_.base, &offset, record, sizeof record,
                                     ZDMSG_STRUCT_PID_LIST);
        }));
        return trap.text();
    }

    // Encodes a message whose array of pids has one element.
    void encode_element() {
        zdmsg_struct_pid_list_t pid;
        zdmsg_struct_pid_list_set(&pid, 5);
        zdmsg_zdcm_svr_pid_info_t msg;
        zdmsg_zdcm_svr_pid_info_set(&msg, 1, &pid);
        zdmsg_serialize(nullptr, &msg.base, buffer_);
    }

    char buffer_[64] = {};
    zdmsg_ok_reply_t msg_;
};

TEST_F(ZdmsgBadTable, OnlyFourKindsHaveASizeInAMessage) {
    for (const zdmsg_field_type_t kind :
         {ZDMSG_FIELD_COL, ZDMSG_FIELD_CHUNK, ZDMSG_FIELD_MAX, kNoKind}) {
        OneField table(ZDMSG_OK_REPLY, -1, kind);
        EXPECT_EQ(asserted([&] { zdmsg_get_msg_raw_size(&msg_.base); }), "0") << kind;
    }
}

TEST_F(ZdmsgBadTable, ColumnIsNotEncodedInAMessage) {
    for (const zdmsg_field_type_t kind : {ZDMSG_FIELD_COL, ZDMSG_FIELD_MAX, kNoKind}) {
        OneField table(ZDMSG_OK_REPLY, -1, kind);
        EXPECT_EQ(asserted([&] { zdmsg_serialize(nullptr, &msg_.base, buffer_); }), "0") << kind;
    }
}

TEST_F(ZdmsgBadTable, ChunkIsEncodedAsItsLengthAndCountsInFull) {
    OneField table(ZDMSG_OK_REPLY, -1, ZDMSG_FIELD_CHUNK);
    msg_.warning_msg.len = 300;
    memset(buffer_, 0x77, sizeof buffer_);
    zdmsg_serialize(nullptr, &msg_.base, buffer_);
    EXPECT_EQ(msg_.base.body_size, 304u);
    EXPECT_BYTES(std::string(buffer_, 24),
                 hex("0000004B 00000130 00000000 00000000 0000012C 77777777"));
}

TEST_F(ZdmsgBadTable, ColumnAndChunkAreNotDecodedInAMessage) {
    for (const zdmsg_field_type_t kind :
         {ZDMSG_FIELD_COL, ZDMSG_FIELD_CHUNK, ZDMSG_FIELD_MAX, kNoKind}) {
        OneField table(ZDMSG_OK_REPLY, -1, kind);
        EXPECT_THAT(decoding(),
                    ContainsRegex("^zdmsg:[0-9]+:zdmsg_deserialize_body: Assert failed: 0 "
                                  "\\(3 args\\)\n\tmeta->fields\\[i\\].type = " +
                                  std::to_string(kind) +
                                  " = .*\n\ti = 0 = 0 = 0x0\n\tmsg->type = 75 = .*\n"
                                  "\\[ZDMSG Dump\\]\n"));
    }
}

TEST_F(ZdmsgBadTable, ChunkIsNotPartOfAnElement) {
    for (const zdmsg_field_type_t kind : {ZDMSG_FIELD_CHUNK, ZDMSG_FIELD_MAX, kNoKind}) {
        OneField table(0, ZDMSG_STRUCT_PID_LIST, kind);
        EXPECT_THAT(decoding_element(),
                    ContainsRegex("^zdmsg:[0-9]+:zdmsg_struct_deserialize: Assert failed: 0 "
                                  "\\(3 args\\)\n\tstruct_meta->fields\\[i\\].type = " +
                                  std::to_string(kind) +
                                  " = .*\n\ti = 0 = 0 = 0x0\n\tstruct_type = 25 = .*\n"
                                  "\\[ZDMSG Dump\\]\n"));
        EXPECT_EQ(asserted([&] { encode_element(); }), "0") << kind;
    }
}

TEST_F(ZdmsgBadTable, IsKnownBeforehandNotToBeDecoded) {
    zdmsg_flaw_t flaw;
    for (const zdmsg_field_type_t kind :
         {ZDMSG_FIELD_COL, ZDMSG_FIELD_CHUNK, ZDMSG_FIELD_MAX, kNoKind}) {
        OneField table(ZDMSG_OK_REPLY, -1, kind);
        EXPECT_EQ(zdmsg_validate(ZDMSG_OK_REPLY, buffer_, 32, nullptr, &flaw), 0) << kind;
        EXPECT_EQ(flaw.kind, ZDMSG_FLAW_TABLE) << kind;
    }
    for (const zdmsg_field_type_t kind : {ZDMSG_FIELD_CHUNK, ZDMSG_FIELD_MAX, kNoKind}) {
        OneField table(0, ZDMSG_STRUCT_PID_LIST, kind);
        buffer_[3] = 1;
        EXPECT_EQ(zdmsg_validate(ZDMSG_ZDCM_SVR_PID_INFO, buffer_, 32, nullptr, &flaw), 0) << kind;
        EXPECT_EQ(flaw.kind, ZDMSG_FLAW_TABLE) << kind;
        EXPECT_STREQ(flaw.path, "pid_list[0].pid");
    }
}

TEST_F(ZdmsgBadTable, ColumnIsNotReleasedInAMessage) {
    for (const zdmsg_field_type_t kind : {ZDMSG_FIELD_COL, ZDMSG_FIELD_MAX, kNoKind}) {
        OneField table(ZDMSG_OK_REPLY, -1, kind);
        EXPECT_EQ(asserted([&] { zdmsg_free(nullptr, &msg_.base); }), "0") << kind;
    }
    OneField table(ZDMSG_OK_REPLY, -1, ZDMSG_FIELD_CHUNK);
    EXPECT_EQ(asserted([&] { zdmsg_free(nullptr, &msg_.base); }), "");
}

TEST_F(ZdmsgBadTable, ChunksAreSkippedInAComparison) {
    OneField table(ZDMSG_OK_REPLY, -1, ZDMSG_FIELD_CHUNK);
    zdmsg_ok_reply_t other = msg_;
    other.warning_msg.len = 5;
    EXPECT_EQ(zdmsg_equals(&msg_.base, &other.base), 1);
}

// ---- Release

TEST(ZdmsgFree, ReturnsEveryNonEmptyTopLevelStringOfASet2) {
    LedgerAllocator alloc;
    char *const path = alloc.copy("path");
    char *const name = alloc.copy("name");
    zdmsg_extproc_execute_t msg;
    zdmsg_extproc_execute_set2(&msg, path, name, 0, 0, 0, nullptr);
    zdmsg_free(alloc.get(), &msg.base);
    EXPECT_THAT(alloc.returned, testing::ElementsAre(path, name));
}

TEST(ZdmsgFree, AnyAutoFreeButZeroMeansThatStringsAreReturned) {
    LedgerAllocator alloc;
    char *const path = alloc.copy("path");
    zdmsg_extproc_execute_t msg;
    zdmsg_extproc_execute_set(&msg, path, nullptr, 0, 0, 0, nullptr);
    msg.base.str_auto_free = INT32_MIN;
    zdmsg_free(alloc.get(), &msg.base);
    EXPECT_THAT(alloc.returned, testing::ElementsAre(path));
}

TEST(ZdmsgFree, LeavesEmptyStringsOfASet2Alone) {
    LedgerAllocator alloc;
    char *const empty = alloc.copy("");
    zdmsg_extproc_execute_t msg;
    zdmsg_extproc_execute_set2(&msg, empty, nullptr, 0, 0, 0, nullptr);
    zdmsg_free(alloc.get(), &msg.base);
    EXPECT_TRUE(alloc.returned.empty());
}

TEST(ZdmsgFree, ReturnsNoStringOfASet) {
    LedgerAllocator alloc;
    zdmsg_extproc_execute_t msg;
    zdmsg_extproc_execute_set(&msg, "path", "name", 0, 0, 0, nullptr);
    zdmsg_free(alloc.get(), &msg.base);
    EXPECT_TRUE(alloc.returned.empty());
}

TEST(ZdmsgFree, ReturnsArraysButNoStringOfADecodedMessage) {
    std::string body = hex("00000001 61000000 00000001 62000000 00000002 00000003 00000001 |"
                           "00000001 00000002 00000003 61626300");
    LedgerAllocator alloc;
    zdmsg_extproc_execute_t msg;
    decode(alloc, &msg, ZDMSG_EXTPROC_EXECUTE, body);
    void *const elements = msg.param.data;
    zdmsg_free(alloc.get(), &msg.base);
    EXPECT_THAT(alloc.returned, testing::ElementsAre(elements));
}

TEST(ZdmsgFree, ReturnsInnerArraysBeforeTheOuterAndNeverElementStrings) {
    LedgerAllocator alloc;
    const auto array = [&](size_t count) {
        return static_cast<zdmsg_struct_out_param_udt_t *>(alloc.get()->desc->func_malloc(
            alloc.get(), static_cast<int64_t>(count * sizeof(zdmsg_struct_out_param_udt_t)), "test",
            1));
    };
    zdmsg_struct_out_param_udt_t *const inner = array(1);
    zdmsg_struct_out_param_udt_set2(&inner[0], 1, 3, alloc.copy("abc"), 0, nullptr, 0, nullptr);
    zdmsg_struct_out_param_udt_t *const outer = array(2);
    zdmsg_struct_out_param_udt_set2(&outer[0], 1, 3, alloc.copy("def"), 0, nullptr, 0, nullptr);
    zdmsg_struct_out_param_udt_set2(&outer[1], 1, 0, nullptr, 0, nullptr, 1, inner);
    zdmsg_execute_udt_call_reply_t msg;
    zdmsg_execute_udt_call_reply_set2(&msg, "PPIDPPID", 2, outer);
    zdmsg_free(alloc.get(), &msg.base);
    EXPECT_THAT(alloc.returned, testing::ElementsAre(inner, outer));
}

TEST(ZdmsgFree, ArrayOfNoElementsThatHasMemoryIsReturned) {
    LedgerAllocator alloc;
    zdmsg_struct_pid_list_t *const none =
        reinterpret_cast<zdmsg_struct_pid_list_t *>(alloc.copy("pids"));
    zdmsg_zdcm_svr_pid_info_t msg;
    zdmsg_zdcm_svr_pid_info_set(&msg, 0, none);
    zdmsg_free(alloc.get(), &msg.base);
    EXPECT_THAT(alloc.returned, testing::ElementsAre(none));
}

TEST(ZdmsgFree, ArrayOfNegativeCountIsLeftAlone) {
    LedgerAllocator alloc;
    zdmsg_zdcm_svr_pid_info_t msg;
    zdmsg_zdcm_svr_pid_info_set(&msg, -1,
                                reinterpret_cast<zdmsg_struct_pid_list_t *>(alloc.copy("pids")));
    zdmsg_free(alloc.get(), &msg.base);
    EXPECT_TRUE(alloc.returned.empty());
}

TEST(ZdmsgFree, StructAloneReturnsItsArrays) {
    LedgerAllocator alloc;
    zdmsg_struct_icol_schema_t *const columns =
        reinterpret_cast<zdmsg_struct_icol_schema_t *>(alloc.copy("columns"));
    zdmsg_struct_idx_schema_t index;
    zdmsg_struct_idx_schema_set(&index, "name", 1, 2, 1, columns);
    zdmsg_struct_free(alloc.get(), &index, ZDMSG_STRUCT_IDX_SCHEMA);
    EXPECT_THAT(alloc.returned, testing::ElementsAre(columns));
}

// ---- Comparison

struct Verdict {
    bool equal;
    std::string text;
};

Verdict compared(const zdmsg_t *msg, const zdmsg_t *msg2) {
    testing::internal::CaptureStderr();
    const uchar equal = zdmsg_equals(msg, msg2);
    return {equal == 1, testing::internal::GetCapturedStderr()};
}

class ZdmsgEquals : public testing::Test {
  protected:
    ZdmsgEquals() {
        for (int k = 0; k < 2; k++) {
            zdmsg_struct_extproc_param_set(&expected_params_[k], k, 8, 2, "hi");
            zdmsg_struct_extproc_param_set(&actual_params_[k], k, 8, 2, "hi");
        }
        zdmsg_extproc_execute_set(&expected_, "lib", "fn", 5, 6, 2, expected_params_);
        zdmsg_extproc_execute_set(&actual_, "lib", "fn", 5, 6, 2, actual_params_);
    }

    void expect_difference(const std::string &text) {
        const Verdict verdict = compared(&expected_.base, &actual_.base);
        EXPECT_FALSE(verdict.equal);
        EXPECT_EQ(verdict.text, text);
    }

    zdmsg_struct_extproc_param_t expected_params_[2];
    zdmsg_struct_extproc_param_t actual_params_[2];
    zdmsg_extproc_execute_t expected_;
    zdmsg_extproc_execute_t actual_;
};

TEST_F(ZdmsgEquals, EqualMessagesPrintNothing) {
    const Verdict verdict = compared(&expected_.base, &actual_.base);
    EXPECT_TRUE(verdict.equal);
    EXPECT_EQ(verdict.text, "");
}

TEST_F(ZdmsgEquals, TypesAreComparedFirst) {
    actual_.base.type = 140;
    actual_.base.body_size = 77;
    expect_difference("mock server msg type = 139, client lib msg type = 140\n");
}

TEST_F(ZdmsgEquals, BodySizesAreReportedInTheSameWords) {
    actual_.base.body_size = 77;
    expect_difference("mock server msg type = 0, client lib msg type = 77\n");
}

TEST_F(ZdmsgEquals, DifferingIntegersAreNamed) {
    actual_.property = -9;
    expect_difference("msg type = 139 , field number = 2\nexpected value = 5, actual value = -9\n");
}

TEST_F(ZdmsgEquals, DifferingStringLengthsAreNamed) {
    zdmsg_extproc_execute_set(&actual_, "lib", "func", 5, 6, 2, actual_params_);
    expect_difference("msg type = 139 , field number = 1\nexpected value = 2, actual value = 4\n");
}

TEST_F(ZdmsgEquals, DifferingStringsArePrinted) {
    zdmsg_extproc_execute_set(&actual_, "bil", "fn", 5, 6, 2, actual_params_);
    expect_difference(
        "msg type = 139 , field number = 0\nexpected value = lib,\n actual value = bil\n");
}

TEST_F(ZdmsgEquals, DifferingCountsAreNamed) {
    actual_.param.array_cnt = 1;
    expect_difference("msg type = 139 , field number = 4\n"
                      "expected array size = 2,                                  "
                      "actual array size = 1\n");
}

TEST_F(ZdmsgEquals, ElementsAreComparedFieldByField) {
    actual_params_[1].maxlen = 9;
    expect_difference("msg type = 139 , field number = 1\nexpected value = 8, actual value = 9\n");
}

TEST_F(ZdmsgEquals, OnlyTheFirstDifferenceIsPrinted) {
    actual_.property = 0;
    actual_.return_flag = 0;
    expect_difference("msg type = 139 , field number = 2\nexpected value = 5, actual value = 0\n");
}

TEST(ZdmsgEqualsFixed, BytesThatAreNotTerminatedArePrintedAsFarAsTheyGo) {
    zdmsg_tmc_reply_t expected, actual;
    zdmsg_tmc_reply_set(&expected, "ABCDEFGH", 0x21212121);
    zdmsg_tmc_reply_set(&actual, "ABCDEFGI", 0x21212121);
    const Verdict verdict = compared(&expected.base, &actual.base);
    EXPECT_FALSE(verdict.equal);
    EXPECT_EQ(verdict.text, "msg type = 201 , field number = 0\n"
                            "expected value = ABCDEFGH,\n actual value = ABCDEFGI\n");
}

TEST(ZdmsgEqualsColumn, ColumnsAreComparedLikeStrings) {
    zdmsg_struct_bindparam_t expected_param, actual_param;
    zdmsg_struct_bindparam_set(&expected_param, 1, 2, "ab");
    zdmsg_struct_bindparam_set(&actual_param, 1, 2, "ac");
    zdmsg_tmc_anon_psm_t expected, actual;
    zdmsg_tmc_anon_psm_set(&expected, 1, "sql", 1, &expected_param);
    zdmsg_tmc_anon_psm_set(&actual, 1, "sql", 1, &actual_param);
    const Verdict verdict = compared(&expected.base, &actual.base);
    EXPECT_FALSE(verdict.equal);
    EXPECT_EQ(verdict.text,
              "msg type = 228 , field number = 1\nexpected value = ab,\n actual value = ac\n");
}

} // namespace
