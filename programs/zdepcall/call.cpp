#include "call.h"

#include <filesystem>

#include "common/alloc/system_clialloc.h"
#include "common/zdmsg/zdmsg.h"
#include "common/zdmsg/zdmsg_meta_gen.h"
#include "common/zdmsg/zdmsg_setter_gen.h"

namespace zdepcall {

size_t Call::output_count() const {
    size_t count = returns.type != nullptr ? 1 : 0;
    for (const Argument &argument : arguments)
        count += argument.is_output() ? 1 : 0;
    return count;
}

std::string resolve_library(const std::string &path) {
    std::error_code error;
    if (path.starts_with('/') || !std::filesystem::exists(path, error))
        return path;
    return std::filesystem::absolute(path).string();
}

Call parse_call(const std::vector<std::string> &words) {
    Call call;
    std::vector<std::string> positional;
    for (size_t at = 0; at < words.size(); at++) {
        const std::string &word = words[at];
        if (word == "--context") {
            call.with_context = true;
        } else if (word == "--returns") {
            if (++at == words.size())
                throw UsageError("--returns: needs a type (for example --returns int)");
            call.returns = parse_return_type(words[at]);
        } else if (word.starts_with("--returns=")) {
            call.returns = parse_return_type(word.substr(word.find('=') + 1));
        } else if (word.starts_with("-")) {
            throw UsageError(word + ": not an option of a call (only --returns and --context are)");
        } else {
            positional.push_back(word);
        }
    }
    if (positional.size() < 2)
        throw UsageError("a call needs a library and a function (try 'zdepcall --help')");
    call.library = resolve_library(positional[0]);
    call.function = positional[1];
    for (size_t at = 2; at < positional.size(); at++)
        call.arguments.push_back(parse_argument(positional[at]));
    return call;
}

Bytes encode_request(const Call &call) {
    constexpr int32_t with_context_property = 1 << 8;
    std::vector<zdmsg_struct_extproc_param_t> parameters(call.arguments.size());
    // The setters take their strings without const and leave them alone.
    for (size_t at = 0; at < parameters.size(); at++) {
        const Argument &argument = call.arguments[at];
        auto *const data = const_cast<uint8_t *>(argument.data.data());
        zdmsg_struct_extproc_param_set(&parameters[at], argument.flag(), argument.capacity,
                                       static_cast<int>(argument.data.size()),
                                       reinterpret_cast<char *>(data));
    }
    zdmsg_extproc_execute_t message = {};
    zdmsg_extproc_execute_set(&message, const_cast<char *>(call.library.c_str()),
                              const_cast<char *>(call.function.c_str()),
                              call.with_context ? with_context_property : 0, call.returns.flag(),
                              static_cast<int>(parameters.size()), parameters.data());
    Bytes bytes(static_cast<size_t>(zdmsg_get_msg_raw_size(&message.base)));
    zdmsg_serialize(&_system_allocator, &message.base, reinterpret_cast<char *>(bytes.data()));
    return bytes;
}

} // namespace zdepcall
