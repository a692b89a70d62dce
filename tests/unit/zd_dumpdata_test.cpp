#include "common/zd_dumpdata.h"

#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "support/captured_stream.h"

namespace {

// The bytes 00, 01, ... FF, 00, ...
std::vector<char> counting_bytes(size_t count) {
    std::vector<char> bytes(count);
    for (size_t i = 0; i < count; i++)
        bytes[i] = static_cast<char>(i);
    return bytes;
}

std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> lines;
    size_t start = 0;
    for (size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1)
        lines.push_back(text.substr(start, end - start));
    EXPECT_EQ(start, text.size()) << "the last line is not ended";
    return lines;
}

std::string fdump(const char *buf, int len) {
    char *text = nullptr;
    size_t size = 0;
    FILE *const fp = open_memstream(&text, &size);
    fdump_data(fp, buf, len);
    fclose(fp);
    const std::string result(text, size);
    free(text);
    return result;
}

std::string stderr_of(const std::function<void()> &body) {
    testing::internal::CaptureStderr();
    body();
    return testing::internal::GetCapturedStderr();
}

const char kMixed[] = "Zerdal\n\x00\x1f\x20\x7e\x7f\x80\xff@%s";
const int kMixedLength = 17;
const char kMixedDump[] =
    "0000: 5A 65 72 64 61 6C 0A 00 1F 20 7E 7F 80 FF 40 25 Zerdal... ~...@%\n"
    "0010: 73                                              s               \n";

// ---- dbinary_dump ----

TEST(BinaryDump, ShowsOffsetBytesAndCharacters) {
    CapturedStream stream;
    dbinary_dump(stream.get(), kMixed, kMixedLength);
    EXPECT_EQ(stream.text(), kMixedDump);
}

TEST(BinaryDump, OfNoBytesPrintsNothing) {
    CapturedStream stream;
    dbinary_dump(stream.get(), nullptr, 0);
    EXPECT_EQ(stream.text(), "");
}

TEST(BinaryDump, IsNotShortened) {
    CapturedStream stream;
    const std::vector<char> bytes = counting_bytes(2000);
    dbinary_dump(stream.get(), bytes.data(), bytes.size());
    const std::vector<std::string> lines = lines_of(stream.text());
    ASSERT_EQ(lines.size(), 125u);
    EXPECT_EQ(lines[64].substr(0, 12), "0400: 00 01 ");
    EXPECT_EQ(lines[124].substr(0, 12), "07C0: C0 C1 ");
}

TEST(BinaryDump, OffsetsBeyondFourDigitsGrow) {
    CapturedStream stream;
    const std::vector<char> bytes(0x10001, 'x');
    dbinary_dump(stream.get(), bytes.data(), bytes.size());
    const std::vector<std::string> lines = lines_of(stream.text());
    ASSERT_EQ(lines.size(), 0x1001u);
    EXPECT_EQ(lines[0xfff].substr(0, 9), "FFF0: 78 ");
    EXPECT_EQ(lines[0x1000].substr(0, 10), "10000: 78 ");
}

TEST(BinaryDump, LinesStartAtTheIndentation) {
    CapturedStream stream;
    dindent(stream.get(), 2);
    dbinary_dump(stream.get(), kMixed, kMixedLength);
    EXPECT_EQ(stream.text(),
              "  0000: 5A 65 72 64 61 6C 0A 00 1F 20 7E 7F 80 FF 40 25 Zerdal... ~...@%\n"
              "  0010: 73                                              s               \n  ");
}

TEST(BinaryDump, LinesAreNotSeparated) {
    CapturedStream stream;
    dseparator(stream.get(), "<|>");
    dprint(stream.get(), "first\n");
    dbinary_dump(stream.get(), kMixed, kMixedLength);
    EXPECT_EQ(stream.text(), std::string("first\n") + kMixedDump);
}

TEST(BinaryDump, RestoresTheSeparatorAndStartsRecordsAfresh) {
    CapturedStream stream;
    dseparator(stream.get(), "1234");
    dprint(stream.get(), "first\n");
    dbinary_dump(stream.get(), "a", 1);
    EXPECT_EQ(stream->first_record, 1);
    EXPECT_EQ(std::string(stream->delim, 4), "1234");
    dprint(stream.get(), "next");
    dprint(stream.get(), "last");
    const std::vector<std::string> lines = lines_of(stream.text() + "\n");
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[2], "next1234last");
}

TEST(BinaryDump, FlushesALineThatIsBegun) {
    CapturedStream stream;
    dprint(stream.get(), "key=");
    ASSERT_EQ(stream.written(), "");
    dbinary_dump(stream.get(), nullptr, 0);
    EXPECT_EQ(stream.written(), "key=");
}

TEST(BinaryDump, DoesNotFlushBareIndentation) {
    CapturedStream stream;
    dindent(stream.get(), 4);
    dbinary_dump(stream.get(), nullptr, 0);
    EXPECT_EQ(stream.written(), "");
    EXPECT_EQ(stream->pos, 4);
}

// ---- dump_data and fdump_data ----

TEST(DumpData, ShowsTheSameLinesOnStreamAndFile) {
    CapturedStream stream;
    dump_data(stream.get(), kMixed, kMixedLength);
    EXPECT_EQ(stream.text(), kMixedDump);
    EXPECT_EQ(fdump(kMixed, kMixedLength), kMixedDump);
}

TEST(DumpData, OfNoBytesPrintsNothing) {
    CapturedStream stream;
    dump_data(stream.get(), kMixed, 0);
    dump_data(stream.get(), kMixed, -1);
    EXPECT_EQ(stream.text(), "");
    EXPECT_EQ(fdump(kMixed, 0), "");
    EXPECT_EQ(fdump(kMixed, -1), "");
}

TEST(DumpData, ShowsUpTo1024BytesWhole) {
    const std::vector<char> bytes = counting_bytes(1024);
    const std::vector<std::string> lines = lines_of(fdump(bytes.data(), 1024));
    ASSERT_EQ(lines.size(), 64u);
    for (size_t i = 0; i < lines.size(); i++) {
        char offset[8];
        snprintf(offset, sizeof offset, "%04X: ", static_cast<unsigned int>(i * 16));
        EXPECT_EQ(lines[i].substr(0, 6), offset);
        EXPECT_EQ(lines[i].size(), 70u);
    }
}

// The offsets of the lines, and "" for the empty line.
std::vector<std::string> offsets_of(const std::string &text) {
    std::vector<std::string> offsets;
    for (const std::string &line : lines_of(text))
        offsets.push_back(line.substr(0, line.find(':')));
    return offsets;
}

TEST(DumpData, ShortensFrom1025BytesOn) {
    const std::vector<char> bytes = counting_bytes(1025);
    const std::vector<std::string> offsets = offsets_of(fdump(bytes.data(), 1025));
    ASSERT_EQ(offsets.size(), 32u + 1 + 32);
    EXPECT_EQ(offsets[31], "01F0");
    EXPECT_EQ(offsets[32], "");
    EXPECT_EQ(offsets[33], "0210");
    EXPECT_EQ(offsets[64], "0400");
}

TEST(DumpData, ShowsBothEndsOf2000Bytes) {
    const std::vector<char> bytes = counting_bytes(2000);
    CapturedStream stream;
    dump_data(stream.get(), bytes.data(), 2000);
    const std::string text = stream.text();
    EXPECT_EQ(fdump(bytes.data(), 2000), text);

    const std::vector<std::string> offsets = offsets_of(text);
    ASSERT_EQ(offsets.size(), 32u + 1 + 31);
    EXPECT_EQ(offsets[0], "0000");
    EXPECT_EQ(offsets[31], "01F0");
    EXPECT_EQ(offsets[32], "");
    EXPECT_EQ(offsets[33], "05E0");
    EXPECT_EQ(offsets[63], "07C0");
    const std::vector<std::string> lines = lines_of(text);
    EXPECT_EQ(lines[33].substr(0, 12), "05E0: E0 E1 ");
    EXPECT_EQ(lines[63].substr(0, 54), "07C0: C0 C1 C2 C3 C4 C5 C6 C7 C8 C9 CA CB CC CD CE CF ");
}

TEST(DumpData, SecondEndStartsAfterTheMultipleOfSixteenBelow) {
    const std::vector<char> bytes = counting_bytes(1040);
    const std::vector<std::string> of_1025 = offsets_of(fdump(bytes.data(), 1025));
    ASSERT_EQ(of_1025.size(), 32u + 1 + 32);
    EXPECT_EQ(of_1025[33], "0210");
    EXPECT_EQ(of_1025.back(), "0400");

    const std::vector<std::string> of_1039 = offsets_of(fdump(bytes.data(), 1039));
    EXPECT_EQ(of_1039[33], "0210");
    const std::vector<std::string> of_1040 = offsets_of(fdump(bytes.data(), 1040));
    EXPECT_EQ(of_1040[33], "0220");
    EXPECT_EQ(of_1040.back(), "0400");
}

TEST(DumpData, EachLineIsAnItemOfTheStream) {
    CapturedStream stream;
    dseparator(stream.get(), "+");
    dump_data(stream.get(), kMixed, kMixedLength);
    EXPECT_EQ(stream.text(),
              "0000: 5A 65 72 64 61 6C 0A 00 1F 20 7E 7F 80 FF 40 25 Zerdal... ~...@%\n"
              "+0010: 73                                              s               \n");
}

// ---- sdump_data ----

TEST(DumpDataToString, WritesEveryByteWithItsBlank) {
    char text[32];
    EXPECT_EQ(sdump_data(text, sizeof text, "\x00\x7f\xff", 3), 9);
    EXPECT_STREQ(text, " 00 7F FF");
}

TEST(DumpDataToString, WritesOnlyWhatFitsWhole) {
    char text[16] = "...............";
    EXPECT_EQ(sdump_data(text, 8, "\x01\x02\x03", 3), 6);
    EXPECT_EQ(std::string(text, 16), std::string(" 01 02\0........\0", 16));
}

TEST(DumpDataToString, FillsTheAreaToItsEndButNotBeyond) {
    char text[8] = ".......";
    EXPECT_EQ(sdump_data(text, 6, "\x01\x02\x03", 3), 6);
    EXPECT_STREQ(text, " 01 02.");
}

TEST(DumpDataToString, WritesNothingIntoAnAreaBelowThreeCharacters) {
    char text[4] = "...";
    EXPECT_EQ(sdump_data(text, 2, "\x01", 1), 0);
    EXPECT_STREQ(text, "");
    text[0] = '.';
    EXPECT_EQ(sdump_data(text, 0, "\x01", 1), 0);
    EXPECT_EQ(sdump_data(text, -3, "\x01", 1), 0);
    EXPECT_STREQ(text, "...");
}

TEST(DumpDataToString, WritesNothingOfNoBytes) {
    char text[4] = "...";
    EXPECT_EQ(sdump_data(text, 4, "\x01", -1), 0);
    EXPECT_STREQ(text, "");
}

// ---- dump_data_to_stderr ----

std::string address_column(const void *address) {
    char text[32];
    snprintf(text, sizeof text, "%18p ", address);
    return text;
}

TEST(DumpDataToStderr, ShowsAddressBytesAndCharacters) {
    char head[64];
    snprintf(head, sizeof head, "Hex Dump: %p\n", static_cast<const void *>(kMixed));
    EXPECT_EQ(stderr_of([] { dump_data_to_stderr(kMixed, kMixedLength); }),
              head + address_column(kMixed) +
                  " 5A 65 72 64 61 6C 0A 00 1F 20 7E 7F 80 FF 40 25  Zerdal... ~...@%\n" +
                  address_column(kMixed + 16) +
                  " 73                                               s\n");
}

TEST(DumpDataToStderr, OfNoBytesPrintsTheHeadAlone) {
    char head[64];
    snprintf(head, sizeof head, "Hex Dump: %p\n", static_cast<const void *>(kMixed));
    EXPECT_EQ(stderr_of([] { dump_data_to_stderr(kMixed, 0); }), head);
    EXPECT_EQ(stderr_of([] { dump_data_to_stderr(kMixed, -1); }), head);
}

} // namespace
