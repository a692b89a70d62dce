#include "wire_reader.h"

namespace programs {

ByteView WireReader::bytes(size_t count, const char *what) {
    if (count > remaining())
        throw MalformedMessage(std::string(what) + " at offset " + std::to_string(position_) +
                               " takes " + std::to_string(count) + " bytes, " +
                               std::to_string(remaining()) + " are left");
    const ByteView result = message_.subspan(position_, count);
    position_ += count;
    return result;
}

uint64_t WireReader::long_integer(const char *what) {
    uint64_t value = 0;
    for (const uint8_t byte : bytes(8, what))
        value = value << 8 | byte;
    return value;
}

int32_t WireReader::integer(const char *what) {
    uint32_t value = 0;
    for (const uint8_t byte : bytes(4, what))
        value = value << 8 | byte;
    return static_cast<int32_t>(value);
}

int32_t WireReader::count(const char *what) {
    const int32_t value = integer(what);
    if (value < 0)
        throw MalformedMessage(std::string(what) + " at offset " + std::to_string(position_ - 4) +
                               " has the negative length " + std::to_string(value));
    return value;
}

ByteView WireReader::string(const char *what) {
    const auto length = static_cast<size_t>(count(what));
    return bytes(padded_length(length), what).first(length);
}

} // namespace programs
