// Values as text: for people, and as JSON.

#ifndef ZDEPCALL_VALUE_FORMAT_H
#define ZDEPCALL_VALUE_FORMAT_H

#include <string>

#include "hex.h"
#include "native_type.h"

namespace zdepcall {

using namespace programs;

// A value that came back, for people: 5, 2.5, "text", 0a0b0c. A number without bytes is NULL; long
// runs of bytes are cut, with their length.
std::string format_value(const NativeType &type, ByteView value);

// The same as a JSON value. null when the bytes are not a value of the type, or text that is not
// UTF-8.
std::string json_value(const NativeType &type, ByteView value);

} // namespace zdepcall

#endif
