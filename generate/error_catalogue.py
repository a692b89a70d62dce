"""Reads the error catalogue and holds it to its rules.

src/common/errors/README.md describes what is read. Anything that is not understood, and any family
that is not complete, is a CatalogueError with file, line and reason.
"""

import dataclasses
import re
from pathlib import Path

INTERNAL_OFFSET = 500000
NO_FOREIGN_NUMBER = -9999
END_CODE = -2147483648
BLOCK_SIZE = 1000
BOUNDS_FILE = "bounds.err"

FIELDS = ("args", "desc", "cause", "action", "sqlstate", "foreign", "class")
TEXT_FIELDS = ("desc", "cause", "action")
CLASSES = {"end": 0, "warning": 1, "internal": 2}
ORDINARY = 3
CONVERSIONS = {
    "s": ("s",), "c": ("c",), "d": ("d",), "u": ("u",), "x": ("x", "X"),
    "T16_FMT": ("hd", "hu"), "X16_FMT": ("hx", "hX"),
    "T64_FMT": ("ld", "lu"), "X64_FMT": ("lx", "lX"),
}

NAME = re.compile(r"[A-Z][A-Z0-9_]*")
FAMILY = re.compile(r"(\S+) +(-[1-9][0-9]*) +(-[1-9][0-9]*) +([0-9]+) +([0-9]+) +(\S.*)")
ROW = re.compile(r"(\S+) (0|-[1-9][0-9]*)")
FIELD = re.compile(r" +([a-z]+) +(\S.*)")
QUOTED = re.compile(r'"((?:[ !#-\[\]-~]|\\[n"\\])*)"')
ARGUMENT_TYPE = re.compile(r"[TX](?:16|64)_FMT|[sduxc]")
CONVERSION = re.compile(r"%(?:%|([1-9][0-9]?)\$[-+ #0]*[0-9]*(?:\.[0-9]+)?((?:hh?|ll?)?[a-zA-Z])|)")


class CatalogueError(Exception):
    def __init__(self, path, line, reason):
        super().__init__(f"{path}:{line}: {reason}")


@dataclasses.dataclass(frozen=True)
class Family:
    prefix: str
    top: int
    bottom: int
    row_count: int       # of the block itself
    internal_count: int  # of the block + 500000
    about: str
    line: int

    def owns(self, code):
        return self.bottom <= code <= self.top or self.owns_internal(code)

    def owns_internal(self, code):
        return self.bottom <= code + INTERNAL_OFFSET <= self.top


@dataclasses.dataclass
class Row:
    path: Path
    line: int
    name: str
    code: int
    fields: dict = dataclasses.field(default_factory=dict)  # as written, texts without quotes

    def fail(self, reason):
        raise CatalogueError(self.path, self.line, f"{self.name}: {reason}")

    @property
    def type(self):
        return CLASSES[self.fields["class"]] if "class" in self.fields else ORDINARY

    @property
    def types(self):
        """The types of the arguments, in order."""
        return ARGUMENT_TYPE.findall(self.fields.get("args", ""))

    @property
    def foreign(self):
        return int(self.fields.get("foreign", NO_FOREIGN_NUMBER))


def numbered_lines(path):
    try:
        text = path.read_bytes().decode("ascii")
    except UnicodeDecodeError as error:
        line = error.object.count(b"\n", 0, error.start) + 1
        raise CatalogueError(path, line, "a byte that is not ASCII") from None
    return enumerate(text.split("\n"), 1)


def read_families(path):
    families = []
    for line, text in numbered_lines(path):
        if not text.strip() or text.startswith("#"):
            continue
        match = FAMILY.fullmatch(text)
        if not match:
            raise CatalogueError(path, line, "a family is a prefix, its top and its bottom code, "
                                 "its rows, its internal rows and what it is about")
        family = Family(match[1], *map(int, match.groups()[1:5]), match[6], line)
        check_family(path, family, families)
        families.append(family)
    return families


def check_family(path, family, earlier):
    def fail(reason):
        raise CatalogueError(path, family.line, f"{family.prefix}: {reason}")

    if not NAME.fullmatch(family.prefix):
        fail("not a prefix of capitals, digits and underscores")
    if any(other.prefix == family.prefix for other in earlier):
        fail("a second family of this prefix")
    if family.top % BLOCK_SIZE != 0 or family.bottom != family.top - BLOCK_SIZE + 1:
        fail(f"a block runs from a multiple of {BLOCK_SIZE} down through {BLOCK_SIZE} codes")
    if family.bottom <= -INTERNAL_OFFSET:
        fail(f"codes from -{INTERNAL_OFFSET} down are internal conditions")
    if earlier and family.top >= earlier[-1].bottom:
        fail("blocks stand in descending order")


def read_rows(path):
    rows = []
    inside = False  # a row: until a line that is blank
    for line, text in numbered_lines(path):
        if not text:
            inside = False
        elif text.startswith(" "):
            if not inside:
                raise CatalogueError(path, line, "a field outside a row")
            read_field(rows[-1], line, text)
        elif inside:
            raise CatalogueError(path, line, "rows and comments are set apart by blank lines")
        elif not text.startswith("#"):
            rows.append(read_row_head(path, line, text))
            inside = True
    for row in rows:
        check_row(row)
    return rows


def read_row_head(path, line, text):
    match = ROW.fullmatch(text)
    if not match or not NAME.fullmatch(match[1]):
        raise CatalogueError(path, line, f"not a row's name and code: {text}")
    return Row(path, line, match[1], int(match[2]))


def read_field(row, line, text):
    def fail(reason):
        raise CatalogueError(row.path, line, f"{row.name}: {reason}")

    match = FIELD.fullmatch(text)
    if not match or match[1] not in FIELDS:
        fail(f"not a field: {text.strip()}")
    field, value = match.groups()
    if field in row.fields:
        fail(f"a second {field}")
    if any(FIELDS.index(field) < FIELDS.index(other) for other in row.fields):
        fail(f"{field} comes too late (the order is {', '.join(FIELDS)})")
    if field in TEXT_FIELDS:
        if not QUOTED.fullmatch(value):
            fail(f'{field} is not a text in double quotes (with \\n, \\" and \\\\ inside)')
        value = value[1:-1]
        if not value and field != "desc":
            fail(f"an empty {field} is left out")
    elif field == "sqlstate" and not re.fullmatch(r"[0-9A-Z]{5}", value):
        fail(f"not an SQLSTATE of five digits and capitals: {value}")
    elif field == "foreign":
        if not re.fullmatch(r"0|-?[1-9][0-9]{0,8}", value):
            fail(f"not a foreign number: {value}")
        if int(value) == NO_FOREIGN_NUMBER:
            fail(f"{NO_FOREIGN_NUMBER} means no foreign number, which is left out")
    elif field == "class" and value not in CLASSES:
        fail(f"unknown class {value} (known are {', '.join(CLASSES)})")
    row.fields[field] = value


def check_row(row):
    if (row.fields.get("class") == "end") != (row.code == END_CODE):
        row.fail(f"the class end belongs to the code {END_CODE} and to no other")
    if row.code == END_CODE:
        if any(field in row.fields for field in TEXT_FIELDS):
            row.fail("the end row has no texts")
        return
    if "desc" not in row.fields:
        row.fail("desc is missing")
    text = row.fields.get("args", "")
    if "".join(row.types) != text:
        row.fail(f"unknown argument types in {text}")
    check_template(row)


def check_template(row):
    types = row.types
    used = set()
    for match in CONVERSION.finditer(row.fields["desc"]):
        position, conversion = match.groups()
        if match[0] == "%%":
            continue
        if position is None:
            column = match.start()
            row.fail(f"desc has a % that starts no conversion by position, at column {column}")
        index = int(position)
        if index > len(types):
            row.fail(f"desc uses argument {index} of {len(types)}")
        if conversion not in CONVERSIONS[types[index - 1]]:
            row.fail(f"desc shows argument {index}, a {types[index - 1]}, as {conversion}")
        used.add(index)
    for index in range(1, len(types) + 1):
        if index not in used:
            row.fail(f"desc does not use argument {index}")


def check_family_rows(family, rows):
    for row in rows:
        if not family.owns(row.code):
            row.fail(f"{row.code} lies outside the block of {family.prefix}")
        internal = family.owns_internal(row.code)
        if internal != (row.fields.get("class") == "internal"):
            row.fail("the class internal belongs to the codes of a block + 500000, and to no other")


def check_counts(families_path, families, rows):
    for family in families:
        internal = sum(family.owns_internal(row.code) for row in rows)
        ordinary = sum(family.owns(row.code) for row in rows) - internal
        for count, expected, what in ((ordinary, family.row_count, "rows"),
                                      (internal, family.internal_count, "internal rows")):
            if count != expected:
                raise CatalogueError(
                    families_path, family.line,
                    f"{family.prefix} has {expected} {what}, but {family.prefix}.err has {count}")


def check_order(rows):
    for earlier, row in zip(rows, rows[1:]):
        if row.code == earlier.code:
            row.fail(f"{row.code} is the code of {earlier.name} already")
        if row.code > earlier.code:
            row.fail(f"{row.code} after {earlier.code}: rows stand in descending order")


def check_names(families_path, families, rows):
    owners = {}
    for family in families:
        for suffix in ("_BASE", "_LAST"):
            owners[family.prefix + suffix] = f"{families_path}:{family.line}"
    for row in rows:
        if row.name in owners:
            row.fail(f"the name is taken at {owners[row.name]}")
        owners[row.name] = f"{row.path}:{row.line}"


def read_catalogue(directory):
    """Returns the families, and every row of the table by descending code."""
    families_path = directory / "families"
    families = read_families(families_path)
    by_file = {family.prefix + ".err": family for family in families}
    all_rows = []
    for path in sorted(directory.glob("*.err")):
        rows = read_rows(path)
        check_order(rows)
        if path.name in by_file:
            check_family_rows(by_file[path.name], rows)
        elif path.name != BOUNDS_FILE:
            raise CatalogueError(path, 1, "no family of this name")
        elif [row.code for row in rows] != [0, END_CODE]:
            raise CatalogueError(path, 1, f"holds the rows of 0 and {END_CODE} and no others")
        all_rows += rows
    if len(all_rows) < 2 or not (directory / BOUNDS_FILE).exists():
        raise CatalogueError(directory / BOUNDS_FILE, 1, "is missing")
    all_rows.sort(key=lambda row: -row.code)
    check_names(families_path, families, all_rows)
    check_counts(families_path, families, all_rows)
    return families, all_rows
