#include "reply.h"

#include <algorithm>

#include "common/zd_err_info.h"
#include "common/zdmsg/zdmsg_meta_gen.h"

namespace zdepcall {

namespace {

// Codes of user programs share one row, which is not found under their own number.
std::string catalogue_name(int32_t code) {
    const zd_err_info_t *const row =
        zd_err_is_user_code(code) ? zd_get_err_info(code) : zd_get_err_info_for_zderr(code);
    return row != nullptr && row->name != nullptr ? row->name : "";
}

// The text of a field up to its zero, or all of it when it has none.
std::string field_text(ByteView record, size_t offset, size_t size) {
    const ByteView field = record.subspan(offset, size);
    return {field.begin(), std::find(field.begin(), field.end(), uint8_t{0})};
}

std::string trimmed(const std::string &text) {
    const size_t first = text.find_first_not_of(" \n");
    if (first == std::string::npos)
        return {};
    return text.substr(first, text.find_last_not_of(" \n") - first + 1);
}

int32_t integer_at(ByteView record, size_t offset) {
    return WireReader(record.subspan(offset, 4)).integer("error record");
}

ErrorEntry decode_record(ByteView record) {
    using namespace error_stack;
    ErrorEntry entry;
    entry.code = integer_at(record, code_offset);
    entry.name = catalogue_name(entry.code);
    entry.sqlstate = field_text(record, sqlstate_offset, sqlstate_size);
    entry.text = trimmed(field_text(record, text_offset, text_size));
    entry.file = field_text(record, file_offset, file_size);
    entry.line = integer_at(record, line_offset);
    entry.function = field_text(record, function_offset, function_size);
    return entry;
}

} // namespace

std::vector<ErrorEntry> decode_error_stack(ByteView stack) {
    WireReader reader(stack);
    reader.integer("error stack");
    const int32_t count = reader.count("error stack");
    reader.bytes(error_stack::header_size - reader.position(), "error stack");
    std::vector<ErrorEntry> errors;
    for (int32_t at = 0; at < count; at++)
        errors.push_back(decode_record(reader.bytes(error_stack::record_size, "error record")));
    return errors;
}

Reply decode_reply(ByteView message, const Call &call) {
    WireReader reader(message);
    const int32_t type = reader.integer("type");
    if (type != ZDMSG_EXTPROC_EXECUTE_REPLY)
        throw MalformedMessage("a message of type " + std::to_string(type) + ", not a reply (" +
                               std::to_string(ZDMSG_EXTPROC_EXECUTE_REPLY) + ")");
    reader.integer("body size");
    reader.long_integer("tsn");
    Reply reply;
    const ByteView output = reader.string("dbms_output");
    reply.dbms_output.assign(output.begin(), output.end());
    const ByteView stack = reader.string("errstack");
    reply.is_error = !stack.empty();
    if (reply.is_error)
        reply.errors = decode_error_stack(stack);
    const int32_t count = reader.count("reply_param");
    for (int32_t at = 0; at < count; at++) {
        const ByteView value = reader.string("data_value");
        reply.values.emplace_back(value.begin(), value.end());
    }
    if (reader.remaining() != 0)
        throw MalformedMessage(std::to_string(reader.remaining()) + " bytes after its last field");
    if (!reply.is_error && reply.values.size() != call.output_count())
        throw MalformedMessage(std::to_string(reply.values.size()) + " values, the call has " +
                               std::to_string(call.output_count()));
    return reply;
}

} // namespace zdepcall
