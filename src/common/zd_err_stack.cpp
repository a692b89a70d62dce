#include "common/zd_err_stack.h"

#include <endian.h>
#include <string.h>

#include "client/common/client_assert.h"
#include "common/zd_dump.h"

// The serialized stack. Integers are 32 bits, big-endian; bytes without a name are zero.
//
//     0  id_next  count  usrcount  -        (4 bytes each)
//    16  record of the top, 936 bytes
//   952  record of the one below ...
//
// A record is the memory image of an instance:
//
//     0  -                    8    24  is_usrerr: '1' or '0'   1   744  obj_id_occurred         4
//     8  id                   4    25  sqlstate                6   748  src_pos.first: line,
//    12  code                 4    31  complete_desc         712        col, offset            12
//    16  obj_id               4   743  -                       1   760  src_pos.last: the same 12
//    20  err_num              4                                    772  file                   80
//                                                                  852  line                    4
//                                                                  856  func                   80
namespace {

constexpr size_t kHeaderSize = 16;
constexpr size_t kHeaderIdNext = 0;
constexpr size_t kHeaderCount = 4;
constexpr size_t kHeaderUsrcount = 8;

constexpr size_t kRecordSize = 936;
constexpr size_t kId = 8;
constexpr size_t kCode = 12;
constexpr size_t kObjId = 16;
constexpr size_t kErrNum = 20;
constexpr size_t kIsUsrerr = 24;
constexpr size_t kSqlstate = 25;
constexpr size_t kDesc = 31;
constexpr size_t kObjIdOccurred = 744;
constexpr size_t kFirst = 748;
constexpr size_t kLast = 760;
constexpr size_t kFile = 772;
constexpr size_t kLine = 852;
constexpr size_t kFunc = 856;

static_assert(kRecordSize == sizeof(zd_err_inst_t));
static_assert(kId == offsetof(zd_err_inst_t, id));
static_assert(kCode == offsetof(zd_err_inst_t, code));
static_assert(kObjId == offsetof(zd_err_inst_t, obj_id));
static_assert(kErrNum == offsetof(zd_err_inst_t, err_num));
static_assert(kIsUsrerr == offsetof(zd_err_inst_t, is_usrerr));
static_assert(kSqlstate == offsetof(zd_err_inst_t, sqlstate));
static_assert(kDesc == offsetof(zd_err_inst_t, complete_desc));
static_assert(kObjIdOccurred == offsetof(zd_err_inst_t, obj_id_occurred));
static_assert(kFirst == offsetof(zd_err_inst_t, src_pos.first));
static_assert(kLast == offsetof(zd_err_inst_t, src_pos.last));
static_assert(kFile == offsetof(zd_err_inst_t, file));
static_assert(kLine == offsetof(zd_err_inst_t, line));
static_assert(kFunc == offsetof(zd_err_inst_t, func));

void put_u32(char *at, uint32_t value) {
    const uint32_t wire = htobe32(value);
    memcpy(at, &wire, sizeof wire);
}

void put_i32(char *at, int value) {
    put_u32(at, static_cast<uint32_t>(value));
}

uint32_t get_u32(const char *at) {
    uint32_t wire;
    memcpy(&wire, at, sizeof wire);
    return be32toh(wire);
}

int get_i32(const char *at) {
    return static_cast<int>(get_u32(at));
}

void put_position(char *at, const zd_pos_t &position) {
    put_i32(at, position.line);
    put_i32(at + 4, position.col);
    put_i32(at + 8, position.offset);
}

zd_pos_t get_position(const char *at) {
    return {get_i32(at), get_i32(at + 4), get_i32(at + 8)};
}

// Into a record that is all zero.
void put_instance(char *record, const zd_err_inst_t &errinst) {
    put_i32(record + kId, errinst.id);
    put_i32(record + kCode, errinst.code);
    put_u32(record + kObjId, errinst.obj_id);
    put_u32(record + kErrNum, errinst.err_num);
    record[kIsUsrerr] = errinst.is_usrerr ? '1' : '0';
    memcpy(record + kSqlstate, errinst.sqlstate, sizeof errinst.sqlstate);
    memcpy(record + kDesc, errinst.complete_desc, sizeof errinst.complete_desc);
    put_u32(record + kObjIdOccurred, errinst.obj_id_occurred);
    put_position(record + kFirst, errinst.src_pos.first);
    put_position(record + kLast, errinst.src_pos.last);
    memcpy(record + kFile, errinst.file, sizeof errinst.file);
    put_i32(record + kLine, errinst.line);
    memcpy(record + kFunc, errinst.func, sizeof errinst.func);
}

zd_err_inst_t *get_instance(const char *record, allocator_t *alloc) {
    const zd_src_pos_t span = {get_position(record + kFirst), get_position(record + kLast)};
    zd_err_args_t args = {};
    args.ec = get_i32(record + kCode);
    args.errnum = get_i32(record + kErrNum);
    args.src_pos = &span;
    args.file = record + kFile;
    args.line = get_i32(record + kLine);
    args.func = record + kFunc;
    zd_err_inst_t *const errinst = zd_err_inst_new(alloc, &args, nullptr, record + kDesc);
    errinst->obj_id = get_u32(record + kObjId);
    errinst->obj_id_occurred = get_u32(record + kObjIdOccurred);
    errinst->id = get_i32(record + kId);
    errinst->is_usrerr = record[kIsUsrerr] == '1';
    memcpy(errinst->sqlstate, record + kSqlstate, sizeof errinst->sqlstate);
    return errinst;
}

} // namespace

void zd_err_stack_init(zd_err_stack_t *errstack, allocator_t *alloc) {
    ZD_ASSERT_AT("zd_err_stack", 69, errstack != NULL);
    *errstack = {alloc, 0, 0, 0, nullptr};
}

void zd_err_stack_push(zd_err_stack_t *errstack, zd_err_inst_t *errinst) {
    ZD_ASSERT("zd_err_stack", errstack != NULL);
    ZD_ASSERT("zd_err_stack", errinst != NULL);
    errinst->next = errstack->top;
    errstack->top = errinst;
    errinst->id = errstack->id_next;
    // A peer's id_next may be the last one: then the ids start again, from the smallest.
    errstack->id_next = static_cast<int>(static_cast<unsigned int>(errstack->id_next) + 1);
    errstack->count++;
    if (errinst->is_usrerr)
        errstack->usrcount++;
}

zd_err_inst_t *zd_err_stack_pop(zd_err_stack_t *errstack) {
    ZD_ASSERT("zd_err_stack", errstack != NULL);
    zd_err_inst_t *const errinst = errstack->top;
    if (errinst == nullptr)
        return nullptr;
    errstack->top = errinst->next;
    errinst->next = nullptr;
    errstack->count--;
    if (errinst->is_usrerr)
        errstack->usrcount--;
    return errinst;
}

void zd_err_stack_clear(zd_err_stack_t *errstack) {
    ZD_ASSERT_AT("zd_err_stack", 91, errstack != NULL);
    while (zd_err_inst_t *const errinst = zd_err_stack_pop(errstack))
        zd_err_inst_destroy(errinst, errstack->alloc);
    errstack->count = 0;
    errstack->usrcount = 0;
}

void zd_err_stack_clear_to_id(zd_err_stack_t *errstack, int id) {
    ZD_ASSERT_AT("zd_err_stack", 128, errstack != NULL);
    while (errstack->top != nullptr && errstack->top->id >= id)
        zd_err_inst_destroy(zd_err_stack_pop(errstack), errstack->alloc);
}

zd_err_inst_t *zd_err_stack_get(const zd_err_stack_t *errstack, int index) {
    ZD_ASSERT_AT("zd_err_stack", 227, errstack != NULL);
    if (index < 0 || index >= errstack->count)
        return nullptr;
    zd_err_inst_t *errinst = errstack->top;
    for (int i = 0; i < index && errinst != nullptr; i++)
        errinst = errinst->next;
    if (errinst == nullptr)
        zd_assert_fail("false", "zd_err_stack", 239);
    return errinst;
}

ec_t zd_err_stack_peek_code(const zd_err_stack_t *errstack) {
    ZD_ASSERT_AT("zd_err_stack", 254, errstack != NULL);
    return errstack->top != nullptr ? errstack->top->code : static_cast<ec_t>(ERROR_NONE);
}

uchar zd_err_stack_match(const zd_err_stack_t *errstack, int code, unsigned int obj_id,
                         unsigned int err_num) {
    ZD_ASSERT("zd_err_stack", errstack != NULL);
    if (errstack->top == nullptr)
        return code == ERROR_NONE;
    return zd_err_inst_match(errstack->top, code, obj_id, err_num);
}

void zd_err_stack_copy(zd_err_stack_t *target, zd_err_stack_t *source) {
    ZD_ASSERT("zd_err_stack", target != NULL);
    const zd_err_inst_t *const errinst = zd_err_stack_pop(source);
    ZD_ASSERT_AT("zd_err_stack", 430, errinst != NULL);
    const zd_err_args_t args = {errinst->code,   static_cast<int>(errinst->err_num),
                                errinst->obj_id, &_zd_src_pos_null,
                                errinst->file,   errinst->line,
                                errinst->func};
    zd_err_inst_t *const moved =
        zd_err_inst_new(target->alloc, &args, nullptr, errinst->complete_desc);
    memcpy(moved->sqlstate, errinst->sqlstate, sizeof moved->sqlstate);
    zd_err_stack_push(target, moved);
}

void zd_err_stack_dump(dstream_t *dstream, const zd_err_stack_t *errstack) {
    ZD_ASSERT("zd_err_stack", errstack != NULL);
    dprint(dstream, "error stack dump ===================\n");
    dprint(dstream, "count = %d\n", errstack->count);
    dprint(dstream, "usrcount = %d\n", errstack->usrcount);
    for (const zd_err_inst_t *errinst = errstack->top; errinst != nullptr; errinst = errinst->next)
        zd_err_inst_dump(dstream, errinst);
    dprint(dstream, "====================================\n");
}

void zd_err_stack_serialize(const zd_err_stack_t *errstack, uchar usrerr_only, allocator_t *alloc,
                            void **buf, unsigned int *len) {
    ZD_ASSERT("zd_err_stack", errstack != NULL);
    const size_t size = kHeaderSize + kRecordSize * static_cast<size_t>(errstack->count);
    char *const bytes =
        static_cast<char *>(zd_malloc(alloc, static_cast<int64_t>(size), "zd_err_stack", __LINE__));
    memset(bytes, 0, size); // nothing of the heap leaves the process
    put_i32(bytes + kHeaderIdNext, errstack->id_next);
    put_i32(bytes + kHeaderCount, errstack->count);
    put_i32(bytes + kHeaderUsrcount, errstack->usrcount);
    char *record = bytes + kHeaderSize;
    for (const zd_err_inst_t *errinst = errstack->top; errinst != nullptr;
         errinst = errinst->next) {
        if (usrerr_only && !errinst->is_usrerr)
            continue;
        ZD_ASSERT("zd_err_stack", record + kRecordSize <= bytes + size);
        put_instance(record, *errinst);
        record += kRecordSize;
    }
    *buf = bytes;
    *len = static_cast<unsigned int>(size);
}

void zd_err_stack_deserialize(const void *buf, unsigned int, allocator_t *alloc, uchar usrerr_only,
                              zd_err_stack_t *errstack) {
    ZD_ASSERT_AT("zd_err_stack", 357, buf != NULL && errstack != NULL);
    const char *const bytes = static_cast<const char *>(buf);
    zd_err_stack_init(errstack, alloc);
    errstack->id_next = get_i32(bytes + kHeaderIdNext);
    const int count = get_i32(bytes + (usrerr_only ? kHeaderUsrcount : kHeaderCount));
    for (int i = count - 1; i >= 0; i--) {
        const char *const record = bytes + kHeaderSize + kRecordSize * static_cast<size_t>(i);
        zd_err_inst_t *const errinst = get_instance(record, alloc);
        if (usrerr_only)
            ZD_ASSERT_AT("zd_err_stack", 412, errinst->is_usrerr);
        zd_err_stack_push(errstack, errinst);
    }
}
