// Values as text: for people, and as JSON.

#ifndef ZDEPCALL_VALUE_FORMAT_H
#define ZDEPCALL_VALUE_FORMAT_H

#include <string>
#include <string_view>

#include "hex.h"
#include "native_type.h"

namespace zdepcall {

// A value that came back, for people: 5, 2.5, "text", 0a0b0c. A number without bytes is NULL; long
// runs of bytes are cut, with their length.
std::string format_value(const NativeType &type, ByteView value);

// The same as a JSON value. null when the bytes are not a value of the type, or text that is not
// UTF-8.
std::string json_value(const NativeType &type, ByteView value);

// text on one line, with everything escaped that could disturb a terminal.
std::string printable(std::string_view text);

// The same in double quotes, with quotes and backslashes escaped.
std::string quoted(std::string_view text);

// A JSON string. Bytes that are not UTF-8 become U+FFFD.
std::string json_string(std::string_view text);

bool is_utf8(std::string_view text);

} // namespace zdepcall

#endif
