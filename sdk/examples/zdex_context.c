/*
 * Routines with context. Registered so, a routine gets an ExtProcContext * ahead of its declared
 * parameters, and with it two services of the agent: memory that lives as long as the call, and
 * database errors. The context is good until the routine returns; do not keep it.
 */

#include <stdio.h>
#include <string.h>

#include "zdextproc.h"

/*
 * Call memory is the place for a result that is made anew in every call: the agent reads it after
 * the return and releases it with the call. Nobody frees it. There is no NULL to test for: when
 * memory runs out the call ends with an error, and control does not come back.
 */
char *zdex_repeat(ExtProcContext *context, const char *text, int times) {
    const size_t length = strlen(text);
    const size_t count = times > 0 ? (size_t)times : 0;
    char *const result = SQLExtProcDirectAllocMemory(context, length * count + 1);
    for (size_t at = 0; at < count; at++)
        memcpy(result + at * length, text, length);
    result[length * count] = '\0';
    return result;
}

/*
 * Raising an error ends the routine at once: the caller gets the error instead of a result, and
 * outputs are not sent. Codes 20000 to 20999 are free for routines and are seen by the caller as
 * -20000 to -20999. The text is copied before the routine is left, so it may lie in a local array.
 *
 * What the routine holds at that moment stays held: close files, release locks and free memory of
 * its own first. Call memory needs no care.
 */
double zdex_withdraw(ExtProcContext *context, double balance, double amount) {
    if (amount > balance) {
        char message[100];
        snprintf(message, sizeof message, "cannot withdraw %.2f from %.2f", amount, balance);
        SQLExtProcDirectRaiseErrorWithMsg(context, 20001, message);
        /* Not reached: a code above 0 never comes back. */
    }
    return balance - amount;
}
