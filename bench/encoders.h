// The sample messages as bytes, in our form and in those of the peers, each written as its makers
// recommend to write many messages: builders and buffers are used again where that is possible.
// What call() and prefetch() return holds until the next one.

#ifndef BENCH_ENCODERS_H
#define BENCH_ENCODERS_H

#include <capnp/message.h>
#include <capnp/serialize.h>
#include <flatbuffers/flatbuffers.h>
#include <string.h>

#include <array>
#include <span>

#include "common/zdmsg/zdmsg.h"
#include "common/zdmsg/zdmsg_setter_gen.h"
#include "messages.capnp.h"
#include "messages.pb.h"
#include "messages_generated.h"
#include "sample_messages.h"

using Bytes = std::span<const char>;

constexpr size_t kRoom = 4096;

// Header and body.
class ZdeplEncoder {
  public:
    Bytes call() {
        const SampleCall &sample = kSampleCall;
        std::array<zdmsg_struct_extproc_param_t, kParams> params;
        for (int i = 0; i < kParams; i++) {
            const SampleParam &from = sample.param[i];
            zdmsg_struct_extproc_param_set(&params[i], from.flag, from.maxlen, from.len,
                                           from.bytes);
        }
        zdmsg_extproc_execute_t record;
        zdmsg_extproc_execute_set(&record, sample.library_path, sample.function_name,
                                  sample.property, sample.return_flag, kParams, params.data());
        return serialized(&record.base);
    }

    Bytes prefetch() {
        const SamplePrefetch &sample = kSamplePrefetch;
        std::array<zdmsg_struct_column_desc_t, kColumns> columns;
        for (int i = 0; i < kColumns; i++) {
            const SampleColumn &from = sample.column[i];
            zdmsg_struct_column_desc_set(&columns[i], from.name, from.data_type, from.precision,
                                         from.scale, from.etc_meta, from.max_size);
        }
        zdmsg_execute_prefetch_reply_t record;
        zdmsg_execute_prefetch_reply_set(
            &record, reinterpret_cast<const char *>(&sample.ppid), sample.affected_cnt,
            sample.csr_id, kColumns, sample.hidden_col_cnt, kColumns, columns.data(),
            sample.row_cnt, sample.is_fetch_completed, sample.row_chunk_size);
        return serialized(&record.base);
    }

  private:
    // As the agent does it: measured, held against the room that there is, written.
    Bytes serialized(zdmsg_t *msg) {
        const size_t size = static_cast<size_t>(zdmsg_get_msg_raw_size(msg));
        if (size > buffer_.size())
            return {};
        zdmsg_serialize(nullptr, msg, buffer_.data());
        return {buffer_.data(), size};
    }

    std::array<char, kRoom> buffer_;
};

class FlatBuffersEncoder {
  public:
    Bytes call() {
        const SampleCall &sample = kSampleCall;
        builder_.Clear();
        std::array<flatbuffers::Offset<flat::Param>, kParams> params;
        for (int i = 0; i < kParams; i++) {
            const SampleParam &from = sample.param[i];
            const auto bytes =
                builder_.CreateVector(reinterpret_cast<const uint8_t *>(from.bytes), from.len);
            params[i] = flat::CreateParam(builder_, from.flag, from.maxlen, bytes);
        }
        const auto library = builder_.CreateString(sample.library_path);
        const auto function = builder_.CreateString(sample.function_name);
        builder_.Finish(flat::CreateCall(builder_, library, function, sample.property,
                                         sample.return_flag,
                                         builder_.CreateVector(params.data(), params.size())));
        return finished();
    }

    Bytes prefetch() {
        const SamplePrefetch &sample = kSamplePrefetch;
        builder_.Clear();
        std::array<flatbuffers::Offset<flat::Column>, kColumns> columns;
        for (int i = 0; i < kColumns; i++) {
            const SampleColumn &from = sample.column[i];
            columns[i] =
                flat::CreateColumn(builder_, builder_.CreateString(from.name), from.data_type,
                                   from.precision, from.scale, from.etc_meta, from.max_size);
        }
        builder_.Finish(flat::CreatePrefetch(
            builder_, sample.ppid, sample.affected_cnt, sample.csr_id, kColumns,
            sample.hidden_col_cnt, builder_.CreateVector(columns.data(), columns.size()),
            sample.row_cnt, sample.is_fetch_completed, sample.row_chunk_size));
        return finished();
    }

  private:
    Bytes finished() const {
        return {reinterpret_cast<const char *>(builder_.GetBufferPointer()), builder_.GetSize()};
    }

    flatbuffers::FlatBufferBuilder builder_{kRoom};
};

class CapnProtoEncoder {
  public:
    Bytes call() {
        const SampleCall &sample = kSampleCall;
        capnp::MallocMessageBuilder message(kj::arrayPtr(scratch_.data(), scratch_.size()));
        auto call = message.initRoot<capn::Call>();
        call.setLibraryPath(sample.library_path);
        call.setFunctionName(sample.function_name);
        call.setProperty(sample.property);
        call.setReturnFlag(sample.return_flag);
        auto params = call.initParam(kParams);
        for (int i = 0; i < kParams; i++) {
            const SampleParam &from = sample.param[i];
            auto param = params[static_cast<unsigned>(i)];
            param.setFlag(from.flag);
            param.setMaxlen(from.maxlen);
            param.setDataValue(kj::arrayPtr(reinterpret_cast<const kj::byte *>(from.bytes),
                                            static_cast<size_t>(from.len)));
        }
        return written(message);
    }

    Bytes prefetch() {
        const SamplePrefetch &sample = kSamplePrefetch;
        capnp::MallocMessageBuilder message(kj::arrayPtr(scratch_.data(), scratch_.size()));
        auto reply = message.initRoot<capn::Prefetch>();
        reply.setPpid(sample.ppid);
        reply.setAffectedCnt(sample.affected_cnt);
        reply.setCsrId(sample.csr_id);
        reply.setColCnt(kColumns);
        reply.setHiddenColCnt(sample.hidden_col_cnt);
        auto columns = reply.initColMeta(kColumns);
        for (int i = 0; i < kColumns; i++) {
            const SampleColumn &from = sample.column[i];
            auto column = columns[static_cast<unsigned>(i)];
            column.setName(from.name);
            column.setDataType(from.data_type);
            column.setPrecision(from.precision);
            column.setScale(from.scale);
            column.setEtcMeta(from.etc_meta);
            column.setMaxSize(from.max_size);
        }
        reply.setRowCnt(sample.row_cnt);
        reply.setIsFetchCompleted(sample.is_fetch_completed);
        reply.setRowChunkSize(sample.row_chunk_size);
        return written(message);
    }

  private:
    Bytes written(capnp::MessageBuilder &message) {
        kj::ArrayOutputStream stream(kj::arrayPtr(buffer_.data(), buffer_.size()));
        capnp::writeMessage(stream, message);
        const auto bytes = stream.getArray();
        return {reinterpret_cast<const char *>(bytes.begin()), bytes.size()};
    }

    std::array<capnp::word, kRoom / sizeof(capnp::word)> scratch_ = {};
    alignas(capnp::word) std::array<kj::byte, kRoom> buffer_;
};

class ProtobufEncoder {
  public:
    Bytes call() {
        const SampleCall &sample = kSampleCall;
        call_.Clear();
        call_.set_library_path(sample.library_path);
        call_.set_function_name(sample.function_name);
        call_.set_property(sample.property);
        call_.set_return_flag(sample.return_flag);
        for (const SampleParam &from : sample.param) {
            proto::Param *const param = call_.add_param();
            param->set_flag(from.flag);
            param->set_maxlen(from.maxlen);
            param->set_data_value(from.bytes, static_cast<size_t>(from.len));
        }
        return serialized(call_);
    }

    Bytes prefetch() {
        const SamplePrefetch &sample = kSamplePrefetch;
        prefetch_.Clear();
        prefetch_.set_ppid(sample.ppid);
        prefetch_.set_affected_cnt(sample.affected_cnt);
        prefetch_.set_csr_id(sample.csr_id);
        prefetch_.set_col_cnt(kColumns);
        prefetch_.set_hidden_col_cnt(sample.hidden_col_cnt);
        for (const SampleColumn &from : sample.column) {
            proto::Column *const column = prefetch_.add_col_meta();
            column->set_name(from.name);
            column->set_data_type(from.data_type);
            column->set_precision(from.precision);
            column->set_scale(from.scale);
            column->set_etc_meta(from.etc_meta);
            column->set_max_size(from.max_size);
        }
        prefetch_.set_row_cnt(sample.row_cnt);
        prefetch_.set_is_fetch_completed(sample.is_fetch_completed);
        prefetch_.set_row_chunk_size(sample.row_chunk_size);
        return serialized(prefetch_);
    }

  private:
    template <class Message>
    Bytes serialized(const Message &message) {
        const size_t size = message.ByteSizeLong(); // kept in the message for the next line
        if (size > buffer_.size())
            return {};
        message.SerializeWithCachedSizesToArray(reinterpret_cast<uint8_t *>(buffer_.data()));
        return {buffer_.data(), size};
    }

    proto::Call call_;
    proto::Prefetch prefetch_;
    std::array<char, kRoom> buffer_;
};

#endif
