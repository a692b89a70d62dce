#include "option_reader.h"

#include "usage_error.h"

namespace programs {

OptionReader::OptionReader(int argc, char **argv, const std::string &short_options,
                           const option *long_options, std::string hint)
    : argc_(argc), argv_(argv),
      // "-" keeps the order: a word that is no option comes back as OPERAND.
      short_options_("-:" + short_options), long_options_(long_options), hint_(std::move(hint)) {
    opterr = 0;
    optind = 0; // starts over, whatever was parsed before
}

// What getopt does not say by itself. word is what it stumbled over.
void OptionReader::fail(int complaint, const std::string &word) const {
    const std::string name = word.substr(0, word.find('='));
    if (complaint == ':')
        throw UsageError(name + ": needs a value (" + hint_ + ")");
    if (word.starts_with("--") && optopt >= FIRST_LONG)
        throw UsageError(name + ": takes no value (" + hint_ + ")");
    throw UsageError(word + ": unknown option (" + hint_ + ")");
}

static bool is_negative_number(const std::string &word) {
    return word.size() > 1 && word[0] == '-' && word[1] >= '0' && word[1] <= '9';
}

int OptionReader::next() {
    const int at = optind > 0 ? optind : 1;
    const std::string word = at < argc_ ? argv_[at] : "";
    if (only_operands_ && at >= argc_)
        return END;
    if (only_operands_ || is_negative_number(word)) {
        value_ = argv_[at];
        optind = at + 1;
        return OPERAND;
    }
    const int found = getopt_long(argc_, argv_, short_options_.c_str(), long_options_, nullptr);
    value_ = optarg;
    if (found == '?' || found == ':')
        fail(found, word);
    if (found == END && optind < argc_) { // behind "--"
        only_operands_ = true;
        return next();
    }
    return found;
}

} // namespace programs
