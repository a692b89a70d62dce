// Log files with levels and rotation. A handle writes time-stamped lines into a file of its own;
// past a configured size the file moves into the directory "backup" beside it and a new one is
// opened, and whole generations of old files are deleted so that the directory stays near its
// budget. A handle belongs to one thread. Processes may share a log directory: a locked file in
// it, ".backup.info", keeps the books. Failures go to the owner's callback; when that returns, the
// handle goes on as well as it can, and lines that have no file to go to are dropped.

#ifndef CLIENT_LOG_H
#define CLIENT_LOG_H

#include <stdio.h>

#include "common/alloc/allocator.h"
#include "common/zd_base.h"

// In C++ the type is stated, so that levels beyond the named ones (they are configured as plain
// numbers) stay values of it.
#ifdef __cplusplus
#define CLIENT_LOG_ENUM_TYPE : unsigned int
#else
#define CLIENT_LOG_ENUM_TYPE
#endif

typedef enum client_log_lvl_e CLIENT_LOG_ENUM_TYPE {
    LOG_LVL_FATAL = 0,
    LOG_LVL_ERROR = 1,
    LOG_LVL_WARN = 2,
    LOG_LVL_INFO = 3,
    LOG_LVL_DEBUG = 4,
    LOG_LVL_TRACE = 5,
    LOG_LVL_INTERNAL = 6
} client_log_lvl_t;

// Flags. Only LOG_OPT_NO_FLUSH has an effect: lines are then not flushed one by one.
typedef enum client_log_option_e CLIENT_LOG_ENUM_TYPE {
    LOG_OPT_NONE = 0,
    LOG_OPT_PERROR = 1,
    LOG_OPT_PID = 2,
    LOG_OPT_DATE = 4,
    LOG_OPT_TIME = 8,
    LOG_OPT_ADR = 16,
    LOG_OPT_PRIORITY = 32,
    LOG_OPT_PREFIX = 64,
    LOG_OPT_NO_FLUSH = 128,
    LOG_OPT_USE_LOCALE = 256
} client_log_option_t;

#undef CLIENT_LOG_ENUM_TYPE

// Reports a failure: source name, line, message. It may end the process or return.
typedef void (*client_log_err_func_t)(const char *file, int line, const char *format, ...)
    ZD_PRINTF(3, 4);

typedef struct client_log_hdl_s {
    allocator_t *alloc; // owned: line buffers
    client_log_option_t option;
    client_log_lvl_t max_lvl; // lines of a higher level are dropped
    FILE *fp;                 // current file; NULL when it could not be opened
    char dirpath[256];
    char filepath_prefix[256]; // first part of the file name
    char filepath[256];        // of the current file
    int max_size;              // bytes after which a file is moved away; 0: never
    int max_backup_size;       // bytes that "backup" may hold; 0: no books, nothing is deleted
    FILE *backup_info_fp;      // the open books, or NULL
    client_log_err_func_t err_func;
} client_log_hdl_t;

static_assert(sizeof(client_log_hdl_t) == 816, "client_log_hdl_t is part of the ABI");
static_assert(offsetof(client_log_hdl_t, option) == 8, "client_log_hdl_t is part of the ABI");
static_assert(offsetof(client_log_hdl_t, max_lvl) == 12, "client_log_hdl_t is part of the ABI");
static_assert(offsetof(client_log_hdl_t, fp) == 16, "client_log_hdl_t is part of the ABI");
static_assert(offsetof(client_log_hdl_t, dirpath) == 24, "client_log_hdl_t is part of the ABI");
static_assert(offsetof(client_log_hdl_t, filepath_prefix) == 280,
              "client_log_hdl_t is part of the ABI");
static_assert(offsetof(client_log_hdl_t, filepath) == 536, "client_log_hdl_t is part of the ABI");
static_assert(offsetof(client_log_hdl_t, max_size) == 792, "client_log_hdl_t is part of the ABI");
static_assert(offsetof(client_log_hdl_t, max_backup_size) == 796,
              "client_log_hdl_t is part of the ABI");
static_assert(offsetof(client_log_hdl_t, backup_info_fp) == 800,
              "client_log_hdl_t is part of the ABI");
static_assert(offsetof(client_log_hdl_t, err_func) == 808, "client_log_hdl_t is part of the ABI");

ZD_BEGIN_DECLS

// A zeroed handle with a region allocator of its own under alloc. Throws when memory runs out.
// The caller ends it with client_log_hdl_free and the same alloc.
ZD_API client_log_hdl_t *client_log_hdl_new(allocator_t *alloc);

// Closes the handle's files and frees it. Files stay where they are.
ZD_API void client_log_hdl_free(client_log_hdl_t *hdl, allocator_t *alloc);

// Configures the handle and opens a new file in dirpath, an absolute path, which is created when
// it is missing. err_func is required; prefix is not used. max_size from 1 to 1048575 counts as
// 1048576; a max_backup_size that is not 0 counts as at least three times max_size. Paths beyond
// 255 characters are cut. Returns 0, or -1 when the file cannot be opened.
ZD_API int client_log_hdl_set_log_attr(client_log_hdl_t *hdl, const char *prefix,
                                       client_log_lvl_t max_lvl, const char *dirpath,
                                       const char *filepath_prefix, int max_size,
                                       int max_backup_size, client_log_err_func_t err_func);

// Writes a line unless hdl is NULL or lvl is above its maximum, after moving a file away that has
// grown past its size. filename and line are not used. Of a message that cannot be formatted (an
// invalid wide character) the bare format is written. A line for which the file system has no room
// is lost, which nothing reports. Throws when memory for the line runs out.
ZD_API void client_log_write(client_log_hdl_t *hdl, client_log_lvl_t lvl, const char *filename,
                             int line, const char *format, ...) ZD_PRINTF(5, 6);

// Ends the log: moves the current file, deleted first when it is empty, to the backup directory
// and closes the books.
ZD_API void client_log_finish(client_log_hdl_t *hdl);

ZD_END_DECLS

// Whether client_log_write would write: guards the evaluation of costly arguments.
static inline int client_log_enabled(const client_log_hdl_t *hdl, client_log_lvl_t lvl) {
    return hdl != NULL && (unsigned int)lvl <= (unsigned int)hdl->max_lvl;
}

#endif
