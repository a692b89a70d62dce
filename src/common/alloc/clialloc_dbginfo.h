// The debug record of a block: the call site that made it and the size it asked for, with a red
// zone before and after the block. The records lie inside the region allocator's chunks.

#ifndef CLIALLOC_DBGINFO_H
#define CLIALLOC_DBGINFO_H

#include "common/zd_base.h"

typedef struct alloc_dbginfo_s {
    const char *file;
    int64_t size; // bytes asked for
    uint32_t line;
} alloc_dbginfo_t;

// A chunk in use, from the chunk's start:
//
//    16        40         48            48 + size  56 + size
//   | dbginfo | A7 x 8   | user's block | 9D x 8   |
#define DBGINFO_OFFSET 16
#define DBGINFO_FRONT_OFFSET 40
#define DBGINFO_USER_OFFSET 48
#define DBGINFO_REDZONE_SIZE 8
#define DBGINFO_FRONT_BYTE 0xA7
#define DBGINFO_REAR_BYTE 0x9D

static_assert(sizeof(alloc_dbginfo_t) == 24, "the front red zone follows the record");
static_assert(offsetof(alloc_dbginfo_t, size) == 8, "chunk offset 24");
static_assert(offsetof(alloc_dbginfo_t, line) == 16, "chunk offset 32");

#ifdef __cplusplus

#include <string.h>

#include "client/common/client_assert.h"

inline constexpr uint64_t kFrontRedzone = 0xA7A7A7A7A7A7A7A7;
inline constexpr uint64_t kRearRedzone = 0x9D9D9D9D9D9D9D9D;

// Writes the record and both red zones of a block that the caller owns.
inline void dbginfo_set(void *block, int64_t size, const char *file, int line) {
    char *const user = static_cast<char *>(block);
    alloc_dbginfo_t *const dbginfo =
        reinterpret_cast<alloc_dbginfo_t *>(user - (DBGINFO_USER_OFFSET - DBGINFO_OFFSET));
    dbginfo->file = file;
    dbginfo->size = size;
    dbginfo->line = static_cast<uint32_t>(line);
    ZD_ASSERT_AT("alloc_dbginfo", 235, dbginfo->size < INT64_MAX);
    memcpy(user - DBGINFO_REDZONE_SIZE, &kFrontRedzone, DBGINFO_REDZONE_SIZE);
    memcpy(user + size, &kRearRedzone, DBGINFO_REDZONE_SIZE);
}

// Shows the red zones of a block on standard error and ends the process.
[[noreturn]] void dbginfo_report(const void *block);

// Ends the process unless the size in the record is possible and both red zones are as written.
inline void dbginfo_check(const void *block) {
    const char *const user = static_cast<const char *>(block);
    const alloc_dbginfo_t *const dbginfo =
        reinterpret_cast<const alloc_dbginfo_t *>(user - (DBGINFO_USER_OFFSET - DBGINFO_OFFSET));
    const int64_t size = dbginfo->size;
    ZD_ASSERT_AT("alloc_dbginfo", 345, size < INT64_MAX);
    ZD_ASSERT_AT("alloc_dbginfo", 346, size >= 0);
    if (memcmp(user - DBGINFO_REDZONE_SIZE, &kFrontRedzone, DBGINFO_REDZONE_SIZE) != 0 ||
        memcmp(user + size, &kRearRedzone, DBGINFO_REDZONE_SIZE) != 0)
        dbginfo_report(block);
}

#endif

#endif
