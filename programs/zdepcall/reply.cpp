#include "reply.h"

#include "common/zdmsg/zdmsg_meta_gen.h"

namespace zdepcall {

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
        reply.errors = decode_error_stack(stack).entries;
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
