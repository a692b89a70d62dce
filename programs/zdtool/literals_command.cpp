// zdtool literals: what of a statement the conversion of literals would replace, and by what.

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string>
#include <strings.h>
#include <vector>

#include "client/common/client_try.h"
#include "command.h"
#include "common/alloc/region_clialloc.h"
#include "common/alloc/system_clialloc.h"
#include "common/lit_cnv.h"
#include "common/zd_err_info.h"
#include "option_reader.h"
#include "text_format.h"
#include "usage_error.h"
#include "whole_file.h"

namespace zdtool {

using namespace programs;

namespace {

const char help_text[] =
    R"(Usage: zdtool literals [OPTION...] [FILE]

Print a SQL statement with bind names in place of its literals, and a table of the literals. The
statement is read from FILE, or from standard input ("-", or no FILE).

  --charset NAME  character set of the statement (default UTF8); one of ASCII, EUCKR, MSWIN949,
                  UTF8, UTF16, SJIS, MSWIN932, MSWIN932_TILDE, EUCJP, EUCJP_TILDE, TCVN3,
                  MSWIN936, MSWIN1252, MSWIN950, MSWIN1251, ISO8859P1, ISO8859P2, ISO8859P9,
                  ISO8859P15, KOI8R, ISO8859P5, ISO2022KR, US8ICL
  --client        choose names as for a client: never those of the system's own family
  --big-only      replace literals of 64 KiB and more only
  --json          print one JSON object
  --help          print this text and exit

Statements that do not begin with SELECT, INSERT, UPDATE, DELETE, MERGE, WITH or CALL have no
literals that could be replaced.

Exit status: 0 success, 1 the statement cannot be converted, 2 wrong usage or a file that cannot be
read.
)";

// By number.
constexpr const char *charset_names[ZDSTR_CHARSET_MAX] = {
    "ASCII",      "EUCKR",          "MSWIN949",  "UTF8",        "UTF16",     "SJIS",
    "MSWIN932",   "MSWIN932_TILDE", "EUCJP",     "EUCJP_TILDE", "TCVN3",     "MSWIN936",
    "MSWIN1252",  "MSWIN950",       "MSWIN1251", "ISO8859P1",   "ISO8859P2", "ISO8859P9",
    "ISO8859P15", "KOI8R",          "ISO8859P5", "ISO2022KR",   "US8ICL"};

struct LiteralsOptions {
    bool help = false;
    bool json = false;
    bool is_client = false;
    bool big_only = false;
    zdstr_charset_t charset = ZDSTR_CHARSET_UTF8;
    std::string file = "-";
};

zdstr_charset_t charset_of(const char *name) {
    for (int charset = 0; charset < ZDSTR_CHARSET_MAX; charset++) {
        if (strcasecmp(name, charset_names[charset]) == 0)
            return static_cast<zdstr_charset_t>(charset);
    }
    throw UsageError(printable(name) +
                     ": no such character set ('zdtool literals --help' lists them)");
}

LiteralsOptions parse(int argc, char **argv) {
    enum { CHARSET = OptionReader::FIRST_LONG, CLIENT, BIG_ONLY, JSON, HELP };
    static constexpr option long_options[] = {{"charset", required_argument, nullptr, CHARSET},
                                              {"client", no_argument, nullptr, CLIENT},
                                              {"big-only", no_argument, nullptr, BIG_ONLY},
                                              {"json", no_argument, nullptr, JSON},
                                              {"help", no_argument, nullptr, HELP},
                                              {nullptr, 0, nullptr, 0}};
    LiteralsOptions options;
    int files = 0;
    OptionReader reader(argc, argv, "", long_options, "try 'zdtool literals --help'");
    for (int found = reader.next(); found != OptionReader::END; found = reader.next()) {
        if (found == CHARSET)
            options.charset = charset_of(reader.value());
        else if (found == CLIENT)
            options.is_client = true;
        else if (found == BIG_ONLY)
            options.big_only = true;
        else if (found == JSON)
            options.json = true;
        else if (found == HELP)
            options.help = true;
        else if (files++ == 0)
            options.file = reader.value();
        else
            throw UsageError(
                printable(reader.value()) +
                ": unexpected (one statement at a time; try 'zdtool literals --help')");
    }
    return options;
}

// What was given cannot be worked on.
struct Fault : std::runtime_error {
    using std::runtime_error::runtime_error;
};

std::string read_statement(const std::string &file) {
    const std::string name = shown_path(file);
    std::string statement = read_whole(file);
    const size_t zero = statement.find('\0');
    if (zero != std::string::npos)
        throw Fault(name + ": no SQL text: there is a zero byte at offset " + std::to_string(zero));
    if (statement.size() > INT_MAX / 2)
        throw Fault(name + ": the statement is too long");
    return statement;
}

struct ShownLiteral {
    literal_t literal;
    std::string name; // that stands in its place
    std::string text; // the literal's own is gone with the region
};

struct Conversion {
    std::optional<std::string> prefix; // none without literals
    std::string text;
    std::vector<ShownLiteral> literals;
};

class Region {
  public:
    Region() : alloc_(real_sys_region_allocator_new(&_system_allocator, "zdtool", 1)) {}
    Region(const Region &) = delete;
    Region &operator=(const Region &) = delete;
    ~Region() { alloc_->desc->func_delete(alloc_); }
    [[nodiscard]] allocator_t *get() const { return alloc_; }

  private:
    allocator_t *alloc_;
};

// What the library returned, in a region; plain pointers, for it may throw past them.
struct Converted {
    listc_t *literals;
    char *prefix;
    char *text;
};

ec_t convert_in(allocator_t *alloc, char *statement, const LiteralsOptions &options,
                Converted &converted) {
    return client_try([&] {
        auto_param_info_t info;
        converted.literals = lit_cnv_get_literal_list(statement, options.big_only ? 1 : 0, &info,
                                                      options.charset, alloc);
        if (info.literal_cnt == 0) {
            converted.text = statement;
            return;
        }
        converted.prefix = lit_cnv_get_param_prefix(&info, options.is_client ? 1 : 0, alloc);
        converted.text =
            lit_cnv_get_replaced_sql(statement, converted.prefix, converted.literals, alloc);
    });
}

Conversion convert(std::string &statement, const LiteralsOptions &options) {
    const Region region;
    Converted converted = {};
    const ec_t ec = convert_in(region.get(), statement.data(), options, converted);
    if (ec == ERROR_OUT_OF_PHYSICAL_MEM)
        throw Fault("there is not enough memory for the statement");
    if (ec != ERROR_NONE)
        throw Fault("no bind names are left that the statement does not use (" +
                    std::string(zd_get_err_info(ec)->name) + ")");
    Conversion conversion;
    if (converted.prefix != nullptr)
        conversion.prefix = converted.prefix;
    conversion.text = converted.text;
    int shorter = 0;
    list_for_each(link, &converted.literals->link) {
        const literal_t *const literal =
            static_cast<const literal_t *>(reinterpret_cast<const listc_t *>(link)->data);
        const size_t at = static_cast<size_t>(literal->offset - shorter);
        const size_t length = strlen(literal->text) - static_cast<size_t>(literal->diff);
        conversion.literals.push_back(
            {*literal, conversion.text.substr(at, length), literal->text});
        shorter += literal->diff;
    }
    return conversion;
}

const char *type_name(zd_type_t type) {
    switch (type) {
    case ZD_TYPE_NUMBER:
        return "number";
    case ZD_TYPE_NCHAR:
        return "nchar";
    default:
        return "char";
    }
}

void print_table(const Conversion &conversion) {
    std::fwrite(conversion.text.data(), 1, conversion.text.size(), stdout);
    if (conversion.text.empty() || conversion.text.back() != '\n')
        std::fputc('\n', stdout);
    std::fputc('\n', stdout);
    if (conversion.literals.empty()) {
        std::fputs("no literals\n", stdout);
        return;
    }
    size_t width = strlen("NAME");
    for (const ShownLiteral &shown : conversion.literals)
        width = std::max(width, shown.name.size());
    std::printf("%7s  %-6s  %8s  %-*s  %s\n", "ORDINAL", "TYPE", "OFFSET", static_cast<int>(width),
                "NAME", "TEXT");
    for (const ShownLiteral &shown : conversion.literals)
        std::printf("%7d  %-6s  %8d  %-*s  %s\n", shown.literal.idx, type_name(shown.literal.type),
                    shown.literal.offset, static_cast<int>(width), shown.name.c_str(),
                    printable(shown.text).c_str());
}

void print_json(const Conversion &conversion) {
    std::vector<std::string> literals;
    for (const ShownLiteral &shown : conversion.literals) {
        JsonObject object;
        object.member("ordinal", std::to_string(shown.literal.idx))
            .text("type", type_name(shown.literal.type))
            .member("offset", std::to_string(shown.literal.offset))
            .member("diff", std::to_string(shown.literal.diff))
            .text("name", shown.name)
            .text("text", shown.text);
        literals.push_back(object.str());
    }
    JsonObject object;
    object.text("text", conversion.text)
        .member("prefix", conversion.prefix ? json_string(*conversion.prefix) : "null")
        .member("literals", json_array(literals));
    std::printf("%s\n", object.str().c_str());
}

} // namespace

int run_literals(int argc, char **argv) {
    const LiteralsOptions options = parse(argc, argv);
    if (options.help) {
        std::fputs(help_text, stdout);
        return STATUS_OK;
    }
    try {
        std::string statement = read_statement(options.file);
        const Conversion conversion = convert(statement, options);
        if (options.json)
            print_json(conversion);
        else
            print_table(conversion);
        return STATUS_OK;
    } catch (const Fault &fault) {
        std::fflush(stdout);
        std::fprintf(stderr, "zdtool: %s\n", fault.what());
        return STATUS_FAULT;
    }
}

} // namespace zdtool
