#include "argument.h"

#include <charconv>
#include <cstring>
#include <limits>

namespace zdepcall {

namespace {

int32_t pack_flag(bool by_reference, Mode mode, zd_type_t db_type, zd_type_ext_t ext) {
    const auto packed = (by_reference ? EPA_CALL_BY_REFERENCE << 24 : 0) |
                        static_cast<int32_t>(mode) << 16 | static_cast<int32_t>(db_type) << 8 |
                        static_cast<int32_t>(ext);
    return packed;
}

// The text of one argument, taken apart. Parts that are not there are empty.
struct Parts {
    std::string_view whole;
    std::string_view mode;
    bool marked_by_reference = false;
    std::string_view type;
    std::string_view db_type;
    std::string_view capacity;
    std::string_view value;
    bool has_capacity = false;
    bool has_value = false;
};

[[noreturn]] void fail(std::string_view what, std::string_view why) {
    throw UsageError(std::string(what) + ": " + std::string(why));
}

bool take_prefix(std::string_view &rest, std::string_view prefix) {
    if (!rest.starts_with(prefix))
        return false;
    rest.remove_prefix(prefix.size());
    return true;
}

Parts take_apart(std::string_view whole) {
    Parts parts;
    parts.whole = whole;
    std::string_view rest = whole;
    if (const size_t equals = rest.find('='); equals != std::string_view::npos) {
        parts.has_value = true;
        parts.value = rest.substr(equals + 1);
        rest = rest.substr(0, equals);
    }
    for (const std::string_view mode : {"in:", "out:", "inout:", "ref:"}) {
        if (take_prefix(rest, mode)) {
            parts.mode = mode;
            break;
        }
    }
    parts.marked_by_reference = take_prefix(rest, "&");
    if (const size_t open = rest.find('('); open != std::string_view::npos) {
        if (!rest.ends_with(')'))
            fail(whole, "the capacity is not closed (write TYPE(BYTES), quoted in a shell)");
        parts.has_capacity = true;
        parts.capacity = rest.substr(open + 1, rest.size() - open - 2);
        rest = rest.substr(0, open);
    }
    if (const size_t slash = rest.find('/'); slash != std::string_view::npos) {
        parts.db_type = rest.substr(slash + 1);
        rest = rest.substr(0, slash);
    }
    parts.type = rest;
    return parts;
}

const NativeType *require_native_type(const Parts &parts) {
    const NativeType *const type = find_native_type(parts.type);
    if (type == nullptr) {
        std::string names;
        for (const NativeType &known : native_types())
            names += (names.empty() ? "" : " ") + std::string(known.name);
        fail(parts.whole,
             "unknown type '" + std::string(parts.type) + "' (the types are: " + names + ")");
    }
    return type;
}

zd_type_t choose_db_type(const Parts &parts, const NativeType &type) {
    if (parts.db_type.empty())
        return type.db_type;
    const std::optional<zd_type_t> found = find_db_type(parts.db_type);
    if (!found)
        fail(parts.whole, "unknown database type '" + std::string(parts.db_type) +
                              "' (for example PLS_INT, BIN_DOUBLE, VARCHAR, RAW)");
    return *found;
}

// Bytes that a number takes on the wire.
size_t number_size(const Parts &parts, const NativeType &type, zd_type_t db_type,
                   bool by_reference) {
    if (by_reference)
        return type.size;
    const size_t size = by_value_size(db_type).value_or(type.size);
    if (size != 0 && size < type.size)
        fail(parts.whole, std::string(db_type_name(db_type)) + " carries " + std::to_string(size) +
                              " bytes, too few for " + std::string(type.name) +
                              " (leave the database type out)");
    return size;
}

template <class Integer>
Bytes encode_integer(const Parts &parts, const NativeType &type, Integer low, Integer high,
                     size_t wire_size) {
    std::string_view digits = parts.value;
    const bool negative = take_prefix(digits, "-");
    const int base = take_prefix(digits, "0x") || take_prefix(digits, "0X") ? 16 : 10;
    uint64_t magnitude = 0;
    const char *const end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, magnitude, base);
    if (digits.empty() || stop != end || error == std::errc::invalid_argument)
        fail(parts.whole, "'" + std::string(parts.value) +
                              "' is not a whole number (write it in decimal or as 0x...)");
    // The largest magnitude below zero is one more than the largest above it.
    const uint64_t limit =
        negative ? uint64_t{0} - static_cast<uint64_t>(low) : static_cast<uint64_t>(high);
    if (error == std::errc::result_out_of_range || magnitude > limit)
        fail(parts.whole, "out of range for " + std::string(type.name) + " (" +
                              std::to_string(low) + " to " + std::to_string(high) + ")");
    const uint64_t value = negative ? uint64_t{0} - magnitude : magnitude;
    Bytes bytes(wire_size);
    std::memcpy(bytes.data(), &value, wire_size);
    return bytes;
}

template <class Real>
Bytes encode_real(const Parts &parts, const NativeType &type, size_t wire_size) {
    Real value = 0;
    const char *const end = parts.value.data() + parts.value.size();
    const auto [stop, error] = std::from_chars(parts.value.data(), end, value);
    if (parts.value.empty() || stop != end || error == std::errc::invalid_argument)
        fail(parts.whole, "'" + std::string(parts.value) + "' is not a number");
    if (error == std::errc::result_out_of_range)
        fail(parts.whole, "out of range for " + std::string(type.name));
    Bytes bytes(wire_size);
    std::memcpy(bytes.data(), &value, sizeof value);
    return bytes;
}

Bytes encode_number(const Parts &parts, const NativeType &type, size_t wire_size) {
    if (type.shape == Shape::Floating)
        return type.size == sizeof(float) ? encode_real<float>(parts, type, wire_size)
                                          : encode_real<double>(parts, type, wire_size);
    const uint64_t all_ones = type.size < sizeof(uint64_t) ? (uint64_t{1} << type.size * 8) - 1
                                                           : std::numeric_limits<uint64_t>::max();
    if (type.shape == Shape::Unsigned)
        return encode_integer<uint64_t>(parts, type, 0, all_ones, wire_size);
    const auto high = static_cast<int64_t>(all_ones / 2);
    return encode_integer<int64_t>(parts, type, -high - 1, high, wire_size);
}

void fill_number(Argument &argument, const Parts &parts) {
    const NativeType &type = *argument.type;
    if (parts.has_capacity)
        fail(parts.whole, std::string(type.name) + " has a fixed size (leave the capacity out)");
    const size_t size = number_size(parts, type, argument.db_type, argument.by_reference);
    argument.capacity = static_cast<int32_t>(size);
    if (argument.mode == Mode::Out)
        argument.data.assign(size, 0);
    else if (size != 0 || argument.by_reference)
        argument.data = encode_number(parts, type, size);
    else if (parts.has_value)
        fail(parts.whole, "NONE carries no value (leave the value out)");
}

int32_t parse_capacity(const Parts &parts) {
    int32_t capacity = 0;
    const char *const end = parts.capacity.data() + parts.capacity.size();
    const auto [stop, error] = std::from_chars(parts.capacity.data(), end, capacity);
    if (parts.capacity.empty() || stop != end || error != std::errc() || capacity < 1)
        fail(parts.whole, "'" + std::string(parts.capacity) +
                              "' is not a capacity (give the bytes that the routine may write, "
                              "1 to 2147483647)");
    return capacity;
}

Bytes encode_bytes(const Parts &parts, const NativeType &type) {
    if (type.shape == Shape::Text)
        return Bytes(parts.value.begin(), parts.value.end());
    std::optional<Bytes> bytes = from_hex(parts.value);
    if (!bytes)
        fail(parts.whole, "'" + std::string(parts.value) +
                              "' is not hexadecimal (write two digits for every byte)");
    return *std::move(bytes);
}

void fill_bytes(Argument &argument, const Parts &parts) {
    const NativeType &type = *argument.type;
    if (argument.is_output() && !parts.has_capacity)
        fail(parts.whole, "needs a capacity (write " + std::string(type.name) +
                              "(BYTES) for the bytes that the routine may write)");
    if (!argument.is_output() && parts.has_capacity)
        fail(parts.whole, "an input has no capacity (leave it out, or write inout:)");
    if (parts.has_value)
        argument.data = encode_bytes(parts, type);
    argument.capacity =
        parts.has_capacity ? parse_capacity(parts) : static_cast<int32_t>(argument.data.size());
    const auto capacity = static_cast<size_t>(argument.capacity);
    if (argument.data.size() > capacity)
        fail(parts.whole, "the value has " + std::to_string(argument.data.size()) +
                              " bytes, more than its capacity");
    // What is not widened comes back in the length in which it was sent.
    if (argument.is_output() && !type.is_widened())
        argument.data.resize(capacity);
}

} // namespace

int32_t Argument::flag() const {
    return pack_flag(by_reference, mode, db_type, type->ext);
}

int32_t ReturnType::flag() const {
    return type == nullptr ? 0 : pack_flag(by_reference, Mode::Out, db_type, type->ext);
}

Argument parse_argument(std::string_view text) {
    const Parts parts = take_apart(text);
    Argument argument;
    argument.type = require_native_type(parts);
    argument.db_type = choose_db_type(parts, *argument.type);
    if (parts.mode == "out:")
        argument.mode = Mode::Out;
    else if (parts.mode == "inout:")
        argument.mode = Mode::InOut;
    argument.by_reference = parts.marked_by_reference || parts.mode == "ref:" ||
                            argument.is_output() || !argument.type->is_number();

    if (argument.mode == Mode::Out && parts.has_value)
        fail(parts.whole, "an output takes no value (write inout: to pass one in)");
    const bool carries_nothing = !argument.by_reference && argument.db_type == ZD_TYPE_NONE;
    if (argument.mode != Mode::Out && !parts.has_value && !carries_nothing)
        fail(parts.whole, "needs a value (write " + std::string(text) + "=VALUE)");

    if (argument.type->is_number())
        fill_number(argument, parts);
    else
        fill_bytes(argument, parts);
    return argument;
}

ReturnType parse_return_type(std::string_view text) {
    const Parts parts = take_apart(text);
    if (parts.has_value || parts.has_capacity || parts.mode == "in:" || parts.mode == "out:" ||
        parts.mode == "inout:")
        fail(text, "not a return type (write TYPE, or &TYPE for a pointer to one)");
    ReturnType result;
    result.type = require_native_type(parts);
    result.db_type = choose_db_type(parts, *result.type);
    result.by_reference =
        parts.marked_by_reference || parts.mode == "ref:" || !result.type->is_number();
    if (result.db_type == ZD_TYPE_NONE)
        fail(text, "NONE means that nothing is returned (leave --returns out)");
    if (!result.by_reference)
        number_size(parts, *result.type, result.db_type, false);
    return result;
}

} // namespace zdepcall
