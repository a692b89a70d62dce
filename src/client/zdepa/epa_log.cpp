#include "client/zdepa/epa_log.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "common/alloc/system_clialloc.h"

namespace {

constexpr char unit[] = "epa_log";
constexpr int64_t kMessageStep = 1024;

template <class T>
T read_as(const void *data) {
    T value;
    memcpy(&value, data, sizeof value);
    return value;
}

// The whole message in memory of alloc, or NULL with the size that could not be had.
char *format_message(allocator_t *alloc, const char *format, va_list args, int64_t *size) {
    *size = kMessageStep;
    char *buffer = static_cast<char *>(alloc->desc->func_calloc(alloc, *size, unit, __LINE__));
    while (buffer != nullptr) {
        va_list copy;
        va_copy(copy, args);
        const int length = vsnprintf(buffer, static_cast<size_t>(*size), format, copy);
        va_end(copy);
        if (length >= 0 && length < *size)
            break;
        *size += kMessageStep;
        buffer =
            static_cast<char *>(alloc->desc->func_realloc(alloc, buffer, *size, unit, __LINE__));
    }
    return buffer;
}

} // namespace

void epa_log_print_data(const char *tab, zd_type_ext_t zd_type_ext, const void *data) {
    switch (zd_type_ext) {
    case EXT_TYPE_SHORT:
    case EXT_TYPE_USHORT:
        EPA_LOG(unit, LOG_LVL_TRACE, "%sdata : [%d]", tab, read_as<int16_t>(data));
        break;
    case EXT_TYPE_INT:
    case EXT_TYPE_UINT:
        EPA_LOG(unit, LOG_LVL_TRACE, "%sdata : [%d]", tab, read_as<int32_t>(data));
        break;
    case EXT_TYPE_LONG:
    case EXT_TYPE_ULONG:
        EPA_LOG(unit, LOG_LVL_TRACE, "%sdata : [%ld]", tab, read_as<int64_t>(data));
        break;
    case EXT_TYPE_FLOAT:
        EPA_LOG(unit, LOG_LVL_TRACE, "%sdata : [%f]", tab,
                static_cast<double>(read_as<float>(data)));
        break;
    case EXT_TYPE_DOUBLE:
        EPA_LOG(unit, LOG_LVL_TRACE, "%sdata : [%f]", tab, read_as<double>(data));
        break;
    case EXT_TYPE_STRING:
    case EXT_TYPE_ZDSTRING:
        EPA_LOG(unit, LOG_LVL_TRACE, "%sdata : [%s]", tab, static_cast<const char *>(data));
        break;
    default:
        break;
    }
}

void epa_log_print_value(const char *tab, zd_type_ext_t zd_type_ext, const char *data, int length) {
    char whole[sizeof(int64_t)] = {};
    const bool is_text = zd_type_ext == EXT_TYPE_STRING || zd_type_ext == EXT_TYPE_ZDSTRING;
    if (data == nullptr && !is_text)
        return;
    if (!is_text && length < static_cast<int>(sizeof whole)) {
        if (length > 0)
            memcpy(whole, data, static_cast<size_t>(length));
        data = whole;
    }
    epa_log_print_data(tab, zd_type_ext, data);
}

void epa_exit_abnormally(const char *, int, const char *format, ...) {
    FILE *const file = fopen("./extproc.err", "a+b");
    if (file == nullptr)
        exit(1);
    allocator_t *const alloc = epa_ctx_mgr_ != nullptr ? epa_ctx_mgr_->alloc : &_system_allocator;
    int64_t size;
    va_list args;
    va_start(args, format);
    char *const message = format_message(alloc, format, args, &size);
    va_end(args);
    if (message != nullptr)
        fprintf(file, "%s\n", message);
    else
        fprintf(file, "malloc [%d] failed\n", static_cast<int>(size));
    fflush(file);
    fclose(file);
    if (message != nullptr)
        zd_free(alloc, message, unit, __LINE__);
    exit(1);
}
