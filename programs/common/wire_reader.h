// Reads a message of the wire protocol field by field. The message may come from a process that has
// run somebody's code, or from a file of any origin: every length is held against the bytes that
// are really there.

#ifndef PROGRAM_WIRE_READER_H
#define PROGRAM_WIRE_READER_H

#include <cstdint>
#include <stdexcept>
#include <string>

#include "hex.h"

namespace programs {

struct MalformedMessage : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Integers are big-endian. what names the field in a complaint.
class WireReader {
  public:
    explicit WireReader(ByteView message) : message_(message) {}

    size_t position() const { return position_; }
    size_t remaining() const { return message_.size() - position_; }

    int32_t integer(const char *what);
    uint64_t long_integer(const char *what);
    ByteView bytes(size_t count, const char *what);
    // A length word, that many bytes, and at least one zero up to a multiple of four. The result
    // is the bytes alone.
    ByteView string(const char *what);
    // The number of elements that follow.
    int32_t count(const char *what);

  private:
    ByteView message_;
    size_t position_ = 0;
};

// Bytes on the wire of a string of that length, its length word left out.
constexpr size_t padded_length(size_t length) {
    return (length + 4) / 4 * 4;
}

} // namespace programs

#endif
