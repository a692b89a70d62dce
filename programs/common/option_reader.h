// Reads a command line by getopt_long's rules, and says in a whole sentence what is wrong with it.

#ifndef PROGRAM_OPTION_READER_H
#define PROGRAM_OPTION_READER_H

#include <getopt.h>

#include <string>

namespace programs {

class OptionReader {
  public:
    static constexpr int END = -1;
    static constexpr int OPERAND = 1;
    // Long options have values from here on, so that none is mistaken for a letter.
    static constexpr int FIRST_LONG = 256;

    // argv[0] is skipped. short_options as for getopt ("hq"); long_options ends with a null row and
    // outlives the reader. hint is added to every complaint: "try 'zdtool error --help'".
    OptionReader(int argc, char **argv, const std::string &short_options,
                 const option *long_options, std::string hint);

    // The value of the next option; OPERAND for a word that is none, also for a negative number and
    // for all words after "--"; END. Throws UsageError for an option that is not known, lacks its
    // value or takes none.
    int next();

    // The operand, or the value of the option that next() returned; null when it has none.
    const char *value() const { return value_; }

  private:
    [[noreturn]] void fail(int complaint, const std::string &word) const;

    int argc_;
    char **argv_;
    std::string short_options_;
    const option *long_options_;
    std::string hint_;
    const char *value_ = nullptr;
    bool only_operands_ = false;
};

} // namespace programs

#endif
