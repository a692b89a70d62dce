// zdtool message: by running it, and, where there is much to show, its parts in this process.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>

#include "common/zdmsg/zdmsg.h"
#include "common/zdmsg/zdmsg_validate.h"
#include "message_input.h"
#include "message_printers.h"
#include "program_run.h"
#include "support/abort_trap.h"
#include "support/zdmsg_shapes.h"

namespace {

using namespace zdtool;
using namespace programs;
using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;
using zdmsg_shapes::big_endian;
using zdmsg_shapes::Sample;

ProgramRun message(std::vector<std::string> arguments, const std::string &input = "") {
    arguments.insert(arguments.begin(), {ZDTOOL_PROGRAM, "message"});
    return run_program(arguments, input);
}

ProgramRun shown(const std::string &hex) {
    return message({"--bytes", hex});
}

std::string bytes_of(const std::string &hex) {
    size_t wrong;
    const Bytes bytes = from_loose_hex(hex, &wrong).value();
    return {bytes.begin(), bytes.end()};
}

class TemporaryFile {
  public:
    explicit TemporaryFile(const std::string &content) {
        const int descriptor = mkstemp(path_.data());
        EXPECT_EQ(write(descriptor, content.data(), content.size()),
                  static_cast<ssize_t>(content.size()));
        close(descriptor);
    }
    TemporaryFile(const TemporaryFile &) = delete;
    TemporaryFile &operator=(const TemporaryFile &) = delete;
    ~TemporaryFile() { unlink(path_.c_str()); }
    [[nodiscard]] const std::string &path() const { return path_; }

  private:
    std::string path_ = testing::TempDir() + "zdtool_message_XXXXXX";
};

constexpr char request[] = "0000008B 00000040 00000000 00000007 |"
                           "00000003 6C696200 | 00000002 666E0000 | 00000100 | FFFFFFFF |"
                           "00000002 |"
                           "01020A03 00000010 00000006 686900FF 0D0A0000 |"
                           "00010A03 00000004 00000000 00000000";

constexpr char request_as_text[] = "message 1 at byte 0: ZDMSG_EXTPROC_EXECUTE\n"
                                   "  type = 139\n"
                                   "  body_size = 64\n"
                                   "  tsn = 7\n"
                                   "  library_path = \"lib\"\n"
                                   "  function_name = \"fn\"\n"
                                   "  property = 256\n"
                                   "  return_flag = -1 (0xffffffff)\n"
                                   "  param: 2 elements\n"
                                   "    param[0]\n"
                                   "      flag = 16910851 (0x01020a03)\n"
                                   "      maxlen = 16\n"
                                   "      data_value: 6 bytes\n"
                                   "        686900ff 0d0a                        hi....\n"
                                   "    param[1]\n"
                                   "      flag = 68099 (0x00010a03)\n"
                                   "      maxlen = 4\n"
                                   "      data_value: 0 bytes\n";

// ---- As text

TEST(ZdtoolMessage, ShowsHeaderAndFieldsByNameAndIndentsElements) {
    const ProgramRun run = shown(request);
    EXPECT_EQ(run.output, request_as_text);
    EXPECT_THAT(run.complaints, IsEmpty());
    EXPECT_EQ(run.status, 0);
}

TEST(ZdtoolMessage, ShowsAMessageWithoutFields) {
    const ProgramRun run = shown("00000017 00000000 0000000000000000");
    EXPECT_EQ(run.output, "message 1 at byte 0: ZDMSG_COMMIT\n"
                          "  type = 23\n  body_size = 0\n  tsn = 0\n");
    EXPECT_EQ(run.status, 0);
}

TEST(ZdtoolMessage, ShowsTransactionNumbersUnsigned) {
    EXPECT_THAT(shown("00000017 00000000 FFFFFFFFFFFFFFFF").output,
                HasSubstr("tsn = 18446744073709551615\n"));
}

TEST(ZdtoolMessage, ShowsMessagesOneBehindTheOther) {
    const ProgramRun run = shown("00000017 00000000 0000000000000000"
                                 "00000012 00000008 0000000000000000 00000001 00000002");
    EXPECT_THAT(run.output, HasSubstr("\n\nmessage 2 at byte 16: ZDMSG_FETCH\n"
                                      "  type = 18\n  body_size = 8\n  tsn = 0\n"
                                      "  csrid = 1\n  fetch_row_chunk_cnt = 2\n"));
    EXPECT_EQ(run.status, 0);
}

TEST(ZdtoolMessage, ShowsColumnsWithoutTheirPrefixAndFixedFieldsAsBytes) {
    const ProgramRun run = shown("00000005 00000038 0000000000000000"
                                 "0102030405060708 | 00000000 | 00000000 | 00000003 |"
                                 "00000001 03616263 00000000 |"
                                 "00000002 FE000261 62000000 | 00000003 FB000061 00000000");
    EXPECT_THAT(run.output, HasSubstr("  ppid: 8 bytes\n"
                                      "    01020304 05060708                    ........\n"
                                      "  flag = 0\n"
                                      "  prefetch_size = 0\n"
                                      "  param_info: 3 elements\n"
                                      "    param_info[0]\n"
                                      "      flag = 1\n"
                                      "      data_value: 3 bytes behind the prefix 03\n"
                                      "        616263                               abc\n"
                                      "    param_info[1]\n"
                                      "      flag = 2\n"
                                      "      data_value: 2 bytes behind the prefix fe0002\n"
                                      "        6162                                 ab\n"
                                      "    param_info[2]\n"
                                      "      flag = 3\n"
                                      "      data_value: 1 byte behind the prefix fb0000\n"
                                      "        61                                   a\n"));
    EXPECT_EQ(run.status, 0);
}

TEST(ZdtoolMessage, LeavesOutLinesOfZerosInLongBytes) {
    EXPECT_THAT(
        shown("000000CF 00000048 0000000000000000 00000040" + std::string(128, '0') + "00000000")
            .output,
        HasSubstr("  chunk: 64 bytes\n"
                  "    00000000 00000000 00000000 00000000  ................\n"
                  "    *\n"
                  "    00000000 00000000 00000000 00000000  ................\n"));
}

TEST(ZdtoolMessage, EscapesWhatWouldDisturbATerminal) {
    EXPECT_THAT(shown("0000004B 0000000C 0000000000000000 00000006 1B5B6D22 0A000000").output,
                HasSubstr("  warning_msg = \"\\x1b[m\\\"\\n\\x00\"\n"));
}

TEST(ZdtoolMessage, ShowsANegativeCountAsItIs) {
    EXPECT_THAT(shown("000000BF 00000004 0000000000000000 FFFFFFFF").output,
                HasSubstr("  pid_list: -1 elements\n"));
}

TEST(ZdtoolMessage, ShowsWhatLiesBehindTheLastField) {
    const ProgramRun run = shown("00000017 00000003 0000000000000000 616263");
    EXPECT_THAT(run.output, HasSubstr("  3 bytes behind the last field\n"
                                      "    616263                               abc\n"));
    EXPECT_EQ(run.status, 0); // the decoder takes it, too
}

// ---- Error stacks

std::string error_record() {
    std::string record(936, '\0');
    const auto put = [&record](size_t at, const std::string &bytes) {
        record.replace(at, bytes.size(), bytes);
    };
    put(8, big_endian(4));
    put(12, big_endian(static_cast<uint32_t>(-140004)));
    put(16, big_endian(5));
    put(20, big_endian(6));
    put(24, "1ERREP");
    put(31, " Failed to open.   ");
    put(744, big_endian(0xFFFFFFFF));
    put(748, big_endian(1) + big_endian(2) + big_endian(3) + big_endian(4) + big_endian(5) +
                 big_endian(6));
    put(772, "epa_dl_call");
    put(852, big_endian(120));
    put(856, "epa_dlopen");
    return record;
}

constexpr char error_as_text[] = "      id = 4\n"
                                 "      code = -140004 ERROR_EPA_LIBRARY_OPEN_FAILED\n"
                                 "      obj_id = 5\n"
                                 "      err_num = 6\n"
                                 "      is_usrerr = 1\n"
                                 "      sqlstate = \"ERREP\"\n"
                                 "      complete_desc = \" Failed to open.   \"\n"
                                 "      obj_id_occurred = 4294967295\n"
                                 "      src_pos = 1:2 (3) to 4:5 (6)\n"
                                 "      file = \"epa_dl_call\"\n"
                                 "      line = 120\n"
                                 "      func = \"epa_dlopen\"\n";

std::string stack_of(uint32_t count, const std::string &records) {
    return big_endian(9) + big_endian(count) + big_endian(1) + big_endian(0) + records;
}

std::string raw(uint32_t type, const std::string &body) {
    return big_endian(type) + big_endian(static_cast<uint32_t>(body.size())) +
           std::string(8, '\0') + body;
}

std::string reply_with(const std::string &stack) {
    return raw(140, std::string(8, '\0') + zdmsg_shapes::string_bytes(stack) + big_endian(0));
}

TEST(ZdtoolMessage, ShowsAnErrorStackErrorByError) {
    const ProgramRun run =
        message({}, reply_with(stack_of(2, error_record() + std::string(936, '\0'))));
    EXPECT_THAT(run.output, HasSubstr("  dbms_output = \"\"\n"
                                      "  errstack: 2 errors, 1 for users, id_next = 9\n"
                                      "    errstack[0]\n" +
                                      std::string(error_as_text) +
                                      "    errstack[1]\n"
                                      "      not written\n"
                                      "  reply_param: 0 elements\n"));
    EXPECT_EQ(run.status, 0);
}

TEST(ZdtoolMessage, KnowsErrorStacksByTheNameOfTheirField) {
    const std::string stack = zdmsg_shapes::string_bytes(stack_of(1, error_record()));
    EXPECT_THAT(message({}, raw(76, big_endian(3) + stack)).output,
                HasSubstr("  flag = 3\n  error_stack: 1 error, 1 for users, id_next = 9\n"
                          "    error_stack[0]\n" +
                          std::string(error_as_text)));
}

TEST(ZdtoolMessage, ShowsAnEmptyErrorStackAsNoBytes) {
    EXPECT_THAT(message({}, reply_with("")).output, HasSubstr("  errstack: 0 bytes\n"));
    EXPECT_THAT(message({}, reply_with(stack_of(0, ""))).output,
                HasSubstr("  errstack: 0 errors, 1 for users, id_next = 9\n"));
}

TEST(ZdtoolMessage, ShowsWhatIsNoErrorStackAsBytesAndComplains) {
    const ProgramRun run = message({}, reply_with(stack_of(2, error_record())));
    EXPECT_EQ(run.status, 1);
    EXPECT_THAT(run.output, HasSubstr("  ! errstack: no error stack: error record at offset 952 "
                                      "takes 936 bytes, 0 are left\n"
                                      "  errstack: 952 bytes\n"
                                      "    00000009 00000002 00000001 00000000  "));
    EXPECT_EQ(run.complaints,
              "zdtool: standard input: message 1: what should be its error stack is none\n");
    for (const std::string &stack :
         {std::string("x"), stack_of(0xFFFFFFFF, ""), stack_of(0x7FFFFFFF, "")}) {
        EXPECT_EQ(message({}, reply_with(stack)).status, 1);
    }
}

TEST(ZdtoolMessage, ShowsWhatLiesBehindTheLastError) {
    EXPECT_THAT(message({}, reply_with(stack_of(0, "abc"))).output,
                HasSubstr("    3 bytes behind the last error\n"
                          "      616263                               abc\n"));
}

// ---- Malformed

TEST(ZdtoolMessage, SaysWhereAndWhyAndShowsWhatCanBeRead) {
    const ProgramRun run =
        shown("0000008C 0000001C 0000000000000000"
              "00000000 00000000 00000000 00000000 00000001 | 00000004 01020304");
    EXPECT_EQ(run.status, 1);
    const std::string why = "malformed at byte 20 of the body (36 of the input), "
                            "reply_param[0].data_value: the length leads past the end of the body "
                            "(takes 8 bytes, 4 are left)\n";
    EXPECT_EQ(run.output, "message 1 at byte 0: ZDMSG_EXTPROC_EXECUTE_REPLY\n"
                          "  type = 140\n  body_size = 28\n  tsn = 0\n"
                          "  dbms_output = \"\"\n"
                          "  errstack: 0 bytes\n"
                          "  reply_param: 1 element\n"
                          "    reply_param[0]\n"
                          "  ! " +
                              why +
                              "  ! not read: 8 bytes\n"
                              "    00000004 01020304                    ........\n");
    EXPECT_EQ(run.complaints, "zdtool: --bytes: message 1: " + why);
}

TEST(ZdtoolMessage, SaysWhatIsMalformedInEveryWay) {
    const std::map<std::string, std::string> complaints = {
        {"00000012 00000006 0000000000000000 00000001 0000",
         "malformed at byte 4 of the body (20 of the input), fetch_row_chunk_cnt: "
         "the body ends inside the field (takes 4 bytes, 2 are left)"},
        {"0000004B 00000008 0000000000000000 FFFFFFFE 00000000",
         "malformed at byte 0 of the body (16 of the input), warning_msg: "
         "the length is negative (-2)"},
        {"00000116 00000002 0000000000000000 ABCD", "of unknown type 278"},
        {"FFFFFFFF 00000000 0000000000000000", "of unknown type -1"},
        {"00000017 00000004 0000000000000000 ABCD",
         "cut off: the input has 2 of the 4 bytes of the body"},
        {"00000012 FFFFFFFF 0000000000000000 00000001",
         "cut off: the input has 4 of the 4294967295 bytes of the body; "
         "malformed at byte 4 of the body (20 of the input), fetch_row_chunk_cnt: "
         "the body ends inside the field (takes 4 bytes, 0 are left)"},
        {"FFFFFFFF 00000001 0000000000000000",
         "cut off: the input has 0 of the 1 bytes of the body; of unknown type -1"},
    };
    for (const auto &[hex, complaint] : complaints) {
        const ProgramRun run = shown(hex);
        EXPECT_EQ(run.status, 1);
        EXPECT_EQ(run.complaints, "zdtool: --bytes: message 1: " + complaint + "\n");
        EXPECT_THAT(run.output, HasSubstr("  ! " + complaint + "\n"));
    }
}

TEST(ZdtoolMessage, SaysThatArraysAreNestedTooDeep) {
    std::string body(16, '\0');
    for (int level = 0; level < 1001; level++)
        body += big_endian(1) + std::string(8, '\0');
    const ProgramRun run = message({}, raw(185, body + big_endian(0)));
    EXPECT_EQ(run.status, 1);
    EXPECT_THAT(run.complaints,
                AllOf(StartsWith("zdtool: standard input: message 1: malformed at byte 12016 of"),
                      HasSubstr(".sub_bindparam: the arrays are nested deeper than the decoder "
                                "goes (1000 levels)\n")));
}

TEST(ZdtoolMessage, GoesOnBehindAMalformedMessage) {
    const ProgramRun run = shown("00000012 00000002 0000000000000000 ABCD"
                                 "00000017 00000000 0000000000000000 00");
    EXPECT_EQ(run.status, 1);
    EXPECT_THAT(run.output, HasSubstr("\nmessage 2 at byte 18: ZDMSG_COMMIT\n"));
    EXPECT_THAT(run.output, HasSubstr("\nmessage 3 at byte 34: cut off in its header\n"
                                      "    00                                   .\n"));
    EXPECT_THAT(run.complaints, HasSubstr("message 1: malformed at byte 0"));
    EXPECT_THAT(run.complaints, HasSubstr("message 3: cut off in its header\n"));
}

TEST(ZdtoolMessage, ShowsTheBodyOfAnUnknownType) {
    EXPECT_THAT(shown("00000116 00000002 0000000000000000 4142").output,
                AllOf(StartsWith("message 1 at byte 0: INVALID\n"),
                      HasSubstr("  ! not read: 2 bytes\n    4142 ")));
}

// ---- As JSON

TEST(ZdtoolMessageJson, IsOneObjectALine) {
    const ProgramRun run =
        message({"--json", "--bytes", std::string(request) + "00000017 00000000 0000000000000001"});
    EXPECT_EQ(
        run.output,
        R"({"offset":0,"type":139,"name":"ZDMSG_EXTPROC_EXECUTE","body_size":64,"tsn":7,)"
        R"("fields":{"library_path":"lib","function_name":"fn","property":256,"return_flag":-1,)"
        R"("param":[{"flag":16910851,"maxlen":16,)"
        R"("data_value":{"hex":"686900ff0d0a","text":"hi\u0000\ufffd\r\n"}},)"
        R"({"flag":68099,"maxlen":4,"data_value":{"hex":"","text":""}}]},)"
        R"("malformed":null,"rest":{"hex":"","text":""}})"
        "\n"
        R"({"offset":80,"type":23,"name":"ZDMSG_COMMIT","body_size":0,"tsn":1,"fields":{},)"
        R"("malformed":null,"rest":{"hex":"","text":""}})"
        "\n");
    EXPECT_EQ(run.status, 0);
}

TEST(ZdtoolMessageJson, HasThePrefixOfAColumn) {
    const ProgramRun run = message({"--json", "--bytes",
                                    "000000E4 0000001C 0000000000000000 00000001 00000000 00000000"
                                    "00000001 00000007 03616263 00000000"});
    EXPECT_THAT(run.output,
                HasSubstr(R"("param_info":[{"flag":7,"data_value":{"prefix":"03","hex":"616263",)"
                          R"("text":"abc"}}])"));
}

TEST(ZdtoolMessageJson, ShowsATextThatIsNoneLikeBytes) {
    EXPECT_THAT(
        message({"--json", "--bytes", "0000004B 00000008 0000000000000000 00000002 41FF0000"})
            .output,
        HasSubstr(R"("warning_msg":{"hex":"41ff","text":"A\ufffd"})"));
}

TEST(ZdtoolMessageJson, TellsANegativeCountFromNone) {
    EXPECT_THAT(
        message({"--json", "--bytes", "000000BF 00000004 0000000000000000 FFFFFFFF"}).output,
        HasSubstr(R"("fields":{"pid_list":{"count":-1,"elements":[]}},"malformed")"));
    EXPECT_THAT(
        message({"--json", "--bytes", "000000BF 00000004 0000000000000000 00000000"}).output,
        HasSubstr(R"("fields":{"pid_list":[]},"malformed")"));
}

TEST(ZdtoolMessageJson, SaysWhatIsMalformed) {
    const ProgramRun run =
        message({"--json", "--bytes", "00000012 00000008 0000000000000000 00000001 0000"});
    EXPECT_THAT(
        run.output,
        HasSubstr(
            R"("fields":{"csrid":1},"malformed":{"reason":"cut off: the input has 6 of the 8 )"
            R"(bytes of the body; malformed at byte 4 of the body (20 of the input), )"
            R"-(fetch_row_chunk_cnt: the body ends inside the field (takes 4 bytes, 2 are left)",)-"
            R"("body_offset":4,"field":"fetch_row_chunk_cnt","missing":2},)"
            R"("rest":{"hex":"0000","text":"\u0000\u0000"}})"));
    EXPECT_EQ(run.status, 1);
    EXPECT_THAT(message({"--json", "--bytes", "0000001200"}).output,
                R"({"offset":0,"malformed":{"reason":"cut off in its header","missing":11},)"
                R"("rest":{"hex":"0000001200","text":"\u0000\u0000\u0000\u0012\u0000"}})"
                "\n");
}

TEST(ZdtoolMessageJson, HasTheErrorsOfAStack) {
    const ProgramRun run =
        message({"--json"}, reply_with(stack_of(2, error_record() + std::string(936, '\0'))));
    EXPECT_THAT(
        run.output,
        HasSubstr(
            R"("errstack":{"id_next":9,"usrcount":1,"errors":[{"id":4,"code":-140004,)"
            R"("name":"ERROR_EPA_LIBRARY_OPEN_FAILED","obj_id":5,"err_num":6,"is_usrerr":true,)"
            R"("sqlstate":"ERREP","complete_desc":" Failed to open.   ",)"
            R"("obj_id_occurred":4294967295,"first":{"line":1,"col":2,"offset":3},)"
            R"("last":{"line":4,"col":5,"offset":6},"file":"epa_dl_call","line":120,)"
            R"("func":"epa_dlopen"},null],"rest":{"hex":"","text":""}})"));
    EXPECT_THAT(message({"--json"}, reply_with("xy")).output,
                HasSubstr(R"("errstack":{"malformed":"error stack at offset 0 takes 4 bytes, )"
                          R"(2 are left","hex":"7879","text":"xy"},"reply_param":[])"));
}

// ---- Input

TEST(ZdtoolMessageInput, ComesFromFilesAndStandardInput) {
    const TemporaryFile file(bytes_of(request));
    EXPECT_EQ(message({file.path()}).output, request_as_text);
    EXPECT_EQ(message({}, bytes_of(request)).output, request_as_text);
    EXPECT_EQ(message({"-"}, bytes_of(request)).output, request_as_text);
    const ProgramRun both = message({file.path(), "-"}, bytes_of("000000170000000000000000"
                                                                 "00000000"));
    EXPECT_EQ(both.output, "==> " + file.path() + " <==\n" + request_as_text +
                               "\n==> standard input <==\n"
                               "message 1 at byte 0: ZDMSG_COMMIT\n"
                               "  type = 23\n  body_size = 0\n  tsn = 0\n");
    EXPECT_EQ(both.status, 0);
}

TEST(ZdtoolMessageInput, MayBeHexadecimalText) {
    EXPECT_EQ(message({"--hex"}, std::string(request) + "\r\n\t\n").output, request_as_text);
}

TEST(ZdtoolMessageInput, ThatIsNotHexadecimalIsAFault) {
    const ProgramRun wrong = message({"--hex"}, "0017x");
    EXPECT_EQ(wrong.status, 1);
    EXPECT_EQ(wrong.complaints, "zdtool: standard input: not hexadecimal: \"x\" at byte 4\n");
    EXPECT_EQ(message({"--bytes", "001"}).complaints,
              "zdtool: --bytes: not hexadecimal: the last digit stands alone\n");
}

TEST(ZdtoolMessageInput, ThatIsHexadecimalUnannouncedIsNotTakenForBytes) {
    const ProgramRun run = message({}, request);
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.complaints, "zdtool: standard input: this is hexadecimal text (try --hex)\n");
    EXPECT_THAT(run.output, IsEmpty());
}

TEST(ZdtoolMessageInput, WithoutAMessageIsAFault) {
    for (const char *form : {"--hex", "--dump"}) {
        const ProgramRun run = message({form}, "\n");
        EXPECT_EQ(run.status, 1);
        EXPECT_EQ(run.complaints, "zdtool: standard input: there is no message\n");
        EXPECT_THAT(run.output, IsEmpty());
    }
    EXPECT_EQ(message({}, "").status, 1);
}

TEST(ZdtoolMessageInput, MayBeWhatTheLibraryDumpedWhenItRefusedAMessage) {
    std::string body = bytes_of("00000001 000000");
    zdmsg_fetch_t msg;
    msg.base = {body.data(), 0, 0, ZDMSG_FETCH, 7, 42};
    AbortTrap trap;
    ASSERT_TRUE(trap.aborts([&] { zdmsg_deserialize_body(nullptr, &msg.base, body.data()); }));
    const ProgramRun run = message({"--dump"}, "before\n" + trap.text() + "after\n" + trap.text());
    EXPECT_EQ(run.status, 1);
    const std::string what = "ZDMSG_FETCH\n"
                             "  type = 18\n  body_size = 7\n  tsn = 42\n"
                             "  csrid = 1\n"
                             "  ! malformed at byte 4 of the body ";
    EXPECT_THAT(run.output, StartsWith("message 1 at byte 0: " + what + "(20 of the input)"));
    EXPECT_THAT(run.output, HasSubstr("message 2 at byte 23: " + what));
}

TEST(ZdtoolMessageInput, MayBeALongDump) {
    const std::string body = zdmsg_shapes::string_bytes(std::string(700, 'a'));
    std::string raw_body = body.substr(0, 700);
    zdmsg_tmc_chunk_t msg;
    msg.base = {raw_body.data(), 0, 0, ZDMSG_TMC_CHUNK, 700, 0};
    AbortTrap trap;
    ASSERT_TRUE(trap.aborts([&] { zdmsg_deserialize_body(nullptr, &msg.base, raw_body.data()); }));
    const Bytes messages = messages_of_dumps(trap.text());
    EXPECT_EQ(std::string(messages.begin(), messages.end()), raw(207, raw_body));
}

TEST(ZdtoolMessageInput, ThatIsADumpCutShortGivesWhatIsThere) {
    const std::string text = "[ZDMSG Dump]\ncreated at x\ntype: 18\nbodysize: 8\ntsn: 1\n"
                             "str_auto_free: 0\n[raw msg header]\n????\n[raw msg body]\n00000001 0";
    EXPECT_EQ(to_hex(messages_of_dumps(text)), "00000012000000080000000000000001"
                                               "00000001");
    EXPECT_EQ(to_hex(messages_of_dumps(text.substr(0, 40))), "00000012000000000000000000000000");
    EXPECT_EQ(to_hex(messages_of_dumps("[ZDMSG Dump]\n")), "00000000000000000000000000000000");
}

TEST(ZdtoolMessageInput, ThatCannotBeReadIsNamed) {
    const ProgramRun run = message({"/nonexistent/messages"});
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.complaints, "zdtool: /nonexistent/messages: No such file or directory\n");
    EXPECT_EQ(message({"/"}).complaints, "zdtool: /: Is a directory\n");
}

TEST(ZdtoolMessageUsage, IsPrintedOnRequest) {
    const ProgramRun run = message({"--help"});
    EXPECT_EQ(run.status, 0);
    EXPECT_THAT(run.output, StartsWith("Usage: zdtool message "));
}

TEST(ZdtoolMessageUsage, RefusesWhatContradictsItself) {
    EXPECT_EQ(message({"--hex", "--dump"}).status, 2);
    EXPECT_EQ(message({"--bytes", "00", "file"}).status, 2);
    EXPECT_EQ(message({"--bytes", "00", "--hex"}).status, 2);
    EXPECT_EQ(message({"--bytes"}).status, 2);
    EXPECT_THAT(message({"--colour"}).complaints, HasSubstr("zdtool message --help"));
}

// ---- Every message, in this process

// What the description says, read once more.
struct Described {
    std::string name;
    std::vector<std::pair<std::string, std::string>> fields; // name and kind
};

std::map<std::string, Described> read_description() {
    std::map<std::string, Described> all; // by "message 139" and by "struct_..."
    std::ifstream file(MESSAGE_DESCRIPTION);
    Described *current = nullptr;
    for (std::string line; std::getline(file, line);) {
        line = line.substr(0, line.find('#'));
        std::istringstream words(line);
        std::string first, second, third;
        words >> first >> second >> third;
        if (first.empty())
            continue;
        if (line[0] != ' ') {
            current = &all[first == "message" ? "message " + second : third];
            current->name = third;
        } else {
            std::string element;
            words >> element;
            current->fields.emplace_back(first, second == "array" ? element : second);
        }
    }
    return all;
}

// Reads a sample's body by the description, and writes down what a viewer should find.
class Oracle {
  public:
    explicit Oracle(std::string body) : body_(std::move(body)) {}

    void read(const std::string &record) {
        for (const auto &[name, kind] : all().at(record).fields) {
            if (kind == "int") {
                found += name + "=" + std::to_string(static_cast<int32_t>(word())) + "\n";
            } else if (kind == "text" || kind == "bytes") {
                const uint32_t length = word();
                found += name + " " + kind + " " + take(length, length) + "\n";
            } else if (kind == "column") {
                const auto first = static_cast<unsigned char>(body_[at_]);
                const size_t prefix = first == 254 ? 3 : 1;
                const size_t length = first == 254
                                          ? static_cast<unsigned char>(body_[at_ + 1]) * 256u +
                                                static_cast<unsigned char>(body_[at_ + 2])
                                          : first;
                found += name + " column " + take(prefix + length, prefix + length).substr(prefix) +
                         "\n";
            } else if (kind == "fixed") {
                const size_t size = name == "filename" ? 64 : 8;
                found += name + " bytes " + body_.substr(at_, size) + "\n";
                at_ += size;
            } else {
                const uint32_t count = word();
                found += name + " array " + std::to_string(count) + "\n";
                for (uint32_t k = 0; k < count; k++)
                    read(kind);
            }
        }
    }

    std::string found;

  private:
    static const std::map<std::string, Described> &all() {
        static const std::map<std::string, Described> description = read_description();
        return description;
    }

    uint32_t word() {
        uint32_t value = 0;
        for (int k = 0; k < 4; k++)
            value = value << 8 | static_cast<unsigned char>(body_[at_++]);
        return value;
    }

    std::string take(size_t length, size_t to_pad) {
        const std::string bytes = body_.substr(at_, length);
        at_ += (to_pad + 4) / 4 * 4;
        return bytes;
    }

    std::string body_;
    size_t at_ = 0;
};

class Recorder : public MessagePrinter {
  public:
    void begin_message(const MessageHead &) override {}
    void end_message(const MessageHead &, const MessageEnd &end) override { last_flaw = end.flaw; }
    void cut_header(const MessageHead &, ByteView) override {}
    void integer(const char *name, int32_t value) override {
        found += name + ("=" + std::to_string(value)) + "\n";
    }
    void text(const char *name, std::string_view value) override {
        found += name + (" text " + std::string(value)) + "\n";
    }
    void bytes(const char *name, ByteView value) override {
        found += name + (" bytes " + std::string(value.begin(), value.end())) + "\n";
    }
    void column(const char *name, ByteView, ByteView value) override {
        found += name + (" column " + std::string(value.begin(), value.end())) + "\n";
    }
    void errors(const char *, const ErrorStack &, ByteView) override {}
    void no_error_stack(const char *name, ByteView value, const std::string &) override {
        bytes(name, value);
    }
    void begin_array(const char *name, int32_t count) override {
        found += name + (" array " + std::to_string(count)) + "\n";
    }
    void end_array() override {}
    void begin_element(const char *, int32_t) override {}
    void end_element() override {}

    std::string found;
    zdmsg_flaw_t last_flaw;
};

void walk(const std::string &input, MessagePrinter &printer, std::string *complaints = nullptr) {
    walk_messages(Bytes(input.begin(), input.end()), printer, [&](const std::string &text) {
        if (complaints != nullptr)
            *complaints += text + "\n";
    });
}

TEST(ZdtoolEveryMessage, IsShownAsTheDescriptionSays) {
    for (const zdmsg_shapes::Shape &shape : zdmsg_shapes::messages()) {
        const Sample sample(shape);
        Oracle oracle(sample.body());
        oracle.read("message " + std::to_string(shape.number));
        Recorder recorder;
        walk(raw(static_cast<uint32_t>(shape.number), sample.body()), recorder);
        EXPECT_EQ(recorder.found, oracle.found) << shape.name;
        EXPECT_EQ(recorder.last_flaw.kind, ZDMSG_FLAW_NONE) << shape.name;
    }
}

// A reader of JSON that knows right from wrong and nothing else.
class JsonCheck {
  public:
    static bool accepts(const std::string &text) {
        JsonCheck check(text);
        return check.value() && check.at_ == text.size();
    }

  private:
    explicit JsonCheck(const std::string &text) : text_(text) {}

    bool take(char c) {
        if (at_ >= text_.size() || text_[at_] != c)
            return false;
        at_++;
        return true;
    }

    bool take(const std::string &word) {
        if (text_.compare(at_, word.size(), word) != 0)
            return false;
        at_ += word.size();
        return true;
    }

    bool value() {
        if (take('{'))
            return take('}') || members('}', true);
        if (take('['))
            return take(']') || members(']', false);
        if (at_ < text_.size() && text_[at_] == '"')
            return string();
        return take("null") || take("true") || take("false") || number();
    }

    bool members(char close, bool named) {
        do {
            if (named && !(string() && take(':')))
                return false;
            if (!value())
                return false;
        } while (take(','));
        return take(close);
    }

    bool string() {
        if (!take('"'))
            return false;
        while (at_ < text_.size() && text_[at_] != '"') {
            if (static_cast<unsigned char>(text_[at_]) < 0x20)
                return false;
            at_ += text_[at_] == '\\' ? 2 : 1;
        }
        return take('"');
    }

    bool number() {
        take('-');
        const size_t first = at_;
        while (at_ < text_.size() && isdigit(static_cast<unsigned char>(text_[at_])) != 0)
            at_++;
        return at_ > first;
    }

    const std::string &text_;
    size_t at_ = 0;
};

std::string printed(std::unique_ptr<MessagePrinter> (*make)(FILE *), const std::string &input) {
    char *text = nullptr;
    size_t size = 0;
    FILE *const stream = open_memstream(&text, &size);
    walk(input, *make(stream));
    fclose(stream);
    const std::string result(text, size);
    free(text);
    return result;
}

TEST(ZdtoolEveryMessage, IsShownWhateverItsBytesAreAndComplainedAboutWhenTheDecoderRefusesIt) {
    int refused = 0;
    for (const zdmsg_shapes::Shape &shape : zdmsg_shapes::messages()) {
        const Sample sample(shape);
        const auto type = static_cast<uint32_t>(shape.number);
        std::vector<std::string> bodies;
        for (size_t size = 0; size <= sample.body().size(); size += 7)
            bodies.push_back(sample.body().substr(0, size));
        for (const zdmsg_shapes::Length &length : sample.lengths()) {
            for (const uint32_t value : {0xFFFFFFFFu, 0u, length.value + 1, 0x7FFFFFFFu})
                bodies.push_back(std::string(sample.body())
                                     .replace(length.offset, length.size,
                                              big_endian(value).substr(4 - length.size)));
        }
        for (const std::string &body : bodies) {
            Recorder recorder;
            std::string complaints;
            walk(raw(type, body), recorder, &complaints);
            const bool valid =
                zdmsg_validate(shape.number, body.data(), body.size(), nullptr, nullptr) == 1;
            ASSERT_EQ(complaints.find("malformed") == std::string::npos, valid) << complaints;
            refused += !valid;
            const std::string json = printed(new_json_printer, raw(type, body));
            ASSERT_EQ(json.find('\n'), json.size() - 1);
            ASSERT_TRUE(JsonCheck::accepts(json.substr(0, json.size() - 1))) << json;
            const std::string text = printed(new_text_printer, raw(type, body));
            ASSERT_EQ(text.find("\n  ! malformed at ") == std::string::npos, valid) << text;
        }
    }
    EXPECT_GT(refused, 1000);
}

} // namespace
