// Bytes whose end lies against a page that cannot be touched: a read past them faults.

#ifndef TESTS_SUPPORT_GUARDED_BYTES_H
#define TESTS_SUPPORT_GUARDED_BYTES_H

#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>

class GuardedBytes {
  public:
    explicit GuardedBytes(size_t capacity) {
        const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        usable_ = (capacity + page - 1) / page * page;
        whole_ = usable_ + page;
        start_ = static_cast<char *>(
            mmap(nullptr, whole_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        mprotect(start_ + usable_, page, PROT_NONE);
    }
    GuardedBytes(const GuardedBytes &) = delete;
    GuardedBytes &operator=(const GuardedBytes &) = delete;
    ~GuardedBytes() { munmap(start_, whole_); }

    // Where a copy of bytes now lies; the copy of an earlier call is gone.
    char *hold(const std::string &bytes) {
        char *const at = start_ + usable_ - bytes.size();
        memcpy(at, bytes.data(), bytes.size());
        return at;
    }

  private:
    char *start_;
    size_t usable_;
    size_t whole_;
};

#endif
