#include "text_format.h"

#include <algorithm>

namespace programs {

namespace {

// Length of the UTF-8 sequence at the start of text; 0 when there is none.
size_t sequence_length(std::string_view text) {
    const auto byte_at = [text](size_t at) { return static_cast<unsigned char>(text[at]); };
    const unsigned char lead = byte_at(0);
    if (lead < 0x80)
        return 1;
    const size_t length = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
    if (lead < 0xc2 || lead > 0xf4 || text.size() < length)
        return 0;
    for (size_t at = 1; at < length; at++) {
        if ((byte_at(at) & 0xc0) != 0x80)
            return 0;
    }
    const unsigned char second = byte_at(1);
    const bool overlong = (lead == 0xe0 && second < 0xa0) || (lead == 0xf0 && second < 0x90);
    const bool not_a_character = (lead == 0xed && second > 0x9f) || (lead == 0xf4 && second > 0x8f);
    return overlong || not_a_character ? 0 : length;
}

std::string unicode_escape(unsigned code) {
    static constexpr char digits[] = "0123456789abcdef";
    return {'\\', 'u', '0', '0', digits[code >> 4 & 15], digits[code & 15]};
}

std::string hex_escape(unsigned code) {
    static constexpr char digits[] = "0123456789abcdef";
    return {'\\', 'x', digits[code >> 4 & 15], digits[code & 15]};
}

// Code points U+0080 to U+009F steer terminals as the ones below a blank do.
bool is_control(std::string_view sequence) {
    const auto lead = static_cast<unsigned char>(sequence[0]);
    if (sequence.size() == 2)
        return lead == 0xc2 && static_cast<unsigned char>(sequence[1]) < 0xa0;
    return lead < 0x20 || lead == 0x7f;
}

// The escape that text and JSON share; empty when the character needs none.
std::string common_escape(char character) {
    switch (character) {
    case '"':
        return "\\\"";
    case '\\':
        return "\\\\";
    case '\n':
        return "\\n";
    case '\r':
        return "\\r";
    case '\t':
        return "\\t";
    default:
        return {};
    }
}

} // namespace

bool is_utf8(std::string_view text) {
    while (!text.empty()) {
        const size_t length = sequence_length(text);
        if (length == 0)
            return false;
        text.remove_prefix(length);
    }
    return true;
}

std::string printable(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        const size_t length = sequence_length(text);
        const std::string_view sequence = text.substr(0, std::max<size_t>(length, 1));
        if (text[0] == '\n') {
            result += "\\n";
        } else if (length == 0 || is_control(sequence)) {
            for (const char byte : sequence)
                result += hex_escape(static_cast<unsigned char>(byte));
        } else {
            result += sequence;
        }
        text.remove_prefix(sequence.size());
    }
    return result;
}

std::string quoted(std::string_view text) {
    std::string result = "\"";
    for (const char character : text) {
        if (const std::string escape = common_escape(character); !escape.empty())
            result += escape;
        else
            result += character;
    }
    return printable(result) + '"';
}

std::string json_string(std::string_view text) {
    std::string result = "\"";
    while (!text.empty()) {
        const size_t length = sequence_length(text);
        const std::string_view sequence = text.substr(0, std::max<size_t>(length, 1));
        const auto lead = static_cast<unsigned char>(text[0]);
        if (const std::string escape = common_escape(text[0]); !escape.empty())
            result += escape;
        else if (length == 0)
            result += "\\ufffd";
        else if (length == 1 && (lead < 0x20 || lead == 0x7f))
            result += unicode_escape(lead);
        else
            result += sequence;
        text.remove_prefix(sequence.size());
    }
    return result + '"';
}

std::string json_array(const std::vector<std::string> &values) {
    std::string text;
    for (const std::string &value : values)
        text += (text.empty() ? "" : ",") + value;
    return "[" + text + "]";
}

JsonObject &JsonObject::member(std::string_view name, const std::string &value) {
    members_ += (members_.empty() ? "" : ",") + json_string(name) + ":" + value;
    return *this;
}

JsonObject &JsonObject::text(std::string_view name, std::string_view value) {
    return member(name, json_string(value));
}

std::string JsonObject::str() const {
    return "{" + members_ + "}";
}

} // namespace programs
