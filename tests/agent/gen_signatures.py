#!/usr/bin/env python3
"""Writes routines of many signatures, and calls of them.

usage: gen_signatures.py ROUTINES.c CALLS.c

ROUTINES.c  the routines: each folds its arguments into one number and makes its OUT values and its
            result from that number, so that one wrong bit anywhere shows
CALLS.c     a table of one request for each routine (struct signature), and functions that call the
            routine with the same values as plain C (struct outcome)

The bytes of a request are packed here and the values of the plain call are C literals: neither is
made from the other. The same seed writes the same files.
"""

import random
import struct
import sys

SEED = 20240102
SIGNATURES = 246  # six for each number of arguments from 0 to 40
MOST_ARGUMENTS = 40
REQUEST_ROOM = 3300  # bytes of all parameters, so that a body stays within 4096 whatever the path
REPLY_ROOM = 4096

IN, OUT, IN_OUT = 1, 2, 3
BY_VALUE, BY_REFERENCE = 0, 1

# Database types that have a size by value.
NO_TYPE, BIN_FLOAT, BIN_DOUBLE, PLS_INT, BIN_INT = 0, 23, 24, 26, 27
VALUE_SIZES = {NO_TYPE: 0, BIN_FLOAT: 4, BIN_DOUBLE: 8, PLS_INT: 4, BIN_INT: 4}
FOUR_BYTES = (PLS_INT, BIN_INT, BIN_FLOAT)

# Native types: number -> (C type, size, signed).
INTEGERS = {
    1: ("signed char", 1, True),
    2: ("unsigned char", 1, False),
    3: ("short", 2, True),
    4: ("unsigned short", 2, False),
    5: ("int", 4, True),
    6: ("unsigned int", 4, False),
    7: ("long", 8, True),
    8: ("unsigned long", 8, False),
    9: ("size_t", 8, False),
}
FLOAT, DOUBLE = 10, 11
STRING, RAW, NUMBER, DB_STRING, DB_RAW = 12, 13, 14, 15, 17
TEXTS = (STRING, DB_STRING)
RAWS = (RAW, DB_RAW)
# Types that are bytes to the agent: none, locator, dates, timestamps, interval, collection.
OPAQUES = (0, 16, 18, 19, 20, 21, 22, 23)

SCALARS = dict(INTEGERS)
SCALARS[FLOAT] = ("float", 4, True)
SCALARS[DOUBLE] = ("double", 8, True)


def padded(count):
    return (count + 4) // 4 * 4


def flag(method, mode, zd_type, native):
    value = method << 24 | mode << 16 | zd_type << 8 | native
    return value - (1 << 32) if value >= 1 << 31 else value


def c_bytes(data):
    return '"' + "".join(f"\\{byte:03o}" for byte in data) + '"'


def c_unsigned(value):
    return f"{value}ull"


class Parameter:
    """One argument: how the request describes it, and how a plain call passes it."""

    # Set by the kinds below:
    #   method, mode, zd_type, native, maxlen, value (bytes): what the request says
    #   c_type: in the routine's prototype
    #   passed: lines before the plain call, and the expression in it
    #   reads, writes: lines of the routine
    #   reply: lines after the plain call that record an OUT entry; reply_room: its bytes at most

    def flag(self):
        return flag(self.method, self.mode, self.zd_type, self.native)

    def request_room(self):
        return 12 + padded(len(self.value))


def random_bits(rng, size):
    """Bytes that are often at an edge of their type."""
    edges = (0, 1, (1 << 8 * size) - 1, 1 << 8 * size - 1, (1 << 8 * size - 1) - 1)
    return rng.choice(edges) if rng.random() < 0.4 else rng.getrandbits(8 * size)


def random_float_bits(rng, size):
    if size == 4:
        edges = (0, 0x80000000, 0x3F800000, 0x7F800000, 0xFF800000, 0x7FC00001, 1, 0x7F7FFFFF)
        number = struct.unpack("<I", struct.pack("<f", rng.uniform(-1e6, 1e6)))[0]
    else:
        edges = (0, 1 << 63, 0x3FF << 52, 0x7FF << 52, 0xFFF << 52, 0x7FF8000000000001, 1)
        number = struct.unpack("<Q", struct.pack("<d", rng.uniform(-1e12, 1e12)))[0]
    return rng.choice(edges) if rng.random() < 0.4 else number


class ByValue(Parameter):
    def __init__(self, rng, index, native):
        self.method = rng.choice((BY_VALUE, BY_VALUE, BY_VALUE, 2, 255))
        self.mode = rng.choice((IN, IN, IN, IN, OUT, IN_OUT, 0))
        self.native = native
        self.c_type, size, signed = SCALARS[native]
        self.zd_type = rng.choice((PLS_INT, BIN_INT, BIN_FLOAT, BIN_DOUBLE, BIN_DOUBLE, NO_TYPE))
        if native == FLOAT and rng.random() < 0.5:
            self.zd_type = BIN_FLOAT
        room = VALUE_SIZES[self.zd_type]
        self.value, passed = self.make_value(rng, room, size, signed)
        self.maxlen = max(room, len(self.value))
        self.passed = ([], passed)
        self.reads = [f"h = fold(h, &a{index}, sizeof a{index});"]
        self.writes = []
        # What comes back of a value is what the request held.
        self.reply = []
        self.reply_room = 0
        if self.mode & OUT:
            self.reply = [f"record_out(outcome, {c_bytes(self.value)}, {len(self.value)});"]
            self.reply_room = 4 + padded(len(self.value))

    def make_value(self, rng, room, size, signed):
        """The bytes of the request, and the C expression of the same value."""
        if room == 0:
            return rng.randbytes(rng.choice((0, 1, 8))), f"({self.c_type})0"
        taken = min(size, room)  # an 8-byte type may get 4 bytes: the others are zero
        if self.native in (FLOAT, DOUBLE):
            bits = random_float_bits(rng, size) & ((1 << 8 * taken) - 1)
            function = "float_of" if self.native == FLOAT else "double_of"
            passed = f"{function}({c_unsigned(bits)})"
        else:
            bits = random_bits(rng, taken)
            passed = f"({self.c_type}){c_unsigned(bits)}"
            # A narrow value comes as an int, with its sign, as C passes it.
            if signed and size < 4 and bits >> (8 * size - 1):
                bits += (1 << 32) - (1 << 8 * size)
            taken = max(taken, 4)
        # Bytes that the type does not look at may hold anything.
        return bits.to_bytes(taken, "little") + rng.randbytes(room - taken), passed


class ByReference(Parameter):
    def __init__(self, rng, index):
        self.method = BY_REFERENCE
        self.mode = rng.choice((IN, IN, OUT, IN_OUT))
        self.zd_type = rng.randrange(0, 34)
        self.index = index

    def describe(self, contents, capacity, target):
        """contents: bytes at first; capacity: bytes that the routine may touch."""
        name = f"a{self.index}"
        const = "" if self.mode & OUT else "const "
        self.c_type = f"{const}{target} *"
        self.passed = ([f"unsigned char {name}[{max(capacity, 1)}] = {{0}};",
                        f"memcpy({name}, {c_bytes(contents)}, {len(contents)});"],
                       f"({self.c_type})(void *){name}")
        self.reply = []
        self.reply_room = 0
        self.writes = []


class ScalarReference(ByReference):
    def __init__(self, rng, index, native):
        super().__init__(rng, index)
        self.native = native
        target, size, _ = SCALARS[native]
        self.value = rng.randbytes(size)
        self.maxlen = size
        self.describe(self.value, size, target)
        # Values by reference lie wherever the message has them: not always aligned.
        self.reads = [f"h = fold(h, a{index}, {size});"]
        if self.mode & OUT:
            self.writes = [f"scatter(h + {index}, a{index}, {size});"]
            self.reply = [f"record_out(outcome, a{index}, {size});"]
            self.reply_room = 4 + padded(size)


class OpaqueReference(ScalarReference):
    def __init__(self, rng, index, native):
        ByReference.__init__(self, rng, index)
        self.native = native
        size = rng.choice((1, 7, 8, 12, 20, 24, 33))
        self.value = rng.randbytes(size)
        # A larger maximum does not widen what the agent cannot size.
        self.maxlen = rng.choice((size, size + 40))
        self.describe(self.value, size, "void")
        self.reads = [f"h = fold(h, a{index}, {size});"]
        if self.mode & OUT:
            self.writes = [f"scatter(h + {index}, a{index}, {size});"]
            self.reply = [f"record_out(outcome, a{index}, {size});"]
            self.reply_room = 4 + padded(size)


class TextReference(ByReference):
    def __init__(self, rng, index, native):
        super().__init__(rng, index)
        self.native = native
        length = rng.choice((0, 1, 3, 4, 5, 17, 40))
        self.value = bytes(rng.randrange(32, 127) for _ in range(length))
        self.maxlen = length if rng.random() < 0.3 else length + rng.choice((1, 8, 60))
        self.describe(self.value, max(self.maxlen, length) + 1, "char")
        self.reads = [f"h = fold(h, a{index}, strlen(a{index}));"]
        if self.mode & OUT:
            # In place there is room for as much as came; widened, for the maximum with its end.
            most = length if self.maxlen == length else self.maxlen - 1
            written = rng.choice((0, most // 2, most))
            self.writes = [f"write_text(h + {index}, a{index}, {written});"]
            self.reply = [f"record_out(outcome, a{index}, (int)strlen((char *)a{index}));"]
            self.reply_room = 4 + padded(written)


class RawReference(ByReference):
    def __init__(self, rng, index, native):
        super().__init__(rng, index)
        self.native = native
        length = rng.choice((1, 2, 8, 31, 100))
        self.value = rng.randbytes(length)
        self.maxlen = length
        if self.mode & OUT and rng.random() < 0.7:
            self.maxlen = length + rng.choice((1, 33, 300))
        seen = self.maxlen if self.mode & OUT else length
        self.describe(self.value, seen, "unsigned char")
        self.reads = [f"h = fold(h, a{index}, {seen});"]
        if self.mode & OUT:
            self.writes = [f"scatter(h + {index}, a{index}, {seen});"]
            self.reply = [f"record_out(outcome, a{index}, {min(self.maxlen, 2000)});"]
            self.reply_room = 4 + padded(self.maxlen)


class NumberReference(ByReference):
    """The first byte counts the bytes after it. Of an OUT number, one byte less is sent."""

    def __init__(self, rng, index, native):
        super().__init__(rng, index)
        self.native = native
        count = rng.randrange(0, 21)
        self.value = bytes([count]) + rng.randbytes(count)
        self.maxlen = 22 if rng.random() < 0.7 else len(self.value)
        capacity = max(self.maxlen, len(self.value))
        self.describe(self.value, capacity, "unsigned char")
        self.reads = [f"h = fold(h, a{index}, 1u + a{index}[0]);"]
        if self.mode & OUT:
            written = rng.choice((0, 1, capacity - 1))
            self.writes = [f"write_number(h + {index}, a{index}, {written});"]
            sent = max(written - 1, 0)
            self.reply = [f"record_out(outcome, a{index}, {sent});"]
            self.reply_room = 4 + padded(sent)


class Result:
    """What the routine returns: c_type, storage and returns for the routine, flag for the request,
    record for the plain call; length: bytes of the entry, -1 when the value decides."""

    room = 0


class NoResult(Result):
    def __init__(self, _rng, _number):
        self.c_type = "void"
        self.flag = 0
        self.storage, self.returns, self.record = [], [], []
        self.length = 0


class ValueResult(Result):
    def __init__(self, rng, number, native):
        self.c_type, size, _ = SCALARS[native]
        zd_type = rng.choice(FOUR_BYTES + (BIN_DOUBLE, BIN_DOUBLE))
        self.flag = flag(BY_VALUE, rng.choice((0, OUT)), zd_type, native)
        self.storage = []
        if native in (FLOAT, DOUBLE):
            self.returns = [f"return ({self.c_type})(int)(h % 1000000) / 8;"]
        else:
            self.returns = [f"return ({self.c_type})h;"]
        self.length = VALUE_SIZES[zd_type]
        self.room = 4 + padded(self.length)
        # Beyond its own bytes a narrow result leaves the register undefined.
        self.record = [f"record_result(outcome, &result, {min(size, self.length)});"]


class ReferenceResult(Result):
    def __init__(self, rng, number, native):
        self.flag = flag(BY_REFERENCE, 0, rng.randrange(1, 34), native)
        name = f"result_{number}"
        self.length = -1
        if native in SCALARS:
            target, size, _ = SCALARS[native]
            make = f"scatter(h, &{name}, {size});"
            sent = str(size)
            self.storage = [f"static {target} {name};"]
            address = f"&{name}"
        elif native in TEXTS:
            target, size = "char", rng.choice((0, 1, 7, 63))
            make = f"write_text(h, {name}, {size});"
            sent = "(int)strlen(result)"
            self.storage = [f"static char {name}[{size + 1}];"]
            address = name
        elif native in RAWS:
            target, size = "unsigned char", 2000
            make = f"scatter(h, {name}, {size});"
            sent = "2000"
            self.storage = [f"static unsigned char {name}[{size}];"]
            address = name
        else:
            target, size = "unsigned char", rng.choice((0, 1, 21, 127, 128, 255))
            make = f"write_number(h, {name}, {size});"
            sent = str(size + 1)
            self.storage = [f"static unsigned char {name}[{size + 1}];"]
            address = name
        self.room = 4 + padded(size + 1)
        self.set_returns(native, target, make, address, sent)

    def set_returns(self, native, target, make, address, sent):
        self.c_type = f"{target} *"
        self.returns = [make, f"return {address};"]
        self.record = [f"record_result(outcome, result, {sent});"]
        if native == DOUBLE:
            # A result declared as a double is taken from xmm0, also when it is a pointer.
            self.c_type = "double"
            self.returns = [make, f"return double_of((uint64_t)(uintptr_t){address});"]
            self.record = [f"record_result(outcome, pointer_in(result), {sent});"]


class NullResult(Result):
    def __init__(self, rng, number):
        native = rng.choice((1, 5, 7, STRING, RAW, NUMBER, DB_STRING, DB_RAW, 18, 255))
        self.flag = flag(BY_REFERENCE, 0, rng.randrange(1, 34), native)
        self.c_type = "void *"
        self.storage = []
        self.returns = ["return NULL;"]
        self.record = ["record_result(outcome, result, 0);"]
        self.length = -1
        self.room = 8


REFERENCE_RESULTS = tuple(INTEGERS) + (DOUBLE, STRING, RAW, NUMBER, DB_STRING, DB_RAW)


def make_result(rng, number):
    """Every kind of result in turn."""
    kinds = ([NoResult]
             + [lambda r, n, native=native: ValueResult(r, n, native) for native in SCALARS]
             + [lambda r, n, native=native: ReferenceResult(r, n, native)
                for native in REFERENCE_RESULTS]
             + [NullResult])
    return kinds[number % len(kinds)](rng, number)


def make_parameter(rng, index, taste):
    if taste == "mixed":
        taste = rng.choice(("integers", "floats", "references"))
    if taste == "integers":
        return ByValue(rng, index, rng.choice(tuple(INTEGERS)))
    if taste == "floats":
        return ByValue(rng, index, rng.choice((FLOAT, DOUBLE)))
    native = rng.randrange(0, 24)
    if native in SCALARS:
        return ScalarReference(rng, index, native)
    if native in TEXTS:
        return TextReference(rng, index, native)
    if native in RAWS:
        return RawReference(rng, index, native)
    if native == NUMBER:
        return NumberReference(rng, index, native)
    return OpaqueReference(rng, index, native)


class Signature:
    TASTES = ("mixed", "integers", "mixed", "floats", "references", "mixed")

    def __init__(self, rng, number):
        self.name = f"signature_{number}"
        self.number = number
        taste = self.TASTES[number // (MOST_ARGUMENTS + 1) % len(self.TASTES)]
        self.result = make_result(rng, number)
        self.parameters = []
        for index in range(number % (MOST_ARGUMENTS + 1)):
            self.parameters.append(self.fitting_parameter(rng, index, taste))
        self.with_context = rng.random() < 0.4
        # Only one byte of the property counts.
        self.property = rng.choice((0x100, 0xFF00, 0x8001)) if self.with_context else \
            rng.choice((0, 0, 0xFF, 0x7F0000))

    def fitting_parameter(self, rng, index, taste):
        while True:
            parameter = make_parameter(rng, index, taste)
            request = sum(p.request_room() for p in self.parameters) + parameter.request_room()
            reply = (36 + self.result.room + parameter.reply_room
                     + sum(p.reply_room for p in self.parameters))
            left = MOST_ARGUMENTS - index
            if request + 24 * left <= REQUEST_ROOM and reply + 16 * left <= REPLY_ROOM:
                return parameter
            taste = "integers"

    def prototype(self):
        arguments = ["ExtProcContext *context"] if self.with_context else []
        arguments += [f"{p.c_type} a{i}" for i, p in enumerate(self.parameters)]
        return f"{self.result.c_type} {self.name}({', '.join(arguments) or 'void'})"

    def pointer_type(self):
        arguments = ["ExtProcContext *"] if self.with_context else []
        arguments += [p.c_type for p in self.parameters]
        return f"{self.result.c_type} (*)({', '.join(arguments) or 'void'})"

    def routine(self):
        body = [f"uint64_t h = {c_unsigned(0x9E3779B97F4A7C15 + self.number)};"]
        if self.with_context:
            body.append("h = context != NULL ? h + 1 : 0;")
        body += self.result.storage
        for part in ("reads", "writes"):
            for parameter in self.parameters:
                body += getattr(parameter, part)
        body.append("last_folded = h;")
        body += self.result.returns
        return wrapped(self.prototype(), body)

    def plain_call(self):
        body, arguments = [], ["plain_context()"] if self.with_context else []
        for parameter in self.parameters:
            lines, expression = parameter.passed
            body += lines
            arguments.append(expression)
        call = f"(({self.pointer_type()})function)({', '.join(arguments)})"
        if self.result.c_type == "void":
            body.append(call + ";")
        else:
            c_type = self.result.c_type
            body.append(f"{c_type} const result = {call};")
        body += self.result.record
        for parameter in self.parameters:
            body += parameter.reply
        name = f"static void call_{self.number}(void *function, struct outcome *outcome)"
        return wrapped(name, body + ["(void)outcome;"])

    def table_row(self):
        lines = []
        parameters = "NULL"
        if self.parameters:
            parameters = f"parameters_{self.number}"
            lines.append(f"static const struct signature_param {parameters}[] = {{")
            for p in self.parameters:
                lines.append(
                    f"    {{{p.flag()}, {p.maxlen}, {len(p.value)}, {c_bytes(p.value)}}},")
            lines.append("};")
        row = (f'    {{"{self.name}", {self.property}, {self.result.flag}, {self.result.length}, '
               f"{len(self.parameters)}, {parameters}, call_{self.number}}},")
        return lines, row


def wrapped(head, lines):
    return [head, "{"] + ["    " + line for line in lines] + ["}", ""]


def check(condition, reason):
    if not condition:
        sys.exit(f"gen_signatures.py: {reason}")


def check_coverage(signatures):
    """What the tests rely on must not get lost when a number above is changed."""
    by_value = {p.native for s in signatures for p in s.parameters if p.method != BY_REFERENCE}
    references = {p.native for s in signatures for p in s.parameters if p.method == BY_REFERENCE}
    counts = {len(s.parameters) for s in signatures}
    check(by_value == set(SCALARS), "a native type is never passed by value")
    check(references == set(range(24)), "a native type is never passed by reference")
    check(counts == set(range(MOST_ARGUMENTS + 1)), "a number of arguments is missing")
    check(any(isinstance(s.result, NoResult) and s.with_context for s in signatures),
          "no routine with context returns nothing")


def write(path, lines):
    with open(path, "w", encoding="ascii") as file:
        file.write("\n".join(lines) + "\n")


def main():
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    rng = random.Random(SEED)
    signatures = [Signature(rng, number) for number in range(SIGNATURES)]
    check_coverage(signatures)

    head = ["/* Written by tests/agent/gen_signatures.py: do not edit. */", ""]
    routines = head + ['#include "signature_routines.h"', "",
                       "static uint64_t last_folded;", "",
                       "/* What the last routine made of its arguments. */",
                       "uint64_t folded(void)", "{", "    return last_folded;", "}", ""]
    calls = head + ['#include "signatures.h"', '#include "signature_routines.h"', ""]
    table = ["const struct signature signatures[] = {"]
    for signature in signatures:
        routines += signature.routine()
        calls += signature.plain_call()
        lines, row = signature.table_row()
        calls += lines
        table.append(row)
    table += ["};", "const int signature_cnt = (int)(sizeof signatures / sizeof signatures[0]);"]
    write(sys.argv[1], routines)
    write(sys.argv[2], calls + table)


if __name__ == "__main__":
    main()
