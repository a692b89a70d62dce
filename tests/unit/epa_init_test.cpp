#include "client/zdepa/epa_init.h"

#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include <thread>

#include "support/agent_context.h"

namespace {

using testing::ExitedWithCode;
using testing::HasSubstr;
using testing::IsEmpty;

class EpaInit : public AgentContextTest {};

// --- home ----------------------------------------------------------------------------------------

TEST_F(EpaInit, HomeIsAFolderOfTheHomeVariable) {
    epa_init();
    EXPECT_EQ(home_.agent_dir(), epa_home_dir_);
}

TEST_F(EpaInit, SecondVariableIsTakenWhenTheFirstIsUnset) {
    unsetenv("ZD_HOME");
    setenv("WQ_HOME", home_.path().c_str(), 1);
    epa_init();
    EXPECT_EQ(home_.agent_dir(), epa_home_dir_);
    unsetenv("WQ_HOME");
}

TEST_F(EpaInit, FirstVariableIsTakenWhenBothAreSet) {
    setenv("WQ_HOME", "/no/such/home", 1);
    epa_init();
    EXPECT_EQ(home_.agent_dir(), epa_home_dir_);
    unsetenv("WQ_HOME");
}

TEST_F(EpaInit, MissingHomeFolderIsMade) {
    const std::string home = home_.path() + "/not/yet/there";
    setenv("ZD_HOME", home.c_str(), 1);
    epa_init();
    struct stat status;
    ASSERT_EQ(stat((home + "/client/zdepa").c_str(), &status), 0);
    EXPECT_TRUE(S_ISDIR(status.st_mode));
}

TEST_F(EpaInit, ContextIsNotFilledYet) {
    epa_init();
    ASSERT_NE(epa_ctx_mgr_, nullptr);
    EXPECT_NE(epa_ctx_mgr_->alloc, nullptr);
    EXPECT_NE(epa_option_, nullptr);
    EXPECT_THAT(home_.log(), IsEmpty());
}

using EpaInitDeathTest = EpaInit;

TEST_F(EpaInitDeathTest, MissingHomeVariableIsNamed) {
    unsetenv("ZD_HOME");
    unsetenv("WQ_HOME");
    ASSERT_EQ(chdir(home_.path().c_str()), 0);
    EXPECT_EXIT(epa_init(), ExitedWithCode(1), "^$");
    std::ostringstream bytes;
    bytes << std::ifstream("extproc.err").rdbuf();
    EXPECT_EQ(bytes.str(), "ZD_HOME is not set\n");
    ASSERT_EQ(chdir("/"), 0);
}

// --- the socket ----------------------------------------------------------------------------------

class EpaWorkerInit : public EpaInit {
  protected:
    void SetUp() override {
        signal(SIGPIPE, SIG_IGN);
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends_), 0);
    }

    void TearDown() override {
        close(ends_[0]);
        close(ends_[1]);
        signal(SIGSEGV, SIG_DFL);
        EpaInit::TearDown();
    }

    std::string sent_by(int mode) {
        epa_init();
        epa_worker_init(ends_[0], mode);
        char bytes[64];
        const ssize_t count = recv(ends_[1], bytes, sizeof bytes, MSG_DONTWAIT);
        return std::string(bytes, count > 0 ? static_cast<size_t>(count) : 0);
    }

    int ends_[2];
};

TEST_F(EpaWorkerInit, ModeOneSendsTheReadinessSignalWithItsEnd) {
    EXPECT_EQ(sent_by(1), std::string("BOOT SUCCESS\0", 13));
}

TEST_F(EpaWorkerInit, OtherModesSendNothing) {
    EXPECT_EQ(sent_by(0), "");
    epa_context_mgr_delete();
    EXPECT_EQ(sent_by(2), "");
    epa_context_mgr_delete();
    EXPECT_EQ(sent_by(-1), "");
}

TEST_F(EpaWorkerInit, ContextIsBoundToTheSocket) {
    sent_by(1);
    EXPECT_EQ(epa_ctx_mgr_->fd, ends_[0]);
}

TEST_F(EpaWorkerInit, StartIsLoggedAtTheDefaultLevel) {
    sent_by(1);
    EXPECT_THAT(home_.log(), testing::EndsWith("[WAR] epa_worker_init succeeded\n"));
    EXPECT_EQ(home_.log().find('\n'), home_.log().size() - 1);
}

TEST_F(EpaWorkerInit, CrashHandlerIsInstalled) {
    sent_by(0);
    struct sigaction action;
    ASSERT_EQ(sigaction(SIGSEGV, nullptr, &action), 0);
    EXPECT_EQ(action.sa_handler, &epa_sigseg_handler);
}

using EpaWorkerInitDeathTest = EpaWorkerInit;

TEST_F(EpaWorkerInitDeathTest, ReadinessSignalThatCannotBeSentEndsTheProcess) {
    close(ends_[1]);
    epa_init();
    EXPECT_EXIT(epa_worker_init(ends_[0], 1), ExitedWithCode(1), "^$");
    EXPECT_THAT(home_.log(), IsEmpty());
}

TEST_F(EpaWorkerInitDeathTest, CrashIsLoggedAndEndsTheProcess) {
    sent_by(0);
    EXPECT_EXIT(raise(SIGSEGV), ExitedWithCode(1), "^$");
    EXPECT_THAT(home_.log(), HasSubstr("[FAT] SEGMENTATION FAULT DETECTED\n"));
}

TEST_F(EpaWorkerInitDeathTest, CrashOfAThreadWithoutContextEndsTheProcessToo) {
    sent_by(0);
    EXPECT_EXIT(std::thread([] { raise(SIGSEGV); }).join(), ExitedWithCode(1), "^$");
}

// --- the direct form -----------------------------------------------------------------------------

TEST_F(EpaInit, DirectFormInitialisesAThreadOnce) {
    epa_init_dir();
    const epa_context_mgr_t *const context = epa_ctx_mgr_;
    const client_log_hdl_t *const log = context->log_hdl;
    epa_init_dir();
    EXPECT_EQ(epa_ctx_mgr_, context);
    EXPECT_EQ(epa_ctx_mgr_->log_hdl, log);
}

TEST_F(EpaInit, DirectFormHasNoSocketNoHandlerAndNoLogLine) {
    struct sigaction before, after;
    ASSERT_EQ(sigaction(SIGSEGV, nullptr, &before), 0);
    start("LOG_LVL=6\n");
    ASSERT_EQ(sigaction(SIGSEGV, nullptr, &after), 0);
    EXPECT_EQ(after.sa_handler, before.sa_handler);
    EXPECT_EQ(epa_ctx_mgr_->fd, -1);
    EXPECT_THAT(home_.log(), IsEmpty());
}

TEST_F(EpaInit, EachThreadHasItsOwnContext) {
    epa_init_dir();
    const epa_context_mgr_t *const own = epa_ctx_mgr_;
    const epa_option_t *const own_option = epa_option_;
    std::thread([&] {
        EXPECT_EQ(epa_ctx_mgr_, nullptr);
        EXPECT_EQ(epa_option_, nullptr);
        EXPECT_EQ(epa_home_dir_, nullptr);
        epa_init_dir();
        EXPECT_NE(epa_ctx_mgr_, own);
        EXPECT_NE(epa_option_, own_option);
        EXPECT_NE(epa_ctx_mgr_->alloc, own->alloc);
        EXPECT_NE(epa_ctx_mgr_->errstack, own->errstack);
        EXPECT_NE(epa_ctx_mgr_->log_hdl->fp, own->log_hdl->fp);
        epa_context_mgr_delete();
    }).join();
    EXPECT_EQ(epa_ctx_mgr_, own);
    EXPECT_EQ(epa_option_, own_option);
}

// --- the banner ----------------------------------------------------------------------------------

TEST_F(EpaInit, BannerShowsProductVersionAndBuild) {
    testing::internal::CaptureStdout();
    epa_print_version();
    fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "\nZerdal 7 main External Procedure Agent (Build r1234)\n"
              "Linux x86_64 version (little-endian)\n"
              "Compiled at Jan  2 2024 03:04:05\n\n");
    EXPECT_EQ(epa_ctx_mgr_, nullptr); // it needs no context
}

} // namespace
