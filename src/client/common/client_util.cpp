#include "client/common/client_util.h"

#include <stdlib.h>
#include <string.h>

namespace {

void copy_trimmed(const char *text, size_t length, char *to, int size) {
    const size_t room = static_cast<size_t>(size) - 1;
    const size_t kept = length < room ? length : room;
    memcpy(to, text, kept);
    to[kept] = '\0';
    const char *const start = client_trim(to);
    memmove(to, start, strlen(start) + 1);
}

} // namespace

char *client_trim(char *str) {
    str += strspn(str, "\t ");
    while (*str == '\n') {
        str++;
        str += strspn(str, "\t ");
    }
    size_t length = strlen(str);
    while (length > 0 && strchr("\t \n\r", str[length - 1]) != nullptr)
        length--;
    str[length] = '\0';
    return str;
}

void client_parse_value(char *line, char *name, int name_size, char *value, int value_size) {
    const char *const start = client_trim(line);
    const char *const equals = strchr(start, '=');
    if (equals == nullptr)
        return;
    copy_trimmed(start, static_cast<size_t>(equals - start), name, name_size);
    copy_trimmed(equals + 1, strlen(equals + 1), value, value_size);
}

int client_atoi_kmg(const char *str) {
    const uint32_t number = static_cast<uint32_t>(strtol(str, nullptr, 10));
    const size_t length = strlen(str);
    switch (length > 0 ? str[length - 1] : '\0') {
    case 'k':
    case 'K':
        return static_cast<int>(number << 10);
    case 'm':
    case 'M':
        return static_cast<int>(number << 20);
    case 'g':
    case 'G':
        return static_cast<int>(number << 30);
    default:
        return static_cast<int>(number);
    }
}
