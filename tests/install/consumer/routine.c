// A user's library, built with the function that the package gives routine authors.

#include <zdextproc.h>

int not_for_the_database(int value);

int not_for_the_database(int value) {
    return value;
}

EXTPROC_API int add_up(int left, int right);

int add_up(int left, int right) {
    return not_for_the_database(left) + right;
}

EXTPROC_API void give_up(ExtProcContext *context);

void give_up(ExtProcContext *context) {
    SQLExtProcDirectRaiseError(context, 20001);
}
