// zdtool error: what an error code or name means.

#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "command.h"
#include "error_catalogue.h"
#include "option_reader.h"
#include "text_format.h"
#include "usage_error.h"

namespace zdtool {

using namespace programs;

namespace {

constexpr size_t nearest_count = 3;

const char help_text[] =
    R"(Usage: zdtool error [--json] CODE|NAME...
       zdtool error [--json] --grep TEXT

Print what the error catalogue says of an error: name, code, class, SQLSTATE, message, cause and
what to do.

  CODE          a code, for example -140004
  NAME          a name, for example ERROR_EPA_FAIL, in either case
  --grep TEXT   list all errors with TEXT, in either case, in their name or texts
  --json        print one JSON object a line, with the texts exactly as the catalogue has them
  --help        print this text and exit

Exit status: 0 found, 1 an error is not in the catalogue, 2 wrong usage.
)";

struct ErrorOptions {
    bool help = false;
    bool json = false;
    std::optional<std::string> grep;
    std::vector<std::string> words;
};

ErrorOptions parse(int argc, char **argv) {
    enum { GREP = OptionReader::FIRST_LONG, JSON, HELP };
    static constexpr option long_options[] = {{"grep", required_argument, nullptr, GREP},
                                              {"json", no_argument, nullptr, JSON},
                                              {"help", no_argument, nullptr, HELP},
                                              {nullptr, 0, nullptr, 0}};
    ErrorOptions options;
    OptionReader reader(argc, argv, "", long_options, "try 'zdtool error --help'");
    for (int found = reader.next(); found != OptionReader::END; found = reader.next()) {
        if (found == GREP)
            options.grep = reader.value();
        else if (found == JSON)
            options.json = true;
        else if (found == HELP)
            options.help = true;
        else
            options.words.emplace_back(reader.value());
    }
    if (options.help)
        return options;
    if (options.grep && !options.words.empty())
        throw UsageError(options.words[0] + ": unexpected with --grep (quote a text with blanks)");
    if (!options.grep && options.words.empty())
        throw UsageError("error: no code or name given (try 'zdtool error --help')");
    return options;
}

std::string or_dash(std::string_view text) {
    return text.empty() ? "-" : printable(text);
}

std::string foreign_number(const zd_err_info_t &row) {
    return row.ora_errcode == ZD_ERR_NO_FOREIGN_NUMBER ? "-" : std::to_string(row.ora_errcode);
}

void print_line(const char *title, const std::string &text) {
    std::printf("  %-9s %s\n", title, text.c_str());
}

void print_error(const zd_err_info_t &row) {
    std::printf("%s (%d)\n", row.name, row.code);
    print_line("class", std::string(error_class(row)));
    print_line("SQLSTATE", or_dash(row.sqlstate));
    print_line("foreign", foreign_number(row));
    print_line("arguments", or_dash(row.argtypes));
    print_line("message", or_dash(bare_text(row.desc)));
    print_line("cause", or_dash(bare_text(row.cause)));
    print_line("action", or_dash(bare_text(row.action)));
}

void print_json(const zd_err_info_t &row) {
    JsonObject object;
    object.text("name", row.name)
        .member("code", std::to_string(row.code))
        .text("class", error_class(row))
        .text("sqlstate", row.sqlstate)
        .member("foreign", row.ora_errcode == ZD_ERR_NO_FOREIGN_NUMBER
                               ? "null"
                               : std::to_string(row.ora_errcode))
        .text("arguments", row.argtypes)
        .text("message", row.desc)
        .text("cause", row.cause)
        .text("action", row.action);
    std::printf("%s\n", object.str().c_str());
}

int run_grep(const std::string &text, bool json) {
    const ErrorRows rows = grep_errors(text);
    for (const zd_err_info_t *row : rows) {
        if (json)
            print_json(*row);
        else
            std::printf("%d %s: %s\n", row->code, row->name, or_dash(bare_text(row->desc)).c_str());
    }
    if (!rows.empty())
        return STATUS_OK;
    std::fprintf(stderr, "zdtool: no error has the text %s\n", quoted(text).c_str());
    return STATUS_FAULT;
}

void report_unknown(const std::string &word) {
    std::string nearest;
    for (const zd_err_info_t *row : nearest_errors(word, nearest_count))
        nearest += (nearest.empty() ? "" : ", ") + std::string(row->name) + " (" +
                   std::to_string(row->code) + ")";
    std::fprintf(stderr, "zdtool: %s: not in the error catalogue (nearest: %s)\n",
                 printable(word).c_str(), nearest.c_str());
}

} // namespace

int run_error(int argc, char **argv) {
    const ErrorOptions options = parse(argc, argv);
    if (options.help) {
        std::fputs(help_text, stdout);
        return STATUS_OK;
    }
    if (options.grep)
        return run_grep(*options.grep, options.json);
    int status = STATUS_OK;
    bool first = true;
    for (const std::string &word : options.words) {
        const zd_err_info_t *const row = find_error(word);
        if (row == nullptr) {
            report_unknown(word);
            status = STATUS_FAULT;
            continue;
        }
        if (options.json) {
            print_json(*row);
        } else {
            if (!first)
                std::putchar('\n');
            print_error(*row);
        }
        first = false;
    }
    return status;
}

} // namespace zdtool
