#include "error_stack.h"

#include <algorithm>

#include "common/zd_err_info.h"
#include "wire_reader.h"

namespace programs {

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
    entry.is_unwritten = std::ranges::all_of(record, [](uint8_t byte) { return byte == 0; });
    entry.id = integer_at(record, id_offset);
    entry.code = integer_at(record, code_offset);
    entry.name = catalogue_name(entry.code);
    entry.object = static_cast<uint32_t>(integer_at(record, object_offset));
    entry.number = static_cast<uint32_t>(integer_at(record, number_offset));
    entry.is_for_user = record[for_user_offset] == '1';
    entry.sqlstate = field_text(record, sqlstate_offset, sqlstate_size);
    entry.stored_text = field_text(record, text_offset, text_size);
    entry.text = trimmed(entry.stored_text);
    entry.object_occurred = static_cast<uint32_t>(integer_at(record, object_occurred_offset));
    for (size_t at = 0; at < entry.span.size(); at++)
        entry.span[at] = integer_at(record, span_offset + at * 4);
    entry.file = field_text(record, file_offset, file_size);
    entry.line = integer_at(record, line_offset);
    entry.function = field_text(record, function_offset, function_size);
    return entry;
}

} // namespace

ErrorStack decode_error_stack(ByteView stack) {
    WireReader reader(stack);
    ErrorStack decoded;
    decoded.next_id = reader.integer("error stack");
    const int32_t count = reader.count("error stack");
    decoded.user_count = reader.integer("error stack");
    reader.bytes(error_stack::header_size - reader.position(), "error stack");
    for (int32_t at = 0; at < count; at++)
        decoded.entries.push_back(
            decode_record(reader.bytes(error_stack::record_size, "error record")));
    return decoded;
}

} // namespace programs
