/* A library that can be told from its copies: each counts its own calls. */

static int calls;

int count_call(void) {
    return ++calls;
}
