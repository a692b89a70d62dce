"""The serialized error stack, which travels inside messages: where it occurs and how it lies.

src/common/zd_err_stack.cpp writes and reads it; what is derived for people and for other tools
starts here.
"""

from collections import namedtuple

# The fields that hold one, wherever they occur.
FIELD_NAMES = ("errstack", "error_stack")

# kind: int and uint are 32 bits, big-endian; char is one character; text ends with a zero byte.
Member = namedtuple("Member", "offset size kind name meaning")

HEADER_SIZE = 16
HEADER = [
    Member(0, 4, "int", "id_next", "the id that the sender's next error would have got"),
    Member(4, 4, "int", "count", "errors on the stack"),
    Member(8, 4, "int", "usrcount", "how many of them are meant for the user"),
]

RECORD_SIZE = 936
RECORD = [
    Member(8, 4, "int", "id", "number of the error on its stack, from the oldest up"),
    Member(12, 4, "int", "code", "error code, negative"),
    Member(16, 4, "uint", "obj_id", "object that the error concerns; 0 when none"),
    Member(20, 4, "uint", "err_num", "second number, of errors that user programs define"),
    Member(24, 1, "char", "is_usrerr", "'1' when the error is meant for the user, else '0'"),
    Member(25, 6, "text", "sqlstate", "five characters"),
    Member(31, 712, "text", "complete_desc", "the message"),
    Member(744, 4, "uint", "obj_id_occurred", "object where it occurred; 0xFFFFFFFF when unknown"),
    Member(748, 4, "int", "first_line", "where the span in the source text begins; 0 without one"),
    Member(752, 4, "int", "first_col", ""),
    Member(756, 4, "int", "first_offset", ""),
    Member(760, 4, "int", "last_line", "where it ends"),
    Member(764, 4, "int", "last_col", ""),
    Member(768, 4, "int", "last_offset", ""),
    Member(772, 80, "text", "file", "source file that raised the error"),
    Member(852, 4, "int", "line", "its line"),
    Member(856, 80, "text", "func", "its function"),
]


def holds_error_stack(field):
    return field.kind == "bytes" and field.name in FIELD_NAMES
