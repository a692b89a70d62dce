// The database types of values, as messages, parameters and literals name them.

#ifndef ZD_TYPE_H
#define ZD_TYPE_H

#include "common/zd_base.h"

// The repeated numbers are aliases.
typedef enum zd_type_e ZD_ENUM_OF(int){
    ZD_TYPE_NONE = 0,       ZD_TYPE_NUMBER = 1,        ZD_TYPE_CHAR = 2,     ZD_TYPE_VARCHAR = 3,
    ZD_TYPE_RAW = 4,        ZD_TYPE_DATE = 5,          ZD_TYPE_TIME = 6,     ZD_TYPE_TIMESTAMP = 7,
    ZD_TYPE_ITV_YTM = 8,    ZD_TYPE_ITV_DTS = 9,       ZD_TYPE_LONG = 10,    ZD_TYPE_LONG_RAW = 11,
    ZD_TYPE_BLOB = 12,      ZD_TYPE_CLOB = 13,         ZD_TYPE_BFILE = 14,   ZD_TYPE_ROWID = 15,
    ZD_TYPE_CSR = 16,       ZD_TYPE_UNKNOWN = 17,      ZD_TYPE_NCHAR = 18,   ZD_TYPE_NVARCHAR = 19,
    ZD_TYPE_NCLOB = 20,     ZD_TYPE_TS_TZ = 21,        ZD_TYPE_TS_LTZ = 22,  ZD_TYPE_MAX = 23,
    ZD_TYPE_BIN_FLOAT = 23, ZD_TYPE_BIN_DOUBLE = 24,   ZD_TYPE_BOOLEAN = 25, ZD_TYPE_PLS_INT = 26,
    ZD_TYPE_BIN_INT = 27,   ZD_TYPE_MAX_PSM_PRIM = 28, ZD_TYPE_RECORD = 28,  ZD_TYPE_VARRAY = 29,
    ZD_TYPE_TABLE = 30,     ZD_TYPE_IDX_BY_TBL = 31,   ZD_TYPE_OBJECT = 32,  ZD_TYPE_INVALID = 33,
    ZD_TYPE_MAX_PSM = 33} zd_type_t;

#endif
