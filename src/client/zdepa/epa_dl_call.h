// The dynamic call: from a decoded request to a called routine. Builds the call descriptor, with
// every argument in the register or stack slot where the convention wants it; finds the library in
// a small cache or opens it; calls the function through the trampoline; keeps its result.

#ifndef EPA_DL_CALL_H
#define EPA_DL_CALL_H

#include "client/zdepa/epa_type.h"

ZD_BEGIN_DECLS

// Serves the request in the context's msg: call and reply. Raises whatever goes wrong; the call's
// memory then stays with the context until the process ends.
ZD_API void epa_dl_execute(void);

// The direct form: serves msg and fills reply_msg. Values and entries of the reply are in alloc or
// where msg has them, and outlive the call.
ZD_API void epa_dl_execute_dir(zdmsg_t *msg, zdmsg_t *reply_msg, allocator_t *alloc);

// Calls dlf's function with param_size bytes of stack arguments. *ret is set to the result cell:
// 8 bytes in the call's region that hold the integer, pointer, double or (first 4 bytes) float.
ZD_API void epa_dl_call(epa_dlfunc_t *dlf, char **ret, size_t param_size);

// The handle of the library at path, from the cache or newly opened. A path that cannot be opened
// is raised (pushed) as ERROR_EPA_LIBRARY_OPEN_FAILED. The handle stays the cache's.
ZD_API void *epa_dlopen(const char *library_path);

// A descriptor without parameters, from the context's allocator, with a region of its own. Path
// and name need no terminator; too long ones are raised (pushed).
ZD_API epa_dlfunc_t *epa_dlfunc_new(int library_path_len, char *library_path_data,
                                    int function_name_len, char *function_name_data,
                                    int with_context, uint32_t param_cnt, int return_flag);

// The direct form fills the context's reusable descriptor instead.
ZD_API void epl_dlfunc_new(int library_path_len, char *library_path_data, int function_name_len,
                           char *function_name_data, int with_context, uint32_t param_cnt,
                           int return_flag);

// A parameter record at the tail of dlf's list; the caller sets copy_data and copy_len. data is
// not copied.
ZD_API epa_dlfunc_param_t *epa_dlfunc_param_new(epa_dlfunc_t *dlf, int call_method,
                                                int psm_param_mode, zd_type_t zd_type,
                                                zd_type_ext_t zd_type_ext, char *data, int data_len,
                                                int data_maxlen);

// Place copy_len bytes of p's copy_data into the next integer or vector register, or into the next
// stack slot at *param_offset, which then moves on by data_offset_len (8).
ZD_API void epa_dlfunc_setarg_integer(epa_dlfunc_t *dlf, epa_dlfunc_param_t *p, int data_offset_len,
                                      size_t *param_offset);
ZD_API void epa_dlfunc_setarg_floating(epa_dlfunc_t *dlf, epa_dlfunc_param_t *p,
                                       int data_offset_len, size_t *param_offset);

// Fills the context's reusable descriptor from recv_msg, an extproc_execute record. Buffers that
// the routine may write come from alloc. *param_offset (0 on entry) becomes the bytes of stack
// arguments.
ZD_API void epl_get_managed_dlf(zdmsg_t *recv_msg, size_t *param_offset, allocator_t *alloc);

ZD_END_DECLS

#endif
