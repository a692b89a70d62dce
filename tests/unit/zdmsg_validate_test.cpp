#include "common/zdmsg/zdmsg_validate.h"

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <string>

#include "common/zdmsg/zdmsg.h"
#include "support/hostile.h"

namespace {

// Bytes from hex digits; anything else is there for the eye.
std::string hex(const std::string &text) {
    std::string digits;
    for (const char c : text)
        if (isxdigit(static_cast<unsigned char>(c)) != 0)
            digits += c;
    std::string bytes;
    for (size_t at = 0; at < digits.size(); at += 2)
        bytes += static_cast<char>(std::stoi(digits.substr(at, 2), nullptr, 16));
    return bytes;
}

// Reads like one line of a report, or "" when the body is accepted.
std::string flaw_of(int type, const std::string &body, zdmsg_limits_t limits = {0, 0, 0}) {
    zdmsg_flaw_t flaw;
    memset(&flaw, 0x55, sizeof flaw);
    const uchar valid = zdmsg_validate(type, body.data(), body.size(), &limits, &flaw);
    EXPECT_EQ(valid == 1, flaw.kind == ZDMSG_FLAW_NONE);
    if (valid == 1) {
        EXPECT_STREQ(flaw.reason, "the body is well-formed");
        EXPECT_EQ(flaw.offset, 0);
        EXPECT_STREQ(flaw.path, "");
        return "";
    }
    return "byte " + std::to_string(flaw.offset) + " " + flaw.path + ": " + flaw.reason + " (" +
           std::to_string(flaw.found) + ", " + std::to_string(flaw.allowed) + ")";
}

zdmsg_flaw_kind_t kind_of(int type, const char *bytes, size_t size) {
    zdmsg_flaw_t flaw;
    zdmsg_validate(type, bytes, size, nullptr, &flaw);
    return flaw.kind;
}

const std::string kRequest = // extproc_execute with two parameters
    hex("00000003 6C696200 | 00000002 666E0000 | 00000100 | 00000000 | 00000002 |"
        "01020A03 00000010 00000002 68690000 | 00010A03 00000004 00000000 00000000");

// ---- What is accepted

TEST(ZdmsgValidate, AcceptsARequest) {
    EXPECT_EQ(flaw_of(ZDMSG_EXTPROC_EXECUTE, kRequest), "");
}

TEST(ZdmsgValidate, AcceptsBytesBehindTheLastField) {
    EXPECT_EQ(flaw_of(ZDMSG_FETCH, hex("00000001 00000002 DEADBEEF 01")), "");
    EXPECT_EQ(flaw_of(ZDMSG_COMMIT, hex("DEADBEEF")), "");
}

TEST(ZdmsgValidate, AcceptsAMessageWithoutFields) {
    EXPECT_EQ(flaw_of(ZDMSG_COMMIT, ""), "");
}

TEST(ZdmsgValidate, AcceptsANegativeCountAsTheDecoderDoes) {
    const std::string body = hex("00000000 00000000 00000000 00000000 FFFFFFFF");
    EXPECT_EQ(flaw_of(ZDMSG_EXTPROC_EXECUTE_REPLY, body, {1, 1, 0}), "");
    Hostile hostile;
    EXPECT_FALSE(hostile.refuses(ZDMSG_EXTPROC_EXECUTE_REPLY, body));
}

TEST(ZdmsgValidate, AcceptsColumnPrefixesThatNoWriterMakes) {
    const std::string head = hex("00000000 | 00000000 00000000 | 00000001 | 00000007");
    for (const char *column : {"FB000061 00000000", "FFFE0061 62630000", "FE000261 62000000"}) {
        EXPECT_EQ(flaw_of(ZDMSG_TMC_ANON_PSM, head + hex(column)), "") << column;
    }
}

TEST(ZdmsgValidate, NeedsNeitherLimitsNorAFlaw) {
    EXPECT_EQ(zdmsg_validate(ZDMSG_FETCH, "12345678", 8, nullptr, nullptr), 1);
    EXPECT_EQ(zdmsg_validate(ZDMSG_FETCH, "1234567", 7, nullptr, nullptr), 0);
    EXPECT_EQ(zdmsg_validate(999, "1234567", 7, nullptr, nullptr), 0);
}

// ---- What is not, where and why

TEST(ZdmsgValidate, SaysWhereABodyEndsInsideAField) {
    EXPECT_EQ(flaw_of(ZDMSG_FETCH, hex("00000001 000000")),
              "byte 4 fetch_row_chunk_cnt: the body ends inside the field (4, 3)");
    EXPECT_EQ(flaw_of(ZDMSG_OK_REPLY, ""),
              "byte 0 warning_msg: the body ends inside the field (4, 0)");
    EXPECT_EQ(flaw_of(ZDMSG_TMC_REPLY, hex("01020304 050607")),
              "byte 0 xid: the body ends inside the field (8, 7)");
    EXPECT_EQ(flaw_of(ZDMSG_EXTPROC_EXECUTE_REPLY, hex("00000000 00000000 00000000 00000000 00")),
              "byte 16 reply_param: the body ends inside the field (4, 1)");
}

TEST(ZdmsgValidate, SaysWhichLengthLeadsPastTheEnd) {
    EXPECT_EQ(flaw_of(ZDMSG_EREPLY, hex("00000001 00000004 61626364")),
              "byte 4 error_stack: the length leads past the end of the body (8, 4)");
    EXPECT_EQ(flaw_of(ZDMSG_EREPLY, hex("00000001 7FFFFFFF 61626364")),
              "byte 4 error_stack: the length leads past the end of the body (2147483648, 4)");
}

TEST(ZdmsgValidate, SaysWhichLengthIsNegative) {
    EXPECT_EQ(flaw_of(ZDMSG_EREPLY, hex("00000001 FFFFFFFF 00000000")),
              "byte 4 error_stack: the length is negative (-1, 0)");
    EXPECT_EQ(flaw_of(ZDMSG_EREPLY, hex("00000001 80000000 00000000")),
              "byte 4 error_stack: the length is negative (-2147483648, 0)");
}

TEST(ZdmsgValidate, NamesFieldsOfElementsByTheirPath) {
    EXPECT_EQ(flaw_of(ZDMSG_EXTPROC_EXECUTE, kRequest.substr(0, kRequest.size() - 1)),
              "byte 52 param[1].data_value: the length leads past the end of the body (4, 3)");
    EXPECT_EQ(flaw_of(ZDMSG_EXTPROC_EXECUTE, kRequest.substr(0, 46)),
              "byte 44 param[1].flag: the body ends inside the field (4, 2)");
}

TEST(ZdmsgValidate, NamesFieldsOfElementsOfElementsByTheirPath) {
    const std::string body =
        hex("01020304 05060708 00000000 00000000 | 00000001 |"
            "00000007 00000000 00000002 | 00000008 00000000 00000000 | 00000009 05616263");
    EXPECT_EQ(flaw_of(ZDMSG_EXECUTE_UDT, body),
              "byte 48 param_info[0].sub_bindparam[1].data_value: "
              "the length leads past the end of the body (8, 4)");
}

TEST(ZdmsgValidate, TakesACountThatPromisesTooMuchAtItsWordUntilTheBodyEnds) {
    EXPECT_EQ(flaw_of(ZDMSG_ZDCM_SVR_PID_INFO, hex("7FFFFFFF 00000001 00000002")),
              "byte 12 pid_list[2].pid: the body ends inside the field (4, 0)");
}

TEST(ZdmsgValidate, SaysWhichColumnIsNotWhole) {
    const std::string head = hex("00000000 | 00000000 00000000 | 00000001 | 00000007");
    const std::string where = "byte 20 param_info[0].data_value: "
                              "the length leads past the end of the body ";
    EXPECT_EQ(flaw_of(ZDMSG_TMC_ANON_PSM, head), where + "(4, 0)");
    EXPECT_EQ(flaw_of(ZDMSG_TMC_ANON_PSM, head + hex("FE")), where + "(4, 1)");
    EXPECT_EQ(flaw_of(ZDMSG_TMC_ANON_PSM, head + hex("FE01")), where + "(260, 2)");
    EXPECT_EQ(flaw_of(ZDMSG_TMC_ANON_PSM, head + hex("FB")), where + "(8, 1)");
    EXPECT_EQ(flaw_of(ZDMSG_TMC_ANON_PSM, head + hex("FFFE0000")), where + "(8, 4)");
    EXPECT_EQ(flaw_of(ZDMSG_TMC_ANON_PSM, head + hex("03616263")), where + "(8, 4)");
}

TEST(ZdmsgValidate, RefusesTypesOutsideTheCatalogue) {
    EXPECT_EQ(flaw_of(278, ""), "byte 0 : no message has this type (278, 277)");
    EXPECT_EQ(flaw_of(-1, ""), "byte 0 : no message has this type (-1, 277)");
    EXPECT_EQ(flaw_of(INT32_MIN, ""), "byte 0 : no message has this type (-2147483648, 277)");
    EXPECT_EQ(flaw_of(277, hex("00000000 00000000")), "");
}

TEST(ZdmsgValidate, RefusesBytesThatAreNotThere) {
    EXPECT_EQ(kind_of(ZDMSG_COMMIT, nullptr, 0), ZDMSG_FLAW_NO_BYTES);
    EXPECT_EQ(kind_of(ZDMSG_FETCH, nullptr, 8), ZDMSG_FLAW_NO_BYTES);
}

TEST(ZdmsgValidate, RefusesMoreBytesThanAHeaderCanSay) {
    // Nothing of them is looked at.
    EXPECT_EQ(kind_of(ZDMSG_COMMIT, "", size_t{UINT32_MAX}), ZDMSG_FLAW_NONE);
    EXPECT_EQ(kind_of(ZDMSG_COMMIT, "", size_t{UINT32_MAX} + 1), ZDMSG_FLAW_SIZE);
    EXPECT_EQ(kind_of(ZDMSG_COMMIT, "", SIZE_MAX), ZDMSG_FLAW_SIZE);
}

TEST(ZdmsgValidate, FindsItsWayInBodiesBeyondTwoGibibytes) {
    const size_t size = size_t{3} << 30;
    char *const bytes = static_cast<char *>(mmap(
        nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
    ASSERT_NE(bytes, MAP_FAILED);
    const auto put_length = [&](size_t at, const char *word) { memcpy(bytes + at, word, 4); };
    // auth_req: flags, then strings, the first two of 1.5 GiB each less some bytes.
    put_length(4, "\x5F\xFF\xFF\x00");
    put_length(0x5FFFFF0C, "\x5F\xFF\xFF\x00");
    zdmsg_flaw_t flaw;
    EXPECT_EQ(zdmsg_validate(ZDMSG_AUTH_REQ, bytes, size, nullptr, &flaw), 1) << flaw.path;
    EXPECT_EQ(zdmsg_validate(ZDMSG_AUTH_REQ, bytes, 0xBFFFFE14 + 3, nullptr, &flaw), 0);
    EXPECT_STREQ(flaw.path, "passwd");
    EXPECT_EQ(flaw.offset, 0xBFFFFE14);
    munmap(bytes, size);
}

// ---- Limits

TEST(ZdmsgValidate, HoldsTheLimitOfBytes) {
    EXPECT_EQ(flaw_of(ZDMSG_FETCH, hex("00000001 00000002"), {0, 0, 8}), "");
    EXPECT_EQ(flaw_of(ZDMSG_FETCH, hex("00000001 00000002"), {0, 0, 7}),
              "byte 7 : the body is longer than the limit (8, 7)");
}

TEST(ZdmsgValidate, HoldsTheLimitOfElementsInOneArray) {
    EXPECT_EQ(flaw_of(ZDMSG_EXTPROC_EXECUTE, kRequest, {0, 2, 0}), "");
    EXPECT_EQ(flaw_of(ZDMSG_EXTPROC_EXECUTE, kRequest, {0, 1, 0}),
              "byte 24 param: the arrays hold more elements than the limit (2, 1)");
}

TEST(ZdmsgValidate, CountsElementsOverAllArrays) {
    const std::string body = // one with two below it, and one beside it
        hex("01020304 05060708 00000000 00000000 | 00000002 |"
            "00000007 00000000 00000002 | 00000008 00000000 00000000 |"
            "00000009 00000000 00000000 | 0000000A 00000000 00000000");
    EXPECT_EQ(flaw_of(ZDMSG_EXECUTE_UDT, body, {0, 4, 0}), "");
    EXPECT_EQ(flaw_of(ZDMSG_EXECUTE_UDT, body, {0, 3, 0}),
              "byte 28 param_info[0].sub_bindparam: "
              "the arrays hold more elements than the limit (4, 3)");
}

TEST(ZdmsgValidate, CountsHugeCountsWithoutLosingAny) {
    const std::string body = hex("01020304 05060708 00000000 00000000 | 7FFFFFFF |"
                                 "00000007 00000000 7FFFFFFF | 00000008 00000000 7FFFFFFF");
    EXPECT_EQ(flaw_of(ZDMSG_EXECUTE_UDT, body, {0, int64_t{3} * 0x7FFFFFFF - 1, 0}),
              "byte 40 param_info[0].sub_bindparam[0].sub_bindparam: "
              "the arrays hold more elements than the limit (6442450941, 6442450940)");
}

TEST(ZdmsgValidate, HoldsTheLimitOfNesting) {
    const std::string body = hex("01020304 05060708 00000000 00000000 | 00000001 |"
                                 "00000007 00000000 00000001 | 00000008 00000000 00000000");
    EXPECT_EQ(flaw_of(ZDMSG_EXECUTE_UDT, body, {2, 0, 0}), "");
    EXPECT_EQ(flaw_of(ZDMSG_EXECUTE_UDT, body, {1, 0, 0}),
              "byte 28 param_info[0].sub_bindparam: "
              "the arrays are nested deeper than the limit (2, 1)");
}

TEST(ZdmsgValidate, SideBySideArraysAreNotNested) {
    EXPECT_EQ(flaw_of(ZDMSG_PREPARE_REPLY,
                      hex("01020304 05060708 00000000 00000000 00000000 00000000 |"
                          "00000000 00000000 | 00000001 | 00000000 00000000 00000000 00000000 "
                          "00000000 00000000 00000000 | 00000001 00000000 00000000 00000000"),
                      {1, 2, 0}),
              "");
}

std::string nested_body(int levels) {
    std::string body = hex("01020304 05060708 00000000 00000000");
    for (int level = 0; level < levels; level++)
        body += hex("00000001 00000007 00000000");
    return body + hex("00000000");
}

TEST(ZdmsgValidate, KnowsHowDeepTheDecoderGoes) {
    EXPECT_EQ(flaw_of(ZDMSG_EXECUTE_UDT, nested_body(1000)), "");
    EXPECT_EQ(flaw_of(ZDMSG_EXECUTE_UDT, nested_body(1000), {5000, 0, 0}), "");
    zdmsg_flaw_t flaw;
    const std::string body = nested_body(1001);
    EXPECT_EQ(zdmsg_validate(ZDMSG_EXECUTE_UDT, body.data(), body.size(), nullptr, &flaw), 0);
    EXPECT_EQ(flaw.kind, ZDMSG_FLAW_NESTING);
    EXPECT_STREQ(flaw.reason, "the arrays are nested deeper than the decoder goes");
    EXPECT_EQ(flaw.found, 1001);
    EXPECT_EQ(flaw.allowed, ZDMSG_MAX_NESTING);
    EXPECT_EQ(flaw.offset, 16 + 1000 * 12);
    Hostile hostile;
    EXPECT_FALSE(hostile.refuses(ZDMSG_EXECUTE_UDT, nested_body(1000)));
    EXPECT_TRUE(hostile.refuses(ZDMSG_EXECUTE_UDT, body));
}

TEST(ZdmsgValidate, KeepsTheEndOfAPathThatIsTooLong) {
    std::string body = nested_body(1000);
    body.resize(body.size() - 1);
    zdmsg_flaw_t flaw;
    EXPECT_EQ(zdmsg_validate(ZDMSG_EXECUTE_UDT, body.data(), body.size(), nullptr, &flaw), 0);
    const std::string path = flaw.path;
    EXPECT_EQ(path.substr(0, 3), "...");
    EXPECT_LT(path.size(), size_t{ZDMSG_FLAW_PATH_SIZE});
    EXPECT_GT(path.size(), size_t{ZDMSG_FLAW_PATH_SIZE} - 20);
    const std::string end = ".sub_bindparam[0].sub_bindparam";
    EXPECT_EQ(path.substr(path.size() - end.size()), end);
}

TEST(ZdmsgValidate, KeepsWholeWhatFillsThePathToTheLastByte) {
    // param_info[0] and sub_bindparam[0] a level: the path grows by 17 a level, past its room.
    for (int levels = 10; levels < 20; levels++) {
        std::string body = nested_body(levels);
        body.resize(body.size() - 1);
        std::string expected = "param_info";
        for (int level = 0; level < levels; level++)
            expected += "[0].sub_bindparam";
        zdmsg_flaw_t flaw;
        zdmsg_validate(ZDMSG_EXECUTE_UDT, body.data(), body.size(), nullptr, &flaw);
        const std::string path = flaw.path;
        if (expected.size() < ZDMSG_FLAW_PATH_SIZE) {
            EXPECT_EQ(path, expected);
        } else {
            EXPECT_EQ(path, "..." + expected.substr(expected.size() - (path.size() - 3)));
        }
    }
}

} // namespace
