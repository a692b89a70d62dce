#include "client/common/client_try.h"

#include <unistd.h>

#include <gtest/gtest.h>

#include <thread>

namespace {

constexpr ec_t kInvalidProtocol = -140002;
constexpr ec_t kFail = -140006;

void raise(ec_t ec) {
    zd_err_and_jmp("client_try_test", 1, "raise", 0, 0, ec);
}

TEST(ClientTry, ThrownCodeComesBackFromTheFrame) {
    EXPECT_EQ(client_try([] { raise(kInvalidProtocol); }), kInvalidProtocol);
}

TEST(ClientTry, BodyThatReturnsYieldsZero) {
    EXPECT_EQ(client_try([] {}), 0);
}

TEST(ClientTry, SlotIsEmptyOutsideEveryFrame) {
    ASSERT_EQ(client_try([] {}), 0);
    EXPECT_EQ(pthread_getspecific(client_try_jmpbuf_key_), nullptr);
    ASSERT_EQ(client_try([] { raise(kFail); }), kFail);
    EXPECT_EQ(pthread_getspecific(client_try_jmpbuf_key_), nullptr);
}

TEST(ClientTry, SlotPointsAtAFrameInsideTheBody) {
    void *volatile inside = nullptr;
    ASSERT_EQ(client_try([&] { inside = pthread_getspecific(client_try_jmpbuf_key_); }), 0);
    EXPECT_NE(inside, nullptr);
}

TEST(ClientTry, ThrowLandsInTheInnermostFrame) {
    volatile ec_t inner = 0;
    const ec_t outer = client_try([&] { inner = client_try([] { raise(kFail); }); });
    EXPECT_EQ(inner, kFail);
    EXPECT_EQ(outer, 0);
}

TEST(ClientTry, ThrowFromAHandlerLandsInTheEnclosingFrame) {
    const ec_t outer = client_try([] {
        if (client_try([] { raise(kFail); }) != 0)
            raise(kInvalidProtocol);
    });
    EXPECT_EQ(outer, kInvalidProtocol);
}

TEST(ClientTry, ThrowAfterAFrameEndedLandsInTheEnclosingFrame) {
    const ec_t outer = client_try([] {
        EXPECT_EQ(client_try([] {}), 0);
        raise(kFail);
    });
    EXPECT_EQ(outer, kFail);
}

TEST(ClientTry, FramesOfOneThreadAreUnknownToAnother) {
    int unseen = 0;
    void *volatile seen = &unseen;
    ASSERT_EQ(client_try([&] {
                  std::thread([&] { seen = pthread_getspecific(client_try_jmpbuf_key_); }).join();
              }),
              0);
    EXPECT_EQ(seen, nullptr);
}

// A frame as a program in C opens it, without client_try. What body throws, or 0.
__attribute__((noinline)) ec_t in_a_frame_by_hand(void (*body)()) {
    pthread_once(&client_try_jmpbuf_once_, client_try_init);
    void *const enclosing = pthread_getspecific(client_try_jmpbuf_key_);
    jmp_buf frame;
    pthread_setspecific(client_try_jmpbuf_key_, &frame);
    const ec_t ec = setjmp(frame);
    if (ec == 0)
        body();
    pthread_setspecific(client_try_jmpbuf_key_, enclosing);
    return ec;
}

TEST(ClientTry, FrameByHandIsAFrameLikeAnyOther) {
    EXPECT_EQ(in_a_frame_by_hand([] { raise(kInvalidProtocol); }), kInvalidProtocol);
    EXPECT_EQ(in_a_frame_by_hand([] { EXPECT_EQ(client_try([] { raise(kFail); }), kFail); }), 0);
    EXPECT_EQ(client_try([] {
                  EXPECT_EQ(in_a_frame_by_hand([] { raise(kFail); }), kFail);
                  raise(kInvalidProtocol);
              }),
              kInvalidProtocol);
    EXPECT_EQ(pthread_getspecific(client_try_jmpbuf_key_), nullptr);
}

// Ends the process with status 0 when the throw lands in the frame.
[[noreturn]] void throw_into_a_frame_over_a_key_by_hand() {
    client_try_init();
    jmp_buf frame;
    pthread_setspecific(client_try_jmpbuf_key_, &frame);
    const ec_t ec = setjmp(frame);
    if (ec == 0)
        raise(kFail);
    _exit(ec == kFail ? 0 : 1);
}

TEST(ClientTryDeathTest, ThrowDoesNotReplaceAKeyThatWasMadeWithoutTheOnce) {
    // In a process of its own, where the once has not run.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(throw_into_a_frame_over_a_key_by_hand(), testing::ExitedWithCode(0), "^$");
}

TEST(ClientTryDeathTest, ThrowBeforeAnyFrameOfTheProcessIsAnAssertion) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(raise(kFail), testing::KilledBySignal(SIGABRT),
                "client_try:111: Assertion fail with condition 'jmpbuf != NULL' ");
}

TEST(ClientTryDeathTest, ThrowOutsideEveryFrameIsAnAssertion) {
    EXPECT_EXIT(raise(kFail), testing::KilledBySignal(SIGABRT),
                "^client_try:111: Assertion fail with condition 'jmpbuf != NULL' "
                "\\(PID=[0-9]+, pthread id=[0-9]+\\)\n");
}

// Takes every thread-specific key that there is, so that client_try_init gets none.
void init_without_keys() {
    pthread_key_t key;
    while (pthread_key_create(&key, nullptr) == 0)
        ;
    client_try_init();
}

TEST(ClientTryDeathTest, ProcessWithoutAKeyToSpareEnds) {
    EXPECT_EXIT(init_without_keys(), testing::ExitedWithCode(1),
                "^FATAL ERROR: TRY \\(pthread_key_create\\) failed \\(rc = 11\\)\\.\n$");
}

} // namespace
