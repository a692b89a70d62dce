// Questions about a socket's own address and about the machine's interfaces, the latter in networks
// that the tests make.
#include "common/zd_sock_io.h"

#include <arpa/inet.h>
#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/if_addr.h>
#include <linux/if_tun.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <string.h>
#include <sys/ioctl.h>

#include <string>

#include "support/namespaces.h"
#include "support/scripted_calls.h"
#include "support/sockets.h"

namespace {

using testing::ElementsAre;
using testing::MatchesRegex;

// ---- a socket's own address ----

class OwnAddress : public SocketPairTest {
  protected:
    void SetUp() override { memset(buffer_, '#', sizeof buffer_); }

    [[nodiscard]] bool untouched() const {
        return std::string(buffer_, sizeof buffer_) == std::string(sizeof buffer_, '#');
    }
};

TEST_F(OwnAddress, IsGivenAsTextAndAsANumber) {
    use_tcp();
    EXPECT_EQ(zd_get_ip_from_fd(near_, buffer_, sizeof buffer_), 1);
    EXPECT_STREQ(buffer_, "127.0.0.1");
    EXPECT_EQ(zd_get_int_ip_from_fd(near_), htonl(0x7F000001));
}

TEST_F(OwnAddress, FitsOrIsNotWritten) {
    use_tcp();
    for (const int length : {9, 1, 0, -1, INT32_MIN}) {
        EXPECT_EQ(zd_get_ip_from_fd(near_, buffer_, length), 1) << length;
        EXPECT_TRUE(untouched()) << length;
    }
    EXPECT_EQ(zd_get_ip_from_fd(near_, buffer_, 10), 1);
    EXPECT_EQ(std::string(buffer_, 11), std::string("127.0.0.1\0#", 11));
}

TEST_F(OwnAddress, OfASocketThatIsNotBoundIsZero) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    EXPECT_EQ(zd_get_ip_from_fd(fd, buffer_, sizeof buffer_), 1);
    EXPECT_STREQ(buffer_, "0.0.0.0");
    EXPECT_EQ(zd_get_int_ip_from_fd(fd), 0u);
    close(fd);
}

TEST_F(OwnAddress, OfAnotherFamilyIsNone) {
    EXPECT_EQ(zd_get_ip_from_fd(near_, buffer_, sizeof buffer_), 1);
    EXPECT_EQ(zd_get_int_ip_from_fd(near_), 0u);
    const int fd = socket(AF_INET6, SOCK_STREAM, 0);
    if (fd >= 0) {
        EXPECT_EQ(zd_get_ip_from_fd(fd, buffer_, sizeof buffer_), 1);
        EXPECT_EQ(zd_get_int_ip_from_fd(fd), 0u);
        close(fd);
    }
    EXPECT_TRUE(untouched());
}

TEST_F(OwnAddress, OfWhatIsNoSocketIsAFailure) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    for (const int fd : {-1, ends[0]}) {
        EXPECT_EQ(zd_get_ip_from_fd(fd, buffer_, sizeof buffer_), 0);
        EXPECT_EQ(zd_get_int_ip_from_fd(fd), 0xFFFFFFFFu);
    }
    EXPECT_TRUE(untouched());
    close(ends[0]);
    close(ends[1]);
}

// ---- making interfaces ----

void copy_name(ifreq *request, const char *name) {
    memcpy(request->ifr_name, name, strnlen(name, IFNAMSIZ - 1));
}

sockaddr address_of(const char *text) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    EXPECT_EQ(inet_pton(AF_INET, text, &address.sin_addr), 1);
    sockaddr any;
    memcpy(&any, &address, sizeof any);
    return any;
}

void configure(unsigned long what, ifreq *request) {
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    EXPECT_EQ(ioctl(fd, what, request), 0) << request->ifr_name << ": " << strerror(errno);
    close(fd);
}

void set_up(const char *name, bool up = true) {
    ifreq request = {};
    copy_name(&request, name);
    request.ifr_flags = up ? IFF_UP : 0;
    configure(SIOCSIFFLAGS, &request);
}

// Gives the interface, or the alias of one, its address.
void set_address(const char *name, const char *address) {
    ifreq request = {};
    copy_name(&request, name);
    request.ifr_addr = address_of(address);
    configure(SIOCSIFADDR, &request);
}

// A request to the kernel's routing part: it starts with an nlmsghdr, which is filled here.
template <class Message>
void ask_kernel(uint16_t type, uint16_t flags, Message *message) {
    message->header.nlmsg_len = sizeof *message;
    message->header.nlmsg_type = type;
    message->header.nlmsg_flags = static_cast<uint16_t>(NLM_F_REQUEST | NLM_F_ACK | flags);
    struct {
        nlmsghdr header;
        nlmsgerr error;
        char request[256];
    } reply = {};
    const int fd = socket(AF_NETLINK, SOCK_RAW, NETLINK_ROUTE);
    EXPECT_EQ(send(fd, message, sizeof *message, 0), static_cast<ssize_t>(sizeof *message));
    EXPECT_GT(recv(fd, &reply, sizeof reply, 0), 0);
    EXPECT_EQ(reply.error.error, 0) << strerror(-reply.error.error);
    close(fd);
}

// One address more for an interface, under its own name.
void add_address(const char *name, const char *address) {
    struct {
        nlmsghdr header;
        ifaddrmsg body;
        rtattr attribute;
        in_addr address;
    } message = {};
    message.body.ifa_family = AF_INET;
    message.body.ifa_prefixlen = 32;
    message.body.ifa_index = if_nametoindex(name);
    message.attribute = {RTA_LENGTH(sizeof message.address), IFA_LOCAL};
    inet_pton(AF_INET, address, &message.address);
    ask_kernel(RTM_NEWADDR, NLM_F_CREATE, &message);
}

// Up, but waiting for something, for good: a carrier that is lost is noticed some time later only.
void make_dormant(const char *name) {
    struct ByteAttribute {
        rtattr attribute;
        uint8_t value;
        uint8_t padding[3];
    };
    struct {
        nlmsghdr header;
        ifinfomsg body;
        ByteAttribute state;
        ByteAttribute mode;
    } message = {};
    message.body.ifi_index = static_cast<int>(if_nametoindex(name));
    message.state = {{RTA_LENGTH(1), IFLA_OPERSTATE}, 5, {}}; // IF_OPER_DORMANT
    message.mode = {{RTA_LENGTH(1), IFLA_LINKMODE}, 1, {}};   // IF_LINK_MODE_DORMANT
    ask_kernel(RTM_SETLINK, 0, &message);
}

// An interface without hardware, gone when its descriptor, which this returns, is closed.
int make_tunnel(const char *name) {
    const int fd = open("/dev/net/tun", O_RDWR);
    ifreq request = {};
    copy_name(&request, name);
    request.ifr_flags = IFF_TUN | IFF_NO_PI;
    if (fd < 0 || ioctl(fd, TUNSETIFF, &request) != 0)
        namespaces::refuse();
    return fd;
}

// What zd_get_ifname_from_ip says, with what it wrote.
struct Found {
    int result;
    std::string name;
    int is_loopback;
    bool operator==(const Found &) const = default;
};

void PrintTo(const Found &found, std::ostream *out) {
    *out << "{" << found.result << ", \"" << found.name << "\", " << found.is_loopback << "}";
}

constexpr uchar kUntouched = 9;

Found find(const std::string &target) {
    char name[24];
    memset(name, '#', sizeof name);
    std::string text = target;
    uchar is_loopback = kUntouched;
    const int result = zd_get_ifname_from_ip(name, text.data(), &is_loopback);
    EXPECT_EQ(std::string(name + IFNAMSIZ, 8), "########");
    return {result, name[0] == '#' ? "" : name, is_loopback};
}

const Found kNotFound = {0, "", kUntouched};

// ---- which interface has an address ----

class Interfaces : public testing::Test {
  protected:
    void SetUp() override { clear_scripts(); }
    void TearDown() override { clear_scripts(); }
};

TEST_F(Interfaces, LoopbackAddressIsFound) {
    EXPECT_IN_NAMESPACE(CLONE_NEWNET, [] {
        EXPECT_EQ(find("127.0.0.1"), kNotFound) << "the interface has no address yet";
        set_up("lo");
        EXPECT_EQ(find("127.0.0.1"), (Found{1, "lo", 1}));
        EXPECT_EQ(find("127.0.0.2"), kNotFound);
    });
}

TEST_F(Interfaces, TargetThatIsNoAddressIsNotFound) {
    for (const char *target : {"", "localhost", "127.0.0", "127.0.0.1 ", "127.0.0.256", "::1"})
        EXPECT_EQ(find(target), kNotFound) << target;
    EXPECT_THAT(scripted_socket.seen, testing::IsEmpty());
}

TEST_F(Interfaces, OtherInterfaceIsToldFromLoopback) {
    EXPECT_IN_NAMESPACE(CLONE_NEWNET, [] {
        set_up("lo");
        const int tunnel = make_tunnel("tun7");
        set_address("tun7", "10.77.0.1");
        EXPECT_EQ(find("10.77.0.1"), (Found{1, "tun7", 0})) << "also while it is down";
        set_up("tun7");
        EXPECT_EQ(find("10.77.0.1"), (Found{1, "tun7", 0}));
        EXPECT_EQ(find("127.0.0.1"), (Found{1, "lo", 1}));
        close(tunnel);
    });
}

TEST_F(Interfaces, AliasIsFoundByItsName) {
    EXPECT_IN_NAMESPACE(CLONE_NEWNET, [] {
        set_up("lo");
        set_address("lo:5", "10.1.2.3");
        EXPECT_EQ(find("10.1.2.3"), (Found{1, "lo:5", 1}));
    });
}

TEST_F(Interfaces, EveryAddressOfAnInterfaceIsFound) {
    EXPECT_IN_NAMESPACE(CLONE_NEWNET, [] {
        set_up("lo");
        add_address("lo", "10.1.2.3");
        add_address("lo", "10.1.2.4");
        for (const char *address : {"127.0.0.1", "10.1.2.3", "10.1.2.4"})
            EXPECT_EQ(find(address), (Found{1, "lo", 1})) << address;
    });
}

TEST_F(Interfaces, LastOfSeveralWithTheAddressIsTaken) {
    EXPECT_IN_NAMESPACE(CLONE_NEWNET, [] {
        set_up("lo");
        set_address("lo:1", "10.5.5.5");
        const int tunnel = make_tunnel("later");
        EXPECT_EQ(find("10.5.5.5"), (Found{1, "lo:1", 1}));
        set_address("later", "10.5.5.5");
        EXPECT_EQ(find("10.5.5.5"), (Found{1, "later", 0}));
        close(tunnel);
    });
}

TEST_F(Interfaces, LongestNameIsWhole) {
    EXPECT_IN_NAMESPACE(CLONE_NEWNET, [] {
        const int tunnel = make_tunnel("abcdefghijklmno");
        set_address("abcdefghijklmno", "10.9.9.9");
        EXPECT_EQ(find("10.9.9.9"), (Found{1, "abcdefghijklmno", 0}));
        close(tunnel);
    });
}

TEST_F(Interfaces, ThirtyTwoAreLookedAt) {
    EXPECT_IN_NAMESPACE(CLONE_NEWNET, [] {
        set_up("lo"); // the first
        for (int i = 2; i <= 40; i++)
            set_address(("lo:" + std::to_string(i)).c_str(),
                        ("10.2.0." + std::to_string(i)).c_str());
        EXPECT_EQ(find("10.2.0.2"), (Found{1, "lo:2", 1}));
        EXPECT_EQ(find("10.2.0.32"), (Found{1, "lo:32", 1}));
        EXPECT_EQ(find("10.2.0.33"), kNotFound);
        EXPECT_EQ(find("10.2.0.40"), kNotFound);
    });
}

TEST_F(Interfaces, FailedQuestionsArePrinted) {
    testing::internal::CaptureStderr();
    scripted_socket.answers = {fails_with(EMFILE)};
    EXPECT_EQ(find("127.0.0.1"), kNotFound);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "socket(AF_INET, SOCK_DGRAM, 0) failed. 24\n");
    const int open_now = open_descriptors();
    testing::internal::CaptureStderr();
    scripted_ioctl.answers = {fails_with(EPERM)};
    EXPECT_EQ(find("127.0.0.1"), kNotFound);
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                MatchesRegex("ioctl\\([0-9]+, SIOCGIFCONF, 0x[0-9a-f]+\\) faild. 1\n"));
    EXPECT_EQ(open_descriptors(), open_now);
}

TEST_F(Interfaces, InterfaceThatGoesMeanwhileIsPassedOver) {
    EXPECT_IN_NAMESPACE(CLONE_NEWNET, [] {
        set_up("lo");
        scripted_ioctl.clear();
        scripted_ioctl.answers = {asks(), fails_with(ENODEV)};
        EXPECT_EQ(find("127.0.0.1"), kNotFound);
        scripted_ioctl.answers = {asks(), asks(), fails_with(EADDRNOTAVAIL)};
        EXPECT_EQ(find("127.0.0.1"), kNotFound);
    });
}

TEST_F(Interfaces, NothingStaysOpen) {
    EXPECT_IN_NAMESPACE(CLONE_NEWNET, [] {
        set_up("lo");
        const int open_before = open_descriptors();
        find("127.0.0.1");
        zd_get_if_status("lo");
        EXPECT_EQ(open_descriptors(), open_before);
    });
}

// ---- how an interface stands ----

int status_of(const std::string &name) {
    std::string text = name;
    return zd_get_if_status(text.data());
}

TEST_F(Interfaces, StatusTellsDownFromUpAndRunning) {
    EXPECT_IN_NAMESPACE(CLONE_NEWNET, [] {
        EXPECT_EQ(status_of("lo"), 2);
        set_up("lo");
        EXPECT_EQ(status_of("lo"), 0);
        set_up("lo", false);
        EXPECT_EQ(status_of("lo"), 2);
    });
}

TEST_F(Interfaces, UpIsToldFromRunning) {
    EXPECT_IN_NAMESPACE(CLONE_NEWNET, [] {
        const int tunnel = make_tunnel("abcdefghijklmno");
        set_up("abcdefghijklmno");
        EXPECT_EQ(status_of("abcdefghijklmno"), 0);
        make_dormant("abcdefghijklmno");
        EXPECT_EQ(status_of("abcdefghijklmno"), 1);
        EXPECT_EQ(status_of("abcdefghijklmnopq"), 1) << "fifteen characters count";
        set_up("abcdefghijklmno", false);
        EXPECT_EQ(status_of("abcdefghijklmno"), 2);
        close(tunnel);
    });
}

TEST_F(Interfaces, FailedStatusQuestionsArePrintedAndCountAsDown) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(status_of("no_such_interface"), 2);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "ioctl (no_such_interfa) failed. errno = 19\n");
    testing::internal::CaptureStderr();
    EXPECT_EQ(status_of(""), 2);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "ioctl () failed. errno = 19\n");
    testing::internal::CaptureStderr();
    scripted_socket.answers = {fails_with(EMFILE)};
    EXPECT_EQ(status_of("lo"), 2);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "sock() failed. errno = 24\n");
}

} // namespace
