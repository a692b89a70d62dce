// Directories, paths, and the number readers that go with them. Nothing here allocates: results go
// into the caller's buffers, whose size is the caller's care, or point into the argument.

#ifndef ZD_UTIL_FILE_H
#define ZD_UTIL_FILE_H

#include <sys/types.h>

#include "common/zd_base.h"

ZD_BEGIN_DECLS

// Creates the directory path, and its missing parents, with mode 0755. Requires strlen(path) < 256
// (an assertion). Returns 0 when the directory is there afterwards; -1 when path is not absolute
// or a directory cannot be made, which is printed as an event.
ZD_API int zd_create_dir(const char *path);

// Creates every directory that lies before the last "/" of path: those that hold the file path.
// Returns 0, or ERROR_SYSCALL_MKDIR when path is not absolute (silently) or a directory cannot be
// made (printed as an event).
ZD_API int zd_create_dir_for(const char *path, mode_t mode);

// Appends "/" to path unless it is empty or ends in one; requires room for it. Returns 0 when it
// appended, else 1.
ZD_API int zd_slash_check(char *path);

// Copies path up to and including its last "/" into buf, which needs room for that and a
// terminator. Returns buf, or NULL, with buf untouched, when path holds no "/".
ZD_API char *zd_get_path_prefix(const char *path, char *buf);

// Makes buf a directory name that ends in "/": given, or when that is empty the instance's own
// "path" directory under the home of the component type, HOME/instance/ID/path/. Returns buf, which
// needs room for that name and a terminator.
ZD_API char *zd_set_path_prefix(const char *given, char *buf, int type);

// The part of path below the home directory of the component type; path itself when it does not
// lie there.
ZD_API const char *zd_get_relname(const char *path, int type);

// Read a number of digits only into *result. Return 1, or 0 with *result untouched when another
// character is met or the value exceeds the type with a digit still to come. The value after the
// last digit is not checked: it is stored cut to the type's width. An empty text is 0.
ZD_API int zd_atoi_uint16(const char *str, uint16_t *result);
ZD_API int zd_atoi_uint32(const char *str, uint32_t *result);

// Collapses every run of "/" in path into one, in place. Returns path.
ZD_API char *zd_normalize_pathname(char *path);

ZD_END_DECLS

#endif
