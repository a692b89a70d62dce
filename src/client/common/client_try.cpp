#include "client/common/client_try.h"

#include <stdio.h>
#include <stdlib.h>

#include "client/common/client_assert.h"

// What the key is before it is made: no key of the system's, whose keys are small numbers.
static constexpr pthread_key_t kNoKey = ~pthread_key_t{0};

pthread_key_t client_try_jmpbuf_key_ = kNoKey;
pthread_once_t client_try_jmpbuf_once_ = PTHREAD_ONCE_INIT;

void client_try_init(void) {
    const int rc = pthread_key_create(&client_try_jmpbuf_key_, nullptr);
    if (rc != 0) {
        fprintf(stderr, "FATAL ERROR: TRY (pthread_key_create) failed (rc = %d).\n", rc);
        exit(1);
    }
}

void zd_err_and_jmp(const char *, int, const char *, uchar, uchar, ec_t ec, ...) {
    // A thread may throw before any frame was opened. Making the key is not the throw's affair: it
    // would replace one that a caller made without the once.
    void *const slot =
        client_try_jmpbuf_key_ == kNoKey ? nullptr : pthread_getspecific(client_try_jmpbuf_key_);
    jmp_buf *const jmpbuf = static_cast<jmp_buf *>(slot);
    ZD_ASSERT_AT("client_try", 111, jmpbuf != NULL);
    longjmp(*jmpbuf, ec);
}
