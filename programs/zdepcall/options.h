// The command line.

#ifndef ZDEPCALL_OPTIONS_H
#define ZDEPCALL_OPTIONS_H

#include <cstddef>
#include <optional>
#include <string>

#include "agent.h"
#include "call.h"

namespace zdepcall {

struct Options {
    enum class Action { Call, ShowHelp, ShowVersion };

    Action action = Action::Call;
    AgentOptions agent;
    std::optional<std::string> script; // a file, "-" for standard input; else call is set
    Call call;
    size_t repeat = 1;
    bool json = false;
    bool trace = false;
    bool time = false;
    bool echo = false;
};

// Throws UsageError.
Options parse_options(int argc, char **argv);

extern const char help_text[];

} // namespace zdepcall

#endif
