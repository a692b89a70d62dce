/* Routines that use nothing of the library but the names and layouts that it promises: no header
 * of it is read here, and the names are found when the agent opens this file. */

#include <fcntl.h>
#include <stdint.h>
#include <string.h>
#include <unistd.h>

/* What a routine with context is given. */
struct routine_context {
    void *alloc;
    int fd;
    void *errstack;
    int64_t henv;
    int64_t hdbc;
    unsigned char is_connected;
};

void *SQLExtProcDirectAllocMemory(struct routine_context *context, size_t size);
void SQLExtProcDirectRaiseErrorWithMsg(struct routine_context *context, int code, char *text);
int zd_err_internal_va(void *errstack, const char *file, int line, const char *func, int code, ...);

/* Takes whatever it is given and leaves it as it is. */
void do_nothing(void) {}

/* --- the connection slot -------------------------------------------------------------------- */

void report_connection(struct routine_context *context, int64_t henv, int64_t hdbc, int connected) {
    context->henv = henv;
    context->hdbc = hdbc;
    context->is_connected = (unsigned char)connected;
}

int seen_connection(struct routine_context *context, char *handles) {
    memcpy(handles, &context->henv, sizeof context->henv);
    memcpy(handles + 8, &context->hdbc, sizeof context->hdbc);
    return context->is_connected;
}

int has_allocator_and_stack(struct routine_context *context) {
    return context->alloc != NULL && context->errstack != NULL;
}

int socket_of_context(struct routine_context *context) {
    return context->fd;
}

void close_socket_of_context(struct routine_context *context) {
    close(context->fd);
}

/* --- raising -------------------------------------------------------------------------------- */

void raise_own_code(struct routine_context *context, int code, char *text) {
    SQLExtProcDirectRaiseErrorWithMsg(context, code, text);
}

/* A lower layer's error, an internal one, and the routine's own on top. */
void raise_three(struct routine_context *context) {
    char text[] = "the newest";
    zd_err_internal_va(context->errstack, "lower_unit", 77, "lower_function", -18017);
    zd_err_internal_va(context->errstack, "inner_unit", 88, "inner_function", -640007);
    SQLExtProcDirectRaiseErrorWithMsg(context, 20001, text);
}

/* Memory that only the end of the call gives back. */
void raise_with_memory(struct routine_context *context, int64_t size) {
    memset(SQLExtProcDirectAllocMemory(context, (size_t)size), 'm', (size_t)size);
    SQLExtProcDirectRaiseErrorWithMsg(context, 20002, NULL);
}

/* --- values --------------------------------------------------------------------------------- */

void write_text(char *out, int length) {
    memset(out, 't', (size_t)length);
    out[length] = '\0';
}

void write_number(unsigned char *out, int length_byte) {
    out[0] = (unsigned char)length_byte;
}

const unsigned char *make_number(int length_byte) {
    static unsigned char number[256];
    for (int i = 0; i < 256; i++)
        number[i] = (unsigned char)(255 - i);
    number[0] = (unsigned char)length_byte;
    return number;
}

/* rax holds the address; xmm0 is what the agent loaded into it. */
double *make_double(void) {
    static double value = 1.5;
    return &value;
}

/* --- waiting for the test ------------------------------------------------------------------- */

/* Until the test has written a byte into the named pipe at path. */
int wait_for_byte(const char *path) {
    char byte = 0;
    const int fd = open(path, O_RDONLY);
    const ssize_t count = read(fd, &byte, 1);
    close(fd);
    return count == 1 ? byte : -1;
}

void wait_and_raise(struct routine_context *context, const char *path) {
    char text[] = "after the wait";
    wait_for_byte(path);
    SQLExtProcDirectRaiseErrorWithMsg(context, 20003, text);
}

/* --- the machine ---------------------------------------------------------------------------- */

/* The stack pointer as the routine finds it, with the return address on top. */
__asm__(".text\n"
        ".globl stack_pointer_on_entry\n"
        ".type stack_pointer_on_entry, @function\n"
        "stack_pointer_on_entry:\n"
        "    endbr64\n"
        "    movq %rsp, %rax\n"
        "    ret\n"
        ".size stack_pointer_on_entry, . - stack_pointer_on_entry\n");
