#include "client/zdepa/epa_proc.h"

#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include <thread>

#include "client/common/client_try.h"
#include "common/alloc/region_clialloc.h"
#include "common/alloc/system_clialloc.h"
#include "common/ec.h"
#include "common/zdmsg/zdmsg.h"
#include "common/zdmsg/zdmsg_setter_gen.h"
#include "support/agent_context.h"
#include "support/wire.h"

namespace {

using testing::ElementsAre;
using testing::ExitedWithCode;
using testing::HasSubstr;
using testing::IsEmpty;

// --- the loop ------------------------------------------------------------------------------------

class EpaProcessRequest : public AgentContextTest {
  protected:
    void SetUp() override {
        signal(SIGPIPE, SIG_IGN);
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends_), 0);
        start("LOG_LVL=3\n");
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

    agent_test::Reply receive() {
        agent_test::Reply reply;
        agent_test::read_header(receive_bytes(agent_test::kHeaderSize), &reply);
        agent_test::read_body(receive_bytes(reply.body_size), &reply);
        return reply;
    }

    std::string receive_bytes(size_t count) {
        std::string bytes(count, '\0');
        const ssize_t received = recv(ends_[1], bytes.data(), count, MSG_DONTWAIT);
        EXPECT_EQ(received, static_cast<ssize_t>(count));
        return bytes;
    }

    static std::string request_for_seven() {
        return agent_test::request(
            {ROUTINES_LIBRARY, "returns_seven", agent_test::int_return(), {}, 0});
    }

    static std::string end_of_service() { return agent_test::header(-1, 0); }

    static void *innermost_frame() { return pthread_getspecific(client_try_jmpbuf_key_); }

    int ends_[2];
};

TEST_F(EpaProcessRequest, ReturnsOnTypeMinusOne) {
    send(end_of_service());
    epa_process_request();
    EXPECT_THAT(home_.log(), IsEmpty()); // it is not logged as a request
}

TEST_F(EpaProcessRequest, ServesWhatCameBeforeTheEnd) {
    send(request_for_seven() + request_for_seven() + end_of_service());
    epa_process_request();
    EXPECT_THAT(receive().values, ElementsAre(std::string("\7\0\0\0", 4)));
    EXPECT_THAT(receive().values, ElementsAre(std::string("\7\0\0\0", 4)));
}

TEST_F(EpaProcessRequest, CanBeEnteredAgain) {
    for (int i = 0; i < 3; i++) {
        send(request_for_seven() + end_of_service());
        epa_process_request();
        EXPECT_FALSE(receive().failed());
    }
}

TEST_F(EpaProcessRequest, EnclosingFrameIsInnermostAgainAfterwards) {
    EXPECT_EQ(client_try([&] {
                  void *const frame = innermost_frame();
                  send(agent_test::message(5000, "") + request_for_seven() + end_of_service());
                  epa_process_request();
                  EXPECT_EQ(innermost_frame(), frame);
              }),
              0);
    EXPECT_EQ(innermost_frame(), nullptr);
}

TEST_F(EpaProcessRequest, ErrorOfARequestLeavesTheStackEmpty) {
    send(agent_test::message(142, agent_test::text_field("x")) + end_of_service());
    epa_process_request();
    EXPECT_EQ(receive().code(), ERROR_EPA_INVALID_PROTOCOL);
    EXPECT_EQ(epa_ctx_mgr_->errstack->count, 0);
    EXPECT_EQ(epa_ctx_mgr_->errstack->usrcount, 0);
}

TEST_F(EpaProcessRequest, SuccessfulRequestsLeaveTheMemoryAsItWas) {
    const auto *const root = reinterpret_cast<const CLI_alloc_t *>(epa_ctx_mgr_->alloc);
    send(request_for_seven() + end_of_service());
    epa_process_request();
    receive();
    const uint64_t used = root->total_used;
    for (int i = 0; i < 10; i++) {
        send(request_for_seven() + end_of_service());
        epa_process_request();
        receive();
        EXPECT_EQ(root->total_used, used);
    }
    EXPECT_EQ(region_alloc_check(epa_ctx_mgr_->alloc, nullptr), 0);
}

TEST_F(EpaProcessRequest, RefusedRequestsLeaveTheMemoryAsItWas) {
    // Two rows in an array, decoded before the type is looked at.
    const std::string body = std::string(8, 'p') + agent_test::big_endian(0) +
                             agent_test::big_endian(0) + agent_test::big_endian(2) +
                             std::string("\0\0\0\0\1x\0\0", 8) + std::string("\0\0\0\0\1y\0\0", 8);
    const auto *const root = reinterpret_cast<const CLI_alloc_t *>(epa_ctx_mgr_->alloc);
    const uint64_t used = root->total_used;
    for (const int type : {5, 278, -2}) {
        send(agent_test::message(type, body) + end_of_service());
        epa_process_request();
        EXPECT_EQ(receive().code(), ERROR_EPA_INVALID_PROTOCOL);
        EXPECT_EQ(root->total_used, used) << type;
    }
}

using EpaProcessRequestDeathTest = EpaProcessRequest;

TEST_F(EpaProcessRequestDeathTest, EndOfTheStreamEndsTheProcessInOrder) {
    shutdown(ends_[1], SHUT_WR);
    EXPECT_EXIT(epa_process_request(), ExitedWithCode(0), "^$");
    EXPECT_THAT(home_.log(), IsEmpty());
    EXPECT_THAT(home_.log(home_.agent_dir() + "/backup"),
                HasSubstr("[ERR] ERROR_EPA_CONN_CLOSED occurred\n"));
}

TEST_F(EpaProcessRequestDeathTest, EndInsideABodyEndsTheProcessInOrder) {
    send(agent_test::header(139, 100) + "the beginning");
    shutdown(ends_[1], SHUT_WR);
    EXPECT_EXIT(epa_process_request(), ExitedWithCode(0), "^$");
    EXPECT_THAT(home_.log(home_.agent_dir() + "/backup"), HasSubstr("[ERR] ERROR_IO occurred\n"));
}

TEST_F(EpaProcessRequestDeathTest, UnwritableErrorReplyEndsTheProcessInOrder) {
    send(agent_test::message(142, agent_test::text_field("x")));
    shutdown(ends_[1], SHUT_RDWR);
    EXPECT_EXIT(epa_process_request(), ExitedWithCode(0), "^$");
    EXPECT_THAT(home_.log(home_.agent_dir() + "/backup"),
                HasSubstr("[ERR] ERROR_EPA_INVALID_PROTOCOL occurred\n"));
    EXPECT_THAT(home_.log(home_.agent_dir() + "/backup"), HasSubstr("[ERR] ERROR_IO occurred\n"));
}

TEST_F(EpaProcessRequest, UnwritableErrorReplyIsThrownToAnEnclosingFrame) {
    send(agent_test::message(142, agent_test::text_field("x")));
    shutdown(ends_[1], SHUT_RDWR);
    EXPECT_EQ(client_try(epa_process_request), ERROR_IO);
    EXPECT_EQ(innermost_frame(), nullptr);
}

// --- the direct form -----------------------------------------------------------------------------

class EpaProcessRequestDir : public AgentContextTest {
  protected:
    void SetUp() override { start("LOG_LVL=3\n"); }

    // Serves one call; the reply's values lie in caller or where the routine keeps them.
    void serve(const char *function, int return_flag, int property = 0, int type = 139) {
        zdmsg_extproc_execute_t request;
        zdmsg_extproc_execute_set(&request, ROUTINES_LIBRARY, function, property, return_flag, 0,
                                  nullptr);
        request.base.type = type;
        epa_process_request_dir(&request.base, &reply_.base, caller_);
    }

    agent_test::ErrorStack stack_of_reply() const {
        return agent_test::read_error_stack(
            std::string(reply_.errstack.data, static_cast<size_t>(reply_.errstack.len)));
    }

    allocator_t *caller_ = real_sys_region_allocator_new(&_system_allocator, "test", 1);
    zdmsg_extproc_execute_reply_t reply_ = {};

    void TearDown() override {
        caller_->desc->func_delete(caller_);
        AgentContextTest::TearDown();
    }
};

TEST_F(EpaProcessRequestDir, FillsTheReply) {
    serve("returns_seven", agent_test::int_return());
    EXPECT_EQ(reply_.base.type, 140);
    EXPECT_EQ(reply_.base.str_auto_free, 0);
    EXPECT_EQ(reply_.base.tsn, 0u);
    EXPECT_EQ(reply_.dbms_output.len, 0);
    EXPECT_EQ(reply_.errstack.len, 0);
    ASSERT_EQ(reply_.reply_param.array_cnt, 1);
    EXPECT_EQ(reply_.reply_param.data[0].data_value.len, 4);
    EXPECT_EQ(reply_.reply_param.data[0].data_value.data[0], 7);
}

TEST_F(EpaProcessRequestDir, LogsTheRequest) {
    serve("returns_seven", agent_test::int_return());
    EXPECT_THAT(home_.log(), HasSubstr("[INF] REQUEST[type=139] RECEIVED\n"));
}

TEST_F(EpaProcessRequestDir, RefusesEveryOtherType) {
    for (const int type : {0, 76, 138, 140, 142, 277, 278, -1, INT32_MIN}) {
        serve("returns_seven", agent_test::int_return(), 0, type);
        const agent_test::ErrorStack stack = stack_of_reply();
        ASSERT_EQ(stack.count, 1) << type;
        EXPECT_EQ(stack.errors[0].code, ERROR_EPA_INVALID_PROTOCOL);
        EXPECT_EQ(reply_.reply_param.array_cnt, 0);
        EXPECT_EQ(reply_.base.str_auto_free, 1);
        zdmsg_free(epa_ctx_mgr_->alloc, &reply_.base);
    }
    EXPECT_THAT(home_.log(), HasSubstr("[FAT] Unknown Request Type\n"));
}

TEST_F(EpaProcessRequestDir, ClosedConnectionIsAnErrorLikeAnyOther) {
    // Here no error ends the process.
    zdmsg_struct_extproc_param_t code;
    int32_t value = 640001;
    zdmsg_struct_extproc_param_set(&code, agent_test::int_param(0).flag, 4, 4,
                                   reinterpret_cast<char *>(&value));
    zdmsg_extproc_execute_t request;
    zdmsg_extproc_execute_set(&request, ROUTINES_LIBRARY, "raise_code", 0x100, 0, 1, &code);
    epa_process_request_dir(&request.base, &reply_.base, caller_);
    EXPECT_EQ(stack_of_reply().errors.at(0).code, ERROR_EPA_CONN_CLOSED);
    EXPECT_THAT(home_.log(), HasSubstr("[ERR] ERROR_EPA_CONN_CLOSED occurred\n"));
    zdmsg_free(epa_ctx_mgr_->alloc, &reply_.base);
}

TEST_F(EpaProcessRequestDir, EnclosingFrameIsInnermostAgainAfterwards) {
    EXPECT_EQ(client_try([&] {
                  void *const frame = pthread_getspecific(client_try_jmpbuf_key_);
                  serve("returns_seven", 0);
                  EXPECT_EQ(pthread_getspecific(client_try_jmpbuf_key_), frame);
                  serve("no_such_routine", 0);
                  EXPECT_EQ(pthread_getspecific(client_try_jmpbuf_key_), frame);
              }),
              0);
    zdmsg_free(epa_ctx_mgr_->alloc, &reply_.base);
}

TEST_F(EpaProcessRequestDir, ThreadsServeSideBySide) {
    const auto serve_many = [] {
        epa_init_dir();
        allocator_t *const caller = real_sys_region_allocator_new(&_system_allocator, "test", 1);
        for (int i = 0; i < 200; i++) {
            zdmsg_extproc_execute_t request;
            zdmsg_extproc_execute_reply_t reply = {};
            const bool fails = i % 3 == 0;
            zdmsg_extproc_execute_set(&request, ROUTINES_LIBRARY,
                                      fails ? "no_such_routine" : "returns_seven", 0,
                                      agent_test::int_return(), 0, nullptr);
            epa_process_request_dir(&request.base, &reply.base, caller);
            EXPECT_EQ(reply.errstack.len, fails ? 16 + 936 : 0);
            EXPECT_EQ(reply.reply_param.array_cnt, fails ? 0 : 1);
            zdmsg_free(fails ? epa_ctx_mgr_->alloc : caller, &reply.base);
        }
        caller->desc->func_delete(caller);
        epa_context_mgr_delete();
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; i++)
        threads.emplace_back(serve_many);
    for (std::thread &thread : threads)
        thread.join();
}

// --- OUT buffers ---------------------------------------------------------------------------------

TEST_F(EpaProcessRequestDir, WidenedBufferIsTheCallersToFree) {
    zdmsg_struct_extproc_param_t out;
    zdmsg_struct_extproc_param_set(&out, agent_test::text_param("", 64).flag, 64, 0, nullptr);
    zdmsg_extproc_execute_t request;
    zdmsg_extproc_execute_set(&request, ROUTINES_LIBRARY, "say_hello", 0, 0, 1, &out);
    epa_process_request_dir(&request.base, &reply_.base, caller_);
    ASSERT_EQ(reply_.reply_param.array_cnt, 1);
    EXPECT_STREQ(reply_.reply_param.data[0].data_value.data, "hello");
    caller_->desc->func_free(caller_, reply_.reply_param.data[0].data_value.data, "test", 1);
}

using EpaProcessRequestDirDeathTest = EpaProcessRequestDir;

TEST_F(EpaProcessRequestDirDeathTest, OverrunOfAnOutBufferIsReportedWhenTheCallerFreesIt) {
    int32_t size = 64;
    zdmsg_struct_extproc_param_t params[2];
    zdmsg_struct_extproc_param_set(&params[0], agent_test::text_param("", 64).flag, 64, 0, nullptr);
    zdmsg_struct_extproc_param_set(&params[1], agent_test::int_param(0).flag, 4, 4,
                                   reinterpret_cast<char *>(&size));
    zdmsg_extproc_execute_t request;
    zdmsg_extproc_execute_set(&request, ROUTINES_LIBRARY, "overrun", 0, 0, 2, params);
    epa_process_request_dir(&request.base, &reply_.base, caller_);
    ASSERT_EQ(reply_.reply_param.array_cnt, 1);
    char *const buffer = reply_.reply_param.data[0].data_value.data;
    EXPECT_EXIT(caller_->desc->func_free(caller_, buffer, "test", 1),
                testing::KilledBySignal(SIGABRT),
                "REDZONE CHECK ERROR. \\(malloc from:filename=epa_dl_call, line=[0-9]+, size=64");
}

} // namespace
