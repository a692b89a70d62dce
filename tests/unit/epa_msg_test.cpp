#include "client/zdepa/epa_msg.h"

#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include <cstring>

#include "client/common/client_try.h"
#include "client/zdepa/epa_dl_call.h"
#include "common/alloc/region_clialloc.h"
#include "common/ec.h"
#include "common/zd_err.h"
#include "common/zdmsg/zdmsg.h"
#include "support/agent_context.h"
#include "support/wire.h"

namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;

class EpaMsg : public AgentContextTest {
  protected:
    void SetUp() override {
        signal(SIGPIPE, SIG_IGN);
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends_), 0);
        start("LOG_LVL=5\n");
        epa_ctx_mgr_->fd = ends_[0];
    }

    void TearDown() override {
        close(ends_[0]);
        close(ends_[1]);
        AgentContextTest::TearDown();
    }

    void send(const std::string &bytes) {
        ASSERT_EQ(::send(ends_[1], bytes.data(), bytes.size(), 0),
                  static_cast<ssize_t>(bytes.size()));
    }

    // All that came.
    std::string received() {
        std::string bytes(16384, '\0');
        const ssize_t count = recv(ends_[1], bytes.data(), bytes.size(), MSG_DONTWAIT);
        bytes.resize(count > 0 ? static_cast<size_t>(count) : 0);
        return bytes;
    }

    int unread() const {
        int count = -1;
        ioctl(ends_[0], FIONREAD, &count);
        return count;
    }

    static const CLI_alloc_t *root() {
        return reinterpret_cast<const CLI_alloc_t *>(epa_ctx_mgr_->alloc);
    }

    static const zd_err_inst_t *top_error() { return zd_err_stack_get(epa_ctx_mgr_->errstack, 0); }

    int ends_[2];
};

// --- the readiness signal ------------------------------------------------------------------------

TEST_F(EpaMsg, ReadinessSignalIsThirteenRawBytes) {
    EXPECT_EQ(epa_send_zd_boot_success(), 0);
    EXPECT_EQ(received(), std::string("BOOT SUCCESS\0", 13));
    EXPECT_THAT(home_.log(), EndsWith("[INF] socket writes prepare\n"));
}

TEST_F(EpaMsg, ReadinessSignalThatFailsIsReturnedAsItsCode) {
    close(ends_[1]);
    EXPECT_EQ(epa_send_zd_boot_success(), ERROR_IO);
    EXPECT_THAT(home_.log(), IsEmpty());
    EXPECT_EQ(epa_ctx_mgr_->errstack->count, 0);
}

// --- one request in ------------------------------------------------------------------------------

class EpaMsgRecv : public EpaMsg {
  protected:
    // The thrown code; type_ when nothing was thrown.
    ec_t receive() {
        return client_try([this] { type_ = epa_msg_recv(); });
    }

    const zdmsg_extproc_execute_t *request() const {
        return reinterpret_cast<const zdmsg_extproc_execute_t *>(epa_ctx_mgr_->msg);
    }

    static bool in_receive_buffer(const char *data) {
        return data >= epa_ctx_mgr_->recv_buf && data < epa_ctx_mgr_->recv_buf + EPA_MSG_BUF_SIZE;
    }

    int type_ = 0;
};

TEST_F(EpaMsgRecv, RequestIsDecodedInPlace) {
    send(agent_test::request({"/a/library.so",
                              "routine",
                              0x01020304,
                              {agent_test::int_param(7), agent_test::text_param("text", 9)},
                              0x8100}));
    ASSERT_EQ(receive(), 0);
    EXPECT_EQ(type_, 139);
    EXPECT_EQ(request()->base.type, 139);
    EXPECT_EQ(request()->base.raw, epa_ctx_mgr_->recv_buf);
    EXPECT_STREQ(request()->library_path.data, "/a/library.so");
    EXPECT_EQ(request()->library_path.len, 13);
    EXPECT_TRUE(in_receive_buffer(request()->library_path.data));
    EXPECT_STREQ(request()->function_name.data, "routine");
    EXPECT_EQ(request()->property, 0x8100);
    EXPECT_EQ(request()->return_flag, 0x01020304);
    ASSERT_EQ(request()->param.array_cnt, 2);
    EXPECT_FALSE(in_receive_buffer(reinterpret_cast<const char *>(request()->param.data)));
    EXPECT_EQ(request()->param.data[1].maxlen, 9);
    EXPECT_STREQ(request()->param.data[1].data_value.data, "text");
    EXPECT_TRUE(in_receive_buffer(request()->param.data[1].data_value.data));
}

TEST_F(EpaMsgRecv, SizeIsConvertedAndTransactionNumberStaysAsItCame) {
    const std::string body = agent_test::text_field("x");
    send(agent_test::header(142, 8, 0x1122334455667788) + body);
    ASSERT_EQ(receive(), 0);
    EXPECT_EQ(epa_ctx_mgr_->msg->body_size, 8u);
    EXPECT_EQ(epa_ctx_mgr_->msg->tsn, 0x8877665544332211);
}

TEST_F(EpaMsgRecv, EndOfTheStreamIsThrownWithoutAnErrorOnTheStack) {
    shutdown(ends_[1], SHUT_WR);
    EXPECT_EQ(receive(), ERROR_EPA_CONN_CLOSED);
    EXPECT_EQ(epa_ctx_mgr_->errstack->count, 0);
}

TEST_F(EpaMsgRecv, EndInsideTheHeaderIsTheEndOfTheStream) {
    send(std::string(15, '\0'));
    shutdown(ends_[1], SHUT_WR);
    EXPECT_EQ(receive(), ERROR_EPA_CONN_CLOSED);
}

TEST_F(EpaMsgRecv, FullBodyIsTaken) {
    send(agent_test::header(5000, 4096) + std::string(4096, 'b'));
    EXPECT_EQ(receive(), 0);
    EXPECT_EQ(unread(), 0);
    EXPECT_EQ(epa_ctx_mgr_->recv_buf[4095], 'b');
}

TEST_F(EpaMsgRecv, OversizedBodyIsRefusedAndStaysUnread) {
    send(agent_test::header(139, 4097) + std::string(4097, 'b'));
    EXPECT_EQ(receive(), ERROR_EPA_FAIL);
    EXPECT_EQ(epa_ctx_mgr_->errstack->count, 0);
    EXPECT_EQ(unread(), 4097);
    EXPECT_THAT(home_.log(), EndsWith("[ERR] recv msg body size exceeded!\n"));
}

TEST_F(EpaMsgRecv, EndInsideTheBodyIsAFailedRead) {
    send(agent_test::header(139, 100) + std::string(99, 'b'));
    shutdown(ends_[1], SHUT_WR);
    EXPECT_EQ(receive(), ERROR_IO);
    EXPECT_EQ(epa_ctx_mgr_->errstack->count, 0);
}

TEST_F(EpaMsgRecv, SocketThatCannotBeReadIsThrown) {
    epa_ctx_mgr_->fd = -1;
    EXPECT_EQ(receive(), ERROR_IO);
    EXPECT_EQ(epa_ctx_mgr_->errstack->count, 0);
}

TEST_F(EpaMsgRecv, BodyOfATypeOutsideTheCatalogueIsReadAndNotDecoded) {
    for (const int type : {278, 5000, -2, -1, INT32_MAX, INT32_MIN}) {
        send(agent_test::message(type, std::string(40, '\xff')));
        EXPECT_EQ(receive(), 0);
        EXPECT_EQ(type_, type);
        EXPECT_EQ(unread(), 0);
    }
}

// --- the reply's entries -------------------------------------------------------------------------

// A finished call, made by hand.
class EpaMsgReply : public EpaMsg {
  protected:
    void SetUp() override {
        EpaMsg::SetUp();
        dlf_ = new_call();
    }

    static epa_dlfunc_t *new_call(int with_context = 0) {
        char name[] = "x";
        return epa_dlfunc_new(1, name, 1, name, with_context, 0, 0);
    }

    void set_return(int call_method, int zd_type, int zd_type_ext) {
        dlf_->return_info = {call_method, 0, static_cast<zd_type_t>(zd_type),
                             static_cast<zd_type_ext_t>(zd_type_ext)};
        dlf_->out_param_cnt++;
    }

    void add_param(int mode, int zd_type_ext, const void *data, int length, int maxlen) {
        epa_dlfunc_param_new(dlf_, 1, mode, ZD_TYPE_VARCHAR,
                             static_cast<zd_type_ext_t>(zd_type_ext),
                             const_cast<char *>(static_cast<const char *>(data)), length, maxlen);
        if ((mode & 2) != 0)
            dlf_->out_param_cnt++;
    }

    ec_t fill() {
        return client_try(
            [this] { epa_msg_reply_param_set(dlf_, &cell_, &reply_.base, epa_ctx_mgr_->alloc); });
    }

    const zdmsg_str_t &entry(int index) const { return reply_.reply_param.data[index].data_value; }

    epa_dlfunc_t *dlf_ = nullptr;
    int64_t cell_ = 0x1122334455667788;
    zdmsg_extproc_execute_reply_t reply_ = {};
};

TEST_F(EpaMsgReply, CallWithoutResultAndOutValuesHasNoEntries) {
    memset(&reply_, 0xEE, sizeof reply_);
    add_param(1, EXT_TYPE_INT, "1234", 4, 4);
    ASSERT_EQ(fill(), 0);
    EXPECT_EQ(reply_.base.type, 140);
    EXPECT_EQ(reply_.base.body_size, 0u);
    EXPECT_EQ(reply_.base.str_auto_free, 0);
    EXPECT_EQ(reply_.base.tsn, 0u);
    EXPECT_EQ(reply_.dbms_output.len, 0);
    EXPECT_EQ(reply_.dbms_output.data, nullptr);
    EXPECT_EQ(reply_.errstack.len, 0);
    EXPECT_EQ(reply_.errstack.data, nullptr);
    EXPECT_EQ(reply_.reply_param.array_cnt, 0);
}

TEST_F(EpaMsgReply, ResultByValueIsTheCellItself) {
    set_return(0, ZD_TYPE_BIN_DOUBLE, EXT_TYPE_LONG);
    ASSERT_EQ(fill(), 0);
    EXPECT_EQ(entry(0).len, 8);
    EXPECT_EQ(entry(0).data, reinterpret_cast<char *>(&cell_));
    EXPECT_THAT(home_.log(),
                HasSubstr("    0th out param - call_method : 0, zd_type_ext : 7, len : 8\n"));
    EXPECT_THAT(home_.log(), EndsWith(std::string(16 + 4, ' ') + "data : [1234605616436508552]\n"));
}

TEST_F(EpaMsgReply, ResultByValueIsTracedAsTheCellHoldsIt) {
    // Four bytes are sent; the line shows the eight that the native type has.
    set_return(0, ZD_TYPE_PLS_INT, EXT_TYPE_LONG);
    ASSERT_EQ(fill(), 0);
    EXPECT_EQ(entry(0).len, 4);
    EXPECT_THAT(home_.log(), EndsWith(std::string(16 + 4, ' ') + "data : [1234605616436508552]\n"));
}

TEST_F(EpaMsgReply, ResultByReferenceIsWhatTheCellPointsAt) {
    const char text[] = "a text";
    const char *const pointer = text;
    memcpy(&cell_, &pointer, sizeof pointer);
    set_return(1, ZD_TYPE_VARCHAR, EXT_TYPE_ZDSTRING);
    ASSERT_EQ(fill(), 0);
    EXPECT_EQ(entry(0).len, 6);
    EXPECT_EQ(entry(0).data, text);
}

TEST_F(EpaMsgReply, NullResultIsTracedAsFarAsItCanBePrinted) {
    cell_ = 0;
    set_return(1, ZD_TYPE_VARCHAR, EXT_TYPE_STRING);
    ASSERT_EQ(fill(), 0);
    EXPECT_THAT(home_.log(), EndsWith(std::string(16 + 4, ' ') + "data : [(null)]\n"));
    dlf_->return_info.zd_type_ext = EXT_TYPE_INT;
    ASSERT_EQ(fill(), 0);
    EXPECT_THAT(home_.log(),
                EndsWith("    0th out param - call_method : 1, zd_type_ext : 5, len : 0\n"));
}

TEST_F(EpaMsgReply, AnyOtherCallMethodMeansAResultByValue) {
    set_return(2, ZD_TYPE_PLS_INT, EXT_TYPE_STRING);
    ASSERT_EQ(fill(), 0);
    EXPECT_EQ(entry(0).len, 4);
    EXPECT_EQ(entry(0).data, reinterpret_cast<char *>(&cell_));
}

TEST_F(EpaMsgReply, ReferenceToFloatingValuesIsReadAtTheirSize) {
    const double value = 2.5;
    const double *const pointer = &value;
    memcpy(&cell_, &pointer, sizeof pointer);
    set_return(1, ZD_TYPE_VARCHAR, EXT_TYPE_DOUBLE);
    ASSERT_EQ(fill(), 0);
    EXPECT_EQ(entry(0).len, 8);
    dlf_->return_info.zd_type_ext = EXT_TYPE_FLOAT;
    ASSERT_EQ(fill(), 0);
    EXPECT_EQ(entry(0).len, 4);
}

TEST_F(EpaMsgReply, NullOutPointerIsEmpty) {
    for (const int type :
         {EXT_TYPE_STRING, EXT_TYPE_ZDSTRING, EXT_TYPE_RAW, EXT_TYPE_ZDRAW, EXT_TYPE_ZDNUMBER})
        add_param(2, type, nullptr, 0, 0);
    ASSERT_EQ(fill(), 0);
    ASSERT_EQ(reply_.reply_param.array_cnt, 5);
    for (int i = 0; i < 5; i++) {
        EXPECT_EQ(entry(i).len, 0);
        EXPECT_EQ(entry(i).data, nullptr);
    }
}

TEST_F(EpaMsgReply, NullOutPointerIsLongerThanANegativeMaximum) {
    for (const int type :
         {EXT_TYPE_STRING, EXT_TYPE_ZDSTRING, EXT_TYPE_RAW, EXT_TYPE_ZDRAW, EXT_TYPE_ZDNUMBER}) {
        dlf_ = new_call();
        add_param(2, type, nullptr, 0, -1);
        EXPECT_EQ(fill(), ERROR_EPA_LENGTH_OVERFLOW) << type;
        EXPECT_STREQ(top_error()->file, "epa_msg");
        EXPECT_EQ(top_error()->line, 220);
        EXPECT_STREQ(top_error()->func, "epa_msg_reply_param_set");
    }
}

TEST_F(EpaMsgReply, NullOutPointerOfAnotherTypeIsNotLookedAt) {
    add_param(2, EXT_TYPE_INT, nullptr, 0, -1);
    ASSERT_EQ(fill(), 0);
    EXPECT_EQ(entry(0).len, 0);
}

TEST_F(EpaMsgReply, EntriesAreInTheOrderOfTheirDeclaration) {
    const char *const first = "1111", *const second = "2222", *const third = "3333";
    add_param(2, EXT_TYPE_INT, first, 4, 4);
    add_param(1, EXT_TYPE_INT, second, 4, 4);
    add_param(3, EXT_TYPE_INT, third, 4, 4);
    ASSERT_EQ(fill(), 0);
    ASSERT_EQ(reply_.reply_param.array_cnt, 2);
    EXPECT_EQ(entry(0).data, first);
    EXPECT_EQ(entry(1).data, third);
}

TEST_F(EpaMsgReply, EntriesAreTracedWithTheirNumberInTheReply) {
    set_return(0, ZD_TYPE_PLS_INT, EXT_TYPE_INT);
    const int32_t value = 5;
    add_param(2, EXT_TYPE_INT, &value, 4, 4);
    ASSERT_EQ(fill(), 0);
    EXPECT_THAT(home_.log(),
                HasSubstr("    1th out param - call_method : 1, zd_type_ext : 5, len : 4\n"));
    EXPECT_THAT(home_.log(), EndsWith(std::string(16 + 4, ' ') + "data : [5]\n"));
}

TEST_F(EpaMsgReply, ReplyIsWrittenAndTheCallReleased) {
    const uint64_t used = root()->total_used;
    epa_dlfunc_t *const dlf = new_call(1);
    dlf->return_info = {0, 0, ZD_TYPE_PLS_INT, EXT_TYPE_INT};
    dlf->out_param_cnt = 1;
    int64_t cell = 0x01020304;
    EXPECT_EQ(client_try([&] { epa_msg_send(dlf, &cell); }), 0);
    EXPECT_EQ(received(), std::string("\0\0\0\x8C\0\0\0\x20\0\0\0\0\0\0\0\0", 16) +
                              std::string(19, '\0') +
                              std::string("\1\0\0\0\4\4\3\2\1\0\0\0\0", 13));
    EXPECT_EQ(root()->total_used, used);
    EXPECT_EQ(region_alloc_check(epa_ctx_mgr_->alloc, nullptr), 0);
}

TEST_F(EpaMsgReply, FullReplyIsWrittenAndALargerOneNot) {
    const std::string raw(2000, 'r'), text(39, 't'), longer(40, 't');
    add_param(2, EXT_TYPE_RAW, raw.data(), 2000, 2000);
    add_param(2, EXT_TYPE_RAW, raw.data(), 2000, 2000);
    add_param(2, EXT_TYPE_STRING, text.c_str(), 39, 39);
    epa_dlfunc_t *const larger = new_call();
    EXPECT_EQ(client_try([&] { epa_msg_send(dlf_, &cell_); }), 0);
    EXPECT_EQ(received().size(), 4096u);
    dlf_ = larger;
    add_param(2, EXT_TYPE_RAW, raw.data(), 2000, 2000);
    add_param(2, EXT_TYPE_RAW, raw.data(), 2000, 2000);
    add_param(2, EXT_TYPE_STRING, longer.c_str(), 40, 40);
    const uint64_t used = root()->total_used;
    EXPECT_EQ(client_try([&] { epa_msg_send(larger, &cell_); }), ERROR_EPA_FAIL);
    EXPECT_EQ(received(), "");
    EXPECT_EQ(epa_ctx_mgr_->errstack->count, 0);
    EXPECT_THAT(home_.log(), EndsWith("[ERR] reply msg body size exceeded!\n"));
    // Neither the entries nor the call are released.
    EXPECT_GT(root()->total_used, used);
    EXPECT_EQ(larger->out_param_cnt, 3);
}

TEST_F(EpaMsgReply, CleanedUpDescriptorIsKeptWithoutItsMemory) {
    epa_dlfunc_t *const dlf = new_call(1);
    const uint64_t used = root()->total_used;
    allocator_t *const alloc = dlf->alloc;
    epa_resource_cleanup(dlf);
    EXPECT_EQ(root()->total_used, used);
    EXPECT_EQ(dlf->alloc, alloc);
    EXPECT_EQ(reinterpret_cast<const CLI_alloc_t *>(alloc)->total_size, 0u);
    EXPECT_TRUE(list_is_empty(&alloc->child));
    epa_resource_free(dlf);
}

// --- the error reply -----------------------------------------------------------------------------

class EpaMsgError : public EpaMsg {
  protected:
    static void push(int code, const char *text = "") {
        zd_err_internal_va(epa_ctx_mgr_->errstack, "a_unit", 12, "a_function", code, text);
    }

    agent_test::Reply received_reply() {
        const std::string bytes = received();
        agent_test::Reply reply;
        agent_test::read_header(bytes.substr(0, agent_test::kHeaderSize), &reply);
        agent_test::read_body(bytes.substr(agent_test::kHeaderSize), &reply);
        return reply;
    }
};

TEST_F(EpaMsgError, ReplyCarriesTheWholeStack) {
    push(-20001, "lower");
    push(ERROR_EPA_INVALID_PARAMETER_INFO);
    epa_msg_set_ereply(epa_ctx_mgr_->errstack);
    const agent_test::Reply reply = received_reply();
    EXPECT_EQ(reply.type, 140);
    EXPECT_EQ(reply.output, "");
    EXPECT_THAT(reply.values, IsEmpty());
    ASSERT_EQ(reply.stack.count, 2);
    EXPECT_EQ(reply.stack.user_count, 1);
    EXPECT_EQ(reply.stack.errors[0].code, -640007);
    EXPECT_EQ(reply.stack.errors[1].code, -20001);
    EXPECT_EQ(reply.stack.errors[1].text, " lower.   ");
    EXPECT_EQ(reply.stack.errors[1].file, "a_unit");
    EXPECT_EQ(reply.stack.errors[1].line, 12);
    EXPECT_EQ(reply.stack.errors[1].function, "a_function");
    // The stack is the caller's to clear.
    EXPECT_EQ(epa_ctx_mgr_->errstack->count, 2);
}

TEST_F(EpaMsgError, EmptyStackIsSixteenBytes) {
    epa_msg_set_ereply(epa_ctx_mgr_->errstack);
    EXPECT_EQ(received_reply().stack_bytes.size(), 16u);
}

TEST_F(EpaMsgError, ReplyMayBeLargerThanTheReplyBuffer) {
    for (int i = 0; i < 10; i++)
        push(-20001, "again");
    epa_msg_set_ereply(epa_ctx_mgr_->errstack);
    const agent_test::Reply reply = received_reply();
    EXPECT_EQ(reply.stack_bytes.size(), 16u + 10 * 936u);
    EXPECT_EQ(reply.stack.count, 10);
}

TEST_F(EpaMsgError, WrittenReplyLeavesNoMemoryBehind) {
    push(-20001, "text");
    const uint64_t used = root()->total_used;
    epa_msg_set_ereply(epa_ctx_mgr_->errstack);
    EXPECT_EQ(root()->total_used, used);
}

TEST_F(EpaMsgError, ReplyThatCannotBeWrittenIsThrown) {
    close(ends_[1]);
    push(-20001, "text");
    EXPECT_EQ(client_try([] { epa_msg_set_ereply(epa_ctx_mgr_->errstack); }), ERROR_IO);
}

TEST_F(EpaMsgError, DirectFormFillsTheRecordAndWritesNothing) {
    push(-20001, "text");
    zdmsg_extproc_execute_reply_t reply;
    memset(&reply, 0xEE, sizeof reply);
    epl_msg_set_ereply(&reply, epa_ctx_mgr_->errstack);
    EXPECT_EQ(received(), "");
    EXPECT_EQ(reply.base.type, 140);
    EXPECT_EQ(reply.base.str_auto_free, 1);
    EXPECT_EQ(reply.dbms_output.len, 0);
    EXPECT_EQ(reply.dbms_output.data, nullptr);
    EXPECT_EQ(reply.reply_param.array_cnt, 0);
    EXPECT_EQ(reply.reply_param.data, nullptr);
    ASSERT_EQ(reply.errstack.len, 16 + 936);
    const agent_test::ErrorStack stack =
        agent_test::read_error_stack(std::string(reply.errstack.data, 16 + 936));
    EXPECT_EQ(stack.errors.at(0).code, -20001);
    zdmsg_free(epa_ctx_mgr_->alloc, &reply.base);
}

} // namespace
