// What the codec does in bulk: data of every length is copied exactly, and integers that are taken
// together come out, and are refused, as if they were taken one by one.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

#include "common/zdmsg/zdmsg.h"
#include "common/zdmsg/zdmsg_setter_gen.h"
#include "support/abort_trap.h"
#include "support/guarded_bytes.h"
#include "support/ledger_allocator.h"

namespace {

using testing::HasSubstr;

std::string big_endian(int value) {
    const uint32_t bits = static_cast<uint32_t>(value);
    std::string bytes;
    for (int shift = 24; shift >= 0; shift -= 8)
        bytes.push_back(static_cast<char>(bits >> shift));
    return bytes;
}

std::string letters(int count) {
    std::string text;
    for (int i = 0; i < count; i++)
        text.push_back(static_cast<char>('a' + i % 26));
    return text;
}

// With at least one zero behind it.
std::string padded(std::string bytes) {
    do
        bytes.push_back('\0');
    while (bytes.size() % 4 != 0);
    return bytes;
}

// Where a touched byte too much faults: the data that is sent, and the buffer that takes it.
class Guarded {
  public:
    char *data(const std::string &bytes) { return source_.hold(bytes); }

    std::string body(zdmsg_t *msg) {
        const std::string blank(static_cast<size_t>(zdmsg_get_msg_raw_size(msg)), '\x77');
        char *const buffer = target_.hold(blank);
        zdmsg_serialize(nullptr, msg, buffer);
        return {buffer + ZDMSG_HDR_SIZE, msg->body_size};
    }

  private:
    GuardedBytes source_{1024};
    GuardedBytes target_{4096};
};

TEST(ZdmsgBulk, StringsOfEveryLengthAreCopiedExactly) {
    Guarded guarded;
    for (int len = 0; len <= 70; len++) {
        zdmsg_tmc_chunk_t msg;
        zdmsg_tmc_chunk_set(&msg, len, guarded.data(letters(len)));
        EXPECT_EQ(guarded.body(&msg.base), big_endian(len) + padded(letters(len))) << len;
    }
}

TEST(ZdmsgBulk, ColumnsOfEveryLengthAreCopiedExactly) {
    Guarded guarded;
    for (int len = 0; len <= 300; len++) {
        zdmsg_struct_bindparam_t param;
        zdmsg_struct_bindparam_set(&param, 7, len, guarded.data(letters(len)));
        zdmsg_tmc_anon_psm_t msg;
        zdmsg_tmc_anon_psm_set(&msg, 1, nullptr, 1, &param);
        const std::string prefix = len <= 250 ? std::string(1, static_cast<char>(len))
                                              : "\xFE" + big_endian(len).substr(2);
        EXPECT_EQ(guarded.body(&msg.base), big_endian(1) + big_endian(0) + big_endian(0) +
                                               big_endian(1) + big_endian(7) +
                                               padded(prefix + letters(len)))
            << len;
    }
}

TEST(ZdmsgBulk, FixedFieldsOfBothLengthsAreCopiedExactly) {
    Guarded guarded;
    zdmsg_tsam_open_request_t msg;
    zdmsg_tsam_open_request_set(&msg, letters(64).data(), "12345678", 1, 2, 3, 4, 5, 6, 7);
    const std::string body = guarded.body(&msg.base);
    EXPECT_EQ(body.substr(0, 72), letters(64) + "12345678");

    zdmsg_tsam_open_request_t read;
    read.base.type = ZDMSG_TSAM_OPEN_REQUEST;
    read.base.body_size = static_cast<uint32_t>(body.size());
    zdmsg_deserialize_body(nullptr, &read.base, guarded.data(body));
    EXPECT_EQ(std::string(read.filename, 64), letters(64));
    EXPECT_EQ(std::string(read.volser, 8), "12345678");
    EXPECT_EQ(read.rgattr, 7);
}

// A column description whose bytes tell its number and the number of each integer.
constexpr int kColumnBytes = 28;
constexpr int kNameBytes = 8;

int integer(int column, int number) {
    return (column + 1) * 0x01010100 + number;
}

std::string body_of_columns(int count) {
    std::string body = big_endian(count);
    for (int column = 0; column < count; column++) {
        body += big_endian(2) + padded("ab");
        for (int number = 1; number <= 5; number++)
            body += big_endian(integer(column, number));
    }
    return body;
}

TEST(ZdmsgBulk, IntegersOfFewAndOfManyRecordsHaveTheSameBytes) {
    Guarded guarded;
    for (const int count : {1, 7, 8, 9, 40}) {
        std::vector<zdmsg_struct_column_desc_t> columns(static_cast<size_t>(count));
        for (int i = 0; i < count; i++)
            zdmsg_struct_column_desc_set(&columns[static_cast<size_t>(i)], "ab", integer(i, 1),
                                         integer(i, 2), integer(i, 3), integer(i, 4),
                                         integer(i, 5));
        zdmsg_dpl_prepare_reply_t msg;
        zdmsg_dpl_prepare_reply_set(&msg, count, columns.data());
        EXPECT_EQ(guarded.body(&msg.base), body_of_columns(count)) << count;
    }
}

class Columns {
  public:
    void decode(const std::string &body) {
        msg_.base.type = ZDMSG_DPL_PREPARE_REPLY;
        msg_.base.body_size = static_cast<uint32_t>(body.size());
        zdmsg_deserialize_body(alloc_.get(), &msg_.base, bytes_.hold(body));
    }
    const zdmsg_struct_column_desc_t &operator[](int i) const { return msg_.col_meta.data[i]; }

  private:
    GuardedBytes bytes_{4096};
    LedgerAllocator alloc_;
    zdmsg_dpl_prepare_reply_t msg_;
};

TEST(ZdmsgBulk, IntegersOfFewAndOfManyRecordsAreReadAlike) {
    for (const int count : {1, 7, 8, 9, 40}) {
        Columns columns;
        columns.decode(body_of_columns(count));
        for (int i = 0; i < count; i++) {
            EXPECT_EQ(std::string(columns[i].name.data, 2), "ab");
            EXPECT_EQ(columns[i].data_type, integer(i, 1)) << i << " of " << count;
            EXPECT_EQ(columns[i].precision, integer(i, 2)) << i << " of " << count;
            EXPECT_EQ(columns[i].scale, integer(i, 3)) << i << " of " << count;
            EXPECT_EQ(columns[i].etc_meta, integer(i, 4)) << i << " of " << count;
            EXPECT_EQ(columns[i].max_size, integer(i, 5)) << i << " of " << count;
        }
    }
}

TEST(ZdmsgBulk, BodyThatEndsAmongIntegersIsRefusedAtTheOneThatIsMissing) {
    constexpr int kCount = 9;
    constexpr int kCountBytes = 4;
    const std::string body = body_of_columns(kCount);
    AbortTrap trap;
    Columns columns;
    for (int size = kCountBytes; size < static_cast<int>(body.size()); size++) {
        const int j = (size - kCountBytes) / kColumnBytes;
        const int start = kCountBytes + j * kColumnBytes;
        const int there = size - start;
        if (there < kNameBytes)
            continue; // not among integers
        const int missing = (there - kNameBytes) / 4;
        const std::string cut = body.substr(0, static_cast<size_t>(size));
        ASSERT_TRUE(trap.aborts([&] { columns.decode(cut); })) << size;
        std::array<char, 200> expected;
        const int offset = start + kNameBytes + 4 * missing;
        snprintf(expected.data(), expected.size(),
                 "(*offset + sizeof(int)) <= body_size (5 args)\n\ti = %d = %d = 0x%x\n"
                 "\tj = %d = %d = 0x%x\n\tstruct_type = 1 = 1 = 0x1\n"
                 "\t*offset = %d = %d = 0x%x\n",
                 1 + missing, 1 + missing, 1 + missing, j, j, j, offset, offset, offset);
        ASSERT_THAT(trap.text(), HasSubstr(expected.data())) << size;
    }
}

} // namespace
