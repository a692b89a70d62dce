// The lexical rules of SQL literals once more, as a plain matcher: at each place every row of the
// table says how much it would take, the longest wins, the earlier on a tie. It shares nothing with
// the generated scanners and is slow. For comparisons.

#ifndef TESTS_SUPPORT_LITERAL_MODEL_H
#define TESTS_SUPPORT_LITERAL_MODEL_H

#include <string.h>
#include <strings.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "common/lit_cnv.h"

namespace literal_model {

struct Literal {
    std::string text;
    int offset;
    int idx;
    zd_type_t type;
    bool operator==(const Literal &) const = default;
};

struct Result {
    std::vector<Literal> literals;
    auto_param_info_t info = {};
};

// Member by member: between them lie bytes that mean nothing.
inline bool same_info(const auto_param_info_t &one, const auto_param_info_t &other) {
    const auto same_names = [](const b_param_info_t &a, const b_param_info_t &b) {
        return a.exists == b.exists && a.digit_len_bit == b.digit_len_bit;
    };
    return one.literal_cnt == other.literal_cnt &&
           one.has_sys_bind_name == other.has_sys_bind_name &&
           std::ranges::equal(one.b_param_infos, other.b_param_infos, same_names) &&
           std::ranges::equal(one.alpha4, other.alpha4);
}

class Matcher {
  public:
    Matcher(std::string_view text, bool is_sjis, bool big_only)
        : text_(text), is_sjis_(is_sjis), big_only_(big_only) {
        result_.info.alpha4[0] = 0x02020202;
    }

    Result run() {
        size_t at = 0;
        while (at < text_.size() && !stopped_)
            at += take(at);
        result_.info.literal_cnt = static_cast<int>(result_.literals.size());
        return result_;
    }

  private:
    static constexpr size_t kBig = 65536;

    // '\0' behind the end; texts have none.
    [[nodiscard]] char c(size_t at) const { return at < text_.size() ? text_[at] : '\0'; }
    static bool letter(char x) { return (x >= 'a' && x <= 'z') || (x >= 'A' && x <= 'Z'); }
    static bool digit(char x) { return x >= '0' && x <= '9'; }
    static unsigned char byte(char x) { return static_cast<unsigned char>(x); }

    // Length of the character above 127 at this place, 0 when there is none that a word may have.
    [[nodiscard]] size_t high(size_t at) const {
        const unsigned char lead = byte(c(at));
        if (!is_sjis_)
            return lead > 127 ? 1 : 0;
        const unsigned char trail = byte(c(at + 1));
        const bool is_lead = (lead >= 0x81 && lead <= 0x9F) || (lead >= 0xE0 && lead <= 0xFC);
        const bool is_trail = (trail >= 0x40 && trail <= 0x7E) || (trail >= 0x80 && trail <= 0xFC);
        return is_lead && is_trail ? 2 : 0;
    }

    [[nodiscard]] size_t word_next(size_t at) const {
        const char x = c(at);
        if (letter(x) || digit(x) || x == '_' || x == '$' || x == '#')
            return 1;
        return high(at);
    }

    [[nodiscard]] size_t name_end(size_t at) const {
        while (const size_t length = word_next(at))
            at += length;
        return at;
    }

    [[nodiscard]] size_t digits_end(size_t at) const {
        while (digit(c(at)))
            at++;
        return at;
    }

    [[nodiscard]] size_t word(size_t at) const {
        const char x = c(at);
        const size_t first = letter(x) || x == '_' ? 1 : high(at);
        return first == 0 ? 0 : name_end(at + first) - at;
    }

    [[nodiscard]] bool is_keyword(size_t at, size_t length) const {
        for (const char *keyword :
             {"select", "insert", "update", "delete", "merge", "with", "call"}) {
            if (strlen(keyword) == length && strncasecmp(&text_[at], keyword, length) == 0)
                return true;
        }
        return false;
    }

    [[nodiscard]] size_t number(size_t at) const {
        size_t end = digits_end(at);
        if (end > at) {
            if (c(end) == '.')
                end = digits_end(end + 1);
        } else {
            if (c(at) != '.' || !digit(c(at + 1)))
                return 0;
            end = digits_end(at + 1);
        }
        if (c(end) == 'e' || c(end) == 'E') {
            const size_t sign = c(end + 1) == '+' || c(end + 1) == '-' ? 1 : 0;
            if (digit(c(end + 1 + sign)))
                end = digits_end(end + 1 + sign);
        }
        return end - at;
    }

    // Behind the closing quote, or npos.
    [[nodiscard]] size_t string_end(size_t open) const {
        size_t at = open + 1;
        for (;;) {
            at = text_.find('\'', at);
            if (at == std::string_view::npos)
                return at;
            if (c(at + 1) != '\'')
                return at + 1;
            at += 2;
        }
    }

    size_t take(size_t at) {
        const char x = c(at);
        if (x == '-' && c(at + 1) == '-')
            return past(text_.find('\n', at), 1) - at;
        if (x == '/' && c(at + 1) == '*')
            return take_comment(at);
        const size_t quote = x == 'N' || x == 'n' ? at + 1 : at;
        if (c(quote) == '\'')
            return take_string(at, quote);
        if (const size_t length = word(at))
            return take_word(at, length);
        if (const size_t length = number(at))
            return add(at, length, ZD_TYPE_NUMBER);
        if (x == '"')
            return past(text_.find('"', at + 1), 1) - at;
        if (x == ':')
            return c(at + 1) == '"' ? take_quoted_bind(at) : take_bind(at);
        return 1;
    }

    [[nodiscard]] size_t past(size_t found, size_t length) const {
        return found == std::string_view::npos ? text_.size() : found + length;
    }

    size_t take_comment(size_t at) {
        const size_t end = text_.find("*/", at + 2);
        if (end == std::string_view::npos)
            stop();
        return past(end, 2) - at;
    }

    size_t take_string(size_t at, size_t quote) {
        const size_t end = string_end(quote);
        if (end == std::string_view::npos)
            return text_.size() - at;
        return add(at, end - at, at == quote ? ZD_TYPE_CHAR : ZD_TYPE_NCHAR);
    }

    size_t take_word(size_t at, size_t length) {
        if (is_keyword(at, length))
            eligible_ = true;
        else if (!eligible_)
            stop();
        return length;
    }

    size_t take_bind(size_t at) {
        const size_t end = name_end(at + 1);
        note(std::string(text_.substr(at + 1, end - at - 1)), false);
        return end - at;
    }

    size_t take_quoted_bind(size_t at) {
        const size_t quote = text_.find('"', at + 2);
        if (quote != std::string_view::npos)
            note(std::string(text_.substr(at + 2, quote - at - 2)), true);
        return past(quote, 1) - at;
    }

    // A bind name; quoted ones count in capitals, save the system's own.
    void note(const std::string &name, bool quoted) {
        size_t digits = 0;
        while (digits < name.size() && digit(name[name.size() - 1 - digits]))
            digits++;
        const std::string stem = name.substr(0, name.size() - digits);
        if (digits == 0 || stem.empty())
            return;
        if (strcasecmp(stem.c_str(), "SYS_B_") == 0) {
            if (!quoted || name.substr(0, 5) != "SYS_B")
                result_.info.has_sys_bind_name = 1;
        } else if (stem.find_first_not_of("Bb") == std::string::npos) {
            if (!quoted || stem.find('b') == std::string::npos)
                note_b(stem.size(), digits);
        } else if (stem.size() == 4 && letter(stem[0]) && letter(stem[1]) && letter(stem[2]) &&
                   letter(stem[3])) {
            for (int i = 0; i < 4 && !(quoted && stem[static_cast<size_t>(i)] >= 'a'); i++) {
                const int bit = (stem[static_cast<size_t>(i)] - 'A') % 32;
                result_.info.alpha4[i] |= static_cast<int>(1U << bit);
            }
        }
    }

    void note_b(size_t letters, size_t digits) {
        if (letters > 29)
            return;
        b_param_info_t &info = result_.info.b_param_infos[letters - 1];
        info.exists = 1;
        if (digits <= 32)
            info.digit_len_bit |= static_cast<int32_t>(1U << (digits - 1));
    }

    size_t add(size_t at, size_t length, zd_type_t type) {
        if (!big_only_ || length >= kBig)
            result_.literals.push_back({std::string(text_.substr(at, length)), static_cast<int>(at),
                                        static_cast<int>(result_.literals.size()) + 1, type});
        return length;
    }

    void stop() {
        result_.literals.clear();
        stopped_ = true;
    }

    std::string_view text_;
    bool is_sjis_;
    bool big_only_;
    bool eligible_ = false;
    bool stopped_ = false;
    Result result_;
};

inline Result scan(std::string_view text, bool is_sjis, bool big_only = false) {
    return Matcher(text, is_sjis, big_only).run();
}

inline bool operator==(const Result &one, const Result &other) {
    bool same = one.literals == other.literals && one.info.literal_cnt == other.info.literal_cnt &&
                one.info.has_sys_bind_name == other.info.has_sys_bind_name;
    for (int i = 0; i < LITERAL_B_LETTERS_MAX; i++) {
        const b_param_info_t &names = one.info.b_param_infos[i];
        const b_param_info_t &others = other.info.b_param_infos[i];
        same = same && names.exists == others.exists && names.digit_len_bit == others.digit_len_bit;
    }
    for (int i = 0; i < LITERAL_ALPHA_LETTERS; i++)
        same = same && one.info.alpha4[i] == other.info.alpha4[i];
    return same;
}

// The text with every literal put back where offset and diff say.
inline std::string put_back(std::string replaced, const std::vector<literal_t> &literals) {
    int shorter = 0; // than the original, by the literals before this one
    std::string original;
    size_t from = 0;
    for (const literal_t &literal : literals) {
        const size_t at = static_cast<size_t>(literal.offset - shorter);
        original += replaced.substr(from, at - from);
        original += literal.text;
        from = at + strlen(literal.text) - static_cast<size_t>(literal.diff);
        shorter += literal.diff;
    }
    return original + replaced.substr(from);
}

} // namespace literal_model

#endif
