// Scans any text for literals, by both scanners, and compares what they find with the plain model;
// then replaces the literals and puts them back. The first byte says whether only big ones are
// wanted (1), and how often the rest is repeated (the bits above it): so that a few bytes reach
// beyond a buffer.

#include <stddef.h>
#include <stdint.h>

#include <string>

#include "support/ledger_allocator.h"
#include "support/literal_scan.h"

namespace {

constexpr size_t kLongest = 1 << 15;

void require(bool condition) {
    if (!condition)
        __builtin_trap();
}

void compare(const std::string &text, bool is_sjis, bool big_only) {
    LedgerAllocator alloc;
    const literal_model::Result expected = literal_model::scan(text, is_sjis, big_only);
    const literal_model::Result found =
        scan_literals(text, is_sjis ? ZDSTR_CHARSET_MSWIN932 : ZDSTR_CHARSET_ISO8859P1, alloc.get(),
                      big_only ? 1 : 0);
    require(expected == found);
    require(alloc.still_out() == 0);
}

void convert_and_put_back(std::string text) {
    LedgerAllocator alloc;
    auto_param_info_t info;
    listc_t *const list =
        lit_cnv_get_literal_list(text.data(), 0, &info, ZDSTR_CHARSET_UTF8, alloc.get());
    char *prefix = nullptr;
    if (client_try([&] { prefix = lit_cnv_get_param_prefix(&info, 0, alloc.get()); }) != 0)
        return;
    char *const replaced = lit_cnv_get_replaced_sql(text.data(), prefix, list, alloc.get());
    require(literal_model::put_back(replaced, literals_of(list)) == text);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1)
        return 0;
    const std::string piece(reinterpret_cast<const char *>(data) + 1, size - 1);
    if (piece.find('\0') != std::string::npos)
        return 0;
    const bool big_only = (data[0] & 1) != 0;
    const size_t times = 1 + (data[0] >> 1);
    std::string text;
    while (text.size() < piece.size() * times && text.size() < kLongest)
        text += piece;
    compare(text, false, big_only);
    compare(text, true, big_only);
    convert_and_put_back(text);
    return 0;
}
