// The routines that the request benchmarks call.

#include <string.h>

#include "zdextproc.h"

int five_ints(int a, int b, int c, int d, int e) {
    return a + b + c + d + e;
}

// The ninth comes on the stack.
double nine_doubles(double a, double b, double c, double d, double e, double f, double g, double h,
                    double i) {
    return a + b + c + d + e + f + g + h + i;
}

void greet(const char *name, char *greeting) {
    strcat(strcpy(greeting, "hello, "), name);
}

char *repeat(ExtProcContext *context, const char *text, int times) {
    const size_t length = strlen(text);
    char *const result = SQLExtProcDirectAllocMemory(context, length * (size_t)times + 1);
    for (int i = 0; i < times; i++)
        memcpy(result + (size_t)i * length, text, length);
    result[length * (size_t)times] = '\0';
    return result;
}

void refuse(ExtProcContext *context) {
    SQLExtProcDirectRaiseErrorWithMsg(context, 20001, "refused");
}
