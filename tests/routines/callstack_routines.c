// Functions whose names a call-stack test looks up, and functions that call back from below a name
// that ends the walk. Some are local: the stripped copy of this library does not know them.

#include <stddef.h>
#include <string.h>

typedef void called_back_t(void *);

// Whatever follows the call keeps it from becoming a jump, which would leave no frame.
#define CALL_BACK(function, argument)                                                              \
    do {                                                                                           \
        function(argument);                                                                        \
        __asm__ volatile("");                                                                      \
    } while (0)

__attribute__((noinline)) void callstack_exported(called_back_t *function, void *argument) {
    CALL_BACK(function, argument);
}

static __attribute__((noinline)) void callstack_local(called_back_t *function, void *argument) {
    CALL_BACK(function, argument);
}

void *callstack_address_of_local(void) {
    return (void *)callstack_local;
}

static void named_main(called_back_t *function, void *argument) __asm__("main");
static void named_start_thread(called_back_t *function, void *argument) __asm__("start_thread");
static void named_thr_main(called_back_t *function, void *argument) __asm__("thr_main");
static void named_svr_wthr_init(called_back_t *function, void *argument) __asm__("svr_wthr_init");

static __attribute__((noinline)) void named_main(called_back_t *function, void *argument) {
    CALL_BACK(function, argument);
}

static __attribute__((noinline)) void named_start_thread(called_back_t *function, void *argument) {
    CALL_BACK(function, argument);
}

static __attribute__((noinline)) void named_thr_main(called_back_t *function, void *argument) {
    CALL_BACK(function, argument);
}

static __attribute__((noinline)) void named_svr_wthr_init(called_back_t *function, void *argument) {
    CALL_BACK(function, argument);
}

// Calls back below the function of that name.
void callstack_call_below(const char *name, called_back_t *function, void *argument) {
    static const struct {
        const char *name;
        void (*call)(called_back_t *function, void *argument);
    } outermost[] = {
        {"main", named_main},
        {"start_thread", named_start_thread},
        {"thr_main", named_thr_main},
        {"svr_wthr_init", named_svr_wthr_init},
    };
    for (size_t i = 0; i < sizeof outermost / sizeof *outermost; i++) {
        if (strcmp(name, outermost[i].name) == 0)
            outermost[i].call(function, argument);
    }
}
