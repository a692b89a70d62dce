#include "script.h"

#include "usage_error.h"

namespace zdepcall {

using namespace programs;

namespace {

class Splitter {
  public:
    explicit Splitter(std::string_view line) : line_(line) {}

    std::vector<std::string> split() {
        while (at_ < line_.size()) {
            const char character = line_[at_++];
            if (character == ' ' || character == '\t') {
                end_word();
            } else if (character == '#' && !in_word_) {
                break;
            } else if (character == '\'' || character == '"') {
                quotation(character);
            } else if (character == '\\') {
                escaped();
            } else {
                append(character);
            }
        }
        end_word();
        return std::move(words_);
    }

  private:
    void quotation(char quote) {
        in_word_ = true;
        for (;;) {
            if (at_ == line_.size())
                throw UsageError(std::string("a quotation is not closed (add ") + quote + ")");
            const char character = line_[at_++];
            if (character == quote)
                return;
            if (character == '\\' && quote == '"')
                escaped();
            else
                append(character);
        }
    }

    void escaped() {
        if (at_ == line_.size())
            throw UsageError("a backslash ends the line (put the character after it)");
        append(line_[at_++]);
    }

    void append(char character) {
        in_word_ = true;
        word_ += character;
    }

    void end_word() {
        if (in_word_)
            words_.push_back(word_);
        word_.clear();
        in_word_ = false;
    }

    std::string_view line_;
    size_t at_ = 0;
    std::string word_;
    bool in_word_ = false; // quotes make a word even of nothing
    std::vector<std::string> words_;
};

} // namespace

std::vector<std::string> split_words(std::string_view line) {
    return Splitter(line).split();
}

} // namespace zdepcall
