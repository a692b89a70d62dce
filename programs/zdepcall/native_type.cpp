#include "native_type.h"

#include <strings.h>

namespace zdepcall {

// By value, four bytes travel as PLS_INT or BIN_FLOAT and eight as BIN_DOUBLE: the agent knows no
// other eight-byte type. Nothing below an int is narrowed on the wire; the routine reads the low
// bytes of its register.
static constexpr NativeType type_table[] = {
    {"char", EXT_TYPE_CHAR, Shape::Signed, 1, ZD_TYPE_PLS_INT},
    {"uchar", EXT_TYPE_UCHAR, Shape::Unsigned, 1, ZD_TYPE_PLS_INT},
    {"short", EXT_TYPE_SHORT, Shape::Signed, 2, ZD_TYPE_PLS_INT},
    {"ushort", EXT_TYPE_USHORT, Shape::Unsigned, 2, ZD_TYPE_PLS_INT},
    {"int", EXT_TYPE_INT, Shape::Signed, 4, ZD_TYPE_PLS_INT},
    {"uint", EXT_TYPE_UINT, Shape::Unsigned, 4, ZD_TYPE_PLS_INT},
    {"long", EXT_TYPE_LONG, Shape::Signed, 8, ZD_TYPE_BIN_DOUBLE},
    {"ulong", EXT_TYPE_ULONG, Shape::Unsigned, 8, ZD_TYPE_BIN_DOUBLE},
    {"size_t", EXT_TYPE_SIZE_T, Shape::Unsigned, 8, ZD_TYPE_BIN_DOUBLE},
    {"float", EXT_TYPE_FLOAT, Shape::Floating, 4, ZD_TYPE_BIN_FLOAT},
    {"double", EXT_TYPE_DOUBLE, Shape::Floating, 8, ZD_TYPE_BIN_DOUBLE},
    {"string", EXT_TYPE_STRING, Shape::Text, 0, ZD_TYPE_VARCHAR},
    {"raw", EXT_TYPE_RAW, Shape::Run, 0, ZD_TYPE_RAW},
    {"zdnumber", EXT_TYPE_ZDNUMBER, Shape::Counted, 0, ZD_TYPE_NUMBER},
    {"zdstring", EXT_TYPE_ZDSTRING, Shape::Text, 0, ZD_TYPE_VARCHAR},
    {"zdloblocator", EXT_TYPE_ZDLOBLOCATOR, Shape::Image, 0, ZD_TYPE_BLOB},
    {"zdraw", EXT_TYPE_ZDRAW, Shape::Run, 0, ZD_TYPE_RAW},
    {"zddate", EXT_TYPE_ZDDATE, Shape::Image, 0, ZD_TYPE_DATE},
    {"zdtimestamp", EXT_TYPE_ZDTIMESTAMP, Shape::Image, 0, ZD_TYPE_TIMESTAMP},
    {"zdtstz", EXT_TYPE_ZDTSTZ, Shape::Image, 0, ZD_TYPE_TS_TZ},
    {"zdtsltz", EXT_TYPE_ZDTSLTZ, Shape::Image, 0, ZD_TYPE_TS_LTZ},
    {"zdinterval", EXT_TYPE_ZDINTERVAL, Shape::Image, 0, ZD_TYPE_ITV_DTS},
    {"zdcoll", EXT_TYPE_ZDCOLL, Shape::Image, 0, ZD_TYPE_TABLE},
};

struct DbTypeName {
    std::string_view name;
    zd_type_t type;
};

// Where two names share a number, the one that a value can have stands first.
static constexpr DbTypeName db_type_table[] = {
    {"NONE", ZD_TYPE_NONE},
    {"NUMBER", ZD_TYPE_NUMBER},
    {"CHAR", ZD_TYPE_CHAR},
    {"VARCHAR", ZD_TYPE_VARCHAR},
    {"RAW", ZD_TYPE_RAW},
    {"DATE", ZD_TYPE_DATE},
    {"TIME", ZD_TYPE_TIME},
    {"TIMESTAMP", ZD_TYPE_TIMESTAMP},
    {"ITV_YTM", ZD_TYPE_ITV_YTM},
    {"ITV_DTS", ZD_TYPE_ITV_DTS},
    {"LONG", ZD_TYPE_LONG},
    {"LONG_RAW", ZD_TYPE_LONG_RAW},
    {"BLOB", ZD_TYPE_BLOB},
    {"CLOB", ZD_TYPE_CLOB},
    {"BFILE", ZD_TYPE_BFILE},
    {"ROWID", ZD_TYPE_ROWID},
    {"CSR", ZD_TYPE_CSR},
    {"UNKNOWN", ZD_TYPE_UNKNOWN},
    {"NCHAR", ZD_TYPE_NCHAR},
    {"NVARCHAR", ZD_TYPE_NVARCHAR},
    {"NCLOB", ZD_TYPE_NCLOB},
    {"TS_TZ", ZD_TYPE_TS_TZ},
    {"TS_LTZ", ZD_TYPE_TS_LTZ},
    {"BIN_FLOAT", ZD_TYPE_BIN_FLOAT},
    {"BIN_DOUBLE", ZD_TYPE_BIN_DOUBLE},
    {"BOOLEAN", ZD_TYPE_BOOLEAN},
    {"PLS_INT", ZD_TYPE_PLS_INT},
    {"BIN_INT", ZD_TYPE_BIN_INT},
    {"RECORD", ZD_TYPE_RECORD},
    {"VARRAY", ZD_TYPE_VARRAY},
    {"TABLE", ZD_TYPE_TABLE},
    {"IDX_BY_TBL", ZD_TYPE_IDX_BY_TBL},
    {"OBJECT", ZD_TYPE_OBJECT},
};

std::span<const NativeType> native_types() {
    return type_table;
}

const NativeType *find_native_type(std::string_view name) {
    for (const NativeType &type : type_table) {
        if (type.name == name)
            return &type;
    }
    return nullptr;
}

std::optional<zd_type_t> find_db_type(std::string_view name) {
    for (const DbTypeName &entry : db_type_table) {
        if (entry.name.size() == name.size() &&
            strncasecmp(entry.name.data(), name.data(), name.size()) == 0)
            return entry.type;
    }
    return std::nullopt;
}

std::string_view db_type_name(zd_type_t type) {
    for (const DbTypeName &entry : db_type_table) {
        if (entry.type == type)
            return entry.name;
    }
    return "?";
}

std::optional<size_t> by_value_size(zd_type_t type) {
    switch (type) {
    case ZD_TYPE_NONE:
        return 0;
    case ZD_TYPE_BIN_FLOAT:
    case ZD_TYPE_PLS_INT:
    case ZD_TYPE_BIN_INT:
        return 4;
    case ZD_TYPE_BIN_DOUBLE:
        return 8;
    default:
        return std::nullopt;
    }
}

} // namespace zdepcall
