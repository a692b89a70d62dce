#include "common/zd_dump.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "common/alloc/system_clialloc.h"
#include "support/captured_stream.h"

namespace {

// A stream over a pipe that keeps the bounds of each write.
class PacketStream {
  public:
    PacketStream() {
        EXPECT_EQ(pipe2(ends_, O_DIRECT | O_NONBLOCK), 0);
        stream_ = dstream_new(&_system_allocator, ends_[1], 0, nullptr);
    }
    ~PacketStream() {
        dstream_delete(&_system_allocator, stream_);
        close(ends_[0]);
        close(ends_[1]);
    }
    PacketStream(const PacketStream &) = delete;
    PacketStream &operator=(const PacketStream &) = delete;

    dstream_t *get() const { return stream_; }
    dstream_t *operator->() const { return stream_; }

    // What was written since the last call, one element a write.
    std::vector<std::string> writes() const {
        std::vector<std::string> packets;
        char packet[4096];
        for (ssize_t length; (length = read(ends_[0], packet, sizeof packet)) > 0;)
            packets.emplace_back(packet, static_cast<size_t>(length));
        return packets;
    }

  private:
    int ends_[2] = {-1, -1};
    dstream_t *stream_;
};

using Writes = std::vector<std::string>;

// ---- a stream's life ----

TEST(DumpStream, NewStreamStartsWithItsDefaults) {
    dstream_formatter_t formatters[2] = {};
    CapturedStream stream(2, formatters);
    EXPECT_GE(stream->fd, 0);
    EXPECT_EQ(stream->indent, 0);
    EXPECT_EQ(stream->width, 78);
    EXPECT_EQ(stream->col, 0);
    EXPECT_EQ(stream->first_record, 1);
    EXPECT_EQ(stream->pos, 0);
    EXPECT_EQ(stream->print_flag, 0);
    EXPECT_EQ(std::string(stream->delim, 4), std::string(4, '\0'));
    EXPECT_EQ(std::string(stream->buffer, 512), std::string(512, '\0'));
    EXPECT_EQ(std::string(stream->filename, 256), std::string(256, '\0'));
    EXPECT_EQ(stream->formatter_cnt, 2);
    EXPECT_EQ(stream->dstream_formatters, formatters);
}

TEST(DumpStream, InitStartsAUsedStreamAfreshAndKeepsItsDirectives) {
    dstream_formatter_t formatters[1] = {};
    CapturedStream stream(1, formatters);
    const int kept = dup(stream->fd);
    dwidth(stream.get(), 20);
    dseparator(stream.get(), "1234");
    dindent(stream.get(), 3);
    dprint(stream.get(), "waiting");
    stream->print_flag = 3;
    strcpy(stream->filename, "name");

    dstream_init(stream.get(), kept);
    EXPECT_EQ(stream->fd, kept);
    EXPECT_EQ(stream->indent, 0);
    EXPECT_EQ(stream->width, 78);
    EXPECT_EQ(stream->col, 0);
    EXPECT_EQ(stream->first_record, 1);
    EXPECT_EQ(stream->pos, 0);
    EXPECT_EQ(stream->print_flag, 0);
    EXPECT_EQ(std::string(stream->delim, 4), std::string(4, '\0'));
    EXPECT_EQ(std::string(stream->buffer, 512), std::string(512, '\0'));
    EXPECT_EQ(std::string(stream->filename, 256), std::string(256, '\0'));
    EXPECT_EQ(stream->formatter_cnt, 1);
    EXPECT_EQ(stream->dstream_formatters, formatters);
    close(kept);
}

TEST(DumpStream, InitClosesTheOldDescriptor) {
    const int old_fd = memfd_create("old", 0);
    dstream_t stream;
    stream.fd = old_fd;
    dstream_init(&stream, -1);
    EXPECT_EQ(stream.fd, -1);
    EXPECT_EQ(fcntl(old_fd, F_GETFD), -1);
}

TEST(DumpStream, NewLeavesOtherDescriptorsOpen) {
    // Memory from the allocator may hold anything where the descriptor will stand.
    static dstream_t memory;
    const int others = memfd_create("others", 0);
    memory.fd = others;
    allocator_desc_t desc = _system_allocator_desc;
    desc.func_malloc = [](allocator_t *, int64_t, const char *, int) -> void * { return &memory; };
    allocator_t allocator = {};
    allocator.desc = &desc;
    EXPECT_EQ(dstream_new(&allocator, -1, 0, nullptr), &memory);
    EXPECT_EQ(close(others), 0);
}

TEST(DumpStream, NewReturnsNullWhenThereIsNoMemory) {
    allocator_desc_t desc = _system_allocator_desc;
    desc.func_malloc = [](allocator_t *, int64_t, const char *, int) -> void * { return nullptr; };
    desc.func_throw = [](allocator_t *) { abort(); };
    allocator_t allocator = {};
    allocator.desc = &desc;
    EXPECT_EQ(dstream_new(&allocator, 1, 0, nullptr), nullptr);
}

TEST(DumpStream, DeleteFlushesAndLeavesTheDescriptorOpen) {
    const int fd = memfd_create("dump", 0);
    dstream_t *const stream = dstream_new(&_system_allocator, fd, 0, nullptr);
    dprint(stream, "last words");
    dstream_delete(&_system_allocator, stream);
    char text[16] = {};
    EXPECT_EQ(pread(fd, text, sizeof text, 0), 10);
    EXPECT_STREQ(text, "last words");
    EXPECT_EQ(close(fd), 0);
}

TEST(DumpStream, DeleteIgnoresNull) {
    dstream_delete(&_system_allocator, nullptr);
}

// ---- characters ----

TEST(DumpStream, TextWaitsForANewline) {
    PacketStream stream;
    dprint(stream.get(), "begun");
    EXPECT_EQ(stream.writes(), Writes());
    EXPECT_EQ(stream->pos, 5);
    EXPECT_EQ(stream->col, 5);
    dprint(stream.get(), ", ended\nnext");
    EXPECT_EQ(stream.writes(), (Writes{"begun, ended\n"}));
    EXPECT_EQ(stream->pos, 4);
    EXPECT_EQ(stream->col, 4);
}

TEST(DumpStream, BufferIsWrittenWhenItHolds511Bytes) {
    PacketStream stream;
    const std::string text(511, 'x');
    dprint(stream.get(), "%s", text.c_str());
    EXPECT_EQ(stream.writes(), Writes());
    EXPECT_EQ(stream->pos, 511);
    stream->print_flag = DSTREAM_NO_WRAP;
    dprint(stream.get(), "y");
    EXPECT_EQ(stream.writes(), (Writes{text}));
    EXPECT_EQ(stream->pos, 1);
    EXPECT_EQ(stream->col, 512);
}

TEST(DumpStream, NewlineAfterAFullBufferIsWrittenAlone) {
    PacketStream stream;
    const std::string text(511, 'x');
    dprint(stream.get(), "%s\n", text.c_str());
    EXPECT_EQ(stream.writes(), (Writes{text, "\n"}));
}

TEST(DumpStream, EveryLineStartsAtTheIndentation) {
    CapturedStream stream;
    dindent(stream.get(), 3);
    dprint(stream.get(), "one\ntwo\n\nthree");
    EXPECT_EQ(stream.text(), "   one\n   two\n   \n   three");
    EXPECT_EQ(stream->col, 8);
}

TEST(DumpStream, FlushWritesOnceAndEmptiesTheBuffer) {
    PacketStream stream;
    dprint(stream.get(), "text");
    dflush(stream.get());
    EXPECT_EQ(stream.writes(), (Writes{"text"}));
    EXPECT_EQ(stream->pos, 0);
    EXPECT_EQ(stream->col, 4);
    dflush(stream.get());
    EXPECT_EQ(stream.writes(), Writes());
}

TEST(DumpStream, FailedWritesAreIgnored) {
    dstream_t stream = {};
    stream.fd = -1;
    dstream_init(&stream, open("/dev/null", O_RDONLY));
    dprint(&stream, "lost\nkept");
    EXPECT_EQ(stream.pos, 4);
    dflush(&stream);
    EXPECT_EQ(stream.pos, 0);
    dstream_init(&stream, -1);
}

TEST(DumpStream, ZeroCharactersAreWrittenLikeAnyOther) {
    CapturedStream stream;
    dprint(stream.get(), "a%cb", 0);
    EXPECT_EQ(stream.text(), std::string("a\0b", 3));
}

TEST(DumpStream, ItemsLongerThanTheLocalAreaAreWrittenWhole) {
    CapturedStream stream;
    const std::string text(5000, 'x');
    dprint(stream.get(), "<%s>", text.c_str());
    EXPECT_EQ(stream.text(), "<" + text + ">");
}

// ---- separator ----

TEST(DumpStream, SeparatorStandsBetweenRecords) {
    CapturedStream stream;
    dseparator(stream.get(), ", ");
    dprint(stream.get(), "a");
    EXPECT_EQ(stream->first_record, 0);
    dprint(stream.get(), "b");
    dprint(stream.get(), "c");
    EXPECT_EQ(stream.text(), "a, b, c");
}

TEST(DumpStream, SeparatorIsAtMostFourBytes) {
    CapturedStream stream;
    dseparator(stream.get(), "12345");
    dprint(stream.get(), "a");
    dprint(stream.get(), "b");
    EXPECT_EQ(stream.text(), "a1234b");
}

TEST(DumpStream, ShorterSeparatorReplacesALongerOne) {
    CapturedStream stream;
    dseparator(stream.get(), "1234");
    dseparator(stream.get(), "5");
    EXPECT_EQ(std::string(stream->delim, 4), std::string("5\0\0\0", 4));
    dprint(stream.get(), "a");
    dprint(stream.get(), "b");
    EXPECT_EQ(stream.text(), "a5b");
}

TEST(DumpStream, NullClearsTheSeparator) {
    CapturedStream stream;
    dseparator(stream.get(), ", ");
    dprint(stream.get(), "a");
    dseparator(stream.get(), nullptr);
    EXPECT_EQ(stream->first_record, 1);
    EXPECT_EQ(std::string(stream->delim, 4), std::string(4, '\0'));
    dprint(stream.get(), "b");
    dprint(stream.get(), "c");
    EXPECT_EQ(stream.text(), "abc");
}

TEST(DumpStream, FirstPrintAfterASeparatorChangeHasNone) {
    CapturedStream stream;
    dseparator(stream.get(), ", ");
    dprint(stream.get(), "a");
    dseparator(stream.get(), "; ");
    dprint(stream.get(), "b");
    dprint(stream.get(), "c");
    EXPECT_EQ(stream.text(), "ab; c");
}

TEST(DumpStream, NewlineAsSeparatorIndentsTheNextRecord) {
    CapturedStream stream;
    dseparator(stream.get(), "\n");
    dindent(stream.get(), 2);
    dprint(stream.get(), "a");
    dprint(stream.get(), "b");
    EXPECT_EQ(stream.text(), "  a\n  b");
}

TEST(DumpStream, NoSeparatorFlagLeavesItOutForAsLongAsItStands) {
    CapturedStream stream;
    dseparator(stream.get(), ",");
    dprint(stream.get(), "a");
    stream->print_flag = 2;
    dprint(stream.get(), "b");
    dprint(stream.get(), "c");
    stream->print_flag = 0;
    dprint(stream.get(), "d");
    EXPECT_EQ(stream.text(), "abc,d");
}

TEST(DumpStream, NoSeparatorFlagStillEndsTheFirstRecord) {
    CapturedStream stream;
    dseparator(stream.get(), ",");
    stream->print_flag = 2;
    dprint(stream.get(), "a");
    stream->print_flag = 0;
    dprint(stream.get(), "b");
    EXPECT_EQ(stream.text(), "a,b");
}

// ---- wrapping ----

TEST(DumpStream, ItemThatEndsAtTheWidthStaysOnItsLine) {
    CapturedStream stream;
    dwidth(stream.get(), 10);
    dprint(stream.get(), "12345");
    dprint(stream.get(), "67890");
    EXPECT_EQ(stream.text(), "1234567890");
}

TEST(DumpStream, ItemThatCrossesTheWidthStartsANewLine) {
    CapturedStream stream;
    dwidth(stream.get(), 10);
    dprint(stream.get(), "12345");
    dprint(stream.get(), "678901");
    EXPECT_EQ(stream.text(), "12345\n678901");
    EXPECT_EQ(stream->col, 6);
}

TEST(DumpStream, WidthIs78AtFirst) {
    CapturedStream stream;
    const std::string first(70, 'x');
    dprint(stream.get(), "%s", first.c_str());
    dprint(stream.get(), "12345678");
    dprint(stream.get(), "9");
    EXPECT_EQ(stream.text(), first + "12345678\n9");
}

TEST(DumpStream, WrappedLineStartsAtTheIndentation) {
    CapturedStream stream;
    dwidth(stream.get(), 10);
    dindent(stream.get(), 2);
    dprint(stream.get(), "12345");
    dprint(stream.get(), "6789");
    EXPECT_EQ(stream.text(), "  12345\n  6789");
}

TEST(DumpStream, LongItemOnAFreshLineIsNotWrapped) {
    CapturedStream stream;
    dwidth(stream.get(), 5);
    dindent(stream.get(), 2);
    dprint(stream.get(), "123456");
    EXPECT_EQ(stream.text(), "  123456");
}

TEST(DumpStream, BufferedNewlineMakesTheLineFresh) {
    CapturedStream stream;
    dwidth(stream.get(), 2);
    stream->buffer[0] = '\n';
    stream->pos = 1;
    stream->col = 1;
    dprint(stream.get(), "abc");
    EXPECT_EQ(stream.text(), "\nabc");
}

TEST(DumpStream, NewlineOfAnItemCountsInItsLength) {
    CapturedStream stream;
    dwidth(stream.get(), 4);
    dprint(stream.get(), "ab");
    dprint(stream.get(), "cd\n");
    EXPECT_EQ(stream.text(), "ab\ncd\n");
}

TEST(DumpStream, SeparatorStaysOnTheOldLine) {
    CapturedStream stream;
    dwidth(stream.get(), 8);
    dseparator(stream.get(), ", ");
    dprint(stream.get(), "abc");
    dprint(stream.get(), "defg");
    EXPECT_EQ(stream.text(), "abc, \ndefg");
}

TEST(DumpStream, NoWrapFlagKeepsTheLine) {
    CapturedStream stream;
    dwidth(stream.get(), 4);
    stream->print_flag = 1;
    dprint(stream.get(), "abc");
    dprint(stream.get(), "def");
    EXPECT_EQ(stream.text(), "abcdef");
    EXPECT_EQ(stream->print_flag, 1);
}

TEST(DumpStream, EmptyItemBeyondTheWidthStartsANewLine) {
    CapturedStream stream;
    dwidth(stream.get(), 4);
    dprint(stream.get(), "abcde");
    dprint(stream.get(), "%s", "");
    EXPECT_EQ(stream.text(), "abcde\n");
}

// ---- one-shot flags ----

class OneShotFlag : public testing::TestWithParam<int> {};

TEST_P(OneShotFlag, HoldsForOnePrint) {
    CapturedStream stream;
    dseparator(stream.get(), ",");
    dprint(stream.get(), "a");
    stream->print_flag = GetParam() | 2;
    dprint(stream.get(), "b");
    EXPECT_EQ(stream->print_flag, 0);
    dprint(stream.get(), "c");
    EXPECT_EQ(stream.text(), "ab,c");
}

TEST_P(OneShotFlag, IsResetByAnEmptyPrint) {
    CapturedStream stream;
    stream->print_flag = GetParam() | 1 | 256;
    dprint(stream.get(), "%s", "");
    EXPECT_EQ(stream->print_flag, 0);
}

INSTANTIATE_TEST_SUITE_P(EachBit, OneShotFlag, testing::Values(16, 32, 64, 128, 16 | 128));

TEST(DumpStream, OtherFlagBitsStay) {
    CapturedStream stream;
    for (const int flag : {1, 2, 3, 4, 8, 256}) {
        stream->print_flag = flag;
        dprint(stream.get(), "x");
        EXPECT_EQ(stream->print_flag, flag);
    }
}

// ---- indentation ----

TEST(DumpIndent, IndentsALineThatIsNotBegun) {
    CapturedStream stream;
    dindent(stream.get(), 4);
    EXPECT_EQ(stream->indent, 4);
    EXPECT_EQ(stream->col, 4);
    EXPECT_EQ(stream.text(), "    ");
}

TEST(DumpIndent, EndsALineThatIsBegun) {
    CapturedStream stream;
    dprint(stream.get(), "begin {");
    dindent(stream.get(), 2);
    dprint(stream.get(), "body;");
    dindent(stream.get(), -2);
    dprint(stream.get(), "}");
    EXPECT_EQ(stream.text(), "begin {\n  body;\n}");
}

TEST(DumpIndent, ReplacesTheBareIndentationOfAFreshLine) {
    CapturedStream stream;
    dindent(stream.get(), 4);
    dprint(stream.get(), "a\n");
    dindent(stream.get(), -2);
    dprint(stream.get(), "b\n");
    dindent(stream.get(), 4);
    dprint(stream.get(), "c\n");
    dindent(stream.get(), -6);
    dprint(stream.get(), "d\n");
    EXPECT_EQ(stream.text(), "    a\n  b\n      c\nd\n");
}

TEST(DumpIndent, NeverGoesBelowZero) {
    CapturedStream stream;
    dindent(stream.get(), 8);
    dindent(stream.get(), -100);
    EXPECT_EQ(stream->indent, 0);
    dindent(stream.get(), INT_MIN);
    EXPECT_EQ(stream->indent, 0);
    dindent(stream.get(), 1);
    EXPECT_EQ(stream->indent, 1);
    EXPECT_EQ(stream.text(), " ");
}

TEST(DumpIndent, FlushesWhatIsBuffered) {
    PacketStream stream;
    dprint(stream.get(), "text");
    dindent(stream.get(), 0);
    EXPECT_EQ(stream.writes(), (Writes{"text", "\n"}));
    EXPECT_EQ(stream->col, 0);
}

TEST(DumpIndent, AddsNoNewlineWhenNothingIsBuffered) {
    CapturedStream stream;
    dprint(stream.get(), "abcdef");
    dflush(stream.get());
    dindent(stream.get(), 4);
    EXPECT_EQ(stream->indent, 4);
    EXPECT_EQ(stream->col, 6);
    dindent(stream.get(), 4);
    EXPECT_EQ(stream->col, 8);
    EXPECT_EQ(stream.text(), "abcdef  ");
}

TEST(DumpIndent, AddsNoNewlineAfterABufferedOne) {
    CapturedStream stream;
    stream->buffer[0] = 'x';
    stream->buffer[1] = '\n';
    stream->pos = 2;
    stream->col = 1;
    dindent(stream.get(), 3);
    EXPECT_EQ(stream.text(), "x\n  ");
}

TEST(DumpIndent, KeepsAnIndentationThatWasPartlyWritten) {
    CapturedStream stream;
    dindent(stream.get(), 600);
    ASSERT_EQ(stream->pos, 600 - 511);
    dindent(stream.get(), -100);
    EXPECT_EQ(stream->indent, 500);
    EXPECT_EQ(stream->col, 600);
    EXPECT_EQ(stream.text(), std::string(600, ' '));
}

// ---- opening the file ----

class DumpFile : public testing::Test {
  protected:
    void SetUp() override {
        std::string name = testing::TempDir() + "dump_file_XXXXXX";
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        folder_ = name;
        stream_.fd = -1;
        dstream_init(&stream_, -1);
        umask_ = umask(022);
    }

    void TearDown() override {
        dstream_init(&stream_, -1);
        umask(umask_);
        std::filesystem::remove_all(folder_);
    }

    void name(const std::string &path) { strcpy(stream_.filename, path.c_str()); }

    static std::string contents(const std::string &path) {
        std::ostringstream text;
        text << std::ifstream(path).rdbuf();
        return text.str();
    }

    // Prints an item; returns what that wrote to standard output.
    std::string print(const char *text) {
        testing::internal::CaptureStdout();
        dprint(&stream_, "%s", text);
        return testing::internal::GetCapturedStdout();
    }

    std::string folder_;
    dstream_t stream_ = {};

  private:
    mode_t umask_ = 0;
};

TEST_F(DumpFile, IsCreatedByTheFirstPrint) {
    name(folder_ + "/dump");
    EXPECT_EQ(print("text\n"), "");
    EXPECT_GE(stream_.fd, 0);
    EXPECT_EQ(contents(folder_ + "/dump"), "text\n");
    struct stat status;
    ASSERT_EQ(stat((folder_ + "/dump").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0644u);
    EXPECT_EQ(fcntl(stream_.fd, F_GETFL) & O_ACCMODE, O_RDWR);
}

TEST_F(DumpFile, IsOpenedOnce) {
    name(folder_ + "/dump");
    print("one\n");
    print("two\n");
    EXPECT_EQ(contents(folder_ + "/dump"), "one\ntwo\n");
}

TEST_F(DumpFile, IsTruncated) {
    std::ofstream(folder_ + "/dump") << "something longer from before";
    name(folder_ + "/dump");
    print("text\n");
    EXPECT_EQ(contents(folder_ + "/dump"), "text\n");
}

TEST_F(DumpFile, GetsItsDirectories) {
    name(folder_ + "/some/where/dump");
    EXPECT_EQ(dstream_file_open(&stream_), 0);
    EXPECT_GE(stream_.fd, 0);
    EXPECT_TRUE(std::filesystem::is_directory(folder_ + "/some/where"));
    EXPECT_TRUE(std::filesystem::is_regular_file(folder_ + "/some/where/dump"));
}

TEST_F(DumpFile, IsReportedWhenItsDirectoryCannotBeMade) {
    // Only absolute directories are made.
    const std::string path = "no_such_directory_here/dump";
    name(path);
    EXPECT_THAT(print("text\n"), testing::HasSubstr(" Failure to create dump file: " + path));
    EXPECT_LT(stream_.fd, 0);
    testing::internal::CaptureStdout();
    EXPECT_EQ(dstream_file_open(&stream_), 1);
    testing::internal::GetCapturedStdout();
}

TEST_F(DumpFile, IsReportedWhenItHasNoName) {
    EXPECT_THAT(print("text\n"), testing::HasSubstr(" Failure to create dump file: "));
    EXPECT_LT(stream_.fd, 0);
}

TEST_F(DumpFile, FailsQuietlyForAnotherReasonThanItsDirectory) {
    name(folder_);
    EXPECT_EQ(print("text\n"), "");
    EXPECT_EQ(dstream_file_open(&stream_), 1);
    EXPECT_LT(stream_.fd, 0);
    std::ofstream(folder_ + "/file") << "";
    name(folder_ + "/file/folder/dump");
    EXPECT_EQ(print("text\n"), "");
    EXPECT_EQ(dstream_file_open(&stream_), 1);
}

TEST_F(DumpFile, FailsWhenItCannotBeOpenedInANewDirectory) {
    name(folder_ + "/new/");
    EXPECT_EQ(dstream_file_open(&stream_), 1);
    EXPECT_LT(stream_.fd, 0);
}

TEST_F(DumpFile, FailureLeavesTheStreamAsItWas) {
    name(folder_);
    stream_.print_flag = 16 | 2;
    print("text\n");
    EXPECT_EQ(stream_.print_flag, 16 | 2);
    EXPECT_EQ(stream_.first_record, 1);
    EXPECT_EQ(stream_.pos, 0);
    EXPECT_EQ(stream_.col, 0);
}

// ---- dstart ----

class DumpStart : public testing::Test {
  protected:
    DumpStart() {
        const char *const zone = getenv("TZ");
        if (zone != nullptr)
            old_zone_ = zone;
        setenv("TZ", "XYZ-3:30", 1);
        tzset();
    }
    ~DumpStart() override {
        if (old_zone_.empty())
            unsetenv("TZ");
        else
            setenv("TZ", old_zone_.c_str(), 1);
        tzset();
    }

    // The line as it reads at that second, three and a half hours east of Greenwich.
    static std::string line_at(time_t when) {
        when += 3 * 3600 + 30 * 60;
        struct tm utc;
        gmtime_r(&when, &utc);
        char line[64];
        strftime(line, sizeof line, "\n**Dump start at %Y-%m-%d %H:%M:%S\n", &utc);
        return line;
    }

  private:
    std::string old_zone_;
};

TEST_F(DumpStart, PrintsTheLocalTime) {
    CapturedStream stream;
    const time_t before = time(nullptr);
    dstart(stream.get());
    const time_t after = time(nullptr);
    std::vector<std::string> possible;
    for (time_t when = before; when <= after; when++)
        possible.push_back(line_at(when));
    EXPECT_THAT(possible, testing::Contains(stream.text()));
}

// ---- the formatting engine ----

__attribute__((noinline)) std::string format(const char *fmt, ...) {
    char text[4096];
    va_list args;
    va_start(args, fmt);
    const size_t length =
        static_cast<size_t>(dsvprint(0, nullptr, text, sizeof text, nullptr, fmt, args));
    va_end(args);
    EXPECT_EQ(text[length], '\0');
    return std::string(text, length);
}

TEST(DumpFormat, CopiesOrdinaryBytes) {
    EXPECT_EQ(format(""), "");
    EXPECT_EQ(format("plain\ttext \xc3\xa9\n"), "plain\ttext \xc3\xa9\n");
}

TEST(DumpFormat, ReturnsTheLengthAsAnInt) {
    char text[16];
    const int length{dsprint(0, nullptr, text, sizeof text, "%d-%s", 12, "ab")}; // no narrowing
    EXPECT_EQ(length, 5);
    EXPECT_STREQ(text, "12-ab");
}

TEST(DumpFormat, KnowsTheConversions) {
    EXPECT_EQ(format("%%|%c|%s|%d|%i|%u|%o|%x|%X", 'c', "text", -1, -2, 3u, 8u, 0xabu, 0xcdu),
              "%|c|text|-1|-2|3|10|ab|CD");
}

TEST(DumpFormat, PointersAreHexadecimal) {
    EXPECT_EQ(format("%p", reinterpret_cast<void *>(0x7fffdeadbeef)), "0x7fffdeadbeef");
    EXPECT_EQ(format("%p", nullptr), "0x0");
    EXPECT_EQ(format("%18p|%-8p|%012p", reinterpret_cast<void *>(0xab),
                     reinterpret_cast<void *>(0xcd), reinterpret_cast<void *>(0xef)),
              "              0xab|0xcd    |0x00000000ef");
}

TEST(DumpFormat, StringValuesBelow2048AreNoStrings) {
    const char *small[] = {nullptr, reinterpret_cast<const char *>(1),
                           reinterpret_cast<const char *>(2047)};
    for (const char *value : small)
        EXPECT_EQ(format("%s", value), "<NULL>");
    EXPECT_EQ(format("%8s|%-8s|%.3s", nullptr, nullptr, nullptr), "  <NULL>|<NULL>  |<NU");
}

TEST(DumpFormat, StringsAreReadNoFurtherThanThePrecision) {
    const char unterminated[3] = {'a', 'b', 'c'};
    EXPECT_EQ(format("%.3s|%.*s", unterminated, 2, unterminated), "abc|ab");
}

TEST(DumpFormat, PrefixStandsBeforeZeroToo) {
    EXPECT_EQ(format("%#x %#X %#o", 0, 0, 0), "0x0 0X0 00");
    EXPECT_EQ(format("%#x %#X %#o", 255, 255, 8), "0xff 0XFF 010");
}

TEST(DumpFormat, QualifiersChooseTheWidthOfTheArgument) {
    const long wide = -0x123456789abcdef;
    for (const char *fmt : {"%ld", "%lld", "%Ld", "%Zd", "%zd"})
        EXPECT_EQ(format(fmt, wide), "-81985529216486895") << fmt;
    for (const char *fmt : {"%lx", "%llx", "%Lx", "%Zx", "%zx"})
        EXPECT_EQ(format(fmt, wide), "fedcba9876543211") << fmt;
    EXPECT_EQ(format("%hd %hu %hx", 0x12348000, 0x12348000, 0x12348001), "-32768 32768 8001");
}

TEST(DumpFormat, CountsWhatIsWrittenSoFar) {
    int plain = -1;
    short narrow[2] = {-1, -1};
    long wide = -1;
    EXPECT_EQ(format("ab%ncd%hnef%ln", &plain, &narrow[0], &wide), "abcdef");
    EXPECT_EQ(plain, 2);
    EXPECT_EQ(narrow[0], 4);
    EXPECT_EQ(narrow[1], -1);
    EXPECT_EQ(wide, 6);
}

TEST(DumpFormat, CountIsThatOfTheCutText) {
    char text[4];
    int count = -1;
    dsprint(0, nullptr, text, sizeof text, "abcdef%n", &count);
    EXPECT_EQ(count, 3);
}

TEST(DumpFormat, PrintsWhatIsNoConversionAsItStands) {
    EXPECT_EQ(format("%y|%-5.2lQ|%f|%", 1), "%y|%-5.2lQ|%f|%");
    EXPECT_EQ(format("%+08"), "%+08");
    EXPECT_EQ(format("%hhd"), "%hhd");
}

TEST(DumpFormat, UnknownConversionTakesNoArgument) {
    EXPECT_EQ(format("%y %d", 5), "%y 5");
    EXPECT_EQ(format("%*y %d", 3, 5), "%*y 5");
}

TEST(DumpFormat, NegativeStarWidthJustifiesLeft) {
    EXPECT_EQ(format("%*d|%*s|", -4, 7, -3, "a"), "7   |a  |");
}

TEST(DumpFormat, NegativeStarPrecisionIsNone) {
    EXPECT_EQ(format("%.*d|%.*s|%0*.*d", -3, 7, -1, "abc", 4, -1, 7), "7|abc|0007");
}

TEST(DumpFormat, HugeWidthsFillTheAreaAndNoMore) {
    char text[8];
    EXPECT_EQ(dsprint(0, nullptr, text, sizeof text, "%99999999999999999999d", 1), 7);
    EXPECT_STREQ(text, "       ");
    EXPECT_EQ(dsprint(0, nullptr, text, sizeof text, "%.2147483647d", 1), 7);
    EXPECT_STREQ(text, "0000000");
    EXPECT_EQ(dsprint(0, nullptr, text, sizeof text, "%*d", INT_MIN, 1), 7);
    EXPECT_STREQ(text, "1      ");
}

// Where the engine is meant to do what printf does, it does.

std::vector<std::string> flag_sets() {
    std::vector<std::string> sets;
    for (unsigned int bits = 0; bits < 32; bits++) {
        std::string flags;
        for (unsigned int i = 0; i < 5; i++) {
            if ((bits >> i & 1) != 0)
                flags += " #+-0"[i];
        }
        sets.push_back(flags);
    }
    return sets;
}

template <class Value>
void expect_as_printf(const std::string &fmt, Value value) {
    char expected[256];
    snprintf(expected, sizeof expected, fmt.c_str(), value);
    EXPECT_EQ(format(fmt.c_str(), value), expected) << fmt;
}

TEST(DumpFormat, NumbersAreThoseOfPrintf) {
    // "#" with octal numbers and with zero is the engine's own: not in this grid.
    const long values[] = {0,      1,     -1,      7,       8,        255,      -255,    32767,
                           -32768, 65535, INT_MAX, INT_MIN, UINT_MAX, LONG_MAX, LONG_MIN};
    for (const std::string &flags : flag_sets())
        for (const char *width : {"", "1", "5", "12", "30"})
            for (const char *precision : {"", ".", ".0", ".1", ".4", ".25"})
                for (const char *qualifier : {"", "h", "l", "ll", "z"})
                    for (const char *type : {"d", "i", "u", "o", "x", "X"})
                        for (const long value : values) {
                            const bool special = flags.find('#') != std::string::npos;
                            const long seen = *qualifier == 'h' ? static_cast<short>(value)
                                              : *qualifier == 0 ? static_cast<int>(value)
                                                                : value;
                            if (special && (*type == 'o' || seen == 0))
                                continue;
                            expect_as_printf("%" + flags + width + precision + qualifier + type,
                                             value);
                            ASSERT_FALSE(HasFailure());
                        }
}

TEST(DumpFormat, StringsAndCharactersAreThoseOfPrintf) {
    for (const char *flags : {"", "-"})
        for (const char *width : {"", "1", "5", "12"}) {
            expect_as_printf(std::string("%") + flags + width + "c", 'x');
            for (const char *precision : {"", ".", ".0", ".1", ".4", ".25"})
                for (const char *text : {"", "a", "abcdef"})
                    expect_as_printf(std::string("%") + flags + width + precision + "s", text);
        }
}

// ---- the area ----

TEST(DumpArea, TextIsCutAtItsEndAndTerminated) {
    char text[6] = "-----";
    EXPECT_EQ(dsprint(0, nullptr, text, 4, "abcdef"), 3);
    EXPECT_EQ(std::string(text, 6), std::string("abc\0-\0", 6));
}

TEST(DumpArea, OfOneByteTakesTheTerminatorAlone) {
    char text[2] = {'-', '-'};
    EXPECT_EQ(dsprint(0, nullptr, text, 1, "abc"), 0);
    EXPECT_EQ(std::string(text, 2), std::string("\0-", 2));
}

TEST(DumpArea, OfNoBytesIsLeftAlone) {
    char text[2] = {'-', '-'};
    EXPECT_EQ(dsprint(0, nullptr, text, 0, "abc%d%5s", 1, "x"), 0);
    EXPECT_EQ(std::string(text, 2), "--");
    EXPECT_EQ(dsprint(0, nullptr, nullptr, 0, "abc"), 0);
}

__attribute__((noinline)) size_t grow_print(char *area, size_t size, char **block, const char *fmt,
                                            ...) {
    va_list args;
    va_start(args, fmt);
    const size_t length = static_cast<size_t>(dsvprint(0, nullptr, area, size, block, fmt, args));
    va_end(args);
    return length;
}

TEST(DumpArea, IsNotReplacedWhenTheTextFits) {
    char text[8];
    char *block = text;
    EXPECT_EQ(grow_print(text, sizeof text, &block, "%s", "1234567"), 7u);
    EXPECT_EQ(block, nullptr);
    EXPECT_STREQ(text, "1234567");
    dfree(block);
}

TEST(DumpArea, GrowsForALongerText) {
    char text[8];
    char *block = nullptr;
    EXPECT_EQ(grow_print(text, sizeof text, &block, "%s-%d", "1234567", 89), 10u);
    ASSERT_NE(block, nullptr);
    EXPECT_STREQ(block, "1234567-89");
    dfree(block);
}

TEST(DumpArea, GrowsFromNothing) {
    char *block = nullptr;
    const std::string text(1000, 'x');
    EXPECT_EQ(grow_print(nullptr, 0, &block, "%s", text.c_str()), 1000u);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(block, text);
    dfree(block);
}

// Has the system allocator record requests and refuse them after some.
class DumpGrowth : public testing::Test {
  protected:
    DumpGrowth() {
        requests.clear();
        freed.clear();
        allowance = INT_MAX;
        static allocator_desc_t desc = _system_allocator_desc;
        desc.func_malloc = take;
        desc.func_realloc = retake;
        desc.func_free = give_back;
        _system_allocator.desc = &desc;
    }
    ~DumpGrowth() override { _system_allocator.desc = &_system_allocator_desc; }

    static inline std::vector<std::pair<bool, int64_t>> requests; // (was a realloc, bytes)
    static inline std::vector<const void *> freed;
    static inline int allowance;

  private:
    static void *take(allocator_t *alloc, int64_t bytes, const char *file, int line) {
        requests.emplace_back(false, bytes);
        return allowance-- > 0 ? system_malloc(alloc, bytes, file, line) : nullptr;
    }
    static void *retake(allocator_t *alloc, void *ptr, int64_t bytes, const char *file, int line) {
        requests.emplace_back(true, bytes);
        return allowance-- > 0 ? system_realloc(alloc, ptr, bytes, file, line) : nullptr;
    }
    static void give_back(allocator_t *alloc, void *ptr, const char *file, int line) {
        if (ptr != nullptr)
            freed.push_back(ptr);
        system_free(alloc, ptr, file, line);
    }
};

TEST_F(DumpGrowth, TakesABlockOfTwiceTheSizeAndReallocatesItLater) {
    char text[10];
    char *block = nullptr;
    grow_print(text, sizeof text, &block, "%040d", 1);
    EXPECT_EQ(requests,
              (std::vector<std::pair<bool, int64_t>>{{false, 20}, {true, 40}, {true, 80}}));
    EXPECT_STREQ(block, "0000000000000000000000000000000000000001");
    dfree(block);
}

TEST_F(DumpGrowth, BlockGoesBackToTheSystemAllocator) {
    char text[10];
    char *block = nullptr;
    grow_print(text, sizeof text, &block, "%040d", 1);
    dfree(block);
    EXPECT_EQ(freed, std::vector<const void *>{block});
}

TEST_F(DumpGrowth, BlockOfALongItemGoesBackAfterThePrint) {
    CapturedStream stream;
    requests.clear();
    dprint(stream.get(), "%s", std::string(600, 'x').c_str());
    EXPECT_EQ(requests.size(), 1u);
    EXPECT_EQ(freed.size(), 1u);
}

TEST_F(DumpGrowth, RefusedAtOnceCutsTheTextAtTheCallersArea) {
    char text[6];
    char *block = nullptr;
    allowance = 0;
    EXPECT_EQ(grow_print(text, sizeof text, &block, "%s", "12345678"), 5u);
    EXPECT_EQ(block, nullptr);
    EXPECT_STREQ(text, "12345");
}

TEST_F(DumpGrowth, RefusedLaterCutsTheTextAtTheBlock) {
    char text[6];
    char *block = nullptr;
    allowance = 1;
    EXPECT_EQ(grow_print(text, sizeof text, &block, "%s%s", "12345678", "90abcdefgh"), 11u);
    EXPECT_STREQ(block, "1234567890a");
    dfree(block);
}

TEST_F(DumpGrowth, IsNotAskedForAgainOnceRefused) {
    char text[6];
    char *block = nullptr;
    allowance = 0;
    grow_print(text, sizeof text, &block, "%s%s%s", "12345678", "9", "0");
    EXPECT_EQ(requests.size(), 1u);
}

TEST_F(DumpGrowth, RefusedToAStreamCutsTheItem) {
    CapturedStream stream;
    allowance = 0;
    dprint(stream.get(), "%s", std::string(600, 'x').c_str());
    EXPECT_EQ(stream.text(), std::string(511, 'x'));
}

// ---- directives ----

int angle_brackets(char *area, uint64_t value) {
    return snprintf(area, DSTREAM_DIRECTIVE_SIZE, "<%lx>", value);
}

int square_brackets(char *area, uint64_t value) {
    return snprintf(area, DSTREAM_DIRECTIVE_SIZE, "[%s]", reinterpret_cast<const char *>(value));
}

int repeated(char *area, uint64_t count) {
    memset(area, 'r', count);
    return static_cast<int>(count);
}

int misbehaving(char *, uint64_t value) {
    return static_cast<int>(value);
}

dstream_formatter_t formatters[] = {
    {'a', angle_brackets}, {'s', square_brackets}, {'a', square_brackets},
    {'r', repeated},       {'!', misbehaving},
};
constexpr int kFormatters = 5;

__attribute__((noinline)) std::string direct(size_t size, const char *fmt, ...) {
    std::vector<char> text(size);
    va_list args;
    va_start(args, fmt);
    const size_t length = static_cast<size_t>(
        dsvprint(kFormatters, formatters, text.data(), size, nullptr, fmt, args));
    va_end(args);
    return std::string(text.data(), length);
}

TEST(DumpDirective, TakesTheNextArgument) {
    EXPECT_EQ(direct(64, "%d @a %d @s.", 1, 0xfedcba9876543210, 2, "text"),
              "1 <fedcba9876543210> 2 [text].");
}

TEST(DumpDirective, FirstOfACharacterIsUsed) {
    EXPECT_EQ(direct(64, "@a", 0x10L), "<10>");
}

TEST(DumpDirective, UnknownPrintsItsCharacter) {
    EXPECT_EQ(direct(64, "user@@host @z@%d %d", 5), "user@host z%d 5");
    EXPECT_EQ(format("@a@@"), "a@");
}

TEST(DumpDirective, AtTheEndOfTheFormatIsAPlainCharacter) {
    EXPECT_EQ(direct(64, "end@"), "end@");
}

TEST(DumpDirective, PercentIsNoneOfItsOwn) {
    EXPECT_EQ(direct(64, "%@a"), "%@a");
}

TEST(DumpDirective, ThatDoesNotFitEndsTheFormatting) {
    EXPECT_EQ(direct(9, "ab@acd", 0x123L), "ab<123>c");
    EXPECT_EQ(direct(8, "ab@acd", 0x123L), "ab<123>");
    EXPECT_EQ(direct(7, "ab@acd", 0x123L), "ab");
}

TEST(DumpDirective, GrowsTheArea) {
    CapturedStream stream(kFormatters, formatters);
    dprint(stream.get(), "%300d@r@r", 1, 1024L, 1024L);
    EXPECT_EQ(stream.text(), std::string(299, ' ') + "1" + std::string(2048, 'r'));
}

TEST(DumpDirective, MayWriteNothing) {
    EXPECT_EQ(direct(64, "a@rb", 0L), "ab");
}

TEST(DumpDirectiveDeathTest, MustReturnWhatItCanHaveWritten) {
    EXPECT_EXIT(direct(64, "@!", -1L), testing::KilledBySignal(SIGABRT),
                "^zd_dump:[0-9]+: Assertion fail with condition "
                "'written >= 0 && written <= DSTREAM_DIRECTIVE_SIZE'");
    EXPECT_EXIT(direct(64, "@!", 1025L), testing::KilledBySignal(SIGABRT), "^zd_dump:");
}

// ---- random formats ----

// Ends at a page that cannot be touched; what lies before it is checked.
class GuardedArea {
  public:
    GuardedArea() {
        page_ = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        pages_ = static_cast<char *>(
            mmap(nullptr, 2 * page_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        EXPECT_NE(pages_, MAP_FAILED);
        EXPECT_EQ(mprotect(pages_, page_, PROT_READ | PROT_WRITE), 0);
    }
    ~GuardedArea() { munmap(pages_, 2 * page_); }
    GuardedArea(const GuardedArea &) = delete;
    GuardedArea &operator=(const GuardedArea &) = delete;

    char *of_size(size_t size) {
        memset(pages_, '#', page_);
        return pages_ + page_ - size;
    }

    bool nothing_was_written_before(size_t size) const {
        return std::string(pages_, page_ - size) == std::string(page_ - size, '#');
    }

  private:
    size_t page_;
    char *pages_;
};

constexpr size_t kArguments = 40;

// Any conversion can take any of these arguments: memory that holds a text and may be written.
template <size_t... Index>
size_t print_with_arguments(char *area, size_t size, const char *fmt, char *argument,
                            std::index_sequence<Index...>) {
    return static_cast<size_t>(
        dsprint(kFormatters, formatters, area, size, fmt, (static_cast<void>(Index), argument)...));
}

template <size_t... Index>
size_t grow_with_arguments(char *area, size_t size, char **block, const char *fmt, char *argument,
                           std::index_sequence<Index...>) {
    return grow_print(area, size, block, fmt, (static_cast<void>(Index), argument)...);
}

class RandomFormats : public testing::Test {
  protected:
    std::string next(const std::string &alphabet) {
        std::string fmt;
        for (size_t length = random_() % kArguments; length > 0; length--)
            fmt += alphabet[random_() % alphabet.size()];
        return fmt;
    }

    char *argument() {
        memset(argument_, 0, sizeof argument_);
        return strcpy(argument_, "some text");
    }

    std::mt19937 random_{20240102};

  private:
    alignas(8) char argument_[64];
};

TEST_F(RandomFormats, StayInTheirArea) {
    GuardedArea guarded;
    for (int round = 0; round < 100000; round++) {
        const std::string fmt = next("%%%%%@@as*.0123456789 #+-lhLZzcsdiuoxXpnq\n");
        const size_t size = random_() % 48;
        char *const area = guarded.of_size(size);
        const size_t length = print_with_arguments(area, size, fmt.c_str(), argument(),
                                                   std::make_index_sequence<kArguments>());
        ASSERT_LE(length, size == 0 ? 0 : size - 1) << fmt;
        ASSERT_TRUE(size == 0 || area[length] == '\0') << fmt;
        ASSERT_TRUE(guarded.nothing_was_written_before(size)) << fmt;
    }
}

TEST_F(RandomFormats, AreCutOrGrownFromTheSameText) {
    // Small widths: a grown text stays small.
    const std::string pieces[] = {"%5d", "%-9x", "%#12o", "%.3s", "%s",  "%07ld", "%+hd",
                                  "%p",  "%c",   "@@",    "@z",   "abc", "%%",    "\n"};
    for (int round = 0; round < 20000; round++) {
        std::string fmt;
        for (size_t count = random_() % 12; count > 0; count--)
            fmt += pieces[random_() % std::size(pieces)];
        char whole[1024];
        const size_t whole_length = print_with_arguments(
            whole, sizeof whole, fmt.c_str(), argument(), std::make_index_sequence<kArguments>());
        const size_t size = 1 + random_() % 40;
        std::vector<char> area(size);
        const size_t cut_length = print_with_arguments(area.data(), size, fmt.c_str(), argument(),
                                                       std::make_index_sequence<kArguments>());
        ASSERT_EQ(std::string(area.data(), cut_length),
                  std::string(whole, std::min(whole_length, size - 1)))
            << fmt;
        char *block = nullptr;
        const size_t grown_length =
            grow_with_arguments(area.data(), size, &block, fmt.c_str(), argument(),
                                std::make_index_sequence<kArguments>());
        ASSERT_EQ(std::string(block != nullptr ? block : area.data(), grown_length),
                  std::string(whole, whole_length))
            << fmt;
        dfree(block);
    }
}

} // namespace
