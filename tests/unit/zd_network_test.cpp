#include "common/zd_network.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <linux/filter.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/un.h>

#include <functional>
#include <string>

#include "common/ec.h"
#include "support/scripted_calls.h"
#include "support/sockets.h"

namespace {

using Lookup = std::function<hostent *(const std::string &name, hostent *record)>;

Lookup lookup; // answers in place of the system, when it is there
int names_looked_up;

} // namespace

extern "C" int gethostbyname_r(const char *name, hostent *record, char *buffer, size_t size,
                               hostent **found, int *cause) {
    names_looked_up++;
    if (lookup) {
        *found = lookup(name, record);
        return 0;
    }
    static const auto ask =
        reinterpret_cast<decltype(&gethostbyname_r)>(dlsym(RTLD_NEXT, "gethostbyname_r"));
    return ask(name, record, buffer, size, found, cause);
}

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr uchar kClient = 0;
constexpr uchar kServer = 1;
constexpr uint32_t kUntouched = 0x55555555;

class ZdNetwork : public testing::Test {
  protected:
    void SetUp() override {
        clear_scripts();
        lookup = nullptr;
        names_looked_up = 0;
        open_before_ = open_descriptors();
    }
    void TearDown() override {
        clear_scripts();
        lookup = nullptr;
    }

    // A failed call leaves the descriptor alone and nothing open.
    void expect_nothing_left(int fd) const {
        EXPECT_EQ(fd, -7);
        EXPECT_EQ(open_descriptors(), open_before_);
    }

    // Reads the byte that the other end sends: both ends are connected.
    static void expect_connected(int fd, const Listener &listener) {
        const int other = accept(listener.fd(), nullptr, nullptr);
        ASSERT_GE(other, 0);
        EXPECT_EQ(send(other, "x", 1, 0), 1);
        char byte = 0;
        EXPECT_EQ(recv(fd, &byte, 1, 0), 1);
        EXPECT_EQ(byte, 'x');
        close(other);
    }

    int open_before_ = 0;
};

TEST_F(ZdNetwork, InitAndDownHaveNothingToDo) {
    EXPECT_EQ(zd_network_init(), 0);
    EXPECT_EQ(zd_network_down(), 0);
}

// ---- names ----

TEST_F(ZdNetwork, DottedAddressIsNotLookedUp) {
    uint32_t ip = kUntouched;
    EXPECT_EQ(zd_network_get_ip_by_hostname("127.0.0.1", &ip), 0);
    EXPECT_EQ(ip, htonl(0x7F000001));
    EXPECT_EQ(zd_network_get_ip_by_hostname("1.2.3.4", &ip), 0);
    EXPECT_EQ(ip, htonl(0x01020304));
    EXPECT_EQ(zd_network_get_ip_by_hostname("255.255.255.254", &ip), 0);
    EXPECT_EQ(ip, htonl(0xFFFFFFFE));
    EXPECT_EQ(zd_network_get_ip_by_hostname("0.0.0.0", &ip), 0);
    EXPECT_EQ(ip, 0u);
    EXPECT_EQ(names_looked_up, 0);
}

TEST_F(ZdNetwork, HighestAddressIsLookedUpAsAName) {
    lookup = [](const std::string &name, hostent *) {
        EXPECT_EQ(name, "255.255.255.255");
        return nullptr;
    };
    uint32_t ip = kUntouched;
    EXPECT_EQ(zd_network_get_ip_by_hostname("255.255.255.255", &ip), -18017);
    EXPECT_EQ(ip, kUntouched);
    lookup = nullptr;
    EXPECT_EQ(zd_network_get_ip_by_hostname("255.255.255.255", &ip), 0);
    EXPECT_EQ(ip, 0xFFFFFFFFu) << "the system's look-up takes it for what it is";
    EXPECT_EQ(names_looked_up, 2);
}

TEST_F(ZdNetwork, LocalNameIsFound) {
    uint32_t ip = kUntouched;
    EXPECT_EQ(zd_network_get_ip_by_hostname("localhost", &ip), 0);
    EXPECT_EQ(ip, htonl(INADDR_LOOPBACK));
}

TEST_F(ZdNetwork, FirstOfSeveralAddressesIsTaken) {
    in_addr first = {htonl(0x0A000001)};
    in_addr second = {htonl(0x0A000002)};
    char *addresses[] = {reinterpret_cast<char *>(&first), reinterpret_cast<char *>(&second),
                         nullptr};
    lookup = [&](const std::string &name, hostent *record) {
        EXPECT_EQ(name, "several");
        record->h_addrtype = AF_INET;
        record->h_length = 4;
        record->h_addr_list = addresses;
        return record;
    };
    uint32_t ip = kUntouched;
    EXPECT_EQ(zd_network_get_ip_by_hostname("several", &ip), 0);
    EXPECT_EQ(ip, htonl(0x0A000001));
}

TEST_F(ZdNetwork, AddressOfAnotherLengthIsAFailure) {
    in6_addr long_one = {};
    char *addresses[] = {reinterpret_cast<char *>(&long_one), nullptr};
    lookup = [&](const std::string &, hostent *record) {
        record->h_addrtype = AF_INET6;
        record->h_length = 16;
        record->h_addr_list = addresses;
        return record;
    };
    uint32_t ip = kUntouched;
    EXPECT_EQ(zd_network_get_ip_by_hostname("six", &ip), ERROR_IO);
    EXPECT_EQ(ip, kUntouched);
}

TEST_F(ZdNetwork, NameThatCannotBeIsAFailure) {
    // A label has 63 characters at most: no name server is asked.
    const std::string name(64, 'x');
    uint32_t ip = kUntouched;
    EXPECT_EQ(zd_network_get_ip_by_hostname(name.c_str(), &ip), ERROR_IO);
    EXPECT_EQ(ip, kUntouched);
}

TEST_F(ZdNetwork, FailedLookupIsTheResultOfBothConnects) {
    lookup = [](const std::string &, hostent *) { return nullptr; };
    int fd = -7;
    EXPECT_EQ(zd_network_connect("nobody", 1, &fd, kClient), ERROR_IO);
    EXPECT_EQ(zd_network_connect_nonb("nobody", 1, &fd, 5, kClient), ERROR_IO);
    EXPECT_THAT(scripted_socket.seen, IsEmpty());
    expect_nothing_left(fd);
}

// ---- connecting ----

TEST_F(ZdNetwork, ConnectsToAListener) {
    const Listener listener;
    for (const uchar side : {kClient, kServer}) {
        int fd = -7;
        ASSERT_EQ(zd_network_connect("localhost", listener.port(), &fd, side), 0);
        EXPECT_FALSE(is_nonblocking(fd));
        expect_connected(fd, listener);
        EXPECT_EQ(zd_network_close(fd), 0);
    }
}

TEST_F(ZdNetwork, PortCountsByItsLowBits) {
    const Listener listener;
    int fd = -7;
    ASSERT_EQ(zd_network_connect("127.0.0.1", listener.port() + 65536, &fd, kClient), 0);
    close(fd);
}

TEST_F(ZdNetwork, RefusedConnectIsAnErrorThatTellsWhy) {
    const BoundSocket deaf;
    const int open_now = open_descriptors();
    int fd = -7;
    for (const uchar side : {kClient, kServer}) {
        EXPECT_EQ(zd_network_connect("127.0.0.1", deaf.port(), &fd, side), -18017);
        EXPECT_EQ(errno, ECONNREFUSED);
        EXPECT_EQ(zd_network_connect_nonb("127.0.0.1", deaf.port(), &fd, 30, side), -18017);
        EXPECT_EQ(errno, ECONNREFUSED);
    }
    EXPECT_EQ(fd, -7);
    EXPECT_EQ(open_descriptors(), open_now);
}

TEST_F(ZdNetwork, FailuresOfTheSystemAreErrorsThatTellWhy) {
    int fd = -7;
    scripted_socket.answers = {fails_with(EMFILE)};
    EXPECT_EQ(zd_network_connect("127.0.0.1", 1, &fd, kClient), ERROR_IO);
    EXPECT_EQ(errno, EMFILE);
    scripted_socket.answers = {fails_with(ENFILE)};
    EXPECT_EQ(zd_network_connect_nonb("127.0.0.1", 1, &fd, 5, kServer), ERROR_IO);
    EXPECT_EQ(errno, ENFILE);
    scripted_connect.answers = {fails_with(EINTR)};
    EXPECT_EQ(zd_network_connect("127.0.0.1", 1, &fd, kClient), ERROR_IO);
    EXPECT_EQ(errno, EINTR) << "an interrupted connect is not repeated";
    EXPECT_EQ(scripted_connect.seen.size(), 1u);
    expect_nothing_left(fd);
}

// ---- connecting within a time ----

// A listener that has as many connections waiting as it takes: the next one stays under way.
class FullListener : public Listener {
  public:
    FullListener() : Listener(0) {
        const sockaddr_in address = loopback_address(port());
        for (int &fd : waiting_) {
            fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
            connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address);
        }
        clear_scripts();
    }
    ~FullListener() {
        for (const int fd : waiting_)
            close(fd);
    }

  private:
    int waiting_[8];
};

// A port of this machine that swallows every packet, as a host that is switched off does. Where a
// filter is refused, the full listener alone does it.
class BlackHole : public FullListener {
  public:
    BlackHole() {
        sock_filter nothing_passes = {BPF_RET | BPF_K, 0, 0, 0};
        const sock_fprog program = {1, &nothing_passes};
        setsockopt(fd(), SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program);
    }
};

TEST_F(ZdNetwork, TimedConnectGivesABlockingDescriptor) {
    const Listener listener;
    for (const uchar side : {kClient, kServer}) {
        int fd = -7;
        ASSERT_EQ(zd_network_connect_nonb("localhost", listener.port(), &fd, 30, side), 0);
        EXPECT_FALSE(is_nonblocking(fd));
        expect_connected(fd, listener);
        close(fd);
    }
}

TEST_F(ZdNetwork, TimedConnectToABlackHoleTimesOut) {
    const BlackHole hole;
    const int open_now = open_descriptors();
    int fd = -7;
    EXPECT_EQ(zd_network_connect_nonb("127.0.0.1", hole.port(), &fd, 1, kClient), -18019);
    EXPECT_EQ(fd, -7);
    EXPECT_EQ(open_descriptors(), open_now);
    EXPECT_THAT(scripted_poll.seen, ElementsAre(1000));
}

TEST_F(ZdNetwork, TimedConnectToAFullBacklogTimesOut) {
    const FullListener listener;
    int fd = -7;
    EXPECT_EQ(zd_network_connect_nonb("127.0.0.1", listener.port(), &fd, -1, kClient),
              ERROR_IO_SOCKET_TIMEOUT);
    EXPECT_EQ(fd, -7);
}

TEST_F(ZdNetwork, MinusOneSecondsIsNoWaitAtAll) {
    const BlackHole hole;
    int fd = -7;
    EXPECT_EQ(zd_network_connect_nonb("127.0.0.1", hole.port(), &fd, -1, kClient), -18019);
    EXPECT_THAT(scripted_poll.seen, ElementsAre(0));
    const Listener listener;
    // On this machine a connection is complete when connect returns.
    EXPECT_EQ(zd_network_connect_nonb("127.0.0.1", listener.port(), &fd, -1, kClient), 0);
    close(fd);
}

TEST_F(ZdNetwork, SecondsBecomeTheMillisecondsOfOnePoll) {
    const BlackHole hole;
    const std::pair<int, int> expected[] = {{0, -1},
                                            {1, 1000},
                                            {2, 2000},
                                            {-2, -2000},
                                            {2147483, 2147483000},
                                            {2147484, INT_MAX},
                                            {INT_MAX, INT_MAX},
                                            {INT_MIN, -1}};
    for (const auto &[sec, milliseconds] : expected) {
        scripted_poll.clear();
        scripted_poll.answers = {claims(0)};
        int fd = -7;
        EXPECT_EQ(zd_network_connect_nonb("127.0.0.1", hole.port(), &fd, sec, kClient),
                  ERROR_IO_SOCKET_TIMEOUT);
        EXPECT_THAT(scripted_poll.seen, ElementsAre(milliseconds)) << sec;
    }
}

TEST_F(ZdNetwork, ConnectionCompleteAtOnceIsNotPolledFor) {
    scripted_connect.answers = {claims(0)};
    int fd = -7;
    EXPECT_EQ(zd_network_connect_nonb("127.0.0.1", 1, &fd, 5, kClient), 0);
    EXPECT_THAT(scripted_poll.seen, IsEmpty());
    EXPECT_THAT(scripted_getsockopt.seen, IsEmpty());
    EXPECT_FALSE(is_nonblocking(fd));
    close(fd);
}

TEST_F(ZdNetwork, TimedConnectThatFailsAtOnceIsAnError) {
    int fd = -7;
    for (const int error : {ENETUNREACH, EINTR, EAGAIN, EALREADY}) {
        scripted_connect.answers = {fails_with(error)};
        EXPECT_EQ(zd_network_connect_nonb("127.0.0.1", 1, &fd, 5, kClient), ERROR_IO);
        EXPECT_EQ(errno, error);
    }
    EXPECT_THAT(scripted_poll.seen, IsEmpty());
    expect_nothing_left(fd);
}

TEST_F(ZdNetwork, InterruptedWaitCountsAsConnected) {
    const BlackHole hole;
    scripted_poll.answers = {fails_with(EINTR)};
    int fd = -7;
    EXPECT_EQ(zd_network_connect_nonb("127.0.0.1", hole.port(), &fd, 30, kClient), 0);
    ASSERT_GE(fd, 0);
    EXPECT_FALSE(is_nonblocking(fd));
    EXPECT_EQ(send(fd, "x", 1, MSG_DONTWAIT), -1) << "it is still under way";
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(scripted_poll.seen.size(), 1u);
    close(fd);
}

TEST_F(ZdNetwork, FailedWaitIsJudgedByTheSocket) {
    const BoundSocket deaf;
    scripted_poll.answers = {fails_with(ENOMEM)};
    int fd = -7;
    EXPECT_EQ(zd_network_connect_nonb("127.0.0.1", deaf.port(), &fd, 30, kClient), ERROR_IO);
    EXPECT_EQ(errno, ECONNREFUSED);
}

TEST_F(ZdNetwork, SocketThatCannotBeAskedIsAnError) {
    const Listener listener;
    const int open_now = open_descriptors();
    scripted_getsockopt.answers = {fails_with(ENOBUFS)};
    int fd = -7;
    EXPECT_EQ(zd_network_connect_nonb("127.0.0.1", listener.port(), &fd, 5, kClient), ERROR_IO);
    EXPECT_EQ(errno, ENOBUFS);
    EXPECT_EQ(fd, -7);
    EXPECT_EQ(open_descriptors(), open_now);
}

TEST_F(ZdNetwork, ModeThatCannotBeReadOrSetIsAnError) {
    int fd = -7;
    scripted_fcntl.answers = {fails_with(EACCES)};
    EXPECT_EQ(zd_network_connect_nonb("127.0.0.1", 1, &fd, 5, kClient), ERROR_IO);
    EXPECT_EQ(errno, EACCES);
    scripted_fcntl.answers = {asks(), fails_with(EPERM)};
    EXPECT_EQ(zd_network_connect_nonb("127.0.0.1", 1, &fd, 5, kClient), ERROR_IO);
    EXPECT_EQ(errno, EPERM);
    EXPECT_THAT(scripted_connect.seen, IsEmpty());
    expect_nothing_left(fd);
}

TEST_F(ZdNetwork, SocketThatIsNonblockingAlreadyStaysSo) {
    const Listener listener;
    scripted_fcntl.answers = {claims(O_RDWR | O_NONBLOCK)};
    int fd = -7;
    EXPECT_EQ(zd_network_connect_nonb("127.0.0.1", listener.port(), &fd, 5, kClient), 0);
    EXPECT_THAT(scripted_fcntl.seen, ElementsAre(F_GETFL, F_SETFL)) << "set at the end alone";
    EXPECT_TRUE(is_nonblocking(fd));
    close(fd);
}

// ---- the standard descriptors ----

// In a process of its own whose descriptors first to 2 are closed: what check returns is its
// status, 0 for success.
template <class Check>
void expect_with_closed_standard_streams(int first, Check check) {
    EXPECT_EXIT(
        {
            for (int fd = first; fd <= 2; fd++)
                close(fd);
            _exit(check());
        },
        testing::ExitedWithCode(0), "")
        << "closed from " << first;
}

bool is_open(int fd) {
    return syscall(SYS_fcntl, fd, F_GETFD) >= 0;
}

TEST_F(ZdNetwork, ClientWithClosedStandardStreamsGetsAnotherDescriptor) {
    const Listener listener;
    for (const int first : {0, 1, 2}) {
        expect_with_closed_standard_streams(first, [&] {
            scripted_socket.seen.clear();
            int fd = -7;
            if (zd_network_connect("127.0.0.1", listener.port(), &fd, kClient) != 0 || fd <= 2)
                return 1;
            int timed = -7;
            if (zd_network_connect_nonb("127.0.0.1", listener.port(), &timed, 5, kClient) != 0 ||
                timed <= 2)
                return 2;
            for (int standard = first; standard <= 2; standard++) {
                if (is_open(standard))
                    return 3;
            }
            return static_cast<int>(scripted_socket.seen.size()) == 2 * (4 - first) ? 0 : 4;
        });
    }
}

TEST_F(ZdNetwork, ServerTakesTheDescriptorThatComes) {
    const Listener listener;
    expect_with_closed_standard_streams(0, [&] {
        int fd = -7;
        if (zd_network_connect("127.0.0.1", listener.port(), &fd, kServer) != 0 || fd != 0)
            return 1;
        if (zd_network_connect_nonb("127.0.0.1", listener.port(), &fd, 5, kServer) != 0 || fd != 1)
            return 2;
        return 0;
    });
}

TEST_F(ZdNetwork, FailureAmongTheStandardDescriptorsClosesThoseHeld) {
    expect_with_closed_standard_streams(0, [] {
        scripted_socket.answers = {asks(), asks(), fails_with(EMFILE)};
        int fd = -7;
        if (zd_network_connect("127.0.0.1", 1, &fd, kClient) != ERROR_IO || errno != EMFILE)
            return 1;
        if (is_open(0) || is_open(1) || is_open(2) || fd != -7)
            return 2;
        return 0;
    });
}

TEST_F(ZdNetwork, RefusedClientLeavesTheStandardDescriptorsFree) {
    const BoundSocket deaf;
    expect_with_closed_standard_streams(0, [&] {
        int fd = -7;
        if (zd_network_connect("127.0.0.1", deaf.port(), &fd, kClient) != ERROR_IO ||
            errno != ECONNREFUSED)
            return 1;
        if (zd_network_connect_nonb("127.0.0.1", deaf.port(), &fd, 5, kClient) != ERROR_IO ||
            errno != ECONNREFUSED)
            return 2;
        return is_open(0) || is_open(1) || is_open(2) ? 3 : 0;
    });
}

// ---- what is set on sockets ----

class ConnectedNetwork : public SocketPairTest {
  protected:
    void SetUp() override {
        clear_scripts();
        use_tcp();
    }
    void TearDown() override { clear_scripts(); }

    [[nodiscard]] int option(int level, int name) const {
        int value = -1;
        socklen_t size = sizeof value;
        EXPECT_EQ(getsockopt(near_, level, name, &value, &size), 0);
        return value;
    }
};

TEST_F(ConnectedNetwork, ShutdownEndsBothDirections) {
    EXPECT_EQ(zd_network_shutdown(near_), 0);
    EXPECT_EQ(recv(near_, buffer_, 1, 0), 0);
    EXPECT_EQ(send(near_, "x", 1, MSG_NOSIGNAL), -1);
    EXPECT_EQ(recv(far_, buffer_, 1, 0), 0);
}

TEST_F(ConnectedNetwork, CloseFreesTheDescriptor) {
    EXPECT_EQ(zd_network_close(near_), 0);
    EXPECT_FALSE(is_open(near_));
    near_ = -1;
}

TEST_F(ConnectedNetwork, FailuresAreErrors) {
    EXPECT_EQ(zd_network_shutdown(-1), -18017);
    EXPECT_EQ(zd_network_close(-1), -18017);
    EXPECT_EQ(zd_network_set_nodelay_ex(-1, 1), -18017);
    EXPECT_EQ(zd_network_set_keepalive(-1), -18017);
    EXPECT_EQ(zd_network_get_port_from_fd(-1), -1);
    EXPECT_EQ(zd_network_set_tcp_sndbuf_size(-1, 1000), -1);
    EXPECT_EQ(zd_network_set_tcp_rcvbuf_size(-1, 1000), -1);
    EXPECT_EQ(errno, EBADF);
    const BoundSocket unconnected;
    EXPECT_EQ(zd_network_shutdown(unconnected.fd()), ERROR_IO);
    EXPECT_EQ(errno, ENOTCONN);
}

TEST_F(ConnectedNetwork, DelayIsSetAsTold) {
    EXPECT_EQ(zd_network_set_nodelay_ex(near_, 1), 0);
    EXPECT_EQ(option(IPPROTO_TCP, TCP_NODELAY), 1);
    EXPECT_EQ(zd_network_set_nodelay_ex(near_, 0), 0);
    EXPECT_EQ(option(IPPROTO_TCP, TCP_NODELAY), 0);
}

TEST_F(ConnectedNetwork, KeepAliveIsSwitchedOn) {
    EXPECT_EQ(option(SOL_SOCKET, SO_KEEPALIVE), 0);
    EXPECT_EQ(zd_network_set_keepalive(near_), 0);
    EXPECT_EQ(option(SOL_SOCKET, SO_KEEPALIVE), 1);
}

TEST_F(ConnectedNetwork, BufferSizesAreWhatTheKernelReports) {
    for (const int size : {8192, 65536, 1}) {
        const int sending = zd_network_set_tcp_sndbuf_size(near_, size);
        EXPECT_EQ(sending, option(SOL_SOCKET, SO_SNDBUF));
        EXPECT_GT(sending, size) << "the kernel doubles it, and has a least one";
        const int receiving = zd_network_set_tcp_rcvbuf_size(near_, size);
        EXPECT_EQ(receiving, option(SOL_SOCKET, SO_RCVBUF));
        EXPECT_GT(receiving, size);
    }
}

TEST_F(ConnectedNetwork, BufferSizeThatCannotBeReadBackIsAFailure) {
    scripted_getsockopt.answers = {fails_with(ENOBUFS), fails_with(ENOBUFS)};
    EXPECT_EQ(zd_network_set_tcp_sndbuf_size(near_, 8192), -1);
    EXPECT_EQ(zd_network_set_tcp_rcvbuf_size(near_, 8192), -1);
}

TEST(LocalPort, IsTheOneInHostOrder) {
    const BoundSocket bound;
    EXPECT_EQ(zd_network_get_port_from_fd(bound.fd()), bound.port());
    const int unbound = socket(AF_INET, SOCK_STREAM, 0);
    EXPECT_EQ(zd_network_get_port_from_fd(unbound), 0);
    close(unbound);
}

TEST(LocalPort, IsThereForTheNewerProtocolToo) {
    const int fd = socket(AF_INET6, SOCK_STREAM, 0);
    if (fd < 0)
        GTEST_SKIP() << "this machine has no IPv6";
    sockaddr_in6 address = {};
    address.sin6_family = AF_INET6;
    address.sin6_addr = in6addr_any;
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    EXPECT_GT(zd_network_get_port_from_fd(fd), 0);
    close(fd);
}

TEST(LocalPort, IsNoneForALocalSocket) {
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    EXPECT_EQ(zd_network_get_port_from_fd(fds[0]), -1);
    close(fds[0]);
    close(fds[1]);
}

} // namespace
