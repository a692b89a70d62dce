#include "common/zdmsg/zdmsg_meta_gen.h"

#include <gtest/gtest.h>

#include <string>

#include "support/zdmsg_shapes.h"

namespace {

using zdmsg_shapes::Shape;

zdmsg_field_type_t kind_of(const zdmsg_shapes::Field &field) {
    switch (field.letter) {
    case 'i':
        return ZDMSG_FIELD_INT;
    case 'c':
        return ZDMSG_FIELD_COL;
    case 'f':
        return ZDMSG_FIELD_FIXED;
    case 'a':
        return ZDMSG_FIELD_ARRAY;
    default:
        return ZDMSG_FIELD_STR;
    }
}

void expect_table(const Shape &shape, int field_cnt, const zdmsg_field_t *fields) {
    ASSERT_EQ(static_cast<size_t>(field_cnt), shape.fields.size());
    for (size_t i = 0; i < shape.fields.size(); i++) {
        EXPECT_EQ(fields[i].type, kind_of(shape.fields[i])) << i;
        EXPECT_EQ(static_cast<size_t>(fields[i].offset), shape.fields[i].offset) << i;
        EXPECT_EQ(fields[i].type_or_len, shape.fields[i].number) << i;
    }
}

TEST(ZdmsgMeta, EveryMessageHasItsTable) {
    ASSERT_EQ(zdmsg_shapes::messages().size(), 278u);
    ASSERT_EQ(sizeof _zdmsg_meta / sizeof _zdmsg_meta[0], 278u);
    for (const Shape &shape : zdmsg_shapes::messages()) {
        SCOPED_TRACE(shape.name);
        const zdmsg_meta_t &meta = _zdmsg_meta[shape.number];
        expect_table(shape, meta.field_cnt, meta.fields);
    }
}

TEST(ZdmsgMeta, EveryElementRecordHasItsTable) {
    ASSERT_EQ(zdmsg_shapes::records().size(), 35u);
    ASSERT_EQ(sizeof _zdmsg_struct_meta / sizeof _zdmsg_struct_meta[0], 35u);
    for (const Shape &shape : zdmsg_shapes::records()) {
        SCOPED_TRACE(shape.name);
        const zdmsg_struct_meta_t &meta = _zdmsg_struct_meta[shape.number];
        expect_table(shape, meta.field_cnt, meta.fields);
        EXPECT_EQ(static_cast<size_t>(meta.size), shape.size);
    }
}

TEST(ZdmsgMeta, ThirtyFourMessagesHaveNoFields) {
    int without = 0;
    for (const zdmsg_meta_t &meta : _zdmsg_meta) {
        if (meta.field_cnt == 0) {
            EXPECT_EQ(meta.fields, nullptr);
            without++;
        }
    }
    EXPECT_EQ(without, 34);
}

TEST(ZdmsgMeta, TablesAreExportedByName) {
    EXPECT_EQ(_zdmsg_meta[139].fields, _zdmsg_extproc_execute_fields);
    EXPECT_EQ(_zdmsg_meta[139].field_cnt, 5);
    EXPECT_EQ(_zdmsg_meta[140].fields, _zdmsg_extproc_execute_reply_fields);
    EXPECT_EQ(_zdmsg_meta[140].field_cnt, 3);
    EXPECT_EQ(_zdmsg_meta[76].fields, _zdmsg_ereply_fields);
    EXPECT_EQ(_zdmsg_meta[116].fields, _zdmsg_2pc_prepare_fields);
    EXPECT_EQ(_zdmsg_struct_meta[11].fields, _zdmsg_struct_extproc_param_fields);
    EXPECT_EQ(_zdmsg_struct_meta[11].field_cnt, 3);
    EXPECT_EQ(_zdmsg_struct_meta[12].fields, _zdmsg_struct_extproc_reply_param_fields);
}

// Programs fill these records in memory, so their layout cannot move.
TEST(ZdmsgMeta, RecordsOfTheExternalProcedureFamilyKeepTheirLayout) {
    EXPECT_EQ(offsetof(zdmsg_extproc_execute_t, library_path.len), 32u);
    EXPECT_EQ(offsetof(zdmsg_extproc_execute_t, library_path.data), 40u);
    EXPECT_EQ(offsetof(zdmsg_extproc_execute_t, function_name), 48u);
    EXPECT_EQ(offsetof(zdmsg_extproc_execute_t, property), 64u);
    EXPECT_EQ(offsetof(zdmsg_extproc_execute_t, return_flag), 68u);
    EXPECT_EQ(offsetof(zdmsg_extproc_execute_t, param.array_cnt), 72u);
    EXPECT_EQ(offsetof(zdmsg_extproc_execute_t, param.data), 80u);
    EXPECT_EQ(sizeof(zdmsg_extproc_execute_t), 88u);
    EXPECT_EQ(offsetof(zdmsg_struct_extproc_param_t, flag), 0u);
    EXPECT_EQ(offsetof(zdmsg_struct_extproc_param_t, maxlen), 4u);
    EXPECT_EQ(offsetof(zdmsg_struct_extproc_param_t, data_value.len), 8u);
    EXPECT_EQ(offsetof(zdmsg_struct_extproc_param_t, data_value.data), 16u);
    EXPECT_EQ(sizeof(zdmsg_struct_extproc_param_t), 24u);
    EXPECT_EQ(offsetof(zdmsg_extproc_execute_reply_t, dbms_output), 32u);
    EXPECT_EQ(offsetof(zdmsg_extproc_execute_reply_t, errstack), 48u);
    EXPECT_EQ(offsetof(zdmsg_extproc_execute_reply_t, reply_param), 64u);
    EXPECT_EQ(sizeof(zdmsg_extproc_execute_reply_t), 80u);
    EXPECT_EQ(sizeof(zdmsg_struct_extproc_reply_param_t), 16u);
    EXPECT_EQ(offsetof(zdmsg_ereply_t, flag), 32u);
    EXPECT_EQ(offsetof(zdmsg_ereply_t, error_stack), 40u);
    EXPECT_EQ(sizeof(zdmsg_ereply_t), 56u);
}

TEST(ZdmsgMeta, RecordSizesAreThoseOfTheTypes) {
    for (const Shape &shape : zdmsg_shapes::messages())
        EXPECT_EQ(zdmsg_get_msg_sizeof(shape.number), shape.size) << shape.name;
    EXPECT_EQ(zdmsg_get_msg_sizeof(ZDMSG_COMMIT), sizeof(zdmsg_t));
    EXPECT_EQ(zdmsg_get_msg_sizeof(ZDMSG_TSAM_OPEN_REQUEST), sizeof(zdmsg_tsam_open_request_t));
}

TEST(ZdmsgMeta, LargestRecordIsTheAuthenticationRequest) {
    EXPECT_EQ(zdmsg_get_max_msg_size(), sizeof(zdmsg_auth_req_t));
    for (int type = 0; type < ZDMSG_TYPE_CNT; type++)
        EXPECT_LE(zdmsg_get_msg_sizeof(type), sizeof(zdmsg_auth_req_t)) << type;
}

TEST(ZdmsgMetaDeathTest, SizeOfAnUnknownTypeFailsAnAssertion) {
    const char *const report =
        "^common/zdmsg/zdmsg_meta_gen:[0-9]+: Assertion fail with condition '0' ";
    EXPECT_EXIT(zdmsg_get_msg_sizeof(-1), testing::KilledBySignal(SIGABRT), report);
    EXPECT_EXIT(zdmsg_get_msg_sizeof(278), testing::KilledBySignal(SIGABRT), report);
}

TEST(ZdmsgMeta, TypesAreNamedInUpperCase) {
    for (const Shape &shape : zdmsg_shapes::messages()) {
        std::string name = "ZDMSG_" + shape.name;
        for (char &c : name)
            c = static_cast<char>(c >= 'a' && c <= 'z' ? c - 'a' + 'A' : c);
        EXPECT_EQ(zdmsg_type_to_string(shape.number), name);
    }
}

TEST(ZdmsgMeta, NumbersOutsideTheCatalogueAreInvalid) {
    EXPECT_STREQ(zdmsg_type_to_string(277), "ZDMSG_TAS_FILE_STAT_REPLY");
    EXPECT_STREQ(zdmsg_type_to_string(278), "INVALID");
    EXPECT_STREQ(zdmsg_type_to_string(-1), "INVALID");
    EXPECT_STREQ(zdmsg_type_to_string(0), "ZDMSG_CONNECT_REPLY");
}

TEST(ZdmsgMeta, ConstantsAreTheNumbers) {
    EXPECT_EQ(ZDMSG_CONNECT_REPLY, 0);
    EXPECT_EQ(ZDMSG_EREPLY, 76);
    EXPECT_EQ(ZDMSG_2PC_PREPARE, 116);
    EXPECT_EQ(ZDMSG_EXTPROC_EXECUTE, 139);
    EXPECT_EQ(ZDMSG_EXTPROC_EXECUTE_REPLY, 140);
    EXPECT_EQ(ZDMSG_EXTPROC_REFRESH, 142);
    EXPECT_EQ(ZDMSG_TMC_CHUNK, 207);
    EXPECT_EQ(ZDMSG_TAS_FILE_STAT_REPLY, 277);
    EXPECT_EQ(ZDMSG_STRUCT_EXTPROC_PARAM, 11);
}

} // namespace
