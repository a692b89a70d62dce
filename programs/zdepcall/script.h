// A line of a script taken apart into words, in the manner of a shell.

#ifndef ZDEPCALL_SCRIPT_H
#define ZDEPCALL_SCRIPT_H

#include <string>
#include <string_view>
#include <vector>

namespace zdepcall {

// Blanks and tabs separate words. Single quotes keep everything; double quotes keep everything but
// a backslash, which takes the next character as it is, inside and outside of them. A # at the
// start of a word begins a comment. Throws UsageError for a quote that is not closed.
std::vector<std::string> split_words(std::string_view line);

} // namespace zdepcall

#endif
