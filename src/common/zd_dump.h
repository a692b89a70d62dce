// Dump streams: the one way to write human-readable diagnostics. A dstream_t is a small buffered
// text stream over a file descriptor that knows its output column: it indents nested blocks, wraps
// long items, writes a separator between records, and formats with an engine of its own that a
// caller extends with "@" directives. The stream owns no descriptor: its user opens and closes it,
// except where dstream_init says otherwise. One thread at a time; failed writes are ignored.

#ifndef ZD_DUMP_H
#define ZD_DUMP_H

#include <stdarg.h>

#include "common/alloc/allocator.h"
#include "common/zd_base.h"

// What a caller's directive has room for in its output area.
#define DSTREAM_DIRECTIVE_SIZE 1024

// Writes the text of value, the next argument of the print, into area and returns the number of
// characters it wrote: 0 to DSTREAM_DIRECTIVE_SIZE, anything else fails an assertion. The text
// needs no terminator. The argument must be 8 bytes wide in the call: a pointer or a long.
typedef int (*dstream_format_func_t)(char *area, uint64_t value);

typedef struct dstream_formatter_s {
    char directive; // the character after "@"
    dstream_format_func_t formatter;
} dstream_formatter_t;

// Bits of dstream_t.print_flag. With one of the one-shot bits the whole word holds for one print.
#define DSTREAM_NO_WRAP 1
#define DSTREAM_NO_SEPARATOR 2
#define DSTREAM_ONE_SHOT (16 | 32 | 64 | 128)

typedef struct dstream_s dstream_t;

struct dstream_s {
    int fd;             // negative: not open yet
    int indent;         // columns
    int width;          // wrap column
    int col;            // current output column
    uchar first_record; // true until the first print after a separator change
    int pos;            // bytes waiting in buffer
    int print_flag;
    char delim[4]; // record separator, not necessarily terminated
    char buffer[512];
    char filename[256]; // opened by the first print when fd is negative
    int formatter_cnt;
    dstream_formatter_t *dstream_formatters; // the caller's, must outlive the stream
};

static_assert(sizeof(dstream_formatter_t) == 16, "dstream_formatter_t is part of the ABI");
static_assert(offsetof(dstream_formatter_t, formatter) == 8,
              "dstream_formatter_t is part of the ABI");
static_assert(sizeof(dstream_t) == 816, "dstream_t is part of the ABI");
static_assert(offsetof(dstream_t, fd) == 0, "dstream_t is part of the ABI");
static_assert(offsetof(dstream_t, indent) == 4, "dstream_t is part of the ABI");
static_assert(offsetof(dstream_t, width) == 8, "dstream_t is part of the ABI");
static_assert(offsetof(dstream_t, col) == 12, "dstream_t is part of the ABI");
static_assert(offsetof(dstream_t, first_record) == 16, "dstream_t is part of the ABI");
static_assert(offsetof(dstream_t, pos) == 20, "dstream_t is part of the ABI");
static_assert(offsetof(dstream_t, print_flag) == 24, "dstream_t is part of the ABI");
static_assert(offsetof(dstream_t, delim) == 28, "dstream_t is part of the ABI");
static_assert(offsetof(dstream_t, buffer) == 32, "dstream_t is part of the ABI");
static_assert(offsetof(dstream_t, filename) == 544, "dstream_t is part of the ABI");
static_assert(offsetof(dstream_t, formatter_cnt) == 800, "dstream_t is part of the ABI");
static_assert(offsetof(dstream_t, dstream_formatters) == 808, "dstream_t is part of the ABI");

ZD_BEGIN_DECLS

// A stream over fd (negative: set filename before the first print). The caller owns it and ends it
// with dstream_delete; formatters may be NULL with a count of 0. NULL when alloc has no memory:
// nothing is thrown.
ZD_API dstream_t *dstream_new(allocator_t *alloc, int fd, int formatter_cnt,
                              dstream_formatter_t *formatters);

// Starts a stream afresh over fd: closes the old descriptor if it is not negative, discards what
// is buffered, and leaves the directives alone. A record that is no stream yet needs fd negative
// and its directives set by the caller.
ZD_API void dstream_init(dstream_t *dstream, int fd);

// Flushes and frees; fd stays open. NULL is ignored.
ZD_API void dstream_delete(allocator_t *alloc, dstream_t *dstream);

// Creates and truncates filename, with the directories that lead to it, and sets fd. Returns 0,
// or 1 with fd negative still; when the directory could not be made, an event is printed too. The
// descriptor is the caller's to close. Requires fd negative.
ZD_API rc_t dstream_file_open(dstream_t *dstream);

ZD_API void dwidth(dstream_t *dstream, int width);

// Sets the text between records: the first 4 bytes of sep; NULL is none. The next print counts as
// the first record.
ZD_API void dseparator(dstream_t *dstream, const char *sep);

// Ends the line that is begun, if one is, and changes the indentation, which never goes below 0.
ZD_API void dindent(dstream_t *dstream, int indent_incr);

ZD_API void dflush(dstream_t *dstream);

// Writes one item: the separator, then the formatted text, on a new line when it would cross the
// wrap column. Opens filename first when fd is negative; if that fails, nothing is printed. See
// dsvprint for the format.
ZD_API void dprint(dstream_t *dstream, const char *fmt, ...);

// The formatting engine: writes the text into str_buf and always terminates it (a size of 0 is
// left alone). Returns the number of characters without the terminator.
//
// "%" directives are those of printf: flags " ", "#", "+", "-", "0"; width; precision; qualifiers
// "l", "ll", "L", "Z", "z" (64 bits) and "h" (16 bits); conversions c s d i u o x X p n %. What
// differs: "%p" is "0x" and hexadecimal digits; "#" puts its prefix before zero too; a "%s" value
// below 2048 prints as "<NULL>", for small values are broken pointers; "%n" stores what was really
// written; there is no floating point. Anything else after "%" is printed as it stands, and
// takes no argument but those of its "*". "@" and a character run the first directive of that
// character; when there is none, the character is printed, so that "@@" gives "@".
//
// new_strbuf NULL: the text is cut at the area's end, and a directive's text that does not fit
// whole ends it before. Otherwise the area grows: *new_strbuf is NULL when the text fitted into
// str_buf, else the whole text is there, in a block that the caller ends with dfree; str_buf then
// holds nothing of use. If the system allocator refuses to grow it, the text is cut as above.
ZD_API int dsvprint(int formatter_cnt, const dstream_formatter_t *dstream_formatters, char *str_buf,
                    size_t str_size, char **new_strbuf, const char *fmt, va_list args);

// dsvprint into a fixed area.
ZD_API int dsprint(int formatter_cnt, const dstream_formatter_t *dstream_formatters, char *str_buf,
                   size_t str_size, const char *fmt, ...);

// Frees what dsvprint stored in *new_strbuf; NULL is allowed.
ZD_API void dfree(char *ptr);

// Prints a line with the local date and time.
ZD_API void dstart(dstream_t *dstream);

ZD_END_DECLS

#endif
