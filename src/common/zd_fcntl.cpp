#include "common/zd_fcntl.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

int zd_set_fl(int fd, int flags) {
    const int current = fcntl(fd, F_GETFL);
    return current >= 0 && fcntl(fd, F_SETFL, current | flags) == 0 ? 1 : -1;
}

int zd_clr_fl(int fd, int flags) {
    const int current = fcntl(fd, F_GETFL);
    return current >= 0 && fcntl(fd, F_SETFL, current & ~flags) == 0 ? 1 : -1;
}

int zd_set_fd(int fd, int val) {
    if (val != FD_CLOEXEC) {
        errno = EINVAL;
        return -1;
    }
    return fcntl(fd, F_SETFD, val) == 0 ? 1 : -1;
}

int zd_lock_file(int fd, int cmd, int type) {
    struct flock lock = {};
    lock.l_type = static_cast<short>(type);
    lock.l_whence = SEEK_SET;
    lock.l_start = 0;
    lock.l_len = 0; // to the end, however far the file grows
    return fcntl(fd, cmd, &lock);
}
