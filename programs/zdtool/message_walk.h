// Takes a raw message apart, field by field, by the tables of the library. What is malformed is
// found out beforehand (zdmsg_validate), so that nothing here can end the process.

#ifndef ZDTOOL_MESSAGE_WALK_H
#define ZDTOOL_MESSAGE_WALK_H

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "common/zdmsg/zdmsg_validate.h"
#include "error_stack.h"
#include "hex.h"

namespace zdtool {

struct MessageHead {
    size_t number = 0; // counted from 1
    size_t offset = 0; // of its first byte in the input
    int32_t type = 0;
    uint32_t body_size = 0;
    uint64_t tsn = 0;
};

// What there is to say when all that can be read has been read.
struct MessageEnd {
    zdmsg_flaw_t flaw = {};
    size_t missing = 0; // bytes that the header announces and the input does not have
    // From the flaw on, or behind the last field.
    size_t rest_offset = 0; // in the body
    programs::ByteView rest;
    bool bad_error_stack = false;

    bool is_malformed() const { return flaw.kind != ZDMSG_FLAW_NONE || missing != 0; }
};

// Does something with what is found, in the order in which it is found. Names are those of fields;
// they live for ever.
class MessagePrinter {
  public:
    virtual ~MessagePrinter() = default;

    virtual void begin_message(const MessageHead &head) = 0;
    virtual void end_message(const MessageHead &head, const MessageEnd &end) = 0;
    // The input ends before a header does.
    virtual void cut_header(const MessageHead &head, programs::ByteView bytes) = 0;

    virtual void integer(const char *name, int32_t value) = 0;
    virtual void text(const char *name, std::string_view value) = 0;
    virtual void bytes(const char *name, programs::ByteView value) = 0;
    virtual void column(const char *name, programs::ByteView prefix, programs::ByteView value) = 0;
    virtual void errors(const char *name, const programs::ErrorStack &stack,
                        programs::ByteView behind) = 0;
    virtual void no_error_stack(const char *name, programs::ByteView value,
                                const std::string &reason) = 0;
    // An array's count; elements follow only when it is positive, and not all when there is a flaw.
    virtual void begin_array(const char *name, int32_t count) = 0;
    virtual void end_array() = 0;
    virtual void begin_element(const char *name, int32_t index) = 0;
    virtual void end_element() = 0;
};

// "malformed at byte 44 of the body (60 of the input), param[1].flag: the body ends inside the
// field (takes 4 bytes, 2 are left)". Only for an end that is malformed.
std::string complaint(const MessageHead &head, const MessageEnd &end);

// Shows the messages that lie one behind the other in input. complain is called for each one that
// is malformed, or has an error stack that is none, after it has been shown; what comes behind is
// shown as long as headers say where it is.
void walk_messages(programs::ByteView input, MessagePrinter &printer,
                   const std::function<void(const std::string &)> &complain);

} // namespace zdtool

#endif
