// Decodes any bytes as any message. Input: the message type (two bytes, low first, taken modulo the
// number of types), then the body.

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <vector>

#include "common/zdmsg/zdmsg.h"
#include "fuzz/assert_trap.h"
#include "support/ledger_allocator.h"

namespace {

// An element record has at most this many bytes in memory for one on the wire.
constexpr int64_t kMostMemoryPerByte = 18;

void require(bool condition) {
    if (!condition)
        __builtin_trap();
}

// Decoded columns keep their prefix, so they cannot be encoded again.
bool holds_columns(const zdmsg_field_t *fields, int field_cnt, int depth) {
    for (int i = 0; i < field_cnt; i++) {
        if (fields[i].type == ZDMSG_FIELD_COL)
            return true;
        if (fields[i].type != ZDMSG_FIELD_ARRAY || depth == 4)
            continue;
        const zdmsg_struct_meta_t &element = _zdmsg_struct_meta[fields[i].type_or_len];
        if (holds_columns(element.fields, element.field_cnt, depth + 1))
            return true;
    }
    return false;
}

// A typed record of any message.
class Record {
  public:
    Record(int type, size_t body_size) : memory_(zdmsg_get_msg_sizeof(type) / 8, 0) {
        msg()->type = type;
        msg()->body_size = static_cast<uint32_t>(body_size);
    }
    zdmsg_t *msg() { return reinterpret_cast<zdmsg_t *>(memory_.data()); }

  private:
    std::vector<uint64_t> memory_;
};

// What was decoded must come out the same when it is encoded and decoded again. (Its bytes need
// not: padding is not looked at.)
void encode_and_decode_again(LedgerAllocator &alloc, zdmsg_t *first) {
    std::vector<char> bytes(static_cast<size_t>(zdmsg_get_msg_raw_size(first)));
    const uint32_t body_size = first->body_size;
    zdmsg_serialize(alloc.get(), first, bytes.data());
    require(first->body_size <= body_size);
    require(bytes.size() == ZDMSG_HDR_SIZE + first->body_size);
    Record second(first->type, first->body_size);
    zdmsg_deserialize_body(alloc.get(), second.msg(), bytes.data() + ZDMSG_HDR_SIZE);
    require(zdmsg_equals(first, second.msg()) == 1);
    zdmsg_free(alloc.get(), second.msg());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 2)
        return 0;
    const int type = (data[0] + data[1] * 256) % ZDMSG_TYPE_CNT;
    const std::vector<char> body(data + 2, data + size);
    // A copy of exactly that size, so that the sanitizer sees the first byte read behind it. An
    // empty body still has an address.
    std::vector<char> bytes(body);
    bytes.reserve(1);
    LedgerAllocator alloc;
    Record record(type, bytes.size());
    const bool decoded = assert_trap::survives(
        [&] { zdmsg_deserialize_body(alloc.get(), record.msg(), bytes.data()); });
    require(alloc.total <= static_cast<int64_t>(bytes.size()) * kMostMemoryPerByte);
    require(bytes == body);
    if (!decoded)
        return 0;

    require(zdmsg_equals(record.msg(), record.msg()) == 1); // reads every string and column
    const zdmsg_meta_t &meta = _zdmsg_meta[type];
    if (!holds_columns(meta.fields, meta.field_cnt, 0))
        encode_and_decode_again(alloc, record.msg());
    zdmsg_free(alloc.get(), record.msg());
    require(alloc.still_out() == 0);
    return 0;
}
