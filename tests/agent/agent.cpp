#include "agent.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <ostream>
#include <regex>
#include <sstream>
#include <stdexcept>

namespace agent_test {

namespace {

namespace fs = std::filesystem;

constexpr int kLimitMilliseconds = 60 * 1000;
constexpr int kAgentFd = 3; // the descriptor's number in the agent

void check(bool condition, const std::string &what) {
    if (!condition)
        throw std::runtime_error(what + ": " + strerror(errno));
}

std::vector<char *> pointers_to(std::vector<std::string> *strings) {
    std::vector<char *> pointers;
    for (std::string &string : *strings)
        pointers.push_back(string.data());
    pointers.push_back(nullptr);
    return pointers;
}

std::string text_of(const std::vector<std::string> &files) {
    std::string text;
    for (const std::string &file : files)
        text += file_text(file);
    return text;
}

// MM-DD hh:mm:ss.uuuuuu [pid][tid][LEVEL], then one blank, and more before deeper levels.
LogLine parse_log_line(const std::string &line, pid_t pid) {
    static const std::regex form(
        R"(\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} \[(\d+)\]\[(\d+)\]\[([A-Z-]{3})\] (.*))");
    std::smatch parts;
    if (!std::regex_match(line, parts, form))
        throw std::runtime_error("not a line of the log: " + line);
    const std::string own_id = std::to_string(pid);
    // The agent has one thread, the first, whose id is the process's.
    if (parts[1] != own_id || parts[2] != own_id)
        throw std::runtime_error("ids of another process in the log: " + line);
    return {parts[3], parts[4]};
}

} // namespace

const std::string kBootSignal("BOOT SUCCESS", 13);

std::ostream &operator<<(std::ostream &out, const End &end) {
    return out << (end.signaled ? "killed by signal " : "exited with status ") << end.number;
}

std::ostream &operator<<(std::ostream &out, const LogLine &line) {
    return out << "[" << line.level << "] " << line.text;
}

std::string file_text(const std::string &path) {
    std::ostringstream bytes;
    bytes << std::ifstream(path, std::ios::binary).rdbuf();
    return bytes.str();
}

std::vector<std::string> log_files_in(const std::string &directory) {
    std::vector<std::string> files;
    std::error_code missing;
    for (const auto &entry : fs::directory_iterator(directory, missing))
        if (entry.path().filename().string().rfind("zdepa.log_", 0) == 0)
            files.push_back(entry.path().string());
    std::sort(files.begin(), files.end());
    return files;
}

TemporaryDirectory::TemporaryDirectory() {
    path_ = testing::TempDir() + "zdepa_agent_XXXXXX";
    check(mkdtemp(path_.data()) != nullptr, "mkdtemp " + path_);
}

TemporaryDirectory::~TemporaryDirectory() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
}

std::string TemporaryDirectory::path(const std::string &name) const {
    return name.empty() ? path_ : path_ + "/" + name;
}

Agent::Agent(const Start &start) {
    fs::create_directories(path("work"));
    fs::create_directories(home());
    if (!start.configuration.empty()) {
        fs::create_directories(agent_dir());
        std::ofstream(agent_dir() + "/zdepa.cfg") << start.configuration;
    }
    int ends[2];
    check(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0, "socketpair");
    fd_ = ends[0];
    if (start.server_is_gone)
        close_connection();
    launch(start, ends[1]);
    const bool boots = !start.without_boot_signal && !start.ends_before_service;
    if (boots && !start.server_is_gone && receive(kBootSignal.size()) != kBootSignal)
        fail("the readiness signal is not what it should be");
}

Agent::~Agent() {
    if (!ended_ && pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    if (pidfd_ >= 0)
        close(pidfd_);
    close_connection();
}

std::vector<std::string> Agent::environment_of(const Start &start) const {
    std::vector<std::string> variables;
    for (char **variable = environ; *variable != nullptr; variable++) {
        const std::string text = *variable;
        if (text.rfind("ZD_HOME=", 0) != 0 && text.rfind("WQ_HOME=", 0) != 0)
            variables.push_back(text);
    }
    for (const std::string &name : start.home_variables)
        variables.push_back(name + "=" + home());
    for (const auto &[name, value] : start.environment)
        variables.push_back(name + "=" + value);
    return variables;
}

void Agent::launch(const Start &start, int agent_end) {
    std::vector<std::string> arguments = {AGENT_PROGRAM, "--fd", std::to_string(kAgentFd)};
    if (start.without_boot_signal)
        arguments.push_back("--no-boot-signal");
    std::vector<std::string> variables = environment_of(start);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, agent_end, kAgentFd);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, path("stdout").c_str(), O_WRONLY | O_CREAT, 0600);
    posix_spawn_file_actions_addopen(&actions, 2, path("stderr").c_str(), O_WRONLY | O_CREAT, 0600);
    posix_spawn_file_actions_addchdir_np(&actions, path("work").c_str());
    const int error = posix_spawn(&pid_, AGENT_PROGRAM, &actions, nullptr,
                                  pointers_to(&arguments).data(), pointers_to(&variables).data());
    posix_spawn_file_actions_destroy(&actions);
    close(agent_end);
    if (error != 0)
        pid_ = -1;
    errno = error;
    check(error == 0, std::string("cannot start ") + AGENT_PROGRAM);
    pidfd_ = static_cast<int>(syscall(SYS_pidfd_open, pid_, 0));
    check(pidfd_ >= 0, "pidfd_open");
}

void Agent::fail(const std::string &what) const {
    throw std::runtime_error(what + "\nagent's log:\n" + log() + "agent's standard error:\n" +
                             standard_error() + "extproc.err:\n" + error_file());
}

void Agent::wait_until_ready(short events) const {
    pollfd waiting = {fd_, events, 0};
    const int ready = poll(&waiting, 1, kLimitMilliseconds);
    if (ready <= 0)
        fail("the agent did not answer in time");
}

void Agent::send(const std::string &bytes) {
    size_t sent = 0;
    while (sent < bytes.size()) {
        wait_until_ready(POLLOUT);
        const ssize_t count = ::send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (count < 0)
            fail(std::string("sending to the agent: ") + strerror(errno));
        sent += static_cast<size_t>(count);
    }
}

std::string Agent::receive(size_t count) {
    std::string bytes(count, '\0');
    size_t received = 0;
    while (received < count) {
        wait_until_ready(POLLIN);
        const ssize_t piece = recv(fd_, bytes.data() + received, count - received, 0);
        if (piece < 0)
            fail(std::string("receiving from the agent: ") + strerror(errno));
        if (piece == 0)
            fail("the agent closed the connection after " + std::to_string(received) + " of " +
                 std::to_string(count) + " bytes");
        received += static_cast<size_t>(piece);
    }
    return bytes;
}

Reply Agent::receive_reply() {
    Reply reply;
    read_header(receive(kHeaderSize), &reply);
    if (reply.type != kReplyType)
        fail("a reply of type " + std::to_string(reply.type));
    read_body(receive(reply.body_size), &reply);
    return reply;
}

Reply Agent::call(const Call &call) {
    send(request(call));
    return receive_reply();
}

bool Agent::is_silent() const {
    pollfd waiting = {fd_, POLLIN, 0};
    return poll(&waiting, 1, 0) == 0;
}

void Agent::shutdown_sending() {
    shutdown(fd_, SHUT_WR);
}

void Agent::close_connection() {
    if (fd_ >= 0)
        close(fd_);
    fd_ = -1;
}

End Agent::wait() {
    if (ended_)
        return end_;
    pollfd waiting = {pidfd_, POLLIN, 0};
    if (poll(&waiting, 1, kLimitMilliseconds) <= 0)
        fail("the agent did not end in time");
    int status;
    check(waitpid(pid_, &status, 0) == pid_, "waitpid");
    ended_ = true;
    end_ = WIFSIGNALED(status) ? killed_by(WTERMSIG(status)) : exited(WEXITSTATUS(status));
    return end_;
}

End Agent::finish() {
    close_connection();
    return wait();
}

std::vector<std::string> Agent::log_files() const {
    return log_files_in(agent_dir());
}

std::vector<std::string> Agent::backup_files() const {
    return log_files_in(agent_dir() + "/backup");
}

std::string Agent::backup_log() const {
    return text_of(backup_files());
}

std::string Agent::log() const {
    return backup_log() + text_of(log_files());
}

std::vector<LogLine> Agent::log_lines() const {
    std::vector<LogLine> lines;
    std::istringstream text(log());
    for (std::string line; std::getline(text, line);)
        lines.push_back(parse_log_line(line, pid_));
    return lines;
}

std::string Agent::standard_error() const {
    return file_text(path("stderr"));
}

std::string Agent::error_file() const {
    return file_text(path("work/extproc.err"));
}

bool Agent::has_error_file() const {
    return fs::exists(path("work/extproc.err"));
}

} // namespace agent_test
