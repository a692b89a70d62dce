// What does a received message cost? Decoded (verified, parsed), every field read, and what was
// allocated for it freed: beside FlatBuffers, Cap'n Proto and protocol buffers with the same
// fields.

#include <benchmark/benchmark.h>

#include <google/protobuf/arena.h>

#include <vector>

#include "common/alloc/region_clialloc.h"
#include "common/alloc/system_clialloc.h"
#include "encoders.h"

namespace {

// What a reader of every field does with it, alike for all.
class Digest {
  public:
    void add(uint64_t value) { sum_ += value; }
    void add(int32_t value) { sum_ += static_cast<uint32_t>(value); }
    void add(const void *bytes, size_t size) {
        sum_ += size;
        if (size > 0)
            sum_ += *static_cast<const unsigned char *>(bytes);
    }
    uint64_t sum() const { return sum_; }

  private:
    uint64_t sum_ = 0;
};

uint64_t digest_of_call() {
    Digest digest;
    digest.add(kSampleCall.library_path, strlen(kSampleCall.library_path));
    digest.add(kSampleCall.function_name, strlen(kSampleCall.function_name));
    digest.add(kSampleCall.property);
    digest.add(kSampleCall.return_flag);
    for (const SampleParam &param : kSampleCall.param) {
        digest.add(param.flag);
        digest.add(param.maxlen);
        digest.add(param.bytes, static_cast<size_t>(param.len));
    }
    return digest.sum();
}

uint64_t digest_of_prefetch() {
    const SamplePrefetch &sample = kSamplePrefetch;
    Digest digest;
    digest.add(sample.ppid);
    digest.add(sample.affected_cnt);
    digest.add(sample.csr_id);
    digest.add(kColumns);
    digest.add(sample.hidden_col_cnt);
    for (const SampleColumn &column : sample.column) {
        digest.add(column.name, strlen(column.name));
        digest.add(column.data_type);
        digest.add(column.precision);
        digest.add(column.scale);
        digest.add(column.etc_meta);
        digest.add(column.max_size);
    }
    digest.add(sample.row_cnt);
    digest.add(sample.is_fetch_completed);
    digest.add(sample.row_chunk_size);
    return digest.sum();
}

// ---- We: from header and body, as they come from a socket

void add(Digest &digest, const zdmsg_str_t &str) {
    digest.add(str.data, static_cast<size_t>(str.len));
}

template <class Record>
class ZdeplMessage {
  public:
    ZdeplMessage(allocator_t *alloc, char *bytes) : alloc_(alloc) {
        memcpy(&record_.base.type, bytes, ZDMSG_HDR_SIZE);
        record_.base.type =
            static_cast<int32_t>(__builtin_bswap32(static_cast<uint32_t>(record_.base.type)));
        record_.base.body_size = __builtin_bswap32(record_.base.body_size);
        zdmsg_deserialize_body(alloc, &record_.base, bytes + ZDMSG_HDR_SIZE);
    }
    ~ZdeplMessage() { zdmsg_free(alloc_, &record_.base); }

    const Record &operator*() const { return record_; }

  private:
    allocator_t *alloc_;
    Record record_;
};

class ZdeplDecoder {
  public:
    using Encoder = ZdeplEncoder;

    explicit ZdeplDecoder(allocator_t *alloc = &_system_allocator) : alloc_(alloc) {}

    uint64_t call(std::vector<char> &bytes) {
        const ZdeplMessage<zdmsg_extproc_execute_t> message(alloc_, bytes.data());
        const zdmsg_extproc_execute_t &call = *message;
        Digest digest;
        add(digest, call.library_path);
        add(digest, call.function_name);
        digest.add(call.property);
        digest.add(call.return_flag);
        for (int i = 0; i < call.param.array_cnt; i++) {
            const zdmsg_struct_extproc_param_t &param = call.param.data[i];
            digest.add(param.flag);
            digest.add(param.maxlen);
            add(digest, param.data_value);
        }
        return digest.sum();
    }

    uint64_t prefetch(std::vector<char> &bytes) {
        const ZdeplMessage<zdmsg_execute_prefetch_reply_t> message(alloc_, bytes.data());
        const zdmsg_execute_prefetch_reply_t &reply = *message;
        Digest digest;
        uint64_t ppid;
        memcpy(&ppid, reply.ppid, sizeof ppid);
        digest.add(ppid);
        digest.add(reply.affected_cnt);
        digest.add(reply.csr_id);
        digest.add(reply.col_cnt);
        digest.add(reply.hidden_col_cnt);
        for (int i = 0; i < reply.col_meta.array_cnt; i++) {
            const zdmsg_struct_column_desc_t &column = reply.col_meta.data[i];
            add(digest, column.name);
            digest.add(column.data_type);
            digest.add(column.precision);
            digest.add(column.scale);
            digest.add(column.etc_meta);
            digest.add(column.max_size);
        }
        digest.add(reply.row_cnt);
        digest.add(reply.is_fetch_completed);
        digest.add(reply.row_chunk_size);
        return digest.sum();
    }

  private:
    allocator_t *alloc_;
};

// With the allocator that the agent decodes with; the other one takes from the heap, as peers do.
class ZdeplRegionDecoder : public ZdeplDecoder {
  public:
    ZdeplRegionDecoder()
        : ZdeplDecoder(
              real_sys_region_allocator_new(&_system_allocator, "decode_bench", __LINE__)) {}
};

// ---- Peers

class FlatBuffersDecoder {
  public:
    using Encoder = FlatBuffersEncoder;

    uint64_t call(std::vector<char> &bytes) {
        const flat::Call *const call = verified<flat::Call>(bytes);
        if (call == nullptr)
            return 0;
        Digest digest;
        add(digest, call->library_path());
        add(digest, call->function_name());
        digest.add(call->property());
        digest.add(call->return_flag());
        for (const flat::Param *const param : *call->param()) {
            digest.add(param->flag());
            digest.add(param->maxlen());
            add(digest, param->data_value());
        }
        return digest.sum();
    }

    uint64_t prefetch(std::vector<char> &bytes) {
        const flat::Prefetch *const reply = verified<flat::Prefetch>(bytes);
        if (reply == nullptr)
            return 0;
        Digest digest;
        digest.add(uint64_t{reply->ppid()});
        digest.add(reply->affected_cnt());
        digest.add(reply->csr_id());
        digest.add(reply->col_cnt());
        digest.add(reply->hidden_col_cnt());
        for (const flat::Column *const column : *reply->col_meta()) {
            add(digest, column->name());
            digest.add(column->data_type());
            digest.add(column->precision());
            digest.add(column->scale());
            digest.add(column->etc_meta());
            digest.add(column->max_size());
        }
        digest.add(reply->row_cnt());
        digest.add(reply->is_fetch_completed());
        digest.add(reply->row_chunk_size());
        return digest.sum();
    }

  private:
    template <class Vector>
    static void add(Digest &digest, const Vector *vector) {
        digest.add(vector->data(), vector->size());
    }

    template <class Root>
    static const Root *verified(const std::vector<char> &bytes) {
        const auto *const data = reinterpret_cast<const uint8_t *>(bytes.data());
        flatbuffers::Verifier verifier(data, bytes.size());
        return verifier.VerifyBuffer<Root>(nullptr) ? flatbuffers::GetRoot<Root>(data) : nullptr;
    }
};

// Checks what it hands out as it hands it out.
class CapnProtoDecoder {
  public:
    using Encoder = CapnProtoEncoder;

    uint64_t call(std::vector<char> &bytes) {
        capnp::FlatArrayMessageReader message(words(bytes));
        const auto call = message.getRoot<capn::Call>();
        Digest digest;
        add(digest, call.getLibraryPath());
        add(digest, call.getFunctionName());
        digest.add(call.getProperty());
        digest.add(call.getReturnFlag());
        for (const auto param : call.getParam()) {
            digest.add(param.getFlag());
            digest.add(param.getMaxlen());
            add(digest, param.getDataValue());
        }
        return digest.sum();
    }

    uint64_t prefetch(std::vector<char> &bytes) {
        capnp::FlatArrayMessageReader message(words(bytes));
        const auto reply = message.getRoot<capn::Prefetch>();
        Digest digest;
        digest.add(uint64_t{reply.getPpid()});
        digest.add(reply.getAffectedCnt());
        digest.add(reply.getCsrId());
        digest.add(reply.getColCnt());
        digest.add(reply.getHiddenColCnt());
        for (const auto column : reply.getColMeta()) {
            add(digest, column.getName());
            digest.add(column.getDataType());
            digest.add(column.getPrecision());
            digest.add(column.getScale());
            digest.add(column.getEtcMeta());
            digest.add(column.getMaxSize());
        }
        digest.add(reply.getRowCnt());
        digest.add(reply.getIsFetchCompleted());
        digest.add(reply.getRowChunkSize());
        return digest.sum();
    }

  private:
    template <class Array>
    static void add(Digest &digest, const Array &array) {
        digest.add(array.begin(), array.size());
    }

    static kj::ArrayPtr<const capnp::word> words(const std::vector<char> &bytes) {
        return kj::arrayPtr(reinterpret_cast<const capnp::word *>(bytes.data()),
                            bytes.size() / sizeof(capnp::word));
    }
};

uint64_t digest_of(const proto::Call &call) {
    Digest digest;
    digest.add(call.library_path().data(), call.library_path().size());
    digest.add(call.function_name().data(), call.function_name().size());
    digest.add(call.property());
    digest.add(call.return_flag());
    for (const proto::Param &param : call.param()) {
        digest.add(param.flag());
        digest.add(param.maxlen());
        digest.add(param.data_value().data(), param.data_value().size());
    }
    return digest.sum();
}

uint64_t digest_of(const proto::Prefetch &reply) {
    Digest digest;
    digest.add(uint64_t{reply.ppid()});
    digest.add(reply.affected_cnt());
    digest.add(reply.csr_id());
    digest.add(reply.col_cnt());
    digest.add(reply.hidden_col_cnt());
    for (const proto::Column &column : reply.col_meta()) {
        digest.add(column.name().data(), column.name().size());
        digest.add(column.data_type());
        digest.add(column.precision());
        digest.add(column.scale());
        digest.add(column.etc_meta());
        digest.add(column.max_size());
    }
    digest.add(reply.row_cnt());
    digest.add(reply.is_fetch_completed());
    digest.add(reply.row_chunk_size());
    return digest.sum();
}

class ProtobufDecoder {
  public:
    using Encoder = ProtobufEncoder;

    uint64_t call(std::vector<char> &bytes) { return decoded<proto::Call>(bytes); }
    uint64_t prefetch(std::vector<char> &bytes) { return decoded<proto::Prefetch>(bytes); }

  private:
    template <class Message>
    static uint64_t decoded(const std::vector<char> &bytes) {
        Message message;
        if (!message.ParseFromArray(bytes.data(), static_cast<int>(bytes.size())))
            return 0;
        return digest_of(message);
    }
};

// The arena takes its blocks from the heap, like everybody else here.
class ProtobufArenaDecoder {
  public:
    using Encoder = ProtobufEncoder;

    uint64_t call(std::vector<char> &bytes) { return decoded<proto::Call>(bytes); }
    uint64_t prefetch(std::vector<char> &bytes) { return decoded<proto::Prefetch>(bytes); }

  private:
    template <class Message>
    static uint64_t decoded(const std::vector<char> &bytes) {
        google::protobuf::Arena arena;
        Message *const message = google::protobuf::Arena::CreateMessage<Message>(&arena);
        if (!message->ParseFromArray(bytes.data(), static_cast<int>(bytes.size())))
            return 0;
        return digest_of(*message);
    }
};

// ---- Questions

std::vector<char> copy_of(Bytes bytes) {
    return {bytes.begin(), bytes.end()};
}

template <class Decoder>
void decode_call(benchmark::State &state) {
    Decoder decoder;
    typename Decoder::Encoder encoder;
    std::vector<char> bytes = copy_of(encoder.call());
    if (decoder.call(bytes) != digest_of_call())
        state.SkipWithError("not the fields that were sent");
    for (auto _ : state)
        benchmark::DoNotOptimize(decoder.call(bytes));
}

template <class Decoder>
void decode_prefetch(benchmark::State &state) {
    Decoder decoder;
    typename Decoder::Encoder encoder;
    std::vector<char> bytes = copy_of(encoder.prefetch());
    if (decoder.prefetch(bytes) != digest_of_prefetch())
        state.SkipWithError("not the fields that were sent");
    for (auto _ : state)
        benchmark::DoNotOptimize(decoder.prefetch(bytes));
}

#define QUESTION(decode, name)                                                                     \
    BENCHMARK(decode<ZdeplDecoder>)->Name(name "/zdepl");                                          \
    BENCHMARK(decode<ZdeplRegionDecoder>)->Name(name "/zdepl region");                             \
    BENCHMARK(decode<FlatBuffersDecoder>)->Name(name "/FlatBuffers");                              \
    BENCHMARK(decode<CapnProtoDecoder>)->Name(name "/Cap'n Proto");                                \
    BENCHMARK(decode<ProtobufDecoder>)->Name(name "/protobuf");                                    \
    BENCHMARK(decode<ProtobufArenaDecoder>)->Name(name "/protobuf, arena")

QUESTION(decode_call, "decode call, five parameters");
QUESTION(decode_prefetch, "decode prefetch reply, 20 columns");

} // namespace
