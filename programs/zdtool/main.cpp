// zdtool: looks things up and takes things apart, for people who work with the library's data.

#include <cstdio>
#include <cstring>
#include <exception>
#include <string>

#include "command.h"
#include "program_version.h"
#include "usage_error.h"

namespace zdtool {

namespace {

struct Command {
    const char *name;
    const char *summary;
    int (*run)(int argc, char **argv);
};

constexpr Command commands[] = {
    {"error", "look up an error by code, by name or by a word of its texts", run_error},
    {"literals", "show the literals of a SQL statement, and it without them", run_literals},
    {"message", "show raw messages field by field, and say where one is malformed", run_message},
};

void print_help() {
    std::fputs("Usage: zdtool COMMAND [OPTION...] [ARGUMENT...]\n\n"
               "Look things up and take things apart, for people who work with libzdepl's data.\n\n"
               "Commands:\n",
               stdout);
    for (const Command &command : commands)
        std::printf("  %-10s %s\n", command.name, command.summary);
    std::fputs("\n  --version  print the version and exit\n"
               "  --help     print this text and exit; zdtool COMMAND --help says more\n\n"
               "Exit status: 0 success, 1 not found or malformed, 2 wrong usage.\n",
               stdout);
}

int run(int argc, char **argv) {
    if (argc < 2)
        throw programs::UsageError("no command given (try 'zdtool --help')");
    const std::string word = argv[1];
    if (word == "--help" || word == "-h") {
        print_help();
        return STATUS_OK;
    }
    if (word == "--version") {
        std::printf("zdtool %s\n", program_version());
        return STATUS_OK;
    }
    for (const Command &command : commands) {
        if (word == command.name)
            return command.run(argc - 1, argv + 1);
    }
    throw programs::UsageError(word + ": no such command (try 'zdtool --help')");
}

int finish_output(int status) {
    if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0)
        return status;
    std::perror("zdtool: standard output");
    return STATUS_USAGE;
}

} // namespace

} // namespace zdtool

int main(int argc, char **argv) {
    try {
        return zdtool::finish_output(zdtool::run(argc, argv));
    } catch (const std::exception &error) { // UsageError, or the system refused something
        std::fflush(stdout);
        std::fprintf(stderr, "zdtool: %s\n", error.what());
        return zdtool::STATUS_USAGE;
    }
}
