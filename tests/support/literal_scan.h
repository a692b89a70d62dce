// Runs the literal conversion and hands back plain values.

#ifndef TESTS_SUPPORT_LITERAL_SCAN_H
#define TESTS_SUPPORT_LITERAL_SCAN_H

#include <string>
#include <vector>

#include "common/lit_cnv.h"
#include "support/literal_model.h"

inline std::vector<literal_t> literals_of(const listc_t *list) {
    std::vector<literal_t> literals;
    list_for_each(link, &list->link) {
        literals.push_back(
            *static_cast<const literal_t *>(reinterpret_cast<const listc_t *>(link)->data));
    }
    return literals;
}

inline void free_literals(listc_t *list, allocator_t *alloc) {
    for (const literal_t &literal : literals_of(list))
        zd_free(alloc, literal.text, "test", 1);
    listc_clear_with_data(list, alloc);
    listc_free(list, alloc);
}

// As the model reports it.
inline literal_model::Result scan_literals(std::string text, zdstr_charset_t charset,
                                           allocator_t *alloc, uchar big_only = 0) {
    literal_model::Result result;
    listc_t *const list =
        lit_cnv_get_literal_list(text.data(), big_only, &result.info, charset, alloc);
    for (const literal_t &literal : literals_of(list))
        result.literals.push_back({literal.text, literal.offset, literal.idx, literal.type});
    free_literals(list, alloc);
    return result;
}

#endif
