#include "options.h"

#include <charconv>
#include <cmath>
#include <cstring>
#include <vector>

#include "option_reader.h"

namespace zdepcall {

const char help_text[] =
    R"(Usage: zdepcall [OPTION...] LIBRARY FUNCTION [ARGUMENT...] [--returns TYPE] [--context]
       zdepcall [OPTION...] --script FILE

Call a routine of a shared library through the database agent, without a database: start an agent,
play the server for it, print what comes back.

The call:
  LIBRARY            path of the shared library; a name without a slash that is no file here is
                     left to the loader's search
  FUNCTION           symbol of the routine
  ARGUMENT           [in:|out:|inout:|ref:][&]TYPE[/DBTYPE][(CAPACITY)][=VALUE]
  --returns TYPE     what the routine returns; &TYPE for a pointer to it; left out: nothing
  --context          the routine takes an ExtProcContext * ahead of its arguments

Arguments:
  int=5  double=2.5  char=65              by value
  &int=5 (or ref:int=5)                   pointer to a value
  string=abc  raw=0a0b  zdnumber=02c106   pointer; bytes are written in hexadecimal
  out:long  out:string(100)               pointer; the routine writes, at most CAPACITY bytes
  inout:int=5  'inout:raw(16)=0a0b'       pointer; the routine reads and writes
  Numbers: char uchar short ushort int uint long ulong size_t float double
  Always by reference: string raw zdnumber zdstring zdloblocator zdraw zddate zdtimestamp zdtstz
  zdtsltz zdinterval zdcoll. A routine learns neither their length nor their capacity.
  A result raw or zdraw comes back as 2000 bytes, an output one as its capacity, at most 2000.

DBTYPE is the database type that the value travels under. By value, char to int, ushort, uint go as
PLS_INT (4 bytes), float as BIN_FLOAT (4), long, ulong, size_t and double as BIN_DOUBLE (8: the only
type of that size); the agent takes only these, BIN_INT and NONE (no value: the routine gets 0). By
reference: string VARCHAR, raw RAW, zdnumber NUMBER, zddate DATE and so on.

The agent:
  --agent PROGRAM    the agent host (default: zdepa beside this program, else in PATH)
  --in-process       no agent host: use the library's direct form in a child of this program; it
                     also checks that the routine kept to the buffers of its outputs
  --home DIR         ZD_HOME of the agent (default: a new folder, removed unless the agent dies)
  --timeout SECONDS  kill an agent that does not answer a call in time (default: wait)

More calls, other output:
  --script FILE      one call a line, written as on the command line, all through one agent;
                     # begins a comment; - is standard input
  --repeat N         make the call N times; print the first reply and how long they took
  --echo             with --script: print each line before its reply
  --time             print how long each call took
  --json             print one JSON object a call
  --trace            print both messages in hexadecimal, field by field, to standard error
  --version          print the version and exit
  --help             print this text and exit

Exit status: 0 success, 1 the routine or the agent reported an error, 2 wrong usage, 3 the agent
died: standard error says how.
)";

namespace {

enum LongOption {
    RETURNS = OptionReader::FIRST_LONG,
    CONTEXT,
    AGENT,
    IN_PROCESS,
    HOME,
    TIMEOUT,
    SCRIPT,
    REPEAT,
    ECHO_LINES,
    TIME,
    JSON,
    TRACE,
    VERSION,
    HELP
};

constexpr option long_options[] = {{"returns", required_argument, nullptr, RETURNS},
                                   {"context", no_argument, nullptr, CONTEXT},
                                   {"agent", required_argument, nullptr, AGENT},
                                   {"in-process", no_argument, nullptr, IN_PROCESS},
                                   {"home", required_argument, nullptr, HOME},
                                   {"timeout", required_argument, nullptr, TIMEOUT},
                                   {"script", required_argument, nullptr, SCRIPT},
                                   {"repeat", required_argument, nullptr, REPEAT},
                                   {"echo", no_argument, nullptr, ECHO_LINES},
                                   {"time", no_argument, nullptr, TIME},
                                   {"json", no_argument, nullptr, JSON},
                                   {"trace", no_argument, nullptr, TRACE},
                                   {"version", no_argument, nullptr, VERSION},
                                   {"help", no_argument, nullptr, HELP},
                                   {nullptr, 0, nullptr, 0}};

std::chrono::duration<double> parse_timeout(const char *text) {
    double seconds = 0;
    const char *const end = text + std::strlen(text);
    const auto [stop, error] = std::from_chars(text, end, seconds);
    if (stop != end || error != std::errc() || !(seconds > 0) || seconds > 1e6)
        throw UsageError(std::string("--timeout ") + text +
                         ": not a time (give seconds above 0, for example 2.5)");
    return std::chrono::duration<double>(seconds);
}

size_t parse_repeat(const char *text) {
    size_t count = 0;
    const char *const end = text + std::strlen(text);
    const auto [stop, error] = std::from_chars(text, end, count);
    if (stop != end || error != std::errc() || count < 1 || count > 100'000'000)
        throw UsageError(std::string("--repeat ") + text +
                         ": not a number of calls (give 1 to 100000000)");
    return count;
}

void check_combination(const Options &options, const std::vector<std::string> &call_words) {
    if (options.agent.in_process && !options.agent.program.empty())
        throw UsageError("--in-process and --agent: both name who serves the call (give one)");
    if (options.script && !call_words.empty())
        throw UsageError(call_words[0] + ": unexpected with --script (write the call in the file)");
    if (options.script && options.repeat > 1)
        throw UsageError("--repeat: not with --script (write the call more than once)");
    if (options.echo && !options.script)
        throw UsageError("--echo: only with --script");
    if (options.echo && options.json)
        throw UsageError("--echo: not with --json (each object names its call)");
}

} // namespace

Options parse_options(int argc, char **argv) {
    Options options;
    std::vector<std::string> call_words;
    OptionReader reader(argc, argv, "", long_options, "try 'zdepcall --help'");
    for (int found = reader.next(); found != OptionReader::END; found = reader.next()) {
        switch (found) {
        case OptionReader::OPERAND:
            call_words.emplace_back(reader.value());
            break;
        case RETURNS:
            call_words.insert(call_words.end(), {"--returns", reader.value()});
            break;
        case CONTEXT:
            call_words.emplace_back("--context");
            break;
        case AGENT:
            options.agent.program = reader.value();
            break;
        case IN_PROCESS:
            options.agent.in_process = true;
            break;
        case HOME:
            options.agent.home = reader.value();
            break;
        case TIMEOUT:
            options.agent.timeout = parse_timeout(reader.value());
            break;
        case SCRIPT:
            options.script = reader.value();
            break;
        case REPEAT:
            options.repeat = parse_repeat(reader.value());
            break;
        case ECHO_LINES:
            options.echo = true;
            break;
        case TIME:
            options.time = true;
            break;
        case JSON:
            options.json = true;
            break;
        case TRACE:
            options.trace = true;
            break;
        case VERSION:
            options.action = Options::Action::ShowVersion;
            return options;
        case HELP:
            options.action = Options::Action::ShowHelp;
            return options;
        }
    }
    check_combination(options, call_words);
    if (!options.script)
        options.call = parse_call(call_words);
    return options;
}

} // namespace zdepcall
