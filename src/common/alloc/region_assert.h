// The assertion of the region allocator's consistency checks: the standard one, with the standard
// message, but kept in every build. All other assertions report through ZD_ASSERT.

#ifndef REGION_ASSERT_H
#define REGION_ASSERT_H

#ifdef __cplusplus

// <assert.h> declares it only where assertions are on.
extern "C" [[noreturn]] void __assert_fail(const char *condition, const char *file,
                                           unsigned int line, const char *function) noexcept;

// Prints the condition as it is written here.
#define REGION_ASSERT(condition)                                                                   \
    (__builtin_expect(!(condition), 0)                                                             \
         ? __assert_fail(#condition, "region_clialloc", __LINE__, __func__)                        \
         : static_cast<void>(0))

#endif

#endif
