// User routines for tests: each is called by name through the agent or through the library.

#include <signal.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "zdextproc.h"

int returns_seven(void) {
    return 7;
}

int add(int a, int b) {
    return a + b;
}

int64_t add_long(int64_t a, int64_t b) {
    return a + b;
}

double halve(double value) {
    return value / 2;
}

float halve_float(float value) {
    return value / 2;
}

int seventh(int a, int b, int c, int d, int e, int f, int g) {
    return (a + b + c + d + e + f) * 0 + g;
}

double ninth(double a, double b, double c, double d, double e, double f, double g, double h,
             double i) {
    return (a + b + c + d + e + f + g + h) * 0 + i;
}

// OUT and IN OUT text.
void say_hello(char *out) {
    strcpy(out, "hello");
}

void upper(char *text) {
    for (; *text != '\0'; text++)
        if (*text >= 'a' && *text <= 'z')
            *text = (char)(*text - 'a' + 'A');
}

// The first five bytes beyond an IN OUT text are zero when its buffer was widened.
int zeros_behind(const char *text) {
    const char *at = text + strlen(text);
    int zeros = 0;
    while (zeros < 5 && at[zeros] == 0)
        zeros++;
    return zeros;
}

void set_raw(unsigned char *out) {
    for (int i = 0; i < 8; i++)
        out[i] = (unsigned char)(0xA0 + i);
}

// A number: its first byte is the length byte.
void set_number(unsigned char *out) {
    out[0] = 4;
    out[1] = 0xC1;
    out[2] = 0x02;
    out[3] = 0x03;
}

void set_empty_number(unsigned char *out) {
    out[0] = 0;
}

const unsigned char *return_number(void) {
    static const unsigned char number[] = {3, 0xC1, 0x0A, 0x0B};
    return number;
}

const char *return_text(void) {
    return "static text";
}

const char *return_null(void) {
    return NULL;
}

const unsigned char *return_raw(void) {
    static unsigned char raw[2000];
    for (int i = 0; i < 2000; i++)
        raw[i] = (unsigned char)i;
    return raw;
}

int64_t *return_long(void) {
    static int64_t value = 0x1122334455667788;
    return &value;
}

int bump(int *value) {
    return ++*value;
}

char *with_context_text(ExtProcContext *context, const char *text) {
    char *copy = SQLExtProcDirectAllocMemory(context, strlen(text) + 3);
    copy[0] = '<';
    strcpy(copy + 1, text);
    strcat(copy, ">");
    return copy;
}

int with_context_is_first(ExtProcContext *context, int a, int b, int c, int d, int e, int f) {
    return context != NULL ? a + 10 * b + 100 * c + 1000 * d + 10000 * e + 100000 * f : -1;
}

void raise_code(ExtProcContext *context, int code) {
    SQLExtProcDirectRaiseError(context, code);
}

void raise_text(ExtProcContext *context, int code, char *text) {
    SQLExtProcDirectRaiseErrorWithMsg(context, code, text);
}

int raise_then_return(ExtProcContext *context, int code) {
    SQLExtProcDirectRaiseError(context, code);
    return 99;
}

void fill_long_text(char *out) {
    memset(out, 'x', 99);
    out[99] = '\0';
}

// The kinds of routine that end the agent.
void crash(void) {
    int *volatile nowhere = (int *)8;
    *nowhere = 1;
}

void call_abort(void) {
    abort();
}

void call_exit(int status) {
    exit(status);
}

// One byte beyond an OUT buffer of size bytes.
void overrun(char *out, int size) {
    memset(out, 'y', (size_t)size + 1);
    out[size - 1] = '\0';
}

void close_descriptor(int fd) {
    close(fd);
}
