// One call of a routine, and its way onto the wire.

#ifndef ZDEPCALL_CALL_H
#define ZDEPCALL_CALL_H

#include <string>
#include <vector>

#include "argument.h"

namespace zdepcall {

struct Call {
    std::string library; // as the agent gets it
    std::string function;
    bool with_context = false;
    ReturnType returns;
    std::vector<Argument> arguments;

    // Values that a successful reply carries.
    size_t output_count() const;
};

// The words of one call: LIBRARY FUNCTION [ARGUMENT...] [--returns TYPE] [--context].
// Throws UsageError.
Call parse_call(const std::vector<std::string> &words);

// The path that opens the library which the user means: a file that exists relative to the current
// directory gets its absolute path, since the agent's loader would search a bare name elsewhere.
std::string resolve_library(const std::string &path);

// The whole request message, header included, written by the library's codec.
Bytes encode_request(const Call &call);

} // namespace zdepcall

#endif
