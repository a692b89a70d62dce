#include "support/wire.h"

#include <ostream>
#include <stdexcept>

namespace agent_test {

namespace {

constexpr size_t kStackHeaderSize = 16;
constexpr size_t kRecordSize = 936;

size_t padded(size_t length) {
    return (length / 4 + 1) * 4;
}

[[noreturn]] void malformed(const std::string &what, size_t offset) {
    throw std::runtime_error(what + " at offset " + std::to_string(offset));
}

// Takes fields off the front of bytes.
class Reader {
  public:
    explicit Reader(const std::string &bytes) : bytes_(bytes) {}

    size_t offset() const { return offset_; }

    std::string take(size_t count, const char *what) {
        if (count > bytes_.size() - offset_)
            malformed(std::string("bytes end inside ") + what, offset_);
        const std::string taken = bytes_.substr(offset_, count);
        offset_ += count;
        return taken;
    }

    uint32_t number(const char *what) {
        uint32_t value = 0;
        for (const char byte : take(4, what))
            value = value << 8 | static_cast<unsigned char>(byte);
        return value;
    }

    int integer(const char *what) { return static_cast<int>(number(what)); }

    std::string text(const char *what) {
        const size_t length = number(what);
        const std::string value = take(length, what);
        const std::string padding = take(padded(length) - length, what);
        if (padding.find_first_not_of('\0') != std::string::npos)
            malformed(std::string("padding is not zero after ") + what, offset_);
        return value;
    }

    // A fixed field with a terminated string in it.
    std::string string_in(size_t size, const char *what) {
        const std::string field = take(size, what);
        const size_t end = field.find('\0');
        if (end == std::string::npos)
            malformed(std::string("no end of string in ") + what, offset_ - size);
        return field.substr(0, end);
    }

    void skip(size_t count) { take(count, "bytes that carry nothing"); }

    void expect_end(const char *what) const {
        if (offset_ != bytes_.size())
            malformed(std::string("bytes left over after ") + what, offset_);
    }

  private:
    const std::string &bytes_;
    size_t offset_ = 0;
};

//   0  nothing (8)   8 id          12 code        16 object id   20 number   24 user error (1)
//  25  sqlstate (6)  31 text (712) 743 nothing(1) 744 object id where it occurred
// 748  span (6 x 4)  772 file (80) 852 line       856 function (80)             936
ErrorRecord read_record(Reader *reader) {
    const size_t start = reader->offset();
    ErrorRecord record;
    reader->skip(8);
    record.id = reader->integer("id");
    record.code = reader->integer("code");
    record.object_id = reader->number("object id");
    record.number = reader->number("number");
    record.user_error = reader->take(1, "user error mark")[0];
    record.sqlstate = reader->string_in(6, "sqlstate");
    record.text = reader->string_in(712, "text");
    reader->skip(1);
    record.object_id_occurred = reader->number("object id where it occurred");
    for (int i = 0; i < 6; i++)
        record.span.push_back(reader->integer("span"));
    record.file = reader->string_in(80, "file");
    record.line = reader->integer("line");
    record.function = reader->string_in(80, "function");
    if (reader->offset() - start != kRecordSize)
        malformed("an error record of the wrong size", start);
    return record;
}

} // namespace

int flag(Method method, int mode, DatabaseType database_type, NativeType native_type) {
    return static_cast<int>(
        static_cast<uint32_t>(method) << 24 | static_cast<uint32_t>(mode) << 16 |
        static_cast<uint32_t>(database_type) << 8 | static_cast<uint32_t>(native_type));
}

Param int_param(int32_t value, Mode mode) {
    return {flag(kByValue, mode, kPlsInt, kInt), 4, bytes_of(value)};
}

Param long_param(int64_t value) {
    return {flag(kByValue, kIn, kBinDouble, kLong), 8, bytes_of(value)};
}

Param double_param(double value) {
    return {flag(kByValue, kIn, kBinDouble, kDouble), 8, bytes_of(value)};
}

Param text_param(const std::string &value) {
    return text_param(value, static_cast<int>(value.size()), kIn);
}

Param text_param(const std::string &value, int maxlen, Mode mode) {
    return {flag(kByReference, mode, kDbVarchar, kString), maxlen, value};
}

Param reference_param(NativeType type, Mode mode, int maxlen, const std::string &value) {
    return {flag(kByReference, mode, kDbRaw, type), maxlen, value};
}

int int_return() {
    return flag(kByValue, 0, kPlsInt, kInt);
}

int reference_return(NativeType type) {
    return flag(kByReference, 0, kDbVarchar, type);
}

std::string big_endian(uint32_t value) {
    std::string bytes;
    for (int shift = 24; shift >= 0; shift -= 8)
        bytes += static_cast<char>(value >> shift);
    return bytes;
}

std::string text_field(const std::string &value) {
    return big_endian(static_cast<uint32_t>(value.size())) + value +
           std::string(padded(value.size()) - value.size(), '\0');
}

std::string header(int type, uint32_t body_size, uint64_t tsn) {
    return big_endian(static_cast<uint32_t>(type)) + big_endian(body_size) +
           big_endian(static_cast<uint32_t>(tsn >> 32)) + big_endian(static_cast<uint32_t>(tsn));
}

std::string message(int type, const std::string &body) {
    return header(type, static_cast<uint32_t>(body.size())) + body;
}

std::string body_of(const Call &call) {
    std::string body = text_field(call.library) + text_field(call.function) +
                       big_endian(static_cast<uint32_t>(call.property)) +
                       big_endian(static_cast<uint32_t>(call.return_flag)) +
                       big_endian(static_cast<uint32_t>(call.params.size()));
    for (const Param &param : call.params)
        body += big_endian(static_cast<uint32_t>(param.flag)) +
                big_endian(static_cast<uint32_t>(param.maxlen)) + text_field(param.value);
    return body;
}

std::string request(const Call &call) {
    return message(kRequestType, body_of(call));
}

const ErrorRecord &Reply::error() const {
    if (stack.errors.empty())
        throw std::runtime_error("a reply without an error");
    return stack.errors.front();
}

std::ostream &operator<<(std::ostream &out, const Reply &reply) {
    out << "reply of type " << reply.type << ", " << reply.values.size() << " values";
    for (const ErrorRecord &error : reply.stack.errors)
        out << ", error " << error.code << " '" << error.text << "'";
    return out;
}

void read_header(const std::string &bytes, Reply *reply) {
    Reader reader(bytes);
    reply->type = reader.integer("type");
    reply->body_size = reader.number("body size");
    const uint64_t high = reader.number("tsn");
    reply->tsn = high << 32 | reader.number("tsn");
    reader.expect_end("the header");
}

void read_body(const std::string &body, Reply *reply) {
    Reader reader(body);
    reply->output = reader.text("output");
    reply->stack_bytes = reader.text("error stack");
    const int count = reader.integer("number of values");
    if (count < 0)
        malformed("a negative number of values", reader.offset());
    for (int i = 0; i < count; i++)
        reply->values.push_back(reader.text("value"));
    reader.expect_end("the values");
    if (reply->failed())
        reply->stack = read_error_stack(reply->stack_bytes);
}

ErrorStack read_error_stack(const std::string &bytes) {
    Reader reader(bytes);
    ErrorStack stack;
    stack.id_next = reader.integer("next id");
    stack.count = reader.integer("count");
    stack.user_count = reader.integer("count of user errors");
    reader.skip(kStackHeaderSize - reader.offset());
    for (int i = 0; i < stack.count; i++)
        stack.errors.push_back(read_record(&reader));
    reader.expect_end("the error records");
    return stack;
}

} // namespace agent_test
