// Holds zdmsg_validate to the decoder: what one accepts the other must. Input: the message type
// (two bytes, low first, taken modulo a little more than the number of types), a byte that chooses
// limits, then the body.

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <vector>

#include "common/zdmsg/zdmsg.h"
#include "common/zdmsg/zdmsg_validate.h"
#include "fuzz/assert_trap.h"
#include "support/ledger_allocator.h"

namespace {

void require(bool condition) {
    if (!condition)
        __builtin_trap();
}

bool decodes(LedgerAllocator &alloc, int type, std::vector<char> &body) {
    std::vector<uint64_t> record(zdmsg_get_msg_sizeof(type) / 8, 0);
    zdmsg_t *const msg = reinterpret_cast<zdmsg_t *>(record.data());
    msg->type = type;
    msg->body_size = static_cast<uint32_t>(body.size());
    if (!assert_trap::survives([&] { zdmsg_deserialize_body(alloc.get(), msg, body.data()); }))
        return false;
    zdmsg_free(alloc.get(), msg);
    return true;
}

void check_flaw(const zdmsg_flaw_t &flaw, bool valid, size_t size) {
    require((flaw.kind == ZDMSG_FLAW_NONE) == valid);
    require(flaw.reason != nullptr && *flaw.reason != '\0');
    require(memchr(flaw.path, '\0', sizeof flaw.path) != nullptr);
    require(flaw.offset >= 0 && flaw.offset <= static_cast<int64_t>(size));
    const bool is_whole =
        valid || flaw.kind == ZDMSG_FLAW_TYPE || flaw.kind == ZDMSG_FLAW_BYTES_LIMIT;
    require((flaw.path[0] == '\0') == is_whole);
}

// Limits only ever take away: what they refuse is blamed on them, unless it is refused anyway.
void check_limits(int type, const std::vector<char> &body, uint8_t chosen, bool valid,
                  size_t arrays) {
    const zdmsg_limits_t limits = {chosen & 3, (chosen >> 2 & 7) * 3, (chosen >> 5) * 100};
    zdmsg_flaw_t flaw;
    const bool within = zdmsg_validate(type, body.data(), body.size(), &limits, &flaw) == 1;
    check_flaw(flaw, within, body.size());
    require(valid || !within);
    if (valid && !within)
        require(flaw.kind >= ZDMSG_FLAW_BYTES_LIMIT && flaw.found > flaw.allowed);
    if (within && limits.elements > 0)
        require(static_cast<int64_t>(arrays) <= limits.elements); // each has one at least
    if (within && limits.bytes > 0)
        require(static_cast<int64_t>(body.size()) <= limits.bytes);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 3)
        return 0;
    const int type = (data[0] + data[1] * 256) % (ZDMSG_TYPE_CNT + 2);
    // A copy of exactly that size, so that the sanitizer sees the first byte read behind it. An
    // empty body still has an address.
    std::vector<char> body(data + 3, data + size);
    body.reserve(1);
    zdmsg_flaw_t flaw;
    const bool valid = zdmsg_validate(type, body.data(), body.size(), nullptr, &flaw) == 1;
    check_flaw(flaw, valid, body.size());
    if (type >= ZDMSG_TYPE_CNT) {
        require(flaw.kind == ZDMSG_FLAW_TYPE);
        return 0;
    }
    LedgerAllocator alloc;
    require(decodes(alloc, type, body) == valid);
    check_limits(type, body, data[2], valid, valid ? alloc.asked.size() : 0);
    return 0;
}
