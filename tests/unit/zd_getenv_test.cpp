#include "common/zd_getenv.h"

#include <stdlib.h>

#include <gtest/gtest.h>

namespace {

class ZdGetenv : public testing::Test {
  protected:
    void SetUp() override {
        unsetenv("ZD_GETENV_FIRST");
        unsetenv("ZD_GETENV_SECOND");
    }
    void TearDown() override { SetUp(); }
};

TEST_F(ZdGetenv, FirstNameWinsWhenBothAreSet) {
    setenv("ZD_GETENV_FIRST", "one", 1);
    setenv("ZD_GETENV_SECOND", "two", 1);
    EXPECT_STREQ(zd_getenv("ZD_GETENV_FIRST", "ZD_GETENV_SECOND", "default"), "one");
}

TEST_F(ZdGetenv, SecondNameServesWhenTheFirstIsUnset) {
    setenv("ZD_GETENV_SECOND", "two", 1);
    EXPECT_STREQ(zd_getenv("ZD_GETENV_FIRST", "ZD_GETENV_SECOND", "default"), "two");
}

TEST_F(ZdGetenv, VariableSetToNothingCountsAsSet) {
    setenv("ZD_GETENV_FIRST", "", 1);
    setenv("ZD_GETENV_SECOND", "two", 1);
    EXPECT_STREQ(zd_getenv("ZD_GETENV_FIRST", "ZD_GETENV_SECOND", "default"), "");
}

TEST_F(ZdGetenv, DefaultServesWhenBothAreUnset) {
    EXPECT_STREQ(zd_getenv("ZD_GETENV_FIRST", "ZD_GETENV_SECOND", "default"), "default");
}

TEST_F(ZdGetenv, SecondNameMayBeMissing) {
    EXPECT_STREQ(zd_getenv("ZD_GETENV_FIRST", nullptr, "default"), "default");
}

TEST_F(ZdGetenv, DefaultMayBeNull) {
    EXPECT_EQ(zd_getenv("ZD_GETENV_FIRST", "ZD_GETENV_SECOND", nullptr), nullptr);
}

} // namespace
