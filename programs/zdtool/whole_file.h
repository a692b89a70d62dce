// Files that a command reads.

#ifndef ZDTOOL_WHOLE_FILE_H
#define ZDTOOL_WHOLE_FILE_H

#include <string>

namespace zdtool {

// All bytes of a file; "-" is standard input. Throws std::system_error.
std::string read_whole(const std::string &path);

// What path is called in a message: itself, or "standard input".
std::string shown_path(const std::string &path);

} // namespace zdtool

#endif
