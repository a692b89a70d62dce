#include "error_catalogue.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <numeric>
#include <optional>

namespace zdtool {

namespace {

std::string upper_case(std::string_view text) {
    std::string result(text);
    for (char &character : result) {
        if (character >= 'a' && character <= 'z')
            character = static_cast<char>(character - 'a' + 'A');
    }
    return result;
}

std::optional<ec_t> as_code(const std::string &word) {
    ec_t code = 0;
    const char *const end = word.data() + word.size();
    const auto [stop, error] = std::from_chars(word.data(), end, code);
    if (stop != end || error != std::errc())
        return std::nullopt;
    return code;
}

ErrorRows all_errors() {
    ErrorRows rows;
    for (const zd_err_info_t *row = zd_err_info; row->code != ZD_ERR_END_OF_INFO; row++)
        rows.push_back(row);
    return rows;
}

// How many letters must be added, dropped or changed to make one word of the other.
size_t edit_distance(std::string_view from, std::string_view to) {
    std::vector<size_t> costs(to.size() + 1);
    std::iota(costs.begin(), costs.end(), size_t{0});
    for (size_t row = 1; row <= from.size(); row++) {
        size_t diagonal = costs[0];
        costs[0] = row;
        for (size_t column = 1; column <= to.size(); column++) {
            const size_t change = diagonal + (from[row - 1] == to[column - 1] ? 0 : 1);
            diagonal = costs[column];
            costs[column] = std::min({costs[column] + 1, costs[column - 1] + 1, change});
        }
    }
    return costs[to.size()];
}

// A part of a name is as close as a name: whoever left out the family's prefix meant it.
size_t name_distance(const std::string &word, std::string_view name) {
    const size_t distance = edit_distance(word, name);
    const bool is_part = word.size() >= 4 && name.find(word) != std::string_view::npos;
    return is_part ? std::min<size_t>(distance, 1) : distance;
}

} // namespace

const zd_err_info_t *find_error(const std::string &word) {
    const std::optional<ec_t> code = as_code(word);
    if (!code)
        return zd_get_err_info_by_name(upper_case(word).c_str());
    if (*code == ZD_ERR_END_OF_INFO)
        return nullptr; // ends the table and describes nothing
    if (const zd_err_info_t *const row = zd_get_err_info_for_zderr(*code))
        return row;
    return zd_err_is_user_code(*code) ? zd_get_err_info(*code) : nullptr;
}

ErrorRows nearest_errors(const std::string &word, size_t count) {
    ErrorRows rows = all_errors();
    std::vector<std::pair<size_t, const zd_err_info_t *>> ranked;
    const std::optional<ec_t> code = as_code(word);
    const std::string name = upper_case(word);
    for (const zd_err_info_t *row : rows) {
        const size_t distance =
            code ? static_cast<size_t>(std::llabs(static_cast<long long>(*code) - row->code))
                 : name_distance(name, row->name);
        ranked.emplace_back(distance, row);
    }
    std::ranges::stable_sort(ranked, {}, &std::pair<size_t, const zd_err_info_t *>::first);
    rows.clear();
    for (size_t at = 0; at < std::min(count, ranked.size()); at++)
        rows.push_back(ranked[at].second);
    return rows;
}

ErrorRows grep_errors(std::string_view text) {
    const std::string wanted = upper_case(text);
    ErrorRows rows = all_errors();
    std::erase_if(rows, [&wanted](const zd_err_info_t *row) {
        return std::ranges::none_of(
            std::initializer_list<const char *>{row->name, row->desc, row->cause, row->action},
            [&wanted](const char *field) {
                return upper_case(field).find(wanted) != std::string::npos;
            });
    });
    return rows;
}

std::string_view error_class(const zd_err_info_t &row) {
    switch (row.type) {
    case ZD_ERR_TYPE_WARNING:
        return "warning";
    case ZD_ERR_TYPE_INTERNAL:
        return "internal";
    default:
        return "error";
    }
}

std::string_view bare_text(const char *text) {
    std::string_view bare = text;
    while (!bare.empty() && (bare.back() == ' ' || bare.back() == '\n' || bare.back() == ';'))
        bare.remove_suffix(1);
    while (bare.starts_with(' '))
        bare.remove_prefix(1);
    return bare;
}

} // namespace zdtool
