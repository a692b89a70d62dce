// Bytes against a page that cannot be touched: a read past them, or before them, faults.

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
        whole_ = usable_ + 2 * page;
        mapped_ = static_cast<char *>(
            mmap(nullptr, whole_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        start_ = mapped_ + page;
        mprotect(start_, usable_, PROT_READ | PROT_WRITE);
    }
    GuardedBytes(const GuardedBytes &) = delete;
    GuardedBytes &operator=(const GuardedBytes &) = delete;
    ~GuardedBytes() { munmap(mapped_, whole_); }

    // Where a copy of bytes now lies, its end against the page; the copy of an earlier call is
    // gone.
    char *hold(const std::string &bytes) { return put(start_ + usable_ - bytes.size(), bytes); }

    // The same with the page before its start.
    char *hold_in_front(const std::string &bytes) { return put(start_, bytes); }

  private:
    static char *put(char *at, const std::string &bytes) {
        memcpy(at, bytes.data(), bytes.size());
        return at;
    }

    char *mapped_;
    char *start_;
    size_t usable_;
    size_t whole_;
};

#endif
