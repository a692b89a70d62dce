// What a call brought, written for people or as JSON.

#ifndef ZDEPCALL_REPORT_H
#define ZDEPCALL_REPORT_H

#include <cstdio>
#include <optional>
#include <string>

#include "call.h"
#include "reply.h"
#include "statistics.h"

namespace zdepcall {

// One line: "-20001 NAME [SQLSTATE]: text (file:line function)".
std::string format_error(const ErrorEntry &error);

// One line a value: "return: 5", "argument 2: "abc"". Each begins with indent. Nothing when there
// is no value.
void print_values(FILE *stream, const Call &call, const Reply &reply, const std::string &indent);

// "3 calls: p50 12.0 us, p99 ..., max ..., ... calls/s".
std::string format_summary(const Summary &summary);

// One line. microseconds is of the first call; death is set instead of reply when the agent died.
std::string json_report(const Call &call, const Reply *reply, const std::string &death,
                        double microseconds, const std::optional<Summary> &summary);

} // namespace zdepcall

#endif
