#!/usr/bin/env python3
"""Generates the error codes and the rows of the error table from the catalogue.

usage: gen_errors.py CATALOGUE_DIR OUTPUT_DIR

CATALOGUE_DIR/README.md describes what is read. Written are OUTPUT_DIR/ec.h, the enumerators, and
OUTPUT_DIR/zd_err_info_rows.inc, the initialisers of the table's rows by descending code. Anything
that is not understood ends the run with file, line and reason, and nothing is written.
"""

import dataclasses
import re
import sys
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
        words = text.split()
        if len(words) != 3 or not all(re.fullmatch(r"-[1-9][0-9]*", word) for word in words[1:]):
            raise CatalogueError(path, line, "a family is a prefix, its top and its bottom code")
        family = Family(words[0], int(words[1]), int(words[2]), line)
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
    check_template(row, argument_types(row))


def argument_types(row):
    text = row.fields.get("args", "")
    types = ARGUMENT_TYPE.findall(text)
    if "".join(types) != text:
        row.fail(f"unknown argument types in {text}")
    return types


def check_template(row, types):
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
    return families, all_rows


HEADER = """\
// Generated by generate/gen_errors.py from src/common/errors/: change it there.
// The error codes. Beside one enumerator for each row of zd_err_info, every family of codes has a
// _BASE and a _LAST, the top and the bottom of its block, which have no rows.

#ifndef ZD_EC_H
#define ZD_EC_H

enum ec_e {
"""


def code_literal(code):
    return "-2147483647 - 1" if code == END_CODE else str(code)


def header_text(families, rows):
    lines = [f"    {row.name} = {row.code}," for row in rows if row.code == 0]
    for family in families:
        lines += ["", f"    {family.prefix}_BASE = {family.top},"]
        lines += [f"    {row.name} = {row.code}," for row in rows if family.owns(row.code)]
        lines += [f"    {family.prefix}_LAST = {family.bottom},"]
    lines += [""] + [f"    {row.name} = {code_literal(row.code)}"
                     for row in rows if row.code == END_CODE]
    return HEADER + "\n".join(lines) + "\n};\n\n#endif\n"


def row_text(row):
    def quoted(field):
        text = row.fields.get(field, "").replace("??", "?\\?")  # never a trigraph
        return f'"{text}"'

    texts = ["nullptr"] * 3 if row.code == END_CODE else [quoted(field) for field in TEXT_FIELDS]
    return (f'{{{row.name}, "{row.name}", {quoted("args")},\n  '
            + ",\n  ".join(texts)
            + f',\n  {quoted("sqlstate")}, {row.foreign}, {row.type}}},\n')


def rows_text(rows):
    return ("// Generated by generate/gen_errors.py from src/common/errors/: change it there.\n"
            + "".join(row_text(row) for row in rows))


def write_if_changed(path, text):
    """Leaves a file that is up to date alone: what includes it need not be built again."""
    if not path.exists() or path.read_text(encoding="ascii") != text:
        path.write_text(text, encoding="ascii")


def main(arguments):
    if len(arguments) != 2:
        sys.exit(__doc__.split("\n\n")[1])
    output = Path(arguments[1])
    try:
        families, rows = read_catalogue(Path(arguments[0]))
    except (CatalogueError, OSError) as error:
        sys.exit(str(error))
    output.mkdir(parents=True, exist_ok=True)
    write_if_changed(output / "ec.h", header_text(families, rows))
    write_if_changed(output / "zd_err_info_rows.inc", rows_text(rows))


if __name__ == "__main__":
    main(sys.argv[1:])
