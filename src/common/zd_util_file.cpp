#include "common/zd_util_file.h"

#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include "client/common/client_assert.h"
#include "common/ec.h"
#include "common/zd_env.h"
#include "common/zd_svc_log.h"

namespace {

constexpr size_t kMaxDirPath = 256; // with the terminator
constexpr mode_t kDirMode = 0755;

bool is_separator(char c) {
    return c == '/' || c == '\\';
}

// 0 when the directory is there afterwards, else errno.
int make_dir(const char *path, mode_t mode) {
    return mkdir(path, mode) == 0 || errno == EEXIST ? 0 : errno;
}

void report_mkdir(const char *path, int cause) {
    print_event(STDOUT_COMMON_PRINT_STRING_2, path, cause, strerror(cause));
}

// path without what follows its last separator, and without that. Requires a leading one.
int create_parent(const char *path, size_t length) {
    char parent[kMaxDirPath];
    while (length > 0 && !is_separator(path[length - 1]))
        length--;
    length--;
    memcpy(parent, path, length);
    parent[length] = '\0';
    return zd_create_dir(parent);
}

// The digits of str as a number of type T, whose every intermediate value fits Wide.
template <class T, class Wide>
int read_digits(const char *str, T *result) {
    Wide value = 0;
    for (; *str != '\0'; str++) {
        if (*str < '0' || *str > '9' || value > static_cast<T>(-1))
            return 0;
        value = value * 10 + static_cast<Wide>(*str - '0');
    }
    *result = static_cast<T>(value);
    return 1;
}

} // namespace

int zd_create_dir(const char *path) {
    if (path[0] != '/')
        return -1;
    ZD_ASSERT("zd_util_file", strlen(path) < 256);
    char dir[kMaxDirPath];
    size_t length = strlen(path);
    memcpy(dir, path, length);
    while (length > 1 && is_separator(dir[length - 1]))
        length--;
    dir[length] = '\0';

    int cause = make_dir(dir, kDirMode);
    if (cause == ENOENT) {
        const int rc = create_parent(dir, length);
        if (rc != 0) {
            print_event(STDOUT_COMMON_PRINT_STRING_1, dir);
            return rc;
        }
        cause = make_dir(dir, kDirMode);
    }
    if (cause != 0) {
        report_mkdir(dir, cause);
        return -1;
    }
    return 0;
}

int zd_create_dir_for(const char *path, mode_t mode) {
    if (path[0] != '/')
        return ERROR_SYSCALL_MKDIR;
    char dir[PATH_MAX];
    size_t start = 0;
    for (size_t i = 1; path[i] != '\0'; i++) {
        if (path[i] != '/')
            continue;
        const bool fits = i < sizeof dir;
        const size_t length = fits ? i : sizeof dir - 1;
        memcpy(dir + start, path + start, length - start);
        dir[length] = '\0';
        start = length;
        const int cause = fits ? make_dir(dir, mode) : ENAMETOOLONG;
        if (cause != 0) {
            report_mkdir(dir, cause);
            return ERROR_SYSCALL_MKDIR;
        }
    }
    return 0;
}

int zd_slash_check(char *path) {
    const size_t length = strlen(path);
    if (length == 0 || path[length - 1] == '/')
        return 1;
    path[length] = '/';
    path[length + 1] = '\0';
    return 0;
}

char *zd_get_path_prefix(const char *path, char *buf) {
    const char *const slash = strrchr(path, '/');
    if (slash == nullptr)
        return nullptr;
    const size_t length = static_cast<size_t>(slash - path) + 1;
    memcpy(buf, path, length);
    buf[length] = '\0';
    return buf;
}

char *zd_set_path_prefix(const char *given, char *buf, int type) {
    if (given[0] == '\0') {
        sprintf(buf, "%s/instance/%s/path/", env_get_home_with_type(type),
                env_get_sid_with_type(type));
    } else {
        strcpy(buf, given);
        zd_slash_check(buf);
    }
    return buf;
}

const char *zd_get_relname(const char *path, int type) {
    const char *const home = env_get_home_with_type(type);
    size_t length = strlen(home);
    if (length == 0)
        return path;
    while (length > 0 && home[length - 1] == '/')
        length--;
    // A neighbour whose name merely begins like the home's does not lie in it.
    if (strncmp(path, home, length) != 0 || (path[length] != '/' && path[length] != '\0'))
        return path;
    return path[length] == '/' ? path + length + 1 : path + length;
}

int zd_atoi_uint16(const char *str, uint16_t *result) {
    return read_digits<uint16_t, uint32_t>(str, result);
}

int zd_atoi_uint32(const char *str, uint32_t *result) {
    return read_digits<uint32_t, uint64_t>(str, result);
}

char *zd_normalize_pathname(char *path) {
    char *end = path;
    for (const char *next = path; *next != '\0'; next++) {
        if (*next != '/' || end == path || end[-1] != '/')
            *end++ = *next;
    }
    *end = '\0';
    return path;
}
