// The agent's records and its thread-local state. A thread that enters the library has one
// context; everything that a request needs hangs on it or on the request's call descriptor.

#ifndef EPA_TYPE_H
#define EPA_TYPE_H

#include "client/common/log/client_log.h"
#include "common/alloc/allocator.h"
#include "common/list.h"
#include "common/zd_base.h"
#include "common/zd_err_stack.h"
#include "common/zd_type.h"
#include "common/zdmsg/zdmsg_record.h"

// Database environment and connection handles that travel between calls; the agent never looks
// into them.
typedef int64_t SQLHENV;
typedef int64_t SQLHDBC;

// The native type that the routine declares for a value.
typedef enum zd_type_ext_e ZD_ENUM_OF(int){
    EXT_TYPE_NONE = 0,      EXT_TYPE_CHAR = 1,          EXT_TYPE_UCHAR = 2,
    EXT_TYPE_SHORT = 3,     EXT_TYPE_USHORT = 4,        EXT_TYPE_INT = 5,
    EXT_TYPE_UINT = 6,      EXT_TYPE_LONG = 7,          EXT_TYPE_ULONG = 8,
    EXT_TYPE_SIZE_T = 9,    EXT_TYPE_FLOAT = 10,        EXT_TYPE_DOUBLE = 11,
    EXT_TYPE_STRING = 12,   EXT_TYPE_RAW = 13,          EXT_TYPE_ZDNUMBER = 14,
    EXT_TYPE_ZDSTRING = 15, EXT_TYPE_ZDLOBLOCATOR = 16, EXT_TYPE_ZDRAW = 17,
    EXT_TYPE_ZDDATE = 18,   EXT_TYPE_ZDTIMESTAMP = 19,  EXT_TYPE_ZDTSTZ = 20,
    EXT_TYPE_ZDTSLTZ = 21,  EXT_TYPE_ZDINTERVAL = 22,   EXT_TYPE_ZDCOLL = 23,
    EXT_TYPE_MAX = 24} zd_type_ext_t;

// call_method: by reference; any other value means by value.
enum { EPA_CALL_BY_REFERENCE = 1 };
// Bit of psm_param_mode: the routine writes the parameter (IN OUT has it too).
enum { EPA_PARAM_MODE_OUT = 2 };

enum {
    EPA_MSG_BUF_SIZE = 4096,     // receive and reply buffer: bounds a body, a whole reply
    EPA_LIBRARY_PATH_MAX = 4096, // bytes, without the terminator
    EPA_FUNCTION_NAME_MAX = 128, // the same
    EPA_INT_REGISTERS = 6,       // rdi, rsi, rdx, rcx, r8, r9
    EPA_FLOAT_REGISTERS = 8,     // xmm0 to xmm7
    EPA_RAW_REPLY_MAX = 2000     // bytes of a raw value in a reply
};

// What a routine with context sees as ExtProcContext. Lives in the call's region.
typedef struct epa_util_context_s {
    allocator_t *alloc;       // the routine's memory; a child of the call's region
    int fd;                   // the agent's socket
    zd_err_stack_t *errstack; // the agent context's
    SQLHENV henv;
    SQLHDBC hdbc;
    uchar is_connected; // 1: henv and hdbc hold a connection
} epa_util_context_t;

static_assert(sizeof(epa_util_context_t) == 48, "epa_util_context_t is part of the ABI");
static_assert(offsetof(epa_util_context_t, errstack) == 16,
              "epa_util_context_t is part of the ABI");
static_assert(offsetof(epa_util_context_t, is_connected) == 40,
              "epa_util_context_t is part of the ABI");

// One argument of a call.
typedef struct epa_dlfunc_param_s {
    list_link_t link;
    int call_method;
    int psm_param_mode;
    int zd_type;
    int zd_type_ext;
    char *data; // the value's bytes
    int data_len;
    int data_maxlen;
    char *copy_data; // what goes into the register or stack slot
    int copy_len;
} epa_dlfunc_param_t;

static_assert(sizeof(epa_dlfunc_param_t) == 64, "epa_dlfunc_param_t is part of the ABI");
static_assert(offsetof(epa_dlfunc_param_t, data) == 32, "epa_dlfunc_param_t is part of the ABI");
static_assert(offsetof(epa_dlfunc_param_t, copy_data) == 48,
              "epa_dlfunc_param_t is part of the ABI");

typedef struct epa_return_info_s {
    int call_method;
    int psm_param_mode;
    zd_type_t zd_type; // ZD_TYPE_NONE: the routine returns nothing
    zd_type_ext_t zd_type_ext;
} epa_return_info_t;

// One call. The trampoline loads rdx, rcx and param_stack as they stand.
typedef struct epa_dlfunc_s {
    allocator_t *alloc; // region of this call, a child of the context's allocator
    char library_path[EPA_LIBRARY_PATH_MAX + 1];
    char function_name[EPA_FUNCTION_NAME_MAX + 1];
    epa_util_context_t *epa_util_ctx; // NULL: called without context
    epa_return_info_t return_info;
    uint32_t param_cnt;
    int out_param_cnt; // reply entries: the return value and the OUT parameters
    list_t param_list_head;
    unsigned int rdx_cnt; // integer registers used
    unsigned int rcx_cnt; // vector registers used
    int64_t rdx[EPA_INT_REGISTERS];
    double rcx[EPA_FLOAT_REGISTERS];
    char *param_stack; // 8-byte slots, the first one lowest; NULL when none can be needed
} epa_dlfunc_t;

static_assert(sizeof(epa_dlfunc_t) == 4416, "epa_dlfunc_t is part of the ABI");
static_assert(offsetof(epa_dlfunc_t, function_name) == 4105, "epa_dlfunc_t is part of the ABI");
static_assert(offsetof(epa_dlfunc_t, epa_util_ctx) == 4240, "epa_dlfunc_t is part of the ABI");
static_assert(offsetof(epa_dlfunc_t, param_list_head) == 4272, "epa_dlfunc_t is part of the ABI");
static_assert(offsetof(epa_dlfunc_t, rdx) == 4296, "epa_dlfunc_t is part of the ABI");
static_assert(offsetof(epa_dlfunc_t, param_stack) == 4408, "epa_dlfunc_t is part of the ABI");

// One opened user library.
typedef struct epa_dl_cache_s {
    list_link_t link;
    char library_path[EPA_LIBRARY_PATH_MAX]; // as requested; not terminated when it fills the room
    void *dl_obj;                            // from dlopen
} epa_dl_cache_t;

static_assert(sizeof(epa_dl_cache_t) == 4120, "epa_dl_cache_t is part of the ABI");
static_assert(offsetof(epa_dl_cache_t, dl_obj) == 4112, "epa_dl_cache_t is part of the ABI");

// The agent's context.
typedef struct epa_context_mgr_s {
    list_t dl_cache_list; // epa_dl_cache_t, most recently promoted first
    allocator_t *alloc;   // root of all the agent's memory
    int fd;               // the server's socket, -1 until it is known
    SQLHENV henv;
    SQLHDBC hdbc;
    uchar is_connected; // 1 once a routine reported a connection
    char *recv_buf;     // EPA_MSG_BUF_SIZE bytes; decoded strings point into it
    char *reply_buf;    // EPA_MSG_BUF_SIZE bytes
    zdmsg_t *msg;       // decoded request: room for every message type
    client_log_hdl_t *log_hdl;
    epa_dlfunc_t *dlf; // the direct form's reusable descriptor, NULL until its first use
    zd_err_stack_t *errstack;
} epa_context_mgr_t;

static_assert(sizeof(epa_context_mgr_t) == 104, "epa_context_mgr_t is part of the ABI");
static_assert(offsetof(epa_context_mgr_t, alloc) == 16, "epa_context_mgr_t is part of the ABI");
static_assert(offsetof(epa_context_mgr_t, is_connected) == 48,
              "epa_context_mgr_t is part of the ABI");
static_assert(offsetof(epa_context_mgr_t, msg) == 72, "epa_context_mgr_t is part of the ABI");
static_assert(offsetof(epa_context_mgr_t, errstack) == 96, "epa_context_mgr_t is part of the ABI");

ZD_BEGIN_DECLS

// This thread's context; NULL until epa_init.
ZD_API extern __thread epa_context_mgr_t *epa_ctx_mgr_;

// Bytes of a value of the type passed by value: 0, 4 or 8. Raises ERROR_EPA_NOT_SUPPORTED_SQL_TYPE
// (pushed) for a type that cannot be passed by value.
ZD_API int get_zd_type_size(zd_type_t zd_type);

ZD_END_DECLS

#endif
