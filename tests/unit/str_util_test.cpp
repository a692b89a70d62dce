#include "common/str_util.h"

#include <math.h>
#include <stdlib.h>
#include <string.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include "support/guarded_bytes.h"

namespace {

// Whether the locale has letters of both cases among the bytes from 128 on, as that of a
// single-byte character set has.
bool high_letters = false;

// The other case of a byte, by a table that starts at -128.
const int32_t *table_of(bool upper) {
    static int32_t tables[2][2][384];
    int32_t *const table = tables[upper ? 1 : 0][high_letters ? 1 : 0] + 128;
    if (table[1] != 0)
        return table;
    for (int c = -128; c < 256; c++) {
        const bool letter = upper ? c >= 'a' && c <= 'z' : c >= 'A' && c <= 'Z';
        table[c] = letter || (c >= 128 && high_letters) ? c ^ 0x20 : c;
    }
    return table;
}

} // namespace

// The library's calls come here, as the program's own names go before libc's.
extern "C" {

const int32_t **__ctype_toupper_loc(void) noexcept {
    static const int32_t *table;
    table = table_of(true);
    return &table;
}

const int32_t **__ctype_tolower_loc(void) noexcept {
    static const int32_t *table;
    table = table_of(false);
    return &table;
}
}

namespace {

// ---- enumerations ----

TEST(StrUtilEnumerations, NumbersAreThoseOfTheDatabase) {
    EXPECT_EQ(ZDSTR_CHARSET_ASCII, 0);
    EXPECT_EQ(ZDSTR_CHARSET_UTF8, 3);
    EXPECT_EQ(ZDSTR_CHARSET_SJIS, 5);
    EXPECT_EQ(ZDSTR_CHARSET_TCVN3, 10);
    EXPECT_EQ(ZDSTR_CHARSET_ISO8859P5, 20);
    EXPECT_EQ(ZDSTR_CHARSET_DB_MAX, 21);
    EXPECT_EQ(ZDSTR_CHARSET_ISO2022KR, 21);
    EXPECT_EQ(ZDSTR_CHARSET_MAX, 23);
    EXPECT_EQ(ZDSTR_CASE_TRIM_UPPER, 4);
    EXPECT_EQ(ZDSTR_CASE_MAX, 5);
}

// ---- trimming ----

TEST(TrimStr, FirstCharacterThatIsNoWhiteSpaceIsReturned) {
    char text[] = " \t\n\v\f\rab cd";
    EXPECT_EQ(_trim_str(text), text + 6);
    EXPECT_STREQ(text + 6, "ab cd");
}

TEST(TrimStr, TrailingWhiteSpaceBecomesZeroBytes) {
    char text[] = "  ab \t\n##";
    text[7] = '\0';
    EXPECT_STREQ(_trim_str(text), "ab");
    EXPECT_EQ(std::string(text, sizeof text), std::string("  ab\0\0\0\0#\0", 10));
}

TEST(TrimStr, NothingButWhiteSpaceLeavesNothing) {
    char text[] = "   ";
    EXPECT_STREQ(_trim_str(text), "");
    char empty[] = "";
    EXPECT_EQ(_trim_str(empty), empty);
}

TEST(TrimStr, NullStaysNull) {
    EXPECT_EQ(_trim_str(nullptr), nullptr);
}

struct Unpadding {
    std::string before;
    int removed;
    std::string kept;
};

void PrintTo(const Unpadding &unpadding, std::ostream *stream) {
    *stream << '"' << unpadding.before << '"';
}

class StrUnpadSpace : public testing::TestWithParam<Unpadding> {};

TEST_P(StrUnpadSpace, BlanksAtBothEndsAreRemovedAndCounted) {
    const auto &[before, removed, kept] = GetParam();
    GuardedBytes bytes(before.size());
    char *const text = bytes.hold(before);
    EXPECT_EQ(_str_unpad_space(text, static_cast<int>(before.size())), removed);
    EXPECT_EQ(std::string(text, kept.size()), kept);
    EXPECT_EQ(std::string(text + kept.size(), before.size() - kept.size()),
              before.substr(kept.size()))
        << "what is behind the rest stays";
}

INSTANTIATE_TEST_SUITE_P(StrUtil, StrUnpadSpace,
                         testing::Values(Unpadding{"  ab c   ", 5, "ab c"},
                                         Unpadding{"ab", 0, "ab"}, Unpadding{"ab ", 1, "ab"},
                                         Unpadding{" ab", 1, "ab"}, Unpadding{"    ", 4, ""},
                                         Unpadding{"", 0, ""}, Unpadding{"\t a\n ", 1, "\t a\n"}));

TEST(StrUnpadSpaceLength, BytesBehindItAreNotLookedAt) {
    char text[] = " ab  cd";
    EXPECT_EQ(_str_unpad_space(text, 4), 2);
    EXPECT_STREQ(text, "abb  cd");
    EXPECT_EQ(_str_unpad_space(text, 0), 0);
    EXPECT_EQ(_str_unpad_space(text, -1), 0);
    EXPECT_STREQ(text, "abb  cd");
}

// ---- case ----

TEST(Case, FirstBytesAreConverted) {
    char text[] = "abcXYZ-1";
    _toupper_str(text, 2);
    EXPECT_STREQ(text, "ABcXYZ-1");
    _tolower_str(text, 5);
    EXPECT_STREQ(text, "abcxyZ-1");
    _toupper_str(text, -1);
    _tolower_str(text, 0);
    EXPECT_STREQ(text, "abcxyZ-1");
}

TEST(Case, CopyIsConvertedAndNotTerminated) {
    char copy[] = "########";
    _toupper_str2(copy, "ab1z\xc3\xa9", 6);
    EXPECT_STREQ(copy, "AB1Z\xc3\xa9##");
}

TEST(Case, BytesFrom128OnStayWhateverTheLocale) {
    std::string all;
    for (int byte = 128; byte < 256; byte++)
        all += static_cast<char>(byte);
    high_letters = true;
    std::string upper = all;
    std::string lower = all;
    std::string copy(128, '#');
    std::string capital = all;
    _toupper_str(upper.data(), 128);
    _tolower_str(lower.data(), 128);
    _toupper_str2(copy.data(), all.data(), 128);
    for (char &byte : capital)
        _initcap_str(&byte, 1);
    high_letters = false;
    EXPECT_EQ(upper, all);
    EXPECT_EQ(lower, all);
    EXPECT_EQ(copy, all);
    EXPECT_EQ(capital, all);
}

std::string with_capitals(std::string text, int len) {
    _initcap_str(text.data(), len);
    return text;
}

TEST(InitcapStr, FirstOfEveryWordIsUpperCased) {
    EXPECT_EQ(with_capitals("ab cd-ef_gh  ij", 15), "Ab Cd-Ef_gh  Ij");
    EXPECT_EQ(with_capitals("aB-CD", 5), "AB-CD") << "nothing is lowered";
    EXPECT_EQ(with_capitals("a b-c", 3), "A B-c");
}

TEST(InitcapStr, FirstByteIsConvertedWhateverTheLength) {
    EXPECT_EQ(with_capitals("ab", 1), "Ab");
    EXPECT_EQ(with_capitals("ab", 0), "Ab");
    EXPECT_EQ(with_capitals("ab", -1), "Ab");
    EXPECT_EQ(with_capitals("", 0), "");
}

// ---- matching ----

TEST(StrMatch, RulesHoldOneByOne) {
    EXPECT_EQ(_str_match("abc", "a%c"), 1);
    EXPECT_EQ(_str_match("abc", "a_"), 0);
    EXPECT_EQ(_str_match("a%c", "a\\%c"), 1);
    EXPECT_EQ(_str_match("abc", "a\\%c"), 0);
    EXPECT_EQ(_str_match("a_c", "a\\_c"), 1);
    EXPECT_EQ(_str_match("abc", "a\\_c"), 0);
    EXPECT_EQ(_str_match("a\\c", "a\\\\c"), 1);
    EXPECT_EQ(_str_match("abc", "a\\bc"), 1) << "any character can be taken literally";
    EXPECT_EQ(_str_match("", "%"), 1);
    EXPECT_EQ(_str_match("", ""), 1);
    EXPECT_EQ(_str_match("", "_"), 0);
    EXPECT_EQ(_str_match("abc", "ABC"), 0);
    EXPECT_EQ(_str_match("abcd", "abc"), 0) << "the whole string must be used up";
    EXPECT_EQ(_str_match("abc", "abcd"), 0);
    EXPECT_EQ(_str_match("aab", "%ab"), 1);
    EXPECT_EQ(_str_match("\xe4x", "_x"), 1);
}

TEST(StrMatch, BackslashAtTheEndMatchesNothing) {
    for (const char *str : {"", "a", "\\", "a\\"}) {
        EXPECT_EQ(_str_match(str, "a\\"), 0) << str;
        EXPECT_EQ(_str_match(str, "%\\"), 0) << str;
        EXPECT_EQ(_str_match(str, "\\"), 0) << str;
    }
}

// The rules as they read, at whatever cost.
bool matches(const char *str, const char *pattern) {
    if (*pattern == '\0')
        return *str == '\0';
    if (*pattern == '%') {
        for (const char *rest = str;; rest++) {
            if (matches(rest, pattern + 1))
                return true;
            if (*rest == '\0')
                return false;
        }
    }
    if (*str == '\0')
        return false;
    if (*pattern == '_')
        return matches(str + 1, pattern + 1);
    if (*pattern == '\\')
        pattern++;
    return *pattern == *str && matches(str + 1, pattern + 1);
}

// All texts of up to that length over the characters.
std::vector<std::string> texts_over(const std::string &characters, size_t length) {
    std::vector<std::string> texts = {""};
    for (size_t i = 0; i < texts.size() && texts[i].size() < length; i++) {
        for (const char c : characters)
            texts.push_back(texts[i] + c);
    }
    return texts;
}

TEST(StrMatch, EveryShortPatternMatchesAsTheRulesRead) {
    const std::vector<std::string> strings = texts_over("ab%\\", 4);
    for (const std::string &pattern : texts_over("ab%_\\", 5)) {
        for (const std::string &str : strings)
            ASSERT_EQ(_str_match(str.c_str(), pattern.c_str()),
                      matches(str.c_str(), pattern.c_str()))
                << str << " LIKE " << pattern;
    }
}

TEST(StrMatch, RandomPatternsMatchAsTheRulesRead) {
    std::mt19937 random(1);
    const auto text = [&](const char *characters, size_t kinds, size_t most) {
        std::string result;
        for (size_t left = random() % (most + 1); left > 0; left--)
            result += characters[random() % kinds];
        return result;
    };
    int matched = 0;
    for (int i = 0; i < 200000; i++) {
        const std::string str = text("aab", 3, 16);
        const std::string pattern = text("aab%%_", 6, 10);
        const int result = _str_match(str.c_str(), pattern.c_str());
        ASSERT_EQ(result, matches(str.c_str(), pattern.c_str())) << str << " LIKE " << pattern;
        matched += result;
    }
    EXPECT_GT(matched, 1000);
}

TEST(StrMatch, ManyPercentsTakeNoLongerThanTheProductOfTheLengths) {
    const std::string str(20000, 'a');
    std::string pattern;
    for (int i = 0; i < 200; i++)
        pattern += "%a_%";
    EXPECT_EQ(_str_match(str.c_str(), (pattern + "b").c_str()), 0);
    EXPECT_EQ(_str_match(str.c_str(), pattern.c_str()), 1);
    EXPECT_EQ(_str_match((str + "b").c_str(), (pattern + "b").c_str()), 1);
}

TEST(StrMatch, NothingBehindEitherTextIsRead) {
    GuardedBytes strings(16);
    GuardedBytes patterns(16);
    for (const std::string &pattern : texts_over("a%_\\", 3)) {
        for (const std::string &str : texts_over("ab", 3))
            _str_match(strings.hold(str + '\0'), patterns.hold(pattern + '\0'));
    }
}

// ---- searching ----

TEST(Strchrs, EarliestOfAnyOfTheBytesIsFound) {
    const char text[] = "key = value; rest";
    EXPECT_EQ(_strchrs(text, ";="), text + 4);
    EXPECT_EQ(_strchrs(text, "#"), nullptr);
    EXPECT_EQ(_strchrs(text, ""), nullptr);
    EXPECT_EQ(_strchrs("", "a"), nullptr);
}

TEST(Strcasestr, CaseDoesNotCount) {
    const char text[] = "xxABcx";
    EXPECT_EQ(_strcasestr(text, "abc"), text + 2);
    EXPECT_EQ(_strcasestr(text, "XA"), text + 1);
    EXPECT_EQ(_strcasestr(text, "abd"), nullptr);
    EXPECT_EQ(_strcasestr(text, "xabcxx"), nullptr);
}

TEST(Strcasestr, SearchGoesOnOneBehindTheStartOfAFailedAttempt) {
    const char text[] = "aAaab";
    EXPECT_EQ(_strcasestr(text, "AAB"), text + 2);
}

TEST(Strcasestr, EmptyTexts) {
    const char text[] = "abc";
    EXPECT_EQ(_strcasestr(text, ""), text);
    const char empty[] = "";
    EXPECT_EQ(_strcasestr(empty, ""), empty);
    EXPECT_EQ(_strcasestr(empty, "a"), nullptr);
}

TEST(StrcasestrDeathTest, NullIsAnAssertion) {
    const char *const line = "^str_util:[0-9]+: Assertion fail with condition "
                             "'haystack != NULL && needle != NULL' ";
    EXPECT_EXIT(_strcasestr(nullptr, "a"), testing::KilledBySignal(SIGABRT), line);
    EXPECT_EXIT(_strcasestr("a", nullptr), testing::KilledBySignal(SIGABRT), line);
}

// ---- replacing ----

struct Replacing {
    const char *src;
    const char *from;
    const char *to;
    const char *result;
};

void PrintTo(const Replacing &replacing, std::ostream *stream) {
    *stream << '"' << replacing.from << "\" in \"" << replacing.src << '"';
}

class ReplaceStr : public testing::TestWithParam<Replacing> {};

TEST_P(ReplaceStr, OccurrencesAreReplacedFromTheLeft) {
    const auto &[src, from, to, result] = GetParam();
    const size_t room = std::max(strlen(src), strlen(result)) + 1;
    GuardedBytes bytes(room);
    char *const dst = bytes.hold(std::string(room, '#'));
    _replace_str(src, dst, from, to);
    EXPECT_STREQ(dst, result);
}

INSTANTIATE_TEST_SUITE_P(
    StrUtil, ReplaceStr,
    testing::Values(Replacing{"aaa", "a", "aa", "aaaaaa"}, Replacing{"a-b-c", "-", "", "abc"},
                    Replacing{"a-b-c", "-", "::", "a::b::c"}, Replacing{"aaa", "aa", "b", "ba"},
                    Replacing{"abcabc", "ca", "", "abbc"}, Replacing{"aabb", "ab", "", "ab"},
                    Replacing{"abc", "x", "y", "abc"}, Replacing{"abc", "abc", "x", "x"},
                    Replacing{"", "a", "b", ""}, Replacing{"abc", "", "x", "abc"},
                    Replacing{"abc", "abcd", "x", "abc"}));

// ---- fitting numbers ----

// What function makes of text within size, in a buffer of that many characters and a terminator.
std::string fitted(int (*function)(char *, size_t), const std::string &text, size_t size,
                   size_t room) {
    static GuardedBytes bytes(4096);
    std::string held = text;
    held.resize(room + 1, '\0');
    char *const str = bytes.hold(held);
    str[-1] = '#';
    EXPECT_EQ(function(str, size), 0);
    EXPECT_EQ(str[-1], '#');
    return str;
}

// The text's own length is all the room that there need be.
std::string double_fitted(const std::string &text, size_t size) {
    return fitted(_print_double, text, size, text.size());
}

std::string number_fitted(const std::string &text, size_t size) {
    return fitted(_print_number, text, size, std::max(text.size(), size + 2));
}

struct Fitting {
    const char *text;
    size_t size;
    const char *result;
};

void PrintTo(const Fitting &fitting, std::ostream *stream) {
    *stream << fitting.text << " in " << fitting.size;
}

class PrintDouble : public testing::TestWithParam<Fitting> {};

TEST_P(PrintDouble, FitsTheSize) {
    EXPECT_EQ(double_fitted(GetParam().text, GetParam().size), GetParam().result);
}

INSTANTIATE_TEST_SUITE_P(ZerosOfTheFractionGo, PrintDouble,
                         testing::Values(Fitting{"123.4500", 10, "123.45"},
                                         Fitting{"123.45", 6, "123.45"},
                                         Fitting{"123.4500", 6, "123.45"},
                                         Fitting{"123.000", 10, "123"}, Fitting{"123.", 10, "123"},
                                         Fitting{"-0.50", 10, "-0.5"}, Fitting{".50", 10, ".5"},
                                         Fitting{"0.0", 10, "0"}, Fitting{"100", 10, "100"},
                                         Fitting{"1200.0", 5, "1200"}, Fitting{"", 10, ""}));

INSTANTIATE_TEST_SUITE_P(FractionIsRounded, PrintDouble,
                         testing::Values(Fitting{"3.14159265358979", 10, "3.14159265"},
                                         Fitting{"-3.14159265358979", 10, "-3.1415927"},
                                         Fitting{"123.456", 6, "123.46"},
                                         Fitting{"123.456", 5, "123.5"},
                                         Fitting{"123.456", 4, "123"}, Fitting{"9.99", 3, "10.0"},
                                         Fitting{"0.000001", 5, "0.000"}));

INSTANTIATE_TEST_SUITE_P(LongIntegersGetAnExponent, PrintDouble,
                         testing::Values(Fitting{"12345678901", 10, "1.235E+10"},
                                         Fitting{"-12345678901", 10, "-1.235E+10"},
                                         Fitting{"1234567890", 10, "1.235E+09"},
                                         Fitting{"1234567890.5", 10, "1.235E+09"},
                                         Fitting{"123456789", 10, "123456789"},
                                         Fitting{"12345678", 8, "1.2E+07"},
                                         Fitting{"1234567", 7, "1E+06"}));

INSTANTIATE_TEST_SUITE_P(WhatNoFormFitsStays, PrintDouble,
                         testing::Values(Fitting{"123", 3, "123"}, Fitting{"1234", 3, "1234"},
                                         Fitting{"12345", 3, "1E+04"}, Fitting{"0.5", 1, "0.5"},
                                         Fitting{"0.5", 0, "0.5"}, Fitting{"1.5e300", 5, "1.5e300"},
                                         Fitting{"1.500e10", 10, "1.500e10"}));

class PrintNumber : public testing::TestWithParam<Fitting> {};

TEST_P(PrintNumber, FitsTheSize) {
    EXPECT_EQ(number_fitted(GetParam().text, GetParam().size), GetParam().result);
}

INSTANTIATE_TEST_SUITE_P(
    WithoutExponent, PrintNumber,
    testing::Values(Fitting{"1.500", 14, "1.5"}, Fitting{"15", 14, "15"},
                    Fitting{"1500", 3, "1500"},
                    Fitting{"123456789012345678901", 14, "123456789012345678901"},
                    Fitting{"12345678901234567890.5", 14, "1.2345679E+19"},
                    Fitting{"1.500E+00", 14, "1.5"}, Fitting{"15E0", 14, "15"},
                    Fitting{"1.5E", 14, "1.5"}, Fitting{"1.5Ex", 14, "1.5"}, Fitting{"", 14, ""}));

INSTANTIATE_TEST_SUITE_P(
    PointIsMoved, PrintNumber,
    testing::Values(Fitting{"1.5E+03", 14, "1500"}, Fitting{"1.5e+3", 14, "1500"},
                    Fitting{"1.5E3", 14, "1500"}, Fitting{"1.23456E+02", 14, "123.456"},
                    Fitting{"1.5E-03", 14, "0.0015"}, Fitting{"1.5E-01", 14, "0.15"},
                    Fitting{"5E-9", 14, "0.000000005"}, Fitting{"5E+9", 14, "5000000000"},
                    Fitting{"1.500E-03", 14, "0.0015"}, Fitting{"1.00E+02", 14, "100"},
                    Fitting{"1.234E-09", 14, "0.000000001234"},
                    Fitting{"1.23456789E-09", 14, "0.000000001235"}));

INSTANTIATE_TEST_SUITE_P(SignStaysInFront, PrintNumber,
                         testing::Values(Fitting{"-1.5E+03", 14, "-1500"},
                                         Fitting{"-1.5E-03", 14, "-0.0015"},
                                         Fitting{"+1.5E+03", 14, "+1500"},
                                         Fitting{"-5E-1", 14, "-0.5"}));

INSTANTIATE_TEST_SUITE_P(MantissaOfAnyForm, PrintNumber,
                         testing::Values(Fitting{"123.45E-2", 14, "1.2345"},
                                         Fitting{"123.45E-5", 14, "0.0012345"},
                                         Fitting{"123.45E+1", 14, "1234.5"},
                                         Fitting{"0.5E+3", 14, "500"},
                                         Fitting{"0.5E-2", 14, "0.005"}, Fitting{"0.0E+5", 14, "0"},
                                         Fitting{"0E-5", 14, "0"}, Fitting{"E5", 14, "0"}));

INSTANTIATE_TEST_SUITE_P(MantissaCountsUpToItsSixteenthCharacter, PrintNumber,
                         testing::Values(Fitting{"1.23456789012345E+01", 14, "12.34567890123"},
                                         Fitting{"1.2345678901234999E-1", 14, "0.123456789012"},
                                         Fitting{"10000000000000009E-9", 14, "1000000"}));

INSTANTIATE_TEST_SUITE_P(MovedAndTooLong, PrintNumber,
                         testing::Values(Fitting{"1.5E+9", 8, "1.5E+09"},
                                         Fitting{"1.23456789E+5", 9, "123456.79"},
                                         Fitting{"-1.23456789E+9", 9, "-1.23E+09"}));

INSTANTIATE_TEST_SUITE_P(
    LargeExponentStays, PrintNumber,
    testing::Values(Fitting{"1.5E+20", 10, "1.50000e20"}, Fitting{"1.5E+10", 10, "1.50000e10"},
                    Fitting{"-1.5E+20", 10, "-1.5000e20"}, Fitting{"1.5E-10", 10, "1.50000e-10"},
                    Fitting{"1.5E+100", 10, "1.50000e100"}, Fitting{"1.5E-100", 10, "1.50000e-100"},
                    Fitting{"1.23456789E+20", 10, "1.23456e20"},
                    Fitting{"1.99999999999999999E+20", 14, "1.999999999e20"},
                    Fitting{"5E+20", 10, "5000000e20"}, Fitting{"1.5E+20", 4, "1e20"}));

INSTANTIATE_TEST_SUITE_P(
    WhatNoFormFitsStays, PrintNumber,
    testing::Values(Fitting{"1.5E+20", 3, "1.5E+20"}, Fitting{"1E5", 2, "1E5"},
                    Fitting{"1E20", 0, "1E20"}, Fitting{"1E-1000", 10, "1E-1000"},
                    Fitting{"1E99999999999999999999", 14, "1E99999999999999999999"}));

// The places behind the point of a printed number, and the power of ten that the last one is worth.
double unit_of(const std::string &printed) {
    const size_t mantissa = std::min(printed.find_first_of("eE"), printed.size());
    const size_t point = std::min(printed.find('.'), mantissa);
    const double places = point < mantissa ? static_cast<double>(mantissa - point - 1) : 0;
    const double exponent = mantissa < printed.size() ? atof(printed.c_str() + mantissa + 1) : 0;
    return pow(10, exponent - places);
}

// Numbers are read as doubles: twice the distance of two neighbours there.
double error_of(double value) {
    return std::ldexp(fabs(value), -51);
}

TEST(FittedNumbers, DecimalsKeepTheirValueAndNeverGrow) {
    std::mt19937_64 random(2);
    for (int i = 0; i < 3000; i++) {
        const double value =
            std::ldexp(static_cast<double>(random() >> 11), static_cast<int>(random() % 70) - 60) *
            (i % 2 == 0 ? 1 : -1);
        char text[128];
        snprintf(text, sizeof text, "%.*f", static_cast<int>(random() % 20), value);
        const double read = atof(text);
        for (size_t size = 0; size < 40; size++) {
            const std::string result = double_fitted(text, size);
            EXPECT_LE(fabs(atof(result.c_str()) - read), unit_of(result) / 2 + error_of(read))
                << text << " in " << size << " is " << result;
            EXPECT_TRUE(size < 7 || result.size() <= size + 1)
                << text << " in " << size << " is " << result;
        }
    }
}

TEST(FittedNumbers, ExponentFormsKeepTheirValueInTheRoomAskedFor) {
    std::mt19937_64 random(3);
    for (int exponent = -120; exponent <= 120; exponent++) {
        for (const int digits : {1, 3, 9, 13}) {
            const double mantissa =
                1 + 9 * static_cast<double>(random() >> 11) / static_cast<double>(1ull << 53);
            char text[64];
            snprintf(text, sizeof text, "%s%.*fE%+03d", random() % 2 == 0 ? "-" : "", digits,
                     std::min(mantissa, 9.9), exponent);
            const double read = atof(text);
            for (size_t size = 0; size <= 14; size++) {
                const std::string result = number_fitted(text, size);
                if (size < 7)
                    continue; // no room for a sign, a digit, a point and an exponent
                EXPECT_LE(result.size(), size + 2) << text << " in " << size;
                // A large exponent's mantissa is cut, not rounded.
                EXPECT_LE(fabs(atof(result.c_str()) - read), unit_of(result) + error_of(read))
                    << text << " in " << size << " is " << result;
            }
        }
    }
}

TEST(FittedNumbers, AnyTextIsSurvived) {
    std::mt19937 random(4);
    const char characters[] = "0123456789999...--++eE xX\xe4";
    for (int i = 0; i < 200000; i++) {
        std::string text;
        for (size_t left = random() % 40; left > 0; left--)
            text += characters[random() % (sizeof characters - 1)];
        const size_t size = random() % 15;
        const std::string number = number_fitted(text, size);
        EXPECT_LE(number.size(), std::max(text.size(), size + 2));
        EXPECT_LE(double_fitted(text, random() % 50).size(), text.size());
    }
}

TEST(FittedNumbersDeathTest, WrongArgumentsAreAssertions) {
    const std::string start = "^str_util:[0-9]+: Assertion fail with condition ";
    char text[32] = "1.5E+20";
    EXPECT_EXIT(_print_double(nullptr, 10), testing::KilledBySignal(SIGABRT),
                start + "'str != NULL' ");
    EXPECT_EXIT(_print_number(nullptr, 10), testing::KilledBySignal(SIGABRT),
                start + "'str != NULL' ");
    EXPECT_EXIT(_print_number(text, 15), testing::KilledBySignal(SIGABRT), start + "'size <= 14' ");
    EXPECT_EQ(_print_number(text, 14), 0);
}

} // namespace
