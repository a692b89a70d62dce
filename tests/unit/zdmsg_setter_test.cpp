#include "common/zdmsg/zdmsg_setter_gen.h"

#include <gtest/gtest.h>
#include <string.h>

#include <string>
#include <type_traits>

namespace {

// What every record is filled with before a setter runs: members that it leaves alone show.
constexpr unsigned char kJunk = 0x5C;

// Any argument for a setter: integers are counted up, pointers point at zeros that any fixed field
// can be copied from.
struct AnyArgument {
    static int next() {
        static int counter = 0;
        return counter++;
    }
    static inline char zeros[64] = {};

    template <class Argument>
    static Argument make() {
        if constexpr (std::is_same_v<Argument, int>)
            return next();
        else if constexpr (std::is_same_v<Argument, const char *>)
            return zeros;
        else
            return nullptr;
    }
};

template <class Record, class... Arguments>
void call(void (*setter)(Record *, Arguments...), Record *record) {
    memset(static_cast<void *>(record), kJunk, sizeof *record);
    setter(record, AnyArgument::make<Arguments>()...);
}

template <class Record>
void expect_head(const Record &record, int type, int str_auto_free) {
    EXPECT_EQ(record.base.type, type);
    EXPECT_EQ(record.base.body_size, 0u);
    EXPECT_EQ(record.base.tsn, 0u);
    EXPECT_EQ(record.base.str_auto_free, str_auto_free);
}

TEST(ZdmsgSetter, EverySetFillsTheHeadAndKeepsStrings){
#define RECORD(number, name, letters)
#define MESSAGE(number, name, letters)                                                             \
    {                                                                                              \
        SCOPED_TRACE(#name);                                                                       \
        zdmsg_##name##_t record;                                                                   \
        call(zdmsg_##name##_set, &record);                                                         \
        expect_head(record, number, 0);                                                            \
    }
#include "support/zdmsg_shapes.inc"
#undef MESSAGE
#undef RECORD
}

TEST(ZdmsgSetter, EverySet2FillsTheHeadAndGivesStringsAway){
#define RECORD(number, name, letters)
#define MESSAGE(number, name, letters)                                                             \
    {                                                                                              \
        SCOPED_TRACE(#name);                                                                       \
        zdmsg_##name##_t record;                                                                   \
        call(zdmsg_##name##_set2, &record);                                                        \
        expect_head(record, number, 1);                                                            \
    }
#include "support/zdmsg_shapes.inc"
#undef MESSAGE
#undef RECORD
}

TEST(ZdmsgSetter, EveryElementRecordHasBothSetters){
#define RECORD(number, name, letters)                                                              \
    {                                                                                              \
        zdmsg_##name##_t record;                                                                   \
        call(zdmsg_##name##_set, &record);                                                         \
        call(zdmsg_##name##_set2, &record);                                                        \
    }
#define MESSAGE(number, name, letters)
#include "support/zdmsg_shapes.inc"
#undef MESSAGE
#undef RECORD
}

TEST(ZdmsgSetter, RawAndTheUnusedMemberAreLeftAlone) {
    zdmsg_commit_t msg;
    memset(&msg, kJunk, sizeof msg);
    zdmsg_commit_set(&msg);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(msg.base.raw), 0x5C5C5C5C5C5C5C5Cu);
    EXPECT_EQ(msg.base.dummy, 0x5C5C5C5C);
}

TEST(ZdmsgSetter, RequestIsStoredAsGiven) {
    const char *const path = "/usr/lib/user.so";
    const char *const function = "f";
    zdmsg_struct_extproc_param_t params[3];
    zdmsg_extproc_execute_t msg;
    zdmsg_extproc_execute_set(&msg, path, function, 0x100, -7, 3, params);
    EXPECT_EQ(msg.library_path.len, 16);
    EXPECT_EQ(msg.library_path.data, path);
    EXPECT_EQ(msg.function_name.len, 1);
    EXPECT_EQ(msg.function_name.data, function);
    EXPECT_EQ(msg.property, 0x100);
    EXPECT_EQ(msg.return_flag, -7);
    EXPECT_EQ(msg.param.array_cnt, 3);
    EXPECT_EQ(msg.param.data, params);
}

TEST(ZdmsgSetter, ReplyMeasuresItsTextAndNotItsBytes) {
    zdmsg_struct_extproc_reply_param_t value;
    const char output[] = "out\0put";
    const char stack[] = "a\0b";
    zdmsg_extproc_execute_reply_t msg;
    zdmsg_extproc_execute_reply_set2(&msg, output, 100, stack, 1, &value);
    EXPECT_EQ(msg.dbms_output.len, 3);
    EXPECT_EQ(msg.dbms_output.data, output);
    EXPECT_EQ(msg.errstack.len, 100);
    EXPECT_EQ(msg.errstack.data, stack);
    EXPECT_EQ(msg.reply_param.array_cnt, 1);
    EXPECT_EQ(msg.reply_param.data, &value);
}

TEST(ZdmsgSetter, MissingTextIsEmptyAndPointsNowhere) {
    zdmsg_extproc_refresh_t msg;
    zdmsg_extproc_refresh_set(&msg, nullptr);
    EXPECT_EQ(msg.base.type, 142);
    EXPECT_EQ(msg.classname.len, 0);
    EXPECT_EQ(msg.classname.data, nullptr);
}

TEST(ZdmsgSetter, ElementRecordsStoreTheirFieldsOnly) {
    zdmsg_struct_extproc_param_t param;
    zdmsg_struct_extproc_param_set(&param, 1, 2, 3, "abc");
    EXPECT_EQ(param.flag, 1);
    EXPECT_EQ(param.maxlen, 2);
    EXPECT_EQ(param.data_value.len, 3);
    EXPECT_STREQ(param.data_value.data, "abc");
    zdmsg_struct_extproc_reply_param_t value;
    zdmsg_struct_extproc_reply_param_set2(&value, -1, nullptr);
    EXPECT_EQ(value.data_value.len, -1);
    EXPECT_EQ(value.data_value.data, nullptr);
}

TEST(ZdmsgSetter, ErrorReplyStoresTheStackAsGiven) {
    zdmsg_ereply_t msg;
    zdmsg_ereply_set(&msg, 4, 3, "a\0b");
    EXPECT_EQ(msg.base.type, 76);
    EXPECT_EQ(msg.flag, 4);
    EXPECT_EQ(msg.error_stack.len, 3);
    EXPECT_EQ(memcmp(msg.error_stack.data, "a\0b", 3), 0);
}

TEST(ZdmsgSetter, FixedFieldsAreCopiedInTheirWholeLengthAndNoFurther) {
    char filename[65];
    memset(filename, 'f', 64);
    filename[64] = 'X';
    zdmsg_tsam_open_request_t msg;
    memset(static_cast<void *>(&msg), kJunk, sizeof msg);
    zdmsg_tsam_open_request_set(&msg, filename, "VOLSER\0\1", 1, 2, 3, 4, 5, 6, 7);
    EXPECT_EQ(std::string(msg.filename, 64), std::string(64, 'f'));
    EXPECT_EQ(std::string(msg.volser, 8), std::string("VOLSER\0\1", 8));
    EXPECT_EQ(msg.tsam_organization, 1);
    EXPECT_EQ(msg.rgattr, 7);
    memset(filename, 'g', 64);
    EXPECT_EQ(msg.filename[0], 'f');
}

TEST(ZdmsgSetter, ColumnsAreStoredAsGiven) {
    zdmsg_struct_bindparam_t param;
    zdmsg_struct_bindparam_set(&param, 1, 70000, "x");
    EXPECT_EQ(param.data_value.len, 70000);
    EXPECT_STREQ(param.data_value.data, "x");
}

// Whether a string is measured or given shows in the parameters.
template <class Expected, class Setter>
void expect_parameters(Setter) {
    EXPECT_TRUE((std::is_same_v<Setter, Expected>));
}

TEST(ZdmsgSetter, BytesOrTextFollowsTheMessageNotTheFieldName) {
    using Text = const char *;
    expect_parameters<void (*)(zdmsg_auth_req_t *, int, Text, Text, Text, Text, int, Text, Text,
                               Text, Text)>(zdmsg_auth_req_set);
    expect_parameters<void (*)(zdmsg_svr_auth_req_t *, int, Text, Text, int, Text)>(
        zdmsg_svr_auth_req_set);
    expect_parameters<void (*)(zdmsg_svr_auth_req_with_ver_t *, int, int, int, Text, Text, int,
                               Text)>(zdmsg_svr_auth_req_with_ver_set);
    expect_parameters<void (*)(zdmsg_svr_auth_req_with_rth_id_t *, int, int, int, Text, Text, int,
                               Text, int)>(zdmsg_svr_auth_req_with_rth_id_set);
    expect_parameters<void (*)(zdmsg_xa_t *, int, int, int, Text, int)>(zdmsg_xa_set);
    expect_parameters<void (*)(zdmsg_zdcm_cmd_t *, int, int, Text)>(zdmsg_zdcm_cmd_set);
    expect_parameters<void (*)(zdmsg_zdcm_notify_t *, int, Text)>(zdmsg_zdcm_notify_set);
    expect_parameters<void (*)(zdmsg_put_data_t *, int, int, int, Text)>(zdmsg_put_data_set);
    expect_parameters<void (*)(zdmsg_struct_horde_arg_entry_t *, Text, Text)>(
        zdmsg_struct_horde_arg_entry_set);
    expect_parameters<void (*)(zdmsg_tsam_start_request_t *, int, int, int, Text)>(
        zdmsg_tsam_start_request_set);
    expect_parameters<void (*)(zdmsg_struct_sess_attr_desc_t *, int, Text)>(
        zdmsg_struct_sess_attr_desc_set);
    expect_parameters<void (*)(zdmsg_struct_out_param_t *, int, int, Text, int,
                               zdmsg_struct_column_desc_t *)>(zdmsg_struct_out_param_set);
    expect_parameters<void (*)(zdmsg_struct_bindparam_t *, int, int, Text)>(
        zdmsg_struct_bindparam_set2);
}

TEST(ZdmsgSetterDeathTest, NullRecordFailsAnAssertion) {
    const char *const report =
        "^zdmsg_setter_gen:[0-9]+: Assertion fail with condition 'zdmsg != NULL' ";
    const auto killed = testing::KilledBySignal(SIGABRT);
    EXPECT_EXIT(zdmsg_commit_set(nullptr), killed, report);
    EXPECT_EXIT(zdmsg_commit_set2(nullptr), killed, report);
    EXPECT_EXIT(zdmsg_tmc_reply_set(nullptr, "12345678", 1), killed, report);
    EXPECT_EXIT(zdmsg_struct_extproc_param_set(nullptr, 0, 0, 0, nullptr), killed, report);
    EXPECT_EXIT(zdmsg_struct_extproc_param_set2(nullptr, 0, 0, 0, nullptr), killed, report);
}

} // namespace
