// What the user wrote cannot be done. The text is "what: why (what to do)".

#ifndef ZDEPCALL_USAGE_ERROR_H
#define ZDEPCALL_USAGE_ERROR_H

#include <stdexcept>

namespace zdepcall {

struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

} // namespace zdepcall

#endif
