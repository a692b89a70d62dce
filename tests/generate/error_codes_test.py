"""Holds the catalogue to the ledger of codes: what was once given out keeps its number and name."""

import unittest
from pathlib import Path

import error_catalogue

ROOT = Path(__file__).resolve().parents[2]


class Ledger(unittest.TestCase):
    def setUp(self):
        self.families, self.rows = error_catalogue.read_catalogue(ROOT / "src/common/errors")

    def test_every_row_has_its_code_name_and_place(self):
        ledger = (ROOT / "tests/abi/error_codes.txt").read_text(encoding="ascii").splitlines()
        self.assertEqual([f"{row.code} {row.name}" for row in self.rows], ledger)

    def test_the_whole_has_the_counts_that_users_rely_on(self):
        self.assertEqual(len(self.rows), 3237)
        self.assertEqual(len(self.families), 67)
        self.assertEqual(sum(row.type == 2 for row in self.rows), 215)
        self.assertEqual(sum("sqlstate" not in row.fields for row in self.rows), 742)

    def test_console_messages_have_the_message_alone(self):
        for row in self.rows:
            if row.name.startswith("STDOUT_"):
                self.assertEqual(row.fields.keys() - {"args", "desc"}, set(), row.name)

    def test_every_other_error_says_why_and_what_to_do(self):
        for row in self.rows:
            if not row.name.startswith("STDOUT_") and row.type in (1, error_catalogue.ORDINARY):
                self.assertGreaterEqual(row.fields.keys(), {"desc", "cause", "action"}, row.name)

    def test_no_two_rows_of_a_family_say_the_same(self):
        seen = {}
        for row in self.rows[:-1]:
            key = (row.path, row.fields["desc"].strip())
            if key in seen and key[1] != "Invalid error code - %1$u.":  # two rows on purpose
                self.fail(f"{row.name} says what {seen[key]} says: {key[1]}")
            seen[key] = row.name


if __name__ == "__main__":
    unittest.main()
