#include "client/common/client_try.h"

#include <stdio.h>
#include <stdlib.h>

#include "client/common/client_assert.h"

pthread_key_t client_try_jmpbuf_key_;
pthread_once_t client_try_jmpbuf_once_ = PTHREAD_ONCE_INIT;

void client_try_init(void) {
    const int rc = pthread_key_create(&client_try_jmpbuf_key_, nullptr);
    if (rc != 0) {
        fprintf(stderr, "FATAL ERROR: TRY (pthread_key_create) failed (rc = %d).\n", rc);
        exit(1);
    }
}

void zd_err_and_jmp(const char *, int, const char *, uchar, uchar, ec_t ec, ...) {
    // A thread that throws before any frame was opened finds an empty slot, not an unmade key.
    pthread_once(&client_try_jmpbuf_once_, client_try_init);
    jmp_buf *const jmpbuf = static_cast<jmp_buf *>(pthread_getspecific(client_try_jmpbuf_key_));
    ZD_ASSERT_AT("client_try", 111, jmpbuf != NULL);
    longjmp(*jmpbuf, ec);
}
