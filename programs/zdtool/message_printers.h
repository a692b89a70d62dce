// The two ways to show messages.

#ifndef ZDTOOL_MESSAGE_PRINTERS_H
#define ZDTOOL_MESSAGE_PRINTERS_H

#include <cstdio>
#include <memory>

#include "message_walk.h"

namespace zdtool {

// For people: a line a field, nested records indented, bytes in hexadecimal and as text.
std::unique_ptr<MessagePrinter> new_text_printer(FILE *stream);

// For programs: one JSON object a message, on a line of its own.
std::unique_ptr<MessagePrinter> new_json_printer(FILE *stream);

} // namespace zdtool

#endif
