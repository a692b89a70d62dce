#include "argument.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace zdepcall;
using testing::HasSubstr;

std::string complaint_about(const char *text) {
    try {
        parse_argument(text);
    } catch (const UsageError &error) {
        return error.what();
    }
    return "no complaint";
}

std::string complaint_about_return(const char *text) {
    try {
        parse_return_type(text);
    } catch (const UsageError &error) {
        return error.what();
    }
    return "no complaint";
}

std::string hex_of(const char *text) {
    return to_hex(parse_argument(text).data);
}

TEST(ZdepcallArgument, IntByValueTravelsAsFourBytePlsInt) {
    const Argument argument = parse_argument("int=5");
    EXPECT_FALSE(argument.by_reference);
    EXPECT_EQ(to_hex(argument.data), "05000000");
    EXPECT_EQ(argument.flag(), 0x00011a05);
}

TEST(ZdepcallArgument, IntegersBelowAnIntAreWidenedWithTheirSign) {
    EXPECT_EQ(hex_of("char=-1"), "ffffffff");
    EXPECT_EQ(hex_of("uchar=255"), "ff000000");
    EXPECT_EQ(hex_of("short=-2"), "feffffff");
    EXPECT_EQ(hex_of("ushort=65534"), "feff0000");
}

TEST(ZdepcallArgument, EightByteIntegersTravelAsBinDouble) {
    EXPECT_EQ(hex_of("long=-2"), "feffffffffffffff");
    EXPECT_EQ(hex_of("ulong=18446744073709551615"), "ffffffffffffffff");
    EXPECT_EQ(hex_of("size_t=1"), "0100000000000000");
    EXPECT_EQ(parse_argument("long=1").flag(), 0x00011807);
}

TEST(ZdepcallArgument, FloatTravelsAsBinFloatAndDoubleAsBinDouble) {
    EXPECT_EQ(hex_of("float=2.5"), "00002040");
    EXPECT_EQ(parse_argument("float=2.5").flag(), 0x0001170a);
    EXPECT_EQ(hex_of("double=2.5"), "0000000000000440");
    EXPECT_EQ(parse_argument("double=2.5").flag(), 0x0001180b);
}

TEST(ZdepcallArgument, AmpersandAndRefPassByReferenceInTheNativeSize) {
    for (const char *text : {"&short=-2", "ref:short=-2", "in:&short=-2"}) {
        const Argument argument = parse_argument(text);
        EXPECT_TRUE(argument.by_reference) << text;
        EXPECT_EQ(to_hex(argument.data), "feff") << text;
        EXPECT_EQ(argument.flag(), 0x01011a03) << text;
    }
}

TEST(ZdepcallArgument, OutputNumbersAreZerosOfTheirSizeByReference) {
    for (const char *text : {"out:long", "out:&long"}) {
        const Argument argument = parse_argument(text);
        EXPECT_TRUE(argument.by_reference) << text;
        EXPECT_EQ(to_hex(argument.data), "0000000000000000") << text;
        EXPECT_EQ(argument.capacity, 8) << text;
        EXPECT_EQ(argument.flag(), 0x01021807) << text;
    }
}

TEST(ZdepcallArgument, InOutNumberCarriesItsValue) {
    const Argument argument = parse_argument("inout:int=7");
    EXPECT_EQ(to_hex(argument.data), "07000000");
    EXPECT_EQ(argument.flag(), 0x01031a05);
}

TEST(ZdepcallArgument, StringIsItsBytesByReference) {
    const Argument argument = parse_argument("in:string=abc");
    EXPECT_EQ(to_hex(argument.data), "616263");
    EXPECT_EQ(argument.capacity, 3);
    EXPECT_EQ(argument.flag(), 0x0101030c);
}

TEST(ZdepcallArgument, ValueIsEverythingAfterTheFirstEqualsSign) {
    EXPECT_EQ(hex_of("string=a=(b)/&"), "613d2862292f26");
    EXPECT_EQ(hex_of("string="), "");
}

TEST(ZdepcallArgument, OutputStringHasItsCapacityAndNoBytes) {
    const Argument argument = parse_argument("out:string(100)");
    EXPECT_EQ(argument.capacity, 100);
    EXPECT_TRUE(argument.data.empty());
    EXPECT_EQ(argument.flag(), 0x0102030c);
}

TEST(ZdepcallArgument, InOutRawHasBytesAndCapacity) {
    const Argument argument = parse_argument("inout:raw(16)=0a0B");
    EXPECT_EQ(argument.capacity, 16);
    EXPECT_EQ(to_hex(argument.data), "0a0b");
    EXPECT_EQ(argument.flag(), 0x0103040d);
}

TEST(ZdepcallArgument, ImagesAreFilledUpToTheirCapacityBecauseTheirReplyIsAsLongAsTheRequest) {
    EXPECT_EQ(hex_of("out:zddate(8)"), "0000000000000000");
    EXPECT_EQ(hex_of("inout:zddate(4)=01ff"), "01ff0000");
}

TEST(ZdepcallArgument, DatabaseTypeMayBeNamedInEitherCase) {
    EXPECT_EQ(parse_argument("int/BIN_INT=5").flag(), 0x00011b05);
    EXPECT_EQ(parse_argument("out:string/char(9)").flag(), 0x0102020c);
    EXPECT_EQ(hex_of("int/BIN_DOUBLE=-2"), "feffffffffffffff");
}

TEST(ZdepcallArgument, TypeNoneByValueCarriesNothing) {
    const Argument argument = parse_argument("int/none");
    EXPECT_TRUE(argument.data.empty());
    EXPECT_EQ(argument.flag(), 0x00010005);
    EXPECT_THAT(complaint_about("int/none=1"), HasSubstr("carries no value"));
}

TEST(ZdepcallArgument, TypesThatTheAgentRefusesByValueAreSentAllTheSame) {
    EXPECT_EQ(parse_argument("int/NUMBER=5").flag(), 0x00010105);
    EXPECT_EQ(hex_of("int/NUMBER=5"), "05000000");
}

TEST(ZdepcallArgument, TypeTooNarrowForTheValueIsRefused) {
    EXPECT_EQ(complaint_about("double/BIN_FLOAT=1"),
              "double/BIN_FLOAT=1: BIN_FLOAT carries 4 bytes, too few for double (leave the "
              "database type out)");
}

TEST(ZdepcallArgument, LimitsOfIntegersAreTheirOwn) {
    EXPECT_EQ(hex_of("&char=-128"), "80");
    EXPECT_EQ(hex_of("&uchar=0xff"), "ff");
    EXPECT_EQ(hex_of("int=-2147483648"), "00000080");
    EXPECT_EQ(hex_of("long=-9223372036854775808"), "0000000000000080");
    EXPECT_EQ(complaint_about("int=99999999999"),
              "int=99999999999: out of range for int (-2147483648 to 2147483647)");
    EXPECT_THAT(complaint_about("char=128"), HasSubstr("out of range for char (-128 to 127)"));
    EXPECT_THAT(complaint_about("ushort=-1"), HasSubstr("out of range for ushort (0 to 65535)"));
    EXPECT_THAT(complaint_about("long=-9223372036854775809"), HasSubstr("out of range for long"));
    EXPECT_THAT(complaint_about("ulong=99999999999999999999"), HasSubstr("out of range for ulong"));
}

TEST(ZdepcallArgument, WhatIsNoNumberIsRefused) {
    for (const char *text : {"int=", "int=x", "int=1x", "int=0x", "int=-", "int= 1", "int=1.5"})
        EXPECT_THAT(complaint_about(text), HasSubstr("is not a whole number")) << text;
    for (const char *text : {"double=", "double=x", "double=1x", "double= 1"})
        EXPECT_THAT(complaint_about(text), HasSubstr("is not a number")) << text;
    EXPECT_THAT(complaint_about("float=1e99"), HasSubstr("out of range for float"));
}

TEST(ZdepcallArgument, WhatIsNoHexIsRefused) {
    EXPECT_THAT(complaint_about("raw=0"), HasSubstr("is not hexadecimal"));
    EXPECT_THAT(complaint_about("raw=0g"), HasSubstr("is not hexadecimal"));
}

TEST(ZdepcallArgument, CapacityIsForOutputsOfVariableLengthAlone) {
    EXPECT_THAT(complaint_about("out:string"), HasSubstr("needs a capacity"));
    EXPECT_THAT(complaint_about("inout:raw=00"), HasSubstr("needs a capacity"));
    EXPECT_THAT(complaint_about("string(5)=abc"), HasSubstr("an input has no capacity"));
    EXPECT_THAT(complaint_about("out:int(4)"), HasSubstr("has a fixed size"));
    for (const char *text : {"out:string()", "out:string(0)", "out:string(-1)", "out:string(1x)",
                             "out:string(2147483648)"})
        EXPECT_THAT(complaint_about(text), HasSubstr("is not a capacity")) << text;
    EXPECT_THAT(complaint_about("out:string(1"), HasSubstr("not closed"));
    EXPECT_THAT(complaint_about("inout:string(2)=abc"), HasSubstr("more than its capacity"));
}

TEST(ZdepcallArgument, ValueIsForInputsAndRequiredThere) {
    EXPECT_THAT(complaint_about("int"), HasSubstr("int: needs a value (write int=VALUE)"));
    EXPECT_THAT(complaint_about("inout:string(9)"), HasSubstr("needs a value"));
    EXPECT_THAT(complaint_about("out:int=5"), HasSubstr("an output takes no value"));
}

TEST(ZdepcallArgument, UnknownTypesAreNamedWithTheKnownOnes) {
    EXPECT_THAT(complaint_about("integer=5"), HasSubstr("unknown type 'integer'"));
    EXPECT_THAT(complaint_about("integer=5"), HasSubstr("zdcoll"));
    EXPECT_THAT(complaint_about("int/INTEGER=5"), HasSubstr("unknown database type 'INTEGER'"));
    EXPECT_THAT(complaint_about(""), HasSubstr("unknown type ''"));
}

TEST(ZdepcallReturnType, NumbersReturnByValueAndTheRestByReference) {
    EXPECT_EQ(parse_return_type("int").flag(), 0x00021a05);
    EXPECT_EQ(parse_return_type("&int").flag(), 0x01021a05);
    EXPECT_EQ(parse_return_type("string").flag(), 0x0102030c);
    EXPECT_EQ(ReturnType().flag(), 0);
}

TEST(ZdepcallReturnType, ValuesModesAndCapacitiesAreRefused) {
    for (const char *text : {"int=5", "out:int", "string(5)"})
        EXPECT_THAT(complaint_about_return(text), HasSubstr("not a return type")) << text;
    EXPECT_THAT(complaint_about_return("int/NONE"), HasSubstr("nothing is returned"));
    EXPECT_THAT(complaint_about_return("double/PLS_INT"), HasSubstr("too few for double"));
}

} // namespace
