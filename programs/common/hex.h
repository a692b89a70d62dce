// Bytes as hexadecimal text and back.

#ifndef PROGRAM_HEX_H
#define PROGRAM_HEX_H

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace programs {

using Bytes = std::vector<uint8_t>;
using ByteView = std::span<const uint8_t>;

// Two lower-case digits a byte, nothing between them.
std::string to_hex(ByteView bytes);

// The bytes of an even number of hex digits, either case; nothing when the text is something else.
// Empty text is no bytes.
std::optional<Bytes> from_hex(std::string_view text);

// One line of a dump of many bytes.
struct HexLine {
    size_t at;      // of its first byte
    ByteView bytes; // none: here, lines of nothing but zeros are left out
};

constexpr size_t bytes_per_hex_line = 16;

// The first and the last line are always there.
std::vector<HexLine> hex_lines(ByteView bytes);

} // namespace programs

#endif
