// Takes any text apart into tokens. Input: the text, up to its first zero byte.

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <vector>

#include "client/common/client_scan.h"

namespace {

void require(bool condition) {
    if (!condition)
        __builtin_trap();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    // Exactly as long as the text, so that the sanitizer sees the first byte read behind it.
    std::vector<char> text(data, data + size);
    text.push_back('\0');
    const std::vector<char> before = text;
    char *const start = text.data();
    char *const end = start + strlen(start);
    char *cursor = start;
    char *from = start;
    int count = 0;
    for (;;) {
        char *const behind = cursor;
        const char *const token = cs_get_token(from, &cursor, 1);
        from = nullptr;
        if (token == nullptr)
            break;
        count++;
        const size_t length = strlen(token);
        require(token == cs_token_ && length > 0 && length <= CS_TOKEN_MAX);
        require(cursor > behind && cursor <= end);
        require(*cursor == '\0' || strchr("/ \t\n\v\f\r", *cursor) != nullptr);
        require(length == CS_TOKEN_MAX || memcmp(cursor - length, token, length) == 0);
    }
    // Counting finds the same tokens as going on from each.
    char *counted = start;
    const cs_token_e last = cs_get_token_type(start, &counted, count);
    require((last == TT_EOL) == (count == 0) && last < TT_MAX && counted == cursor);
    require(cs_get_token_type(start, &counted, count + 1) == TT_EOL);
    require(text == before);
    return 0;
}
