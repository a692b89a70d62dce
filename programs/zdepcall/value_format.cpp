#include "value_format.h"

#include <charconv>
#include <cmath>
#include <cstring>

#include "text_format.h"

namespace zdepcall {

namespace {

constexpr size_t shown_bytes = 64;
constexpr size_t shown_zero_bytes = 8;

std::string_view as_text(ByteView bytes) {
    return {reinterpret_cast<const char *>(bytes.data()), bytes.size()};
}

template <class Number>
std::string shortest(Number number) {
    char buffer[64];
    return {buffer, std::to_chars(buffer, buffer + sizeof buffer, number).ptr};
}

template <class Number>
Number read_as(ByteView value) {
    Number number;
    std::memcpy(&number, value.data(), sizeof number);
    return number;
}

std::string format_integer(const NativeType &type, ByteView value) {
    uint64_t bits = 0;
    std::memcpy(&bits, value.data(), type.size);
    if (type.shape == Shape::Unsigned)
        return shortest(bits);
    const unsigned above = 64 - static_cast<unsigned>(type.size) * 8;
    return shortest(static_cast<int64_t>(bits << above) >> above);
}

std::string format_number(const NativeType &type, ByteView value) {
    if (type.shape != Shape::Floating)
        return format_integer(type, value);
    return type.size == sizeof(float) ? shortest(read_as<float>(value))
                                      : shortest(read_as<double>(value));
}

bool is_finite(const NativeType &type, ByteView value) {
    if (type.shape != Shape::Floating)
        return true;
    return type.size == sizeof(float) ? std::isfinite(read_as<float>(value))
                                      : std::isfinite(read_as<double>(value));
}

std::string format_bytes(ByteView value) {
    if (value.empty())
        return "(no bytes)";
    size_t kept = value.size();
    while (kept > 0 && value[kept - 1] == 0)
        kept--;
    const size_t zeros = value.size() - kept;
    if (zeros <= shown_zero_bytes)
        kept = value.size();
    std::string text = to_hex(value.first(std::min(kept, shown_bytes)));
    if (kept > shown_bytes)
        return text + "... (" + std::to_string(value.size()) + " bytes)";
    if (zeros > shown_zero_bytes)
        text += (kept > 0 ? " and " : "") + std::to_string(zeros) + " zero bytes";
    return text;
}

} // namespace

std::string format_value(const NativeType &type, ByteView value) {
    if (type.shape == Shape::Text)
        return quoted(as_text(value));
    if (!type.is_number())
        return format_bytes(value);
    if (value.empty())
        return "NULL";
    if (value.size() < type.size)
        return format_bytes(value) + " (" + std::to_string(value.size()) + " bytes are no " +
               std::string(type.name) + ")";
    return format_number(type, value);
}

std::string json_value(const NativeType &type, ByteView value) {
    if (type.shape == Shape::Text)
        return is_utf8(as_text(value)) ? json_string(as_text(value)) : "null";
    if (!type.is_number())
        return json_string(to_hex(value));
    if (value.size() < type.size || !is_finite(type, value))
        return "null";
    return format_number(type, value);
}

} // namespace zdepcall
