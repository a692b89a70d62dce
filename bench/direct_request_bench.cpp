// What does a whole in-process request cost? The direct form, from a decoded request to a reply,
// beside what a host would write by hand with libffi: open the library (it is open already), look
// the function up, prepare the call interface, call.

#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <ffi.h>
#include <stdlib.h>

#include "child.h"
#include "client/zdepa/epa_context_mgr.h"
#include "client/zdepa/epa_init.h"
#include "client/zdepa/epa_proc.h"
#include "common/alloc/system_clialloc.h"
#include "common/zdmsg/zdmsg.h"
#include "request.h"

namespace {

constexpr int kParams = 5;

void direct_form(benchmark::State &state) {
    const AgentHome home;
    epa_init_dir();
    Request request("five_ints", kReturnsInt, five_int_arguments());
    // The caller's memory is the process heap: the reply's entries and, of a result by value, its
    // copy go back to it.
    zdmsg_extproc_execute_reply_t reply;
    for (auto _ : state) {
        epa_process_request_dir(request.record(), &reply.base, &_system_allocator);
        char *const result = reply.reply_param.data[0].data_value.data;
        benchmark::DoNotOptimize(result);
        free(result);
        zdmsg_free(&_system_allocator, &reply.base);
    }
    epa_process_request_dir(request.record(), &reply.base, &_system_allocator);
    if (reply.errstack.len != 0 ||
        *reinterpret_cast<int32_t *>(reply.reply_param.data[0].data_value.data) != kFiveIntsResult)
        state.SkipWithError("wrong reply");
    free(reply.reply_param.data[0].data_value.data);
    zdmsg_free(&_system_allocator, &reply.base);
    epa_context_mgr_delete();
}
BENCHMARK(direct_form)->Name("in-process request, five ints/zdepl direct form");

void by_hand(benchmark::State &state) {
    void *const opened = dlopen(BENCH_ROUTINES_LIBRARY, RTLD_LAZY | RTLD_GLOBAL);
    int values[kParams] = {1, 2, 3, 4, 5};
    ffi_arg result = 0;
    for (auto _ : state) {
        void *const handle = dlopen(BENCH_ROUTINES_LIBRARY, RTLD_LAZY | RTLD_GLOBAL);
        void *const function = dlsym(handle, "five_ints");
        ffi_cif cif;
        ffi_type *types[kParams] = {&ffi_type_sint, &ffi_type_sint, &ffi_type_sint, &ffi_type_sint,
                                    &ffi_type_sint};
        ffi_prep_cif(&cif, FFI_DEFAULT_ABI, kParams, &ffi_type_sint, types);
        void *arguments[kParams] = {&values[0], &values[1], &values[2], &values[3], &values[4]};
        ffi_call(&cif, FFI_FN(function), &result, arguments);
        benchmark::DoNotOptimize(result);
        dlclose(handle);
    }
    if (result != kFiveIntsResult)
        state.SkipWithError("wrong result");
    dlclose(opened);
}
BENCHMARK(by_hand)->Name("in-process request, five ints/dlopen dlsym libffi");

} // namespace
