// The host queries, answered for every component alike: the programs of this tree are one product.
// Everything that a build decides comes from build_info.h, which the build writes.

#include <stdlib.h>

#include "build_info.h"
#include "common/zd_env.h"
#include "program_version.h"

static const char *first_set(const char *name, const char *fallback_name) {
    const char *value = getenv(name);
    if (value == nullptr && fallback_name != nullptr)
        value = getenv(fallback_name);
    return value != nullptr ? value : "";
}

const char *program_version(void) {
    return ZDEPL_VERSION " (build " ZDEPL_BUILD_REVISION ", " ZDEPL_PLATFORM ", " ZDEPL_BUILD_DATE
                         ")";
}

const char *env_get_home_name_with_type(int) {
    return "ZD_HOME";
}

const char *env_get_home_with_type(int) {
    return first_set("ZD_HOME", "WQ_HOME");
}

const char *env_get_sid_with_type(int) {
    return first_set("ZD_SID", nullptr);
}

const char *env_get_product_name_with_type(int) {
    return "Zerdal";
}

int env_build_info_major_with_type(int) {
    return ZDEPL_VERSION_MAJOR;
}

const char *env_build_info_branch_with_type(int) {
    return ZDEPL_BRANCH;
}

const char *env_build_info_build_revision_with_type(int) {
    return ZDEPL_BUILD_REVISION;
}

const char *env_build_info_platform_with_type(int) {
    return ZDEPL_PLATFORM;
}

const char *env_build_info_byte_ordering_with_type(int) {
    return ZDEPL_BYTE_ORDER;
}

const char *env_build_info_build_date_with_type(int) {
    return ZDEPL_BUILD_DATE;
}

const char *env_build_info_build_time_with_type(int) {
    return ZDEPL_BUILD_TIME;
}
