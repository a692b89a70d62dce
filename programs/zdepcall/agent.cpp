#include "agent.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "death.h"
#include "in_process.h"
#include "wire_reader.h"

namespace zdepcall {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

constexpr size_t header_size = 16;
constexpr size_t body_size_offset = 4;
// Far above anything that an agent has reason to send.
constexpr size_t largest_reply = size_t{16} << 20;
constexpr size_t kept_output = size_t{16} << 10;
constexpr size_t shown_log_lines = 6;
constexpr auto readiness_limit = 30s;
constexpr auto ending_limit = 10s;
// An agent that lost its socket notices at once and has nothing left to do.
constexpr auto lost_limit = 2s;
constexpr std::string_view readiness_signal("BOOT SUCCESS\0", 13);
constexpr const char *error_file = "extproc.err";

[[noreturn]] void fail_system(const char *what) {
    throw std::system_error(errno, std::generic_category(), what);
}

std::string read_file(const fs::path &path, std::uintmax_t from = 0) {
    std::ifstream file(path, std::ios::binary);
    file.seekg(static_cast<std::streamoff>(from));
    return {std::istreambuf_iterator<char>(file), {}};
}

std::string last_lines(const std::string &text, size_t count) {
    size_t start = text.size();
    for (size_t lines = 0; lines <= count && start > 0; lines++) {
        const size_t line_end = text.rfind('\n', start - 1);
        if (line_end == std::string::npos)
            return text;
        start = line_end;
    }
    return text.substr(std::min(start + 1, text.size()));
}

std::string indented(const std::string &text) {
    std::string result;
    for (size_t at = 0; at < text.size();) {
        const size_t end = std::min(text.find('\n', at), text.size());
        result += "  " + text.substr(at, end - at) + "\n";
        at = end + 1;
    }
    return result;
}

// The agent host as installed: beside this program. Else its bare name, to be found in PATH.
std::string default_program() {
    std::error_code error;
    const fs::path beside = fs::read_symlink("/proc/self/exe", error).parent_path() / "zdepa";
    return !error && fs::exists(beside, error) ? beside.string() : "zdepa";
}

// Where the settings of the agent move its log to; empty when they do not.
std::string configured_log_folder(const fs::path &agent_folder) {
    std::ifstream file(agent_folder / "zdepa.cfg");
    std::string folder;
    for (std::string line; std::getline(file, line);) {
        const size_t equals = line.find('=');
        if (equals == std::string::npos || line[0] == '#')
            continue;
        const auto trimmed = [](const std::string &text) {
            const size_t first = text.find_first_not_of(" \t");
            return first == std::string::npos
                       ? std::string()
                       : text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
        };
        if (trimmed(line.substr(0, equals)) == "LOG_DIR")
            folder = trimmed(line.substr(equals + 1));
    }
    return folder;
}

} // namespace

TemporaryFolder::TemporaryFolder() {
    std::string name = (fs::temp_directory_path() / "zdepcall.XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr)
        fail_system(name.c_str());
    path_ = name;
}

TemporaryFolder::~TemporaryFolder() {
    std::error_code ignored;
    if (!kept_)
        fs::remove_all(path_, ignored);
}

void Descriptor::set(int number) {
    close();
    number_ = number;
}

void Descriptor::close() {
    if (number_ >= 0)
        ::close(number_);
    number_ = -1;
}

Child::~Child() {
    if (id_ > 0 && !ended_)
        kill();
}

bool Child::has_ended() {
    if (!ended_)
        ended_ = waitpid(id_, &wait_status_, WNOHANG) == id_;
    return ended_;
}

void Child::kill() {
    ::kill(id_, SIGKILL);
    while (waitpid(id_, &wait_status_, 0) < 0 && errno == EINTR) {
    }
    ended_ = true;
}

Agent::Agent(const AgentOptions &options) : options_(options) {
    if (options_.in_process)
        program_ = "the direct form";
    else
        program_ = options_.program.empty() ? default_program() : options_.program;
    if (options_.home.empty()) {
        own_home_.emplace();
        home_ = own_home_->path();
    } else {
        home_ = fs::absolute(options_.home).string();
    }
    std::error_code no_such_file;
    error_file_size_ = fs::file_size(error_file, no_such_file);
    if (no_such_file)
        error_file_size_ = 0;
    const Clock::time_point before = Clock::now();
    start();
    await_readiness();
    start_time_ = Clock::now() - before;
}

void Agent::start() {
    int sockets[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets) != 0)
        fail_system("socketpair");
    socket_.set(sockets[0]);
    Descriptor child_socket(sockets[1]);
    int output[2];
    int failure[2];
    if (pipe2(output, O_CLOEXEC) != 0)
        fail_system("pipe2");
    output_.set(output[0]);
    Descriptor child_output(output[1]);
    if (pipe2(failure, O_CLOEXEC) != 0)
        fail_system("pipe2");
    Descriptor failure_reader(failure[0]);
    Descriptor child_failure(failure[1]);
    fcntl(output_.get(), F_SETFL, O_NONBLOCK);

    // What is still buffered would be written by both.
    std::fflush(nullptr);
    child_.set(fork());
    if (child_.id() < 0)
        fail_system("fork");
    if (child_.id() == 0)
        run_child(child_socket.get(), child_output.get(), child_failure.get());
    child_failure.close();
    int exec_error = 0;
    if (read(failure_reader.get(), &exec_error, sizeof exec_error) == sizeof exec_error)
        throw UsageError(program_ + ": cannot be run: " + std::strerror(exec_error) +
                         " (name the agent host with --agent)");
}

// Between fork and exec.
void Agent::run_child(int socket, int output, int failure) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    release_signals();
    dup2(output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);
    setenv("ZD_HOME", home_.c_str(), 1);
    if (options_.in_process) {
        // What belongs to the other end must not keep a stream open.
        socket_.close();
        output_.close();
        ::close(output);
        ::close(failure);
        serve_in_process(socket);
    }
    fcntl(socket, F_SETFD, 0);
    const std::string number = std::to_string(socket);
    execlp(program_.c_str(), program_.c_str(), "--fd", number.c_str(), nullptr);
    const int exec_error = errno;
    [[maybe_unused]] const ssize_t written = write(failure, &exec_error, sizeof exec_error);
    _exit(EXIT_FAILURE);
}

void Agent::await_readiness() {
    const Deadline deadline = Clock::now() + readiness_limit;
    Bytes announcement;
    while (announcement.size() < readiness_signal.size())
        receive(announcement, readiness_signal.size() - announcement.size(), deadline);
    if (!std::equal(announcement.begin(), announcement.end(), readiness_signal.begin()))
        give_up("it announced itself with " + to_hex(announcement));
    ready_ = true;
}

void Agent::send(ByteView bytes) {
    while (!bytes.empty()) {
        const ssize_t sent = ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR)
            continue;
        if (sent < 0)
            fail_lost();
        bytes = bytes.subspan(static_cast<size_t>(sent));
    }
}

void Agent::receive(Bytes &bytes, size_t limit, Deadline deadline) {
    for (;;) {
        pollfd streams[] = {{socket_.get(), POLLIN, 0}, {output_.get(), POLLIN, 0}};
        if (!wait_for(streams, deadline))
            give_up("it did not answer in time");
        if (streams[1].revents != 0 && !relay_output())
            output_.close();
        if (streams[0].revents == 0)
            continue;
        const size_t before = bytes.size();
        bytes.resize(before + limit);
        const ssize_t count = recv(socket_.get(), bytes.data() + before, limit, MSG_DONTWAIT);
        bytes.resize(before + static_cast<size_t>(std::max<ssize_t>(count, 0)));
        if (count > 0)
            return;
        if (count == 0 || (errno != EINTR && errno != EAGAIN))
            fail_lost();
    }
}

Bytes Agent::exchange(ByteView request) {
    calling_ = true;
    Deadline deadline;
    if (options_.timeout.count() > 0)
        deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(options_.timeout);
    send(request);
    Bytes reply;
    size_t size = header_size;
    while (reply.size() < size) {
        constexpr size_t most = size_t{64} << 10;
        receive(reply, reply.size() < header_size ? most : size - reply.size(), deadline);
        if (reply.size() >= header_size) {
            WireReader header(ByteView(reply).subspan(body_size_offset, 4));
            size = header_size + static_cast<uint32_t>(header.integer("body_size"));
            if (size > largest_reply)
                give_up("it announced a reply of " + std::to_string(size) + " bytes");
        }
    }
    if (reply.size() > size)
        give_up("it sent " + std::to_string(reply.size() - size) + " bytes after its reply");
    calling_ = false;
    return reply;
}

void Agent::finish() {
    socket_.close();
    if (!wait_for_end(ending_limit))
        give_up("it did not end when its connection was closed");
    if (child_.wait_status() != 0)
        fail_ended(false);
}

bool Agent::relay_output() {
    char buffer[4096];
    for (;;) {
        const ssize_t count = read(output_.get(), buffer, sizeof buffer);
        if (count == 0)
            return false;
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return true;
        std::fwrite(buffer, 1, static_cast<size_t>(count), stderr);
        output_tail_.append(buffer, static_cast<size_t>(count));
        if (output_tail_.size() > kept_output)
            output_tail_.erase(0, output_tail_.size() - kept_output);
    }
}

bool Agent::wait_for_end(std::chrono::milliseconds limit) {
    const Clock::time_point deadline = Clock::now() + limit;
    for (;;) {
        const bool ended = child_.has_ended();
        if (output_.get() >= 0 && !relay_output())
            output_.close();
        if (ended || Clock::now() > deadline)
            return ended;
        pollfd stream = {output_.get(), POLLIN, 0};
        wait_for({&stream, 1}, Clock::now() + 2ms);
    }
}

void Agent::give_up(const std::string &why) {
    if (!child_.has_ended())
        child_.kill();
    if (output_.get() >= 0)
        relay_output();
    fail("the agent was killed: " + why, read_file(log_path()), new_error_text());
}

void Agent::fail_lost() {
    const bool ended = wait_for_end(lost_limit);
    if (!ended)
        child_.kill();
    fail_ended(!ended);
}

void Agent::fail_ended(bool kept_running) {
    DeathEvidence evidence;
    evidence.wait_status = child_.wait_status();
    evidence.was_ready = ready_;
    evidence.was_calling = calling_;
    evidence.kept_running = kept_running;
    evidence.output = output_tail_;
    evidence.log = read_file(log_path());
    evidence.error_file = new_error_text();
    fail(describe_death(evidence), evidence.log, evidence.error_file);
}

void Agent::fail(const std::string &why, const std::string &log, const std::string &error_text) {
    std::string details;
    if (!log.empty())
        details += "the end of " + log_path() + ":\n" + indented(last_lines(log, shown_log_lines));
    if (!error_text.empty())
        details += "new in " + fs::absolute(error_file).string() + ":\n" + indented(error_text);
    if (own_home_) {
        own_home_->keep();
        details += "the agent's home is kept: " + home_ + "\n";
    }
    throw AgentDied(why, details);
}

// The name of a log ends with the process id; it moves to a backup folder when the agent ends in
// order.
std::string Agent::log_path() const {
    const fs::path agent_folder = fs::path(home_) / "client" / "zdepa";
    const std::string moved_to = configured_log_folder(agent_folder);
    const fs::path log_folder = moved_to.empty() ? agent_folder : fs::path(moved_to);
    const std::string ending = "_" + std::to_string(child_.id()) + ".log";
    for (const fs::path &folder : {log_folder, log_folder / "backup"}) {
        std::error_code no_such_folder;
        for (const fs::directory_entry &entry : fs::directory_iterator(folder, no_such_folder)) {
            if (entry.path().filename().string().ends_with(ending))
                return entry.path().string();
        }
    }
    return {};
}

std::string Agent::new_error_text() const {
    std::error_code no_such_file;
    if (fs::file_size(error_file, no_such_file) <= error_file_size_ || no_such_file)
        return {};
    return read_file(error_file, error_file_size_);
}

} // namespace zdepcall
