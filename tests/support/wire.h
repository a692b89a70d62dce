// The protocol's bytes as these tests understand them: requests written and replies read from the
// wire rules alone, without the library's codec or its reader of error stacks.
//
//   message   type 4 | body size 4 | tsn 8 | body             all integers big-endian
//   text      length 4 | bytes | zeros to the next multiple of 4 above the length
//   request   139: library text, function text, property 4, return flag 4, count 4, parameters
//   parameter flag 4 | maximum 4 | value text
//   reply     140: output text, error stack text, count 4, value texts

#ifndef TESTS_SUPPORT_WIRE_H
#define TESTS_SUPPORT_WIRE_H

#include <stdint.h>

#include <iosfwd>
#include <string>
#include <vector>

namespace agent_test {

constexpr int kRequestType = 139;
constexpr int kReplyType = 140;
constexpr size_t kHeaderSize = 16;
constexpr size_t kMaxBodySize = 4096;
constexpr size_t kMaxReplySize = 4096; // with its header
constexpr int kWithContext = 0x100;

enum Method { kByValue = 0, kByReference = 1 };
enum Mode { kIn = 1, kOut = 2, kInOut = 3 };
enum DatabaseType {
    kNoType = 0,
    kDbNumber = 1,
    kDbVarchar = 3,
    kDbRaw = 4,
    kBinFloat = 23,
    kBinDouble = 24,
    kPlsInt = 26,
    kBinInt = 27
};
enum NativeType {
    kNone = 0,
    kChar = 1,
    kUchar = 2,
    kShort = 3,
    kUshort = 4,
    kInt = 5,
    kUint = 6,
    kLong = 7,
    kUlong = 8,
    kSizeT = 9,
    kFloat = 10,
    kDouble = 11,
    kString = 12,
    kRaw = 13,
    kNumber = 14,
    kDbString = 15,
    kDbRawType = 17,
    kDbDate = 18
};

// A parameter's flag, and the request's return flag.
int flag(Method method, int mode, DatabaseType database_type, NativeType native_type);
constexpr int kNoReturn = 0;

// Bytes of a value as this machine keeps it, which is how values travel.
template <class T>
std::string bytes_of(T value) {
    return std::string(reinterpret_cast<const char *>(&value), sizeof value);
}

struct Param {
    int flag;
    int maxlen;
    std::string value;
};

Param int_param(int32_t value, Mode mode = kIn);
Param long_param(int64_t value);
Param double_param(double value);
Param text_param(const std::string &value);                                 // IN
Param text_param(const std::string &value, int maxlen, Mode mode = kInOut); // OUT
Param reference_param(NativeType type, Mode mode, int maxlen, const std::string &value);

int int_return();
int reference_return(NativeType type);

struct Call {
    std::string library;
    std::string function;
    int return_flag = kNoReturn;
    std::vector<Param> params = {};
    int property = 0;
};

// Builders of wire bytes.
std::string big_endian(uint32_t value);
std::string text_field(const std::string &value);
std::string header(int type, uint32_t body_size, uint64_t tsn = 0);
std::string message(int type, const std::string &body);
std::string body_of(const Call &call);
std::string request(const Call &call);

// One record of a serialized error stack.
struct ErrorRecord {
    int id;
    int code;
    uint32_t object_id;
    uint32_t number;
    char user_error; // '1' or '0'
    std::string sqlstate;
    std::string text;
    uint32_t object_id_occurred;
    std::vector<int> span; // line, column, offset of its start, then of its end
    std::string file;
    int line;
    std::string function;
};

struct ErrorStack {
    int id_next = 0;
    int count = 0;
    int user_count = 0;
    std::vector<ErrorRecord> errors; // newest first
};

struct Reply {
    int type = 0;
    uint32_t body_size = 0;
    uint64_t tsn = 0;
    std::string output;
    std::string stack_bytes; // empty in a reply to a call that went well
    ErrorStack stack;
    std::vector<std::string> values;

    bool failed() const { return !stack_bytes.empty(); }
    // The newest error's code; 0 without one.
    int code() const { return stack.errors.empty() ? 0 : stack.errors.front().code; }
    // The newest error; throws without one.
    const ErrorRecord &error() const;
};

std::ostream &operator<<(std::ostream &out, const Reply &reply);

// Read what the agent sent. They throw std::runtime_error, with the offset, on anything that is
// not exactly as the rules say: padding that is not zero, bytes left over, strings without an end.
void read_header(const std::string &bytes, Reply *reply);
void read_body(const std::string &body, Reply *reply);
ErrorStack read_error_stack(const std::string &bytes);

} // namespace agent_test

#endif
