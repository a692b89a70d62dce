// What the two generated scanners have in common behind their rules: reading the record, recording
// literals, marking bind names, keeping memory and place. Only literal_scanner.l calls these.

#ifndef LITERAL_SCAN_H
#define LITERAL_SCAN_H

#include "common/literal.h"

#ifdef __cplusplus

// Lies before the generated scanner in its block. Behind the scanner is room for its first buffer
// and what goes with it, which are all that most statements need.
struct literal_scanner_head_t {
    allocator_t *alloc; // NULL: the process heap
    char *room;         // what is left of it
    char *room_end;
    int line;
    int column;
    int newlines_read;        // in what was read and not yet scanned to its end
    const char *last_newline; // the last of them
};

inline literal_scanner_head_t *literal_scanner_head(void *scanner) {
    return static_cast<literal_scanner_head_t *>(scanner) - 1;
}

// A scanner of size bytes, all 0; NULL when the process heap has none left.
void *literal_scanner_new(allocator_t *alloc, size_t size);
// The scanner's further memory; what cannot be had is thrown. Without a scanner it is memory for
// one out of the process heap, and NULL when there is none.
void *literal_scanner_alloc(size_t size, void *scanner);
void *literal_scanner_realloc(void *block, size_t size, void *scanner);
// block may be the scanner itself.
void literal_scanner_free(void *block, void *scanner);

// Copies the next piece of the statement, or as much again as was kept, into the buffer. Returns
// the number of bytes, 0 at the end of the statement.
int literal_read(literal_scanner_extra_t *extra, char *buffer, ptrdiff_t kept, int room,
                 void *scanner);
// The same for a text that is in the buffer from the start, as far as the place goes.
void literal_scanner_note_text(void *scanner, const char *text, const char *end);

// The scan went from text to end; text has been noted up to read.
void literal_scanner_move_place(void *scanner, const char *text, const char *end, const char *read);

// The first place from at on that one of the rules may care for; what lies before it are whole
// words and signs that none of them does. Requires that at is behind a token, in the buffer from
// start to end. Unless that is the last one, what text behind it could change is left in place.
const char *literal_pass_inert(const char *at, const char *start, const char *end, bool is_last);

// Where what was opened before at ends: behind the closing quote, the newline, the "*/". NULL when
// that is not to be seen between at and end; of strings, no more than a short piece is looked at.
const char *literal_short_string_end(const char *at, const char *end);
const char *literal_name_end(const char *at, const char *end);
const char *literal_line_end(const char *at, const char *end);
const char *literal_comment_end(const char *at, const char *end);

// Records the literal of length bytes at text + offset, unless it is too short for big_lit_only.
// literal_cnt counts those that were recorded.
void literal_add(literal_scanner_extra_t *extra, const char *text, int offset, int length,
                 zd_type_t type, int *literal_cnt);
// Frees what was recorded; the list is then empty.
void literal_drop_all(literal_scanner_extra_t *extra);

// Without the "e", "E", "e+", ... at its end.
inline int literal_number_length(const char *text, int length) {
    return length - ((text[length - 1] | 0x20) == 'e' ? 1 : 2);
}

inline zd_type_t literal_quoted_type(const char *text) {
    return *text == '\'' ? ZD_TYPE_CHAR : ZD_TYPE_NCHAR;
}

// name is the part behind the colon or the opening quote. The quoted forms are those that
// the replacement itself generates, in capitals: other spellings of theirs count less, or not.
void bind_name_mark_b(auto_param_info_t *info, const char *name);
void bind_name_mark_quoted_b(auto_param_info_t *info, const char *name);
void bind_name_mark_alpha4(auto_param_info_t *info, const char *name);
void bind_name_mark_quoted_alpha4(auto_param_info_t *info, const char *name);
void bind_name_mark_quoted_sys(auto_param_info_t *info, const char *name);

#endif

#endif
