#include "hex.h"

#include <algorithm>

namespace programs {

std::string to_hex(ByteView bytes) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(bytes.size() * 2);
    for (const uint8_t byte : bytes) {
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    return text;
}

static int digit_value(char digit) {
    if (digit >= '0' && digit <= '9')
        return digit - '0';
    if (digit >= 'a' && digit <= 'f')
        return digit - 'a' + 10;
    if (digit >= 'A' && digit <= 'F')
        return digit - 'A' + 10;
    return -1;
}

std::optional<Bytes> from_hex(std::string_view text) {
    if (text.size() % 2 != 0)
        return std::nullopt;
    Bytes bytes;
    bytes.reserve(text.size() / 2);
    for (size_t at = 0; at < text.size(); at += 2) {
        const int high = digit_value(text[at]);
        const int low = digit_value(text[at + 1]);
        if (high < 0 || low < 0)
            return std::nullopt;
        bytes.push_back(static_cast<uint8_t>(high * 16 + low));
    }
    return bytes;
}

std::vector<HexLine> hex_lines(ByteView bytes) {
    std::vector<HexLine> lines;
    for (size_t at = 0; at < bytes.size(); at += bytes_per_hex_line) {
        const ByteView line = bytes.subspan(at, std::min(bytes_per_hex_line, bytes.size() - at));
        const bool is_first_or_last = at == 0 || at + bytes_per_hex_line >= bytes.size();
        const bool is_zero = std::ranges::all_of(line, [](uint8_t byte) { return byte == 0; });
        if (is_first_or_last || !is_zero)
            lines.push_back({at, line});
        else if (!lines.back().bytes.empty())
            lines.push_back({at, {}});
    }
    return lines;
}

} // namespace programs
