#include "common/zd_sock_io.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <thread>

#include "client/common/client_try.h"
#include "common/ec.h"
#include "support/scripted_calls.h"
#include "support/sockets.h"

namespace {

using testing::ElementsAre;

constexpr uchar kNothrow = 1;
constexpr uchar kThrow = 0;

class ZdSockIo : public SocketPairTest {
  protected:
    void SetUp() override { clear_scripts(); }
    void TearDown() override { clear_scripts(); }
};

// ---- Waits

TEST_F(ZdSockIo, TimeoutWaitTellsReadyFromNotReady) {
    far_sends("x");
    EXPECT_GT(zd_sock_check_read_timeout(near_, 5), 0);
    EXPECT_GT(zd_sock_wait_readable(near_), 0);
}

TEST_F(ZdSockIo, TimeoutWaitOfZeroSecondsOnlyLooks) {
    EXPECT_EQ(zd_sock_check_read_timeout(near_, 0), 0);
}

TEST_F(ZdSockIo, EndOfStreamIsReadable) {
    close_far();
    EXPECT_GT(zd_sock_check_read_timeout(near_, 5), 0);
    EXPECT_GT(zd_sock_wait_readable(near_), 0);
}

TEST_F(ZdSockIo, WritableWaitReturnsAtOnceWhenThereIsRoom) {
    EXPECT_GT(zd_sock_wait_writable(near_), 0);
}

TEST_F(ZdSockIo, InterruptedTimeoutWaitStartsAgain) {
    InterruptingSignal handler;
    int result = -2;
    BlockingCall waiter([&] { result = zd_sock_check_read_timeout(near_, 60); });
    waiter.interrupt(20);
    far_sends("x");
    waiter.wait();
    EXPECT_GT(result, 0);
}

TEST_F(ZdSockIo, WaitOfMoreSecondsThanMillisecondsCanCountStillWaits) {
    far_sends("x");
    EXPECT_GT(zd_sock_check_read_timeout(near_, INT32_MAX), 0);
}

// ---- Whole-count reads

TEST_F(ZdSockIo, NothingIsReadForACountBelowOne) {
    far_sends("x");
    for (const int nbytes : {0, -1, INT32_MIN}) {
        EXPECT_EQ(zd_sock_readn_ex(near_, buffer_, nbytes, kThrow), 0);
        EXPECT_EQ(zd_sock_readn_nonb_ex(near_, buffer_, nbytes, 5, kThrow), 0);
        EXPECT_EQ(zd_sock_readn_sig(near_, buffer_, nbytes), 0);
    }
    EXPECT_EQ(buffer_[0], '\0');
}

TEST_F(ZdSockIo, ReadTakesWhatWasAskedForAndLeavesTheRest) {
    far_sends("headbody");
    EXPECT_EQ(zd_sock_readn_ex(near_, buffer_, 4, kThrow), 4);
    EXPECT_EQ(std::string(buffer_), "head");
    EXPECT_EQ(zd_sock_readn_nonb_ex(near_, buffer_, 2, 5, kThrow), 2);
    EXPECT_EQ(std::string(buffer_, 2), "bo");
    EXPECT_EQ(zd_sock_readn_sig(near_, buffer_, 2), 2);
    EXPECT_EQ(std::string(buffer_, 2), "dy");
}

TEST_F(ZdSockIo, ReadGoesOnUntilEveryPieceIsThere) {
    std::thread writer([&] { far_sends_byte_by_byte("abcdef"); });
    EXPECT_EQ(zd_sock_readn_ex(near_, buffer_, 6, kThrow), 6);
    writer.join();
    EXPECT_EQ(std::string(buffer_), "abcdef");
}

TEST_F(ZdSockIo, EndOfStreamInMidMessageGivesAShortCount) {
    far_sends("abc");
    close_far();
    EXPECT_EQ(zd_sock_readn_ex(near_, buffer_, 10, kThrow), 3);
    EXPECT_EQ(std::string(buffer_), "abc");
    EXPECT_EQ(zd_sock_readn_ex(near_, buffer_, 10, kThrow), 0);
}

TEST_F(ZdSockIo, EndOfStreamGivesAShortCountInTheOtherReadsToo) {
    far_sends("abc");
    close_far();
    EXPECT_EQ(zd_sock_readn_nonb_ex(near_, buffer_, 10, 5, kThrow), 3);
    EXPECT_EQ(zd_sock_readn_nonb_ex(near_, buffer_, 10, 0, kThrow), 0);
    EXPECT_EQ(zd_sock_readn_sig(near_, buffer_, 10), 0);
}

TEST_F(ZdSockIo, FailedReadThrowsOrReturnsMinusOne) {
    EXPECT_EQ(client_try([&] { zd_sock_readn_ex(-1, buffer_, 4, kThrow); }), ERROR_IO);
    EXPECT_EQ(zd_sock_readn_ex(-1, buffer_, 4, kNothrow), -1);
    EXPECT_EQ(client_try([&] { zd_sock_readn_nonb_ex(-1, buffer_, 4, 0, kThrow); }), ERROR_IO);
    EXPECT_EQ(zd_sock_readn_nonb_ex(-1, buffer_, 4, 0, kNothrow), -1);
    EXPECT_EQ(zd_sock_readn_sig(-1, buffer_, 4), -1);
    EXPECT_EQ(client_try([&] { zd_sock_read_once_ex(-1, buffer_, 4, 0); }), ERROR_IO);
}

TEST_F(ZdSockIo, InterruptedReadGoesOn) {
    InterruptingSignal handler;
    int result = -2;
    BlockingCall reader([&] { result = zd_sock_readn_ex(near_, buffer_, 4, kThrow); });
    reader.interrupt(20);
    far_sends("abcd");
    reader.wait();
    EXPECT_EQ(result, 4);
}

TEST_F(ZdSockIo, SignalEndsTheReadThatIsMeantToBeBroken) {
    InterruptingSignal handler;
    int result = -2;
    int error = 0;
    BlockingCall reader([&] {
        result = zd_sock_readn_sig(near_, buffer_, 4);
        error = errno;
    });
    reader.interrupt(100000);
    close_far();
    reader.wait();
    EXPECT_EQ(result, -1);
    EXPECT_EQ(error, EINTR);
}

TEST_F(ZdSockIo, NonblockingDescriptorIsWaitedForByThePlainReads) {
    make_nonblocking(near_);
    int plain = -2;
    int breakable = -2;
    BlockingCall reader([&] {
        plain = zd_sock_readn_ex(near_, buffer_, 3, kThrow);
        breakable = zd_sock_readn_sig(near_, buffer_ + 3, 3);
    });
    for (const char *piece : {"a", "bc", "de", "f"})
        far_sends(piece);
    reader.wait();
    EXPECT_EQ(plain, 3);
    EXPECT_EQ(breakable, 3);
    EXPECT_EQ(std::string(buffer_), "abcdef");
}

TEST_F(ZdSockIo, NonblockingDescriptorIsAFailureInTheTimedRead) {
    make_nonblocking(near_);
    EXPECT_EQ(zd_sock_readn_nonb_ex(near_, buffer_, 4, 0, kNothrow), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(client_try([&] { zd_sock_readn_nonb_ex(near_, buffer_, 4, 0, kThrow); }), ERROR_IO);
}

TEST_F(ZdSockIo, TimedReadThrowsOrReturnsTheTimeoutCode) {
    EXPECT_EQ(zd_sock_readn_nonb_ex(near_, buffer_, 4, 1, kNothrow), -18019);
    EXPECT_EQ(client_try([&] { zd_sock_readn_nonb_ex(near_, buffer_, 4, 1, kThrow); }),
              ERROR_IO_SOCKET_TIMEOUT);
}

TEST_F(ZdSockIo, TimedReadWaitsBeforeEveryPiece) {
    far_sends("abc");
    // The first piece is there, the second never comes.
    EXPECT_EQ(zd_sock_readn_nonb_ex(near_, buffer_, 4, 1, kNothrow), ERROR_IO_SOCKET_TIMEOUT);
    EXPECT_EQ(std::string(buffer_), "abc");
}

TEST_F(ZdSockIo, TimedReadAsksForMillisecondsBeforeEveryPiece) {
    far_sends("abcdef");
    scripted_recv.answers = {takes(2), takes(1)};
    EXPECT_EQ(zd_sock_readn_nonb_ex(near_, buffer_, 6, 3, kThrow), 6);
    EXPECT_THAT(scripted_poll.seen, ElementsAre(3000, 3000, 3000));
    EXPECT_THAT(scripted_recv.seen, ElementsAre(6, 4, 3));
    EXPECT_EQ(std::string(buffer_), "abcdef");
}

TEST_F(ZdSockIo, TimedReadOfZeroSecondsDoesNotAskWhetherThereIsAnything) {
    far_sends("abc");
    EXPECT_EQ(zd_sock_readn_nonb_ex(near_, buffer_, 3, 0, kThrow), 3);
    EXPECT_THAT(scripted_poll.seen, testing::IsEmpty());
}

TEST_F(ZdSockIo, FailedWaitIsNoTimeout) {
    far_sends("abc");
    scripted_poll.answers = {fails_with(EINVAL)};
    EXPECT_EQ(zd_sock_readn_nonb_ex(near_, buffer_, 3, 1, kThrow), 3);
}

TEST_F(ZdSockIo, InterruptedTimedReadWaitsAgainInFull) {
    far_sends("abc");
    scripted_poll.answers = {fails_with(EINTR), asks(), fails_with(EINTR)};
    scripted_recv.answers = {fails_with(EINTR)};
    EXPECT_EQ(zd_sock_readn_nonb_ex(near_, buffer_, 3, 7, kThrow), 3);
    EXPECT_THAT(scripted_poll.seen, ElementsAre(7000, 7000, 7000, 7000));
}

TEST_F(ZdSockIo, PlainReadsPollWithoutLimitWhenTheyWouldBlock) {
    far_sends("abcdef");
    scripted_recv.answers = {fails_with(EAGAIN), asks(), fails_with(EAGAIN)};
    EXPECT_EQ(zd_sock_readn_ex(near_, buffer_, 3, kThrow), 3);
    EXPECT_EQ(zd_sock_readn_sig(near_, buffer_, 3), 3);
    EXPECT_THAT(scripted_poll.seen, ElementsAre(-1, -1));
}

TEST_F(ZdSockIo, SingleWaitsEndWhenInterrupted) {
    scripted_poll.answers = {fails_with(EINTR), fails_with(EINTR)};
    EXPECT_EQ(zd_sock_wait_readable(near_), -1);
    EXPECT_EQ(zd_sock_wait_writable(near_), -1);
    EXPECT_THAT(scripted_poll.seen, ElementsAre(-1, -1));
}

TEST_F(ZdSockIo, ReadThatIsMeantToBeBrokenForgetsWhatItHad) {
    far_sends("abc");
    scripted_recv.answers = {takes(2), fails_with(EINTR)};
    EXPECT_EQ(zd_sock_readn_sig(near_, buffer_, 3), -1);
    EXPECT_EQ(errno, EINTR);
}

TEST_F(ZdSockIo, ResetInMidMessageIsAFailure) {
    use_tcp();
    far_sends("abc");
    EXPECT_EQ(zd_sock_readn_ex(near_, buffer_, 3, kThrow), 3);
    reset_far();
    EXPECT_EQ(zd_sock_readn_ex(near_, buffer_, 10, kNothrow), -1);
    EXPECT_EQ(errno, ECONNRESET);
}

TEST_F(ZdSockIo, ResetIsThrownByEveryReadThatThrows) {
    const auto read_after_reset = [&](auto read) {
        use_tcp();
        reset_far();
        const ec_t ec = client_try(read);
        EXPECT_EQ(errno, ECONNRESET);
        return ec;
    };
    EXPECT_EQ(read_after_reset([&] { zd_sock_readn_ex(near_, buffer_, 9, kThrow); }), -18017);
    EXPECT_EQ(read_after_reset([&] { zd_sock_readn_nonb_ex(near_, buffer_, 9, 5, kThrow); }),
              -18017);
    EXPECT_EQ(read_after_reset([&] { zd_sock_read_once_ex(near_, buffer_, 9, 0); }), -18017);
    EXPECT_EQ(read_after_reset([&] { zd_sock_read_once_nonb_ex(near_, buffer_, 9, 5, 0); }),
              -18017);
    EXPECT_EQ(read_after_reset([&] { zd_sock_read_line(near_, buffer_, 9); }), -18017);
    EXPECT_EQ(read_after_reset([&] { zd_sock_read_line_nonb(near_, buffer_, 9, 5); }), -18017);
}

TEST_F(ZdSockIo, MegabytesComeWholeThroughAStormOfSignals) {
    const std::string bytes = distinct_bytes(1 << 20);
    std::string got(bytes.size(), '\0');
    std::thread writer([&] { far_sends(bytes); });
    {
        const SignalStorm storm;
        const int half = static_cast<int>(bytes.size() / 2);
        EXPECT_EQ(zd_sock_readn_ex(near_, got.data(), half, kThrow), half);
        EXPECT_EQ(zd_sock_readn_nonb_ex(near_, got.data() + half, half, 60, kThrow), half);
    }
    writer.join();
    EXPECT_TRUE(got == bytes);
}

TEST_F(ZdSockIo, BytesComeOneByOneThroughAStormOfSignals) {
    const std::string bytes = distinct_bytes(2000);
    std::string got(bytes.size(), '\0');
    std::thread writer([&] { far_sends_byte_by_byte(bytes); });
    {
        const SignalStorm storm;
        EXPECT_EQ(zd_sock_readn_ex(near_, got.data(), 2000, kThrow), 2000);
    }
    writer.join();
    EXPECT_TRUE(got == bytes);
}

// ---- Single reads

TEST_F(ZdSockIo, SingleReadReturnsWhatIsThere) {
    far_sends("abc");
    EXPECT_EQ(zd_sock_read_once_ex(near_, buffer_, 10, 0), 3);
    EXPECT_EQ(std::string(buffer_), "abc");
}

TEST_F(ZdSockIo, SingleReadReturnsZeroAtTheEndOfTheStream) {
    close_far();
    EXPECT_EQ(zd_sock_read_once_ex(near_, buffer_, 10, 0), 0);
}

TEST_F(ZdSockIo, SingleReadPassesItsFlagsOn) {
    far_sends("abc");
    EXPECT_EQ(zd_sock_read_once_ex(near_, buffer_, 10, MSG_PEEK), 3);
    EXPECT_EQ(zd_sock_read_once_ex(near_, buffer_, 10, 0), 3);
    EXPECT_EQ(client_try([&] { zd_sock_read_once_ex(near_, buffer_, 10, MSG_DONTWAIT); }),
              ERROR_IO);
}

TEST_F(ZdSockIo, InterruptedSingleReadGoesOn) {
    InterruptingSignal handler;
    int result = -2;
    BlockingCall reader([&] { result = zd_sock_read_once_ex(near_, buffer_, 4, 0); });
    reader.interrupt(20);
    far_sends("ab");
    reader.wait();
    EXPECT_EQ(result, 2);
}

TEST_F(ZdSockIo, SingleReadThatWouldBlockIsAFailure) {
    make_nonblocking(near_);
    EXPECT_EQ(client_try([&] { zd_sock_read_once_ex(near_, buffer_, 4, 0); }), ERROR_IO);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(client_try([&] { zd_sock_read_once_nonb_ex(near_, buffer_, 4, 0, 0); }), ERROR_IO);
    EXPECT_EQ(errno, EAGAIN);
}

TEST_F(ZdSockIo, SingleReadOfANegativeCountFailsAndTouchesNothing) {
    far_sends("abc");
    for (const int nbytes : {-1, INT32_MIN}) {
        EXPECT_EQ(client_try([&] { zd_sock_read_once_ex(near_, buffer_, nbytes, 0); }), ERROR_IO);
        EXPECT_EQ(client_try([&] { zd_sock_read_once_nonb_ex(near_, buffer_, nbytes, 5, 0); }),
                  ERROR_IO);
    }
    EXPECT_EQ(std::string(buffer_, sizeof buffer_), std::string(sizeof buffer_, '\0'));
}

TEST_F(ZdSockIo, TimedSingleReadReturnsWhatIsThere) {
    far_sends("abc");
    EXPECT_EQ(zd_sock_read_once_nonb_ex(near_, buffer_, 10, 5, MSG_PEEK), 3);
    EXPECT_EQ(zd_sock_read_once_nonb_ex(near_, buffer_, 2, 5, 0), 2);
    EXPECT_EQ(std::string(buffer_), "abc") << "two of three were read, and the third peeked";
    close_far();
    EXPECT_EQ(zd_sock_read_once_nonb_ex(near_, buffer_, 2, 5, 0), 1);
    EXPECT_EQ(zd_sock_read_once_nonb_ex(near_, buffer_, 2, 5, 0), 0) << "the end of the stream";
}

TEST_F(ZdSockIo, TimedSingleReadThrowsWhenTheTimeRunsOut) {
    EXPECT_EQ(client_try([&] { zd_sock_read_once_nonb_ex(near_, buffer_, 4, 1, 0); }),
              ERROR_IO_SOCKET_TIMEOUT);
}

TEST_F(ZdSockIo, TimedSingleReadWaitsBeforeEachAttempt) {
    far_sends("abc");
    scripted_recv.answers = {fails_with(EINTR), fails_with(EINTR)};
    EXPECT_EQ(zd_sock_read_once_nonb_ex(near_, buffer_, 4, 2, 0), 3);
    EXPECT_THAT(scripted_poll.seen, ElementsAre(2000, 2000, 2000));
}

TEST_F(ZdSockIo, TimedSingleReadOfZeroSecondsDoesNotWait) {
    far_sends("abc");
    EXPECT_EQ(zd_sock_read_once_nonb_ex(near_, buffer_, 4, 0, 0), 3);
    EXPECT_THAT(scripted_poll.seen, testing::IsEmpty());
}

// ---- Lines

TEST_F(ZdSockIo, LineEndsAfterItsNewlineAndHasNoZeroByte) {
    far_sends("one\ntwo\n");
    memset(buffer_, '#', sizeof buffer_);
    EXPECT_EQ(zd_sock_read_line(near_, buffer_, 60), 4);
    EXPECT_EQ(std::string(buffer_, 6), "one\n##");
    EXPECT_EQ(zd_sock_read_line_nonb(near_, buffer_, 60, 5), 4);
    EXPECT_EQ(std::string(buffer_, 6), "two\n##");
}

TEST_F(ZdSockIo, EmptyLineIsItsNewline) {
    far_sends("\n\n");
    EXPECT_EQ(zd_sock_read_line(near_, buffer_, 60), 1);
    EXPECT_EQ(zd_sock_read_line_nonb(near_, buffer_, 1, 0), 1);
}

TEST_F(ZdSockIo, LineOfExactlyTheBufferIsRead) {
    far_sends("abc\nabc\n");
    memset(buffer_, '#', sizeof buffer_);
    EXPECT_EQ(zd_sock_read_line(near_, buffer_, 4), 4);
    EXPECT_EQ(zd_sock_read_line_nonb(near_, buffer_, 4, 5), 4);
    EXPECT_EQ(std::string(buffer_, 5), "abc\n#");
}

TEST_F(ZdSockIo, LineLongerThanTheBufferFillsItAndGivesMinusOne) {
    far_sends("abcd\nefgh\n");
    memset(buffer_, '#', sizeof buffer_);
    EXPECT_EQ(zd_sock_read_line(near_, buffer_, 4), -1);
    EXPECT_EQ(std::string(buffer_, 5), "abcd#");
    EXPECT_EQ(zd_sock_read_line(near_, buffer_, 4), 1) << "the rest of it is still there";
    EXPECT_EQ(zd_sock_read_line_nonb(near_, buffer_, 4, 5), -1);
    EXPECT_EQ(std::string(buffer_, 5), "efgh#");
}

TEST_F(ZdSockIo, LineReadNeverAsksForMoreThanAByte) {
    far_sends("abc\nrest");
    EXPECT_EQ(zd_sock_read_line(near_, buffer_, 60), 4);
    EXPECT_THAT(scripted_recv.seen, ElementsAre(1, 1, 1, 1));
    EXPECT_EQ(zd_sock_read_once_ex(near_, buffer_, 60, 0), 4);
}

TEST_F(ZdSockIo, LineReadIntoNoRoomReadsNothing) {
    far_sends("abc\n");
    EXPECT_EQ(zd_sock_read_line(near_, nullptr, 0), 0);
    EXPECT_EQ(zd_sock_read_line_nonb(near_, nullptr, 0, 5), 0);
    EXPECT_THAT(scripted_recv.seen, testing::IsEmpty());
    EXPECT_THAT(scripted_poll.seen, testing::IsEmpty());
}

TEST_F(ZdSockIo, LineReadIntoNegativeRoomIsAFaultOfTheProgram) {
    const char *const report = "zd_sock_io:[0-9]+: Assertion fail with condition 'len == nbytes'";
    EXPECT_EXIT(zd_sock_read_line(near_, buffer_, -1), testing::KilledBySignal(SIGABRT), report);
    EXPECT_EXIT(zd_sock_read_line_nonb(near_, buffer_, -1, 5), testing::KilledBySignal(SIGABRT),
                report);
}

TEST_F(ZdSockIo, EndOfStreamEndsALine) {
    far_sends("abc");
    close_far();
    EXPECT_EQ(zd_sock_read_line(near_, buffer_, 60), 3);
    EXPECT_EQ(std::string(buffer_), "abc");
    EXPECT_EQ(zd_sock_read_line(near_, buffer_, 60), 0);
    EXPECT_EQ(zd_sock_read_line_nonb(near_, buffer_, 60, 5), 0);
}

TEST_F(ZdSockIo, InterruptedLineReadGoesOn) {
    far_sends("ab\n");
    scripted_recv.answers = {fails_with(EINTR), asks(), fails_with(EINTR), fails_with(EINTR)};
    EXPECT_EQ(zd_sock_read_line(near_, buffer_, 60), 3);
    EXPECT_EQ(std::string(buffer_), "ab\n");
}

TEST_F(ZdSockIo, LineReadThatWouldBlockIsAFailure) {
    make_nonblocking(near_);
    far_sends("ab");
    EXPECT_EQ(client_try([&] { zd_sock_read_line(near_, buffer_, 60); }), ERROR_IO);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(client_try([&] { zd_sock_read_line_nonb(near_, buffer_, 60, 0); }), ERROR_IO);
    EXPECT_EQ(errno, EAGAIN);
}

TEST_F(ZdSockIo, TimedLineReadWaitsBeforeEveryByte) {
    far_sends("ab\n");
    EXPECT_EQ(zd_sock_read_line_nonb(near_, buffer_, 60, 4), 3);
    EXPECT_THAT(scripted_poll.seen, ElementsAre(4000, 4000, 4000));
    scripted_poll.seen.clear();
    far_sends("ab\n");
    EXPECT_EQ(zd_sock_read_line_nonb(near_, buffer_, 60, 0), 3);
    EXPECT_THAT(scripted_poll.seen, testing::IsEmpty());
}

TEST_F(ZdSockIo, TimedLineReadThrowsWhenTheNextByteDoesNotCome) {
    far_sends("ab");
    EXPECT_EQ(client_try([&] { zd_sock_read_line_nonb(near_, buffer_, 60, 1); }),
              ERROR_IO_SOCKET_TIMEOUT);
    EXPECT_EQ(std::string(buffer_), "ab");
}

TEST_F(ZdSockIo, LinesComeByteByByteThroughAStormOfSignals) {
    std::thread writer([&] { far_sends_byte_by_byte("first\nsecond\n\nfourth\n"); });
    std::string lines;
    {
        const SignalStorm storm;
        for (int i = 0; i < 2; i++) {
            lines.append(buffer_, static_cast<size_t>(zd_sock_read_line(near_, buffer_, 60)));
            lines.append(buffer_,
                         static_cast<size_t>(zd_sock_read_line_nonb(near_, buffer_, 60, 60)));
        }
    }
    writer.join();
    EXPECT_EQ(lines, "first\nsecond\n\nfourth\n");
}

// ---- Writes

TEST_F(ZdSockIo, NothingIsWrittenForACountBelowOne) {
    for (const int nbytes : {0, -1, INT32_MIN})
        EXPECT_EQ(zd_sock_writen_ex(near_, "abc", nbytes, 0, kThrow, 0), 0);
    close_near();
    EXPECT_EQ(far_receives(1), "");
}

TEST_F(ZdSockIo, WholeWriteReturnsZeroNotTheCount) {
    EXPECT_EQ(zd_sock_writen_ex(near_, "abcdef", 6, 0, kThrow, 0), 0);
    EXPECT_EQ(far_receives(6), "abcdef");
}

TEST_F(ZdSockIo, WholeWriteGoesOnWhenTheBufferIsFull) {
    make_nonblocking(near_);
    const std::string bytes = distinct_bytes(4 << 20);
    int result = -2;
    std::thread writer([&] {
        result =
            zd_sock_writen_ex(near_, bytes.data(), static_cast<int>(bytes.size()), 0, kThrow, 0);
    });
    EXPECT_TRUE(far_receives(bytes.size()) == bytes);
    writer.join();
    EXPECT_EQ(result, 0);
}

TEST_F(ZdSockIo, InterruptedWriteGoesOn) {
    InterruptingSignal handler;
    const std::string bytes(4 << 20, 'w');
    int result = -2;
    BlockingCall writer([&] {
        result =
            zd_sock_writen_ex(near_, bytes.data(), static_cast<int>(bytes.size()), 0, kThrow, 0);
    });
    writer.interrupt(20);
    EXPECT_EQ(far_receives(bytes.size()).size(), bytes.size());
    writer.wait();
    EXPECT_EQ(result, 0);
}

TEST_F(ZdSockIo, WritePassesItsFlagsOn) {
    close_far();
    // Without the flag the signal would end the process.
    EXPECT_EQ(zd_sock_writen_ex(near_, "abc", 3, MSG_NOSIGNAL, kNothrow, 0), -1);
    EXPECT_EQ(client_try([&] { zd_sock_write_once_ex(near_, "abc", 3, MSG_NOSIGNAL); }), ERROR_IO);
}

TEST_F(ZdSockIo, FailedWriteThrowsOrReturnsMinusOneWithoutAWord) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(client_try([&] { zd_sock_writen_ex(-1, "abc", 3, 0, kThrow, 0); }), ERROR_IO);
    EXPECT_EQ(zd_sock_writen_ex(-1, "abc", 3, 0, kNothrow, 0), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(ZdSockIo, FailedWriteOfAServerLeavesATraceOnStandardError) {
    const std::string trace =
        "zd_sock_writen error. fd:-1 nbytes:3 nleft:3 nwritten:-1 errno:" + std::to_string(EBADF) +
        "\n";
    testing::internal::CaptureStderr();
    EXPECT_EQ(zd_sock_writen_ex(-1, "abc", 3, 0, kNothrow, 1), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), trace);
    testing::internal::CaptureStderr();
    EXPECT_EQ(client_try([&] { zd_sock_writen_ex(-1, "abc", 3, 0, kThrow, 1); }), ERROR_IO);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), trace);
}

TEST_F(ZdSockIo, TraceTellsHowFarTheWriteCame) {
    const std::string bytes(4 << 20, 'w');
    std::string trace;
    testing::internal::CaptureStderr();
    std::thread writer([&] {
        EXPECT_EQ(zd_sock_writen_ex(near_, bytes.data(), static_cast<int>(bytes.size()),
                                    MSG_NOSIGNAL, kNothrow, 1),
                  -1);
    });
    EXPECT_EQ(far_receives(100000).size(), 100000u);
    close_far();
    writer.join();
    trace = testing::internal::GetCapturedStderr();
    int nbytes, nleft, nwritten, error;
    ASSERT_EQ(sscanf(trace.c_str(),
                     "zd_sock_writen error. fd:%*d nbytes:%d nleft:%d nwritten:%d errno:%d\n",
                     &nbytes, &nleft, &nwritten, &error),
              4)
        << trace;
    EXPECT_EQ(nbytes, 4 << 20);
    EXPECT_LE(nleft, (4 << 20) - 100000);
    EXPECT_EQ(nwritten, -1);
    EXPECT_THAT(error, testing::AnyOf(EPIPE, ECONNRESET));
}

TEST_F(ZdSockIo, SingleWriteReturnsTheFirstCount) {
    make_nonblocking(near_);
    const std::string bytes(4 << 20, 'w');
    const int sent = zd_sock_write_once_ex(near_, bytes.data(), static_cast<int>(bytes.size()), 0);
    EXPECT_GT(sent, 0);
    EXPECT_LT(sent, 4 << 20);
    EXPECT_EQ(far_receives(static_cast<size_t>(sent)).size(), static_cast<size_t>(sent));
}

TEST_F(ZdSockIo, SingleWriteWaitsForRoomOnANonblockingDescriptor) {
    make_nonblocking(near_);
    const size_t filled = fill_near();
    ASSERT_GT(filled, 0u);
    int sent = -2;
    BlockingCall writer([&] { sent = zd_sock_write_once_ex(near_, "abc", 3, 0); });
    const std::string bytes = far_receives(filled + 3);
    writer.wait();
    EXPECT_EQ(sent, 3);
    EXPECT_EQ(bytes.substr(filled), "abc");
}

TEST_F(ZdSockIo, WriteRetriesWhatWasInterruptedAndWaitsForRoom) {
    scripted_send.answers = {fails_with(EINTR), takes(2), fails_with(EAGAIN), takes(1),
                             fails_with(EINTR)};
    EXPECT_EQ(zd_sock_writen_ex(near_, "abcdef", 6, 0, kThrow, 0), 0);
    EXPECT_THAT(scripted_send.seen, ElementsAre(6, 6, 4, 4, 3, 3));
    EXPECT_THAT(scripted_poll.seen, ElementsAre(-1));
    EXPECT_EQ(far_receives(6), "abcdef");
}

TEST_F(ZdSockIo, SendOfNothingIsAFailureUnlessErrnoSaysOtherwise) {
    testing::internal::CaptureStderr();
    scripted_send.answers = {claims(0, EINTR), claims(0, EAGAIN), claims(0)};
    errno = EINTR;
    EXPECT_EQ(zd_sock_writen_ex(7, "abc", 3, 0, kNothrow, 1), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "zd_sock_writen error. fd:7 nbytes:3 nleft:3 nwritten:0 errno:0\n");
    EXPECT_EQ(scripted_send.seen.size(), 3u);
}

TEST_F(ZdSockIo, CauseOfAFailedWriteOutlivesATraceThatCannotBePrinted) {
    const int saved = dup(STDERR_FILENO);
    const int full = open("/dev/full", O_WRONLY);
    dup2(full, STDERR_FILENO);
    const int result = zd_sock_writen_ex(-1, "abc", 3, 0, kNothrow, 1);
    const int cause = errno;
    dup2(saved, STDERR_FILENO);
    close(full);
    close(saved);
    clearerr(stderr);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(cause, EBADF);
}

TEST_F(ZdSockIo, ResetWhileWritingIsAFailure) {
    use_tcp();
    reset_far();
    EXPECT_EQ(zd_sock_writen_ex(near_, "abc", 3, MSG_NOSIGNAL, kNothrow, 0), -1);
    EXPECT_THAT(errno, testing::AnyOf(ECONNRESET, EPIPE));
}

TEST_F(ZdSockIo, MegabytesGoOutWholeThroughAStormOfSignals) {
    const std::string bytes = distinct_bytes(1 << 20);
    std::string got;
    std::thread reader([&] { got = far_receives(bytes.size()); });
    {
        const SignalStorm storm;
        EXPECT_EQ(zd_sock_writen_ex(near_, bytes.data(), 1 << 20, 0, kThrow, 0), 0);
    }
    reader.join();
    EXPECT_TRUE(got == bytes);
}

TEST_F(ZdSockIo, SingleWriteOfANegativeCountFailsAndSendsNothing) {
    for (const int nbytes : {-1, INT32_MIN})
        EXPECT_EQ(client_try([&] { zd_sock_write_once_ex(near_, "abc", nbytes, 0); }), ERROR_IO);
    close_near();
    EXPECT_EQ(far_receives(1), "");
}

TEST_F(ZdSockIo, SingleWriteOfNothingFailsWhateverErrnoWasBefore) {
    for (const int before : {EINTR, EAGAIN, 0}) {
        errno = before;
        EXPECT_EQ(client_try([&] { zd_sock_write_once_ex(near_, "", 0, 0); }), ERROR_IO);
    }
}

} // namespace
