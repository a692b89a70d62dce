#include "common/literal_scan.h"

#include <emmintrin.h>
#include <stdlib.h>
#include <string.h>

#include "client/common/client_try.h"
#include "common/ec.h"

namespace {

constexpr int kBigLiteral = 65536;
constexpr int kPiece = 8192;
constexpr int kDigitsMax = 32; // that have a bit
constexpr int kShortString = 64;

[[noreturn]] void throw_out_of_memory() {
    zd_err_and_jmp("literal_scan", __LINE__, "throw_out_of_memory", 0, 0,
                   ERROR_OUT_OF_PHYSICAL_MEM);
}

// Blocks in the room are never given back one by one.
constexpr size_t kFirstRoom = 16640;

size_t rounded(size_t size) {
    return (size + 15) & ~size_t{15};
}

bool is_in_room(const void *block, const literal_scanner_head_t *head) {
    return block >= head + 1 && block < head->room_end && block != head + 1;
}

bool is_letter(char c) {
    return static_cast<unsigned>((c | 0x20) - 'a') < 26;
}

bool is_digit(char c) {
    return static_cast<unsigned>(c - '0') < 10;
}

bool is_capital(char c) {
    return static_cast<unsigned>(c - 'A') < 26;
}

void mark_letter(auto_param_info_t *info, int place, char letter) {
    info->alpha4[place] |= static_cast<int>(1U << ((letter - 'A') % 32));
}

bool is_word_char(char c) {
    return is_letter(c) || is_digit(c) || c == '_' || c == '$' || c == '#';
}

// What the bytes of a stride are, one bit for each.
struct stride_t {
    uint64_t word;         // letters, digits and the signs that a word may have
    uint64_t no_beginning; // those of them with which no word begins
    uint64_t stop;         // a rule may care for it wherever it stands
};
constexpr int kStride = 32;

__m128i equal(__m128i bytes, char c) {
    return _mm_cmpeq_epi8(bytes, _mm_set1_epi8(c));
}

__m128i between(__m128i bytes, char first, char last) {
    const __m128i above = _mm_sub_epi8(bytes, _mm_set1_epi8(first));
    const __m128i bounded = _mm_min_epu8(above, _mm_set1_epi8(static_cast<char>(last - first)));
    return _mm_cmpeq_epi8(above, bounded);
}

uint64_t mask_of(__m128i bytes) {
    return static_cast<unsigned>(_mm_movemask_epi8(bytes));
}

__m128i load(const char *at) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i *>(at));
}

[[gnu::always_inline]] inline stride_t half_stride(const char *at) {
    const __m128i bytes = load(at);
    const __m128i before = load(at - 1);
    const __m128i no_beginning = _mm_or_si128(between(bytes, '0', '9'), between(bytes, '#', '$'));
    const __m128i letters = between(_mm_or_si128(bytes, _mm_set1_epi8(0x20)), 'a', 'z');
    const __m128i word = _mm_or_si128(_mm_or_si128(letters, equal(bytes, '_')), no_beginning);
    const __m128i quotes = _mm_or_si128(equal(bytes, '\''), equal(bytes, '"'));
    const __m128i dashes = _mm_and_si128(equal(bytes, '-'), equal(before, '-'));
    const __m128i comments = _mm_and_si128(equal(bytes, '*'), equal(before, '/'));
    const __m128i pairs = _mm_or_si128(dashes, comments);
    // The sign bit of bytes above 127 is taken over as it is.
    const __m128i stop =
        _mm_or_si128(_mm_or_si128(quotes, equal(bytes, ':')), _mm_or_si128(pairs, bytes));
    return {mask_of(word), mask_of(no_beginning), mask_of(stop)};
}

[[gnu::always_inline]] inline stride_t stride(const char *at) {
    const stride_t low = half_stride(at);
    const stride_t high = half_stride(at + 16);
    return {low.word | high.word << 16, low.no_beginning | high.no_beginning << 16,
            low.stop | high.stop << 16};
}

// Back from the end of the buffer, to the beginning of what may go on behind it.
const char *beginning_of_open(const char *end, const char *at) {
    const char *open = end;
    while (open > at && is_word_char(open[-1]))
        open--;
    if (open == end && end > at && (end[-1] == '-' || end[-1] == '/' || end[-1] == '.'))
        open--;
    return open;
}

// Back from a byte that stopped the strides, to the beginning of what it belongs to.
const char *beginning_of(const char *stop, const char *at) {
    if (stop == at)
        return at;
    const char last = stop[-1];
    if (*stop == '\'' && (last | 0x20) == 'n')
        return stop - 1 > at && is_word_char(stop[-2]) ? stop : stop - 1;
    const bool is_pair = *stop == '-' || *stop == '*' || (is_digit(*stop) && last == '.');
    return is_pair ? stop - 1 : stop;
}

int count_newlines(const char *at, const char *end) {
    const __m128i zero = _mm_setzero_si128();
    __m128i counts = zero; // two, of the halves
    for (; end - at >= 16; at += 16)
        counts =
            _mm_add_epi64(counts, _mm_sad_epu8(_mm_sub_epi8(zero, equal(load(at), '\n')), zero));
    int64_t halves[2];
    _mm_storeu_si128(reinterpret_cast<__m128i *>(halves), counts);
    int count = static_cast<int>(halves[0] + halves[1]);
    for (; at < end; at++)
        count += *at == '\n' ? 1 : 0;
    return count;
}

const char *last_newline(const char *at, const char *end) {
    return static_cast<const char *>(memrchr(at, '\n', static_cast<size_t>(end - at)));
}

void note_newlines(literal_scanner_head_t *head, const char *at, const char *end) {
    const int count = count_newlines(at, end);
    if (count == 0)
        return;
    head->newlines_read += count;
    head->last_newline = last_newline(at, end);
}

const char *find(const char *at, const char *end, char c) {
    return at < end ? static_cast<const char *>(memchr(at, c, static_cast<size_t>(end - at)))
                    : nullptr;
}

} // namespace

void *literal_scanner_new(allocator_t *alloc, size_t size) {
    const size_t used = sizeof(literal_scanner_head_t) + rounded(size);
    const size_t whole = used + kFirstRoom;
    void *const block =
        alloc == nullptr ? malloc(whole)
                         : zd_malloc(alloc, static_cast<int64_t>(whole), "literal_scan", __LINE__);
    if (block == nullptr)
        return nullptr;
    memset(block, 0, used);
    literal_scanner_head_t *const head = static_cast<literal_scanner_head_t *>(block);
    head->alloc = alloc;
    head->room = static_cast<char *>(block) + used;
    head->room_end = static_cast<char *>(block) + whole;
    head->line = 1;
    return head + 1;
}

void *literal_scanner_alloc(size_t size, void *scanner) {
    if (scanner == nullptr)
        return literal_scanner_new(nullptr, size);
    literal_scanner_head_t *const head = literal_scanner_head(scanner);
    if (size <= static_cast<size_t>(head->room_end - head->room)) {
        void *const block = head->room;
        head->room += rounded(size);
        return block;
    }
    if (head->alloc != nullptr)
        return zd_malloc(head->alloc, static_cast<int64_t>(size), "literal_scan", __LINE__);
    void *const block = malloc(size);
    if (block == nullptr)
        throw_out_of_memory();
    return block;
}

static void *heap_scanner_resized(void *scanner, size_t size) {
    literal_scanner_head_t *const head = literal_scanner_head(scanner);
    const size_t had = static_cast<size_t>(head->room - static_cast<char *>(scanner));
    void *const moved = literal_scanner_new(nullptr, size);
    if (moved == nullptr)
        return nullptr;
    memcpy(moved, scanner, had < size ? had : size);
    free(head);
    return moved;
}

void *literal_scanner_realloc(void *block, size_t size, void *scanner) {
    if (block == nullptr)
        return literal_scanner_alloc(size, scanner);
    if (scanner == nullptr)
        return heap_scanner_resized(block, size);
    const literal_scanner_head_t *const head = literal_scanner_head(scanner);
    if (is_in_room(block, head)) {
        void *const moved = literal_scanner_alloc(size, scanner);
        const size_t left = static_cast<size_t>(head->room_end - static_cast<char *>(block));
        return memmove(moved, block, left < size ? left : size); // at least what it holds
    }
    if (head->alloc != nullptr)
        return zd_realloc(head->alloc, block, static_cast<int64_t>(size), "literal_scan", __LINE__);
    void *const moved = realloc(block, size);
    if (moved == nullptr)
        throw_out_of_memory();
    return moved;
}

void literal_scanner_free(void *block, void *scanner) {
    if (block == nullptr)
        return;
    if (scanner == nullptr) {
        free(literal_scanner_head(block));
        return;
    }
    literal_scanner_head_t *const head = literal_scanner_head(scanner);
    if (is_in_room(block, head))
        return;
    if (block == scanner)
        block = head;
    if (head->alloc != nullptr)
        zd_free(head->alloc, block, "literal_scan", __LINE__);
    else
        free(block);
}

int literal_read(literal_scanner_extra_t *extra, char *buffer, ptrdiff_t kept, int room,
                 void *scanner) {
    const int wanted = kept > kPiece ? static_cast<int>(kept) : kPiece;
    const unsigned int most = static_cast<unsigned int>(wanted < room ? wanted : room);
    unsigned int total = 0;
    while (total < most && extra->stmt_len > 0) {
        unsigned int piece = most - total < kPiece ? most - total : kPiece;
        if (piece > extra->stmt_len)
            piece = extra->stmt_len;
        memcpy(buffer + total, extra->stmt, piece);
        note_newlines(literal_scanner_head(scanner), extra->stmt, extra->stmt + piece);
        extra->stmt += piece;
        extra->stmt_len -= piece;
        total += piece;
    }
    return static_cast<int>(total);
}

void literal_scanner_move_place(void *scanner, const char *text, const char *end,
                                const char *read) {
    literal_scanner_head_t *const head = literal_scanner_head(scanner);
    const int read_behind = count_newlines(end, read);
    const int passed = head->newlines_read - read_behind;
    if (passed > 0) {
        const char *const newline = read_behind == 0 ? head->last_newline : last_newline(text, end);
        head->line += passed;
        head->column = static_cast<int>(end - newline) - 1;
    } else {
        head->column += static_cast<int>(end - text);
    }
    head->newlines_read = read_behind;
}

void literal_scanner_note_text(void *scanner, const char *text, const char *end) {
    note_newlines(literal_scanner_head(scanner), text, end);
}

const char *literal_pass_inert(const char *at, const char *start, const char *end, bool is_last) {
    if (end - start <= kStride)
        return at;
    const char *place = at;
    uint64_t in_word = 0; // 1: the byte before place is of a word
    for (;;) {
        // The last stride ends with the buffer; what lies before place is shifted out of it.
        const ptrdiff_t left = end - place;
        const ptrdiff_t passed = left < kStride ? kStride - left : 0;
        const stride_t bytes = stride(place - passed);
        const uint64_t word = bytes.word >> passed;
        const uint64_t stops =
            (bytes.no_beginning >> passed & ~(word << 1 | in_word)) | bytes.stop >> passed;
        if (stops != 0)
            return beginning_of(place + __builtin_ctzll(stops), at);
        if (passed > 0)
            return is_last ? end : beginning_of_open(end, at);
        in_word = word >> (kStride - 1);
        place += kStride;
    }
}

const char *literal_short_string_end(const char *at, const char *end) {
    // The byte behind the quote must be there, to show that it is no second one.
    const char *const last = end - at > kShortString ? at + kShortString : end - 1;
    if (last <= at)
        return nullptr;
    const char *const quote = find(at, last, '\'');
    return quote != nullptr && quote[1] != '\'' ? quote + 1 : nullptr;
}

const char *literal_name_end(const char *at, const char *end) {
    const char *const quote = find(at, end, '"');
    return quote != nullptr ? quote + 1 : nullptr;
}

const char *literal_line_end(const char *at, const char *end) {
    const char *const newline = find(at, end, '\n');
    return newline != nullptr ? newline + 1 : nullptr;
}

const char *literal_comment_end(const char *at, const char *end) {
    const char *star = at;
    while ((star = find(star, end - 1, '*')) != nullptr) {
        if (*++star == '/')
            return star + 1;
    }
    return nullptr;
}

void literal_add(literal_scanner_extra_t *extra, const char *text, int offset, int length,
                 zd_type_t type, int *literal_cnt) {
    if (extra->big_lit_only && length < kBigLiteral)
        return;
    allocator_t *const alloc = extra->alloc;
    literal_t *const literal =
        static_cast<literal_t *>(zd_malloc(alloc, sizeof(literal_t), "literal_scan", __LINE__));
    char *const copy =
        static_cast<char *>(zd_malloc(alloc, int64_t{length} + 1, "literal_scan", __LINE__));
    memcpy(copy, text + offset, static_cast<size_t>(length));
    copy[length] = '\0';
    *literal = {copy, offset, 0, ++*literal_cnt, type};
    listc_add_tail(literal, extra->literal_list, alloc);
}

void literal_drop_all(literal_scanner_extra_t *extra) {
    list_for_each(link, &extra->literal_list->link) {
        const literal_t *const literal =
            static_cast<const literal_t *>(reinterpret_cast<const listc_t *>(link)->data);
        zd_free(extra->alloc, literal->text, "literal_scan", __LINE__);
    }
    listc_clear_with_data(extra->literal_list, extra->alloc);
}

void bind_name_mark_b(auto_param_info_t *info, const char *name) {
    const char *digits = name;
    while (is_letter(*digits))
        digits++;
    const char *end = digits;
    while (is_digit(*end))
        end++;
    if (digits - name > LITERAL_B_LETTERS_MAX)
        return;
    b_param_info_t *const names = &info->b_param_infos[digits - name - 1];
    names->exists = 1;
    const ptrdiff_t digit_cnt = end - digits;
    if (digit_cnt >= 1 && digit_cnt <= kDigitsMax)
        names->digit_len_bit |= static_cast<int32_t>(1U << (digit_cnt - 1));
}

void bind_name_mark_quoted_b(auto_param_info_t *info, const char *name) {
    const char *c = name;
    while (*c == 'B')
        c++;
    if (*c != 'b')
        bind_name_mark_b(info, name);
}

void bind_name_mark_alpha4(auto_param_info_t *info, const char *name) {
    for (int i = 0; i < LITERAL_ALPHA_LETTERS; i++)
        mark_letter(info, i, name[i]);
}

void bind_name_mark_quoted_alpha4(auto_param_info_t *info, const char *name) {
    for (int i = 0; i < LITERAL_ALPHA_LETTERS && is_capital(name[i]); i++)
        mark_letter(info, i, name[i]);
}

void bind_name_mark_quoted_sys(auto_param_info_t *info, const char *name) {
    if (memcmp(name, "SYS_B", 5) != 0)
        info->has_sys_bind_name = 1;
}
