#include "message_input.h"

#include <charconv>
#include <cstdint>

namespace zdtool {

using namespace programs;

namespace {

constexpr std::string_view blanks = " \t\r\n\f\v";
constexpr std::string_view hex_digits = "0123456789abcdefABCDEF";

// Big-endian.
void put(Bytes &bytes, uint64_t value, int size) {
    for (int at = size - 1; at >= 0; at--)
        bytes.push_back(static_cast<uint8_t>(value >> (8 * at)));
}

// What follows a title, up to the end of its line, as a number; 0 when it is none.
template <class Number>
Number number_behind(std::string_view text, std::string_view title) {
    Number value = 0;
    const size_t at = text.find(title);
    if (at != std::string_view::npos)
        std::from_chars(text.data() + at + title.size(), text.data() + text.size(), value);
    return value;
}

// The digits of at most count bytes at the start of text.
Bytes leading_bytes(std::string_view text, size_t count) {
    std::string digits;
    for (const char character : text) {
        if (digits.size() / 2 == count)
            break;
        if (hex_digits.find(character) != std::string_view::npos)
            digits += character;
        else if (blanks.find(character) == std::string_view::npos)
            break;
    }
    digits.resize(digits.size() / 2 * 2);
    return from_hex(digits).value_or(Bytes());
}

void add_message_of_dump(Bytes &bytes, std::string_view dump) {
    constexpr std::string_view body_title = "\n[raw msg body]\n";
    const size_t title = dump.find(body_title);
    const std::string_view fields = dump.substr(0, title);
    const auto body_size = number_behind<uint32_t>(fields, "\nbodysize: ");
    put(bytes, static_cast<uint32_t>(number_behind<int32_t>(fields, "\ntype: ")), 4);
    put(bytes, body_size, 4);
    put(bytes, number_behind<uint64_t>(fields, "\ntsn: "), 8);
    if (title == std::string_view::npos)
        return;
    const Bytes body = leading_bytes(dump.substr(title + body_title.size()), body_size);
    bytes.insert(bytes.end(), body.begin(), body.end());
}

} // namespace

std::optional<Bytes> from_loose_hex(std::string_view text, size_t *wrong) {
    std::string digits;
    for (size_t at = 0; at < text.size(); at++) {
        if (hex_digits.find(text[at]) != std::string_view::npos) {
            digits += text[at];
        } else if (text[at] != '|' && blanks.find(text[at]) == std::string_view::npos) {
            *wrong = at;
            return std::nullopt;
        }
    }
    *wrong = text.size();
    return from_hex(digits);
}

Bytes messages_of_dumps(std::string_view text) {
    constexpr std::string_view title = "[ZDMSG Dump]\n";
    Bytes bytes;
    for (size_t at = text.find(title); at != std::string_view::npos;) {
        const size_t next = text.find(title, at + title.size());
        add_message_of_dump(bytes, text.substr(at, next - at));
        at = next;
    }
    return bytes;
}

} // namespace zdtool
