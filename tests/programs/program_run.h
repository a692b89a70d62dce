// Runs a program to its end, for tests of command lines.

#ifndef PROGRAM_RUN_H
#define PROGRAM_RUN_H

#include <functional>
#include <string>
#include <vector>

struct ProgramRun {
    int status = -1;        // exit status; 128 + number when a signal ended it
    std::string output;     // standard output
    std::string complaints; // standard error
};

// arguments begins with the program's path. input becomes its standard input. in_child runs
// between fork and exec. A program that runs for a minute is killed.
ProgramRun run_program(const std::vector<std::string> &arguments, const std::string &input = "",
                       const std::function<void()> &in_child = {});

#endif
