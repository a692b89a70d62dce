#include "common/zd_network_fifo.h"

#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "support/guarded_bytes.h"
#include "support/scripted_calls.h"
#include "support/sockets.h"

namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr uchar kClient = 0;
constexpr uchar kServer = 1;
constexpr uchar kBlocking = 0;
constexpr uchar kNonblocking = 1;

class ZdNetworkFifo : public testing::Test {
  protected:
    void SetUp() override {
        clear_scripts();
        char name[] = "/tmp/zdfifo_XXXXXX"; // short: paths are few bytes
        ASSERT_NE(mkdtemp(name), nullptr);
        dir_ = name;
        path_ = dir_ + "/s";
        open_before_ = open_descriptors();
    }
    void TearDown() override {
        clear_scripts();
        fs::remove_all(dir_);
    }

    [[nodiscard]] std::string path_of(size_t length) const {
        return dir_ + "/" + std::string(length - dir_.size() - 1, 'p');
    }

    [[nodiscard]] bool is_socket(const std::string &path) const {
        struct stat status;
        return stat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode);
    }

    void expect_nothing_left() const { EXPECT_EQ(open_descriptors(), open_before_); }

    static void expect_connected(int one, int other) {
        EXPECT_EQ(send(one, "x", 1, 0), 1);
        char byte = 0;
        EXPECT_EQ(recv(other, &byte, 1, 0), 1);
        EXPECT_EQ(byte, 'x');
    }

    std::string dir_;
    std::string path_;
    int open_before_ = 0;
};

// ---- listening ----

TEST_F(ZdNetworkFifo, ListensOnThePathWithABacklog) {
    const int fd = zd_network_listen_fifo(path_.c_str());
    ASSERT_GE(fd, 0);
    EXPECT_TRUE(is_socket(path_));
    EXPECT_THAT(scripted_listen.seen, ElementsAre(256));
    close(fd);
}

TEST_F(ZdNetworkFifo, SocketFileOfACrashIsNoObstacle) {
    const int crashed = zd_network_listen_fifo(path_.c_str());
    ASSERT_GE(crashed, 0);
    close(crashed); // its file stays
    ASSERT_TRUE(is_socket(path_));
    const int fd = zd_network_listen_fifo(path_.c_str());
    ASSERT_GE(fd, 0);
    const int client = zd_network_connect_fifo(path_.c_str(), kClient, kBlocking);
    EXPECT_GE(client, 0);
    close(client);
    close(fd);
}

TEST_F(ZdNetworkFifo, AnyFileInTheWayIsRemoved) {
    std::ofstream(path_) << "in the way";
    const int fd = zd_network_listen_fifo(path_.c_str());
    ASSERT_GE(fd, 0);
    EXPECT_TRUE(is_socket(path_));
    close(fd);
}

TEST_F(ZdNetworkFifo, FailuresOfListeningTellTheStep) {
    scripted_socket.answers = {fails_with(EMFILE)};
    EXPECT_EQ(zd_network_listen_fifo(path_.c_str()), -1);
    EXPECT_EQ(errno, EMFILE);
    EXPECT_EQ(zd_network_listen_fifo((dir_ + "/none/s").c_str()), -2);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_THAT(scripted_listen.seen, IsEmpty());
    scripted_listen.answers = {fails_with(EOPNOTSUPP)};
    EXPECT_EQ(zd_network_listen_fifo(path_.c_str()), -3);
    EXPECT_EQ(errno, EOPNOTSUPP);
    expect_nothing_left();
}

TEST_F(ZdNetworkFifo, DirectoryInTheWayCannotBeBound) {
    fs::create_directory(path_);
    EXPECT_EQ(zd_network_listen_fifo(path_.c_str()), -2);
    EXPECT_EQ(errno, EADDRINUSE);
    EXPECT_TRUE(fs::is_directory(path_));
    expect_nothing_left();
}

TEST_F(ZdNetworkFifo, BindTakesTwoBytesMoreThanThePath) {
    const int fd = zd_network_listen_fifo(path_.c_str());
    EXPECT_THAT(scripted_bind.seen, ElementsAre(static_cast<long>(path_.size()) + 2));
    close(fd);
}

TEST_F(ZdNetworkFifo, PathMayFillTheAddress) {
    for (const size_t length : {99u, 100u, 101u, 107u, 108u}) {
        const int fd = zd_network_listen_fifo(path_of(length).c_str());
        EXPECT_GE(fd, 0) << length;
        EXPECT_TRUE(is_socket(path_of(length))) << length;
        close(fd);
    }
}

TEST_F(ZdNetworkFifo, PathBeyondTheAddressCannotBeBound) {
    for (const size_t length : {109u, 110u, 200u}) {
        std::ofstream(path_of(length)) << "stays";
        EXPECT_EQ(zd_network_listen_fifo(path_of(length).c_str()), -2) << length;
        EXPECT_EQ(errno, ENAMETOOLONG);
        EXPECT_TRUE(fs::is_regular_file(path_of(length)));
    }
    EXPECT_EQ(zd_network_listen_fifo(std::string(100000, 'p').c_str()), -2);
    EXPECT_THAT(scripted_bind.seen, IsEmpty());
    expect_nothing_left();
}

TEST_F(ZdNetworkFifo, NothingBehindThePathIsRead) {
    GuardedBytes guarded(4096);
    for (const size_t length : {20u, 108u, 109u, 300u}) {
        std::string path = dir_ + "/" + std::string(length - dir_.size() - 1, 'g');
        path.push_back('\0');
        const int listening = zd_network_listen_fifo(guarded.hold(path));
        const int connected = zd_network_connect_fifo(guarded.hold(path), kClient, kBlocking);
        EXPECT_EQ(listening >= 0, length <= 108);
        EXPECT_EQ(connected >= 0, length <= 100);
        close(connected);
        close(listening);
    }
}

// ---- connecting ----

TEST_F(ZdNetworkFifo, ConnectsToAListener) {
    const int listening = zd_network_listen_fifo(path_.c_str());
    for (const uchar side : {kClient, kServer}) {
        const int fd = zd_network_connect_fifo(path_.c_str(), side, kBlocking);
        ASSERT_GE(fd, 0);
        EXPECT_FALSE(is_nonblocking(fd));
        int timeout = 5;
        const int other = zd_network_accept_fifo(listening, &timeout);
        ASSERT_GE(other, 0);
        expect_connected(fd, other);
        expect_connected(other, fd);
        close(fd);
        close(other);
    }
    close(listening);
}

TEST_F(ZdNetworkFifo, NonblockingModeIsSetAfterTheConnect) {
    const int listening = zd_network_listen_fifo(path_.c_str());
    const int fd = zd_network_connect_fifo(path_.c_str(), kClient, kNonblocking);
    ASSERT_GE(fd, 0);
    EXPECT_TRUE(is_nonblocking(fd));
    char byte;
    EXPECT_EQ(recv(fd, &byte, 1, 0), -1);
    EXPECT_EQ(errno, EAGAIN);
    close(fd);
    close(listening);
    scripted_fcntl.clear();
    EXPECT_EQ(zd_network_connect_fifo(path_.c_str(), kClient, kNonblocking), -4);
    EXPECT_THAT(scripted_fcntl.seen, IsEmpty()) << "the connect failed before";
}

TEST_F(ZdNetworkFifo, ConnectTakesTenBytesMoreThanThePath) {
    EXPECT_EQ(zd_network_connect_fifo(path_.c_str(), kClient, kBlocking), -4);
    EXPECT_THAT(scripted_connect.seen, ElementsAre(static_cast<long>(path_.size()) + 10));
}

TEST_F(ZdNetworkFifo, PathOfAHundredBytesCanBeConnectedTo) {
    const int listening = zd_network_listen_fifo(path_of(100).c_str());
    const int fd = zd_network_connect_fifo(path_of(100).c_str(), kClient, kBlocking);
    ASSERT_GE(fd, 0);
    const int other = zd_network_accept_fifo(listening, nullptr);
    expect_connected(fd, other);
    close(other);
    close(fd);
    close(listening);
}

TEST_F(ZdNetworkFifo, LongerPathCannotBeConnectedTo) {
    for (const size_t length : {101u, 108u, 109u, 300u}) {
        const int listening = zd_network_listen_fifo(path_of(length).c_str());
        EXPECT_EQ(zd_network_connect_fifo(path_of(length).c_str(), kClient, kBlocking), -4)
            << length;
        close(listening);
    }
    expect_nothing_left();
}

TEST_F(ZdNetworkFifo, FailuresOfConnectingTellTheStep) {
    scripted_socket.answers = {fails_with(EMFILE)};
    EXPECT_EQ(zd_network_connect_fifo(path_.c_str(), kClient, kBlocking), -1);
    EXPECT_EQ(errno, EMFILE);
    EXPECT_EQ(zd_network_connect_fifo(path_.c_str(), kClient, kBlocking), -4);
    EXPECT_EQ(errno, ENOENT);
    const int crashed = zd_network_listen_fifo(path_.c_str());
    close(crashed);
    EXPECT_EQ(zd_network_connect_fifo(path_.c_str(), kServer, kNonblocking), -4);
    EXPECT_EQ(errno, ECONNREFUSED);
    scripted_connect.answers = {fails_with(EINTR)};
    EXPECT_EQ(zd_network_connect_fifo(path_.c_str(), kServer, kBlocking), -4);
    EXPECT_EQ(errno, EINTR);
    expect_nothing_left();
}

TEST_F(ZdNetworkFifo, ModeThatCannotBeSetIsAFailure) {
    const int listening = zd_network_listen_fifo(path_.c_str());
    const int open_now = open_descriptors();
    scripted_fcntl.answers = {fails_with(EACCES)};
    EXPECT_EQ(zd_network_connect_fifo(path_.c_str(), kClient, kNonblocking), -1);
    EXPECT_EQ(errno, EACCES);
    scripted_fcntl.answers = {asks(), fails_with(EPERM)};
    EXPECT_EQ(zd_network_connect_fifo(path_.c_str(), kClient, kNonblocking), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(open_descriptors(), open_now);
    close(listening);
}

TEST_F(ZdNetworkFifo, ClientWithClosedStandardStreamsGetsAnotherDescriptor) {
    const int listening = zd_network_listen_fifo(path_.c_str());
    const auto connect_with_closed_streams = [&](uchar side) {
        for (int fd = 0; fd <= 2; fd++)
            close(fd);
        const int fd = zd_network_connect_fifo(path_.c_str(), side, kBlocking);
        for (int standard = 0; standard <= 2; standard++) {
            if (standard != fd && fcntl(standard, F_GETFD, 0) >= 0)
                _exit(100 + standard);
        }
        _exit(fd < 0 ? 99 : fd);
    };
    EXPECT_EXIT(connect_with_closed_streams(kServer), testing::ExitedWithCode(0), "");
    EXPECT_EXIT(
        connect_with_closed_streams(kClient),
        [](int status) {
            return WIFEXITED(status) && WEXITSTATUS(status) > 2 && WEXITSTATUS(status) < 99;
        },
        "");
    close(listening);
}

// ---- accepting ----

TEST_F(ZdNetworkFifo, AcceptGivesThePeersAddressWhenBothAreGiven) {
    const Listener listener;
    const sockaddr_in address = loopback_address(listener.port());
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    sockaddr_in own;
    socklen_t own_size = sizeof own;
    getsockname(fd, reinterpret_cast<sockaddr *>(&own), &own_size);

    sockaddr_in peer = {};
    socklen_t size = sizeof peer;
    const int other = zd_network_accept(listener.fd(), reinterpret_cast<sockaddr *>(&peer), &size);
    ASSERT_GE(other, 0);
    EXPECT_EQ(size, sizeof peer);
    EXPECT_EQ(peer.sin_port, own.sin_port);
    EXPECT_EQ(peer.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
    close(other);
    close(fd);
}

TEST_F(ZdNetworkFifo, AcceptUsesABufferOfItsOwnUnlessBothAreGiven) {
    const int listening = zd_network_listen_fifo(path_.c_str());
    sockaddr_un peer;
    memset(&peer, '#', sizeof peer);
    const sockaddr_un untouched = peer;
    socklen_t size = 3;
    for (int i = 0; i < 3; i++) {
        const int fd = zd_network_connect_fifo(path_.c_str(), kClient, kBlocking);
        const int other =
            zd_network_accept(listening, i == 1 ? reinterpret_cast<sockaddr *>(&peer) : nullptr,
                              i == 2 ? &size : nullptr);
        EXPECT_GE(other, 0);
        close(other);
        close(fd);
    }
    EXPECT_EQ(memcmp(&peer, &untouched, sizeof peer), 0);
    EXPECT_EQ(size, 3u);
    EXPECT_THAT(scripted_accept.seen, ElementsAre(110, 110, 110));
    close(listening);
}

TEST_F(ZdNetworkFifo, FailedAcceptIsMinusOneAndNotRepeated) {
    EXPECT_EQ(zd_network_accept(-1, nullptr, nullptr), -1);
    EXPECT_EQ(errno, EBADF);
    scripted_accept.answers = {claims(-5, EINTR), fails_with(EINTR)};
    EXPECT_EQ(zd_network_accept(3, nullptr, nullptr), -1);
    EXPECT_EQ(zd_network_accept_fifo(3, nullptr), -1);
    EXPECT_EQ(errno, EINTR);
    EXPECT_EQ(scripted_accept.seen.size(), 3u);
}

} // namespace
