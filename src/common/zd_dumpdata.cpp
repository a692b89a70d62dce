#include "common/zd_dumpdata.h"

#include <string.h>

namespace {

constexpr uint64_t kBytesPerLine = 16;

bool is_printable(unsigned char byte) {
    return byte >= 32 && byte <= 126;
}

char *put_hex(char *to, unsigned char byte) {
    static const char digits[] = "0123456789ABCDEF";
    *to++ = digits[byte >> 4];
    *to++ = digits[byte & 15];
    return to;
}

// A line of the dump with offsets, terminated. The offset takes 4 to 16 digits.
struct Line {
    char text[16 + 2 + kBytesPerLine * 4 + 2];
};

// The line of the bytes from offset to size, of which a whole line is shown at the most.
Line line_at(const unsigned char *bytes, uint64_t offset, uint64_t size) {
    Line line;
    char *to = line.text + snprintf(line.text, sizeof line.text, "%04lX: ", offset);
    for (uint64_t i = offset; i < offset + kBytesPerLine; i++) {
        if (i < size) {
            to = put_hex(to, bytes[i]);
            *to++ = ' ';
        } else {
            to = static_cast<char *>(memset(to, ' ', 3)) + 3;
        }
    }
    for (uint64_t i = offset; i < offset + kBytesPerLine; i++) {
        char shown = ' ';
        if (i < size)
            shown = is_printable(bytes[i]) ? static_cast<char>(bytes[i]) : '.';
        *to++ = shown;
    }
    *to++ = '\n';
    *to = '\0';
    return line;
}

// Hands the lines of the bytes from offset first to size to print.
template <class Print>
void dump_lines(const void *start, uint64_t first, uint64_t size, Print print) {
    const unsigned char *const bytes = static_cast<const unsigned char *>(start);
    for (uint64_t offset = first; offset < size; offset += kBytesPerLine)
        print(line_at(bytes, offset, size).text);
}

// The same for a buffer of which only both ends are shown when it is long.
template <class Print>
void dump_ends(const char *buf, int len, Print print) {
    constexpr uint64_t shown_whole = 1024;
    constexpr uint64_t shown_of_an_end = 512;
    const uint64_t size = len < 0 ? 0 : static_cast<uint64_t>(len);
    if (size <= shown_whole) {
        dump_lines(buf, 0, size, print);
        return;
    }
    const uint64_t rest = size - shown_of_an_end;
    dump_lines(buf, 0, shown_of_an_end, print);
    print("\n");
    dump_lines(buf, rest - rest % kBytesPerLine + kBytesPerLine, size, print);
}

} // namespace

void dbinary_dump(dstream_t *dstream, const void *start, uint64_t size) {
    char separator[sizeof dstream->delim];
    memcpy(separator, dstream->delim, sizeof separator);
    dseparator(dstream, nullptr);
    if (dstream->col != dstream->indent)
        dflush(dstream);
    dump_lines(start, 0, size, [dstream](const char *line) { dprint(dstream, "%s", line); });
    dseparator(dstream, separator);
}

void dump_data(dstream_t *dstream, const char *buf, int len) {
    dump_ends(buf, len, [dstream](const char *line) { dprint(dstream, "%s", line); });
}

void fdump_data(FILE *fp, const char *buf, int len) {
    dump_ends(buf, len, [fp](const char *line) { fputs(line, fp); });
}

int sdump_data(char *str, int str_len, const char *buf, int buf_len) {
    constexpr int width = 3; // of " XX"
    const int room = str_len / width;
    const int count = buf_len < room ? buf_len : room;
    char *to = str;
    for (int i = 0; i < count; i++) {
        *to++ = ' ';
        to = put_hex(to, static_cast<unsigned char>(buf[i]));
    }
    const int written = static_cast<int>(to - str);
    if (written < str_len)
        *to = '\0';
    return written;
}

void dump_data_to_stderr(const void *addr, int len) {
    const unsigned char *const bytes = static_cast<const unsigned char *>(addr);
    constexpr int per_line = static_cast<int>(kBytesPerLine);
    fprintf(stderr, "Hex Dump: %p\n", addr);
    for (int offset = 0; offset < len; offset += per_line) {
        const int count = len - offset < per_line ? len - offset : per_line;
        char hex[per_line * 3 + 1];
        char characters[per_line + 1];
        memset(hex, ' ', sizeof hex - 1);
        hex[sizeof hex - 1] = '\0';
        for (int i = 0; i < count; i++) {
            const unsigned char byte = bytes[offset + i];
            put_hex(hex + i * 3 + 1, byte);
            characters[i] = is_printable(byte) ? static_cast<char>(byte) : '.';
        }
        characters[count] = '\0';
        fprintf(stderr, "%18p %s  %s\n", static_cast<const void *>(bytes + offset), hex,
                characters);
    }
}
