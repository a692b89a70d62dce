// Requests and replies at their limits, on a real socket.

#include <gmock/gmock.h>

#include "agent.h"

namespace {

using namespace agent_test;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

const LogLine kFailLine = {"ERR", "ERROR_EPA_FAIL occurred"};

class AgentReply : public testing::Test {
  protected:
    Reply call(const std::string &function, int return_flag, const std::vector<Param> &params,
               int property = 0) {
        return agent_.call({AGENT_ROUTINES, function, return_flag, params, property});
    }

    void expect_service() {
        const Reply reply = agent_.call(seven());
        EXPECT_EQ(reply.code(), 0);
        EXPECT_THAT(reply.values, ElementsAre(bytes_of(int32_t{7})));
    }

    static Call seven() { return {ROUTINES_LIBRARY, "returns_seven", int_return(), {}, 0}; }

    // An error reply that carries a stack without errors.
    static void expect_empty_stack(const Reply &reply) {
        EXPECT_EQ(reply.stack_bytes.size(), 16u);
        EXPECT_EQ(reply.stack.count, 0);
        EXPECT_EQ(reply.stack.user_count, 0);
        EXPECT_THAT(reply.values, IsEmpty());
        EXPECT_EQ(reply.output, "");
    }

    Agent agent_{{.configuration = "LOG_LVL=1\n"}};
};

TEST_F(AgentReply, BytesOfASuccessReplyAreTheWrittenOnes) {
    agent_.send(request(seven()));
    const std::string expected =
        std::string("\0\0\0\x8C\0\0\0\x20\0\0\0\0\0\0\0\0", 16) +   // 140, 32 bytes, no tsn
        std::string("\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\1", 20) // no output, no stack, 1 value
        + std::string("\0\0\0\4\7\0\0\0\0\0\0\0", 12);
    EXPECT_EQ(agent_.receive(48), expected);
}

TEST_F(AgentReply, TransactionNumberOfTheRequestIsNotAnswered) {
    const std::string body = body_of(seven());
    agent_.send(header(kRequestType, static_cast<uint32_t>(body.size()), 0x1122334455667788) +
                body);
    EXPECT_EQ(agent_.receive_reply().tsn, 0u);
}

TEST_F(AgentReply, RequestMayComeByteByByte) {
    for (const char byte : request(seven()))
        agent_.send(std::string(1, byte));
    EXPECT_THAT(agent_.receive_reply().values, ElementsAre(bytes_of(int32_t{7})));
}

TEST_F(AgentReply, RequestsSentTogetherAreAnsweredInTheirOrder) {
    std::string requests;
    for (int i = 0; i < 50; i++)
        requests +=
            request({ROUTINES_LIBRARY, "add", int_return(), {int_param(i), int_param(1000)}, 0});
    agent_.send(requests);
    for (int i = 0; i < 50; i++)
        EXPECT_THAT(agent_.receive_reply().values, ElementsAre(bytes_of(int32_t{1000 + i})));
}

// --- the request's size --------------------------------------------------------------------------

Call with_body_of(size_t size) {
    Call call = {AGENT_ROUTINES, "do_nothing", kNoReturn, {}, 0};
    call.params.push_back(reference_param(kRaw, kIn, 0, ""));
    call.params[0].value.assign(size - body_of(call).size(), 'b');
    return call;
}

TEST_F(AgentReply, BodyOfTheFullSizeIsServed) {
    const Call call = with_body_of(kMaxBodySize);
    ASSERT_EQ(body_of(call).size(), kMaxBodySize);
    EXPECT_FALSE(agent_.call(call).failed());
    expect_service();
}

TEST_F(AgentReply, OversizedBodyIsRefusedAndStaysUnread) {
    // The body that is too large is made of whole messages: unread, they are the next requests.
    const std::string first = request(seven());
    const size_t rest = kMaxBodySize + 1 - first.size() - kHeaderSize;
    const std::string second =
        header(142, static_cast<uint32_t>(rest)) + std::string(rest, '\0'); // refused by its type
    ASSERT_EQ(first.size() + second.size(), kMaxBodySize + 1);
    agent_.send(header(kRequestType, kMaxBodySize + 1) + first + second);
    expect_empty_stack(agent_.receive_reply());
    EXPECT_THAT(agent_.receive_reply().values, ElementsAre(bytes_of(int32_t{7})));
    EXPECT_EQ(agent_.receive_reply().code(), -140002);
    EXPECT_THAT(agent_.log_lines(),
                ElementsAre(LogLine{"ERR", "recv msg body size exceeded!"}, kFailLine,
                            LogLine{"FAT", "Unknown Request Type"},
                            LogLine{"ERR", "ERROR_EPA_INVALID_PROTOCOL occurred"}));
    expect_service();
}

TEST_F(AgentReply, LargestBodySizeIsNotTakenForANegativeOne) {
    agent_.send(header(kRequestType, 0xffffffff));
    expect_empty_stack(agent_.receive_reply());
    expect_service();
}

// --- the reply's size ----------------------------------------------------------------------------

// 36 bytes of header, output, stack and count, 2 x 2008 of the raw values, 4 and the padded text.
Call with_last_text_of(int length) {
    return {AGENT_ROUTINES,
            "do_nothing",
            kNoReturn,
            {reference_param(kRaw, kOut, 2000, ""), reference_param(kRaw, kOut, 2000, ""),
             text_param(std::string(static_cast<size_t>(length), 'x'), length)},
            0};
}

TEST_F(AgentReply, ReplyOfTheFullSizeIsSent) {
    agent_.send(request(with_last_text_of(39)));
    Reply reply = agent_.receive_reply();
    EXPECT_EQ(kHeaderSize + reply.body_size, kMaxReplySize);
    EXPECT_THAT(reply.values, ElementsAre(std::string(2000, '\0'), std::string(2000, '\0'),
                                          std::string(39, 'x')));
}

TEST_F(AgentReply, LargerReplyIsRefused) {
    expect_empty_stack(agent_.call(with_last_text_of(40)));
    EXPECT_THAT(agent_.log_lines(),
                ElementsAre(LogLine{"ERR", "reply msg body size exceeded!"}, kFailLine));
    expect_service();
}

// --- the result ----------------------------------------------------------------------------------

TEST_F(AgentReply, EntriesFollowTheResult) {
    const Param counter = {flag(kByReference, kInOut, kPlsInt, kInt), 4, bytes_of(int32_t{41})};
    const Reply reply = agent_.call({ROUTINES_LIBRARY, "bump", int_return(), {counter}, 0});
    EXPECT_THAT(reply.values, ElementsAre(bytes_of(int32_t{42}), bytes_of(int32_t{42})));
}

TEST_F(AgentReply, EntriesBeginAtTheFrontWithoutAResult) {
    const Param counter = {flag(kByReference, kInOut, kPlsInt, kInt), 4, bytes_of(int32_t{41})};
    const Reply reply = agent_.call({ROUTINES_LIBRARY, "bump", kNoReturn, {counter}, 0});
    EXPECT_THAT(reply.values, ElementsAre(bytes_of(int32_t{42})));
}

TEST_F(AgentReply, OnlyOutParametersHaveEntries) {
    const Reply reply = call("do_nothing", kNoReturn,
                             {int_param(1),
                              int_param(2, kOut),
                              int_param(3),
                              int_param(4, kInOut),
                              {flag(kByValue, 0, kPlsInt, kInt), 4, bytes_of(int32_t{5})},
                              {flag(kByValue, 6, kPlsInt, kInt), 4, bytes_of(int32_t{6})}});
    EXPECT_THAT(reply.values,
                ElementsAre(bytes_of(int32_t{2}), bytes_of(int32_t{4}), bytes_of(int32_t{6})));
}

TEST_F(AgentReply, ReturnedNumberIsItsLengthByteAndThatManyBytes) {
    for (const int length : {0, 1, 21, 127, 128, 200, 255}) {
        const Reply reply = call("make_number", reference_return(kNumber), {int_param(length)});
        ASSERT_THAT(reply.values, SizeIs(1));
        std::string expected;
        for (int i = 0; i <= length; i++)
            expected += static_cast<char>(i == 0 ? length : 255 - i);
        EXPECT_EQ(reply.values[0], expected) << length;
    }
}

TEST_F(AgentReply, ReturnedRawIsAlwaysOfTheFullLength) {
    for (const NativeType type : {kRaw, kDbRawType}) {
        const Reply reply =
            agent_.call({ROUTINES_LIBRARY, "return_raw", reference_return(type), {}, 0});
        ASSERT_THAT(reply.values, SizeIs(1));
        EXPECT_EQ(reply.values[0].size(), 2000u);
        EXPECT_EQ(reply.values[0].substr(0, 4), std::string("\0\1\2\3", 4));
    }
}

TEST_F(AgentReply, ReturnedTextEndsAtItsZero) {
    for (const NativeType type : {kString, kDbString})
        EXPECT_THAT(
            agent_.call({ROUTINES_LIBRARY, "return_text", reference_return(type), {}, 0}).values,
            ElementsAre("static text"));
}

TEST_F(AgentReply, ReturnedReferenceIsReadAtItsTypesSize) {
    const std::string eight = bytes_of(int64_t{0x1122334455667788});
    const std::vector<std::pair<NativeType, size_t>> sizes = {
        {kChar, 1}, {kUchar, 1}, {kShort, 2}, {kUshort, 2}, {kInt, 4},
        {kUint, 4}, {kLong, 8},  {kUlong, 8}, {kSizeT, 8}};
    for (const auto &[type, size] : sizes)
        EXPECT_THAT(
            agent_.call({ROUTINES_LIBRARY, "return_long", reference_return(type), {}, 0}).values,
            ElementsAre(eight.substr(0, size)))
            << type;
}

TEST_F(AgentReply, ReferenceDeclaredAsDoubleIsTakenFromTheVectorRegister) {
    // The declared type alone says where a result lies. The routine leaves its pointer in rax, and
    // in xmm0 the zero that it was called with: a pointer to nothing.
    EXPECT_THAT(call("make_double", reference_return(kDouble), {}).values, ElementsAre(""));
    EXPECT_THAT(call("make_double", reference_return(kLong), {}).values,
                ElementsAre(bytes_of(1.5)));
}

TEST_F(AgentReply, NullReturnedIsEmptyWhateverTheTypeIs) {
    for (int type = 0; type <= 24; type++) {
        if (type == kFloat || type == kDouble)
            continue; // not taken from rax
        const Reply reply = agent_.call({ROUTINES_LIBRARY,
                                         "return_null",
                                         reference_return(static_cast<NativeType>(type)),
                                         {},
                                         0});
        EXPECT_EQ(reply.code(), 0) << type;
        EXPECT_THAT(reply.values, ElementsAre("")) << type;
    }
}

TEST_F(AgentReply, ReturnedReferenceOfAnotherTypeIsRefused) {
    for (const int type : {0, 16, 18, 19, 20, 21, 22, 23, 24, 255}) {
        const Reply reply = agent_.call({ROUTINES_LIBRARY,
                                         "return_text",
                                         reference_return(static_cast<NativeType>(type)),
                                         {},
                                         0});
        EXPECT_EQ(reply.code(), -140014) << type;
        EXPECT_EQ(reply.error().file, "epa_msg");
        EXPECT_EQ(reply.error().line, 170);
        EXPECT_EQ(reply.error().text, " Not supported SQL type in external procedure   ");
    }
    expect_service();
}

TEST_F(AgentReply, ReturnedValueOfADatabaseTypeWithoutSizeIsRefused) {
    const Reply reply =
        agent_.call({ROUTINES_LIBRARY, "returns_seven", flag(kByValue, 0, kDbNumber, kInt), {}, 0});
    EXPECT_EQ(reply.code(), -140014);
    EXPECT_EQ(reply.error().file, "epa_type");
    EXPECT_EQ(reply.error().line, 37);
    EXPECT_EQ(reply.error().function, "get_zd_type_size");
}

TEST_F(AgentReply, RoutinesMemoryReachesTheReply) {
    const Reply reply = agent_.call({ROUTINES_LIBRARY,
                                     "with_context_text",
                                     reference_return(kString),
                                     {text_param("inner")},
                                     kWithContext});
    EXPECT_THAT(reply.values, ElementsAre("<inner>"));
}

// --- OUT values ----------------------------------------------------------------------------------

TEST_F(AgentReply, OutNumberIsOneByteLessThanItsLengthByteSays) {
    for (const int length : {1, 2, 22, 127, 128, 200, 255}) {
        const Reply reply =
            call("write_number", kNoReturn,
                 {reference_param(kNumber, kInOut, 300, std::string(300, 'n')), int_param(length)});
        ASSERT_THAT(reply.values, SizeIs(1)) << length;
        std::string expected(static_cast<size_t>(length), 'n');
        expected[0] = static_cast<char>(length);
        expected.pop_back();
        EXPECT_EQ(reply.values[0], expected) << length;
    }
}

TEST_F(AgentReply, OutNumberOfLengthByteZeroIsEmpty) {
    const Reply reply =
        call("write_number", kNoReturn, {reference_param(kNumber, kOut, 22, ""), int_param(0)});
    EXPECT_EQ(reply.code(), 0);
    EXPECT_THAT(reply.values, ElementsAre(""));
}

void expect_overflow(const Reply &reply) {
    EXPECT_EQ(reply.code(), -140013);
    EXPECT_EQ(reply.error().file, "epa_msg");
    EXPECT_EQ(reply.error().line, 220);
    EXPECT_EQ(reply.error().text, " OUT parameter length overflow.   ");
    EXPECT_EQ(reply.error().sqlstate, "ERREP");
    EXPECT_THAT(reply.values, IsEmpty());
}

TEST_F(AgentReply, OutNumberMayBeAsLongAsItsMaximum) {
    const Param number = reference_param(kNumber, kOut, 22, "");
    EXPECT_THAT(call("write_number", kNoReturn, {number, int_param(23)}).values,
                ElementsAre(std::string("\x17", 1) + std::string(21, '\0')));
    expect_overflow(call("write_number", kNoReturn, {number, int_param(24)}));
    expect_service();
}

TEST_F(AgentReply, OutTextMayBeAsLongAsItsMaximum) {
    for (const NativeType type : {kString, kDbString}) {
        // In place: as long as what came, which the maximum may be below.
        EXPECT_THAT(
            call("do_nothing", kNoReturn, {reference_param(type, kOut, 10, "0123456789")}).values,
            ElementsAre("0123456789"));
        expect_overflow(
            call("do_nothing", kNoReturn, {reference_param(type, kOut, 9, "0123456789")}));
        // Widened: the text's end may lie behind the maximum.
        EXPECT_THAT(
            call("write_text", kNoReturn, {reference_param(type, kOut, 10, ""), int_param(10)})
                .values,
            ElementsAre(std::string(10, 't')));
        expect_overflow(
            call("write_text", kNoReturn, {reference_param(type, kOut, 10, ""), int_param(11)}));
    }
    expect_service();
}

TEST_F(AgentReply, OutTextIsWidenedWithZeros) {
    const Reply reply =
        agent_.call({ROUTINES_LIBRARY, "zeros_behind", int_return(), {text_param("abc", 100)}, 0});
    EXPECT_THAT(reply.values, ElementsAre(bytes_of(int32_t{5}), "abc"));
}

TEST_F(AgentReply, OutRawIsAsLongAsItsMaximumButNeverAbove2000) {
    for (const NativeType type : {kRaw, kDbRawType}) {
        const std::vector<std::pair<int, size_t>> lengths = {
            {8, 8}, {9, 9}, {2000, 2000}, {2001, 2000}, {9999, 2000}, {4, 4}, {0, 0}, {-1, 0}};
        for (const auto &[maxlen, length] : lengths) {
            const Reply reply =
                call("do_nothing", kNoReturn, {reference_param(type, kOut, maxlen, "12345678")});
            ASSERT_THAT(reply.values, SizeIs(1)) << maxlen << " " << reply;
            std::string expected = "12345678";
            expected.resize(length);
            EXPECT_EQ(reply.values[0], expected) << maxlen;
        }
    }
}

TEST_F(AgentReply, OutValueOfAnyOtherTypeIsAsLongAsItCame) {
    for (int type = 0; type <= 24; type++) {
        if (type == kString || type == kDbString || type == kRaw || type == kDbRawType ||
            type == kNumber)
            continue;
        for (const int maxlen : {64, 3, -1}) {
            const Reply reply =
                call("do_nothing", kNoReturn,
                     {reference_param(static_cast<NativeType>(type), kOut, maxlen, "abcdefg")});
            EXPECT_THAT(reply.values, ElementsAre("abcdefg")) << type << " " << maxlen;
        }
    }
}

TEST_F(AgentReply, TextThatIsNotWidenedIsPassedInPlace) {
    // What is behind a text in the receive buffer: its padding, then the next parameter's flag.
    const Reply reply = agent_.call(
        {ROUTINES_LIBRARY, "zeros_behind", int_return(), {text_param("abc"), int_param(1)}, 0});
    EXPECT_THAT(reply.values, ElementsAre(bytes_of(int32_t{2})));
}

// --- requests of other types ---------------------------------------------------------------------

class AgentRefuses : public AgentReply {
  protected:
    void expect_refusal(int type, const std::string &body) {
        agent_.send(message(type, body));
        const Reply reply = agent_.receive_reply();
        EXPECT_EQ(reply.code(), -140002) << type;
        EXPECT_EQ(reply.error().text, " Invalid protocol.   ");
        EXPECT_EQ(reply.error().file, "epa_proc");
        EXPECT_EQ(reply.error().function, "epa_process_request");
        EXPECT_EQ(reply.stack.count, 1);
        expect_service();
    }
};

TEST_F(AgentRefuses, EveryOtherTypeOfTheProtocol) {
    expect_refusal(142, text_field("a class"));
    expect_refusal(23, "");
    expect_refusal(76, big_endian(0) + text_field("stack"));
    expect_refusal(75, text_field("warning"));
    expect_refusal(140, text_field("") + text_field("") + big_endian(1) + text_field("value"));
    expect_refusal(5, std::string(8, 'p') + big_endian(0) + big_endian(0) + big_endian(0));
    EXPECT_THAT(agent_.log_lines(), Contains(LogLine{"FAT", "Unknown Request Type"}).Times(6));
    EXPECT_THAT(agent_.log_lines(),
                Contains(LogLine{"ERR", "ERROR_EPA_INVALID_PROTOCOL occurred"}).Times(6));
}

TEST_F(AgentRefuses, TypesOutsideTheProtocolWhateverTheirBody) {
    for (const int type : {278, 5000, -2, INT32_MAX, INT32_MIN}) {
        expect_refusal(type, "");
        expect_refusal(type, "any body");
        expect_refusal(type, std::string(kMaxBodySize, '\xff'));
    }
}

TEST_F(AgentReply, TypeMinusOneEndsTheService) {
    agent_.send(request(seven()) + header(-1, 0));
    agent_.receive_reply();
    EXPECT_EQ(agent_.wait(), exited(0));
    // Not the end of the connection: the log stays where it is.
    EXPECT_THAT(agent_.log_files(), SizeIs(1));
    EXPECT_THAT(agent_.backup_files(), IsEmpty());
}

} // namespace
