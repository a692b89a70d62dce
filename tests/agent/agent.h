// A real agent process, with the test as its database server: started on one end of a socket pair
// with a home and a working directory of its own, spoken to in wire bytes, and waited for. Every
// wait has a limit; one that runs out throws, with the agent's log, and the agent is killed.

#ifndef TESTS_AGENT_AGENT_H
#define TESTS_AGENT_AGENT_H

#include <sys/types.h>

#include <iosfwd>
#include <map>
#include <string>
#include <vector>

#include "support/wire.h"

namespace agent_test {

// The readiness signal, with its terminator.
extern const std::string kBootSignal;

// How a process ended.
struct End {
    bool signaled;
    int number; // exit status or signal
    bool operator==(const End &other) const = default;
};

constexpr End exited(int status) {
    return {false, status};
}
constexpr End killed_by(int signal) {
    return {true, signal};
}
std::ostream &operator<<(std::ostream &out, const End &end);

// One line of the agent's log without time and ids. text keeps the blanks that indent deep levels.
struct LogLine {
    std::string level;
    std::string text;
    bool operator==(const LogLine &other) const = default;
};
std::ostream &operator<<(std::ostream &out, const LogLine &line);

// A directory for one test, removed at its end.
class TemporaryDirectory {
  public:
    TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory &) = delete;
    TemporaryDirectory &operator=(const TemporaryDirectory &) = delete;
    ~TemporaryDirectory();

    std::string path(const std::string &name = "") const;

  private:
    std::string path_;
};

struct Start {
    std::string configuration = "";   // text of zdepa.cfg; empty: no file
    bool without_boot_signal = false; // the agent is told to send none
    bool ends_before_service = false; // do not wait for the readiness signal: none will come
    bool server_is_gone = false;      // the test's end of the socket is closed before the start
    std::vector<std::string> home_variables = {"ZD_HOME"}; // those that name the agent's home
    std::map<std::string, std::string> environment = {};   // more variables
};

class Agent {
  public:
    explicit Agent(const Start &start = {});
    Agent(const Agent &) = delete;
    Agent &operator=(const Agent &) = delete;
    ~Agent();

    pid_t pid() const { return pid_; }
    std::string home() const { return directory_.path("home"); }
    std::string agent_dir() const { return home() + "/client/zdepa"; }
    std::string path(const std::string &name) const { return directory_.path(name); }

    // The server's part.
    void send(const std::string &bytes);
    std::string receive(size_t count);
    Reply receive_reply();
    Reply call(const Call &call);
    // True when nothing more has come and the connection is not closed.
    bool is_silent() const;
    void shutdown_sending();
    void close_connection();

    // Waits for the process's end. The connection is left as it is.
    End wait();
    // The orderly end: closes the connection, then waits.
    End finish();

    // What the agent left behind. The log's files in the order of their names.
    std::vector<std::string> log_files() const;
    std::vector<std::string> backup_files() const;
    std::string log() const;        // of both places
    std::string backup_log() const; // of the backup directory
    std::vector<LogLine> log_lines() const;
    std::string standard_error() const;
    std::string error_file() const; // ./extproc.err
    bool has_error_file() const;

  private:
    void launch(const Start &start, int agent_end);
    std::vector<std::string> environment_of(const Start &start) const;
    void wait_until_ready(short events) const;
    [[noreturn]] void fail(const std::string &what) const;

    TemporaryDirectory directory_;
    int fd_ = -1; // the server's end
    pid_t pid_ = -1;
    int pidfd_ = -1;
    bool ended_ = false;
    End end_ = {};
};

std::string file_text(const std::string &path);
std::vector<std::string> log_files_in(const std::string &directory);

} // namespace agent_test

#endif
