// What tests of log files share: the failures that a log reports, and a directory for its files.

#ifndef TESTS_SUPPORT_LOG_FILES_H
#define TESTS_SUPPORT_LOG_FILES_H

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <cstdarg>
#include <filesystem>
#include <fstream>
#include <ostream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

struct LogFailure {
    std::string file;
    int line;
    std::string text;
    bool operator==(const LogFailure &) const = default;
};

inline void PrintTo(const LogFailure &failure, std::ostream *out) {
    *out << failure.file << ":" << failure.line << ": \"" << failure.text << '"';
}

// What record(), a log's error callback, was told since the test began.
inline std::vector<LogFailure> failures;

inline void record(const char *file, int line, const char *format, ...) {
    char text[1024];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    failures.push_back({file, line, text});
}

inline const LogFailure kLockFailure = {"client_log", 383, "Cannot lock log backup info file"};
inline const LogFailure kBackupFailure = {"client_log", 409, "Cannot backup log file"};
inline const LogFailure kUnlockFailure = {"client_log", 422, "Cannot unlock log file"};

inline std::string contents_of(const std::string &path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

inline std::set<std::string> names_in(const std::string &dir) {
    std::set<std::string> names;
    for (const auto &entry : std::filesystem::directory_iterator(dir))
        names.insert(entry.path().filename());
    return names;
}

// Of a link, its own.
inline void set_time(const std::string &path, time_t mtime) {
    timespec time = {};
    time.tv_sec = mtime;
    const timespec times[2] = {time, time};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << path;
}

// dir_, below a fresh root_, is where the log of a test goes; it is not there yet.
class LogFilesTest : public testing::Test {
  protected:
    void SetUp() override {
        failures.clear();
        root_ = testing::TempDir() + "client_log_XXXXXX";
        ASSERT_NE(mkdtemp(root_.data()), nullptr);
        dir_ = root_ + "/logs";
    }
    void TearDown() override { std::filesystem::remove_all(root_); }

    [[nodiscard]] std::string backup() const { return dir_ + "/backup"; }
    [[nodiscard]] std::string books() const { return contents_of(dir_ + "/.backup.info"); }

    std::string root_;
    std::string dir_;
};

#endif
