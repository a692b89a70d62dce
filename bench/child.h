// A program under measurement: a child process that was given one end of a socket pair. It ends
// when the other end is closed. Whatever cannot be done ends the measurement with a message.

#ifndef BENCH_CHILD_H
#define BENCH_CHILD_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <string>
#include <vector>

// Nanoseconds of the monotonic clock.
int64_t now();

[[noreturn]] void give_up(const char *what);

// Bytes to and from a socket, all of them or the measurement ends.
void send_all(int fd, const void *bytes, size_t count);
void receive_all(int fd, void *bytes, size_t count);

class Child {
  public:
    static constexpr const char kSocketText[] = "3"; // what the child's arguments call its socket

    // Starts the program; arguments do not contain its name.
    Child(const std::string &program, const std::vector<std::string> &arguments);
    ~Child(); // closes the socket and waits for the end of the process
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;

    // Reads the 13 bytes by which a child says that it is ready.
    void await_ready() const;
    // Returns when the child sleeps in a read of its socket.
    void await_idle() const;
    // The sum, in KiB, of the lines of /proc/PID/NAME that begin with one of the labels.
    int64_t kibibytes(const char *name, const std::vector<std::string> &labels) const;
    int open_descriptors() const;

    int socket() const { return socket_; }
    // When the child was about to become the program.
    int64_t started() const { return started_; }

  private:
    std::string proc(const char *name) const;

    pid_t pid_;
    int socket_;
    volatile int64_t started_; // written by the child, which shares our memory until then
};

// A fresh home directory for agents; gone with the object. The agents that are started next have
// the home that was selected last, a new one being selected at once.
class AgentHome {
  public:
    enum class Place {
        memory, // where the system keeps a file system in memory: no disk is measured
        disk,   // where temporary files go
    };
    explicit AgentHome(Place place = Place::memory);
    ~AgentHome();
    void select() const;
    AgentHome(const AgentHome &) = delete;
    AgentHome &operator=(const AgentHome &) = delete;

  private:
    std::string path_;
};

#endif
