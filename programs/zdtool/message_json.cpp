#include "common/zdmsg/zdmsg_meta_gen.h"
#include "common/zdmsg/zdmsg_record.h"
#include "message_printers.h"
#include "text_format.h"

namespace zdtool {

using namespace programs;

namespace {

std::string as_text(ByteView bytes) {
    return {bytes.begin(), bytes.end()};
}

std::string json_bytes(ByteView bytes) {
    return JsonObject().text("hex", to_hex(bytes)).text("text", as_text(bytes)).str();
}

std::string json_number(int64_t number) {
    return std::to_string(number);
}

std::string json_position(const ErrorEntry &error, size_t first) {
    return JsonObject()
        .member("line", json_number(error.span[first]))
        .member("col", json_number(error.span[first + 1]))
        .member("offset", json_number(error.span[first + 2]))
        .str();
}

std::string json_error(const ErrorEntry &error) {
    if (error.is_unwritten)
        return "null";
    JsonObject object;
    object.member("id", json_number(error.id))
        .member("code", json_number(error.code))
        .text("name", error.name)
        .member("obj_id", json_number(error.object))
        .member("err_num", json_number(error.number))
        .member("is_usrerr", error.is_for_user ? "true" : "false")
        .text("sqlstate", error.sqlstate)
        .text("complete_desc", error.stored_text)
        .member("obj_id_occurred", json_number(error.object_occurred))
        .member("first", json_position(error, 0))
        .member("last", json_position(error, 3))
        .text("file", error.file)
        .member("line", json_number(error.line))
        .text("func", error.function);
    return object.str();
}

std::string json_complaint(const MessageHead &head, const MessageEnd &end) {
    JsonObject object;
    object.text("reason", complaint(head, end));
    if (end.flaw.kind != ZDMSG_FLAW_NONE)
        object.member("body_offset", json_number(end.flaw.offset)).text("field", end.flaw.path);
    return object.member("missing", std::to_string(end.missing)).str();
}

// Writes as it goes: what is open is kept on no stack but the caller's.
class JsonPrinter : public MessagePrinter {
  public:
    explicit JsonPrinter(FILE *stream) : stream_(stream) {}

    void begin_message(const MessageHead &head) override {
        first_ = true;
        put("{\"offset\":" + std::to_string(head.offset) +
            ",\"type\":" + std::to_string(head.type) +
            ",\"name\":" + json_string(zdmsg_type_to_string(head.type)) +
            ",\"body_size\":" + std::to_string(head.body_size) +
            ",\"tsn\":" + std::to_string(head.tsn) + ",\"fields\":{");
    }

    void end_message(const MessageHead &head, const MessageEnd &end) override {
        put("},\"malformed\":" + (end.is_malformed() ? json_complaint(head, end) : "null"));
        put(",\"rest\":" + json_bytes(end.rest) + "}\n");
    }

    void cut_header(const MessageHead &head, ByteView bytes) override {
        put("{\"offset\":" + std::to_string(head.offset) +
            R"(,"malformed":{"reason":"cut off in its header","missing":)" +
            std::to_string(ZDMSG_HDR_SIZE - bytes.size()) + "},\"rest\":" + json_bytes(bytes) +
            "}\n");
    }

    void integer(const char *name, int32_t value) override { member(name, json_number(value)); }

    // What is no text after all is shown like bytes, so that nothing of it is lost.
    void text(const char *name, std::string_view value) override {
        const auto *const data = reinterpret_cast<const uint8_t *>(value.data());
        member(name, is_utf8(value) ? json_string(value) : json_bytes({data, value.size()}));
    }

    void bytes(const char *name, ByteView value) override { member(name, json_bytes(value)); }

    void column(const char *name, ByteView prefix, ByteView value) override {
        member(name, JsonObject()
                         .text("prefix", to_hex(prefix))
                         .text("hex", to_hex(value))
                         .text("text", as_text(value))
                         .str());
    }

    void errors(const char *name, const ErrorStack &stack, ByteView behind) override {
        std::vector<std::string> errors;
        for (const ErrorEntry &error : stack.entries)
            errors.push_back(json_error(error));
        member(name, JsonObject()
                         .member("id_next", json_number(stack.next_id))
                         .member("usrcount", json_number(stack.user_count))
                         .member("errors", json_array(errors))
                         .member("rest", json_bytes(behind))
                         .str());
    }

    void no_error_stack(const char *name, ByteView value, const std::string &reason) override {
        member(name, JsonObject()
                         .text("malformed", reason)
                         .text("hex", to_hex(value))
                         .text("text", as_text(value))
                         .str());
    }

    // A negative count has no elements, and an empty array does not tell it from 0.
    void begin_array(const char *name, int32_t count) override {
        member(name, count < 0 ? "{\"count\":" + std::to_string(count) + ",\"elements\":[" : "[");
        is_negative_ = count < 0;
        first_ = true;
    }

    void end_array() override {
        put(is_negative_ ? "]}" : "]");
        is_negative_ = false;
        first_ = false;
    }

    void begin_element(const char *, int32_t) override {
        comma();
        put("{");
        first_ = true;
    }

    void end_element() override {
        put("}");
        first_ = false;
    }

  private:
    void member(const char *name, const std::string &value) {
        comma();
        put(json_string(name) + ":" + value);
        first_ = false;
    }

    void comma() {
        if (!first_)
            put(",");
    }

    void put(const std::string &text) { std::fwrite(text.data(), 1, text.size(), stream_); }

    FILE *stream_;
    bool first_ = true;        // nothing has been put between the open brackets yet
    bool is_negative_ = false; // the array that is open; it ends before another begins
};

} // namespace

std::unique_ptr<MessagePrinter> new_json_printer(FILE *stream) {
    return std::make_unique<JsonPrinter>(stream);
}

} // namespace zdtool
