// Host queries. The library calls these and does not define them: the program that links it does.
// Each takes the component selector; ENV_TYPE_EXTPROC_AGENT denotes the external-procedure agent.
// Returned strings belong to the host and live as long as the process.

#ifndef ZD_ENV_H
#define ZD_ENV_H

#include "common/zd_base.h"

enum { ENV_TYPE_EXTPROC_AGENT = 3 };

ZD_BEGIN_DECLS

ZD_API const char *env_get_home_name_with_type(int type);
ZD_API const char *env_get_home_with_type(int type);
ZD_API const char *env_get_sid_with_type(int type);
ZD_API const char *env_get_product_name_with_type(int type);
ZD_API int env_build_info_major_with_type(int type);
ZD_API const char *env_build_info_branch_with_type(int type);
ZD_API const char *env_build_info_build_revision_with_type(int type);
ZD_API const char *env_build_info_platform_with_type(int type);
ZD_API const char *env_build_info_byte_ordering_with_type(int type);
ZD_API const char *env_build_info_build_date_with_type(int type);
ZD_API const char *env_build_info_build_time_with_type(int type);

ZD_END_DECLS

#endif
