/*
 * Text by reference. A string argument is a pointer to bytes that end with a zero.
 *
 * What to watch:
 *  - An input string belongs to the agent and must be left as it is; it is gone after the return.
 *  - An output string is the agent's buffer of the capacity that the parameter was registered
 *    with, all zero at the start. The capacity is not passed on: agree on it, or make it a
 *    parameter of its own, as here. It includes the terminating zero only as far as the routine
 *    writes one; a text longer than the capacity is an error of the call, and writing beyond it
 *    destroys the agent's memory.
 *  - The bytes are in the encoding of the database client; nothing is converted.
 */

#include <ctype.h>
#include <stdio.h>
#include <string.h>

/* In: count the words of a text. */
int zdex_word_count(const char *text) {
    int words = 0;
    int inside = 0;
    for (; *text != '\0'; text++) {
        const int is_blank = *text == ' ' || *text == '\t' || *text == '\n';
        words += !inside && !is_blank;
        inside = !is_blank;
    }
    return words;
}

/* In and out: snprintf keeps to the capacity whatever the name is. */
void zdex_greet(const char *name, char *greeting, int capacity) {
    snprintf(greeting, (size_t)capacity, "Hello, %s!", name);
}

/* In out: the text comes in the buffer in which it goes back. */
void zdex_upper(char *text) {
    for (; *text != '\0'; text++)
        *text = (char)toupper((unsigned char)*text);
}

/*
 * A string result is a pointer that the agent reads after the routine has returned, so it must
 * not point into the routine's own variables. A constant is fine; text that is made for the call
 * goes into call memory, see zdex_context.c. NULL comes back as an empty text.
 */
const char *zdex_weekday(int day) {
    static const char *const names[] = {"Monday", "Tuesday",  "Wednesday", "Thursday",
                                        "Friday", "Saturday", "Sunday"};
    return day >= 1 && day <= 7 ? names[day - 1] : NULL;
}
