"""Reads the message description (src/common/zdmsg/messages.txt says what it looks like).

read() returns a Description or raises DescriptionError, whose text names file, line and reason.
Whatever is derived from the description starts here, so that all of it agrees.
"""

import re

KEYWORDS = frozenset(
    """alignas alignof and asm auto bitand bitor bool break case catch char class compl concept
    const consteval constexpr constinit continue decltype default delete do double else enum
    explicit export extern false float for friend goto if inline int long mutable namespace new
    noexcept not nullptr operator or private protected public register reinterpret_cast requires
    restrict return short signed sizeof static static_assert struct switch template this
    thread_local throw true try typedef typeid typename typeof union unsigned using virtual void
    volatile wchar_t while xor""".split()
)
# Names that the generated code uses beside the fields.
RESERVED = frozenset(["base", "zdmsg"])


class DescriptionError(Exception):
    pass


class Field:
    """kind is one of int, text, bytes, column, fixed, array; size belongs to fixed, element (a
    Record) to array."""

    def __init__(self, name, kind, size=0, element=None):
        self.name = name
        self.kind = kind
        self.size = size
        self.element = element

    def setter_parameters(self):
        """The names of the setter's parameters for this field."""
        if self.kind in ("bytes", "column"):
            return [self.name + "_len", self.name]
        if self.kind == "array":
            return [self.name + "_array_cnt", self.name]
        return [self.name]


class Record:
    """A message (is_message) or an element record. heading is the comment of the section that it
    opens, comment its own; both are lists of lines."""

    def __init__(self, is_message, number, name, pinned, heading, comment):
        self.is_message = is_message
        self.number = number
        self.name = name
        self.pinned = pinned
        self.heading = heading
        self.comment = comment
        self.fields = []


class Description:
    def __init__(self):
        self.records = []
        self.messages = []


def read(path):
    with open(path, "rb") as file:
        lines = file.read().split(b"\n")
    return _Reader(path).read(lines)


class _Reader:
    def __init__(self, path):
        self.path = path
        self.line = 0
        self.description = Description()
        self.by_name = {}
        self.current = None
        self.heading = []
        self.comment = []

    def fail(self, reason):
        raise DescriptionError("%s:%d: %s" % (self.path, self.line, reason))

    def read(self, lines):
        for self.line, written in enumerate(lines, start=1):
            if not written.isascii():
                self.fail("a byte that is not ASCII")
            line = written.decode("ascii").rstrip("\r")
            if line.startswith("#"):
                self.comment.append(line[1:].strip())
                continue
            words = line.split("#")[0].split()
            if words:
                if line[0].isspace():
                    self.read_field(words)
                else:
                    self.read_record(words)
            elif self.comment:
                # A comment with a blank line below belongs to no record; it may head a section.
                if self.comment[0].startswith("----"):
                    self.heading = [self.comment[0].strip("- ")] + self.comment[1:]
                self.comment = []
        self.finish_record()
        if not self.description.messages:
            self.fail("no message at all")
        return self.description

    def read_record(self, words):
        self.finish_record()
        if words[0] not in ("record", "message"):
            self.fail("'%s' is neither 'record' nor 'message'" % words[0])
        pinned = words[-1] == "pinned"
        if len(words) != 3 + pinned:
            self.fail("expected '%s NUMBER NAME [pinned]'" % words[0])
        is_message = words[0] == "message"
        known = self.description.messages if is_message else self.description.records
        number = self.read_number(words[1])
        if number < len(known):
            self.fail("number %d is taken by %s" % (number, known[number].name))
        if number > len(known):
            self.fail("number %d leaves a hole: %d comes next" % (number, len(known)))
        name = words[2]
        if not re.fullmatch("[a-z0-9][a-z0-9_]*", name):
            self.fail("'%s' is not a name in lower case" % name)
        if name.startswith("struct_") == is_message:
            self.fail("names of element records, and no others, begin with struct_")
        if name in self.by_name:
            self.fail("%s is declared twice" % name)
        self.current = Record(is_message, number, name, pinned, self.heading, self.comment)
        self.heading = []
        self.comment = []
        self.by_name[name] = self.current
        known.append(self.current)

    def finish_record(self):
        if self.current and not self.current.is_message and not self.current.fields:
            # The decoder relies on it: every element takes up bytes.
            self.fail("%s ends without a field" % self.current.name)

    def read_number(self, word):
        if not re.fullmatch("[0-9]{1,9}", word):
            self.fail("'%s' is not a number" % word)
        return int(word)

    def read_field(self, words):
        if not self.current:
            self.fail("a field outside any record")
        if self.comment:
            self.fail("a comment between fields must be indented or stand behind one")
        field = self.read_kind(words[0], words[1:])
        if not re.fullmatch("[A-Za-z_][A-Za-z0-9_]*", field.name):
            self.fail("'%s' cannot name a member" % field.name)
        if field.name in KEYWORDS or field.name in RESERVED:
            self.fail("'%s' cannot name a member: it means something else there" % field.name)
        taken = [name for known in self.current.fields for name in known.setter_parameters()]
        for name in field.setter_parameters():
            if name in taken:
                self.fail("%s has a '%s' already" % (self.current.name, name))
        self.current.fields.append(field)

    def read_kind(self, name, words):
        kind = " ".join(words)
        if kind in ("int", "text", "bytes"):
            return Field(name, kind)
        if kind == "column":
            if self.current.is_message:
                self.fail("a column can only stand in an element record")
            return Field(name, kind)
        if words[:1] == ["fixed"]:
            if len(words) != 2:
                self.fail("fixed needs a size: 'fixed N'")
            size = self.read_number(words[1])
            if size == 0 or size % 4 != 0:
                # Bodies stay multiples of 4, and the decoder knows what an element takes at least.
                self.fail("the size of a fixed field is a multiple of 4, and not 0")
            return Field(name, "fixed", size=size)
        if words[:1] == ["array"]:
            if len(words) != 3 or words[1] != "of":
                self.fail("array needs a record: 'array of RECORD'")
            element = self.by_name.get(words[2])
            if element is None:
                self.fail("no record %s has been declared so far" % words[2])
            if element.is_message:
                self.fail("%s is a message, not an element record" % words[2])
            return Field(name, "array", element=element)
        self.fail("unknown kind '%s'" % kind)
