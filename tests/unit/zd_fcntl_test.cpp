#include "common/zd_fcntl.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

class ZdFcntl : public testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(pipe(ends_), 0); }
    void TearDown() override {
        close(ends_[0]);
        close(ends_[1]);
    }
    int ends_[2];
};

TEST_F(ZdFcntl, SettingStatusFlagsKeepsTheOthers) {
    ASSERT_EQ(zd_set_fl(ends_[1], O_APPEND), 1);
    ASSERT_EQ(zd_set_fl(ends_[1], O_NONBLOCK), 1);
    EXPECT_EQ(fcntl(ends_[1], F_GETFL), O_WRONLY | O_APPEND | O_NONBLOCK);
}

TEST_F(ZdFcntl, ClearingStatusFlagsKeepsTheOthers) {
    ASSERT_EQ(zd_set_fl(ends_[1], O_APPEND | O_NONBLOCK), 1);
    ASSERT_EQ(zd_clr_fl(ends_[1], O_NONBLOCK), 1);
    EXPECT_EQ(fcntl(ends_[1], F_GETFL), O_WRONLY | O_APPEND);
}

TEST_F(ZdFcntl, CloseOnExecIsSet) {
    ASSERT_EQ(fcntl(ends_[0], F_GETFD), 0);
    EXPECT_EQ(zd_set_fd(ends_[0], FD_CLOEXEC), 1);
    EXPECT_EQ(fcntl(ends_[0], F_GETFD), FD_CLOEXEC);
}

TEST_F(ZdFcntl, OtherDescriptorFlagsAreRefused) {
    for (const int val : {0, 2, 3, -1}) {
        errno = 0;
        EXPECT_EQ(zd_set_fd(ends_[0], val), -1) << val;
        EXPECT_EQ(errno, EINVAL) << val;
    }
    EXPECT_EQ(fcntl(ends_[0], F_GETFD), 0);
}

TEST_F(ZdFcntl, ClosedDescriptorIsAFailure) {
    const int closed = dup(ends_[0]);
    close(closed);
    errno = 0;
    EXPECT_EQ(zd_set_fl(closed, O_NONBLOCK), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(zd_clr_fl(closed, O_NONBLOCK), -1);
    EXPECT_EQ(zd_set_fd(closed, FD_CLOEXEC), -1);
    EXPECT_EQ(zd_lock_file(closed, F_SETLK, F_WRLCK), -1);
}

// What another process finds at the offset: the type of the lock that is in its way.
int type_seen_by_another_process(int fd, off_t offset) {
    const pid_t child = fork();
    if (child == 0) {
        struct flock lock = {};
        lock.l_type = F_WRLCK;
        lock.l_whence = SEEK_SET;
        lock.l_start = offset;
        lock.l_len = 1;
        _exit(fcntl(fd, F_GETLK, &lock) == 0 ? lock.l_type : 99);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WEXITSTATUS(status);
}

TEST(ZdLockFile, CoversTheWholeFileAndWhatItMayGrowTo) {
    FILE *const file = tmpfile();
    fputs("contents", file);
    fflush(file); // the position is now past the start
    const int fd = fileno(file);
    ASSERT_EQ(zd_lock_file(fd, F_SETLK, F_WRLCK), 0);
    EXPECT_EQ(type_seen_by_another_process(fd, 0), F_WRLCK);
    EXPECT_EQ(type_seen_by_another_process(fd, 1000000), F_WRLCK);
    ASSERT_EQ(zd_lock_file(fd, F_SETLK, F_RDLCK), 0);
    EXPECT_EQ(type_seen_by_another_process(fd, 0), F_RDLCK);
    ASSERT_EQ(zd_lock_file(fd, F_SETLK, F_UNLCK), 0);
    EXPECT_EQ(type_seen_by_another_process(fd, 0), F_UNLCK);
    fclose(file);
}

TEST(ZdLockFile, HeldByAnotherProcessIsAFailureWithoutWaiting) {
    FILE *const file = tmpfile();
    const int fd = fileno(file);
    ASSERT_EQ(zd_lock_file(fd, F_SETLK, F_WRLCK), 0);
    const pid_t child = fork();
    if (child == 0) {
        const bool refused = zd_lock_file(fd, F_SETLK, F_WRLCK) == -1;
        _exit(refused && (errno == EAGAIN || errno == EACCES) ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    fclose(file);
}

} // namespace
