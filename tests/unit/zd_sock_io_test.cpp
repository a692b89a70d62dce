#include "common/zd_sock_io.h"

#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

#include "client/common/client_try.h"
#include "common/ec.h"

namespace {

constexpr uchar kNothrow = 1;
constexpr uchar kThrow = 0;

std::atomic<int> signals_seen;

void count_signal(int) {
    signals_seen++;
}

// SIGUSR1 interrupts system calls and is counted.
class InterruptingSignal {
  public:
    InterruptingSignal() {
        signals_seen = 0;
        struct sigaction action = {};
        action.sa_handler = count_signal;
        sigaction(SIGUSR1, &action, &saved_);
    }
    InterruptingSignal(const InterruptingSignal &) = delete;
    InterruptingSignal &operator=(const InterruptingSignal &) = delete;
    ~InterruptingSignal() { sigaction(SIGUSR1, &saved_, nullptr); }

  private:
    struct sigaction saved_ = {};
};

// Runs a call that will block, in a thread of its own, and interrupts it.
class BlockingCall {
  public:
    template <class Call>
    explicit BlockingCall(Call call)
        : thread_([this, call] {
              started_ = true;
              call();
              ended_ = true;
          }) {
        while (!started_)
            sched_yield();
    }
    BlockingCall(const BlockingCall &) = delete;
    BlockingCall &operator=(const BlockingCall &) = delete;
    ~BlockingCall() { wait(); }

    // Signals until so many have been taken, or the call has ended. One that comes before the call
    // blocks is lost on it, hence many.
    void interrupt(int times) {
        while (signals_seen < times && !ended_) {
            pthread_kill(thread_.native_handle(), SIGUSR1);
            sched_yield();
        }
    }

    void wait() {
        if (thread_.joinable())
            thread_.join();
    }

  private:
    std::atomic<bool> started_ = false;
    std::atomic<bool> ended_ = false;
    std::thread thread_;
};

class ZdSockIo : public testing::Test {
  protected:
    ZdSockIo() {
        int fds[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
        near_ = fds[0];
        far_ = fds[1];
    }
    ~ZdSockIo() override {
        close_far();
        close(near_);
    }

    void close_far() {
        if (far_ >= 0)
            close(far_);
        far_ = -1;
    }

    void far_sends(const std::string &bytes) const {
        ASSERT_EQ(send(far_, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    }

    // Everything that arrives at the far end until size bytes are there.
    [[nodiscard]] std::string far_receives(size_t size) const {
        std::string bytes(size, '\0');
        size_t got = 0;
        while (got < size) {
            const ssize_t count = recv(far_, bytes.data() + got, size - got, 0);
            if (count <= 0)
                break;
            got += static_cast<size_t>(count);
        }
        bytes.resize(got);
        return bytes;
    }

    static void make_nonblocking(int fd) { fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK); }

    // Sends until the near end's way out is full; how many bytes that took.
    [[nodiscard]] size_t fill_near() const {
        const std::string bytes(4096, 'x');
        size_t sent = 0;
        for (;;) {
            const ssize_t count = send(near_, bytes.data(), bytes.size(), MSG_DONTWAIT);
            if (count <= 0)
                return sent;
            sent += static_cast<size_t>(count);
        }
    }

    int near_;
    int far_;
    char buffer_[64] = {};
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
    std::thread writer([&] {
        for (const char *piece : {"a", "bc", "def"}) {
            far_sends(piece);
            // The reader has taken the piece when nothing of it is left to be read.
            pollfd readable = {near_, POLLIN, 0};
            while (poll(&readable, 1, 0) > 0)
                sched_yield();
        }
    });
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

// ---- Writes

TEST_F(ZdSockIo, NothingIsWrittenForACountBelowOne) {
    for (const int nbytes : {0, -1, INT32_MIN})
        EXPECT_EQ(zd_sock_writen_ex(near_, "abc", nbytes, 0, kThrow, 0), 0);
    close(near_);
    EXPECT_EQ(far_receives(1), "");
}

TEST_F(ZdSockIo, WholeWriteReturnsZeroNotTheCount) {
    EXPECT_EQ(zd_sock_writen_ex(near_, "abcdef", 6, 0, kThrow, 0), 0);
    EXPECT_EQ(far_receives(6), "abcdef");
}

TEST_F(ZdSockIo, WholeWriteGoesOnWhenTheBufferIsFull) {
    make_nonblocking(near_);
    std::string bytes(4 << 20, '\0');
    for (size_t i = 0; i < bytes.size(); i++)
        bytes[i] = static_cast<char>(i * 2654435761u >> 16);
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

TEST_F(ZdSockIo, SingleWriteOfNothingFailsWhateverErrnoWasBefore) {
    for (const int before : {EINTR, EAGAIN, 0}) {
        errno = before;
        EXPECT_EQ(client_try([&] { zd_sock_write_once_ex(near_, "", 0, 0); }), ERROR_IO);
    }
}

} // namespace
