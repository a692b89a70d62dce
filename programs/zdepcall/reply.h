// A reply, read without trust.

#ifndef ZDEPCALL_REPLY_H
#define ZDEPCALL_REPLY_H

#include <cstdint>
#include <string>
#include <vector>

#include "call.h"
#include "error_stack.h"
#include "wire_reader.h"

namespace zdepcall {

struct Reply {
    bool is_error = false;
    std::string dbms_output;
    std::vector<ErrorEntry> errors; // newest first; may be empty in an error reply
    std::vector<Bytes> values;      // the result first, then the outputs in order
};

// Throws MalformedMessage. message is a whole message, header included.
Reply decode_reply(ByteView message, const Call &call);

} // namespace zdepcall

#endif
