// A call request, as a record and as the bytes that the server sends.

#ifndef BENCH_REQUEST_H
#define BENCH_REQUEST_H

#include <string>
#include <vector>

#include "client/zdepa/epa_type.h"
#include "common/zdmsg/zdmsg_setter_gen.h"

constexpr int kByValue = 0;
constexpr int kIn = 1;
constexpr int kOut = 2;

constexpr int packed_flag(int call_method, int mode, zd_type_t zd_type, zd_type_ext_t zd_type_ext) {
    return call_method << 24 | mode << 16 | zd_type << 8 | zd_type_ext;
}

struct Argument {
    int flag;
    int maxlen;
    std::string bytes;
};

Argument int_argument(int32_t value);
Argument double_argument(double value);
Argument text_argument(const char *value);
Argument out_text_argument(int capacity);

constexpr int kReturnsNothing = 0;
constexpr int kReturnsInt = packed_flag(kByValue, kIn, ZD_TYPE_PLS_INT, EXT_TYPE_INT);
constexpr int kReturnsDouble = packed_flag(kByValue, kIn, ZD_TYPE_BIN_DOUBLE, EXT_TYPE_DOUBLE);
constexpr int kReturnsText =
    packed_flag(EPA_CALL_BY_REFERENCE, kIn, ZD_TYPE_VARCHAR, EXT_TYPE_STRING);

enum class Context { without, with };

class Request {
  public:
    // A call of a function of bench_routines.c.
    Request(const char *function, int return_flag, std::vector<Argument> arguments,
            Context context = Context::without, const char *library = BENCH_ROUTINES_LIBRARY);
    Request(const Request &) = delete;
    Request &operator=(const Request &) = delete;

    zdmsg_t *record() { return &record_.base; }
    std::vector<char> wire(); // header and body

  private:
    std::string library_;
    std::string function_;
    std::vector<Argument> arguments_;
    std::vector<zdmsg_struct_extproc_param_t> params_;
    zdmsg_extproc_execute_t record_;
};

// What every request benchmark calls: five_ints(1, 2, 3, 4, 5), which returns 15.
std::vector<Argument> five_int_arguments();
constexpr int kFiveIntsResult = 15;

#endif
