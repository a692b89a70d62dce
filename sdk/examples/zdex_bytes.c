/*
 * Raw bytes and database numbers by reference.
 *
 * A raw argument is a pointer to bytes and nothing more: neither how many there are nor how many
 * the routine may write is passed on. Make the length a parameter of its own.
 */

#include <string.h>

/* In: a checksum (Fletcher's, 16 bits) over length bytes. */
unsigned zdex_checksum(const unsigned char *bytes, unsigned length) {
    unsigned sum = 0;
    unsigned sum_of_sums = 0;
    for (unsigned at = 0; at < length; at++) {
        sum = (sum + bytes[at]) % 255;
        sum_of_sums = (sum_of_sums + sum) % 255;
    }
    return sum_of_sums * 256 + sum;
}

/*
 * In out: reverse the first length bytes. The whole buffer goes back to the caller, whatever was
 * written: as many bytes as the parameter's capacity, at most 2000.
 */
void zdex_reverse(unsigned char *bytes, unsigned length) {
    for (unsigned low = 0; low < length / 2; low++) {
        const unsigned char kept = bytes[low];
        bytes[low] = bytes[length - 1 - low];
        bytes[length - 1 - low] = kept;
    }
}

/*
 * A raw result is always read as 2000 bytes, so there must be as many.
 */
const unsigned char *zdex_pattern(int value) {
    static unsigned char pattern[2000];
    memset(pattern, 0, sizeof pattern);
    memset(pattern, value, 8);
    return pattern;
}

/*
 * A database number is a run of bytes whose first one is a length; the rest is the database's own
 * business. This routine tells what the length byte says.
 */
int zdex_number_length(const unsigned char *number) {
    return number[0];
}

/*
 * A number result goes back as its length byte and as many bytes as that says. It must outlive the
 * routine, like every result by reference. (An output parameter follows another rule: as many
 * bytes as its first byte says, less one.)
 */
const unsigned char *zdex_number_copy(const unsigned char *number) {
    static unsigned char copy[256];
    memcpy(copy, number, 1 + (size_t)number[0]);
    return copy;
}
