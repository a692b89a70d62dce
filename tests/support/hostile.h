// Decodes bodies that may be malformed, one after another and in one process.

#ifndef TESTS_SUPPORT_HOSTILE_H
#define TESTS_SUPPORT_HOSTILE_H

#include <string>
#include <vector>

#include "common/zdmsg/zdmsg.h"
#include "support/abort_trap.h"
#include "support/guarded_bytes.h"
#include "support/ledger_allocator.h"

class Hostile {
  public:
    // True when the body was refused; then report() is what was printed. The body lies against a
    // guard page.
    bool refuses(int type, const std::string &body) {
        return decoding_aborts(type, body.size(), guarded_.hold(body));
    }

    // The same with the guard page before the body.
    bool refuses_behind_a_guard(int type, const std::string &body) {
        return decoding_aborts(type, body.size(), guarded_.hold_in_front(body));
    }

    [[nodiscard]] const std::string &report() const { return trap_.text(); }

    // The record and the body of the last run.
    zdmsg_t *msg() { return reinterpret_cast<zdmsg_t *>(memory_.data()); }
    [[nodiscard]] const char *bytes() const { return bytes_; }

    LedgerAllocator alloc;

  private:
    bool decoding_aborts(int type, size_t size, char *bytes) {
        alloc.release();
        bytes_ = bytes;
        memory_.assign(zdmsg_get_max_msg_size() / 8, 0);
        msg()->type = type;
        msg()->body_size = static_cast<uint32_t>(size);
        return trap_.aborts([&] { zdmsg_deserialize_body(alloc.get(), msg(), bytes_); });
    }

    GuardedBytes guarded_{1 << 20};
    char *bytes_ = nullptr;
    std::vector<uint64_t> memory_;
    AbortTrap trap_;
};

// True when a report blames the body, and nothing else.
inline bool names_a_body_condition(const std::string &report) {
    for (const char *condition : {
             "(offset + sizeof(int)) <= msg->body_size (",
             "offset <= msg->body_size (",
             "(offset + meta->fields[i].type_or_len) <= msg->body_size (",
             "(*offset + sizeof(int)) <= body_size (",
             "*offset <= body_size (",
             "(*offset + struct_meta->fields[i].type_or_len) <= body_size (",
         })
        if (report.find(std::string(": Assert failed: ") + condition) != std::string::npos)
            return true;
    return false;
}

#endif
