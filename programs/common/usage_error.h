// What the user wrote cannot be done. The text is "what: why (what to do)".

#ifndef PROGRAM_USAGE_ERROR_H
#define PROGRAM_USAGE_ERROR_H

#include <stdexcept>

namespace programs {

struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

} // namespace programs

#endif
