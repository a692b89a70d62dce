// What does calling a function with run-time arguments cost? The trampoline, with its registers
// laid out as a descriptor holds them, beside libffi with a call interface prepared once.

#include <benchmark/benchmark.h>
#include <ffi.h>

#include <array>

#include "client/zdepa/dlc_x64_system_v.h"

namespace {

__attribute__((noinline)) int64_t five_ints(int a, int b, int c, int d, int e) {
    return a + b + c + d + e;
}

__attribute__((noinline)) double nine_mixed(int a, double b, int64_t c, double d, const char *e,
                                            double f, int g, double h, int64_t i) {
    return a + b + static_cast<double>(c) + d + e[0] + f + g + h + static_cast<double>(i);
}

void trampoline_five_ints(benchmark::State &state) {
    const std::array<int64_t, 6> ints = {1, 2, 3, 4, 5};
    const std::array<double, 8> floats = {};
    for (auto _ : state)
        benchmark::DoNotOptimize(dl_call_linux_x64(0, nullptr, ints.data(), floats.data(),
                                                   reinterpret_cast<void *>(five_ints)));
}
BENCHMARK(trampoline_five_ints)->Name("call, five ints/zdepl");

void libffi_five_ints(benchmark::State &state) {
    ffi_cif cif;
    ffi_type *types[] = {&ffi_type_sint, &ffi_type_sint, &ffi_type_sint, &ffi_type_sint,
                         &ffi_type_sint};
    ffi_prep_cif(&cif, FFI_DEFAULT_ABI, 5, &ffi_type_sint64, types);
    int values[] = {1, 2, 3, 4, 5};
    void *arguments[] = {&values[0], &values[1], &values[2], &values[3], &values[4]};
    for (auto _ : state) {
        ffi_arg result;
        ffi_call(&cif, FFI_FN(five_ints), &result, arguments);
        benchmark::DoNotOptimize(result);
    }
}
BENCHMARK(libffi_five_ints)->Name("call, five ints/libffi ffi_call");

constexpr char kText[] = "text";

void trampoline_nine_mixed(benchmark::State &state) {
    const std::array<int64_t, 6> ints = {1, 3, reinterpret_cast<int64_t>(kText), 7, 9};
    const std::array<double, 8> floats = {2, 4, 6, 8};
    const auto call = dlc_view<ext_func_dbl_t>();
    for (auto _ : state)
        benchmark::DoNotOptimize(
            call(0, nullptr, ints.data(), floats.data(), reinterpret_cast<void *>(nine_mixed)));
}
BENCHMARK(trampoline_nine_mixed)->Name("call, nine mixed/zdepl");

void libffi_nine_mixed(benchmark::State &state) {
    ffi_cif cif;
    ffi_type *types[] = {&ffi_type_sint,   &ffi_type_double,  &ffi_type_sint64,
                         &ffi_type_double, &ffi_type_pointer, &ffi_type_double,
                         &ffi_type_sint,   &ffi_type_double,  &ffi_type_sint64};
    ffi_prep_cif(&cif, FFI_DEFAULT_ABI, 9, &ffi_type_double, types);
    int a = 1, g = 7;
    double b = 2, d = 4, f = 6, h = 8;
    int64_t c = 3, i = 9;
    const char *e = kText;
    void *arguments[] = {&a, &b, &c, &d, &e, &f, &g, &h, &i};
    for (auto _ : state) {
        double result;
        ffi_call(&cif, FFI_FN(nine_mixed), &result, arguments);
        benchmark::DoNotOptimize(result);
    }
}
BENCHMARK(libffi_nine_mixed)->Name("call, nine mixed/libffi ffi_call");

} // namespace
