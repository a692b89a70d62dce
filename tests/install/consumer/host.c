// A program that hosts the library, as its author would write it: it answers the host queries,
// asks the error catalogue for a name, allocates, and calls a routine of a user's library.
// usage: host ROUTINE_LIBRARY

#include <dlfcn.h>
#include <stdio.h>
#include <string.h>

#include "client/zdepa/epa_init.h"
#include "common/alloc/system_clialloc.h"
#include "common/ec.h"
#include "common/zd_env.h"
#include "common/zd_err_info.h"

#define STRING_QUERY(name, answer)                                                                 \
    const char *name(int type) {                                                                   \
        return type == ENV_TYPE_EXTPROC_AGENT ? answer : "";                                       \
    }

STRING_QUERY(env_get_home_name_with_type, "ZD_HOME")
STRING_QUERY(env_get_home_with_type, "/nowhere")
STRING_QUERY(env_get_sid_with_type, "sid")
STRING_QUERY(env_get_product_name_with_type, "Consumer")
STRING_QUERY(env_build_info_branch_with_type, "branch")
STRING_QUERY(env_build_info_build_revision_with_type, "r1")
STRING_QUERY(env_build_info_platform_with_type, "Linux x86_64")
STRING_QUERY(env_build_info_byte_ordering_with_type, "little-endian")
STRING_QUERY(env_build_info_build_date_with_type, "today")
STRING_QUERY(env_build_info_build_time_with_type, "now")

int env_build_info_major_with_type(int type) {
    return type;
}

int main(int argc, char **argv) {
    if (argc != 2)
        return 2;
    const zd_err_info_t *info = zd_get_err_info_for_zderr(ERROR_EPA_FAIL);
    if (info == NULL || strcmp(info->name, "ERROR_EPA_FAIL") != 0)
        return 3;
    void *memory = system_malloc(&_system_allocator, 64, "host", __LINE__);
    if (memory == NULL)
        return 4;
    system_free(&_system_allocator, memory, "host", __LINE__);

    void *library = dlopen(argv[1], RTLD_LAZY | RTLD_LOCAL);
    if (library == NULL) {
        fprintf(stderr, "%s\n", dlerror());
        return 5;
    }
    int (*routine)(int, int) = (int (*)(int, int))dlsym(library, "add_up");
    if (routine == NULL || dlsym(library, "not_for_the_database") != NULL)
        return 6;
    printf("routine says %d\n", routine(40, 2));
    return 0;
}
