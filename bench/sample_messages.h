// What the message benchmarks send: a call with five parameters, and the reply that describes the
// twenty columns of a query. The values stand in a unit of their own, so that no compiler can work
// out the length of a text or the bytes of a message beforehand.

#ifndef BENCH_SAMPLE_MESSAGES_H
#define BENCH_SAMPLE_MESSAGES_H

#include <stdint.h>

constexpr int kParams = 5;
constexpr int kColumns = 20;

struct SampleParam {
    int flag;
    int maxlen;
    int len;
    const char *bytes;
};

struct SampleCall {
    const char *library_path;
    const char *function_name;
    int property;
    int return_flag;
    SampleParam param[kParams];
};

struct SampleColumn {
    const char *name;
    int data_type;
    int precision;
    int scale;
    int etc_meta;
    int max_size;
};

struct SamplePrefetch {
    uint64_t ppid;
    int affected_cnt;
    int csr_id;
    int hidden_col_cnt;
    SampleColumn column[kColumns];
    int row_cnt;
    int is_fetch_completed;
    int row_chunk_size;
};

extern const SampleCall kSampleCall;
extern const SamplePrefetch kSamplePrefetch;

#endif
