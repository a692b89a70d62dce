// A dump stream into memory, for tests that compare what was printed.

#ifndef TESTS_SUPPORT_CAPTURED_STREAM_H
#define TESTS_SUPPORT_CAPTURED_STREAM_H

#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "common/alloc/system_clialloc.h"
#include "common/zd_dump.h"

class CapturedStream {
  public:
    explicit CapturedStream(int formatter_cnt = 0, dstream_formatter_t *formatters = nullptr)
        : fd_(memfd_create("dump", 0)),
          stream_(dstream_new(&_system_allocator, fd_, formatter_cnt, formatters)) {}
    ~CapturedStream() {
        dstream_delete(&_system_allocator, stream_);
        close(fd_);
    }
    CapturedStream(const CapturedStream &) = delete;
    CapturedStream &operator=(const CapturedStream &) = delete;

    dstream_t *get() const { return stream_; }
    dstream_t *operator->() const { return stream_; }

    // What has reached the descriptor.
    std::string written() const {
        std::string text(static_cast<size_t>(lseek(fd_, 0, SEEK_END)), '\0');
        text.resize(static_cast<size_t>(pread(fd_, text.data(), text.size(), 0)));
        return text;
    }

    // All that was printed: flushes first.
    std::string text() const {
        dflush(stream_);
        return written();
    }

  private:
    int fd_;
    dstream_t *stream_;
};

#endif
