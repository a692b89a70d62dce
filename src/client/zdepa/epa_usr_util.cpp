#include "client/zdepa/epa_usr_util.h"

#include "client/common/client_assert.h"
#include "client/common/client_try.h"
#include "common/ec.h"
#include "common/zd_err.h"
#include "common/zd_err_info.h"

namespace {

constexpr char unit[] = "epa_usr_util";
constexpr int kUserErrorFirst = 20000;
constexpr int kUserErrorLast = 20999;

void raise_for_routine(ExtProcContext *context, int errcode, const char *text,
                       const char *function) {
    if (errcode <= 0)
        return;
    zd_err_stack_t *const stack = context->errstack;
    if (errcode >= kUserErrorFirst && errcode <= kUserErrorLast)
        zd_push_and_throw(stack, unit, __LINE__, function, -errcode, text);
    // The text of a known code may have conversions that a routine cannot supply values for; they
    // find a zero each, which every conversion can print.
    if (zd_err_info_exist(-errcode))
        zd_push_and_throw(stack, unit, __LINE__, function, -errcode, 0L, 0L, 0L, 0L, 0L, 0L, 0L, 0L,
                          0L, 0L, 0L, 0L, 0L, 0L, 0L, 0L);
    zd_push_and_throw(stack, unit, __LINE__, function, ERROR_EPA_INVALID_ERROR_CODE,
                      static_cast<unsigned int>(errcode));
}

} // namespace

void *SQLExtProcDirectAllocMemory(ExtProcContext *epaCtx, size_t size) {
    allocator_t *const alloc = epaCtx->alloc;
    void *memory = nullptr;
    if (size <= INT64_MAX)
        memory = alloc->desc->func_malloc(alloc, static_cast<int64_t>(size), unit, __LINE__);
    if (memory == nullptr) {
        ZD_ASSERT(unit, alloc->desc->func_throw != NULL);
        alloc->desc->func_throw(alloc);
    }
    return memory;
}

void SQLExtProcDirectRaiseError(ExtProcContext *epaCtx, int errcode) {
    raise_for_routine(epaCtx, errcode, "", "SQLExtProcDirectRaiseError");
}

void SQLExtProcDirectRaiseErrorWithMsg(ExtProcContext *epaCtx, int errcode, char *errmsg) {
    raise_for_routine(epaCtx, errcode, errmsg, "SQLExtProcDirectRaiseErrorWithMsg");
}
