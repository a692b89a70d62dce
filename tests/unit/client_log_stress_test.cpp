// Logs where it is hard: hundreds of files, two processes in one directory, no room, no permission.
#include "client/common/log/client_log.h"

#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "common/alloc/system_clialloc.h"
#include "common/zd_fcntl.h"
#include "support/log_files.h"
#include "support/namespaces.h"
#include "support/region.h"

namespace {

namespace fs = std::filesystem;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr int kMiB = 1048576;

// What happens between the creation of a file by the library and what it does next.
std::function<void(const std::string &path)> after_creation;

LogFailure open_failure(const client_log_hdl_t *hdl) {
    return {"client_log", 92, "Cannot open log file \"" + std::string(hdl->filepath) + "\""};
}

// The three numbers, or none when the text is anything else.
std::vector<long> numbers_of(const std::string &text) {
    std::istringstream in(text);
    long a, b, c;
    if (!(in >> a >> b >> c))
        return {};
    const std::string written =
        std::to_string(a) + "\n" + std::to_string(b) + "\n" + std::to_string(c) + "\n";
    return text == written ? std::vector<long>{a, b, c} : std::vector<long>{};
}

} // namespace

extern "C" int open(const char *path, int flags, ...) {
    va_list args;
    va_start(args, flags);
    const mode_t mode = va_arg(args, mode_t);
    va_end(args);
    const int fd = openat(AT_FDCWD, path, flags, mode);
    if (fd >= 0 && (flags & O_EXCL) != 0 && after_creation)
        after_creation(path);
    return fd;
}

namespace {

// A log in a directory, with a prefix: files that one process makes within a second are told apart
// by it.
class Log {
  public:
    Log(const std::string &dir, int max_size, int max_backup_size,
        client_log_err_func_t report = record)
        : hdl_(client_log_hdl_new(&_system_allocator)), dir_(dir), max_size_(max_size),
          max_backup_size_(max_backup_size), report_(report) {}
    ~Log() { client_log_hdl_free(hdl_, &_system_allocator); }
    Log(const Log &) = delete;
    Log &operator=(const Log &) = delete;

    int open(const std::string &prefix) const {
        return client_log_hdl_set_log_attr(hdl_, "", LOG_LVL_INFO, dir_.c_str(), prefix.c_str(),
                                           max_size_, max_backup_size_, report_);
    }
    void write(const std::string &text) const {
        client_log_write(hdl_, LOG_LVL_INFO, "", 0, "%s", text.c_str());
    }

    // The next file will have this prefix.
    void rename_next(const std::string &prefix) const {
        strcpy(hdl_->filepath_prefix, prefix.c_str());
    }

    // Opens a file, fills it with so many bytes, modified at the time, and moves it away.
    std::string rotate(const std::string &prefix, size_t size, time_t mtime) const {
        EXPECT_EQ(open(prefix), 0);
        std::ofstream(hdl_->filepath) << std::string(size, 'x');
        fseek(hdl_->fp, 0, SEEK_END);
        set_time(hdl_->filepath, mtime);
        client_log_finish(hdl_);
        return fs::path(hdl_->filepath).filename();
    }

    client_log_hdl_t *operator->() const { return hdl_; }
    [[nodiscard]] client_log_hdl_t *get() const { return hdl_; }

  private:
    client_log_hdl_t *hdl_;
    std::string dir_;
    int max_size_;
    int max_backup_size_;
    client_log_err_func_t report_;
};

using ClientLogStress = LogFilesTest;

// ---- hundreds of files ----

// What the directory and the books must hold, by the rule alone: bytes add up; beyond a third of
// the budget, what is not newer than the older mark goes, and the marks move on.
struct Model {
    long budget;
    long bytes = 0;
    long older_mark = 0;
    long newer_mark = 0;
    std::map<std::string, time_t> files = {};

    void moved(const std::string &name, long size, time_t mtime) {
        bytes += size;
        if (bytes > budget / 3) {
            std::erase_if(files, [&](const auto &file) { return file.second <= older_mark; });
            bytes = 0;
            older_mark = newer_mark;
            newer_mark = mtime;
        }
        files[name] = mtime;
    }
    [[nodiscard]] std::set<std::string> names() const {
        std::set<std::string> all;
        for (const auto &file : files)
            all.insert(file.first);
        return all;
    }
    [[nodiscard]] std::string books() const {
        return std::to_string(bytes) + "\n" + std::to_string(older_mark) + "\n" +
               std::to_string(newer_mark) + "\n";
    }
};

TEST_F(ClientLogStress, HundredsOfMovesKeepDirectoryAndBooksByTheRule) {
    constexpr int kBudget = 30000;
    const Log log(dir_, 0, kBudget);
    Model model = {kBudget};
    std::mt19937 random(4711);
    time_t now = 1000000;
    for (int i = 0; i < 400; i++) {
        const size_t size = 1 + random() % 6000;
        // Several files a second, and now and then one whose time is behind.
        now += static_cast<time_t>(random() % 3);
        const time_t mtime = random() % 10 == 0 ? now - 20 : now;
        const std::string name = log.rotate("r" + std::to_string(i), size, mtime);
        model.moved(name, static_cast<long>(size), mtime);
        ASSERT_EQ(names_in(backup()), model.names()) << "move " << i;
        ASSERT_EQ(books(), model.books()) << "move " << i;
    }
    EXPECT_THAT(failures, IsEmpty());
    EXPECT_LT(model.files.size(), 100u) << "most of them were deleted";
}

TEST_F(ClientLogStress, BudgetIsKeptNearlyWhenTimeGoesOn) {
    constexpr int kBudget = 90000;
    const Log log(dir_, 0, kBudget);
    uintmax_t most = 0;
    for (int i = 0; i < 300; i++) {
        log.rotate("r" + std::to_string(i), 1000, 1000 + i);
        uintmax_t held = 0;
        for (const auto &entry : fs::directory_iterator(backup()))
            held += entry.file_size();
        most = std::max(most, held);
        // Two generations and the one that grows, each a third and the file that went over it.
        ASSERT_LE(held, kBudget + 3 * 1000u) << i;
    }
    EXPECT_GT(most, kBudget / 3 * 2u);
}

TEST_F(ClientLogStress, HundredsOfOldFilesGoInOnePruning) {
    fs::create_directories(backup());
    for (int i = 0; i < 500; i++) {
        const std::string path = backup() + "/old" + std::to_string(i);
        std::ofstream(path) << "old";
        set_time(path, 1000 + i); // the mark is in the middle
    }
    std::ofstream(dir_ + "/.backup.info") << "0\n1249\n1400\n";
    const Log log(dir_, 0, 30);
    const std::string name = log.rotate("r", 11, 5000);
    std::set<std::string> expected = {name};
    for (int i = 250; i < 500; i++)
        expected.insert("old" + std::to_string(i));
    EXPECT_EQ(names_in(backup()), expected);
    EXPECT_EQ(books(), "0\n1400\n5000\n");
}

TEST_F(ClientLogStress, EveryLineOfARunOverManyFilesIsThereOnceAndInOrder) {
    const Log log(dir_, kMiB, 0);
    ASSERT_EQ(log.open("f000"), 0);
    const std::string filler(100000, 'f');
    for (int i = 0; i < 300; i++) {
        char prefix[16];
        snprintf(prefix, sizeof prefix, "f%03d", i); // of the file that the line may begin
        log.rename_next(prefix);
        log.write(filler + " line " + std::to_string(i));
    }
    client_log_finish(log.get());
    std::set<std::string> files = names_in(backup());
    EXPECT_EQ(files.size(), 28u) << "eleven lines a file: 300 lines";
    int next = 0;
    for (const std::string &file : files) { // by name, and so by time
        std::ifstream in(backup() + "/" + file);
        for (std::string line; std::getline(in, line); next++) {
            ASSERT_THAT(line,
                        testing::EndsWith("][INF] " + filler + " line " + std::to_string(next)));
        }
        const uintmax_t size = fs::file_size(backup() + "/" + file);
        EXPECT_LE(size, kMiB + 100060u) << "by one line at most";
    }
    EXPECT_EQ(next, 300);
    EXPECT_THAT(failures, IsEmpty());
}

TEST_F(ClientLogStress, LineOfMegabytesIsWhole) {
    const Log log(dir_, kMiB, 0);
    ASSERT_EQ(log.open("long"), 0);
    std::string message(5 * kMiB + 1, '\0');
    for (size_t i = 0; i < message.size(); i++)
        message[i] = static_cast<char>('!' + i % 90);
    log.write(message);
    const std::string text = contents_of(log->filepath);
    EXPECT_TRUE(text.ends_with("[INF] " + message + "\n"));
}

TEST_F(ClientLogStress, EveryLengthAroundTheBufferStepsIsWhole) {
    const Log log(dir_, 0, 0);
    ASSERT_EQ(log.open("steps"), 0);
    std::string expected;
    for (size_t step = 1024; step <= 8192; step += 1024) {
        for (size_t size = step - 3; size <= step + 3; size++) {
            const std::string message(size, 's');
            log.write(message);
            expected += "[INF] " + message + "\n";
        }
    }
    std::string text;
    std::istringstream lines(contents_of(log->filepath));
    for (std::string line; std::getline(lines, line);)
        text += line.substr(line.rfind("][") + 1) + "\n";
    EXPECT_TRUE(text == expected);
}

TEST_F(ClientLogStress, ThousandsOfLinesNeedNoMoreMemoryThanAFew) {
    const Log log(dir_, 0, 0);
    ASSERT_EQ(log.open("region"), 0);
    const Region region(log->alloc);
    const auto write_all_lengths = [&](int times) {
        for (int i = 0; i < times * 5000; i++)
            log.write(std::string(static_cast<size_t>(i % 5000), 'x'));
    };
    write_all_lengths(1);
    const int regions = region.region_count();
    write_all_lengths(4);
    EXPECT_EQ(region.region_count(), regions);
}

// ---- two processes ----

// A child process that runs body and whose status is what it returns.
template <class Body>
pid_t in_child(Body body) {
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        const int status = body();
        fflush(nullptr);
        _exit(status);
    }
    return child;
}

int status_of(pid_t child) {
    int status = -1;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// A callback that answers a lock held elsewhere as a patient owner would: it waits for it.
client_log_hdl_t *patient_handle;
void wait_for_the_lock(const char *file, int line, const char *format, ...) {
    if (line == 383 && zd_lock_file(fileno(patient_handle->backup_info_fp), F_SETLKW, F_WRLCK) == 0)
        return;
    failures.push_back({file, line, format});
}

constexpr int kMovesEach = 150;

int move_patiently(const std::string &dir, const std::string &prefix, int budget) {
    const Log log(dir, 0, budget, wait_for_the_lock);
    patient_handle = log.get();
    for (int i = 0; i < kMovesEach; i++)
        log.rotate(prefix + std::to_string(i), 1000, 5000 + i);
    return failures.empty() ? 0 : 1;
}

TEST_F(ClientLogStress, ProcessesThatWaitForTheLockLoseNoByte) {
    const pid_t one = in_child([&] { return move_patiently(dir_, "one", 1 << 30); });
    const pid_t other = in_child([&] { return move_patiently(dir_, "other", 1 << 30); });
    EXPECT_EQ(status_of(one), 0);
    EXPECT_EQ(status_of(other), 0);
    EXPECT_EQ(books(), std::to_string(2 * kMovesEach * 1000) + "\n0\n0\n");
    EXPECT_EQ(names_in(backup()).size(), 2u * kMovesEach);
}

TEST_F(ClientLogStress, ProcessesThatWaitForTheLockShareTheBudget) {
    const pid_t one = in_child([&] { return move_patiently(dir_, "one", 60000); });
    const pid_t other = in_child([&] { return move_patiently(dir_, "other", 60000); });
    EXPECT_EQ(status_of(one), 0);
    EXPECT_EQ(status_of(other), 0);
    const std::vector<long> numbers = numbers_of(books());
    ASSERT_EQ(numbers.size(), 3u) << books();
    EXPECT_LE(numbers[0], 20000);
    EXPECT_LT(names_in(backup()).size(), 2u * kMovesEach);
}

// One that does not wait is told, and goes on.
int move_on(const std::string &dir, const std::string &prefix) {
    const Log log(dir, 0, 60000);
    for (int i = 0; i < kMovesEach; i++)
        log.rotate(prefix + std::to_string(i), 1000, 5000 + i);
    for (const LogFailure &failure : failures) {
        if (failure != kLockFailure)
            return 1;
    }
    return 0;
}

TEST_F(ClientLogStress, ProcessesThatDoNotWaitAreToldOfTheLockAlone) {
    const pid_t one = in_child([&] { return move_on(dir_, "one"); });
    const pid_t other = in_child([&] { return move_on(dir_, "other"); });
    EXPECT_EQ(status_of(one), 0);
    EXPECT_EQ(status_of(other), 0);
    EXPECT_THAT(names_in(dir_), ElementsAre(".backup.info", "backup")) << "every file was moved";
    for (const std::string &name : names_in(backup()))
        EXPECT_EQ(fs::file_size(backup() + "/" + name), 1000u) << name;
}

TEST_F(ClientLogStress, ProcessesThatStartTogetherMakeTheBooksOnce) {
    for (int round = 0; round < 30; round++) {
        fs::remove_all(dir_);
        const auto start_and_move = [&](const char *prefix) {
            return in_child([&] {
                const Log log(dir_, 0, 1 << 30, wait_for_the_lock);
                patient_handle = log.get();
                log.rotate(prefix, 100, 5000);
                return failures.empty() ? 0 : 1;
            });
        };
        const pid_t one = start_and_move("one");
        const pid_t other = start_and_move("other");
        EXPECT_EQ(status_of(one), 0);
        EXPECT_EQ(status_of(other), 0);
        ASSERT_EQ(books(), "200\n0\n0\n") << "round " << round;
    }
}

TEST_F(ClientLogStress, EntryMadeWhileTheBooksAreCreatedIsKept) {
    int created = 0;
    after_creation = [&](const std::string &path) {
        created++;
        std::ofstream(path) << "1500\n20\n30\n"; // as another process would
    };
    const Log log(dir_, 0, 1 << 30);
    log.rotate("r", 100, 5000);
    after_creation = nullptr;
    EXPECT_EQ(created, 1);
    EXPECT_EQ(books(), "1600\n20\n30\n");
}

// ---- file systems that refuse ----

// A file system of so many KiB on a folder of the test's, in namespaces of its own.
void mount_small(const std::string &dir, int kib) {
    fs::create_directories(dir);
    const std::string options = "size=" + std::to_string(kib) + "k,mode=0755";
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("small", dir.c_str(), "tmpfs", 0, options.c_str()) != 0)
        namespaces::refuse();
}

void fill(const std::string &path) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT, 0600);
    const std::string bytes(4096, 'x');
    while (write(fd, bytes.data(), bytes.size()) > 0)
        continue;
    close(fd);
}

size_t lines_in(const std::string &text) {
    return static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
}

TEST_F(ClientLogStress, FullFileSystemLosesLinesButNotTheLog) {
    EXPECT_IN_NAMESPACE(CLONE_NEWNS, [&] {
        mount_small(dir_, 256);
        const Log log(dir_, 0, 0);
        ASSERT_EQ(log.open("full"), 0);
        log.write("before");
        fill(dir_ + "/filler");
        for (int i = 0; i < 100; i++)
            log.write(std::string(3000, 'l'));
        const std::string full = contents_of(log->filepath);
        EXPECT_LT(lines_in(full), 100u) << "there was no room";
        EXPECT_THAT(failures, IsEmpty()) << "lines that are lost are not reported";
        fs::remove(dir_ + "/filler");
        log.write("after");
        log.write("the end");
        const std::string text = contents_of(log->filepath);
        EXPECT_THAT(text, testing::HasSubstr("[INF] before\n"));
        EXPECT_THAT(text, testing::HasSubstr("[INF] after\n"));
        EXPECT_THAT(text, testing::EndsWith("[INF] the end\n"));
    });
}

TEST_F(ClientLogStress, FullFileSystemStillMovesFilesAndTheCountIsOfWhatWasWritten) {
    EXPECT_IN_NAMESPACE(CLONE_NEWNS, [&] {
        mount_small(dir_, 256);
        const Log log(dir_, 0, 1 << 30);
        ASSERT_EQ(log.open("full"), 0);
        fs::create_directory(backup());
        log.write("one line");
        fill(dir_ + "/filler");
        for (int i = 0; i < 10; i++)
            log.write(std::string(3000, 'l'));
        client_log_finish(log.get());
        EXPECT_THAT(failures, IsEmpty());
        ASSERT_EQ(names_in(backup()).size(), 1u);
        const std::string moved = backup() + "/" + *names_in(backup()).begin();
        EXPECT_EQ(books(), std::to_string(fs::file_size(moved)) + "\n0\n0\n");
    });
}

TEST_F(ClientLogStress, NoRoomForANewFileIsReported) {
    EXPECT_IN_NAMESPACE(CLONE_NEWNS, [&] {
        fs::create_directories(dir_);
        if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("small", dir_.c_str(), "tmpfs", 0, "nr_inodes=3,mode=0755") != 0)
            namespaces::refuse();
        const Log log(dir_, kMiB, 0);
        ASSERT_EQ(log.open("first"), 0); // the root, this file, and one more
        log.write(std::string(kMiB, 'x'));
        std::ofstream(dir_ + "/takes the last") << "";
        testing::internal::CaptureStdout();
        log.rename_next("second");
        log.write("next");
        testing::internal::GetCapturedStdout();
        // There is no place for the backup directory, and none for the new file.
        EXPECT_THAT(failures, ElementsAre(kBackupFailure, open_failure(log.get())));
        EXPECT_EQ(log->fp, nullptr);
        log.write("dropped");
        EXPECT_EQ(failures.size(), 2u);
    });
}

TEST_F(ClientLogStress, ReadOnlyFileSystemIsReportedWhenTheFileIsOpened) {
    EXPECT_IN_NAMESPACE(CLONE_NEWNS, [&] {
        mount_small(dir_, 64);
        ASSERT_EQ(mount(nullptr, dir_.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
        const Log log(dir_, kMiB, 1 << 30);
        EXPECT_EQ(log.open("ro"), -1);
        EXPECT_THAT(failures, ElementsAre(open_failure(log.get())));
        EXPECT_EQ(log->backup_info_fp, nullptr);
        EXPECT_EQ(errno, EROFS);
        log.write("dropped");
        client_log_finish(log.get());
        EXPECT_EQ(failures.size(), 1u);
    });
}

TEST_F(ClientLogStress, FileSystemThatTurnsReadOnlyIsReportedAtTheMove) {
    EXPECT_IN_NAMESPACE(CLONE_NEWNS, [&] {
        mount_small(dir_, 4096);
        const Log log(dir_, kMiB, 0);
        ASSERT_EQ(log.open("ro"), 0);
        log.write(std::string(kMiB, 'x'));
        // The same files, seen by their names read-only.
        ASSERT_EQ(mount(dir_.c_str(), dir_.c_str(), nullptr, MS_BIND, nullptr), 0);
        ASSERT_EQ(mount(nullptr, dir_.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr),
                  0);
        testing::internal::CaptureStdout();
        log.rename_next("second");
        log.write("next");
        EXPECT_THAT(testing::internal::GetCapturedStdout(), testing::HasSubstr("/logs/backup"));
        EXPECT_THAT(failures, ElementsAre(kBackupFailure, open_failure(log.get())));
    });
}

TEST_F(ClientLogStress, BooksThatCannotBeWrittenCountFromZero) {
    EXPECT_IN_NAMESPACE(CLONE_NEWNS, [&] {
        mount_small(dir_, 256);
        const Log log(dir_, 0, 1 << 30);
        ASSERT_EQ(log.open("first"), 0);
        log.write("line");
        fs::create_directory(backup());
        // A page that is given back when the books are cut is taken at once.
        std::ofstream(dir_ + "/.backup.info") << "";
        fill(dir_ + "/filler");
        client_log_finish(log.get());
        EXPECT_THAT(failures, IsEmpty());
        EXPECT_EQ(books(), "");
        fs::remove(dir_ + "/filler");
        ASSERT_EQ(log.open("second"), 0);
        log.write("line");
        const long size = ftell(log->fp);
        client_log_finish(log.get());
        EXPECT_EQ(books(), std::to_string(size) + "\n0\n0\n");
    });
}

// Somebody else than root, to whom every folder would be open.
class AsNobody {
  public:
    AsNobody() : was_root_(geteuid() == 0) {
        if (was_root_) {
            EXPECT_EQ(seteuid(65534), 0);
        }
    }
    ~AsNobody() {
        if (was_root_) {
            EXPECT_EQ(seteuid(0), 0);
        }
    }
    AsNobody(const AsNobody &) = delete;
    AsNobody &operator=(const AsNobody &) = delete;

  private:
    bool was_root_;
};

TEST_F(ClientLogStress, FolderThatMayNotBeWrittenIsReported) {
    fs::create_directories(dir_);
    fs::permissions(root_, fs::perms(0755));
    fs::permissions(dir_, fs::perms(0555));
    {
        const AsNobody nobody;
        const Log log(dir_, kMiB, 1 << 30);
        EXPECT_EQ(log.open("denied"), -1);
        EXPECT_EQ(errno, EACCES);
        EXPECT_THAT(failures, ElementsAre(open_failure(log.get())));
    }
    fs::permissions(dir_, fs::perms::owner_all);
}

} // namespace
