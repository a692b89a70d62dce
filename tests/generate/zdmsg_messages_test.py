"""Holds the message description to the ledger of wire shapes, text and bytes told apart."""

import pathlib
import re
import unittest

import zdmsg_description

ROOT = pathlib.Path(__file__).resolve().parents[2]
LEDGER = ROOT / "tests" / "support" / "zdmsg_shapes.inc"
ROW = re.compile(r'(RECORD|MESSAGE)\((\d+), (\w+), "(.*)"\)')
LETTERS = {"int": "i", "text": "t", "bytes": "b", "column": "c"}


def letters(field):
    if field.kind == "fixed":
        return "f%d" % field.size
    if field.kind == "array":
        return "a%d" % field.element.number
    return LETTERS[field.kind]


class Messages(unittest.TestCase):
    def test_the_description_has_the_shapes_of_the_ledger(self):
        rows = [ROW.fullmatch(line) for line in LEDGER.read_text(encoding="ascii").split("\n")]
        expected = [row.groups() for row in rows if row]
        self.assertEqual(len(expected), 35 + 278)
        description = zdmsg_description.read(ROOT / "src" / "common" / "zdmsg" / "messages.txt")
        actual = [
            (sort, str(record.number), record.name, " ".join(map(letters, record.fields)))
            for sort, known in (
                ("RECORD", description.records),
                ("MESSAGE", description.messages),
            )
            for record in known
        ]
        for mine, theirs in zip(actual, expected):
            self.assertEqual(mine, theirs)
        self.assertEqual(len(actual), len(expected))


if __name__ == "__main__":
    unittest.main()
