#include "child.h"

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

namespace {

constexpr int kChildSocket = 3;
constexpr char kReadinessSignal[] = "BOOT SUCCESS";
constexpr useconds_t kPollMicroseconds = 200;
constexpr char kMemoryFolder[] = "/dev/shm";

} // namespace

int64_t now() {
    timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * 1000000000 + time.tv_nsec;
}

void give_up(const char *what) {
    perror(what);
    exit(1);
}

void send_all(int fd, const void *bytes, size_t count) {
    if (send(fd, bytes, count, MSG_NOSIGNAL) != static_cast<ssize_t>(count))
        give_up("send to the measured program");
}

void receive_all(int fd, void *bytes, size_t count) {
    if (recv(fd, bytes, count, MSG_WAITALL) != static_cast<ssize_t>(count))
        give_up("receive from the measured program");
}

// vfork, so that the child can leave the time at which it calls exec in our memory, and so that
// starting a child costs the same however large this process is.
Child::Child(const std::string &program, const std::vector<std::string> &arguments) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
        give_up("socketpair");
    socket_ = ends[0];
    std::vector<char *> words = {const_cast<char *>(program.c_str())};
    for (const std::string &argument : arguments)
        words.push_back(const_cast<char *>(argument.c_str()));
    words.push_back(nullptr);
    pid_ = vfork();
    if (pid_ == 0) {
        if (ends[1] == kChildSocket)
            fcntl(ends[1], F_SETFD, 0);
        else
            dup2(ends[1], kChildSocket);
        started_ = now();
        execv(words[0], words.data());
        _exit(127);
    }
    if (pid_ < 0)
        give_up("vfork");
    close(ends[1]);
}

Child::~Child() {
    close(socket_);
    int status;
    if (waitpid(pid_, &status, 0) != pid_ || status != 0)
        fprintf(stderr, "bench: process %d ended with status %d\n", pid_, status);
}

void Child::await_ready() const {
    char bytes[sizeof kReadinessSignal];
    receive_all(socket_, bytes, sizeof bytes);
    if (memcmp(bytes, kReadinessSignal, sizeof bytes) != 0) {
        fprintf(stderr, "bench: process %d sent no readiness signal\n", pid_);
        exit(1);
    }
}

void Child::await_idle() const {
    // A line "running", or the number of the system call in which the process sleeps.
    for (std::string line;; usleep(kPollMicroseconds)) {
        std::ifstream file(proc("syscall"));
        if (!std::getline(file, line))
            give_up(proc("syscall").c_str());
        const long number = strtol(line.c_str(), nullptr, 10);
        if (line != "running" && (number == SYS_recvfrom || number == SYS_read))
            return;
    }
}

int64_t Child::kibibytes(const char *name, const std::vector<std::string> &labels) const {
    std::ifstream file(proc(name));
    int64_t sum = 0;
    bool found = false;
    for (std::string line; std::getline(file, line);)
        for (const std::string &label : labels)
            if (line.rfind(label, 0) == 0) {
                sum += strtol(line.c_str() + label.size(), nullptr, 10);
                found = true;
            }
    if (!found)
        give_up(proc(name).c_str());
    return sum;
}

int Child::open_descriptors() const {
    int count = 0;
    for ([[maybe_unused]] const auto &entry : std::filesystem::directory_iterator(proc("fd")))
        count++;
    return count;
}

std::string Child::proc(const char *name) const {
    return "/proc/" + std::to_string(pid_) + "/" + name;
}

AgentHome::AgentHome(Place place) {
    const bool in_memory = place == Place::memory && access(kMemoryFolder, W_OK) == 0;
    const std::filesystem::path folder =
        in_memory ? kMemoryFolder : std::filesystem::temp_directory_path();
    path_ = (folder / "zdepl_bench_XXXXXX").string();
    if (mkdtemp(path_.data()) == nullptr)
        give_up(path_.c_str());
    select();
}

void AgentHome::select() const {
    setenv("ZD_HOME", path_.c_str(), 1);
}

AgentHome::~AgentHome() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}
