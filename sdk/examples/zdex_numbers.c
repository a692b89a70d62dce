/*
 * Numbers by value: the simplest kind of routine.
 *
 * The agent places every argument where the C calling convention expects it, by the native type
 * that the routine was registered with. That type must be the one declared here: the agent cannot
 * look into the library. A parameter declared double but registered int is not converted, it is
 * simply not there.
 *
 * Try them (in the build folder; quote what the shell would take for itself):
 *
 *     zdepcall zdex_numbers.so zdex_add int=2 int=40 --returns int
 */

#include <stddef.h>
#include <string.h>

/* Four bytes in, four bytes out. */
int zdex_add(int a, int b) {
    return a + b;
}

/*
 * Eight-byte integers travel under the database type BIN_DOUBLE, because that is the protocol's
 * only type of eight bytes passed by value; their bits arrive unchanged.
 */
long zdex_multiply(long a, long b) {
    return a * b;
}

/* A double arrives and returns in a vector register, a float in the low half of one. */
double zdex_mean(double a, double b) {
    return (a + b) / 2;
}

float zdex_half(float value) {
    return value / 2;
}

/*
 * The convention passes six integers and eight doubles in registers; the rest follows on the
 * stack, in the order of the arguments. A routine need not care: it declares what it wants.
 */
long zdex_sum8(int a, long b, short c, int d, unsigned e, char f, int g, long h) {
    return a + b + c + d + (long)e + f + g + h;
}

double zdex_polynomial(double x, double c0, double c1, double c2, double c3, double c4, double c5,
                       double c6, double c7, double c8) {
    return c0 + x * (c1 + x * (c2 + x * (c3 + x * (c4 + x * (c5 + x * (c6 + x * (c7 + x * c8)))))));
}

/*
 * Integers and doubles are counted apart: here k is the ninth argument and still the first
 * integer, so it comes in a register, while the ninth double comes on the stack.
 */
double zdex_pick(double a, double b, double c, double d, double e, double f, double g, double h,
                 int k, double i) {
    const double all[] = {a, b, c, d, e, f, g, h, i};
    return k >= 0 && (size_t)k < sizeof all / sizeof all[0] ? all[k] : 0;
}

/*
 * A number by reference: the routine gets a pointer to the agent's copy. Registered OUT or IN OUT,
 * what it leaves there goes back to the caller; registered IN, its changes are lost.
 */
void zdex_divide(int dividend, int divisor, int *quotient, int *remainder) {
    *quotient = divisor != 0 ? dividend / divisor : 0;
    *remainder = divisor != 0 ? dividend % divisor : 0;
}

/*
 * What a pointer points to is aligned to four bytes only, as it lay in the message. This processor
 * reads an eight-byte value from such a place all the same, but the C language does not promise
 * it: memcpy does.
 */
void zdex_increment(long *value) {
    long number;
    memcpy(&number, value, sizeof number);
    number++;
    memcpy(value, &number, sizeof number);
}
