/* What the generated routines and the generated plain calls of them share. */

#ifndef TESTS_AGENT_SIGNATURE_ROUTINES_H
#define TESTS_AGENT_SIGNATURE_ROUTINES_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include "zdextproc.h"

/* Hundreds of routines call these: copies in each would only take time to compile. */
#define SHARED __attribute__((noinline, unused)) static

SHARED uint64_t fold(uint64_t h, const void *data, size_t count) {
    const unsigned char *byte = (const unsigned char *)data;
    for (size_t i = 0; i < count; i++)
        h = (h ^ byte[i]) * 0x100000001B3u;
    return h;
}

SHARED uint64_t next_number(uint64_t *state) {
    *state ^= *state << 13;
    *state ^= *state >> 7;
    *state ^= *state << 17;
    return *state;
}

/* count bytes that h decides. */
SHARED void scatter(uint64_t h, void *data, size_t count) {
    unsigned char *byte = (unsigned char *)data;
    uint64_t state = h | 1;
    for (size_t i = 0; i < count; i++)
        byte[i] = (unsigned char)next_number(&state);
}

/* length printable characters and the end. */
SHARED void write_text(uint64_t h, char *text, size_t length) {
    uint64_t state = h | 1;
    for (size_t i = 0; i < length; i++)
        text[i] = (char)(' ' + next_number(&state) % 95);
    text[length] = '\0';
}

/* A length byte and that many bytes. */
SHARED void write_number(uint64_t h, unsigned char *number, unsigned char length) {
    scatter(h, number, 1u + length);
    number[0] = length;
}

SHARED float float_of(uint64_t bits) {
    const uint32_t low = (uint32_t)bits;
    float value;
    memcpy(&value, &low, sizeof value);
    return value;
}

SHARED double double_of(uint64_t bits) {
    double value;
    memcpy(&value, &bits, sizeof value);
    return value;
}

SHARED const void *pointer_in(double value) {
    const void *pointer;
    memcpy(&pointer, &value, sizeof pointer);
    return pointer;
}

#endif
