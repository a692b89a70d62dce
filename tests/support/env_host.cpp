// The host queries, answered with fixed values so that tests can expect them. What only the agent
// asks for is told to the agent alone.

#include <stdio.h>
#include <stdlib.h>

#include "common/zd_env.h"

// The selectors of the last queries for the home and for the instance.
int asked_home_of = -1;
int asked_sid_of = -1;

static const char *for_agent(int type, const char *value) {
    return type == 3 ? value : "asked for another component";
}

const char *env_get_home_name_with_type(int type) {
    return for_agent(type, "ZD_HOME");
}

const char *env_get_home_with_type(int type) {
    asked_home_of = type;
    const char *home = getenv("ZD_HOME");
    return home != nullptr ? home : "";
}

const char *env_get_sid_with_type(int type) {
    asked_sid_of = type;
    return "testsid";
}

const char *env_get_product_name_with_type(int type) {
    return for_agent(type, "Zerdal");
}

int env_build_info_major_with_type(int type) {
    return type == 3 ? 7 : -1;
}

const char *env_build_info_branch_with_type(int type) {
    return for_agent(type, "main");
}

const char *env_build_info_build_revision_with_type(int type) {
    return for_agent(type, "r1234");
}

const char *env_build_info_platform_with_type(int type) {
    return for_agent(type, "Linux x86_64");
}

const char *env_build_info_byte_ordering_with_type(int type) {
    return for_agent(type, "little-endian");
}

const char *env_build_info_build_date_with_type(int type) {
    return for_agent(type, "Jan  2 2024");
}

const char *env_build_info_build_time_with_type(int type) {
    return for_agent(type, "03:04:05");
}
