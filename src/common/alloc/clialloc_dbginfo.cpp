#include "common/alloc/clialloc_dbginfo.h"

#include <stdio.h>

#include "common/zd_dumpdata.h"

// The format's closing parenthesis is missing in every release: log scanners know it this way.
void dbginfo_report(const void *block) {
    char *const user = static_cast<char *>(const_cast<void *>(block));
    const alloc_dbginfo_t *const dbginfo =
        reinterpret_cast<const alloc_dbginfo_t *>(user - (DBGINFO_USER_OFFSET - DBGINFO_OFFSET));
    fprintf(stderr, "REDZONE CHECK ERROR. (malloc from:filename=%s, line=%d, size=%ld\n",
            dbginfo->file, static_cast<int>(dbginfo->line), dbginfo->size);
    fprintf(stderr, "FRONT REDZONE:\n");
    fdump_data(stderr, user - DBGINFO_REDZONE_SIZE, DBGINFO_REDZONE_SIZE);
    fprintf(stderr, "REAR REDZONE:\n");
    fdump_data(stderr, user + dbginfo->size, DBGINFO_REDZONE_SIZE);
    zd_assert_fail("false", "alloc_dbginfo", 390);
}
