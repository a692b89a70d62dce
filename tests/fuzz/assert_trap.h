// Assertions that end the process are the answer to malformed input, not a find. In a fuzzer they
// print nothing and end the run of one input instead, so that the fuzzer stops at real faults only.

#ifndef TESTS_FUZZ_ASSERT_TRAP_H
#define TESTS_FUZZ_ASSERT_TRAP_H

#include <setjmp.h>

namespace assert_trap {

extern jmp_buf *frame;

// False when an assertion failed in code(). What it held then is lost, as in a real abort.
template <class Code>
__attribute__((noinline)) bool survives(Code code) {
    jmp_buf here;
    frame = &here;
    const bool first = setjmp(here) == 0;
    if (first)
        code();
    frame = nullptr;
    return first;
}

} // namespace assert_trap

#endif
