// A process that has no OpenSSL: it starts, and the SSL forms fail like any other I/O. CTest runs
// it twice, the second time with every symbol bound at the start.
#include <dlfcn.h>
#include <errno.h>
#include <gtest/gtest.h>

#include "client/common/client_try.h"
#include "common/alloc/system_clialloc.h"
#include "common/ec.h"
#include "common/zd_sock_io.h"

namespace {

class WithoutOpenSsl : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(dlsym(RTLD_DEFAULT, "SSL_read"), nullptr);
        ASSERT_EQ(dlsym(RTLD_DEFAULT, "SSL_write"), nullptr);
    }

    int session_ = 0; // never looked into
    char buffer_[8] = {};
};

TEST_F(WithoutOpenSsl, ReadsAreIoErrors) {
    for (const int before : {0, EINTR, EAGAIN}) {
        errno = before;
        EXPECT_EQ(client_try([&] { zd_sock_ssl_readn(0, &session_, buffer_, 8); }), ERROR_IO);
        EXPECT_EQ(errno, ENOSYS);
        errno = before;
        EXPECT_EQ(client_try([&] { zd_sock_ssl_readn_nonb(0, &session_, buffer_, 8, 0); }),
                  ERROR_IO);
        errno = before;
        EXPECT_EQ(client_try([&] { zd_sock_ssl_read_once(0, &session_, buffer_, 8); }), ERROR_IO);
        errno = before;
        EXPECT_EQ(client_try([&] { zd_sock_ssl_read_once_nonb(0, &session_, buffer_, 8, 0); }),
                  ERROR_IO);
        EXPECT_EQ(errno, ENOSYS);
    }
}

TEST_F(WithoutOpenSsl, WritesAreIoErrors) {
    EXPECT_EQ(zd_sock_ssl_writen_ex(0, &session_, "abc", 3, 1, 0), -1);
    EXPECT_EQ(errno, ENOSYS);
    EXPECT_EQ(client_try([&] { zd_sock_ssl_writen_ex(0, &session_, "abc", 3, 0, 0); }), ERROR_IO);
    iovec vector = {buffer_, sizeof buffer_};
    EXPECT_EQ(client_try([&] { zd_sock_ssl_writev(0, &_system_allocator, &session_, &vector, 1); }),
              ERROR_IO);
}

TEST_F(WithoutOpenSsl, WhatNeedsNoSessionWorks) {
    EXPECT_EQ(zd_sock_ssl_readn(0, &session_, buffer_, 0), 0);
    EXPECT_EQ(zd_sock_ssl_writen_ex(0, &session_, "abc", 0, 0, 0), 0);
    EXPECT_EQ(zd_sock_ssl_writev(0, &_system_allocator, &session_, nullptr, 0), -1);
}

} // namespace
