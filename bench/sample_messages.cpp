#include "sample_messages.h"

#include "request.h"

namespace {

constexpr int kIntIn = packed_flag(kByValue, kIn, ZD_TYPE_PLS_INT, EXT_TYPE_INT);
constexpr int kDoubleIn = packed_flag(kByValue, kIn, ZD_TYPE_BIN_DOUBLE, EXT_TYPE_DOUBLE);
constexpr int kTextIn = packed_flag(EPA_CALL_BY_REFERENCE, kIn, ZD_TYPE_VARCHAR, EXT_TYPE_STRING);
constexpr int kTextOut = packed_flag(EPA_CALL_BY_REFERENCE, kOut, ZD_TYPE_VARCHAR, EXT_TYPE_STRING);

// Types as the database numbers them.
constexpr int kNumber = ZD_TYPE_NUMBER;
constexpr int kVarchar = ZD_TYPE_VARCHAR;
constexpr int kDate = ZD_TYPE_DATE;

} // namespace

const SampleCall kSampleCall = {
    "/usr/local/lib/zdepl/routines/libaddress.so",
    "format_address",
    1 << 8,
    kReturnsInt,
    {{kIntIn, 4, 4, "\x2a\0\0\0"},
     {kTextIn, 26, 26, "Invalidenstr. 43, 10115 BE"},
     {kDoubleIn, 8, 8, "\0\0\0\0\0\0\xf8\x3f"},
     {kTextIn, 11, 11, "de_DE.UTF-8"},
     {kTextOut, 256, 0, ""}},
};

const SamplePrefetch kSamplePrefetch = {
    0x1122334455667788,
    0,
    7,
    0,
    {{"CUSTOMER_ID", kNumber, 10, 0, 1, 22},
     {"FIRST_NAME", kVarchar, 40, 0, 1, 40},
     {"LAST_NAME", kVarchar, 40, 0, 1, 40},
     {"BIRTHDAY", kDate, 0, 0, 0, 8},
     {"STREET", kVarchar, 100, 0, 0, 100},
     {"CITY", kVarchar, 60, 0, 0, 60},
     {"POSTAL_CODE", kVarchar, 12, 0, 0, 12},
     {"COUNTRY", kVarchar, 2, 0, 1, 2},
     {"PHONE", kVarchar, 24, 0, 0, 24},
     {"EMAIL", kVarchar, 254, 0, 0, 254},
     {"CREDIT_LIMIT", kNumber, 12, 2, 0, 22},
     {"BALANCE", kNumber, 12, 2, 1, 22},
     {"DISCOUNT", kNumber, 5, 4, 0, 22},
     {"CURRENCY", kVarchar, 3, 0, 1, 3},
     {"ACCOUNT_MANAGER_ID", kNumber, 10, 0, 0, 22},
     {"CREATED_AT", kDate, 0, 0, 1, 8},
     {"CHANGED_AT", kDate, 0, 0, 1, 8},
     {"LAST_ORDER_ID", kNumber, 18, 0, 0, 22},
     {"STATUS", kVarchar, 16, 0, 1, 16},
     {"REMARKS", kVarchar, 4000, 0, 0, 4000}},
    100,
    0,
    32768,
};
