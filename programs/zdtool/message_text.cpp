#include "common/zdmsg/zdmsg_meta_gen.h"
#include "message_printers.h"
#include "text_format.h"

namespace zdtool {

using namespace programs;

namespace {

constexpr int indent_width = 2;

std::string counted(size_t count, const char *what) {
    return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

// Four bytes a group, and the same bytes as characters.
std::string hex_and_text(ByteView line) {
    std::string hex;
    std::string text;
    for (size_t at = 0; at < line.size(); at++) {
        hex += (at != 0 && at % 4 == 0 ? " " : "") + to_hex(line.subspan(at, 1));
        text += line[at] >= 0x20 && line[at] < 0x7f ? static_cast<char>(line[at]) : '.';
    }
    hex.resize(bytes_per_hex_line * 2 + bytes_per_hex_line / 4 - 1, ' ');
    return hex + "  " + text;
}

class TextPrinter : public MessagePrinter {
  public:
    explicit TextPrinter(FILE *stream) : stream_(stream) {}

    void begin_message(const MessageHead &head) override {
        depth_ = 0;
        if (head.number != 1)
            std::fputc('\n', stream_);
        line("message " + std::to_string(head.number) + " at byte " + std::to_string(head.offset) +
             ": " + zdmsg_type_to_string(head.type));
        depth_ = 1;
        line("type = " + std::to_string(head.type));
        line("body_size = " + std::to_string(head.body_size));
        line("tsn = " + std::to_string(head.tsn));
    }

    void end_message(const MessageHead &head, const MessageEnd &end) override {
        depth_ = 1;
        if (end.is_malformed())
            line("! " + complaint(head, end));
        if (end.rest.empty())
            return;
        line(end.is_malformed() ? "! not read: " + counted(end.rest.size(), "byte")
                                : counted(end.rest.size(), "byte") + " behind the last field");
        dump(end.rest);
    }

    void cut_header(const MessageHead &head, ByteView bytes) override {
        depth_ = 0;
        if (head.number != 1)
            std::fputc('\n', stream_);
        line("message " + std::to_string(head.number) + " at byte " + std::to_string(head.offset) +
             ": cut off in its header");
        depth_ = 1;
        dump(bytes);
    }

    void integer(const char *name, int32_t value) override {
        char hex[16] = "";
        if (value < 0 || value > 0xffff)
            std::snprintf(hex, sizeof hex, " (0x%08x)", static_cast<unsigned>(value));
        line(name + (" = " + std::to_string(value)) + hex);
    }

    void text(const char *name, std::string_view value) override {
        line(name + (" = " + quoted(value)));
    }

    void bytes(const char *name, ByteView value) override {
        line(name + (": " + counted(value.size(), "byte")));
        dump(value);
    }

    void column(const char *name, ByteView prefix, ByteView value) override {
        line(name + (": " + counted(value.size(), "byte")) + " behind the prefix " +
             to_hex(prefix));
        dump(value);
    }

    void errors(const char *name, const ErrorStack &stack, ByteView behind) override {
        line(name + (": " + counted(stack.entries.size(), "error")) + ", " +
             std::to_string(stack.user_count) +
             " for users, id_next = " + std::to_string(stack.next_id));
        depth_++;
        int32_t at = 0;
        for (const ErrorEntry &error : stack.entries) {
            begin_element(name, at++);
            error_fields(error);
            end_element();
        }
        if (!behind.empty()) {
            line(counted(behind.size(), "byte") + " behind the last error");
            dump(behind);
        }
        depth_--;
    }

    void no_error_stack(const char *name, ByteView value, const std::string &reason) override {
        line("! " + (name + (": no error stack: " + reason)));
        bytes(name, value);
    }

    void begin_array(const char *name, int32_t count) override {
        line(name + (": " + std::to_string(count)) + (count == 1 ? " element" : " elements"));
        depth_++;
    }

    void end_array() override { depth_--; }

    void begin_element(const char *name, int32_t index) override {
        line(name + ("[" + std::to_string(index)) + "]");
        depth_++;
    }

    void end_element() override { depth_--; }

  private:
    void error_fields(const ErrorEntry &error) {
        if (error.is_unwritten)
            return line("not written");
        line("id = " + std::to_string(error.id));
        line("code = " + std::to_string(error.code) + (error.name.empty() ? "" : " " + error.name));
        line("obj_id = " + std::to_string(error.object));
        line("err_num = " + std::to_string(error.number));
        line("is_usrerr = " + std::to_string(error.is_for_user ? 1 : 0));
        text("sqlstate", error.sqlstate);
        text("complete_desc", error.stored_text);
        line("obj_id_occurred = " + std::to_string(error.object_occurred));
        line("src_pos = " + position(error, 0) + " to " + position(error, 3));
        text("file", error.file);
        line("line = " + std::to_string(error.line));
        text("func", error.function);
    }

    // Line, column, offset.
    static std::string position(const ErrorEntry &error, size_t first) {
        return std::to_string(error.span[first]) + ":" + std::to_string(error.span[first + 1]) +
               " (" + std::to_string(error.span[first + 2]) + ")";
    }

    void line(const std::string &text) {
        std::fprintf(stream_, "%*s%s\n", depth_ * indent_width, "", text.c_str());
    }

    void dump(ByteView bytes) {
        depth_++;
        for (const HexLine &part : hex_lines(bytes))
            line(part.bytes.empty() ? "*" : hex_and_text(part.bytes));
        depth_--;
    }

    FILE *stream_;
    int depth_ = 0;
};

} // namespace

std::unique_ptr<MessagePrinter> new_text_printer(FILE *stream) {
    return std::make_unique<TextPrinter>(stream);
}

} // namespace zdtool
