#include "client/common/client_scan.h"

#include <string.h>
#include <strings.h>

char cs_token_[CS_TOKEN_MAX + 1];

namespace {

struct keyword {
    char text[10];
    cs_token_e type;
};

// In the order of the enumeration: the first that a token begins with is its class.
constexpr keyword kKeywords[] = {
    {"ALTER", TT_ALTER},
    {"BEGIN", TT_BEGIN},
    {"CALL", TT_CALL},
    {"CREATE", TT_CREATE},
    {"COMMENT", TT_COMMENT},
    {"COMMIT", TT_COMMIT},
    {"CURRENT", TT_CURRENT},
    {"DECLARE", TT_DECLARE},
    {"DELETE", TT_DELETE},
    {"DROP", TT_DROP},
    {"GLOBAL", TT_GLOBAL},
    {"GRANT", TT_GRANT},
    {"INSERT", TT_INSERT},
    {"MERGE", TT_MERGE},
    {"NOAUDIT", TT_NOAUDIT},
    {"OF", TT_OF},
    {"OR", TT_OR},
    {"PUBLIC", TT_PUBLIC},
    {"RENAME", TT_RENAME},
    {"REPLACE", TT_REPLACE},
    {"REVOKE", TT_REVOKE},
    {"ROLLBACK", TT_ROLLBACK},
    {"SAVEPOINT", TT_SAVEPOINT},
    {"SELECT", TT_SELECT},
    {"SET", TT_SET},
    {"TABLE", TT_TABLE},
    {"TEMPORARY", TT_TEMPORARY},
    {"TRUNCATE", TT_TRUNCATE},
    {"UPDATE", TT_UPDATE},
    {"WITH", TT_WITH},
    {"EXPLAIN", TT_EXPLAIN},
    {"", TT_OTHERS},
};

constexpr bool is_in_order() {
    int expected = TT_ALTER;
    for (const keyword &entry : kKeywords) {
        if (entry.text[0] != '\0' && entry.type != expected++)
            return false;
    }
    return expected == TT_MAX;
}

static_assert(is_in_order());

bool is_space(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

bool starts_token(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == ':' ||
           c == '\'' || c == '"';
}

// The end of the comment that text begins with, or text when it begins with none. A comment
// without an end takes all that is left.
char *skip_comment(char *text) {
    if (text[0] == '/' && text[1] == '*') {
        char *const end = strstr(text + 2, "*/");
        return end != nullptr ? end + 2 : text + strlen(text);
    }
    if (text[0] == '-' && text[1] == '-')
        return text + strcspn(text, "\n");
    return text;
}

// The start of the next token, or the end of the text. A character that neither starts a token nor
// belongs to a comment, such as "(" or a lone "/", is passed over like white space.
char *find_token(char *text) {
    while (*text != '\0' && !starts_token(*text)) {
        char *const behind = skip_comment(text);
        text = behind != text ? behind : text + 1;
    }
    return text;
}

} // namespace

char *cs_get_token(char *str, char **cursor, int n) {
    char *text = str != nullptr ? str : *cursor;
    for (int i = 1;; i++) {
        char *const start = find_token(text);
        if (*start == '\0')
            return nullptr;
        text = start;
        while (*text != '\0' && *text != '/' && !is_space(*text))
            text++;
        *cursor = text;
        if (i == n) {
            const size_t length = static_cast<size_t>(text - start);
            const size_t kept = length < CS_TOKEN_MAX ? length : CS_TOKEN_MAX;
            memcpy(cs_token_, start, kept);
            cs_token_[kept] = '\0';
            return cs_token_;
        }
    }
}

cs_token_e cs_get_token_type(char *str, char **cursor, int n) {
    const char *const token = cs_get_token(str, cursor, n);
    if (token == nullptr)
        return TT_EOL;
    for (const keyword *entry = kKeywords; entry->text[0] != '\0'; entry++) {
        if (strncasecmp(token, entry->text, strlen(entry->text)) == 0)
            return entry->type;
    }
    return TT_OTHERS;
}
