#include "common/zd_dump.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "client/common/client_assert.h"
#include "common/alloc/system_clialloc.h"
#include "common/ec.h"
#include "common/zd_svc_log.h"
#include "common/zd_util_file.h"

namespace {

// ---- the area that a text is formatted into ----

// Takes text until it is full; length stays below size, so that the terminator has its place.
struct TextArea {
    char *data;
    size_t size;
    size_t length;
    char **block; // the block that data grew into; NULL when the area may not grow (any more)
};

constexpr size_t kFirstBlockOfAnEmptyArea = 64;

bool grow(TextArea &area) {
    if (area.block == nullptr)
        return false;
    const size_t size = area.size == 0 ? kFirstBlockOfAnEmptyArea : area.size * 2;
    void *block = nullptr;
    if (size <= PTRDIFF_MAX) {
        const allocator_desc_t *const desc = _system_allocator.desc;
        const int64_t bytes = static_cast<int64_t>(size);
        block =
            *area.block == nullptr
                ? desc->func_malloc(&_system_allocator, bytes, "zd_dump", __LINE__)
                : desc->func_realloc(&_system_allocator, *area.block, bytes, "zd_dump", __LINE__);
    }
    if (block == nullptr) {
        area.block = nullptr; // text after a gap would be worse than none
        return false;
    }
    if (*area.block == nullptr && area.length > 0)
        memcpy(block, area.data, area.length);
    *area.block = area.data = static_cast<char *>(block);
    area.size = size;
    return true;
}

// How many of count characters there is room for, after growing for all of them if that can be.
size_t reserve(TextArea &area, size_t count) {
    while (area.size - area.length <= count && grow(area)) {
    }
    const size_t room = area.size == 0 ? 0 : area.size - area.length - 1;
    return count < room ? count : room;
}

void append(TextArea &area, const char *text, size_t count) {
    const size_t taken = reserve(area, count);
    if (taken > 0)
        memcpy(area.data + area.length, text, taken);
    area.length += taken;
}

void pad(TextArea &area, char with, size_t count) {
    const size_t taken = reserve(area, count);
    if (taken > 0)
        memset(area.data + area.length, with, taken);
    area.length += taken;
}

// ---- "%" conversions ----

struct Arguments {
    va_list list;
};

struct Conversion {
    bool space;
    bool special;
    bool plus;
    bool left;
    bool zero;
    size_t width;
    int precision;  // negative: none
    char qualifier; // 'h' for 16 bits, 'l' for 64, else 0
};

// Reads digits; a value beyond int counts as the greatest int.
int read_digits(const char *&cursor) {
    int value = 0;
    for (; *cursor >= '0' && *cursor <= '9'; cursor++) {
        if (__builtin_mul_overflow(value, 10, &value) ||
            __builtin_add_overflow(value, *cursor - '0', &value))
            value = INT_MAX;
    }
    return value;
}

void read_flags(const char *&cursor, Conversion &conversion) {
    for (;; cursor++) {
        switch (*cursor) {
        case ' ':
            conversion.space = true;
            break;
        case '#':
            conversion.special = true;
            break;
        case '+':
            conversion.plus = true;
            break;
        case '-':
            conversion.left = true;
            break;
        case '0':
            conversion.zero = true;
            break;
        default:
            return;
        }
    }
}

void read_width(const char *&cursor, Conversion &conversion, Arguments &arguments) {
    if (*cursor != '*') {
        conversion.width = static_cast<size_t>(read_digits(cursor));
        return;
    }
    cursor++;
    const int64_t width = va_arg(arguments.list, int);
    if (width < 0)
        conversion.left = true;
    conversion.width = static_cast<size_t>(width < 0 ? -width : width);
}

void read_precision(const char *&cursor, Conversion &conversion, Arguments &arguments) {
    conversion.precision = -1;
    if (*cursor != '.')
        return;
    cursor++;
    if (*cursor == '*') {
        cursor++;
        conversion.precision = va_arg(arguments.list, int);
    } else {
        conversion.precision = read_digits(cursor);
    }
}

void read_qualifier(const char *&cursor, Conversion &conversion) {
    if (*cursor == 'h') {
        conversion.qualifier = 'h';
        cursor++;
    } else if (*cursor == 'l' || *cursor == 'L' || *cursor == 'Z' || *cursor == 'z') {
        conversion.qualifier = 'l';
        cursor += cursor[0] == 'l' && cursor[1] == 'l' ? 2 : 1;
    }
}

constexpr unsigned int kLowestBase = 2;
constexpr unsigned int kHighestBase = 36;
constexpr size_t kMostDigits = 64; // of a 64-bit number in the lowest base

struct Digits {
    char text[kMostDigits];
    size_t start;
};

constexpr Digits digits_of(uint64_t value, unsigned int base, bool upper) {
    Digits digits = {{}, kMostDigits};
    const char letter = upper ? 'A' : 'a';
    do {
        const unsigned int digit = static_cast<unsigned int>(value % base);
        digits.text[--digits.start] = static_cast<char>(
            digit < 10 ? '0' + digit : static_cast<unsigned int>(letter) + digit - 10);
        value /= base;
    } while (value != 0);
    return digits;
}

constexpr bool prints_as(uint64_t value, unsigned int base, bool upper, const char *expected) {
    const Digits digits = digits_of(value, base, upper);
    size_t i = digits.start;
    for (; i < kMostDigits && *expected == digits.text[i]; i++)
        expected++;
    return i == kMostDigits && *expected == '\0';
}

static_assert(prints_as(0, kLowestBase, false, "0"));
static_assert(prints_as(UINT64_MAX, kLowestBase, false,
                        "1111111111111111111111111111111111111111111111111111111111111111"));
static_assert(prints_as(46655, kHighestBase, false, "zzz"));
static_assert(prints_as(46655, kHighestBase, true, "ZZZ"));
static_assert(prints_as(UINT64_MAX, kHighestBase, true, "3W5E11264SGSF"));
static_assert(prints_as(80, 3, false, "2222"));

// Puts a number in any base from 2 to 36. sign is '-', '+', ' ' or 0 for none.
void put_number(TextArea &area, const Conversion &conversion, uint64_t magnitude, char sign,
                unsigned int base, bool upper) {
    ZD_ASSERT("zd_dump", base >= kLowestBase && base <= kHighestBase);
    const Digits digits = digits_of(magnitude, base, upper);
    const bool shows_nothing = magnitude == 0 && conversion.precision == 0;
    const size_t count = shows_nothing ? 0 : kMostDigits - digits.start;

    char prefix[3];
    size_t prefix_length = 0;
    if (sign != 0)
        prefix[prefix_length++] = sign;
    if (conversion.special && (base == 8 || base == 16))
        prefix[prefix_length++] = '0';
    if (conversion.special && base == 16)
        prefix[prefix_length++] = upper ? 'X' : 'x';

    const size_t least = conversion.precision < 0 ? 0 : static_cast<size_t>(conversion.precision);
    size_t zeros = least > count ? least - count : 0;
    const size_t used = prefix_length + zeros + count;
    size_t blanks = conversion.width > used ? conversion.width - used : 0;
    if (conversion.zero && !conversion.left && conversion.precision < 0) {
        zeros = blanks;
        blanks = 0;
    }
    if (!conversion.left)
        pad(area, ' ', blanks);
    append(area, prefix, prefix_length);
    pad(area, '0', zeros);
    append(area, digits.text + digits.start, count);
    if (conversion.left)
        pad(area, ' ', blanks);
}

void put_signed(TextArea &area, const Conversion &conversion, Arguments &arguments) {
    int64_t value;
    if (conversion.qualifier == 'l')
        value = va_arg(arguments.list, int64_t);
    else if (conversion.qualifier == 'h')
        value = static_cast<int16_t>(va_arg(arguments.list, int));
    else
        value = va_arg(arguments.list, int);
    char sign = 0;
    if (value < 0)
        sign = '-';
    else if (conversion.plus)
        sign = '+';
    else if (conversion.space)
        sign = ' ';
    Conversion decimal = conversion;
    decimal.special = false;
    const uint64_t bits = static_cast<uint64_t>(value);
    put_number(area, decimal, value < 0 ? 0 - bits : bits, sign, 10, false);
}

void put_unsigned(TextArea &area, const Conversion &conversion, Arguments &arguments,
                  unsigned int base, bool upper) {
    uint64_t value;
    if (conversion.qualifier == 'l')
        value = va_arg(arguments.list, uint64_t);
    else if (conversion.qualifier == 'h')
        value = static_cast<uint16_t>(va_arg(arguments.list, unsigned int));
    else
        value = va_arg(arguments.list, unsigned int);
    put_number(area, conversion, value, 0, base, upper);
}

void put_pointer(TextArea &area, const Conversion &conversion, Arguments &arguments) {
    Conversion hexadecimal = conversion;
    hexadecimal.special = true;
    put_number(area, hexadecimal, va_arg(arguments.list, uint64_t), 0, 16, false);
}

void put_characters(TextArea &area, const Conversion &conversion, const char *text, size_t length) {
    const size_t blanks = conversion.width > length ? conversion.width - length : 0;
    if (!conversion.left)
        pad(area, ' ', blanks);
    append(area, text, length);
    if (conversion.left)
        pad(area, ' ', blanks);
}

// Values below it are no addresses of strings: a broken pointer prints as such.
constexpr uintptr_t kLowestString = 2048;

void put_string(TextArea &area, const Conversion &conversion, Arguments &arguments) {
    const char *text = va_arg(arguments.list, const char *);
    if (reinterpret_cast<uintptr_t>(text) < kLowestString)
        text = "<NULL>";
    const size_t length = conversion.precision < 0
                              ? strlen(text)
                              : strnlen(text, static_cast<size_t>(conversion.precision));
    put_characters(area, conversion, text, length);
}

void store_count(const TextArea &area, const Conversion &conversion, Arguments &arguments) {
    if (conversion.qualifier == 'l')
        *va_arg(arguments.list, int64_t *) = static_cast<int64_t>(area.length);
    else if (conversion.qualifier == 'h')
        *va_arg(arguments.list, int16_t *) = static_cast<int16_t>(area.length);
    else
        *va_arg(arguments.list, int *) = static_cast<int>(area.length);
}

// Carries out the conversion of a type; false when there is none of that type.
bool put_typed(TextArea &area, const Conversion &conversion, char type, Arguments &arguments) {
    switch (type) {
    case '%':
        append(area, "%", 1);
        return true;
    case 'c': {
        const char character = static_cast<char>(va_arg(arguments.list, int));
        put_characters(area, conversion, &character, 1);
        return true;
    }
    case 's':
        put_string(area, conversion, arguments);
        return true;
    case 'd':
    case 'i':
        put_signed(area, conversion, arguments);
        return true;
    case 'u':
        put_unsigned(area, conversion, arguments, 10, false);
        return true;
    case 'o':
        put_unsigned(area, conversion, arguments, 8, false);
        return true;
    case 'x':
    case 'X':
        put_unsigned(area, conversion, arguments, 16, type == 'X');
        return true;
    case 'p':
        put_pointer(area, conversion, arguments);
        return true;
    case 'n':
        store_count(area, conversion, arguments);
        return true;
    default:
        return false;
    }
}

// Carries out the conversion that starts at the "%" at start; returns what follows it.
const char *put_conversion(TextArea &area, const char *start, Arguments &arguments) {
    Conversion conversion = {};
    const char *cursor = start + 1;
    read_flags(cursor, conversion);
    read_width(cursor, conversion, arguments);
    read_precision(cursor, conversion, arguments);
    read_qualifier(cursor, conversion);
    const char *const end = *cursor == '\0' ? cursor : cursor + 1;
    if (!put_typed(area, conversion, *cursor, arguments))
        append(area, start, static_cast<size_t>(end - start));
    return end;
}

// ---- "@" directives ----

const dstream_formatter_t *find_formatter(int count, const dstream_formatter_t *formatters,
                                          char directive) {
    for (int i = 0; i < count; i++) {
        if (formatters[i].directive == directive)
            return &formatters[i];
    }
    return nullptr;
}

// False when the text does not fit whole.
bool put_directive(TextArea &area, const dstream_formatter_t &formatter, uint64_t value) {
    char text[DSTREAM_DIRECTIVE_SIZE];
    const int written = formatter.formatter(text, value);
    ZD_ASSERT("zd_dump", written >= 0 && written <= DSTREAM_DIRECTIVE_SIZE);
    const size_t length = static_cast<size_t>(written);
    if (reserve(area, length) < length)
        return false;
    append(area, text, length);
    return true;
}

void format(TextArea &area, int formatter_cnt, const dstream_formatter_t *formatters,
            const char *fmt, Arguments &arguments) {
    for (;;) {
        const size_t plain = strcspn(fmt, "%@");
        append(area, fmt, plain);
        fmt += plain;
        if (*fmt == '\0')
            return;
        if (*fmt == '%') {
            fmt = put_conversion(area, fmt, arguments);
            continue;
        }
        if (fmt[1] == '\0') {
            append(area, fmt, 1);
            return;
        }
        const dstream_formatter_t *const formatter =
            find_formatter(formatter_cnt, formatters, fmt[1]);
        if (formatter == nullptr)
            append(area, fmt + 1, 1);
        else if (!put_directive(area, *formatter, va_arg(arguments.list, uint64_t)))
            return;
        fmt += 2;
    }
}

// Starts an area, formats into it and terminates it; the length is that of the text.
size_t format_text(int formatter_cnt, const dstream_formatter_t *formatters, char *str_buf,
                   size_t str_size, char **new_strbuf, const char *fmt, va_list args) {
    if (new_strbuf != nullptr)
        *new_strbuf = nullptr;
    TextArea area = {str_buf, str_size, 0, new_strbuf};
    Arguments arguments;
    va_copy(arguments.list, args);
    format(area, formatter_cnt, formatters, fmt, arguments);
    va_end(arguments.list);
    if (area.size > 0)
        area.data[area.length] = '\0';
    return area.length;
}

// ---- the stream ----

// The last byte of the buffer stays free.
constexpr int kBufferLimit = sizeof(dstream_t::buffer) - 1;

void put_character(dstream_t *dstream, char character) {
    if (dstream->pos == kBufferLimit)
        dflush(dstream);
    dstream->buffer[dstream->pos++] = character;
    if (character != '\n') {
        dstream->col++;
        return;
    }
    dflush(dstream);
    dstream->col = 0;
    for (int i = 0; i < dstream->indent; i++)
        put_character(dstream, ' ');
}

void put_separator(dstream_t *dstream) {
    for (size_t i = 0; i < sizeof dstream->delim && dstream->delim[i] != '\0'; i++)
        put_character(dstream, dstream->delim[i]);
}

bool ends_in_newline(const dstream_t *dstream) {
    return dstream->pos > 0 && dstream->buffer[dstream->pos - 1] == '\n';
}

void put_item(dstream_t *dstream, const char *text, size_t length) {
    const bool wraps = (dstream->print_flag & DSTREAM_NO_WRAP) == 0;
    const bool fresh = ends_in_newline(dstream) || dstream->col == dstream->indent;
    const int64_t end = static_cast<int64_t>(dstream->col) + static_cast<int64_t>(length);
    if (wraps && !fresh && end > dstream->width)
        put_character(dstream, '\n');
    for (size_t i = 0; i < length; i++)
        put_character(dstream, text[i]);
}

int create_file(const char *filename) {
    return open(filename, O_RDWR | O_CREAT | O_TRUNC, 0644);
}

// Ends the line that the buffer holds: bare indentation is dropped, other text is ended.
void end_line(dstream_t *dstream) {
    bool newline = false;
    if (dstream->col != dstream->indent) {
        newline = !ends_in_newline(dstream);
    } else if (dstream->pos >= dstream->indent) {
        dstream->pos -= dstream->indent;
        dstream->col = 0;
    }
    dstream->indent = 0;
    dflush(dstream);
    if (newline)
        put_character(dstream, '\n');
}

} // namespace

dstream_t *dstream_new(allocator_t *alloc, int fd, int formatter_cnt,
                       dstream_formatter_t *formatters) {
    dstream_t *const dstream = static_cast<dstream_t *>(
        alloc->desc->func_malloc(alloc, sizeof(dstream_t), "zd_dump", __LINE__));
    if (dstream == nullptr)
        return nullptr;
    dstream->fd = -1;
    dstream_init(dstream, fd);
    dstream->formatter_cnt = formatter_cnt;
    dstream->dstream_formatters = formatters;
    return dstream;
}

void dstream_init(dstream_t *dstream, int fd) {
    constexpr int default_width = 78;
    if (dstream->fd >= 0)
        close(dstream->fd);
    dstream->fd = fd;
    dstream->indent = 0;
    dstream->col = 0;
    dstream->width = default_width;
    dstream->pos = 0;
    dstream->print_flag = 0;
    dstream->first_record = 1;
    memset(dstream->delim, 0, sizeof dstream->delim);
    memset(dstream->buffer, 0, sizeof dstream->buffer);
    memset(dstream->filename, 0, sizeof dstream->filename);
}

void dstream_delete(allocator_t *alloc, dstream_t *dstream) {
    if (dstream == nullptr)
        return;
    dflush(dstream);
    zd_free(alloc, dstream, "zd_dump", __LINE__);
}

rc_t dstream_file_open(dstream_t *dstream) {
    dstream->fd = create_file(dstream->filename);
    if (dstream->fd < 0 && errno == ENOENT) {
        char directory[sizeof dstream->filename];
        if (zd_get_path_prefix(dstream->filename, directory) == nullptr ||
            zd_create_dir(directory) != 0) {
            print_event(STDOUT_COMMON_MAKE_A_DUMP_FILE_FAIL, dstream->filename);
            return 1;
        }
        dstream->fd = create_file(dstream->filename);
    }
    return dstream->fd < 0;
}

void dwidth(dstream_t *dstream, int width) {
    dstream->width = width;
}

void dseparator(dstream_t *dstream, const char *sep) {
    char delim[sizeof dstream->delim] = {};
    if (sep != nullptr)
        memcpy(delim, sep, strnlen(sep, sizeof delim));
    memcpy(dstream->delim, delim, sizeof delim);
    dstream->first_record = 1;
}

void dindent(dstream_t *dstream, int indent_incr) {
    int indent;
    if (__builtin_add_overflow(dstream->indent, indent_incr, &indent))
        indent = INT_MAX; // an indentation is never negative: it cannot overflow the other way
    if (dstream->pos > 0)
        end_line(dstream);
    dstream->indent = indent < 0 ? 0 : indent;
    while (dstream->col < dstream->indent)
        put_character(dstream, ' ');
}

void dflush(dstream_t *dstream) {
    if (dstream->pos > 0) {
        [[maybe_unused]] const ssize_t ignored =
            write(dstream->fd, dstream->buffer, static_cast<size_t>(dstream->pos));
    }
    dstream->pos = 0;
}

void dprint(dstream_t *dstream, const char *fmt, ...) {
    if (dstream->fd < 0 && dstream_file_open(dstream) != 0)
        return;
    if ((dstream->print_flag & DSTREAM_NO_SEPARATOR) == 0 && !dstream->first_record)
        put_separator(dstream);
    dstream->first_record = 0;

    char text[512];
    char *grown;
    va_list args;
    va_start(args, fmt);
    const size_t length = format_text(dstream->formatter_cnt, dstream->dstream_formatters, text,
                                      sizeof text, &grown, fmt, args);
    va_end(args);
    put_item(dstream, grown != nullptr ? grown : text, length);
    dfree(grown);
    if ((dstream->print_flag & DSTREAM_ONE_SHOT) != 0)
        dstream->print_flag = 0;
}

int dsvprint(int formatter_cnt, const dstream_formatter_t *dstream_formatters, char *str_buf,
             size_t str_size, char **new_strbuf, const char *fmt, va_list args) {
    return static_cast<int>(
        format_text(formatter_cnt, dstream_formatters, str_buf, str_size, new_strbuf, fmt, args));
}

int dsprint(int formatter_cnt, const dstream_formatter_t *dstream_formatters, char *str_buf,
            size_t str_size, const char *fmt, ...) {
    va_list args;
    va_start(args, fmt);
    const int length =
        dsvprint(formatter_cnt, dstream_formatters, str_buf, str_size, nullptr, fmt, args);
    va_end(args);
    return length;
}

void dfree(char *ptr) {
    zd_free(&_system_allocator, ptr, "zd_dump", __LINE__);
}

void dstart(dstream_t *dstream) {
    const time_t now = time(nullptr);
    tm local;
    localtime_r(&now, &local);
    dprint(dstream, "\n**Dump start at %04d-%02d-%02d %02d:%02d:%02d\n", local.tm_year + 1900,
           local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
}
