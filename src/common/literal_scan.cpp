#include "common/literal_scan.h"

#include <stdlib.h>
#include <string.h>

#include "client/common/client_try.h"
#include "common/ec.h"

namespace {

constexpr int kBigLiteral = 65536;
constexpr int kPiece = 8192;
constexpr int kDigitsMax = 32; // that have a bit

[[noreturn]] void throw_out_of_memory() {
    zd_err_and_jmp("literal_scan", __LINE__, "throw_out_of_memory", 0, 0,
                   ERROR_OUT_OF_PHYSICAL_MEM);
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

} // namespace

yyscan_t literal_scanner_new(allocator_t *alloc, size_t size) {
    const size_t whole = sizeof(literal_scanner_head_t) + size;
    void *const block =
        alloc == nullptr
            ? malloc(whole)
            : zd_malloc(alloc, static_cast<int64_t>(whole), "literal_scan", __LINE__);
    if (block == nullptr)
        return nullptr;
    memset(block, 0, whole);
    literal_scanner_head_t *const head = static_cast<literal_scanner_head_t *>(block);
    head->alloc = alloc;
    head->line = 1;
    return head + 1;
}

void *literal_scanner_alloc(size_t size, yyscan_t scanner) {
    if (scanner == nullptr)
        return literal_scanner_new(nullptr, size);
    allocator_t *const alloc = literal_scanner_head(scanner)->alloc;
    if (alloc != nullptr)
        return zd_malloc(alloc, static_cast<int64_t>(size), "literal_scan", __LINE__);
    void *const block = malloc(size);
    if (block == nullptr)
        throw_out_of_memory();
    return block;
}

void *literal_scanner_realloc(void *block, size_t size, yyscan_t scanner) {
    if (block == nullptr)
        return literal_scanner_alloc(size, scanner);
    if (scanner == nullptr) {
        const size_t whole = sizeof(literal_scanner_head_t) + size;
        void *const moved = realloc(literal_scanner_head(block), whole);
        return moved == nullptr ? nullptr : static_cast<literal_scanner_head_t *>(moved) + 1;
    }
    allocator_t *const alloc = literal_scanner_head(scanner)->alloc;
    if (alloc != nullptr)
        return zd_realloc(alloc, block, static_cast<int64_t>(size), "literal_scan", __LINE__);
    void *const moved = realloc(block, size);
    if (moved == nullptr)
        throw_out_of_memory();
    return moved;
}

void literal_scanner_free(void *block, yyscan_t scanner) {
    if (block == nullptr)
        return;
    allocator_t *const alloc = scanner == nullptr ? nullptr : literal_scanner_head(scanner)->alloc;
    if (scanner == nullptr || block == scanner)
        block = literal_scanner_head(block);
    if (alloc != nullptr)
        zd_free(alloc, block, "literal_scan", __LINE__);
    else
        free(block);
}

void literal_scanner_move_place(yyscan_t scanner, const char *text, int length) {
    literal_scanner_head_t *const head = literal_scanner_head(scanner);
    const char *const end = text + length;
    const char *line = text;
    while (const void *const newline = memchr(line, '\n', static_cast<size_t>(end - line))) {
        line = static_cast<const char *>(newline) + 1;
        head->line++;
        head->column = 0;
    }
    head->column += static_cast<int>(end - line);
}

int literal_read(literal_scanner_extra_t *extra, char *buffer, ptrdiff_t kept, int room) {
    const int wanted = kept > kPiece ? static_cast<int>(kept) : kPiece;
    const unsigned int most = static_cast<unsigned int>(wanted < room ? wanted : room);
    unsigned int total = 0;
    while (total < most && extra->stmt_len > 0) {
        unsigned int piece = most - total < kPiece ? most - total : kPiece;
        if (piece > extra->stmt_len)
            piece = extra->stmt_len;
        memcpy(buffer + total, extra->stmt, piece);
        extra->stmt += piece;
        extra->stmt_len -= piece;
        total += piece;
    }
    return static_cast<int>(total);
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
    if (end - digits <= kDigitsMax)
        names->digit_len_bit |= static_cast<int32_t>(1U << (end - digits - 1));
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
