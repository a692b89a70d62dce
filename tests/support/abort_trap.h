// For tests of code that answers bad input by ending the process: runs it, and hands back what it
// printed to standard error, in the process itself, so that thousands of inputs cost little. What
// the code holds when it aborts is lost, as in a real abort.

#ifndef TESTS_SUPPORT_ABORT_TRAP_H
#define TESTS_SUPPORT_ABORT_TRAP_H

#include <setjmp.h>
#include <signal.h>
#include <stdio.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>

class AbortTrap {
  public:
    AbortTrap() : captured_(memfd_create("stderr", 0)), saved_stderr_(dup(2)) {
        fflush(stderr);
        dup2(captured_, 2);
        setvbuf(stderr, buffer_, _IOFBF, sizeof buffer_); // a dump is thousands of small prints
        struct sigaction action = {};
        action.sa_handler = [](int) { siglongjmp(frame_, 1); };
        sigaction(SIGABRT, &action, &saved_action_);
    }
    AbortTrap(const AbortTrap &) = delete;
    AbortTrap &operator=(const AbortTrap &) = delete;
    ~AbortTrap() {
        sigaction(SIGABRT, &saved_action_, nullptr);
        fflush(stderr);
        setvbuf(stderr, nullptr, _IONBF, 0);
        dup2(saved_stderr_, 2);
        close(saved_stderr_);
        close(captured_);
    }

    // True when code() aborted. Its standard error is text() until the next run.
    template <class Code>
    bool aborts(Code code) {
        volatile bool aborted = true;
        if (sigsetjmp(frame_, 1) == 0) {
            code();
            aborted = false;
        }
        collect();
        return aborted;
    }

    [[nodiscard]] const std::string &text() const { return text_; }

  private:
    void collect() {
        fflush(stderr);
        const off_t size = lseek(captured_, 0, SEEK_CUR);
        text_.assign(static_cast<size_t>(size), '\0');
        if (pread(captured_, text_.data(), text_.size(), 0) != size)
            text_ = "(standard error could not be read back)";
        if (ftruncate(captured_, 0) != 0)
            text_ += "(standard error could not be emptied)";
        lseek(captured_, 0, SEEK_SET);
    }

    inline static sigjmp_buf frame_;
    inline static char buffer_[1 << 16];
    int captured_;
    int saved_stderr_;
    struct sigaction saved_action_ = {};
    std::string text_;
};

#endif
