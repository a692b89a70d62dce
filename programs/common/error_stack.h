// The serialized error stack, as replies carry it.

#ifndef PROGRAM_ERROR_STACK_H
#define PROGRAM_ERROR_STACK_H

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "hex.h"

namespace programs {

// A header, then one record an error, the newest first. All integers are big-endian, all texts end
// with a zero inside their field.
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
constexpr size_t id_offset = 8;
constexpr size_t code_offset = 12;
constexpr size_t object_offset = 16;
constexpr size_t number_offset = 20;
constexpr size_t for_user_offset = 24;
constexpr size_t sqlstate_offset = 25;
constexpr size_t sqlstate_size = 6;
constexpr size_t text_offset = 31;
constexpr size_t text_size = 712;
constexpr size_t object_occurred_offset = 744;
constexpr size_t span_offset = 748;
constexpr size_t file_offset = 772;
constexpr size_t file_size = 80;
constexpr size_t line_offset = 852;
constexpr size_t function_offset = 856;
constexpr size_t function_size = 80;
} // namespace error_stack

struct ErrorEntry {
    // A sender that leaves out what is not for users still makes room for it, and writes nothing.
    bool is_unwritten = false;
    int32_t id = 0;
    int32_t code = 0;
    std::string name; // of the catalogue; empty when it has none for the code
    uint32_t object = 0;
    uint32_t number = 0;
    bool is_for_user = false;
    std::string sqlstate;
    std::string stored_text;
    std::string text; // the same without the blanks around it
    uint32_t object_occurred = 0;
    std::array<int32_t, 6> span = {}; // first line, column, offset, then the last
    std::string file;
    int32_t line = 0;
    std::string function;
};

struct ErrorStack {
    int32_t next_id = 0;
    int32_t user_count = 0;
    std::vector<ErrorEntry> entries; // newest first
};

// Throws MalformedMessage when the bytes are fewer than the stack's count promises, or the count is
// negative. More bytes are left alone.
ErrorStack decode_error_stack(ByteView stack);

} // namespace programs

#endif
