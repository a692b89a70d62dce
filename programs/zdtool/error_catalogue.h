// Searching the error catalogue.

#ifndef ZDTOOL_ERROR_CATALOGUE_H
#define ZDTOOL_ERROR_CATALOGUE_H

#include <string>
#include <string_view>
#include <vector>

#include "common/zd_err_info.h"

namespace zdtool {

using ErrorRows = std::vector<const zd_err_info_t *>;

// The row of a code or a name, in either case; null when there is none. A code that a user program
// defined gives the row that describes all of them.
const zd_err_info_t *find_error(const std::string &word);

// At most count rows whose names, or codes for a number, come closest to what was not found.
ErrorRows nearest_errors(const std::string &word, size_t count);

// The rows with the text, in either case, in the name, the message, the cause or the action.
ErrorRows grep_errors(std::string_view text);

// "error", "warning", "internal".
std::string_view error_class(const zd_err_info_t &row);

// A text of a row without the blanks around it and the ";" that ends actions.
std::string_view bare_text(const char *text);

} // namespace zdtool

#endif
