// Pairs of connected sockets, and what the world does to them: signals that interrupt, peers that
// reset, buffers that are full.

#ifndef TESTS_SUPPORT_SOCKETS_H
#define TESTS_SUPPORT_SOCKETS_H

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

inline std::atomic<int> signals_seen;

// SIGUSR1 interrupts system calls and is counted.
class InterruptingSignal {
  public:
    InterruptingSignal() {
        signals_seen = 0;
        struct sigaction action = {};
        action.sa_handler = [](int) { signals_seen++; };
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

// Interrupts the thread that made it, without a pause, as long as it lives.
class SignalStorm {
  public:
    SignalStorm() : target_(pthread_self()), thread_([this] { rage(); }) {
        while (signals_seen == 0)
            sched_yield();
    }
    SignalStorm(const SignalStorm &) = delete;
    SignalStorm &operator=(const SignalStorm &) = delete;
    ~SignalStorm() {
        over_ = true;
        thread_.join();
    }

  private:
    void rage() {
        while (!over_) {
            pthread_kill(target_, SIGUSR1);
            sched_yield();
        }
    }

    InterruptingSignal handler_;
    pthread_t target_;
    std::atomic<bool> over_ = false;
    std::thread thread_;
};

// SIGPIPE is ignored while it lives.
class NoBrokenPipeSignal {
  public:
    NoBrokenPipeSignal() : saved_(signal(SIGPIPE, SIG_IGN)) {}
    NoBrokenPipeSignal(const NoBrokenPipeSignal &) = delete;
    NoBrokenPipeSignal &operator=(const NoBrokenPipeSignal &) = delete;
    ~NoBrokenPipeSignal() { signal(SIGPIPE, saved_); }

  private:
    void (*saved_)(int);
};

inline void make_nonblocking(int fd) {
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL, 0) | O_NONBLOCK);
}

inline bool is_nonblocking(int fd) {
    return (fcntl(fd, F_GETFL, 0) & O_NONBLOCK) != 0;
}

inline int open_descriptors() {
    int count = 0;
    DIR *const dir = opendir("/proc/self/fd");
    while (readdir(dir) != nullptr)
        count++;
    closedir(dir);
    return count;
}

inline sockaddr_in loopback_address(int port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

// A TCP socket bound to a port of the loop-back address that the system chose.
class BoundSocket {
  public:
    BoundSocket() : fd_(socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in address = loopback_address(0);
        EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        socklen_t size = sizeof address;
        EXPECT_EQ(getsockname(fd_, reinterpret_cast<sockaddr *>(&address), &size), 0);
        port_ = ntohs(address.sin_port);
    }
    BoundSocket(const BoundSocket &) = delete;
    BoundSocket &operator=(const BoundSocket &) = delete;
    ~BoundSocket() { close(fd_); }

    [[nodiscard]] int fd() const { return fd_; }
    [[nodiscard]] int port() const { return port_; }

  private:
    int fd_;
    int port_;
};

class Listener : public BoundSocket {
  public:
    explicit Listener(int backlog = 16) { EXPECT_EQ(listen(fd(), backlog), 0); }
};

// Two ends of one connection.
class SocketPairTest : public testing::Test {
  protected:
    SocketPairTest() {
        int fds[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
        near_ = fds[0];
        far_ = fds[1];
    }
    ~SocketPairTest() override {
        close_far();
        close_near();
    }

    // Makes it a TCP connection.
    void use_tcp() {
        close_far();
        close_near();
        const Listener listener;
        const sockaddr_in address = loopback_address(listener.port());
        near_ = socket(AF_INET, SOCK_STREAM, 0);
        ASSERT_EQ(connect(near_, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
        far_ = accept(listener.fd(), nullptr, nullptr);
        ASSERT_GE(far_, 0);
    }

    void close_far() { close_end(&far_); }
    void close_near() { close_end(&near_); }

    // The far end goes with a reset. For TCP.
    void reset_far() {
        const linger at_once = {1, 0};
        ASSERT_EQ(setsockopt(far_, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once), 0);
        close_far();
    }

    void far_sends(const std::string &bytes) const {
        ASSERT_EQ(send(far_, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    }

    // Each byte is on its own on the way: the next is sent when nothing is left to be read.
    void far_sends_byte_by_byte(const std::string &bytes) const {
        for (const char byte : bytes) {
            far_sends(std::string(1, byte));
            pollfd readable = {near_, POLLIN, 0};
            while (poll(&readable, 1, 0) != 0)
                sched_yield();
        }
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

  private:
    static void close_end(int *fd) {
        if (*fd >= 0)
            close(*fd);
        *fd = -1;
    }
};

// Bytes of which each place has its own look.
inline std::string distinct_bytes(size_t size) {
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; i++)
        bytes[i] = static_cast<char>(i * 2654435761u >> 16);
    return bytes;
}

#endif
