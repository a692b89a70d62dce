#include "call.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "options.h"

namespace {

using namespace zdepcall;
using testing::HasSubstr;

Options parsed(std::vector<const char *> words) {
    words.insert(words.begin(), "zdepcall");
    words.push_back(nullptr);
    return parse_options(static_cast<int>(words.size() - 1), const_cast<char **>(words.data()));
}

std::string complaint_about(std::vector<const char *> words) {
    try {
        parsed(std::move(words));
    } catch (const UsageError &error) {
        return error.what();
    }
    return "no complaint";
}

TEST(ZdepcallCall, RequestIsWrittenFieldByField) {
    Call call;
    call.library = "/l";
    call.function = "f";
    call.with_context = true;
    call.returns = parse_return_type("int");
    call.arguments = {parse_argument("int=5"), parse_argument("out:string(100)")};
    EXPECT_EQ(to_hex(encode_request(call)), "0000008b"         // type 139
                                            "00000040"         // body
                                            "0000000000000000" // tsn
                                            "000000022f6c0000" // library_path
                                            "0000000166000000" // function_name
                                            "00000100"         // property: with context
                                            "00021a05"         // return_flag
                                            "00000002"         // param
                                            "00011a05"         // flag
                                            "00000004"         // maxlen
                                            "000000040500000000000000"
                                            "0102030c" // flag
                                            "00000064" // maxlen
                                            "0000000000000000");
}

TEST(ZdepcallCall, RequestWithoutParametersHasTheCountZero) {
    Call call;
    call.library = "/l";
    call.function = "f";
    EXPECT_EQ(to_hex(encode_request(call)).substr(32), "000000022f6c0000"
                                                       "0000000166000000"
                                                       "00000000"
                                                       "00000000"
                                                       "00000000");
}

TEST(ZdepcallCall, OutputsAreTheResultAndWhatTheRoutineWrites) {
    EXPECT_EQ(parse_call({"l", "f", "int=1"}).output_count(), 0U);
    EXPECT_EQ(parse_call({"l", "f", "int=1", "out:int", "inout:int=1", "--returns", "int"})
                  .output_count(),
              3U);
}

class ZdepcallLibrary : public testing::Test {
  protected:
    void SetUp() override {
        folder_ = testing::TempDir() + "zdepcall_call.XXXXXX";
        ASSERT_NE(mkdtemp(folder_.data()), nullptr);
        before_ = std::filesystem::current_path();
        std::filesystem::current_path(folder_);
        std::ofstream("lib.so") << "x";
    }
    void TearDown() override {
        std::filesystem::current_path(before_);
        std::filesystem::remove_all(folder_);
    }
    std::string folder_;
    std::filesystem::path before_;
};

TEST_F(ZdepcallLibrary, FileHereIsPassedByItsAbsolutePath) {
    const std::string here = std::filesystem::current_path().string();
    EXPECT_EQ(resolve_library("lib.so"), here + "/lib.so");
    EXPECT_EQ(resolve_library("./lib.so"), here + "/./lib.so");
}

TEST_F(ZdepcallLibrary, OtherNamesAreLeftToTheLoader) {
    EXPECT_EQ(resolve_library("libm.so.6"), "libm.so.6");
    EXPECT_EQ(resolve_library("no/such.so"), "no/such.so");
    EXPECT_EQ(resolve_library("/no//such.so"), "/no//such.so");
}

TEST(ZdepcallOptions, CallOptionsMayStandAnywhere) {
    const Options options = parsed({"--returns", "int", "/l", "--json", "f", "int=1", "--context"});
    EXPECT_EQ(options.call.library, "/l");
    EXPECT_EQ(options.call.function, "f");
    EXPECT_EQ(options.call.arguments.size(), 1U);
    EXPECT_TRUE(options.call.with_context);
    EXPECT_TRUE(options.json);
    EXPECT_EQ(options.call.returns.type, find_native_type("int"));
}

TEST(ZdepcallOptions, UnknownOptionsAndMissingValuesAreNamed) {
    EXPECT_EQ(complaint_about({"--frobnicate"}),
              "--frobnicate: unknown option (try 'zdepcall --help')");
    EXPECT_EQ(complaint_about({"/l", "f", "-x"}), "-x: unknown option (try 'zdepcall --help')");
    EXPECT_EQ(complaint_about({"--agent"}), "--agent: needs a value (try 'zdepcall --help')");
    EXPECT_EQ(complaint_about({"--json=1", "/l", "f"}),
              "--json: takes no value (try 'zdepcall --help')");
}

TEST(ZdepcallOptions, LibraryAndFunctionAreRequired) {
    EXPECT_THAT(complaint_about({}), HasSubstr("needs a library and a function"));
    EXPECT_THAT(complaint_about({"/l"}), HasSubstr("needs a library and a function"));
}

TEST(ZdepcallOptions, NumbersAreChecked) {
    for (const char *text : {"0", "-1", "x", "", "1x", "100000001"})
        EXPECT_THAT(complaint_about({"--repeat", text, "/l", "f"}),
                    HasSubstr("not a number of calls"))
            << text;
    for (const char *text : {"0", "-1", "x", "", "1x", "nan", "inf"})
        EXPECT_THAT(complaint_about({"--timeout", text, "/l", "f"}), HasSubstr("not a time"))
            << text;
    EXPECT_EQ(parsed({"--timeout", "2.5", "/l", "f"}).agent.timeout.count(), 2.5);
}

TEST(ZdepcallOptions, OptionsThatExcludeEachOtherAreRefused) {
    EXPECT_NE(complaint_about({"--in-process", "--agent", "x", "/l", "f"}), "no complaint");
    EXPECT_NE(complaint_about({"--script", "x", "/l", "f"}), "no complaint");
    EXPECT_NE(complaint_about({"--script", "x", "--repeat", "2"}), "no complaint");
    EXPECT_NE(complaint_about({"--echo", "/l", "f"}), "no complaint");
    EXPECT_NE(complaint_about({"--echo", "--json", "--script", "x"}), "no complaint");
}

} // namespace
