// The commands of zdtool: each is one file NAME_command.cpp and one row of main.cpp's table.

#ifndef ZDTOOL_COMMAND_H
#define ZDTOOL_COMMAND_H

namespace zdtool {

// STATUS_FAULT: what was asked for is not there, or what was read is not as it must be.
enum ExitStatus { STATUS_OK = 0, STATUS_FAULT = 1, STATUS_USAGE = 2 };

// Each takes the command line from the command's own name on, prints to standard output, and
// returns an exit status. Throws programs::UsageError for a command line that it cannot follow.
int run_error(int argc, char **argv);    // looks up error codes
int run_message(int argc, char **argv);  // shows raw messages
int run_literals(int argc, char **argv); // shows the literals of SQL text

} // namespace zdtool

#endif
