#include "option_reader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

#include "usage_error.h"

namespace {

using namespace programs;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;

enum { NAME = OptionReader::FIRST_LONG, FLAG };
constexpr option long_options[] = {{"name", required_argument, nullptr, NAME},
                                   {"flag", no_argument, nullptr, FLAG},
                                   {nullptr, 0, nullptr, 0}};

using Found = std::vector<std::pair<int, std::string>>;

Found read(std::vector<std::string> words) {
    words.insert(words.begin(), "program");
    std::vector<char *> argv;
    for (std::string &word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    OptionReader reader(static_cast<int>(words.size()), argv.data(), "q", long_options,
                        "try --help");
    Found found;
    for (int option = reader.next(); option != OptionReader::END; option = reader.next())
        found.emplace_back(option, reader.value() == nullptr ? "" : reader.value());
    return found;
}

std::string complaint(const std::vector<std::string> &words) {
    try {
        read(words);
    } catch (const UsageError &error) {
        return error.what();
    }
    return "none";
}

TEST(OptionReader, OptionsAndOperandsComeInTheOrderOfTheLine) {
    EXPECT_THAT(read({"a", "--flag", "b", "--name=x", "-q", "--name", "y"}),
                ElementsAre(Pair(OptionReader::OPERAND, "a"), Pair(FLAG, ""),
                            Pair(OptionReader::OPERAND, "b"), Pair(NAME, "x"), Pair('q', ""),
                            Pair(NAME, "y")));
}

TEST(OptionReader, ANegativeNumberIsAnOperand) {
    EXPECT_THAT(read({"-140004", "--flag", "-5"}),
                ElementsAre(Pair(OptionReader::OPERAND, "-140004"), Pair(FLAG, ""),
                            Pair(OptionReader::OPERAND, "-5")));
}

TEST(OptionReader, BehindTwoDashesEverythingIsAnOperand) {
    EXPECT_THAT(read({"--flag", "--", "--name", "-q", "-7"}),
                ElementsAre(Pair(FLAG, ""), Pair(OptionReader::OPERAND, "--name"),
                            Pair(OptionReader::OPERAND, "-q"), Pair(OptionReader::OPERAND, "-7")));
}

TEST(OptionReader, WhatCannotBeFollowedIsSaidInASentence) {
    EXPECT_EQ(complaint({"--name"}), "--name: needs a value (try --help)");
    EXPECT_EQ(complaint({"a", "--flag=x"}), "--flag: takes no value (try --help)");
    EXPECT_EQ(complaint({"--other"}), "--other: unknown option (try --help)");
    EXPECT_EQ(complaint({"-z"}), "-z: unknown option (try --help)");
}

} // namespace
