// An agent process at the other end of a socket: started, waited for, asked, ended. It may be the
// agent host or a child of this program that serves the direct form; both speak the same protocol.

#ifndef ZDEPCALL_AGENT_H
#define ZDEPCALL_AGENT_H

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>

#include "hex.h"
#include "usage_error.h"
#include "waiting.h"

namespace zdepcall {

using namespace programs;

struct AgentOptions {
    std::string program; // of the agent host; empty: the one beside this program, else in PATH
    bool in_process = false;
    std::string home;                         // for ZD_HOME; empty: a folder made for this agent
    std::chrono::duration<double> timeout{0}; // of one call; 0: none
};

// The agent ended, or had to be ended. what() says why, on one line.
struct AgentDied : std::runtime_error {
    AgentDied(const std::string &why, std::string details_text)
        : std::runtime_error(why), details(std::move(details_text)) {}
    std::string details; // lines: the end of the log, ./extproc.err, the folder that is kept
};

// A fresh folder that is removed, with everything in it, unless it is kept.
class TemporaryFolder {
  public:
    TemporaryFolder();
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder &) = delete;
    TemporaryFolder &operator=(const TemporaryFolder &) = delete;

    const std::string &path() const { return path_; }
    void keep() { kept_ = true; }

  private:
    std::string path_;
    bool kept_ = false;
};

// An open descriptor, closed at the end.
class Descriptor {
  public:
    Descriptor() = default;
    explicit Descriptor(int number) : number_(number) {}
    ~Descriptor() { close(); }
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;

    int get() const { return number_; }
    void set(int number);
    void close();

  private:
    int number_ = -1;
};

// A child, killed at the end unless it was waited for.
class Child {
  public:
    Child() = default;
    ~Child();
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;

    pid_t id() const { return id_; }
    void set(pid_t id) { id_ = id; }
    // Whether it has ended; takes its status the first time.
    bool has_ended();
    void kill();
    int wait_status() const { return wait_status_; }

  private:
    pid_t id_ = -1;
    bool ended_ = false;
    int wait_status_ = 0;
};

class Agent {
  public:
    // Starts it and waits for its readiness signal. Throws UsageError when the program cannot be
    // run, AgentDied when it ends first.
    explicit Agent(const AgentOptions &options);

    // Sends a request and returns the whole reply message. Throws AgentDied.
    Bytes exchange(ByteView request);
    // Closes the connection and waits for the agent to end in order. Throws AgentDied when it does
    // not. No call may follow.
    void finish();
    // Ends an agent that broke the protocol. why says how.
    [[noreturn]] void give_up(const std::string &why);

    pid_t process_id() const { return child_.id(); }
    // What was run, and how long it took to be ready.
    const std::string &program() const { return program_; }
    std::chrono::duration<double> start_time() const { return start_time_; }

  private:
    void start();
    [[noreturn]] void run_child(int socket, int output, int failure);
    void await_readiness();
    void send(ByteView bytes);
    // Appends at least one byte and at most limit; throws AgentDied at the end of the stream or at
    // the deadline.
    void receive(Bytes &bytes, size_t limit, Deadline deadline);
    // Passes on what the agent has written to its standard streams; false at their end.
    bool relay_output();
    bool wait_for_end(std::chrono::milliseconds limit);
    [[noreturn]] void fail_lost();
    [[noreturn]] void fail_ended(bool kept_running);
    [[noreturn]] void fail(const std::string &why, const std::string &log,
                           const std::string &error_text);
    std::string log_path() const;
    std::string new_error_text() const;

    AgentOptions options_;
    std::string program_;
    std::optional<TemporaryFolder> own_home_;
    std::string home_;
    Child child_;
    Descriptor socket_;
    Descriptor output_;
    std::string output_tail_;
    std::uintmax_t error_file_size_ = 0;
    std::chrono::duration<double> start_time_{0};
    bool ready_ = false;
    bool calling_ = false;
};

} // namespace zdepcall

#endif
