// Shows any bytes as messages, the way zdtool does. Input: a byte that chooses the form of the rest
// (its remainder by three: raw messages, hexadecimal text, a text with dumps), then the rest.

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <string>

#include "message_input.h"
#include "message_printers.h"

namespace {

using namespace programs;

void require(bool condition) {
    if (!condition)
        __builtin_trap();
}

struct Shown {
    std::string text;
    size_t complaints = 0;
};

Shown show(const Bytes &messages, std::unique_ptr<zdtool::MessagePrinter> (*new_printer)(FILE *)) {
    Shown shown;
    char *text = nullptr;
    size_t size = 0;
    FILE *const stream = open_memstream(&text, &size);
    zdtool::walk_messages(messages, *new_printer(stream),
                          [&shown](const std::string &) { shown.complaints++; });
    fclose(stream);
    shown.text.assign(text, size);
    free(text);
    return shown;
}

Bytes messages_in(uint8_t form, const std::string &text) {
    size_t wrong = 0;
    if (form == 0)
        return Bytes(text.begin(), text.end());
    if (form == 2)
        return zdtool::messages_of_dumps(text);
    const std::optional<Bytes> bytes = zdtool::from_loose_hex(text, &wrong);
    require(wrong <= text.size());
    require(!bytes || wrong == text.size());
    return bytes.value_or(Bytes());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0)
        return 0;
    const Bytes messages = messages_in(data[0] % 3, std::string(data + 1, data + size));
    // A dump of a few bytes is a header at least.
    require(messages.size() <= size * 2);
    const Shown json = show(messages, zdtool::new_json_printer);
    const Shown text = show(messages, zdtool::new_text_printer);
    const auto lines = std::count(json.text.begin(), json.text.end(), '\n');
    require(json.complaints == text.complaints);
    require(static_cast<size_t>(lines) >= json.complaints);
    require((lines == 0) == messages.empty());
    return 0;
}
