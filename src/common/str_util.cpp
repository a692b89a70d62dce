#include "common/str_util.h"

#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "client/common/client_assert.h"

namespace {

bool is_space(char c) {
    return isspace(static_cast<unsigned char>(c)) != 0;
}

char upper(char c) {
    return static_cast<char>(toupper(static_cast<unsigned char>(c)));
}

bool is_seven_bit(char c) {
    return static_cast<unsigned char>(c) < 128;
}

char upper_seven_bit(char c) {
    return is_seven_bit(c) ? upper(c) : c;
}

char lower_seven_bit(char c) {
    return is_seven_bit(c) ? static_cast<char>(tolower(static_cast<unsigned char>(c))) : c;
}

bool starts_with_any_case(const char *text, const char *start) {
    for (; *start != '\0'; text++, start++) {
        if (upper(*text) != upper(*start)) // also at the end of text
            return false;
    }
    return true;
}

// What str and pattern begin with: moves both past one character that match, or returns false.
bool step(const char *&str, const char *&pattern) {
    const char *next = pattern;
    const bool any = *next == '_';
    if (*next == '\\')
        next++;
    if (*next == '\0' || (!any && *next != *str))
        return false;
    str++;
    pattern = next + 1;
    return true;
}

// Prints value over the text at str, which is length characters long, unless it needs more.
void print_over(char *str, size_t length, const char *format, size_t precision, double value) {
    const int digits = static_cast<int>(precision);
    const int needed = snprintf(nullptr, 0, format, digits, value);
    if (needed >= 0 && static_cast<size_t>(needed) <= length)
        snprintf(str, length + 1, format, digits, value);
}

// Drops the zeros at the end of the fraction that point begins, and a point that is left alone.
void drop_trailing_zeros(char *point) {
    char *end = point + 1 + strspn(point + 1, "0123456789");
    if (*end != '\0')
        return; // no fraction, but something that goes on
    while (end[-1] == '0')
        end--;
    if (end - 1 == point)
        end--;
    *end = '\0';
}

constexpr size_t kMantissaMax = 16;
constexpr int kMovableExponent = 9;
constexpr size_t kMovedMax = 1 + 2 + kMovableExponent + kMantissaMax; // "-0.", zeros, digits

// A number taken apart: its sign as written, its digits without a point, and how many of them lie
// before it.
struct taken_number {
    char sign; // 0: none is written
    char digits[kMantissaMax];
    size_t count;
    int whole;
};

taken_number take_apart(const char *mantissa, size_t length) {
    taken_number number = {};
    size_t i = 0;
    if (length > 0 && (mantissa[0] == '-' || mantissa[0] == '+')) {
        number.sign = mantissa[0];
        i = 1;
    }
    const char *const point = static_cast<const char *>(memchr(mantissa + i, '.', length - i));
    for (; i < length; i++) {
        if (mantissa + i == point)
            continue;
        number.digits[number.count++] = mantissa[i];
        if (point == nullptr || mantissa + i < point)
            number.whole++;
    }
    return number;
}

// Writes the number with its point moved by exponent.
void write_moved(const taken_number &number, int exponent, char *to) {
    if (number.sign != 0)
        *to++ = number.sign;
    const int count = static_cast<int>(number.count);
    const int whole = number.whole + exponent;
    if (whole <= 0) {
        *to++ = '0';
        *to++ = '.';
        memset(to, '0', static_cast<size_t>(-whole));
        memcpy(to - whole, number.digits, number.count);
        to[count - whole] = '\0';
        return;
    }
    int first = 0; // zeros in front would only count as width
    while (first < whole - 1 && (first >= count || number.digits[first] == '0'))
        first++;
    for (int i = first; i < whole || i < count; i++) {
        if (i == whole)
            *to++ = '.';
        *to++ = i < count ? number.digits[i] : '0';
    }
    *to = '\0';
}

// Puts text over str, whose buffer holds room characters, unless it needs more.
void put_if_it_fits(char *str, size_t room, const char *text) {
    const size_t length = strlen(text);
    if (length <= room)
        memcpy(str, text, length + 1);
}

} // namespace

char *_trim_str(char *str) {
    if (str == nullptr)
        return nullptr;
    while (is_space(*str))
        str++;
    for (size_t length = strlen(str); length > 0 && is_space(str[length - 1]); length--)
        str[length - 1] = '\0';
    return str;
}

int _str_unpad_space(char *str, int len) {
    int start = 0;
    int end = len < 0 ? 0 : len;
    while (end > 0 && str[end - 1] == ' ')
        end--;
    while (start < end && str[start] == ' ')
        start++;
    if (start > 0)
        memmove(str, str + start, static_cast<size_t>(end - start));
    return (len < 0 ? 0 : len) - (end - start);
}

void _toupper_str(char *str, int len) {
    _toupper_str2(str, str, len);
}

void _tolower_str(char *str, int len) {
    for (int i = 0; i < len; i++)
        str[i] = lower_seven_bit(str[i]);
}

void _toupper_str2(char *dst, const char *src, int len) {
    for (int i = 0; i < len; i++)
        dst[i] = upper_seven_bit(src[i]);
}

void _initcap_str(char *str, int len) {
    str[0] = upper_seven_bit(str[0]);
    for (int i = 1; i < len; i++) {
        if (str[i - 1] == '-' || str[i - 1] == ' ')
            str[i] = upper_seven_bit(str[i]);
    }
}

// A "%" that a later one follows never needs to take more: what it could reach so, the later one
// reaches too. So only the last one met is ever tried again, one character further on.
int _str_match(const char *str, const char *pattern) {
    const char *after_percent = nullptr;
    const char *resume = nullptr;
    for (;;) {
        if (*pattern == '%') {
            after_percent = ++pattern;
            resume = str;
            if (*pattern == '\0')
                return 1;
            continue;
        }
        if (*str == '\0')
            return *pattern == '\0' ? 1 : 0;
        if (step(str, pattern))
            continue;
        if (after_percent == nullptr)
            return 0;
        str = ++resume;
        pattern = after_percent;
    }
}

char *_strchrs(const char *str, const char *chars) {
    return const_cast<char *>(strpbrk(str, chars));
}

char *_strcasestr(const char *haystack, const char *needle) {
    ZD_ASSERT("str_util", haystack != NULL && needle != NULL);
    for (;; haystack++) {
        if (starts_with_any_case(haystack, needle))
            return const_cast<char *>(haystack);
        if (*haystack == '\0')
            return nullptr;
    }
}

void _replace_str(const char *src, char *dst, const char *from, const char *to) {
    const size_t from_length = strlen(from);
    const size_t to_length = strlen(to);
    for (;;) {
        const char *const found = from_length > 0 ? strstr(src, from) : nullptr;
        if (found == nullptr)
            break;
        const size_t kept = static_cast<size_t>(found - src);
        memcpy(dst, src, kept);
        memcpy(dst + kept, to, to_length);
        dst += kept + to_length;
        src = found + from_length;
    }
    strcpy(dst, src);
}

int _print_double(char *str, size_t size) {
    ZD_ASSERT("str_util", str != NULL);
    constexpr size_t kAroundFraction = 7; // sign, digit, point, "E+45"
    const size_t length = strlen(str);
    const size_t whole = strcspn(str, ".");
    if (whole >= size) {
        const size_t precision = size > kAroundFraction ? size - kAroundFraction : 0;
        print_over(str, length, "%.*E", precision, strtod(str, nullptr));
        return 0;
    }
    if (whole < length)
        drop_trailing_zeros(str + whole);
    if (strlen(str) > size)
        print_over(str, length, "%.*lf", size - whole - 1, strtod(str, nullptr));
    return 0;
}

int _print_number(char *str, size_t size) {
    ZD_ASSERT("str_util", str != NULL);
    ZD_ASSERT("str_util", size <= 14);
    constexpr size_t kExponentChars = 3; // "e20"
    constexpr long kExponentMax = 9999;  // a longer one fits nowhere
    const size_t length = strlen(str);
    const size_t room = length > size + 2 ? length : size + 2;
    const size_t mantissa = strcspn(str, "Ee");
    const long read = mantissa < length ? strtol(str + mantissa + 1, nullptr, 10) : 0;
    if (read > kExponentMax || read < -kExponentMax)
        return 0;
    const int exponent = static_cast<int>(read);
    if (exponent == 0) {
        str[mantissa] = '\0';
        if (memchr(str, '.', mantissa) != nullptr)
            _print_double(str, size);
        return 0;
    }
    const size_t kept = mantissa < kMantissaMax ? mantissa : kMantissaMax;
    char text[kMovedMax + 1];
    static_assert(sizeof text > kMantissaMax + sizeof "e-9999");
    if (exponent >= -kMovableExponent && exponent <= kMovableExponent) {
        write_moved(take_apart(str, kept), exponent, text);
        _print_double(text, size);
    } else {
        if (size <= kExponentChars)
            return 0;
        const size_t width = size - kExponentChars;
        memset(text, '0', width);
        memcpy(text, str, kept < width ? kept : width);
        sprintf(text + width, "e%02d", exponent);
    }
    put_if_it_fits(str, room, text);
    return 0;
}
