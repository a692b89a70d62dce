// The standard assertion, kept on in every build: prints the standard message and aborts. For the
// consistency checks of the region allocator; everything else reports through ZD_ASSERT.

#ifndef STD_ASSERT_H
#define STD_ASSERT_H

#ifdef __cplusplus

// <assert.h> declares it only where assertions are on.
extern "C" [[noreturn]] void __assert_fail(const char *condition, const char *file,
                                           unsigned int line, const char *function) noexcept;

// unit is the reporting unit's name; the condition is printed as it is written.
#define STD_ASSERT(unit, condition)                                                                \
    (__builtin_expect(!(condition), 0) ? __assert_fail(#condition, unit, __LINE__, __func__)       \
                                       : static_cast<void>(0))

#endif

#endif
