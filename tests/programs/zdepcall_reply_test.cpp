#include "reply.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace zdepcall;
using testing::HasSubstr;

void put(Bytes &bytes, uint32_t value) {
    for (const int shift : {24, 16, 8, 0})
        bytes.push_back(static_cast<uint8_t>(value >> shift));
}

void put(Bytes &bytes, const char *hex) {
    const Bytes more = from_hex(hex).value();
    bytes.insert(bytes.end(), more.begin(), more.end());
}

// A message of the type around a body.
Bytes message(uint32_t type, const Bytes &body) {
    Bytes bytes;
    put(bytes, type);
    put(bytes, static_cast<uint32_t>(body.size()));
    put(bytes, "0000000000000000");
    bytes.insert(bytes.end(), body.begin(), body.end());
    return bytes;
}

void put_text(Bytes &bytes, size_t offset, const char *text) {
    std::copy(text, text + std::char_traits<char>::length(text),
              bytes.begin() + static_cast<long>(offset));
}

// The serialized form, laid out by hand, of an error stack with one error.
Bytes stack_of_one() {
    Bytes stack;
    put(stack, 1U); // next id
    put(stack, 1U); // errors
    put(stack, 1U); // errors for users
    put(stack, 0U);
    Bytes record(936, 0);
    const uint8_t code[] = {0xff, 0xff, 0xb1, 0xdf}; // -20001
    std::copy(std::begin(code), std::end(code), record.begin() + 12);
    record[24] = '1';
    put_text(record, 25, "ERRPS");
    put_text(record, 31, " too small.   ");
    put_text(record, 772, "epa_usr_util");
    record[855] = 68;
    put_text(record, 856, "SQLExtProcDirectRaiseErrorWithMsg");
    stack.insert(stack.end(), record.begin(), record.end());
    return stack;
}

Bytes error_body(const Bytes &stack) {
    Bytes body;
    put(body, "0000000000000000"); // no output text
    put(body, static_cast<uint32_t>(stack.size()));
    body.insert(body.end(), stack.begin(), stack.end());
    body.resize(body.size() + 4); // 16 + n * 936 is a multiple of four: four zeros
    put(body, 0U);
    return body;
}

Call call_returning(const char *type) {
    Call call;
    call.returns = parse_return_type(type);
    return call;
}

std::string complaint_about(const Bytes &bytes, const Call &call) {
    try {
        decode_reply(bytes, call);
    } catch (const MalformedMessage &error) {
        return error.what();
    }
    return "no complaint";
}

TEST(ZdepcallReply, ValueOfASuccessIsRead) {
    Bytes body;
    put(body, "0000000000000000"
              "0000000000000000"
              "00000001"
              "000000040102030400000000");
    const Reply reply = decode_reply(message(140, body), call_returning("int"));
    EXPECT_FALSE(reply.is_error);
    ASSERT_EQ(reply.values.size(), 1U);
    EXPECT_EQ(to_hex(reply.values[0]), "01020304");
}

TEST(ZdepcallReply, OutputTextIsRead) {
    Bytes body;
    put(body, "0000000368690a00"
              "0000000000000000"
              "00000000");
    EXPECT_EQ(decode_reply(message(140, body), Call()).dbms_output, "hi\n");
}

TEST(ZdepcallReply, ErrorIsReadWithAllThatIsKnownOfIt) {
    const Reply reply =
        decode_reply(message(140, error_body(stack_of_one())), call_returning("int"));
    ASSERT_TRUE(reply.is_error);
    ASSERT_EQ(reply.errors.size(), 1U);
    const ErrorEntry &error = reply.errors[0];
    EXPECT_EQ(error.code, -20001);
    EXPECT_EQ(error.name, "ERROR_PSM_USER_RAISE_APPLICATION");
    EXPECT_EQ(error.sqlstate, "ERRPS");
    EXPECT_EQ(error.text, "too small.");
    EXPECT_EQ(error.file, "epa_usr_util");
    EXPECT_EQ(error.line, 68);
    EXPECT_EQ(error.function, "SQLExtProcDirectRaiseErrorWithMsg");
}

TEST(ZdepcallReply, CodeThatTheCatalogueDoesNotKnowHasNoName) {
    Bytes stack = stack_of_one();
    stack[16 + 12] = 0x80;
    EXPECT_EQ(decode_error_stack(stack).entries.at(0).name, "");
}

TEST(ZdepcallReply, ErrorWithAnEmptyStackIsStillAnError) {
    Bytes stack;
    put(stack, "00000000000000000000000000000000");
    const Reply reply = decode_reply(message(140, error_body(stack)), call_returning("int"));
    EXPECT_TRUE(reply.is_error);
    EXPECT_TRUE(reply.errors.empty());
}

TEST(ZdepcallReply, TextThatFillsItsFieldEndsWithIt) {
    Bytes stack = stack_of_one();
    std::fill_n(stack.begin() + 16 + 856, 80, uint8_t{'x'});
    EXPECT_EQ(decode_error_stack(stack).entries.at(0).function, std::string(80, 'x'));
}

TEST(ZdepcallReply, EveryTruncationIsRefused) {
    const Bytes whole = message(140, error_body(stack_of_one()));
    for (size_t size = 0; size < whole.size(); size++) {
        const Bytes part(whole.begin(), whole.begin() + static_cast<long>(size));
        EXPECT_THROW(decode_reply(part, call_returning("int")), MalformedMessage) << size;
    }
}

TEST(ZdepcallReply, EveryBitFlipIsRefusedOrReadWithinBounds) {
    const Bytes whole = message(140, error_body(stack_of_one()));
    for (size_t bit = 0; bit < whole.size() * 8; bit++) {
        Bytes flipped = whole;
        flipped[bit / 8] ^= static_cast<uint8_t>(1 << bit % 8);
        try {
            decode_reply(flipped, call_returning("int"));
        } catch (const MalformedMessage &) {
        }
    }
}

TEST(ZdepcallReply, CountOfErrorsIsHeldAgainstTheBytes) {
    Bytes stack = stack_of_one();
    stack[7] = 2;
    EXPECT_THROW(decode_error_stack(stack), MalformedMessage);
    stack[4] = 0xff;
    EXPECT_THROW(decode_error_stack(stack), MalformedMessage);
}

TEST(ZdepcallReply, OtherMessageTypesAreRefused) {
    EXPECT_THAT(complaint_about(message(139, {}), Call()), HasSubstr("type 139, not a reply"));
}

TEST(ZdepcallReply, BytesAfterTheLastFieldAreRefused) {
    Bytes body;
    put(body, "0000000000000000"
              "0000000000000000"
              "00000000"
              "00000000");
    EXPECT_THAT(complaint_about(message(140, body), Call()), HasSubstr("4 bytes after"));
}

TEST(ZdepcallReply, WrongNumberOfValuesIsRefused) {
    Bytes body;
    put(body, "0000000000000000"
              "0000000000000000"
              "00000000");
    EXPECT_THAT(complaint_about(message(140, body), call_returning("int")),
                HasSubstr("0 values, the call has 1"));
}

} // namespace
