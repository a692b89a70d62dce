#include "client/common/log/client_log.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/alloc/region_clialloc.h"
#include "common/zd_fcntl.h"
#include "common/zd_gettime.h"
#include "common/zd_util_file.h"

namespace {

constexpr const char *kUnit = "client_log";

constexpr int kMinRotationSize = 1048576;
constexpr int kBudgetGenerations = 3;
constexpr int64_t kMessageStep = 1024;
constexpr size_t kHeaderSize = 189;

constexpr size_t kPathSize = sizeof client_log_hdl_t::filepath;
constexpr size_t kPathTailSize = 96; // time, process id and ".log" behind directory and prefix
constexpr size_t kDirLimit = 256;    // zd_create_dir takes no longer names, with the terminator
constexpr char kBackupDir[] = "/backup";
constexpr char kBooksFile[] = "/.backup.info";
constexpr char kNewBooks[] = "0\n0\n0\n";

// Where failures are raised. Readers of the reports compare these.
enum report_line {
    kCannotOpen = 92,
    kBadSizes = 125,
    kCannotLock = 383,
    kCannotBackup = 409,
    kCannotUnlock = 422,
};

// The books of a log directory: three lines of ".backup.info".
struct backup_books {
    long bytes;      // moved into the backup directory since the last pruning
    long older_mark; // modification time at the end of the generation before the last
    long newer_mark; // modification time of the newest file at the last pruning
};

template <size_t kSize>
void copy_cut(char (&to)[kSize], const char *from) {
    const size_t length = strnlen(from, kSize - 1);
    memcpy(to, from, length);
    to[length] = '\0';
}

void close_file(FILE *&fp) {
    if (fp != nullptr)
        fclose(fp);
    fp = nullptr;
}

// ---- the books ----

// Reads and writes go round the stream: another process changes the file between two rotations,
// and a stream would answer from its buffer.
backup_books read_books(const client_log_hdl_t *hdl) {
    char text[3 * 24];
    const ssize_t length = pread(fileno(hdl->backup_info_fp), text, sizeof text - 1, 0);
    text[length > 0 ? length : 0] = '\0';
    backup_books books;
    char *next = text;
    books.bytes = strtol(next, &next, 10);
    books.older_mark = strtol(next, &next, 10);
    books.newer_mark = strtol(next, &next, 10);
    return books;
}

void write_books(const client_log_hdl_t *hdl, const backup_books &books) {
    FILE *const fp = hdl->backup_info_fp;
    if (ftruncate(fileno(fp), 0) == 0) {
        rewind(fp);
        fprintf(fp, "%ld\n%ld\n%ld\n", books.bytes, books.older_mark, books.newer_mark);
        fflush(fp);
    }
}

// Makes the books unless they are there. What another process enters at the same moment must stay:
// it is at the start of the file, where it is read, and the zeros go to the end.
void make_books(const char *path) {
    const int fd = open(path, O_WRONLY | O_CREAT | O_EXCL | O_APPEND, 0666);
    if (fd < 0)
        return;
    // If there is no room, empty books do as well.
    while (write(fd, kNewBooks, sizeof kNewBooks - 1) < 0 && errno == EINTR)
        continue;
    close(fd);
}

void open_books(client_log_hdl_t *hdl) {
    char path[sizeof hdl->dirpath + sizeof kBooksFile];
    snprintf(path, sizeof path, "%s%s", hdl->dirpath, kBooksFile);
    hdl->backup_info_fp = fopen(path, "r+");
    if (hdl->backup_info_fp != nullptr)
        return;
    make_books(path);
    hdl->backup_info_fp = fopen(path, "r+");
}

// ---- the log file ----

int open_log(client_log_hdl_t *hdl) {
    int year, mon, day, hour, min, sec, usec;
    zd_getlocaltime(&year, &mon, &day, &hour, &min, &sec, &usec);
    char path[sizeof hdl->dirpath + sizeof hdl->filepath_prefix + kPathTailSize];
    snprintf(path, sizeof path, "%s/%s_%04d%02d%02d%02d%02d%02d_%d.log", hdl->dirpath,
             hdl->filepath_prefix, year, mon, day, hour, min, sec, getpid());
    copy_cut(hdl->filepath, path);
    hdl->fp = fopen(hdl->filepath, "a+b");
    if (hdl->fp == nullptr) {
        hdl->err_func(kUnit, kCannotOpen, "Cannot open log file \"%s\"", hdl->filepath);
        return -1;
    }
    // A file opened for reading as well starts at 0, and its size is what counts. Moved below the
    // stream, which has read nothing yet: it would allocate its buffer and look the file up twice.
    lseek(fileno(hdl->fp), 0, SEEK_END);
    return 0;
}

// ---- rotation ----

// Deletes what is not newer than the mark in the directory, except the file named keep.
void prune(const char *dirpath, const char *keep, long mark) {
    char path[kPathSize + sizeof kBackupDir];
    snprintf(path, sizeof path, "%s%s", dirpath, kBackupDir);
    DIR *const dir = opendir(path);
    if (dir == nullptr)
        return;
    while (const dirent *const entry = readdir(dir)) {
        struct stat status;
        if (strcmp(entry->d_name, keep) != 0 &&
            fstatat(dirfd(dir), entry->d_name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
            status.st_mtime <= mark)
            unlinkat(dirfd(dir), entry->d_name, 0); // directories stay
    }
    closedir(dir);
}

// Enters a file of size bytes, now at path target under name, into the books.
void keep_books(const client_log_hdl_t *hdl, const char *target, const char *name, long size) {
    backup_books books = read_books(hdl);
    books.bytes += size;
    if (books.bytes > hdl->max_backup_size / kBudgetGenerations) {
        prune(hdl->dirpath, name, books.older_mark);
        books.bytes = 0;
        books.older_mark = books.newer_mark;
        struct stat status;
        if (stat(target, &status) == 0)
            books.newer_mark = status.st_mtime;
    }
    write_books(hdl, books);
}

// Ends the current file, of size bytes, by moving it to the backup directory.
void back_up(client_log_hdl_t *hdl, long size) {
    close_file(hdl->fp);
    const bool has_books = hdl->backup_info_fp != nullptr;
    if (has_books && zd_lock_file(fileno(hdl->backup_info_fp), F_SETLK, F_WRLCK) == -1)
        hdl->err_func(kUnit, kCannotLock, "Cannot lock log backup info file");

    const char *const slash = strrchr(hdl->filepath, '/');
    const char *const name = slash != nullptr ? slash + 1 : hdl->filepath;
    char target[kPathSize + sizeof kBackupDir];
    const int dir_length =
        snprintf(target, sizeof target, "%.*s%s", static_cast<int>(name - hdl->filepath) - 1,
                 hdl->filepath, kBackupDir);
    if (static_cast<size_t>(dir_length) < kDirLimit)
        zd_create_dir(target);
    snprintf(target + dir_length, sizeof target - static_cast<size_t>(dir_length), "/%s", name);
    if (rename(hdl->filepath, target) != 0)
        hdl->err_func(kUnit, kCannotBackup, "Cannot backup log file");

    if (!has_books)
        return;
    keep_books(hdl, target, name, size);
    if (zd_lock_file(fileno(hdl->backup_info_fp), F_SETLK, F_UNLCK) == -1)
        hdl->err_func(kUnit, kCannotUnlock, "Cannot unlock log file");
}

// ---- lines ----

struct line_header {
    char text[kHeaderSize];
};

const char *level_tag(client_log_lvl_t lvl) {
    static constexpr char kTags[][4] = {"FAT", "ERR", "WAR", "INF", "DBG", "TRC", "ITL"};
    return lvl < sizeof kTags / sizeof kTags[0] ? kTags[lvl] : "---";
}

// What stands between header and message: deeper levels are indented.
const char *level_blanks(client_log_lvl_t lvl) {
    switch (lvl) {
    case LOG_LVL_FATAL:
    case LOG_LVL_ERROR:
    case LOG_LVL_WARN:
    case LOG_LVL_INFO:
        return " ";
    case LOG_LVL_DEBUG:
        return "   ";
    case LOG_LVL_TRACE:
        return "     ";
    default:
        return "       ";
    }
}

void format_header(line_header *header, client_log_lvl_t lvl) {
    int year, mon, day, hour, min, sec, usec;
    zd_getlocaltime(&year, &mon, &day, &hour, &min, &sec, &usec);
    snprintf(header->text, sizeof header->text, "%02d-%02d %02d:%02d:%02d.%06ld [%d][%ld][%s]", mon,
             day, hour, min, sec, static_cast<long>(usec), getpid(), static_cast<long>(gettid()),
             level_tag(lvl));
}

// The message in a block of the handle's region, whole however long; NULL when it cannot be
// formatted (an invalid wide character, say).
char *format_message(client_log_hdl_t *hdl, const char *format, va_list args) {
    int64_t size = kMessageStep;
    for (;;) {
        char *const message = static_cast<char *>(zd_calloc(hdl->alloc, size, kUnit, __LINE__));
        va_list again;
        va_copy(again, args);
        const int length = vsnprintf(message, static_cast<size_t>(size), format, again);
        va_end(again);
        if (length >= 0 && length < size)
            return message;
        zd_free(hdl->alloc, message, kUnit, __LINE__);
        if (length < 0)
            return nullptr;
        size = (length / kMessageStep + 1) * kMessageStep;
    }
}

int effective_size(int max_size) {
    return max_size > 0 && max_size < kMinRotationSize ? kMinRotationSize : max_size;
}

// A budget holds three files at least, as far as its type can say so.
int effective_budget(int max_backup_size, int max_size) {
    if (max_backup_size == 0)
        return 0;
    int64_t least = static_cast<int64_t>(max_size) * kBudgetGenerations;
    if (least > INT_MAX)
        least = INT_MAX;
    return max_backup_size < least ? static_cast<int>(least) : max_backup_size;
}

} // namespace

client_log_hdl_t *client_log_hdl_new(allocator_t *alloc) {
    client_log_hdl_t *const hdl = static_cast<client_log_hdl_t *>(
        zd_calloc(alloc, sizeof(client_log_hdl_t), kUnit, __LINE__));
    hdl->alloc = real_sys_region_allocator_new(alloc, kUnit, __LINE__);
    return hdl;
}

void client_log_hdl_free(client_log_hdl_t *hdl, allocator_t *alloc) {
    close_file(hdl->fp);
    close_file(hdl->backup_info_fp);
    hdl->alloc->desc->func_delete(hdl->alloc);
    zd_free(alloc, hdl, kUnit, __LINE__);
}

int client_log_hdl_set_log_attr(client_log_hdl_t *hdl, const char *, client_log_lvl_t max_lvl,
                                const char *dirpath, const char *filepath_prefix, int max_size,
                                int max_backup_size, client_log_err_func_t err_func) {
    close_file(hdl->fp);
    hdl->max_lvl = max_lvl;
    copy_cut(hdl->dirpath, dirpath);
    copy_cut(hdl->filepath_prefix, filepath_prefix);
    hdl->err_func = err_func;
    if (max_size < 0 || max_backup_size < 0)
        err_func(kUnit, kBadSizes, "MAX_LOG_SIZE or MAX_LOG_BACKUP_SIZE are inappropriate ");
    hdl->max_size = effective_size(max_size);
    hdl->max_backup_size = effective_budget(max_backup_size, hdl->max_size);
    zd_create_dir(hdl->dirpath);
    close_file(hdl->backup_info_fp);
    if (hdl->max_backup_size > 0)
        open_books(hdl);
    return open_log(hdl);
}

void client_log_write(client_log_hdl_t *hdl, client_log_lvl_t lvl, const char *, int,
                      const char *format, ...) {
    if (!client_log_enabled(hdl, lvl) || hdl->fp == nullptr)
        return;
    if (hdl->max_size > 0) {
        const long position = ftell(hdl->fp);
        if (position > hdl->max_size) {
            back_up(hdl, position);
            if (open_log(hdl) != 0)
                return;
        }
    }
    va_list args;
    va_start(args, format);
    char *const message = format_message(hdl, format, args);
    va_end(args);
    line_header header;
    format_header(&header, lvl);
    // The bare format tells at least which line could not be formatted.
    fprintf(hdl->fp, "%s%s%s\n", header.text, level_blanks(lvl),
            message != nullptr ? message : format);
    if ((hdl->option & LOG_OPT_NO_FLUSH) == 0)
        fflush(hdl->fp);
    if (message != nullptr)
        zd_free(hdl->alloc, message, kUnit, __LINE__);
}

void client_log_finish(client_log_hdl_t *hdl) {
    if (hdl->fp != nullptr) {
        const long size = ftell(hdl->fp);
        if (size == 0) {
            close_file(hdl->fp);
            unlink(hdl->filepath);
        }
        back_up(hdl, size);
    }
    close_file(hdl->backup_info_fp);
}
