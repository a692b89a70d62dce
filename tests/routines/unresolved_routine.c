// A routine whose library lacks a function: it can be opened as long as the routine is not called.

int nobody_defines_this(void);
int calls_what_is_missing(void);

int calls_what_is_missing(void) {
    return nobody_defines_this();
}
