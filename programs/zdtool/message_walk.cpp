#include "message_walk.h"

#include <algorithm>

#include "common/zdmsg/zdmsg.h"
#include "common/zdmsg/zdmsg_names_gen.h"
#include "common/zdmsg/zdmsg_wire.h"
#include "wire_reader.h"

namespace zdtool {

using namespace programs;

namespace {

const char *as_chars(ByteView bytes) {
    return reinterpret_cast<const char *>(bytes.data());
}

// A table, with the names of its fields.
class Table {
  public:
    static Table of_message(int type) {
        return {type, _zdmsg_meta[type].fields, _zdmsg_meta[type].field_cnt, false};
    }
    static Table of_element(int type) {
        return {type, _zdmsg_struct_meta[type].fields, _zdmsg_struct_meta[type].field_cnt, true};
    }

    int size() const { return field_cnt_; }
    const zdmsg_field_t &operator[](int at) const { return fields_[at]; }
    const char *name(int at) const {
        return is_element_ ? zdmsg_struct_field_name(type_, at) : zdmsg_field_name(type_, at);
    }
    bool is_text(int at) const {
        return (is_element_ ? zdmsg_struct_field_is_text(type_, at)
                            : zdmsg_field_is_text(type_, at)) != 0;
    }

  private:
    Table(int type, const zdmsg_field_t *fields, int field_cnt, bool is_element)
        : type_(type), fields_(fields), field_cnt_(field_cnt), is_element_(is_element) {}

    int type_;
    const zdmsg_field_t *fields_;
    int field_cnt_;
    bool is_element_;
};

class BodyWalker {
  public:
    BodyWalker(ByteView body, const zdmsg_flaw_t &flaw, MessagePrinter &printer)
        : body_(body), flaw_(flaw), printer_(printer), reader_(body) {}

    // Reads as far as the flaw, if there is one.
    void walk(int type) { fields(Table::of_message(type)); }

    size_t position() const { return reader_.position(); }
    bool found_bad_error_stack() const { return bad_error_stack_; }

  private:
    // False when the flaw has been reached.
    bool fields(const Table &table) {
        for (int at = 0; at < table.size(); at++) {
            // Flaws lie where a field begins, and every field takes up bytes.
            if (flaw_.kind != ZDMSG_FLAW_NONE &&
                static_cast<int64_t>(reader_.position()) == flaw_.offset)
                return false;
            if (!field(table, at))
                return false;
        }
        return true;
    }

    bool field(const Table &table, int at) {
        const char *const name = table.name(at);
        switch (table[at].type) {
        case ZDMSG_FIELD_INT:
            printer_.integer(name, reader_.integer(name));
            return true;
        case ZDMSG_FIELD_STR:
            string(name, table.is_text(at), reader_.string(name));
            return true;
        case ZDMSG_FIELD_COL:
            column(name);
            return true;
        case ZDMSG_FIELD_FIXED:
            printer_.bytes(name, reader_.bytes(static_cast<size_t>(table[at].type_or_len), name));
            return true;
        case ZDMSG_FIELD_ARRAY:
            return array(name, Table::of_element(table[at].type_or_len));
        default:
            return false; // a flaw, reported as such
        }
    }

    void string(const char *name, bool is_text, ByteView value) {
        const std::string_view word = name;
        if (word == "errstack" || word == "error_stack")
            error_stack_of(name, value);
        else if (is_text)
            printer_.text(name, {as_chars(value), value.size()});
        else
            printer_.bytes(name, value);
    }

    void error_stack_of(const char *name, ByteView value) {
        if (value.empty())
            return printer_.bytes(name, value);
        try {
            const ErrorStack stack = decode_error_stack(value);
            printer_.errors(name, stack,
                            value.subspan(error_stack::header_size +
                                          stack.entries.size() * error_stack::record_size));
        } catch (const MalformedMessage &error) {
            bad_error_stack_ = true;
            printer_.no_error_stack(name, value, error.what());
        }
    }

    void column(const char *name) {
        const size_t left = reader_.remaining();
        int32_t prefix_size = 0;
        const int32_t length = zdmsg_column_len(as_chars(body_) + reader_.position(),
                                                static_cast<int64_t>(left), &prefix_size);
        const auto prefix = static_cast<size_t>(prefix_size);
        const size_t whole = prefix + static_cast<size_t>(length);
        const ByteView value = reader_.bytes(padded_length(whole), name).first(whole);
        printer_.column(name, value.first(prefix), value.subspan(prefix));
    }

    bool array(const char *name, const Table &element) {
        const int32_t count = reader_.integer(name);
        bool whole = true;
        printer_.begin_array(name, count);
        for (int32_t at = 0; at < count && whole; at++) {
            printer_.begin_element(name, at);
            whole = fields(element);
            printer_.end_element();
        }
        printer_.end_array();
        return whole;
    }

    ByteView body_;
    const zdmsg_flaw_t &flaw_;
    MessagePrinter &printer_;
    WireReader reader_;
    bool bad_error_stack_ = false;
};

std::string place_of(const MessageHead &head, const zdmsg_flaw_t &flaw) {
    const auto in_input = head.offset + ZDMSG_HDR_SIZE + static_cast<size_t>(flaw.offset);
    return "byte " + std::to_string(flaw.offset) + " of the body (" + std::to_string(in_input) +
           " of the input)" + (flaw.path[0] != '\0' ? ", " + std::string(flaw.path) : "");
}

std::string figures_of(const zdmsg_flaw_t &flaw) {
    switch (flaw.kind) {
    case ZDMSG_FLAW_CUT:
    case ZDMSG_FLAW_LENGTH:
        return " (takes " + std::to_string(flaw.found) + " bytes, " + std::to_string(flaw.allowed) +
               " are left)";
    case ZDMSG_FLAW_NEGATIVE_LENGTH:
        return " (" + std::to_string(flaw.found) + ")";
    case ZDMSG_FLAW_NESTING:
        return " (" + std::to_string(flaw.allowed) + " levels)";
    default:
        return "";
    }
}

// The message at the start of input, which holds a header at least. Returns its size.
size_t walk_message(ByteView input, MessageHead &head, MessageEnd &end, MessagePrinter &printer) {
    WireReader reader(input);
    head.type = reader.integer("type");
    head.body_size = static_cast<uint32_t>(reader.integer("body_size"));
    head.tsn = reader.long_integer("tsn");
    printer.begin_message(head);
    const ByteView body = input.subspan(
        ZDMSG_HDR_SIZE, std::min<size_t>(head.body_size, input.size() - ZDMSG_HDR_SIZE));
    end.missing = head.body_size - body.size();
    // No bytes at all still have an address.
    const char *const bytes = body.empty() ? "" : as_chars(body);
    zdmsg_validate(head.type, bytes, body.size(), nullptr, &end.flaw);
    if (end.flaw.kind != ZDMSG_FLAW_TYPE) {
        BodyWalker walker(body, end.flaw, printer);
        walker.walk(head.type);
        end.rest_offset = walker.position();
        end.bad_error_stack = walker.found_bad_error_stack();
    }
    end.rest = body.subspan(end.rest_offset);
    printer.end_message(head, end);
    return ZDMSG_HDR_SIZE + body.size();
}

} // namespace

std::string complaint(const MessageHead &head, const MessageEnd &end) {
    std::string text;
    if (end.missing != 0)
        text = "cut off: the input has " + std::to_string(head.body_size - end.missing) +
               " of the " + std::to_string(head.body_size) + " bytes of the body";
    if (end.flaw.kind == ZDMSG_FLAW_TYPE)
        return (text.empty() ? "" : text + "; ") + "of unknown type " + std::to_string(head.type);
    if (end.flaw.kind == ZDMSG_FLAW_NONE)
        return text;
    return (text.empty() ? "" : text + "; ") + "malformed at " + place_of(head, end.flaw) + ": " +
           end.flaw.reason + figures_of(end.flaw);
}

void walk_messages(ByteView input, MessagePrinter &printer,
                   const std::function<void(const std::string &)> &complain) {
    MessageHead head;
    while (head.offset < input.size()) {
        head.number++;
        const std::string which = "message " + std::to_string(head.number) + ": ";
        const ByteView rest = input.subspan(head.offset);
        if (rest.size() < ZDMSG_HDR_SIZE) {
            printer.cut_header(head, rest);
            complain(which + "cut off in its header");
            return;
        }
        MessageEnd end;
        const size_t size = walk_message(rest, head, end, printer);
        if (end.is_malformed())
            complain(which + complaint(head, end));
        else if (end.bad_error_stack)
            complain(which + "what should be its error stack is none");
        head.offset += size;
    }
}

} // namespace zdtool
