// An allocator that keeps account: what was asked for, what is still out. Blocks that were never
// returned go with it.

#ifndef TESTS_SUPPORT_LEDGER_ALLOCATOR_H
#define TESTS_SUPPORT_LEDGER_ALLOCATOR_H

#include <stdlib.h>
#include <string.h>

#include <map>
#include <string>
#include <vector>

#include "client/common/client_try.h"
#include "common/alloc/allocator.h"

class LedgerAllocator {
  public:
    LedgerAllocator() {
        allocator_.self.desc = &kDesc;
        allocator_.owner = this;
    }
    LedgerAllocator(const LedgerAllocator &) = delete;
    LedgerAllocator &operator=(const LedgerAllocator &) = delete;
    ~LedgerAllocator() { release(); }

    allocator_t *get() { return &allocator_.self; }

    // A copy of text that the allocator owns.
    char *copy(const std::string &text) {
        char *const memory = static_cast<char *>(
            get()->desc->func_malloc(get(), static_cast<int64_t>(text.size() + 1), "test", 1));
        memcpy(memory, text.c_str(), text.size() + 1);
        return memory;
    }

    void release() {
        for (const auto &block : out_)
            free(block.first);
        out_.clear();
    }

    // The allocation of this number, counted from 0, fails.
    void fail_at(int64_t number) { fail_at_ = number; }

    std::vector<int64_t> asked;   // sizes, in order
    std::vector<void *> returned; // in order
    std::string last_file;        // call site of the last request
    int last_line = 0;
    int thrown = 0;
    int64_t total = 0;
    [[nodiscard]] size_t still_out() const { return out_.size(); }

  private:
    struct Record {
        allocator_t self = {};
        LedgerAllocator *owner = nullptr;
    };

    static LedgerAllocator *owner(allocator_t *alloc) {
        return reinterpret_cast<Record *>(alloc)->owner;
    }

    static void *allocate(allocator_t *alloc, int64_t bytes, const char *file, int line) {
        LedgerAllocator *const ledger = owner(alloc);
        ledger->last_file = file;
        ledger->last_line = line;
        ledger->asked.push_back(bytes);
        ledger->total += bytes;
        if (static_cast<int64_t>(ledger->asked.size()) - 1 == ledger->fail_at_)
            return nullptr;
        void *const memory = malloc(static_cast<size_t>(bytes));
        memset(memory, 0xA5, static_cast<size_t>(bytes));
        ledger->out_[memory] = bytes;
        return memory;
    }

    static void give_back(allocator_t *alloc, void *ptr, const char *, int) {
        LedgerAllocator *const ledger = owner(alloc);
        ledger->returned.push_back(ptr);
        if (ledger->out_.erase(ptr) == 1)
            free(ptr);
    }

    static void *resize(allocator_t *alloc, void *ptr, int64_t bytes, const char *file, int line) {
        LedgerAllocator *const ledger = owner(alloc);
        void *const moved = allocate(alloc, bytes, file, line);
        if (moved == nullptr)
            return nullptr;
        const int64_t before = ledger->out_[ptr];
        memcpy(moved, ptr, static_cast<size_t>(before < bytes ? before : bytes));
        give_back(alloc, ptr, file, line);
        return moved;
    }

    static void raise(allocator_t *alloc) {
        owner(alloc)->thrown++;
        zd_err_and_jmp("test", 1, "raise", 0, 0, -3003);
    }

    inline static const allocator_desc_t kDesc = {allocate,  allocate, nullptr, resize,
                                                  give_back, nullptr,  nullptr, raise};

    Record allocator_;
    std::map<void *, int64_t> out_;
    int64_t fail_at_ = -1;
};

#endif
