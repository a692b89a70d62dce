#include "common/zd_getenv.h"

#include <stdlib.h>

const char *zd_getenv(const char *name, const char *alt_name, const char *dflt) {
    const char *value = getenv(name);
    if (value == nullptr && alt_name != nullptr)
        value = getenv(alt_name);
    return value != nullptr ? value : dflt;
}
