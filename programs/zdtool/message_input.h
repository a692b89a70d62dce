// What raw messages may be written in: hexadecimal text, the library's own dumps.

#ifndef ZDTOOL_MESSAGE_INPUT_H
#define ZDTOOL_MESSAGE_INPUT_H

#include <optional>
#include <string_view>

#include "hex.h"

namespace zdtool {

// The bytes that text writes down; blanks, line ends and | are skipped. Nothing when it is
// something else; then *wrong is the offset in text at which it stops to be hexadecimal.
std::optional<programs::Bytes> from_loose_hex(std::string_view text, size_t *wrong);

// The messages whose dumps the library has printed into text, one behind the other; whatever is
// around the dumps is skipped. The header is put together from the dump's fields, for the bytes of
// it that are dumped are those before the body, which need not be the header's.
programs::Bytes messages_of_dumps(std::string_view text);

} // namespace zdtool

#endif
