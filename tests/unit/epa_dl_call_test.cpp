#include "client/zdepa/epa_dl_call.h"

#include <dlfcn.h>

#include <gmock/gmock.h>

#include <cstring>
#include <string>
#include <vector>

#include "client/common/client_try.h"
#include "client/zdepa/epa_proc.h"
#include "common/alloc/region_clialloc.h"
#include "common/alloc/system_clialloc.h"
#include "common/ec.h"
#include "common/zdmsg/zdmsg.h"
#include "common/zdmsg/zdmsg_setter_gen.h"
#include "support/agent_context.h"

namespace {

constexpr int kByValue = 0;
constexpr int kByReference = 1;
constexpr int kIn = 1;
constexpr int kOut = 2;
constexpr int kInOut = 3;
constexpr int kWithContext = 0x100;

int flag(int call_method, int mode, int zd_type, int zd_type_ext) {
    return static_cast<int>(static_cast<unsigned int>(call_method) << 24) | mode << 16 |
           zd_type << 8 | zd_type_ext;
}

constexpr int kNoReturn = 0;

struct Value {
    int flag;
    int maxlen;
    std::string bytes;
};

template <class T>
std::string bytes_of(T value) {
    return std::string(reinterpret_cast<const char *>(&value), sizeof value);
}

Value int_value(int32_t value, int mode = kIn) {
    return {flag(kByValue, mode, ZD_TYPE_PLS_INT, EXT_TYPE_INT), 4, bytes_of(value)};
}

Value double_value(double value) {
    return {flag(kByValue, kIn, ZD_TYPE_BIN_DOUBLE, EXT_TYPE_DOUBLE), 8, bytes_of(value)};
}

// A request with its own storage, and the reply that the direct form fills from it.
class Request {
  public:
    Request(const std::string &function, int return_flag, std::vector<Value> values,
            int property = 0, const std::string &library = ROUTINES_LIBRARY)
        : library_(library), function_(function), values_(std::move(values)) {
        for (Value &value : values_) {
            zdmsg_struct_extproc_param_t param;
            zdmsg_struct_extproc_param_set(&param, value.flag, value.maxlen,
                                           static_cast<int>(value.bytes.size()),
                                           value.bytes.data());
            params_.push_back(param);
        }
        zdmsg_extproc_execute_set(&record_, library_.c_str(), function_.c_str(), property,
                                  return_flag, static_cast<int>(params_.size()), params_.data());
    }
    Request(const Request &) = delete;
    Request &operator=(const Request &) = delete;

    zdmsg_t *msg() { return &record_.base; }
    zdmsg_extproc_execute_t *record() { return &record_; }

  private:
    std::string library_;
    std::string function_;
    std::vector<Value> values_;
    std::vector<zdmsg_struct_extproc_param_t> params_;
    zdmsg_extproc_execute_t record_;
};

class EpaDlCall : public AgentContextTest {
  protected:
    void SetUp() override {
        start();
        caller_ = real_sys_region_allocator_new(&_system_allocator, "test", 1);
    }

    void TearDown() override {
        if (caller_ != nullptr)
            caller_->desc->func_delete(caller_);
        AgentContextTest::TearDown();
    }

    epa_dlfunc_t *describe(Request &request) {
        epl_get_managed_dlf(request.msg(), &param_offset_, caller_);
        return epa_ctx_mgr_->dlf;
    }

    ec_t code_of_describing(Request &request) {
        return client_try([&] { epl_get_managed_dlf(request.msg(), &param_offset_, caller_); });
    }

    void serve(Request &request) { epa_process_request_dir(request.msg(), &reply_.base, caller_); }

    std::string reply_value(int index) {
        const zdmsg_str_t &value = reply_.reply_param.data[index].data_value;
        return std::string(value.data, static_cast<size_t>(value.len));
    }

    const zd_err_inst_t *last_error() { return zd_err_stack_get(epa_ctx_mgr_->errstack, 0); }

    // The error stack of a reply, rebuilt: its top code, or 0.
    ec_t error_in_reply() {
        if (reply_.errstack.len == 0)
            return 0;
        zd_err_stack_t stack;
        zd_err_stack_deserialize(reply_.errstack.data,
                                 static_cast<unsigned int>(reply_.errstack.len), caller_, 0,
                                 &stack);
        return zd_err_stack_peek_code(&stack);
    }

    allocator_t *caller_ = nullptr;
    size_t param_offset_ = 0;
    zdmsg_extproc_execute_reply_t reply_ = {};
};

// --- placement ---------------------------------------------------------------------------------

TEST_F(EpaDlCall, SeventhIntegerTakesOneStackSlot) {
    std::vector<Value> values;
    for (int i = 1; i <= 7; i++)
        values.push_back(int_value(i));
    Request request("seventh", kNoReturn, values);
    const epa_dlfunc_t *const dlf = describe(request);
    EXPECT_EQ(param_offset_, 8u);
    EXPECT_EQ(dlf->rdx_cnt, 6u);
    for (int i = 0; i < 6; i++)
        EXPECT_EQ(dlf->rdx[i], i + 1);
    int64_t slot;
    memcpy(&slot, dlf->param_stack, sizeof slot);
    EXPECT_EQ(slot, 7);
}

TEST_F(EpaDlCall, ContextTakesTheFirstOfTheSixRegisters) {
    std::vector<Value> values(6, int_value(5));
    Request request("with_context_is_first", kNoReturn, values, kWithContext);
    const epa_dlfunc_t *const dlf = describe(request);
    EXPECT_EQ(param_offset_, 8u);
    EXPECT_EQ(dlf->rdx[0], reinterpret_cast<int64_t>(dlf->epa_util_ctx));
    EXPECT_EQ(dlf->rdx[1], 5);
}

TEST_F(EpaDlCall, ContextIsAParameterAheadOfTheDeclaredOnes) {
    Request request("x", kNoReturn, {int_value(5)}, kWithContext);
    const epa_dlfunc_t *const dlf = describe(request);
    const auto *const first = list_entry(dlf->param_list_head.next, const epa_dlfunc_param_t, link);
    EXPECT_EQ(first->call_method, 1);
    EXPECT_EQ(first->psm_param_mode, 1);
    EXPECT_EQ(first->zd_type, 0);
    EXPECT_EQ(first->zd_type_ext, 0);
    EXPECT_EQ(first->data, reinterpret_cast<const char *>(dlf->epa_util_ctx));
    EXPECT_EQ(first->data_len, 8);
    EXPECT_EQ(first->data_maxlen, 8);
    EXPECT_EQ(first->copy_data, reinterpret_cast<const char *>(&dlf->epa_util_ctx));
    EXPECT_EQ(first->copy_len, 8);
    EXPECT_EQ(dlf->param_cnt, 1u); // of the request's
    EXPECT_EQ(dlf->out_param_cnt, 0);
}

TEST_F(EpaDlCall, ParametersAreRecordedAsTheRequestHasThem) {
    const int by_value = flag(7, kIn, ZD_TYPE_BIN_INT, EXT_TYPE_SIZE_T);
    const int by_reference = flag(kByReference, kInOut, ZD_TYPE_DATE, EXT_TYPE_ZDDATE);
    Request request("x", kNoReturn, {{by_value, 9, "abcd"}, {by_reference, 40, "a date"}});
    const epa_dlfunc_t *const dlf = describe(request);
    const auto *const first = list_entry(dlf->param_list_head.next, const epa_dlfunc_param_t, link);
    EXPECT_EQ(first->call_method, 7);
    EXPECT_EQ(first->psm_param_mode, kIn);
    EXPECT_EQ(first->zd_type, 27);
    EXPECT_EQ(first->zd_type_ext, 9);
    EXPECT_EQ(first->data_len, 4);
    EXPECT_EQ(first->data_maxlen, 9);
    EXPECT_EQ(first->copy_data, first->data);
    EXPECT_EQ(first->copy_len, 4);
    const auto *const second = list_entry(first->link.next, const epa_dlfunc_param_t, link);
    EXPECT_EQ(second->call_method, kByReference);
    EXPECT_EQ(second->psm_param_mode, kInOut);
    EXPECT_EQ(second->zd_type, 5);
    EXPECT_EQ(second->zd_type_ext, 18);
    EXPECT_EQ(second->data, request.record()->param.data[1].data_value.data);
    EXPECT_EQ(second->data_len, 6);
    EXPECT_EQ(second->data_maxlen, 40);
    EXPECT_EQ(second->copy_data, reinterpret_cast<const char *>(&second->data));
    EXPECT_EQ(second->copy_len, 8);
    EXPECT_EQ(second->link.next, &dlf->param_list_head);
}

TEST_F(EpaDlCall, AnyNonZeroByteOfThePropertyMeansContext) {
    Request request("x", kNoReturn, {}, 0x8000);
    EXPECT_NE(describe(request)->epa_util_ctx, nullptr);
    Request without("x", kNoReturn, {}, 0x7f00ff);
    EXPECT_EQ(describe(without)->epa_util_ctx, nullptr);
}

TEST_F(EpaDlCall, NinthDoubleTakesAStackSlotAndAnIntegerAfterItTheFirstRegister) {
    std::vector<Value> values;
    for (int i = 1; i <= 9; i++)
        values.push_back(double_value(i + 0.5));
    values.push_back(int_value(77));
    Request request("x", kNoReturn, values);
    const epa_dlfunc_t *const dlf = describe(request);
    EXPECT_EQ(dlf->rcx_cnt, 8u);
    EXPECT_EQ(dlf->rcx[7], 8.5);
    EXPECT_EQ(param_offset_, 8u);
    double slot;
    memcpy(&slot, dlf->param_stack, sizeof slot);
    EXPECT_EQ(slot, 9.5);
    EXPECT_EQ(dlf->rdx_cnt, 1u);
    EXPECT_EQ(dlf->rdx[0], 77);
}

TEST_F(EpaDlCall, IntegersAndDoublesOverflowInArgumentOrder) {
    std::vector<Value> values;
    for (int i = 0; i < 6; i++)
        values.push_back(int_value(i));
    for (int i = 0; i < 8; i++)
        values.push_back(double_value(i));
    values.push_back(double_value(100.5));
    values.push_back(int_value(200));
    values.push_back(double_value(300.5));
    Request request("x", kNoReturn, values);
    const epa_dlfunc_t *const dlf = describe(request);
    ASSERT_EQ(param_offset_, 24u);
    double first, third;
    int64_t second;
    memcpy(&first, dlf->param_stack, 8);
    memcpy(&second, dlf->param_stack + 8, 8);
    memcpy(&third, dlf->param_stack + 16, 8);
    EXPECT_EQ(first, 100.5);
    EXPECT_EQ(second, 200);
    EXPECT_EQ(third, 300.5);
}

TEST_F(EpaDlCall, FourByteValueIsNotSignExtended) {
    Request request("x", kNoReturn, {int_value(-1)});
    EXPECT_EQ(describe(request)->rdx[0], 0xffffffffLL);
}

TEST_F(EpaDlCall, ReferenceToADoubleGoesToAnIntegerRegister) {
    Request request(
        "x", kNoReturn,
        {{flag(kByReference, kIn, ZD_TYPE_NUMBER, EXT_TYPE_DOUBLE), 8, bytes_of(1.25)}});
    const epa_dlfunc_t *const dlf = describe(request);
    EXPECT_EQ(dlf->rcx_cnt, 0u);
    ASSERT_EQ(dlf->rdx_cnt, 1u);
    EXPECT_EQ(*reinterpret_cast<const double *>(dlf->rdx[0]), 1.25);
}

TEST_F(EpaDlCall, DatabaseTypeDecidesTheWidthOfAnIntegerByValue) {
    const std::string eight = bytes_of(int64_t{0x1122334455667788});
    Request request("x", kNoReturn,
                    {{flag(kByValue, kIn, ZD_TYPE_BIN_DOUBLE, EXT_TYPE_LONG), 8, eight},
                     {flag(kByValue, kIn, ZD_TYPE_BIN_FLOAT, EXT_TYPE_CHAR), 8, eight}});
    const epa_dlfunc_t *const dlf = describe(request);
    EXPECT_EQ(dlf->rdx[0], 0x1122334455667788);
    EXPECT_EQ(dlf->rdx[1], 0x55667788);
}

TEST_F(EpaDlCall, ValueOfNoTypeIsAZeroSlot) {
    Request request("x", kNoReturn,
                    {{flag(kByValue, kIn, ZD_TYPE_NONE, EXT_TYPE_INT), 8, bytes_of(int64_t{-1})},
                     {flag(kByValue, kIn, ZD_TYPE_NONE, EXT_TYPE_FLOAT), 8, bytes_of(int64_t{-1})},
                     {flag(kByValue, kIn, ZD_TYPE_NONE, EXT_TYPE_INT), 0, ""}});
    const epa_dlfunc_t *const dlf = describe(request);
    EXPECT_EQ(dlf->rdx_cnt, 2u);
    EXPECT_EQ(dlf->rcx_cnt, 1u);
    EXPECT_EQ(dlf->rdx[0], 0);
    EXPECT_EQ(dlf->rdx[1], 0);
    EXPECT_EQ(dlf->rcx[0], 0);
}

TEST_F(EpaDlCall, ValueShorterThanItsTypeIsFilledUpWithZeros) {
    Request request("x", kNoReturn,
                    {{flag(kByValue, kIn, ZD_TYPE_BIN_DOUBLE, EXT_TYPE_LONG), 8, "\x01\x02"}});
    EXPECT_EQ(describe(request)->rdx[0], 0x0201);
}

TEST_F(EpaDlCall, UnsupportedDatabaseTypeByValueIsRefusedWhateverTheNativeTypeIs) {
    for (const int native : {EXT_TYPE_INT, EXT_TYPE_DOUBLE, EXT_TYPE_STRING, EXT_TYPE_NONE}) {
        Request request("x", kNoReturn, {{flag(kByValue, kIn, ZD_TYPE_NUMBER, native), 4, "1234"}});
        EXPECT_EQ(code_of_describing(request), ERROR_EPA_NOT_SUPPORTED_SQL_TYPE);
        EXPECT_STREQ(last_error()->file, "epa_type");
    }
}

TEST_F(EpaDlCall, NativeTypeThatCannotBeAValueIsRefused) {
    for (const int zd_type : {0, 23, 24, 26, 27}) {
        for (const int native : {0, 12, 13, 14, 15, 16, 17, 23, 24, 255}) {
            Request request("x", kNoReturn,
                            {{flag(kByValue, kIn, zd_type, native), 8, "12345678"}});
            EXPECT_EQ(code_of_describing(request), ERROR_EPA_INVALID_PARAMETER_INFO)
                << zd_type << " " << native;
            EXPECT_STREQ(last_error()->file, "epa_dl_call");
            EXPECT_STREQ(last_error()->func, "epl_get_managed_dlf");
        }
    }
}

TEST_F(EpaDlCall, CallMethodOtherThanOneMeansByValue) {
    Request request("x", kNoReturn,
                    {{flag(2, kIn, ZD_TYPE_PLS_INT, EXT_TYPE_INT), 4, bytes_of(int32_t{9})},
                     {flag(255, kIn, ZD_TYPE_PLS_INT, EXT_TYPE_INT), 4, bytes_of(int32_t{8})}});
    const epa_dlfunc_t *const dlf = describe(request);
    EXPECT_EQ(dlf->rdx[0], 9);
    EXPECT_EQ(dlf->rdx[1], 8);
}

// --- descriptor --------------------------------------------------------------------------------

TEST_F(EpaDlCall, LongestPathAndNameAreTaken) {
    std::string path(4096, 'p');
    std::string name(128, 'f');
    epa_dlfunc_t *const dlf = epa_dlfunc_new(4096, path.data(), 128, name.data(), 0, 0, 0);
    EXPECT_EQ(dlf->library_path, path);
    EXPECT_EQ(dlf->function_name, name);
    EXPECT_EQ(dlf->param_stack, nullptr);
}

TEST_F(EpaDlCall, RegionsOfACallLieBelowTheContextsAllocator) {
    char text[] = "x";
    const epa_dlfunc_t *const dlf = epa_dlfunc_new(1, text, 1, text, 1, 0, 0);
    EXPECT_EQ(dlf->alloc->parent, epa_ctx_mgr_->alloc);
    EXPECT_EQ(dlf->epa_util_ctx->alloc->parent, dlf->alloc);
}

TEST_F(EpaDlCall, PathAboveTheLimitIsRefused) {
    std::string path(4097, 'p');
    EXPECT_EQ(client_try([&] { epa_dlfunc_new(4097, path.data(), 1, path.data(), 0, 0, 0); }),
              ERROR_EPA_TOO_LONG_USER_LIBRARY_PATH);
    EXPECT_STREQ(last_error()->file, "epa_dl_call");
    EXPECT_STREQ(last_error()->func, "epa_dlfunc_new");
    EXPECT_EQ(client_try([&] { epl_dlfunc_new(4097, path.data(), 1, path.data(), 0, 0, 0); }),
              ERROR_EPA_TOO_LONG_USER_LIBRARY_PATH);
    EXPECT_STREQ(last_error()->func, "epl_dlfunc_new");
}

TEST_F(EpaDlCall, NameAboveTheLimitIsRefused) {
    std::string name(129, 'f');
    EXPECT_EQ(client_try([&] { epa_dlfunc_new(1, name.data(), 129, name.data(), 0, 0, 0); }),
              ERROR_EPA_TOO_LONG_USER_FUNCTION_NAME);
}

TEST_F(EpaDlCall, StackBlockHasASlotForEveryArgumentBeyondSix) {
    char text[] = "x";
    EXPECT_EQ(epa_dlfunc_new(1, text, 1, text, 0, 6, 0)->param_stack, nullptr);
    EXPECT_NE(epa_dlfunc_new(1, text, 1, text, 0, 7, 0)->param_stack, nullptr);
    EXPECT_EQ(epa_dlfunc_new(1, text, 1, text, 1, 5, 0)->param_stack, nullptr);
    const epa_dlfunc_t *const dlf = epa_dlfunc_new(1, text, 1, text, 1, 6, 0);
    ASSERT_NE(dlf->param_stack, nullptr);
    for (int i = 0; i < 8; i++)
        EXPECT_EQ(dlf->param_stack[i], 0);
}

TEST_F(EpaDlCall, ReturnFlagIsUnpacked) {
    char text[] = "x";
    const epa_dlfunc_t *const dlf =
        epa_dlfunc_new(1, text, 1, text, 0, 0, flag(1, 2, ZD_TYPE_LONG, EXT_TYPE_SHORT));
    EXPECT_EQ(dlf->return_info.call_method, 1);
    EXPECT_EQ(dlf->return_info.psm_param_mode, 2);
    EXPECT_EQ(dlf->return_info.zd_type, 10);
    EXPECT_EQ(dlf->return_info.zd_type_ext, 3);
    EXPECT_EQ(dlf->out_param_cnt, 0);
}

TEST_F(EpaDlCall, RoutineContextCarriesTheConnectionOnlyWhenThereIsOne) {
    epa_ctx_mgr_->henv = 11;
    epa_ctx_mgr_->hdbc = 22;
    epa_ctx_mgr_->fd = 5;
    char text[] = "x";
    const epa_util_context_t *routine = epa_dlfunc_new(1, text, 1, text, 1, 0, 0)->epa_util_ctx;
    EXPECT_EQ(routine->henv, 0);
    EXPECT_EQ(routine->hdbc, 0);
    EXPECT_EQ(routine->is_connected, 0);
    EXPECT_EQ(routine->fd, 5);
    EXPECT_EQ(routine->errstack, epa_ctx_mgr_->errstack);
    epa_ctx_mgr_->is_connected = 1;
    routine = epa_dlfunc_new(1, text, 1, text, 1, 0, 0)->epa_util_ctx;
    EXPECT_EQ(routine->henv, 11);
    EXPECT_EQ(routine->hdbc, 22);
    EXPECT_EQ(routine->is_connected, 1);
}

TEST_F(EpaDlCall, OutEntriesAreTheReturnValueAndTheOutParameters) {
    Request request("x", flag(kByValue, 0, ZD_TYPE_PLS_INT, EXT_TYPE_INT),
                    {int_value(1, kIn), int_value(2, kOut), int_value(3, kInOut)});
    EXPECT_EQ(describe(request)->out_param_cnt, 3);
    Request no_return("x", kNoReturn, {int_value(2, kOut)});
    EXPECT_EQ(describe(no_return)->out_param_cnt, 1);
}

// --- widening ----------------------------------------------------------------------------------

TEST_F(EpaDlCall, OutTextIsWidenedToItsMaximum) {
    Request request("x", kNoReturn,
                    {{flag(kByReference, kInOut, ZD_TYPE_VARCHAR, EXT_TYPE_STRING), 100, "hello"}});
    const epa_dlfunc_t *const dlf = describe(request);
    const char *const buffer = reinterpret_cast<const char *>(dlf->rdx[0]);
    EXPECT_EQ(std::string(buffer, 100), "hello" + std::string(95, '\0'));
    EXPECT_NE(buffer, request.record()->param.data[0].data_value.data);
}

TEST_F(EpaDlCall, OnlyTheKindsThatTheRoutineSizesAreWidened) {
    for (int native = 0; native <= 24; native++) {
        const bool widened = native == EXT_TYPE_ZDNUMBER || native == EXT_TYPE_STRING ||
                             native == EXT_TYPE_ZDSTRING || native == EXT_TYPE_RAW ||
                             native == EXT_TYPE_ZDRAW;
        Request request("x", kNoReturn,
                        {{flag(kByReference, kOut, ZD_TYPE_RAW, native), 64, "abcdefgh"}});
        const epa_dlfunc_t *const dlf = describe(request);
        const bool in_place = reinterpret_cast<const char *>(dlf->rdx[0]) ==
                              request.record()->param.data[0].data_value.data;
        EXPECT_EQ(in_place, !widened) << native;
    }
}

TEST_F(EpaDlCall, OnlyWhatTheRoutineMayWriteBeyondItsInputIsWidened) {
    // Without room beyond the input there is nothing to write; input alone stays where it is.
    const int in = flag(kByReference, kIn, ZD_TYPE_RAW, EXT_TYPE_RAW);
    const int out = flag(kByReference, kOut, ZD_TYPE_RAW, EXT_TYPE_RAW);
    Request request("x", kNoReturn, {{in, 64, "abcd"}, {out, 4, "abcd"}, {out, 5, "abcd"}});
    const epa_dlfunc_t *const dlf = describe(request);
    const zdmsg_struct_extproc_param_t *const given = request.record()->param.data;
    EXPECT_EQ(dlf->rdx[0], reinterpret_cast<int64_t>(given[0].data_value.data));
    EXPECT_EQ(dlf->rdx[1], reinterpret_cast<int64_t>(given[1].data_value.data));
    EXPECT_NE(dlf->rdx[2], reinterpret_cast<int64_t>(given[2].data_value.data));
}

TEST_F(EpaDlCall, DirectFormTerminatesTextThatIsNotWidened) {
    // The caller's bytes go on after the value: only a copy can end there.
    for (const int native : {EXT_TYPE_STRING, EXT_TYPE_ZDSTRING}) {
        std::string storage = "helloworld";
        Request request("x", kNoReturn,
                        {{flag(kByReference, kIn, ZD_TYPE_VARCHAR, native), 100, storage}});
        request.record()->param.data[0].data_value.len = 5;
        EXPECT_STREQ(reinterpret_cast<const char *>(describe(request)->rdx[0]), "hello");
    }
}

TEST_F(EpaDlCall, DirectFormTakesWidenedBuffersFromTheCaller) {
    Request request("x", kNoReturn,
                    {{flag(kByReference, kOut, ZD_TYPE_RAW, EXT_TYPE_RAW), 3000, ""}});
    const uint64_t before = reinterpret_cast<CLI_alloc_t *>(caller_)->total_used;
    describe(request);
    EXPECT_GT(reinterpret_cast<CLI_alloc_t *>(caller_)->total_used, before + 3000);
}

// --- library cache -----------------------------------------------------------------------------

class EpaDlCache : public EpaDlCall {
  protected:
    // Spellings of one path are entries of their own: n slashes make the n-th.
    static std::string spelling(int n) {
        return std::string(static_cast<size_t>(n), '/') + ROUTINES_LIBRARY;
    }

    std::vector<std::string> cached() {
        std::vector<std::string> paths;
        list_for_each(position, &epa_ctx_mgr_->dl_cache_list)
            paths.push_back(list_entry(position, epa_dl_cache_t, link)->library_path);
        return paths;
    }

    void open_spellings(int first, int last) {
        for (int n = first; n <= last; n++)
            epa_dlopen(spelling(n).c_str());
    }
};

TEST_F(EpaDlCache, NewestLibraryIsFirst) {
    open_spellings(1, 3);
    EXPECT_THAT(cached(), testing::ElementsAre(spelling(3), spelling(2), spelling(1)));
}

TEST_F(EpaDlCache, SettlesAtOneAboveItsMaximum) {
    open_spellings(1, 11);
    EXPECT_EQ(cached().size(), 11u);
    EXPECT_EQ(cached().back(), spelling(1));
    open_spellings(12, 12);
    EXPECT_EQ(cached().size(), 11u);
    EXPECT_EQ(cached().back(), spelling(2));
    open_spellings(13, 20);
    EXPECT_EQ(cached().size(), 11u);
}

TEST_F(EpaDlCache, HitInTheHotZoneKeepsTheOrder) {
    open_spellings(1, 5);
    const std::vector<std::string> before = cached();
    for (int position = 0; position < 3; position++) {
        epa_dlopen(before[static_cast<size_t>(position)].c_str());
        EXPECT_EQ(cached(), before) << position;
    }
}

TEST_F(EpaDlCache, HitBehindTheHotZoneMovesToTheHead) {
    open_spellings(1, 5);
    epa_dlopen(spelling(2).c_str()); // the fourth from the head
    EXPECT_THAT(cached(), testing::ElementsAre(spelling(2), spelling(5), spelling(4), spelling(3),
                                               spelling(1)));
}

TEST_F(EpaDlCache, HitReturnsTheHandleThatTheMissReturned) {
    void *const handle = epa_dlopen(ROUTINES_LIBRARY);
    EXPECT_EQ(epa_dlopen(ROUTINES_LIBRARY), handle);
    EXPECT_EQ(cached().size(), 1u);
}

TEST_F(EpaDlCache, MissingLibraryIsRaisedAndLeavesTheCacheUnchanged) {
    open_spellings(1, 2);
    const std::vector<std::string> before = cached();
    EXPECT_EQ(client_try([] { epa_dlopen("/no/such/library.so"); }), ERROR_EPA_LIBRARY_OPEN_FAILED);
    EXPECT_EQ(cached(), before);
    const zd_err_inst_t *const error = last_error();
    EXPECT_STREQ(error->file, "epa_dl_call");
    EXPECT_EQ(error->line, 1092);
    EXPECT_STREQ(error->func, "epa_dlopen");
    EXPECT_THAT(error->complete_desc,
                testing::StartsWith(" Failed to open library ('/no/such/library.so') - "));
    EXPECT_THAT(error->complete_desc, testing::HasSubstr("No such file or directory"));
}

TEST_F(EpaDlCache, LibraryIsOpenedForOthersToUse) {
    // Its symbols join the global scope, so that a later library can refer to them.
    EXPECT_EQ(dlsym(RTLD_DEFAULT, "returns_seven"), nullptr);
    epa_dlopen(ROUTINES_LIBRARY);
    EXPECT_NE(dlsym(RTLD_DEFAULT, "returns_seven"), nullptr);
}

TEST_F(EpaDlCache, LibraryWhoseFunctionsAreNotAllThereIsOpened) {
    // A function that is missing is missed when it is called.
    void *const handle = epa_dlopen(UNRESOLVED_LIBRARY);
    ASSERT_NE(handle, nullptr);
    EXPECT_NE(dlsym(handle, "calls_what_is_missing"), nullptr);
}

TEST_F(EpaDlCache, DeletingTheContextClosesTheLibraries) {
    // A copy of its own: what another test bound to the library would keep it open.
    const std::string copy = home_.path() + "/copy.so";
    std::filesystem::copy_file(ROUTINES_LIBRARY, copy);
    epa_dlopen(copy.c_str());
    void *const opened = dlopen(copy.c_str(), RTLD_LAZY | RTLD_NOLOAD);
    ASSERT_NE(opened, nullptr);
    dlclose(opened);
    epa_context_mgr_delete();
    EXPECT_EQ(dlopen(copy.c_str(), RTLD_LAZY | RTLD_NOLOAD), nullptr);
}

// --- the direct form ---------------------------------------------------------------------------

TEST_F(EpaDlCall, IntegerResultComesBack) {
    Request request("add", flag(kByValue, 0, ZD_TYPE_PLS_INT, EXT_TYPE_INT),
                    {int_value(40), int_value(2)});
    serve(request);
    EXPECT_EQ(reply_.base.type, 140);
    EXPECT_EQ(reply_.errstack.len, 0);
    ASSERT_EQ(reply_.reply_param.array_cnt, 1);
    EXPECT_EQ(reply_value(0), bytes_of(int32_t{42}));
}

TEST_F(EpaDlCall, FloatResultIsFourBytes) {
    const std::string argument = bytes_of(5.0f);
    Request request("halve_float", flag(kByValue, 0, ZD_TYPE_BIN_FLOAT, EXT_TYPE_FLOAT),
                    {{flag(kByValue, kIn, ZD_TYPE_BIN_FLOAT, EXT_TYPE_FLOAT), 4, argument}});
    serve(request);
    EXPECT_EQ(reply_value(0), bytes_of(2.5f));
}

TEST_F(EpaDlCall, ResultCellIsEightZeroedBytes) {
    // Declared to return a float of database type double: 8 bytes are sent, 4 were filled.
    const std::string argument = bytes_of(5.0f);
    Request request("halve_float", flag(kByValue, 0, ZD_TYPE_BIN_DOUBLE, EXT_TYPE_FLOAT),
                    {{flag(kByValue, kIn, ZD_TYPE_BIN_FLOAT, EXT_TYPE_FLOAT), 4, argument}});
    serve(request);
    EXPECT_EQ(reply_value(0), bytes_of(2.5f) + std::string(4, '\0'));
}

TEST_F(EpaDlCall, RoutineWithoutResultHasNoEntryForOne) {
    Request request("returns_seven", kNoReturn, {});
    serve(request);
    EXPECT_EQ(reply_.reply_param.array_cnt, 0);
    EXPECT_EQ(reply_.errstack.len, 0);
}

TEST_F(EpaDlCall, OutEntriesFollowTheResult) {
    Request request(
        "bump", flag(kByValue, 0, ZD_TYPE_PLS_INT, EXT_TYPE_INT),
        {{flag(kByReference, kInOut, ZD_TYPE_PLS_INT, EXT_TYPE_INT), 4, bytes_of(int32_t{41})}});
    serve(request);
    ASSERT_EQ(reply_.reply_param.array_cnt, 2);
    EXPECT_EQ(reply_value(0), bytes_of(int32_t{42}));
    EXPECT_EQ(reply_value(1), bytes_of(int32_t{42}));
}

TEST_F(EpaDlCall, ReplyOutlivesTheMemoryOfItsCall) {
    Request request("with_context_text", flag(kByReference, 0, ZD_TYPE_VARCHAR, EXT_TYPE_STRING),
                    {{flag(kByReference, kIn, ZD_TYPE_VARCHAR, EXT_TYPE_STRING), 5, "inner"}},
                    kWithContext);
    serve(request);
    ASSERT_EQ(reply_.errstack.len, 0);
    Request next("returns_seven", flag(kByValue, 0, ZD_TYPE_PLS_INT, EXT_TYPE_INT), {});
    zdmsg_extproc_execute_reply_t other = {};
    for (int i = 0; i < 3; i++)
        epa_process_request_dir(next.msg(), &other.base, caller_);
    EXPECT_EQ(reply_value(0), "<inner>");
}

TEST_F(EpaDlCall, ValueOfTheLibraryItselfIsNotCopied) {
    Request request("return_text", flag(kByReference, 0, ZD_TYPE_VARCHAR, EXT_TYPE_STRING), {});
    serve(request);
    EXPECT_EQ(reply_value(0), "static text");
    const auto function =
        reinterpret_cast<const char *(*)(void)>(dlsym(epa_dlopen(ROUTINES_LIBRARY), "return_text"));
    EXPECT_EQ(reply_.reply_param.data[0].data_value.data, function());
}

TEST_F(EpaDlCall, ShortRawBlockOfTheRoutineIsPaddedToTheFullLength) {
    Request request("with_context_text", flag(kByReference, 0, ZD_TYPE_RAW, EXT_TYPE_RAW),
                    {{flag(kByReference, kIn, ZD_TYPE_VARCHAR, EXT_TYPE_STRING), 5, "inner"}},
                    kWithContext);
    serve(request);
    ASSERT_EQ(reply_.reply_param.data[0].data_value.len, 2000);
    EXPECT_EQ(reply_value(0).substr(0, 8), std::string("<inner>\0", 8));
}

TEST_F(EpaDlCall, ConnectionIsNotKeptByTheDirectForm) {
    Request request("returns_seven", kNoReturn, {}, kWithContext);
    epa_ctx_mgr_->is_connected = 0;
    serve(request);
    EXPECT_EQ(epa_ctx_mgr_->is_connected, 0);
}

TEST_F(EpaDlCall, MissingFunctionIsAnErrorReplyWithTheLoadersText) {
    Request request("no_such_function", kNoReturn, {});
    serve(request);
    EXPECT_EQ(reply_.base.type, 140);
    EXPECT_EQ(reply_.reply_param.array_cnt, 0);
    EXPECT_EQ(reply_.base.str_auto_free, 1);
    zd_err_stack_t stack;
    zd_err_stack_deserialize(reply_.errstack.data, static_cast<unsigned int>(reply_.errstack.len),
                             caller_, 0, &stack);
    const zd_err_inst_t *const error = zd_err_stack_get(&stack, 0);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->code, ERROR_EPA_FUNCTION_OPEN_FAILED);
    EXPECT_STREQ(error->file, "epa_dl_call");
    EXPECT_EQ(error->line, 605);
    EXPECT_THAT(error->complete_desc,
                testing::StartsWith(" Function ('no_such_function') call failed - "));
    EXPECT_THAT(error->complete_desc, testing::HasSubstr("undefined symbol: no_such_function"));
    EXPECT_EQ(epa_ctx_mgr_->errstack->count, 0);
}

TEST_F(EpaDlCall, RequestAfterAFailedOneIsServed) {
    Request failing("raise_code", kNoReturn, {int_value(20001)}, kWithContext);
    Request good("returns_seven", flag(kByValue, 0, ZD_TYPE_PLS_INT, EXT_TYPE_INT), {});
    for (int i = 0; i < 3; i++) {
        serve(failing);
        EXPECT_EQ(error_in_reply(), -20001);
        zdmsg_free(epa_ctx_mgr_->alloc, &reply_.base);
        serve(good);
        EXPECT_EQ(reply_value(0), bytes_of(int32_t{7}));
    }
}

TEST_F(EpaDlCall, FailedRequestsDoNotPileUpInTheReusableDescriptor) {
    Request failing("raise_code", kNoReturn, {int_value(20001)}, kWithContext);
    const auto *const root = reinterpret_cast<const CLI_alloc_t *>(epa_ctx_mgr_->alloc);
    serve(failing);
    zdmsg_free(epa_ctx_mgr_->alloc, &reply_.base);
    const uint64_t used = root->total_used;
    for (int i = 0; i < 20; i++) {
        serve(failing);
        zdmsg_free(epa_ctx_mgr_->alloc, &reply_.base);
    }
    EXPECT_EQ(root->total_used, used);
    EXPECT_EQ(reinterpret_cast<const CLI_alloc_t *>(epa_ctx_mgr_->dlf->alloc)->total_size, 0u);
}

TEST_F(EpaDlCall, OtherTypeIsRefused) {
    Request request("x", kNoReturn, {});
    request.msg()->type = 142;
    serve(request);
    EXPECT_EQ(error_in_reply(), ERROR_EPA_INVALID_PROTOCOL);
    EXPECT_THAT(home_.log(), testing::HasSubstr("[FAT] Unknown Request Type\n"));
    EXPECT_THAT(home_.log(), testing::HasSubstr("[ERR] ERROR_EPA_INVALID_PROTOCOL occurred\n"));
}

TEST_F(EpaDlCall, NegativeParameterCountMeansNone) {
    Request request("returns_seven", flag(kByValue, 0, ZD_TYPE_PLS_INT, EXT_TYPE_INT), {});
    request.record()->param.array_cnt = -5;
    serve(request);
    EXPECT_EQ(reply_value(0), bytes_of(int32_t{7}));
}

} // namespace
