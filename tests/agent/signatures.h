/* The table of generated calls (gen_signatures.py): each as a request would describe it, and as a
 * plain C call with the same values. */

#ifndef TESTS_AGENT_SIGNATURES_H
#define TESTS_AGENT_SIGNATURES_H

#include <string.h>

#ifdef __cplusplus
extern "C" {
#endif

enum { OUTCOME_VALUE_MAX = 2048, OUTCOME_VALUES_MAX = 41 };

struct outcome_value {
    int length;
    unsigned char bytes[OUTCOME_VALUE_MAX];
};

/* What a plain call gave: the bytes that a reply must carry. */
struct outcome {
    struct outcome_value result; /* the bytes that the result's type defines */
    int out_cnt;
    struct outcome_value out[OUTCOME_VALUES_MAX];
};

struct signature_param {
    int flag;
    int maxlen;
    int length;
    const char *value;
};

struct signature {
    const char *function;
    int property;
    int return_flag;
    int result_length; /* of the reply's entry; -1: as long as the outcome's result */
    int param_cnt;
    const struct signature_param *params;
    void (*call)(void *function, struct outcome *outcome);
};

extern const struct signature signatures[];
extern const int signature_cnt;

#ifdef __cplusplus
}
#endif

static inline void record_value(struct outcome_value *value, const void *bytes, int length) {
    value->length = length;
    if (length > 0)
        memcpy(value->bytes, bytes, (size_t)length);
}

static inline void record_result(struct outcome *outcome, const void *bytes, int length) {
    record_value(&outcome->result, bytes, length);
}

static inline void record_out(struct outcome *outcome, const void *bytes, int length) {
    record_value(&outcome->out[outcome->out_cnt++], bytes, length);
}

/* The routines look only whether they have a context. */
static inline struct epa_util_context_s *plain_context(void) {
    static long long context[6];
    return (struct epa_util_context_s *)(void *)context;
}

#endif
