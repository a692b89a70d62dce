// One argument of a call, and the kind of its result, as the user writes them:
//
//     [in:|out:|inout:|ref:][&]TYPE[/DBTYPE][(CAPACITY)][=VALUE]
//
// Numbers are passed by value unless marked with & or ref: or returned through out: or inout:;
// everything else is always passed by reference.

#ifndef ZDEPCALL_ARGUMENT_H
#define ZDEPCALL_ARGUMENT_H

#include <cstdint>
#include <string>
#include <string_view>

#include "hex.h"
#include "native_type.h"
#include "usage_error.h"

namespace zdepcall {

using namespace programs;

enum class Mode : uint8_t { In = 1, Out = 2, InOut = 3 };

struct Argument {
    const NativeType *type = nullptr;
    Mode mode = Mode::In;
    bool by_reference = false;
    zd_type_t db_type = ZD_TYPE_NONE;
    int32_t capacity = 0; // bytes that the routine may write
    Bytes data;           // as it travels

    bool is_output() const { return mode != Mode::In; }
    // The packed descriptor of the wire protocol.
    int32_t flag() const;
};

struct ReturnType {
    const NativeType *type = nullptr; // none: the routine returns nothing
    bool by_reference = false;
    zd_type_t db_type = ZD_TYPE_NONE;

    int32_t flag() const;
};

// Throw UsageError, with the text that was wrong.
Argument parse_argument(std::string_view text);
ReturnType parse_return_type(std::string_view text);

} // namespace zdepcall

#endif
