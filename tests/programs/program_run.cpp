#include "program_run.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>

namespace {

struct Pipe {
    int reader;
    int writer;
    Pipe() {
        int ends[2];
        if (pipe(ends) != 0)
            std::abort();
        reader = ends[0];
        writer = ends[1];
    }
};

// What a stream gives until every writer has closed it.
void append_from(pollfd &stream, std::string &text) {
    char bytes[4096];
    if (stream.revents == 0)
        return;
    const ssize_t count = read(stream.fd, bytes, sizeof bytes);
    if (count > 0)
        text.append(bytes, static_cast<size_t>(count));
    else
        stream.fd = -1;
}

[[noreturn]] void run_child(const std::vector<std::string> &arguments, Pipe &input, Pipe &output,
                            Pipe &errors, const std::function<void()> &in_child) {
    dup2(input.reader, STDIN_FILENO);
    dup2(output.writer, STDOUT_FILENO);
    dup2(errors.writer, STDERR_FILENO);
    for (const Pipe *stream : {&input, &output, &errors}) {
        close(stream->reader);
        close(stream->writer);
    }
    if (in_child)
        in_child();
    alarm(60);
    std::vector<char *> words;
    for (const std::string &argument : arguments)
        words.push_back(const_cast<char *>(argument.c_str()));
    words.push_back(nullptr);
    execv(words[0], words.data());
    _exit(127);
}

} // namespace

ProgramRun run_program(const std::vector<std::string> &arguments, const std::string &input_text,
                       const std::function<void()> &in_child) {
    Pipe input;
    Pipe output;
    Pipe errors;
    const pid_t process = fork();
    if (process == 0)
        run_child(arguments, input, output, errors, in_child);
    close(input.reader);
    close(output.writer);
    close(errors.writer);
    // Fits the pipe: the tests' inputs are short.
    EXPECT_EQ(write(input.writer, input_text.data(), input_text.size()),
              static_cast<ssize_t>(input_text.size()));
    close(input.writer);

    ProgramRun run;
    pollfd streams[] = {{output.reader, POLLIN, 0}, {errors.reader, POLLIN, 0}};
    while (streams[0].fd >= 0 || streams[1].fd >= 0) {
        if (poll(streams, 2, -1) < 0)
            break;
        append_from(streams[0], run.output);
        append_from(streams[1], run.complaints);
    }
    close(output.reader);
    close(errors.reader);
    int wait_status = 0;
    waitpid(process, &wait_status, 0);
    run.status = WIFEXITED(wait_status) ? WEXITSTATUS(wait_status) : 128 + WTERMSIG(wait_status);
    return run;
}
