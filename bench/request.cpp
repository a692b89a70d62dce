#include "request.h"

#include "common/zdmsg/zdmsg.h"

namespace {

template <class T>
std::string bytes_of(const T &value) {
    return std::string(reinterpret_cast<const char *>(&value), sizeof value);
}

} // namespace

Argument int_argument(int32_t value) {
    return {packed_flag(kByValue, kIn, ZD_TYPE_PLS_INT, EXT_TYPE_INT), sizeof value,
            bytes_of(value)};
}

Argument double_argument(double value) {
    return {packed_flag(kByValue, kIn, ZD_TYPE_BIN_DOUBLE, EXT_TYPE_DOUBLE), sizeof value,
            bytes_of(value)};
}

Argument text_argument(const char *value) {
    const std::string bytes = value;
    return {packed_flag(EPA_CALL_BY_REFERENCE, kIn, ZD_TYPE_VARCHAR, EXT_TYPE_STRING),
            static_cast<int>(bytes.size()), bytes};
}

Argument out_text_argument(int capacity) {
    return {packed_flag(EPA_CALL_BY_REFERENCE, kOut, ZD_TYPE_VARCHAR, EXT_TYPE_STRING), capacity,
            ""};
}

Request::Request(const char *function, int return_flag, std::vector<Argument> arguments,
                 Context context, const char *library)
    : library_(library), function_(function), arguments_(std::move(arguments)) {
    for (Argument &argument : arguments_) {
        zdmsg_struct_extproc_param_t param;
        zdmsg_struct_extproc_param_set(&param, argument.flag, argument.maxlen,
                                       static_cast<int>(argument.bytes.size()),
                                       argument.bytes.data());
        params_.push_back(param);
    }
    zdmsg_extproc_execute_set(&record_, library_.data(), function_.data(),
                              context == Context::with ? 1 << 8 : 0, return_flag,
                              static_cast<int>(params_.size()), params_.data());
}

std::vector<char> Request::wire() {
    std::vector<char> bytes(static_cast<size_t>(zdmsg_get_msg_raw_size(record())));
    zdmsg_serialize(nullptr, record(), bytes.data());
    return bytes;
}

std::vector<Argument> five_int_arguments() {
    return {int_argument(1), int_argument(2), int_argument(3), int_argument(4), int_argument(5)};
}
