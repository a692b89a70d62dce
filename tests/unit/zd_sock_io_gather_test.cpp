// Writes of several buffers: two, any number, and any number within a time.
#include "common/zd_sock_io.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <netinet/tcp.h>
#include <sys/mman.h>

#include <string>
#include <thread>
#include <vector>

#include "client/common/client_try.h"
#include "common/ec.h"
#include "common/zd_gettime.h"
#include "common/zd_sock_io_core.h"
#include "support/scripted_calls.h"
#include "support/sockets.h"

namespace {

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

iovec vector_of(const std::string &bytes) {
    return {const_cast<char *>(bytes.data()), bytes.size()};
}

std::vector<iovec> vectors_of(const std::vector<std::string> &pieces) {
    std::vector<iovec> vectors;
    for (const std::string &piece : pieces)
        vectors.push_back(vector_of(piece));
    return vectors;
}

std::string joined(const std::vector<std::string> &pieces) {
    std::string all;
    for (const std::string &piece : pieces)
        all += piece;
    return all;
}

int count_of(const std::vector<iovec> &vectors) {
    return static_cast<int>(vectors.size());
}

class GatheredWrite : public SocketPairTest {
  protected:
    void SetUp() override { clear_scripts(); }
    void TearDown() override { clear_scripts(); }

    NoBrokenPipeSignal no_signal_;
};

// ---- two buffers ----

using TwoBuffers = GatheredWrite;

TEST_F(TwoBuffers, GoOutInOrderInOneCall) {
    zd_sock_write2(near_, "head", 4, "body", 4);
    EXPECT_EQ(far_receives(8), "headbody");
    EXPECT_THAT(scripted_writev.seen, ElementsAre(2));
    EXPECT_THAT(scripted_send.seen, IsEmpty()) << "nothing was left to send";
}

TEST_F(TwoBuffers, EveryShortWriteIsGoneOnFrom) {
    // However much of "headbody" the first call takes.
    for (long first = 1; first <= 8; first++) {
        clear_scripts();
        scripted_writev.answers = {first <= 4 ? takes(first) : asks()};
        zd_sock_write2(near_, "head", 4, "body", 4);
        EXPECT_EQ(far_receives(8), "headbody") << first;
    }
}

TEST_F(TwoBuffers, SecondIsSentAloneAsSoonAsTheFirstIsOut) {
    scripted_writev.answers = {takes(3), takes(1)};
    zd_sock_write2(near_, "head", 4, "body", 4);
    EXPECT_EQ(far_receives(8), "headbody");
    EXPECT_THAT(scripted_writev.seen, ElementsAre(2, 2));
    EXPECT_THAT(scripted_send.seen, ElementsAre(4));
}

TEST_F(TwoBuffers, ShortWriteThatEndsInTheSecondLeavesItsRest) {
    scripted_writev.answers = {claims(6)};
    zd_sock_write2(near_, "head", 4, "body", 4);
    EXPECT_THAT(scripted_send.seen, ElementsAre(2));
    EXPECT_EQ(far_receives(2), "dy");
}

TEST_F(TwoBuffers, EmptyOnesAreNotWritten) {
    zd_sock_write2(near_, "", 0, "body", 4);
    zd_sock_write2(near_, nullptr, -1, "more", 4);
    EXPECT_THAT(scripted_writev.seen, IsEmpty()) << "no part of the first is unsent";
    zd_sock_write2(near_, "head", 4, nullptr, 0);
    zd_sock_write2(near_, "last", 4, nullptr, -1);
    zd_sock_write2(near_, nullptr, 0, nullptr, INT_MIN);
    EXPECT_EQ(far_receives(16), "bodymoreheadlast");
}

TEST_F(TwoBuffers, InterruptionsAndFullBuffersAreOutlived) {
    scripted_writev.answers = {fails_with(EINTR), fails_with(EAGAIN), takes(2), fails_with(EINTR)};
    scripted_send.answers = {fails_with(EINTR), fails_with(EAGAIN)};
    scripted_writev.answers.push_back(takes(2));
    zd_sock_write2(near_, "head", 4, "body", 4);
    EXPECT_EQ(far_receives(8), "headbody");
    EXPECT_THAT(scripted_poll.seen, ElementsAre(-1, -1));
}

TEST_F(TwoBuffers, AnyOtherFailureIsThrown) {
    for (const int error : {ECONNRESET, EPIPE, EBADF, ETIMEDOUT}) {
        scripted_writev.answers = {takes(1), fails_with(error)};
        EXPECT_EQ(client_try([&] { zd_sock_write2(near_, "head", 4, "body", 4); }), -18017);
        EXPECT_EQ(errno, error);
    }
    EXPECT_EQ(client_try([&] { zd_sock_write2(-1, "head", 4, "body", 4); }), ERROR_IO);
    EXPECT_EQ(client_try([&] { zd_sock_write2(-1, "", 0, "body", 4); }), ERROR_IO);
}

TEST_F(TwoBuffers, WriteOfNothingIsAFailureWhateverErrnoWasBefore) {
    for (const int before : {EINTR, EAGAIN, 0}) {
        scripted_writev.answers = {claims(0)};
        errno = before;
        EXPECT_EQ(client_try([&] { zd_sock_write2(near_, "head", 4, "body", 4); }), ERROR_IO);
    }
}

TEST_F(TwoBuffers, MegabytesGoOutThroughAFullBufferAndAStorm) {
    make_nonblocking(near_);
    const std::string head = distinct_bytes(700000);
    const std::string body = distinct_bytes(900001);
    std::string got;
    std::thread reader([&] { got = far_receives(head.size() + body.size()); });
    {
        const SignalStorm storm;
        zd_sock_write2(near_, head.data(), 700000, body.data(), 900001);
    }
    reader.join();
    EXPECT_TRUE(got == head + body);
}

// ---- any number of buffers ----

TEST_F(GatheredWrite, FewerThanOneVectorIsRefused) {
    iovec vector = vector_of("abc");
    for (const int nvecs : {0, -1, INT_MIN})
        EXPECT_EQ(zd_sock_writev(near_, &vector, nvecs), -1);
    EXPECT_THAT(scripted_writev.seen, IsEmpty());
    EXPECT_THAT(scripted_send.seen, IsEmpty());
}

TEST_F(GatheredWrite, GoesOutInOrderAndReturnsTheNumberOfVectors) {
    const std::vector<std::string> pieces = {"one", "two", "three"};
    std::vector<iovec> vectors = vectors_of(pieces);
    EXPECT_EQ(zd_sock_writev(near_, vectors.data(), 3), 3);
    EXPECT_EQ(far_receives(11), "onetwothree");
    EXPECT_THAT(scripted_writev.seen, ElementsAre(3));
    EXPECT_THAT(scripted_send.seen, IsEmpty());
}

TEST_F(GatheredWrite, OneVectorIsSentWithoutGathering) {
    const std::string only = "only";
    iovec vector = vector_of(only);
    EXPECT_EQ(zd_sock_writev(near_, &vector, 1), 1);
    EXPECT_EQ(far_receives(4), "only");
    EXPECT_THAT(scripted_writev.seen, IsEmpty());
    EXPECT_THAT(scripted_send.seen, ElementsAre(4));
}

TEST_F(GatheredWrite, ArrayIsUsedUp) {
    const std::vector<std::string> pieces = {"one", "two", "three"};
    std::vector<iovec> vectors = vectors_of(pieces);
    scripted_writev.answers = {takes(2), fails_with(EBADF)};
    EXPECT_EQ(client_try([&] { zd_sock_writev(near_, vectors.data(), 3); }), ERROR_IO);
    EXPECT_EQ(vectors[0].iov_base, pieces[0].data() + 2);
    EXPECT_EQ(vectors[0].iov_len, 1u);
    EXPECT_EQ(vectors[1].iov_len, 3u);
    clear_scripts();
    EXPECT_EQ(zd_sock_writev(near_, vectors.data(), 3), 3) << "it goes on where it stood";
    EXPECT_EQ(vectors[0].iov_len, 0u);
    EXPECT_EQ(vectors[1].iov_len, 0u);
    EXPECT_EQ(far_receives(11), "onetwothree");
}

TEST_F(GatheredWrite, EveryShortWriteIsGoneOnFrom) {
    const std::vector<std::string> pieces = {"ab", "", "c", "defg", "", "hi"};
    for (const long step : {1, 2, 3, 4}) {
        std::vector<iovec> vectors = vectors_of(pieces);
        clear_scripts();
        for (int i = 0; i < 20; i++)
            scripted_writev.answers.push_back(takes(step));
        EXPECT_EQ(zd_sock_writev(near_, vectors.data(), count_of(vectors)), 6) << step;
        EXPECT_EQ(far_receives(9), "abcdefghi") << step;
    }
}

TEST_F(GatheredWrite, WriteMayEndAnywhereInTheLastVector) {
    const std::vector<std::string> pieces = {"ab", "cd", "efg"};
    for (long total = 4; total <= 7; total++) {
        std::vector<iovec> vectors = vectors_of(pieces);
        clear_scripts();
        scripted_writev.answers = {claims(total)};
        EXPECT_EQ(zd_sock_writev(near_, vectors.data(), 3), 3);
        const std::string rest = std::string("abcdefg").substr(static_cast<size_t>(total));
        EXPECT_EQ(far_receives(rest.size()), rest);
        EXPECT_THAT(scripted_writev.seen, ElementsAre(3));
        EXPECT_EQ(scripted_send.seen.size(), rest.empty() ? 0u : 1u);
    }
}

TEST_F(GatheredWrite, UnfinishedVectorsAloneAreWrittenAgain) {
    const std::vector<std::string> pieces = {"ab", "cd", "ef", "gh"};
    std::vector<iovec> vectors = vectors_of(pieces);
    scripted_writev.answers = {claims(3), claims(1)};
    EXPECT_EQ(zd_sock_writev(near_, vectors.data(), 4), 4);
    EXPECT_THAT(scripted_writev.seen, ElementsAre(4, 3, 2));
    EXPECT_EQ(far_receives(4), "efgh");
}

TEST_F(GatheredWrite, EmptyVectorsAreSteppedOver) {
    const std::vector<std::string> pieces = {"", "", "ab", "", "cd", ""};
    std::vector<iovec> vectors = vectors_of(pieces);
    EXPECT_EQ(zd_sock_writev(near_, vectors.data(), 6), 6);
    EXPECT_EQ(far_receives(4), "abcd");
    std::vector<iovec> empty(5);
    EXPECT_EQ(zd_sock_writev(near_, empty.data(), 5), 5);
    EXPECT_THAT(scripted_writev.seen, ElementsAre(4));
}

TEST_F(GatheredWrite, MoreVectorsThanOneCallTakesGoOutInSeveral) {
    const std::vector<std::string> pieces(3000, "xyz");
    std::vector<iovec> vectors = vectors_of(pieces);
    std::string got;
    std::thread reader([&] { got = far_receives(9000); });
    EXPECT_EQ(zd_sock_writev(near_, vectors.data(), 3000), 3000);
    reader.join();
    EXPECT_TRUE(got == joined(pieces));
    EXPECT_THAT(scripted_writev.seen, Each(testing::Le(IOV_MAX)));
}

TEST_F(GatheredWrite, LastVectorMayBeLongerThanACountCanSay) {
    const size_t size = (size_t{1} << 31) + 5;
    void *const bytes =
        mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(bytes, MAP_FAILED);
    iovec vector = {bytes, size};
    scripted_send.answers = {claims(INT_MAX), claims(6)}; // nothing is really sent
    EXPECT_EQ(zd_sock_writev(near_, &vector, 1), 1);
    EXPECT_THAT(scripted_send.seen, ElementsAre(INT_MAX, 6));
    munmap(bytes, size);
}

TEST_F(GatheredWrite, InterruptedWriteGoesOn) {
    const std::vector<std::string> pieces = {"ab", "cd", "ef"};
    std::vector<iovec> vectors = vectors_of(pieces);
    scripted_writev.answers = {fails_with(EINTR), takes(1), fails_with(EINTR), fails_with(EINTR)};
    EXPECT_EQ(zd_sock_writev(near_, vectors.data(), 3), 3);
    EXPECT_THAT(scripted_poll.seen, IsEmpty());
    EXPECT_EQ(far_receives(6), "abcdef");
}

TEST_F(GatheredWrite, FullBufferAndTimedOutConnectionAreWaitedFor) {
    const std::vector<std::string> pieces = {"ab", "cd", "ef"};
    std::vector<iovec> vectors = vectors_of(pieces);
    scripted_writev.answers = {fails_with(EAGAIN), fails_with(ETIMEDOUT)};
    EXPECT_EQ(zd_sock_writev(near_, vectors.data(), 3), 3);
    EXPECT_THAT(scripted_poll.seen, ElementsAre(-1, -1));
    EXPECT_EQ(far_receives(6), "abcdef");
}

TEST_F(GatheredWrite, TimedOutConnectionIsAFailureOnceOnlyTheLastVectorIsLeft) {
    iovec vector = vector_of("abc");
    scripted_send.answers = {fails_with(ETIMEDOUT)};
    EXPECT_EQ(client_try([&] { zd_sock_writev(near_, &vector, 1); }), ERROR_IO);
}

TEST_F(GatheredWrite, AnyOtherFailureIsThrown) {
    for (const int error : {ECONNRESET, EPIPE, EBADF}) {
        const std::vector<std::string> pieces = {"ab", "cd", "ef"};
        std::vector<iovec> vectors = vectors_of(pieces);
        scripted_writev.answers = {takes(1), fails_with(error)};
        EXPECT_EQ(client_try([&] { zd_sock_writev(near_, vectors.data(), 3); }), -18017);
        EXPECT_EQ(errno, error);
    }
}

TEST_F(GatheredWrite, WriteOfNothingIsAFailureWhateverErrnoWasBefore) {
    for (const int before : {EINTR, EAGAIN, ETIMEDOUT}) {
        const std::vector<std::string> pieces = {"ab", "cd"};
        std::vector<iovec> vectors = vectors_of(pieces);
        scripted_writev.answers = {claims(0)};
        errno = before;
        EXPECT_EQ(client_try([&] { zd_sock_writev(near_, vectors.data(), 2); }), ERROR_IO);
    }
}

TEST_F(GatheredWrite, PeerThatGoesInMidWriteIsAFailure) {
    use_tcp();
    const std::vector<std::string> pieces(7, distinct_bytes(1 << 20));
    std::vector<iovec> vectors = vectors_of(pieces);
    std::thread reader([&] {
        EXPECT_EQ(far_receives(100000).size(), 100000u);
        reset_far();
    });
    EXPECT_EQ(client_try([&] { zd_sock_writev(near_, vectors.data(), 7); }), ERROR_IO);
    EXPECT_THAT(errno, testing::AnyOf(ECONNRESET, EPIPE));
    reader.join();
}

TEST_F(GatheredWrite, MegabytesGoOutThroughAFullBufferAndAStorm) {
    make_nonblocking(near_);
    std::vector<std::string> pieces;
    for (size_t i = 0; i < 40; i++)
        pieces.push_back(distinct_bytes(i * i * 61));
    std::vector<iovec> vectors = vectors_of(pieces);
    const std::string all = joined(pieces);
    std::string got;
    std::thread reader([&] { got = far_receives(all.size()); });
    {
        const SignalStorm storm;
        EXPECT_EQ(zd_sock_writev(near_, vectors.data(), 40), 40);
    }
    reader.join();
    EXPECT_TRUE(got == all);
}

// ---- within a time ----

class TimedGatheredWrite : public GatheredWrite {
  protected:
    void SetUp() override {
        GatheredWrite::SetUp();
        saved_scale_ = zd_scale_factor;
        zd_scale_factor = INT_MAX; // no time passes, unless a test says so
        errno = 0;
    }
    void TearDown() override {
        zd_scale_factor = saved_scale_;
        GatheredWrite::TearDown();
    }

    int write(const std::vector<std::string> &pieces, int msec, int errfd = -1) {
        pieces_ = pieces;
        vectors_ = vectors_of(pieces_);
        return zd_sock_writev_timeo(near_, vectors_.data(), count_of(vectors_), msec, errfd);
    }

    std::vector<std::string> pieces_;
    std::vector<iovec> vectors_;

  private:
    int saved_scale_ = 0;
};

TEST_F(TimedGatheredWrite, GoesOutInOrderOneSendAVectorAndReturnsTheirNumber) {
    EXPECT_EQ(write({"one", "two", "three"}, 100), 3);
    EXPECT_EQ(far_receives(11), "onetwothree");
    EXPECT_THAT(scripted_send.seen, ElementsAre(3, 3, 5));
    EXPECT_THAT(scripted_poll.seen, IsEmpty());
    for (size_t i = 0; i < 3; i++) {
        EXPECT_EQ(vectors_[i].iov_len, 0u);
        EXPECT_EQ(vectors_[i].iov_base, pieces_[i].data() + pieces_[i].size());
    }
}

TEST_F(TimedGatheredWrite, EmptyVectorsCountAsWrittenWhole) {
    EXPECT_EQ(write({"", "ab", "", ""}, 0), 4);
    EXPECT_THAT(scripted_send.seen, ElementsAre(2));
    EXPECT_EQ(write({"", ""}, 0), 2);
}

TEST_F(TimedGatheredWrite, NoVectorsAreWrittenAtOnce) {
    EXPECT_EQ(zd_sock_writev_timeo(near_, nullptr, 0, 100, -1), 0);
}

TEST_F(TimedGatheredWrite, NeverBlocksInSend) {
    ASSERT_GT(fill_near(), 0u);
    scripted_send.clear();
    scripted_send.answers = {asks(), asks(), asks(), claims(2)};
    EXPECT_EQ(write({"ab"}, 100), 1) << "the send that found no room failed, and was sent again";
    EXPECT_EQ(scripted_send.seen.size(), 4u);
}

TEST_F(TimedGatheredWrite, FailedSendIsRepeatedWhateverItsCause) {
    scripted_send.answers = {fails_with(EPIPE), fails_with(ECONNRESET), fails_with(EAGAIN),
                             fails_with(EINTR), fails_with(EBADF)};
    EXPECT_EQ(write({"ab", "cd"}, 0), 2);
    EXPECT_THAT(scripted_send.seen, ElementsAre(2, 2, 2, 2, 2, 2, 2));
    EXPECT_THAT(scripted_poll.seen, IsEmpty()) << "a failure looks neither at errno nor at time";
    EXPECT_EQ(far_receives(4), "abcd");
}

TEST_F(TimedGatheredWrite, WithoutTimeTheFirstShortSendEndsIt) {
    for (const int msec : {0, -1, INT_MIN}) {
        clear_scripts();
        scripted_send.answers = {asks(), asks(), takes(1)};
        EXPECT_EQ(write({"ab", "cd", "ef", "gh"}, msec), 2);
        EXPECT_THAT(scripted_send.seen, ElementsAre(2, 2, 2));
        EXPECT_THAT(scripted_poll.seen, IsEmpty());
        EXPECT_EQ(far_receives(5), "abcde");
    }
}

TEST_F(TimedGatheredWrite, SendOfNothingIsAShortOne) {
    scripted_send.answers = {claims(0)};
    EXPECT_EQ(write({"ab"}, 0), 0);
    scripted_send.answers = {claims(0), asks()};
    EXPECT_EQ(write({"ab"}, 100), 1);
    EXPECT_EQ(far_receives(2), "ab");
}

TEST_F(TimedGatheredWrite, ShortSendIsGoneOnFrom) {
    scripted_send.answers = {takes(1), takes(2)};
    EXPECT_EQ(write({"abcdef", "gh"}, 100), 2);
    EXPECT_THAT(scripted_send.seen, ElementsAre(6, 5, 3, 2));
    EXPECT_THAT(scripted_poll.seen, IsEmpty());
    EXPECT_EQ(far_receives(8), "abcdefgh");
}

TEST_F(TimedGatheredWrite, ShortSendWithAFullBufferWaitsForTheTime) {
    scripted_send.answers = {takes(1, EAGAIN)};
    EXPECT_EQ(write({"abcdef"}, 100), 1);
    EXPECT_THAT(scripted_poll.seen, ElementsAre(100));
    EXPECT_THAT(scripted_send.seen, ElementsAre(6, 5));
    EXPECT_EQ(far_receives(6), "abcdef");
}

TEST_F(TimedGatheredWrite, ErrnoIsLookedAtAsItStands) {
    scripted_send.answers = {takes(1)};
    errno = EAGAIN; // from a call before
    EXPECT_EQ(write({"abc"}, 100), 1);
    EXPECT_THAT(scripted_poll.seen, ElementsAre(100));
    EXPECT_EQ(far_receives(3), "abc");
}

TEST_F(TimedGatheredWrite, FailedSendBeforeAShortOneMakesItWait) {
    scripted_send.answers = {fails_with(EAGAIN), takes(1)};
    EXPECT_EQ(write({"abc"}, 100), 1);
    EXPECT_THAT(scripted_poll.seen, ElementsAre(100));
    EXPECT_EQ(far_receives(3), "abc");
}

TEST_F(TimedGatheredWrite, InterruptionOfLongAgoSendsNothingTwice) {
    scripted_send.answers = {takes(1), fails_with(EINTR), takes(1)};
    errno = EINTR;
    EXPECT_EQ(write({"abcd"}, 100), 1);
    EXPECT_EQ(far_receives(4), "abcd");
    EXPECT_THAT(scripted_send.seen, ElementsAre(4, 3, 3, 2));
}

TEST_F(TimedGatheredWrite, ShortSendThatWasInterruptedIsSentAgain) {
    scripted_send.answers = {claims(1, EINTR), claims(0, EINTR)};
    EXPECT_EQ(write({"abc"}, 100), 1);
    EXPECT_THAT(scripted_send.seen, ElementsAre(3, 3, 3));
    EXPECT_EQ(far_receives(3), "abc");
}

TEST_F(TimedGatheredWrite, TimeThatRunsOutGivesTheVectorsWrittenWhole) {
    scripted_send.answers = {asks(), takes(1, EAGAIN)};
    scripted_poll.answers = {claims(0)};
    EXPECT_EQ(write({"ab", "cd", "ef"}, 70), 1);
    EXPECT_THAT(scripted_poll.seen, ElementsAre(70));
    EXPECT_EQ(vectors_[0].iov_len, 0u);
    EXPECT_EQ(vectors_[1].iov_len, 2u) << "the short count is not taken off";
}

TEST_F(TimedGatheredWrite, TimeRunsOutOnAPeerThatDoesNotRead) {
    int size = 4096;
    setsockopt(near_, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    const std::string much = distinct_bytes(1 << 20);
    const std::string head = "head";
    errno = EAGAIN; // or the short send would not wait, but send again without end
    EXPECT_EQ(write({head, much}, 1), 1);
    close_near();
    const std::string got = far_receives(1 << 20);
    EXPECT_LT(got.size(), much.size());
    EXPECT_TRUE(got == (head + much).substr(0, got.size()));
}

TEST_F(TimedGatheredWrite, InterruptedWaitGoesOnForTheTimeThatIsLeft) {
    scripted_send.answers = {takes(1, EAGAIN)};
    scripted_poll.answers = {fails_with(EINTR), fails_with(EINTR)};
    EXPECT_EQ(write({"abc"}, 90), 1);
    EXPECT_THAT(scripted_poll.seen, ElementsAre(90, 90, 90)) << "no time passed";
    EXPECT_EQ(far_receives(3), "abc");
}

// At a scale of 1 a millisecond is a thousand ticks.
TEST_F(TimedGatheredWrite, TimeUsedUpByInterruptedWaitsLeavesALookWithoutAWait) {
    zd_scale_factor = 1;
    scripted_send.answers = {takes(1, EAGAIN)};
    scripted_poll.answers = {fails_with(EINTR), later(fails_with(EINTR), 60000),
                             later(fails_with(EINTR), 50000), claims(0)};
    EXPECT_EQ(write({"abc"}, 100), 0);
    ASSERT_EQ(scripted_poll.seen.size(), 4u);
    EXPECT_EQ(scripted_poll.seen[0], 100);
    EXPECT_LE(scripted_poll.seen[2], 40);
    EXPECT_EQ(scripted_poll.seen[3], 0) << "not below, which would be without limit";
}

TEST_F(TimedGatheredWrite, TimeUsedUpByAWaitEndsItAtTheNextShortSend) {
    for (const int unmeasured : {0, -1}) {
        clear_scripts();
        zd_scale_factor = unmeasured; // counts as 1
        scripted_send.answers = {takes(1, EAGAIN), takes(1, EAGAIN)};
        scripted_poll.answers = {later(claims(1), 3000)};
        EXPECT_EQ(write({"abc", "def"}, 3), 0);
        EXPECT_EQ(scripted_send.seen.size(), 2u);
        EXPECT_EQ(scripted_poll.seen.size(), 1u);
        EXPECT_EQ(vectors_[0].iov_len, 2u) << "the first short count is off, the second not";
    }
}

TEST_F(TimedGatheredWrite, FailedWaitIsThrown) {
    scripted_send.answers = {takes(1, EAGAIN)};
    scripted_poll.answers = {fails_with(EINTR), fails_with(EINVAL)};
    iovec vector = {buffer_, 3};
    EXPECT_EQ(client_try([&] { zd_sock_writev_timeo(near_, &vector, 1, 90, -1); }), -18017);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(TimedGatheredWrite, WakeUpDuringAWaitEndsItAndTakesOneByte) {
    int wake[2];
    ASSERT_EQ(pipe(wake), 0);
    ASSERT_EQ(::write(wake[1], "xy", 2), 2);
    scripted_send.answers = {asks(), takes(1, EAGAIN)};
    EXPECT_EQ(write({"ab", "cd"}, 90, wake[0]), -1);
    char rest[4];
    EXPECT_EQ(read(wake[0], rest, sizeof rest), 1);
    EXPECT_EQ(rest[0], 'y');
    close(wake[0]);
    close(wake[1]);
}

TEST_F(TimedGatheredWrite, WakeUpIsNotLookedAtWithoutAWait) {
    int wake[2];
    ASSERT_EQ(pipe(wake), 0);
    ASSERT_EQ(::write(wake[1], "x", 1), 1);
    EXPECT_EQ(write({"ab", "cd"}, 90, wake[0]), 2);
    close(wake[0]);
    close(wake[1]);
}

TEST_F(TimedGatheredWrite, WakeUpBreaksAWaitForAPeerThatDoesNotRead) {
    int wake[2];
    ASSERT_EQ(pipe(wake), 0);
    const std::string much = distinct_bytes(1 << 20);
    int result = -2;
    BlockingCall writer([&] {
        errno = EAGAIN;
        result = write({much}, INT_MAX, wake[0]);
    });
    ASSERT_EQ(::write(wake[1], "x", 1), 1);
    writer.wait();
    EXPECT_EQ(result, -1);
    close(wake[0]);
    close(wake[1]);
}

TEST_F(TimedGatheredWrite, WakeUpThatHangsUpIsNoWakeUp) {
    int wake[2];
    ASSERT_EQ(pipe(wake), 0);
    close(wake[1]);
    scripted_send.answers = {takes(1, EAGAIN)};
    EXPECT_EQ(write({"abc"}, 90, wake[0]), 1);
    EXPECT_EQ(far_receives(3), "abc");
    close(wake[0]);
}

TEST_F(TimedGatheredWrite, MegabytesGoOutToASlowReaderThroughAStorm) {
    use_tcp();
    std::vector<std::string> pieces;
    for (size_t i = 0; i < 30; i++)
        pieces.push_back(distinct_bytes(i * 3000));
    const std::string all = joined(pieces);
    std::string got;
    std::thread reader([&] { got = far_receives(all.size()); });
    {
        const SignalStorm storm;
        EXPECT_EQ(write(pieces, INT_MAX), 30);
    }
    reader.join();
    EXPECT_TRUE(got == all);
}

// ---- the time that is left ----

TEST(RemainingTime, IsLessByTheTicksAtTheScale) {
    EXPECT_EQ(zd_remaining_msec(100, 5000, 5000, 2), 100);
    EXPECT_EQ(zd_remaining_msec(100, 5000, 6999, 2), 100) << "ticks below a millisecond";
    EXPECT_EQ(zd_remaining_msec(100, 5000, 7000, 2), 99);
    EXPECT_EQ(zd_remaining_msec(100, 0, 2400u * 1000u * 30u, 2400), 70);
}

TEST(RemainingTime, IsNeverBelowZero) {
    EXPECT_EQ(zd_remaining_msec(100, 0, 100000, 1), 0);
    EXPECT_EQ(zd_remaining_msec(100, 0, 101000, 1), 0);
    EXPECT_EQ(zd_remaining_msec(1, 0, UINT64_MAX, 1), 0);
    EXPECT_EQ(zd_remaining_msec(-5, 0, 0, 1), 0);
}

TEST(RemainingTime, StaysWhenTheCounterWentBack) {
    EXPECT_EQ(zd_remaining_msec(100, 5000, 4999, 1), 100);
    EXPECT_EQ(zd_remaining_msec(100, UINT64_MAX, 0, 1), 100);
}

TEST(RemainingTime, CountsAScaleThatWasNeverMeasuredAsOne) {
    for (const int scale : {0, -1, INT_MIN})
        EXPECT_EQ(zd_remaining_msec(100, 0, 3000, scale), 97);
}

} // namespace
