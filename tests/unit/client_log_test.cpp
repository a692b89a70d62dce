#include "client/common/log/client_log.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "common/alloc/region_clialloc.h"
#include "common/alloc/system_clialloc.h"
#include "common/zd_fcntl.h"
#include "support/log_files.h"
#include "support/test_allocator.h"

namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::UnorderedElementsAre;

void write_file(const std::string &path, const std::string &contents) {
    std::ofstream(path, std::ios::binary) << contents;
}

class ClientLog : public LogFilesTest {
  protected:
    void SetUp() override {
        LogFilesTest::SetUp();
        hdl_ = client_log_hdl_new(&_system_allocator);
    }
    void TearDown() override {
        client_log_hdl_free(hdl_, &_system_allocator);
        LogFilesTest::TearDown();
    }

    int open(client_log_lvl_t max_lvl, int max_size = 0, int max_backup_size = 0) {
        return client_log_hdl_set_log_attr(hdl_, "EPA", max_lvl, dir_.c_str(), "zdepa.log",
                                           max_size, max_backup_size, record);
    }

    // Writes text as a whole message.
    void write(const std::string &text, client_log_lvl_t lvl = LOG_LVL_FATAL) {
        client_log_write(hdl_, lvl, "unit", 1, "%s", text.c_str());
    }

    std::string log() const { return contents_of(hdl_->filepath); }
    std::string name() const { return fs::path(hdl_->filepath).filename(); }

    // A file of the backup directory, modified at a time.
    void plant(const std::string &name, time_t mtime) {
        fs::create_directories(backup());
        write_file(dir_ + "/backup/" + name, "old");
        set_time(dir_ + "/backup/" + name, mtime);
    }

    // Ends the log: its file, of the given size, modified at the time, goes to the backup.
    void finish_with(size_t size, time_t mtime) {
        write_file(hdl_->filepath, std::string(size, 'x'));
        fseek(hdl_->fp, 0, SEEK_END);
        set_time(hdl_->filepath, mtime);
        client_log_finish(hdl_);
    }

    client_log_hdl_t *hdl_ = nullptr;
};

constexpr int kMiB = 1048576;
constexpr client_log_lvl_t kMinusOne = static_cast<client_log_lvl_t>(~0u);

// ---- handle and configuration ----

TEST_F(ClientLog, NewHandleIsZeroedButForItsOwnRegion) {
    ASSERT_NE(hdl_->alloc, nullptr);
    EXPECT_EQ(hdl_->alloc->alloc_type, ALLOC_TYPE_CLIENT_REGION_SYS);
    EXPECT_EQ(hdl_->alloc->parent, &_system_allocator);
    client_log_hdl_t expected = {};
    expected.alloc = hdl_->alloc;
    EXPECT_EQ(memcmp(hdl_, &expected, sizeof expected), 0);
}

TEST_F(ClientLog, FreedHandleTakesItsRegionAlong) {
    ASSERT_TRUE(list_is_empty(&_system_allocator.child) == 0);
    client_log_hdl_t *const other = client_log_hdl_new(&_system_allocator);
    ASSERT_EQ(_system_allocator.child.prev, &other->alloc->link);
    client_log_hdl_free(other, &_system_allocator);
    EXPECT_EQ(_system_allocator.child.prev, &hdl_->alloc->link);
}

TEST_F(ClientLog, FreedHandleGivesItsRecordBack) {
    TestAllocator parent;
    list_init(&parent.get()->child);
    client_log_hdl_t *const other = client_log_hdl_new(parent.get());
    ASSERT_EQ(parent.live_blocks(), 1);
    client_log_hdl_free(other, parent.get());
    EXPECT_EQ(parent.live_blocks(), 0);
}

TEST_F(ClientLog, FreedHandleClosesItsFile) {
    client_log_hdl_t *const other = client_log_hdl_new(&_system_allocator);
    ASSERT_EQ(client_log_hdl_set_log_attr(other, "EPA", LOG_LVL_WARN, dir_.c_str(), "other.log", 0,
                                          0, record),
              0);
    const int fd = fileno(other->fp);
    client_log_hdl_free(other, &_system_allocator);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
}

TEST_F(ClientLog, FileNameCarriesCreationTimeAndProcess) {
    ASSERT_EQ(open(LOG_LVL_WARN), 0);
    EXPECT_EQ(fs::path(hdl_->filepath).parent_path(), dir_);
    EXPECT_THAT(name(),
                MatchesRegex("zdepa\\.log_20[0-9]{12}_" + std::to_string(getpid()) + "\\.log"));
    EXPECT_THAT(names_in(dir_), ElementsAre(name()));
    EXPECT_THAT(failures, IsEmpty());
}

TEST_F(ClientLog, AttributesAreStored) {
    ASSERT_EQ(open(LOG_LVL_DEBUG, 2 * kMiB, 9 * kMiB), 0);
    EXPECT_EQ(hdl_->max_lvl, LOG_LVL_DEBUG);
    EXPECT_EQ(hdl_->option, LOG_OPT_NONE);
    EXPECT_EQ(hdl_->dirpath, dir_);
    EXPECT_STREQ(hdl_->filepath_prefix, "zdepa.log");
    EXPECT_EQ(hdl_->max_size, 2 * kMiB);
    EXPECT_EQ(hdl_->max_backup_size, 9 * kMiB);
    EXPECT_EQ(hdl_->err_func, &record);
}

TEST_F(ClientLog, SmallFileSizeIsRaisedToOneMebibyte) {
    for (const int size : {1, 1000, kMiB - 1, kMiB}) {
        ASSERT_EQ(open(LOG_LVL_WARN, size), 0);
        EXPECT_EQ(hdl_->max_size, kMiB) << size;
    }
    ASSERT_EQ(open(LOG_LVL_WARN, kMiB + 1), 0);
    EXPECT_EQ(hdl_->max_size, kMiB + 1);
}

TEST_F(ClientLog, FileSizeOfZeroStaysZero) {
    ASSERT_EQ(open(LOG_LVL_WARN, 0, 5), 0);
    EXPECT_EQ(hdl_->max_size, 0);
    EXPECT_EQ(hdl_->max_backup_size, 5);
}

TEST_F(ClientLog, BudgetIsAtLeastThreeFiles) {
    ASSERT_EQ(open(LOG_LVL_WARN, 2 * kMiB, kMiB), 0);
    EXPECT_EQ(hdl_->max_backup_size, 6 * kMiB);
    ASSERT_EQ(open(LOG_LVL_WARN, 1000, 1), 0);
    EXPECT_EQ(hdl_->max_backup_size, 3 * kMiB);
}

TEST_F(ClientLog, BudgetOfZeroStaysZero) {
    ASSERT_EQ(open(LOG_LVL_WARN, 2 * kMiB, 0), 0);
    EXPECT_EQ(hdl_->max_backup_size, 0);
}

TEST_F(ClientLog, BudgetEndsAtTheLargestNumber) {
    ASSERT_EQ(open(LOG_LVL_WARN, 1 << 30, 1), 0);
    EXPECT_EQ(hdl_->max_backup_size, 2147483647);
}

TEST_F(ClientLog, NegativeSizesAreReportedAndTheFileIsOpenedAllTheSame) {
    const LogFailure expected = {"client_log", 125,
                                 "MAX_LOG_SIZE or MAX_LOG_BACKUP_SIZE are inappropriate "};
    EXPECT_EQ(open(LOG_LVL_WARN, -1, 0), 0);
    EXPECT_THAT(failures, ElementsAre(expected));
    EXPECT_EQ(open(LOG_LVL_WARN, 0, -1), 0);
    EXPECT_EQ(open(LOG_LVL_WARN, -2147483647 - 1, -1), 0);
    EXPECT_THAT(failures, ElementsAre(expected, expected, expected));
    write("line");
    write("line");
    EXPECT_EQ(hdl_->backup_info_fp, nullptr);
    EXPECT_FALSE(fs::exists(backup())) << "a negative size never rotates";
}

TEST_F(ClientLog, ReconfiguredHandleWritesToItsNewFile) {
    ASSERT_EQ(open(LOG_LVL_FATAL, 0, 5), 0);
    const std::string first = hdl_->filepath;
    write("one");
    dir_ = root_ + "/other";
    ASSERT_EQ(open(LOG_LVL_INFO), 0);
    write("two", LOG_LVL_INFO);
    EXPECT_THAT(contents_of(first), testing::EndsWith("one\n"));
    EXPECT_THAT(log(), testing::EndsWith("two\n"));
    EXPECT_EQ(fs::path(hdl_->filepath).parent_path(), dir_);
    EXPECT_EQ(hdl_->backup_info_fp, nullptr);
}

TEST_F(ClientLog, FileThatCannotBeOpenedIsReported) {
    write_file(root_ + "/file", "");
    dir_ = root_ + "/file/logs";
    testing::internal::CaptureStdout(); // the failed directory is printed there
    EXPECT_EQ(open(LOG_LVL_WARN), -1);
    testing::internal::GetCapturedStdout();
    EXPECT_THAT(failures, ElementsAre(LogFailure{"client_log", 92,
                                                 "Cannot open log file \"" +
                                                     std::string(hdl_->filepath) + "\""}));
    EXPECT_THAT(hdl_->filepath, testing::StartsWith(dir_ + "/zdepa.log_"));
}

TEST_F(ClientLog, WithoutAFileLinesAreDropped) {
    write("before the first file");
    write_file(root_ + "/file", "");
    dir_ = root_ + "/file/logs";
    testing::internal::CaptureStdout();
    EXPECT_EQ(open(LOG_LVL_WARN), -1);
    testing::internal::GetCapturedStdout();
    failures.clear();
    write("after a failed one");
    client_log_finish(hdl_);
    write("after the end");
    EXPECT_THAT(failures, IsEmpty());
}

TEST_F(ClientLog, DirectoryNameTooLongIsCutAndTheFailureReported) {
    dir_ = root_;
    while (dir_.size() < 300)
        dir_ += dir_.size() % 50 == 0 ? '/' : 'd';
    EXPECT_EQ(open(LOG_LVL_WARN), -1);
    EXPECT_EQ(hdl_->dirpath, dir_.substr(0, 255));
    EXPECT_EQ(hdl_->filepath, dir_.substr(0, 255));
    EXPECT_THAT(failures,
                ElementsAre(LogFailure{"client_log", 92,
                                       "Cannot open log file \"" + dir_.substr(0, 255) + "\""}));
}

TEST_F(ClientLog, FileNameTooLongIsCut) {
    const std::string prefix(300, 'p');
    ASSERT_EQ(client_log_hdl_set_log_attr(hdl_, "", LOG_LVL_WARN, dir_.c_str(), prefix.c_str(), 0,
                                          0, record),
              0);
    EXPECT_EQ(hdl_->filepath_prefix, prefix.substr(0, 255));
    EXPECT_EQ(hdl_->filepath, (dir_ + "/" + prefix).substr(0, 255));
    EXPECT_TRUE(fs::exists(hdl_->filepath));
}

// ---- lines ----

// The message's part of the one line in the file: what follows the header.
std::string after_header(const std::string &line) {
    const size_t end = line.rfind("][");
    return end == std::string::npos ? line : line.substr(end + 1);
}

TEST_F(ClientLog, LineBeginsWithTimeProcessThreadAndLevel) {
    ASSERT_EQ(open(LOG_LVL_INFO), 0);
    client_log_write(hdl_, LOG_LVL_INFO, "unit", 1, "REQUEST[type=%d] RECEIVED", 139);
    EXPECT_THAT(log(), MatchesRegex("[01][0-9]-[0-3][0-9] [0-2][0-9]:[0-5][0-9]:[0-6][0-9]"
                                    "\\.[0-9]{6} \\[" +
                                    std::to_string(getpid()) + "\\]\\[" + std::to_string(gettid()) +
                                    "\\]\\[INF\\] REQUEST\\[type=139\\] RECEIVED\n"));
}

TEST_F(ClientLog, LineOfAnotherThreadCarriesItsNumber) {
    ASSERT_EQ(open(LOG_LVL_INFO), 0);
    std::string number;
    std::thread([&] {
        number = std::to_string(gettid());
        write("line");
    }).join();
    EXPECT_THAT(log(), testing::HasSubstr("[" + number + "][FAT] line"));
}

TEST_F(ClientLog, EveryLevelHasItsTagAndIndentation) {
    ASSERT_EQ(open(static_cast<client_log_lvl_t>(9)), 0);
    const char *const expected[] = {
        "[FAT] x\n",     "[ERR] x\n",       "[WAR] x\n",       "[INF] x\n",       "[DBG]   x\n",
        "[TRC]     x\n", "[ITL]       x\n", "[---]       x\n", "[---]       x\n", "[---]       x\n",
    };
    for (unsigned int lvl = 0; lvl <= 9; lvl++) {
        const size_t start = log().size();
        write("x", static_cast<client_log_lvl_t>(lvl));
        EXPECT_EQ(after_header(log().substr(start)), expected[lvl]) << lvl;
    }
}

TEST_F(ClientLog, LevelsAboveTheMaximumAreDropped) {
    ASSERT_EQ(open(LOG_LVL_WARN), 0);
    write("info", LOG_LVL_INFO);
    write("negative", kMinusOne);
    EXPECT_EQ(log(), "");
    write("warn", LOG_LVL_WARN);
    EXPECT_EQ(after_header(log()), "[WAR] warn\n");
}

TEST_F(ClientLog, NegativeMaximumLetsEveryLevelThrough) {
    ASSERT_EQ(open(kMinusOne), 0);
    write("x", LOG_LVL_INTERNAL);
    EXPECT_EQ(after_header(log()), "[ITL]       x\n");
}

TEST_F(ClientLog, EnabledTellsWhetherALineWouldBeWritten) {
    ASSERT_EQ(open(LOG_LVL_WARN), 0);
    EXPECT_TRUE(client_log_enabled(hdl_, LOG_LVL_FATAL));
    EXPECT_TRUE(client_log_enabled(hdl_, LOG_LVL_WARN));
    EXPECT_FALSE(client_log_enabled(hdl_, LOG_LVL_INFO));
    EXPECT_FALSE(client_log_enabled(hdl_, kMinusOne));
    EXPECT_FALSE(client_log_enabled(nullptr, LOG_LVL_FATAL));
}

TEST(ClientLogWrite, NoHandleDropsTheLine) {
    client_log_write(nullptr, LOG_LVL_FATAL, "unit", 1, "%s", "line");
}

TEST_F(ClientLog, LineOfFiveThousandCharactersIsWhole) {
    ASSERT_EQ(open(LOG_LVL_WARN), 0);
    std::string message;
    while (message.size() < 5000)
        message += static_cast<char>('a' + message.size() % 26);
    write(message);
    EXPECT_EQ(after_header(log()), "[FAT] " + message + "\n");
}

TEST_F(ClientLog, LinesAroundEveryBufferSizeAreWhole) {
    ASSERT_EQ(open(LOG_LVL_WARN), 0);
    for (const size_t size :
         {0ul, 1022ul, 1023ul, 1024ul, 1025ul, 2047ul, 2048ul, 2049ul, 100000ul}) {
        const size_t start = log().size();
        const std::string message(size, 'm');
        write(message);
        EXPECT_EQ(after_header(log().substr(start)), "[FAT] " + message + "\n") << size;
    }
}

TEST_F(ClientLog, LinesLeaveNothingInTheHandlesRegion) {
    ASSERT_EQ(open(LOG_LVL_WARN), 0);
    write("short");
    write(std::string(5000, 'm'));
    EXPECT_EQ(reinterpret_cast<const CLI_alloc_t *>(hdl_->alloc)->total_used, 0u);
}

TEST_F(ClientLog, MessageThatCannotBeFormattedLeavesItsFormat) {
    ASSERT_EQ(open(LOG_LVL_WARN), 0);
    client_log_write(hdl_, LOG_LVL_WARN, "unit", 1, "wide %ls", L"\u20ac"); // no such in C locale
    write("next");
    EXPECT_THAT(log(), testing::HasSubstr("[WAR] wide %ls\n"));
    EXPECT_THAT(log(), testing::EndsWith("[FAT] next\n"));
}

TEST_F(ClientLog, LineIsFlushedUnlessTheOptionSaysNo) {
    ASSERT_EQ(open(LOG_LVL_WARN), 0);
    write("one");
    EXPECT_EQ(after_header(log()), "[FAT] one\n");
    hdl_->option = LOG_OPT_NO_FLUSH;
    write("two");
    EXPECT_EQ(after_header(log()), "[FAT] one\n");
    fflush(hdl_->fp);
    EXPECT_EQ(after_header(log()), "[FAT] two\n");
}

// ---- rotation ----

TEST_F(ClientLog, FileIsMovedAwayBeforeTheLineAfterTheOneThatExceeds) {
    ASSERT_EQ(open(LOG_LVL_WARN, 1000), 0);
    const std::string first = name();
    write(std::string(kMiB, 'a'));
    EXPECT_FALSE(fs::exists(backup())) << "a file may exceed the size by one line";
    write("next");
    EXPECT_THAT(names_in(backup()), ElementsAre(first));
    EXPECT_THAT(contents_of(dir_ + "/backup/" + first), testing::EndsWith("aaa\n"));
    EXPECT_EQ(after_header(log()), "[FAT] next\n");
    EXPECT_THAT(failures, IsEmpty());
}

TEST_F(ClientLog, FileOfExactlyTheSizeStays) {
    ASSERT_EQ(open(LOG_LVL_WARN, kMiB), 0);
    write("one");
    hdl_->max_size = static_cast<int>(ftell(hdl_->fp));
    write("two");
    EXPECT_FALSE(fs::exists(backup()));
    write("three");
    EXPECT_TRUE(fs::exists(backup()));
}

TEST_F(ClientLog, DroppedLineDoesNotMoveTheFile) {
    ASSERT_EQ(open(LOG_LVL_WARN, kMiB), 0);
    write(std::string(kMiB, 'a'));
    write("info", LOG_LVL_INFO);
    EXPECT_FALSE(fs::exists(backup()));
}

TEST_F(ClientLog, UnflushedBytesCountForTheSize) {
    ASSERT_EQ(open(LOG_LVL_WARN, kMiB), 0);
    hdl_->option = LOG_OPT_NO_FLUSH;
    write("one");
    hdl_->max_size = 10;
    write("two");
    EXPECT_TRUE(fs::exists(backup()));
}

TEST_F(ClientLog, SizeOfZeroNeverMovesTheFile) {
    ASSERT_EQ(open(LOG_LVL_WARN, 0), 0);
    write(std::string(3 * kMiB, 'a'));
    write("next");
    EXPECT_FALSE(fs::exists(backup()));
}

TEST_F(ClientLog, BytesOfAFileThatWasThereCountForTheSize) {
    // Cut before the time, the name is the same every time.
    const std::string prefix(255, 'p');
    const auto open_again = [&] {
        return client_log_hdl_set_log_attr(hdl_, "", LOG_LVL_WARN, dir_.c_str(), prefix.c_str(),
                                           kMiB, 0, record);
    };
    ASSERT_EQ(open_again(), 0);
    write_file(hdl_->filepath, std::string(kMiB + 1, 'a'));
    ASSERT_EQ(open_again(), 0);
    EXPECT_EQ(ftell(hdl_->fp), kMiB + 1);
    write("next");
    EXPECT_THAT(names_in(backup()), ElementsAre(name()));
    EXPECT_EQ(after_header(log()), "[FAT] next\n");
}

TEST_F(ClientLog, FileThatCannotBeOpenedAfterAMoveDropsLines) {
    ASSERT_EQ(open(LOG_LVL_WARN, kMiB), 0);
    write(std::string(kMiB, 'a'));
    strcpy(hdl_->dirpath, (root_ + "/none").c_str()); // the new file has nowhere to go
    write("next");
    write("and next");
    EXPECT_EQ(hdl_->fp, nullptr);
    EXPECT_THAT(failures, ElementsAre(LogFailure{"client_log", 92,
                                                 "Cannot open log file \"" +
                                                     std::string(hdl_->filepath) + "\""}));
}

// ---- books ----

TEST_F(ClientLog, NewBooksAreThreeZeros) {
    ASSERT_EQ(open(LOG_LVL_WARN, 0, 100), 0);
    EXPECT_EQ(books(), "0\n0\n0\n");
    EXPECT_NE(hdl_->backup_info_fp, nullptr);
}

TEST_F(ClientLog, BooksThatAreThereAreKept) {
    fs::create_directories(dir_);
    write_file(dir_ + "/.backup.info", "12\n34\n56\n");
    ASSERT_EQ(open(LOG_LVL_WARN, 0, 100), 0);
    EXPECT_EQ(books(), "12\n34\n56\n");
}

TEST_F(ClientLog, WithoutABudgetThereAreNoBooks) {
    ASSERT_EQ(open(LOG_LVL_WARN, kMiB, 0), 0);
    EXPECT_EQ(hdl_->backup_info_fp, nullptr);
    plant("ancient", 1);
    finish_with(4 * kMiB, 1000);
    EXPECT_FALSE(fs::exists(dir_ + "/.backup.info"));
    EXPECT_THAT(names_in(backup()), UnorderedElementsAre("ancient", name()));
    EXPECT_THAT(failures, IsEmpty());
}

TEST_F(ClientLog, MovedBytesAreAddedUpToAThirdOfTheBudget) {
    fs::create_directories(dir_);
    write_file(dir_ + "/.backup.info", "90\n1000\n2000\n");
    plant("ancient", 1);
    ASSERT_EQ(open(LOG_LVL_WARN, 0, 301), 0); // a third is 100
    finish_with(10, 3000);
    EXPECT_EQ(books(), "100\n1000\n2000\n");
    EXPECT_THAT(names_in(backup()), UnorderedElementsAre("ancient", name()));
}

TEST_F(ClientLog, BeyondAThirdOfTheBudgetTheOlderGenerationsAreDeleted) {
    fs::create_directories(dir_);
    write_file(dir_ + "/.backup.info", "90\n1000\n2000\n");
    plant("before", 999);
    plant("at the mark", 1000);
    plant("after", 1001);
    plant("newer", 2000);
    ASSERT_EQ(open(LOG_LVL_WARN, 0, 301), 0);
    finish_with(11, 3000);
    EXPECT_EQ(books(), "0\n2000\n3000\n");
    EXPECT_THAT(names_in(backup()), UnorderedElementsAre("after", "newer", name()));
    EXPECT_THAT(failures, IsEmpty());
}

TEST_F(ClientLog, FirstPruningDeletesNothing) {
    plant("old", 500);
    ASSERT_EQ(open(LOG_LVL_WARN, 0, 30), 0);
    finish_with(11, 3000);
    EXPECT_EQ(books(), "0\n0\n3000\n");
    EXPECT_THAT(names_in(backup()), UnorderedElementsAre("old", name()));
}

TEST_F(ClientLog, FileJustMovedIsNotDeletedHoweverOldItsTime) {
    fs::create_directories(dir_);
    write_file(dir_ + "/.backup.info", "0\n1000\n2000\n");
    ASSERT_EQ(open(LOG_LVL_WARN, 0, 30), 0);
    finish_with(11, 500);
    EXPECT_THAT(names_in(backup()), ElementsAre(name()));
    EXPECT_EQ(books(), "0\n2000\n500\n");
}

TEST_F(ClientLog, DirectoriesInTheBackupStay) {
    fs::create_directories(dir_ + "/backup/kept");
    set_time(dir_ + "/backup/kept", 1);
    write_file(dir_ + "/.backup.info", "0\n1000\n2000\n");
    ASSERT_EQ(open(LOG_LVL_WARN, 0, 30), 0);
    finish_with(11, 3000);
    EXPECT_THAT(names_in(backup()), UnorderedElementsAre("kept", name()));
}

TEST_F(ClientLog, LinksInTheBackupAreJudgedByTheirOwnTime) {
    fs::create_directories(backup());
    fs::create_symlink("/nowhere", dir_ + "/backup/dangling");
    set_time(dir_ + "/backup/dangling", 1);
    fs::create_symlink("/etc/passwd", dir_ + "/backup/young");
    set_time(dir_ + "/backup/young", 4000000000);
    write_file(dir_ + "/.backup.info", "0\n3999999999\n0\n");
    ASSERT_EQ(open(LOG_LVL_WARN, 0, 30), 0);
    finish_with(11, 3000);
    EXPECT_THAT(names_in(backup()), UnorderedElementsAre("young", name()));
    EXPECT_TRUE(fs::exists("/etc/passwd"));
}

TEST_F(ClientLog, GenerationsOfAThirdEachRemain) {
    // Each file is one generation: the marks move on by one, two and the newest remain.
    for (time_t generation = 1; generation <= 6; generation++) {
        ASSERT_EQ(open(LOG_LVL_WARN, 0, 30), 0);
        finish_with(11, 1000 * generation);
        // Files of one second have one name: tell them apart.
        fs::rename(dir_ + "/backup/" + name(), dir_ + "/backup/" + std::to_string(generation));
    }
    EXPECT_THAT(names_in(backup()), UnorderedElementsAre("5", "6"));
    EXPECT_EQ(books(), "0\n5000\n6000\n");
}

TEST_F(ClientLog, NumbersThatGetShorterLeaveNothingBehind) {
    fs::create_directories(dir_);
    write_file(dir_ + "/.backup.info", "1000000000\n1700000000\n1700000001\n");
    ASSERT_EQ(open(LOG_LVL_WARN, 0, 30), 0);
    finish_with(11, 7);
    EXPECT_EQ(books(), "0\n1700000001\n7\n");
}

TEST_F(ClientLog, WhatAnotherProcessWroteIntoTheBooksIsSeen) {
    ASSERT_EQ(open(LOG_LVL_WARN, 10 * kMiB, 300 * kMiB), 0);
    hdl_->max_size = 1;
    write("one");
    write("two"); // moves the first file, and reads the books
    const long first = atol(books().c_str());
    ASSERT_GT(first, 0);
    write_file(dir_ + "/.backup.info", "1000\n5\n6\n");
    const long size = ftell(hdl_->fp);
    write("three");
    EXPECT_EQ(books(), std::to_string(1000 + size) + "\n5\n6\n");
}

TEST_F(ClientLog, UnreadableBooksCountFromZero) {
    fs::create_directories(dir_);
    write_file(dir_ + "/.backup.info", "rubbish");
    ASSERT_EQ(open(LOG_LVL_WARN, 0, 300), 0);
    finish_with(11, 7);
    EXPECT_EQ(books(), "11\n0\n0\n");
}

TEST_F(ClientLog, BooksAreUnlockedAfterAMove) {
    ASSERT_EQ(open(LOG_LVL_WARN, kMiB, 300 * kMiB), 0);
    hdl_->max_size = 1;
    write("one");
    write("two");
    const pid_t child = fork();
    if (child == 0)
        _exit(zd_lock_file(fileno(hdl_->backup_info_fp), F_SETLK, F_WRLCK) == 0 ? 0 : 1);
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
}

// ---- failures of a move ----

// A process that holds the lock of the books until it is destroyed.
class LockHolder {
  public:
    explicit LockHolder(const std::string &path) {
        int ready[2];
        EXPECT_EQ(pipe(ready), 0);
        EXPECT_EQ(pipe(end_), 0);
        child_ = fork();
        if (child_ == 0) {
            close(end_[1]);
            const int fd = ::open(path.c_str(), O_RDWR);
            const char locked = zd_lock_file(fd, F_SETLK, F_WRLCK) == 0;
            char byte;
            if (::write(ready[1], &locked, 1) == 1)
                (void)!read(end_[0], &byte, 1); // ends when the parent closes its end
            _exit(0);
        }
        char locked = 0;
        EXPECT_EQ(read(ready[0], &locked, 1), 1);
        EXPECT_EQ(locked, 1);
        close(ready[0]);
        close(ready[1]);
        close(end_[0]);
    }
    ~LockHolder() {
        close(end_[1]);
        waitpid(child_, nullptr, 0);
    }
    LockHolder(const LockHolder &) = delete;
    LockHolder &operator=(const LockHolder &) = delete;

  private:
    int end_[2];
    pid_t child_;
};

TEST_F(ClientLog, LockHeldElsewhereIsReportedAndTheMoveGoesOn) {
    ASSERT_EQ(open(LOG_LVL_WARN, 0, 300), 0);
    const LockHolder holder(dir_ + "/.backup.info");
    finish_with(11, 7);
    EXPECT_THAT(failures, ElementsAre(kLockFailure));
    EXPECT_THAT(names_in(backup()), ElementsAre(name()));
    EXPECT_EQ(books(), "11\n0\n0\n");
}

TEST_F(ClientLog, FileThatCannotBeMovedIsReportedAndTheBooksAreKept) {
    ASSERT_EQ(open(LOG_LVL_WARN, 0, 300), 0);
    write_file(backup(), "in the way");
    finish_with(11, 7);
    EXPECT_THAT(failures, ElementsAre(kBackupFailure));
    EXPECT_TRUE(fs::exists(hdl_->filepath));
    EXPECT_EQ(books(), "11\n0\n0\n");
}

TEST_F(ClientLog, FileThatCannotBeMovedAtAPruningLeavesTheNewerMark) {
    fs::create_directories(dir_);
    write_file(dir_ + "/.backup.info", "0\n1000\n2000\n");
    ASSERT_EQ(open(LOG_LVL_WARN, 0, 30), 0);
    write_file(backup(), "in the way");
    finish_with(11, 3000);
    EXPECT_EQ(books(), "0\n2000\n2000\n");
}

TEST_F(ClientLog, FailedLockAndUnlockAreBothReported) {
    ASSERT_EQ(open(LOG_LVL_WARN, 0, 300), 0);
    write("line");
    close(fileno(hdl_->backup_info_fp));
    client_log_finish(hdl_);
    EXPECT_THAT(failures, ElementsAre(kLockFailure, kUnlockFailure));
    EXPECT_THAT(names_in(backup()), ElementsAre(name()));
}

TEST_F(ClientLog, HandleGoesOnAfterAFailedMove) {
    ASSERT_EQ(open(LOG_LVL_WARN, kMiB), 0);
    write_file(backup(), "in the way");
    write(std::string(kMiB, 'a'));
    write("next");
    EXPECT_THAT(failures, ElementsAre(kBackupFailure));
    EXPECT_THAT(log(), testing::EndsWith("[FAT] next\n"));
}

TEST_F(ClientLog, BackupDirectoryWithTooLongANameIsAFailedMove) {
    dir_ = root_;
    while (dir_.size() < 250)
        dir_ += dir_.size() % 50 == 0 ? '/' : 'd';
    ASSERT_EQ(open(LOG_LVL_WARN, kMiB), 0);
    write("line");
    client_log_finish(hdl_);
    EXPECT_THAT(failures, ElementsAre(kBackupFailure));
    EXPECT_TRUE(fs::exists(hdl_->filepath));
}

// ---- finish ----

TEST_F(ClientLog, FinishMovesTheFileAndClosesTheBooks) {
    ASSERT_EQ(open(LOG_LVL_WARN, kMiB, 300 * kMiB), 0);
    write("last");
    const size_t size = log().size();
    client_log_finish(hdl_);
    EXPECT_EQ(hdl_->fp, nullptr);
    EXPECT_EQ(hdl_->backup_info_fp, nullptr);
    EXPECT_FALSE(fs::exists(hdl_->filepath));
    EXPECT_THAT(contents_of(dir_ + "/backup/" + name()), testing::EndsWith("[FAT] last\n"));
    EXPECT_EQ(books(), std::to_string(size) + "\n0\n0\n");
    EXPECT_THAT(failures, IsEmpty());
}

TEST_F(ClientLog, EmptyFileIsDeletedAndItsMoveReported) {
    ASSERT_EQ(open(LOG_LVL_WARN, kMiB, 300 * kMiB), 0);
    client_log_finish(hdl_);
    EXPECT_FALSE(fs::exists(hdl_->filepath));
    EXPECT_THAT(names_in(backup()), IsEmpty());
    EXPECT_THAT(failures, ElementsAre(kBackupFailure));
    EXPECT_EQ(books(), "0\n0\n0\n");
}

} // namespace
