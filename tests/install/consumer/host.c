// A program that hosts the library, as its author would write it: it answers the host queries and
// has two routines of a user's library called in the direct form, one that returns a sum and one
// that raises an error. usage: ZD_HOME=FOLDER host ROUTINE_LIBRARY

#include <stdio.h>
#include <string.h>

#include "client/zdepa/epa_init.h"
#include "client/zdepa/epa_proc.h"
#include "common/alloc/system_clialloc.h"
#include "common/zd_env.h"
#include "common/zdmsg/zdmsg.h"
#include "common/zdmsg/zdmsg_setter_gen.h"

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

// An IN parameter, and a result, that is an int passed by value.
enum { INT_BY_VALUE = 1 << 16 | ZD_TYPE_PLS_INT << 8 | EXT_TYPE_INT, WITH_CONTEXT = 1 << 8 };

static zdmsg_extproc_execute_reply_t reply;

static void call(const char *library, const char *function, int property, int return_flag,
                 int count, zdmsg_struct_extproc_param_t *params) {
    zdmsg_extproc_execute_t request;
    zdmsg_extproc_execute_set(&request, library, function, property, return_flag, count, params);
    memset(&reply, 0, sizeof reply);
    epa_process_request_dir(&request.base, &reply.base, &_system_allocator);
}

static int sum_comes_back(const char *library) {
    int left = 40;
    int right = 2;
    int sum = 0;
    zdmsg_struct_extproc_param_t params[2];
    zdmsg_struct_extproc_param_set(&params[0], INT_BY_VALUE, 4, 4, (char *)&left);
    zdmsg_struct_extproc_param_set(&params[1], INT_BY_VALUE, 4, 4, (char *)&right);
    call(library, "add_up", 0, INT_BY_VALUE, 2, params);
    if (reply.errstack.len != 0 || reply.reply_param.array_cnt != 1)
        return 0;
    if (reply.reply_param.data[0].data_value.len != (int)sizeof sum)
        return 0;
    memcpy(&sum, reply.reply_param.data[0].data_value.data, sizeof sum);
    return sum == 42;
}

static int error_comes_back(const char *library) {
    call(library, "give_up", WITH_CONTEXT, 0, 0, NULL);
    return reply.errstack.len != 0 && reply.reply_param.array_cnt == 0;
}

int main(int argc, char **argv) {
    if (argc != 2)
        return 2;
    epa_print_version();
    epa_init_dir();
    if (!sum_comes_back(argv[1]))
        return 3;
    if (!error_comes_back(argv[1]))
        return 4;
    // Hidden in the library, so not for the database.
    call(argv[1], "not_for_the_database", 0, 0, 0, NULL);
    if (reply.errstack.len == 0)
        return 5;
    printf("all came back\n");
    return 0;
}
