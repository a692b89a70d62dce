// The native types that a routine may declare, and the database types under which their values
// travel. One table; everything that depends on a type reads it here.

#ifndef ZDEPCALL_NATIVE_TYPE_H
#define ZDEPCALL_NATIVE_TYPE_H

#include <cstddef>
#include <optional>
#include <span>
#include <string_view>

#include "client/zdepa/epa_type.h"

namespace zdepcall {

enum class Shape {
    Signed,   // an integer of size bytes
    Unsigned, // the same without sign
    Floating, // a float or a double
    Text,     // bytes up to a terminating zero
    Run,      // bytes; the capacity says how many
    Counted,  // bytes; the first one is a length
    Image     // bytes; as many come back as were sent
};

struct NativeType {
    std::string_view name;
    zd_type_ext_t ext;
    Shape shape;
    size_t size;       // of one value; 0 when it varies
    zd_type_t db_type; // chosen when the user names none

    bool is_number() const { return shape <= Shape::Floating; }
    // Whether the routine's buffer is made as large as the stated capacity, and the reply's length
    // is measured after the call. Other output values come back in the length that was sent.
    bool is_widened() const { return shape >= Shape::Text && shape <= Shape::Counted; }
};

std::span<const NativeType> native_types();
const NativeType *find_native_type(std::string_view name);

// By name without its ZD_TYPE_ prefix, in either case: "PLS_INT", "varchar".
std::optional<zd_type_t> find_db_type(std::string_view name);

// Without the prefix; "?" when the number has no name.
std::string_view db_type_name(zd_type_t type);

// Bytes of a value that is passed by value; nothing when the agent refuses the type.
std::optional<size_t> by_value_size(zd_type_t type);

} // namespace zdepcall

#endif
