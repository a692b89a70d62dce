// Text that a program prints: made harmless for a terminal, or as JSON.

#ifndef PROGRAM_TEXT_FORMAT_H
#define PROGRAM_TEXT_FORMAT_H

#include <string>
#include <string_view>
#include <vector>

namespace programs {

// text on one line, with everything escaped that could disturb a terminal.
std::string printable(std::string_view text);

// The same in double quotes, with quotes and backslashes escaped.
std::string quoted(std::string_view text);

// A JSON string. Bytes that are not UTF-8 become U+FFFD.
std::string json_string(std::string_view text);

bool is_utf8(std::string_view text);

// A JSON array of values that are JSON already.
std::string json_array(const std::vector<std::string> &values);

// A JSON object, built member by member in the order of the calls.
class JsonObject {
  public:
    // value is JSON already: a number, an object, an array, true.
    JsonObject &member(std::string_view name, const std::string &value);
    // value is any text; it becomes a JSON string.
    JsonObject &text(std::string_view name, std::string_view value);
    std::string str() const;

  private:
    std::string members_;
};

} // namespace programs

#endif
