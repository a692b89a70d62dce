#include "common/zd_util_file.h"

#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "common/ec.h"
#include "common/zd_env.h"

// The test's host keeps the selectors that it was asked with.
extern int asked_home_of;
extern int asked_sid_of;

namespace {

namespace fs = std::filesystem;

class ZdUtilFile : public testing::Test {
  protected:
    void SetUp() override {
        std::string name = testing::TempDir() + "zd_util_file_XXXXXX";
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        dir_ = name;
        old_umask_ = umask(0);
    }
    void TearDown() override {
        umask(old_umask_);
        fs::remove_all(dir_);
    }

    static mode_t mode_of(const std::string &path) {
        struct stat status;
        return stat(path.c_str(), &status) == 0 ? status.st_mode : 0;
    }

    std::string dir_;

  private:
    mode_t old_umask_ = 0;
};

struct Outcome {
    int rc;
    std::string events;
};

template <class Body>
Outcome outcome_of(Body body) {
    testing::internal::CaptureStdout();
    const int rc = body();
    fflush(stdout);
    return {rc, testing::internal::GetCapturedStdout()};
}

TEST_F(ZdUtilFile, MissingParentsAreCreatedWithTheDirectory) {
    const Outcome outcome = outcome_of([&] { return zd_create_dir((dir_ + "/a/b/c").c_str()); });
    EXPECT_EQ(outcome.rc, 0);
    EXPECT_EQ(outcome.events, "");
    EXPECT_EQ(mode_of(dir_ + "/a"), S_IFDIR | 0755u);
    EXPECT_EQ(mode_of(dir_ + "/a/b/c"), S_IFDIR | 0755u);
}

TEST_F(ZdUtilFile, DirectoryThatIsThereIsASuccess) {
    EXPECT_EQ(zd_create_dir(dir_.c_str()), 0);
    EXPECT_EQ(zd_create_dir("/"), 0);
}

TEST_F(ZdUtilFile, TrailingSlashesOfBothKindsAreRemoved) {
    EXPECT_EQ(zd_create_dir((dir_ + "/a//").c_str()), 0);
    EXPECT_EQ(zd_create_dir((dir_ + "/b\\/\\").c_str()), 0);
    EXPECT_TRUE(fs::is_directory(dir_ + "/a"));
    EXPECT_TRUE(fs::is_directory(dir_ + "/b"));
}

TEST_F(ZdUtilFile, BackslashEndsAParentToo) {
    EXPECT_EQ(zd_create_dir((dir_ + "/a\\b/c").c_str()), 0);
    EXPECT_TRUE(fs::is_directory(dir_ + "/a\\b/c"));
    EXPECT_EQ(zd_create_dir((dir_ + "/x/y\\z").c_str()), 0);
    EXPECT_TRUE(fs::is_directory(dir_ + "/x/y"));
    EXPECT_TRUE(fs::is_directory(dir_ + "/x/y\\z"));
}

TEST_F(ZdUtilFile, RelativeDirectoryIsRefusedSilently) {
    const Outcome outcome = outcome_of([] { return zd_create_dir("relative/dir"); });
    EXPECT_EQ(outcome.rc, -1);
    EXPECT_EQ(outcome.events, "");
    EXPECT_EQ(zd_create_dir(""), -1);
}

TEST_F(ZdUtilFile, FailureIsReportedWithItsCause) {
    std::ofstream(dir_ + "/file").put('x');
    const std::string path = dir_ + "/file/a";
    const Outcome outcome = outcome_of([&] { return zd_create_dir(path.c_str()); });
    EXPECT_EQ(outcome.rc, -1);
    EXPECT_EQ(outcome.events, "Failure to create directory: " + path + " (20:Not a directory)\n");
}

TEST_F(ZdUtilFile, FailureOfAParentIsReportedAtEveryLevel) {
    const Outcome outcome = outcome_of([] { return zd_create_dir("/proc/none/a/b"); });
    EXPECT_EQ(outcome.rc, -1);
    EXPECT_EQ(outcome.events,
              "Failure to create directory: /proc/none (2:No such file or directory)\n"
              "Create directory fail cascade: /proc/none/a\n"
              "Create directory fail cascade: /proc/none/a/b\n");
}

TEST_F(ZdUtilFile, ParentsAreTriedOnlyWhenTheyAreMissing) {
    std::ofstream(dir_ + "/file").put('x');
    const std::string path = dir_ + "/file/a/b";
    const Outcome outcome = outcome_of([&] { return zd_create_dir(path.c_str()); });
    EXPECT_EQ(outcome.rc, -1);
    EXPECT_EQ(outcome.events, "Failure to create directory: " + path + " (20:Not a directory)\n");
}

TEST_F(ZdUtilFile, LongestDirectoryNameIsAccepted) {
    std::string path = dir_;
    while (path.size() < 255)
        path += path.size() % 20 == 0 && path.size() < 254 ? '/' : 'd';
    ASSERT_EQ(path.size(), 255u);
    EXPECT_EQ(zd_create_dir(path.c_str()), 0);
    EXPECT_TRUE(fs::is_directory(path));
}

TEST(ZdUtilFileDeathTest, LongerDirectoryNameIsAnAssertion) {
    const std::string path = "/" + std::string(255, 'd');
    EXPECT_EXIT(zd_create_dir(path.c_str()), testing::KilledBySignal(SIGABRT),
                "^zd_util_file:[0-9]+: Assertion fail with condition 'strlen\\(path\\) < 256' ");
}

TEST_F(ZdUtilFile, DirectoriesOfAFileAreCreatedWithTheGivenMode) {
    const std::string path = dir_ + "/a//b/file";
    EXPECT_EQ(zd_create_dir_for(path.c_str(), 0711), 0);
    EXPECT_EQ(mode_of(dir_ + "/a"), S_IFDIR | 0711u);
    EXPECT_EQ(mode_of(dir_ + "/a/b"), S_IFDIR | 0711u);
    EXPECT_FALSE(fs::exists(path));
    EXPECT_EQ(zd_create_dir_for(path.c_str(), 0700), 0) << "all are there";
    EXPECT_EQ(mode_of(dir_ + "/a"), S_IFDIR | 0711u);
}

TEST_F(ZdUtilFile, NameThatEndsInASlashIsADirectoryItself) {
    EXPECT_EQ(zd_create_dir_for((dir_ + "/a/").c_str(), 0755), 0);
    EXPECT_TRUE(fs::is_directory(dir_ + "/a"));
}

TEST_F(ZdUtilFile, RelativeFileIsRefusedSilently) {
    const Outcome outcome = outcome_of([] { return zd_create_dir_for("a/b", 0755); });
    EXPECT_EQ(outcome.rc, ERROR_SYSCALL_MKDIR);
    EXPECT_EQ(outcome.events, "");
}

TEST_F(ZdUtilFile, FailureForAFileIsReportedWithTheDirectory) {
    std::ofstream(dir_ + "/file").put('x');
    const std::string path = dir_ + "/file/a/b";
    const Outcome outcome = outcome_of([&] { return zd_create_dir_for(path.c_str(), 0755); });
    EXPECT_EQ(outcome.rc, -18007);
    EXPECT_EQ(outcome.events,
              "Failure to create directory: " + dir_ + "/file/a (20:Not a directory)\n");
}

TEST_F(ZdUtilFile, FileNameTooLongForTheSystemIsAFailure) {
    std::string path = "/tmp";
    while (path.size() < PATH_MAX)
        path += "/.";
    path += "/file";
    const Outcome outcome = outcome_of([&] { return zd_create_dir_for(path.c_str(), 0755); });
    EXPECT_EQ(outcome.rc, ERROR_SYSCALL_MKDIR);
    EXPECT_EQ(outcome.events.rfind("Failure to create directory: /tmp/./.", 0), 0u);
}

TEST_F(ZdUtilFile, FileWhoseDirectoriesHaveShortNamesMayHaveALongOne) {
    const std::string path = dir_ + "/a/" + std::string(2 * PATH_MAX, 'f');
    EXPECT_EQ(zd_create_dir_for(path.c_str(), 0755), 0);
    EXPECT_TRUE(fs::is_directory(dir_ + "/a"));
}

TEST_F(ZdUtilFile, LongestDirectoryOfAFileThatTheSystemTakesIsCreated) {
    for (const size_t length : {size_t{PATH_MAX} - 1, size_t{PATH_MAX}}) {
        std::string path = dir_;
        while (path.size() + 2 <= length)
            path += "/.";
        path += std::string(length - path.size(), '/');
        ASSERT_EQ(path.size(), length);
        const Outcome outcome =
            outcome_of([&] { return zd_create_dir_for((path + "/f").c_str(), 0755); });
        EXPECT_EQ(outcome.rc, length < PATH_MAX ? 0 : ERROR_SYSCALL_MKDIR) << length;
        EXPECT_EQ(outcome.events.empty(), length < PATH_MAX);
    }
}

TEST(ZdSlashCheck, SlashIsAppendedOnce) {
    char path[8] = "/a";
    EXPECT_EQ(zd_slash_check(path), 0);
    EXPECT_STREQ(path, "/a/");
    EXPECT_EQ(zd_slash_check(path), 1);
    EXPECT_STREQ(path, "/a/");
}

TEST(ZdSlashCheck, EmptyPathStaysEmpty) {
    char path[8] = "";
    EXPECT_EQ(zd_slash_check(path), 1);
    EXPECT_STREQ(path, "");
}

TEST(ZdGetPathPrefix, PrefixEndsWithTheLastSlash) {
    char buf[32] = "untouched";
    EXPECT_EQ(zd_get_path_prefix("/a/b/file", buf), buf);
    EXPECT_STREQ(buf, "/a/b/");
    EXPECT_STREQ(zd_get_path_prefix("/file", buf), "/");
    EXPECT_STREQ(zd_get_path_prefix("a/b/", buf), "a/b/");
}

TEST(ZdGetPathPrefix, PathWithoutASlashHasNone) {
    char buf[32] = "untouched";
    EXPECT_EQ(zd_get_path_prefix("file", buf), nullptr);
    EXPECT_EQ(zd_get_path_prefix("", buf), nullptr);
    EXPECT_STREQ(buf, "untouched");
}

// The test's host answers with ZD_HOME and "testsid".
class ZdHomePaths : public testing::Test {
  protected:
    void SetUp() override { setenv("ZD_HOME", "/opt/zd", 1); }
    void TearDown() override { unsetenv("ZD_HOME"); }
    char buf_[128] = "";
};

TEST_F(ZdHomePaths, GivenPrefixGetsATrailingSlash) {
    EXPECT_STREQ(zd_set_path_prefix("/data", buf_, ENV_TYPE_EXTPROC_AGENT), "/data/");
    EXPECT_STREQ(zd_set_path_prefix("/data/", buf_, ENV_TYPE_EXTPROC_AGENT), "/data/");
}

TEST_F(ZdHomePaths, EmptyPrefixIsTheInstancesOwn) {
    EXPECT_STREQ(zd_set_path_prefix("", buf_, ENV_TYPE_EXTPROC_AGENT),
                 "/opt/zd/instance/testsid/path/");
}

TEST_F(ZdHomePaths, HostIsAskedForTheComponentThatIsMeant) {
    zd_set_path_prefix("", buf_, 17);
    EXPECT_EQ(asked_home_of, 17);
    EXPECT_EQ(asked_sid_of, 17);
    zd_get_relname("/opt/zd/x", 5);
    EXPECT_EQ(asked_home_of, 5);
}

TEST_F(ZdHomePaths, NameBelowTheHomeLosesIt) {
    EXPECT_STREQ(zd_get_relname("/opt/zd/lib/x.so", ENV_TYPE_EXTPROC_AGENT), "lib/x.so");
    EXPECT_STREQ(zd_get_relname("/opt/zd/", ENV_TYPE_EXTPROC_AGENT), "");
    EXPECT_STREQ(zd_get_relname("/opt/zd", ENV_TYPE_EXTPROC_AGENT), "");
}

TEST_F(ZdHomePaths, NameElsewhereIsUnchanged) {
    for (const char *path : {"/var/x", "/opt", "opt/zd/x", "", "/opt/zd2/x"})
        EXPECT_EQ(zd_get_relname(path, ENV_TYPE_EXTPROC_AGENT), path);
}

TEST_F(ZdHomePaths, HomeMayBeWrittenWithATrailingSlash) {
    setenv("ZD_HOME", "/opt/zd/", 1);
    EXPECT_STREQ(zd_get_relname("/opt/zd/x", ENV_TYPE_EXTPROC_AGENT), "x");
}

TEST_F(ZdHomePaths, WithoutAHomeEveryNameIsUnchanged) {
    unsetenv("ZD_HOME");
    EXPECT_STREQ(zd_get_relname("/x", ENV_TYPE_EXTPROC_AGENT), "/x");
}

TEST(ZdAtoiUint16, DigitsAreReadUpToTheLargestValue) {
    uint16_t value = 7;
    EXPECT_EQ(zd_atoi_uint16("65535", &value), 1);
    EXPECT_EQ(value, 65535);
    EXPECT_EQ(zd_atoi_uint16("00012", &value), 1);
    EXPECT_EQ(value, 12);
}

TEST(ZdAtoiUint16, LastDigitMayCarryTheValueOverAndIsCut) {
    uint16_t value = 7;
    EXPECT_EQ(zd_atoi_uint16("65536", &value), 1);
    EXPECT_EQ(value, 0);
    EXPECT_EQ(zd_atoi_uint16("99999", &value), 1);
    EXPECT_EQ(value, 99999 - 65536);
    EXPECT_EQ(zd_atoi_uint16("655359", &value), 1);
    EXPECT_EQ(value, 655359 % 65536);
}

TEST(ZdAtoiUint16, DigitAfterAValueTooLargeIsRefused) {
    uint16_t value = 7;
    EXPECT_EQ(zd_atoi_uint16("655360", &value), 0);
    EXPECT_EQ(value, 7);
}

TEST(ZdAtoiUint16, OtherCharactersAreRefused) {
    uint16_t value = 7;
    for (const char *text : {"-1", "+1", " 1", "1 ", "0x1", "1.", "a"})
        EXPECT_EQ(zd_atoi_uint16(text, &value), 0) << text;
    EXPECT_EQ(value, 7);
}

TEST(ZdAtoiUint16, EmptyTextIsZero) {
    uint16_t value = 7;
    EXPECT_EQ(zd_atoi_uint16("", &value), 1);
    EXPECT_EQ(value, 0);
}

TEST(ZdAtoiUint32, RulesAreThoseOfTheShorterType) {
    uint32_t value = 7;
    EXPECT_EQ(zd_atoi_uint32("4294967295", &value), 1);
    EXPECT_EQ(value, 4294967295u);
    EXPECT_EQ(zd_atoi_uint32("4294967296", &value), 1);
    EXPECT_EQ(value, 0u);
    EXPECT_EQ(zd_atoi_uint32("42949672959", &value), 1);
    EXPECT_EQ(value, static_cast<uint32_t>(42949672959));
    value = 7;
    EXPECT_EQ(zd_atoi_uint32("42949672960", &value), 0);
    EXPECT_EQ(zd_atoi_uint32("12z", &value), 0);
    EXPECT_EQ(value, 7u);
    EXPECT_EQ(zd_atoi_uint32("", &value), 1);
    EXPECT_EQ(value, 0u);
}

std::string normalized(const char *path) {
    std::string copy = path;
    return zd_normalize_pathname(copy.data());
}

TEST(ZdNormalizePathname, RunsOfSlashesBecomeOne) {
    EXPECT_EQ(normalized("//a///b/"), "/a/b/");
    EXPECT_EQ(normalized("a//b"), "a/b");
    EXPECT_EQ(normalized("////"), "/");
    EXPECT_EQ(normalized("/a/b"), "/a/b");
    EXPECT_EQ(normalized(""), "");
}

TEST(ZdNormalizePathname, NothingBeforeThePathIsLookedAt) {
    char path[] = "//a";
    EXPECT_STREQ(zd_normalize_pathname(path + 1), "/a");
}

} // namespace
