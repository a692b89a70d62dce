// A reply, read without trust.

#ifndef ZDEPCALL_REPLY_H
#define ZDEPCALL_REPLY_H

#include <cstdint>
#include <string>
#include <vector>

#include "call.h"
#include "wire_reader.h"

namespace zdepcall {

// The serialized error stack: a header, then one record an error, the newest first. All integers
// are big-endian, all texts end with a zero inside their field.
//
//      header                         record
//       0  next id                     8  id             772  file (80)
//       4  errors                     12  code           852  line
//       8  errors meant for users     16  object         856  function (80)
//      12  -                          20  number
//                                     24  '1' for users, else '0'
//                                     25  SQLSTATE (6)
//                                     31  text (712)
//                                    744  object where it occurred
//                                    748  span in a source text (6 integers)
namespace error_stack {
constexpr size_t header_size = 16;
constexpr size_t record_size = 936;
constexpr size_t code_offset = 12;
constexpr size_t sqlstate_offset = 25;
constexpr size_t sqlstate_size = 6;
constexpr size_t text_offset = 31;
constexpr size_t text_size = 712;
constexpr size_t file_offset = 772;
constexpr size_t file_size = 80;
constexpr size_t line_offset = 852;
constexpr size_t function_offset = 856;
constexpr size_t function_size = 80;
} // namespace error_stack

struct ErrorEntry {
    int32_t code = 0;
    std::string name; // of the catalogue; empty when it has none for the code
    std::string sqlstate;
    std::string text; // without the blanks around it
    std::string file;
    int32_t line = 0;
    std::string function;
};

struct Reply {
    bool is_error = false;
    std::string dbms_output;
    std::vector<ErrorEntry> errors; // newest first; may be empty in an error reply
    std::vector<Bytes> values;      // the result first, then the outputs in order
};

// Throw MalformedMessage. message is a whole message, header included.
Reply decode_reply(ByteView message, const Call &call);
std::vector<ErrorEntry> decode_error_stack(ByteView stack);

} // namespace zdepcall

#endif
