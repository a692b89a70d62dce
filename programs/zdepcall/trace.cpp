#include "trace.h"

#include <string>

#include "common/zdmsg/zdmsg.h"
#include "common/zdmsg/zdmsg_meta_gen.h"
#include "native_type.h"
#include "reply.h"
#include "text_format.h"
#include "value_format.h"
#include "wire_reader.h"

namespace zdepcall {

namespace {

std::string_view as_text(ByteView bytes) {
    return {reinterpret_cast<const char *>(bytes.data()), bytes.size()};
}

// Reads the fields in order and prints each with its bytes.
class Tracer {
  public:
    Tracer(FILE *stream, ByteView message) : stream_(stream), message_(message), reader_(message) {}

    void print() {
        try {
            print_fields();
        } catch (const MalformedMessage &error) {
            std::fprintf(stream_, "  malformed: %s\n", error.what());
            lines(shown_, message_.size(), "");
        }
    }

  private:
    void print_fields() {
        const int32_t type = reader_.integer("type");
        field("type = " + std::to_string(type) + " " + zdmsg_type_to_string(type));
        field("body_size = " + std::to_string(reader_.integer("body_size")));
        field("tsn = " + std::to_string(reader_.long_integer("tsn")));
        if (type == ZDMSG_EXTPROC_EXECUTE)
            print_request();
        else if (type == ZDMSG_EXTPROC_EXECUTE_REPLY)
            print_reply();
        if (reader_.remaining() != 0)
            throw MalformedMessage(std::to_string(reader_.remaining()) + " more bytes");
    }

    void print_request() {
        text_field("library_path");
        text_field("function_name");
        const int32_t property = reader_.integer("property");
        field("property" + std::string((property >> 8 & 255) != 0 ? ": with context" : ""));
        field("return_flag: " + describe_flag(reader_.integer("return_flag")));
        const int32_t count = reader_.count("param");
        field("param: " + std::to_string(count));
        for (int32_t at = 1; at <= count; at++) {
            const std::string name = "param " + std::to_string(at);
            field(name + " flag: " + describe_flag(reader_.integer("flag")));
            field(name + " maxlen = " + std::to_string(reader_.integer("maxlen")));
            value_field(name + " data_value");
        }
    }

    void print_reply() {
        text_field("dbms_output");
        const size_t start = reader_.position();
        const ByteView stack = reader_.string("errstack");
        if (stack.empty()) {
            field("errstack: empty");
        } else {
            print_error_stack(start, stack);
        }
        const int32_t count = reader_.count("reply_param");
        field("reply_param: " + std::to_string(count));
        for (int32_t at = 1; at <= count; at++)
            value_field("reply_param " + std::to_string(at) + " data_value");
    }

    void print_error_stack(size_t start, ByteView stack) {
        const std::vector<ErrorEntry> errors = decode_error_stack(stack).entries;
        size_t end = start + 4;
        show_to(end, "errstack: " + std::to_string(stack.size()) + " bytes");
        end += error_stack::header_size;
        show_to(end, "errstack head: " + std::to_string(errors.size()) + " errors");
        for (const ErrorEntry &error : errors) {
            const size_t record = end;
            show_to(record + error_stack::code_offset, "link, id");
            show_to(record + error_stack::code_offset + 4,
                    "code = " + std::to_string(error.code) + " " + error.name);
            show_to(record + error_stack::sqlstate_offset, "obj_id, err_num, is_usrerr");
            show_to(record + error_stack::text_offset, "sqlstate = " + quoted(error.sqlstate));
            show_to(record + error_stack::text_offset + error_stack::text_size,
                    "complete_desc = " + quoted(error.text));
            show_to(record + error_stack::file_offset, "obj_id_occurred, src_pos");
            show_to(record + error_stack::line_offset, "file = " + quoted(error.file));
            show_to(record + error_stack::function_offset, "line = " + std::to_string(error.line));
            end += error_stack::record_size;
            show_to(end, "func = " + quoted(error.function));
        }
        field("end of errstack");
    }

    static std::string describe_flag(int32_t flag) {
        const auto bits = static_cast<uint32_t>(flag);
        if (bits == 0)
            return "nothing";
        std::string_view ext_name = "?";
        for (const NativeType &type : native_types()) {
            if (static_cast<uint32_t>(type.ext) == (bits & 255))
                ext_name = type.name;
        }
        const uint32_t mode = bits >> 16 & 255;
        return std::string(bits >> 24 == 1 ? "by reference, " : "by value, ") +
               (mode == 3   ? "in out, "
                : mode == 2 ? "out, "
                            : "in, ") +
               std::string(db_type_name(static_cast<zd_type_t>(bits >> 8 & 255))) + ", " +
               std::string(ext_name);
    }

    void text_field(const char *name) {
        const ByteView text = reader_.string(name);
        field(std::string(name) + " = " + quoted(as_text(text)));
    }

    void value_field(const std::string &name) {
        const ByteView value = reader_.string(name.c_str());
        field(name + ": " + std::to_string(value.size()) + " bytes");
    }

    // Shows what has been read since the last field.
    void field(const std::string &label) { show_to(reader_.position(), label); }

    void show_to(size_t end, const std::string &label) {
        lines(shown_, end, label);
        shown_ = end;
    }

    void lines(size_t from, size_t to, const std::string &label) {
        for (const HexLine &part : hex_lines(message_.subspan(from, to - from))) {
            if (part.bytes.empty()) {
                std::fputs("        *\n", stream_);
                continue;
            }
            std::string line = to_hex(part.bytes);
            if (part.at == 0 && !label.empty()) {
                line.resize(bytes_per_hex_line * 2, ' ');
                line += "  " + label;
            }
            std::fprintf(stream_, "  %04zx  %s\n", from + part.at, line.c_str());
        }
    }

    FILE *stream_;
    ByteView message_;
    WireReader reader_;
    size_t shown_ = 0; // bytes printed so far
};

} // namespace

void trace_message(FILE *stream, const char *title, ByteView message) {
    std::fprintf(stream, "%s, %zu bytes\n", title, message.size());
    Tracer(stream, message).print();
}

} // namespace zdepcall
