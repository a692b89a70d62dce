#include "common/lit_cnv.h"

#include <string.h>

#include "client/common/client_assert.h"
#include "client/common/client_try.h"
#include "common/ec.h"

const lit_scanner_wrap_t lit_scanner[ZD_SCANNER_ID_MAX] = {
    {lit_yylex_init_alloc, lit_yylex_destroy, lit_yylex, lit_yyset_extra},
    {lit_sjis_yylex_init_alloc, lit_sjis_yylex_destroy, lit_sjis_yylex, lit_sjis_yyset_extra},
};

const zdstr_charset_info_t _charset_info[ZDSTR_CHARSET_MAX] = {
    {ZD_SCANNER_ID_COMMON_ASCII}, // ASCII
    {ZD_SCANNER_ID_COMMON_ASCII}, // EUCKR
    {ZD_SCANNER_ID_COMMON_ASCII}, // MSWIN949
    {ZD_SCANNER_ID_COMMON_ASCII}, // UTF8
    {ZD_SCANNER_ID_COMMON_ASCII}, // UTF16
    {ZD_SCANNER_ID_SJIS},         // SJIS
    {ZD_SCANNER_ID_SJIS},         // MSWIN932
    {ZD_SCANNER_ID_SJIS},         // MSWIN932_TILDE
    {ZD_SCANNER_ID_COMMON_ASCII}, // EUCJP
    {ZD_SCANNER_ID_COMMON_ASCII}, // EUCJP_TILDE
    {ZD_SCANNER_ID_COMMON_ASCII}, // TCVN3
    {ZD_SCANNER_ID_COMMON_ASCII}, // MSWIN936
    {ZD_SCANNER_ID_COMMON_ASCII}, // MSWIN1252
    {ZD_SCANNER_ID_COMMON_ASCII}, // MSWIN950
    {ZD_SCANNER_ID_COMMON_ASCII}, // MSWIN1251
    {ZD_SCANNER_ID_COMMON_ASCII}, // ISO8859P1
    {ZD_SCANNER_ID_COMMON_ASCII}, // ISO8859P2
    {ZD_SCANNER_ID_COMMON_ASCII}, // ISO8859P9
    {ZD_SCANNER_ID_COMMON_ASCII}, // ISO8859P15
    {ZD_SCANNER_ID_COMMON_ASCII}, // KOI8R
    {ZD_SCANNER_ID_COMMON_ASCII}, // ISO8859P5
    {ZD_SCANNER_ID_COMMON_ASCII}, // ISO2022KR
    {ZD_SCANNER_ID_COMMON_ASCII}, // US8ICL
};

namespace {

// A prefix is the opening and letters.
constexpr char kOpening[] = ":\"";
constexpr int kOpeningLength = sizeof kOpening - 1;
constexpr char kSysLetters[] = "SYS_B_";
constexpr char kBLetters[LITERAL_B_LETTERS_MAX + 1] = "BBBBBBBBBBBBBBBBBBBBBBBBBBBBB";
// What the digits leave of the 30 characters of a name.
constexpr int kSysDigitsMax = 24;
constexpr int kBNameMax = 29;
constexpr int kAlpha4DigitsMax = 26;
constexpr int kAlphabet = 26;
constexpr int kFirstLettersTaken = 0x02020202; // no name of four letters begins with B, J, R or Z

char alpha4_letters[LITERAL_ALPHA_LETTERS];

// The decimal logarithm of count, rounded up; 0 for an empty list.
int digits_for(int count) {
    int digits = 0;
    for (int64_t names = 1; names < count; names *= 10)
        digits++;
    return digits;
}

// A number that is no character set's has the scanner that most have.
const lit_scanner_wrap_t *scanner_for(zdstr_charset_t charset) {
    const bool is_known = charset >= 0 && charset < ZDSTR_CHARSET_MAX;
    return &lit_scanner[is_known ? _charset_info[charset].scanner_id_type
                                 : ZD_SCANNER_ID_COMMON_ASCII];
}

literal_t *literal_of(list_link_t *link) {
    return static_cast<literal_t *>(reinterpret_cast<listc_t *>(link)->data);
}

[[noreturn]] void throw_no_prefix(int line) {
    zd_err_and_jmp("lit_cnv", line, "lit_cnv_get_param_prefix", 0, 0, ERROR_LC_PREFIX_GEN_FAILED);
}

char *new_prefix(const char *letters, int count, allocator_t *alloc) {
    const int64_t size = kOpeningLength + count + 1;
    char *const prefix = static_cast<char *>(zd_malloc(alloc, size, "lit_cnv", __LINE__));
    memcpy(prefix, kOpening, kOpeningLength);
    memcpy(prefix + kOpeningLength, letters, static_cast<size_t>(count));
    prefix[size - 1] = '\0';
    return prefix;
}

// How many letters B make a prefix; 0 when none do. A number of letters of which there are names
// already will do when one of those has as many digits as ours: that is the rule, odd as it is.
int b_letters_for(const auto_param_info_t *info, int digits) {
    for (int i = 0; i < LITERAL_B_LETTERS_MAX && i <= kBNameMax - digits; i++) {
        const b_param_info_t &names = info->b_param_infos[i];
        const bool bit = digits > 0 && (names.digit_len_bit >> (digits - 1) & 1) != 0;
        if (!names.exists || bit)
            return i + 1;
    }
    return 0;
}

void choose_alpha4_letters(const auto_param_info_t *info) {
    for (int place = 0; place < LITERAL_ALPHA_LETTERS; place++) {
        int letter = 0;
        while (letter < kAlphabet && (info->alpha4[place] >> letter & 1) != 0)
            letter++;
        if (letter == kAlphabet)
            throw_no_prefix(__LINE__);
        alpha4_letters[place] = static_cast<char>('A' + letter);
    }
}

// Where a literal stands. The text is put together from places alone: of a million literals the
// records would have to come from memory once more.
struct place_t {
    int offset;
    int length;
};
constexpr int kFewLiterals = 64;

// What there is to replace, and by what.
struct layout_t {
    int count;
    int digits;
    int name_length;
    int64_t literal_bytes;
    place_t *places; // few, or a block
    place_t few[kFewLiterals];
};

void free_places(layout_t *layout, allocator_t *alloc) {
    if (layout->places != layout->few)
        zd_free(alloc, layout->places, "lit_cnv", __LINE__);
}

// Lays out count literals, and sets in them how much longer they are than a name. Returns how many
// there really are.
int lay_out(layout_t *layout, int count, const char *prefix, const listc_t *list,
            allocator_t *alloc) {
    layout->count = count;
    layout->digits = count == 1 ? 1 : digits_for(count);
    layout->name_length = static_cast<int>(strlen(prefix)) + layout->digits + 1;
    layout->literal_bytes = 0;
    layout->places = layout->few;
    if (count > kFewLiterals)
        layout->places = static_cast<place_t *>(zd_malloc(
            alloc, int64_t{count} * static_cast<int64_t>(sizeof(place_t)), "lit_cnv", __LINE__));
    int found = 0;
    list_for_each(link, &list->link) {
        literal_t *const literal = literal_of(link);
        const int length = static_cast<int>(strlen(literal->text));
        literal->diff = length - layout->name_length;
        layout->literal_bytes += length;
        if (found < count)
            layout->places[found] = {literal->offset, length};
        found++;
    }
    return found;
}

// The ordinal of the last tells how many there are, in a list as the scan made it.
int expected_count(const listc_t *list) {
    const int idx = list_is_empty(&list->link) ? 0 : literal_of(list->link.prev)->idx;
    return idx > 0 ? idx : 0;
}

// Writes the first name of a statement.
void write_name(char *to, const char *prefix, int digits) {
    const size_t prefix_length = strlen(prefix);
    memcpy(to, prefix, prefix_length);
    memset(to + prefix_length, '0', static_cast<size_t>(digits));
    to[prefix_length + static_cast<size_t>(digits)] = '"';
}

// Writes the name after the last one, which has the same length.
void write_next_name(char *to, const char *last, int length) {
    memcpy(to, last, static_cast<size_t>(length));
    char *digit = to + length - 2;
    while (*digit == '9')
        *digit-- = '0';
    ++*digit;
}

} // namespace

listc_t *lit_cnv_get_literal_list(char *stmt, uchar big_lit_only, auto_param_info_t *ap_info,
                                  zdstr_charset_t charset, allocator_t *alloc) {
    ZD_ASSERT("lit_cnv", alloc != NULL);
    ZD_ASSERT("lit_cnv", stmt != NULL);
    const lit_scanner_wrap_t *const scanner = scanner_for(charset);
    yyscan_t scan;
    scanner->init(alloc, &scan);
    literal_scanner_extra_t extra = {
        alloc,        stmt,   static_cast<unsigned int>(strlen(stmt)), listc_new(alloc),
        big_lit_only, ap_info};
    memset(ap_info, 0, sizeof *ap_info);
    ap_info->alpha4[0] = kFirstLettersTaken;
    scanner->set_extra(&extra, scan);
    scanner->lex(scan);
    scanner->destroy(scan);
    ap_info->literal_cnt = expected_count(extra.literal_list);
    return extra.literal_list;
}

char *lit_cnv_get_param_prefix(auto_param_info_t *ap_info, uchar is_cli, allocator_t *alloc) {
    ZD_ASSERT("lit_cnv", alloc != NULL);
    const int digits = digits_for(ap_info->literal_cnt);
    const bool sys_is_free = !is_cli && !ap_info->has_sys_bind_name && digits <= kSysDigitsMax;
    if (sys_is_free || ap_info->literal_cnt == 0)
        return new_prefix(kSysLetters, sizeof kSysLetters - 1, alloc);
    const int letters = b_letters_for(ap_info, digits);
    if (letters > 0)
        return new_prefix(kBLetters, letters, alloc);
    if (digits > kAlpha4DigitsMax)
        throw_no_prefix(__LINE__);
    choose_alpha4_letters(ap_info);
    return new_prefix(alpha4_letters, LITERAL_ALPHA_LETTERS, alloc);
}

char *lit_cnv_get_replaced_sql(char *stmt, char *param_prefix, listc_t *literal_list,
                               allocator_t *alloc) {
    ZD_ASSERT("lit_cnv", alloc != NULL);
    ZD_ASSERT("lit_cnv", stmt != NULL);
    layout_t layout;
    const int expected = expected_count(literal_list);
    const int found = lay_out(&layout, expected, param_prefix, literal_list, alloc);
    if (found != expected) {
        free_places(&layout, alloc);
        lay_out(&layout, found, param_prefix, literal_list, alloc);
    }
    const place_t *const end = layout.places + layout.count;
    const int rest = layout.count == 0 ? 0 : end[-1].offset + end[-1].length;
    const int64_t stmt_length = rest + static_cast<int64_t>(strlen(stmt + rest));
    const int64_t length =
        stmt_length - layout.literal_bytes + int64_t{layout.count} * layout.name_length;
    char *const replaced = static_cast<char *>(zd_malloc(alloc, length + 1, "lit_cnv", __LINE__));

    const char *from = stmt;
    char *to = replaced;
    const char *last_name = nullptr;
    for (const place_t *place = layout.places; place != end; place++) {
        const size_t before = static_cast<size_t>(stmt + place->offset - from);
        memcpy(to, from, before);
        to += before;
        if (last_name == nullptr)
            write_name(to, param_prefix, layout.digits);
        else
            write_next_name(to, last_name, layout.name_length);
        last_name = to;
        to += layout.name_length;
        from += before + static_cast<size_t>(place->length);
    }
    memcpy(to, from, static_cast<size_t>(stmt + stmt_length - from) + 1);
    free_places(&layout, alloc);
    return replaced;
}
