// What does a message cost on its way to bytes? From the setters to the finished bytes, beside
// FlatBuffers, Cap'n Proto and protocol buffers with the same fields.

#include <benchmark/benchmark.h>

#include "encoders.h"

namespace {

template <class Encoder>
void encode_call(benchmark::State &state) {
    Encoder encoder;
    for (auto _ : state) {
        benchmark::DoNotOptimize(encoder.call().data());
        benchmark::ClobberMemory();
    }
}
BENCHMARK(encode_call<ZdeplEncoder>)->Name("encode call, five parameters/zdepl");
BENCHMARK(encode_call<FlatBuffersEncoder>)->Name("encode call, five parameters/FlatBuffers");
BENCHMARK(encode_call<CapnProtoEncoder>)->Name("encode call, five parameters/Cap'n Proto");
BENCHMARK(encode_call<ProtobufEncoder>)->Name("encode call, five parameters/protobuf");

template <class Encoder>
void encode_prefetch(benchmark::State &state) {
    Encoder encoder;
    for (auto _ : state) {
        benchmark::DoNotOptimize(encoder.prefetch().data());
        benchmark::ClobberMemory();
    }
}
BENCHMARK(encode_prefetch<ZdeplEncoder>)->Name("encode prefetch reply, 20 columns/zdepl");
BENCHMARK(encode_prefetch<FlatBuffersEncoder>)
    ->Name("encode prefetch reply, 20 columns/FlatBuffers");
BENCHMARK(encode_prefetch<CapnProtoEncoder>)->Name("encode prefetch reply, 20 columns/Cap'n Proto");
BENCHMARK(encode_prefetch<ProtobufEncoder>)->Name("encode prefetch reply, 20 columns/protobuf");

} // namespace
