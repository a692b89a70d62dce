"""What gen_error_pages.py writes, and that the pages in the tree are up to date."""

import tempfile
import unittest
from pathlib import Path

import gen_error_pages

ROOT = Path(__file__).resolve().parents[2]
CATALOGUE = ROOT / "src" / "common" / "errors"

FAMILIES = """\
ERROR_EP -140000 -140999 2 1 external procedure agent
STDOUT_CLI -300000 -300999 0 0 console messages
"""

BOUNDS = """\
ERROR_NONE 0
    desc     "no error"

ZD_ERR_END_OF_INFO -2147483648
    args     NULL
    sqlstate NOSQS
    class    end
"""

ROWS = r"""ERROR_EPA_ONE -140001
    args     sT64_FMT
    desc     " Failed [%1$s] \"at\" %2$ld.   "
    cause    " The <cause>.   "
    action   " Mend it.;"
    sqlstate ERREP
    foreign  7499

ERROR_EPA_TWO -140002
    desc     "Two\n"
    class    warning

ERROR_EPA_THREE -640003
    desc     " Three"
    class    internal
"""

PAGE = """\

# ERROR_EP: external procedure agent

Codes -140000 to -140999; internal conditions lie 500000 lower. [All families](README.md)

### -140001 ERROR_EPA_ONE

*error · SQLSTATE ERREP · elsewhere 7499 · arguments: 1 string, 2 64-bit*

Failed \\[%1$s\\] "at" %2$ld.

**Cause.** The \\<cause\\>.

**Action.** Mend it.

### -140002 ERROR_EPA_TWO

*warning*

Two

### -640003 ERROR_EPA_THREE

*internal*

Three
"""


class Pages(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.catalogue = Path(directory.name) / "errors"
        self.pages = Path(directory.name) / "pages"
        self.catalogue.mkdir()
        for name, text in (("families", FAMILIES), ("bounds.err", BOUNDS), ("ERROR_EP.err", ROWS)):
            (self.catalogue / name).write_text(text, encoding="ascii")

    def run_generator(self, *options):
        gen_error_pages.main([*options, str(self.catalogue), str(self.pages)])

    def read(self, name):
        return (self.pages / name).read_text(encoding="utf-8")

    def test_a_page_shows_every_row_of_its_family(self):
        self.run_generator()
        self.assertEqual(self.read("ERROR_EP.md"), gen_error_pages.MARK + PAGE)

    def test_the_index_leads_to_every_family(self):
        self.run_generator()
        self.assertIn("| [ERROR_EP](ERROR_EP.md) | -140000 … -140999 | 2 | 1 | external procedure "
                      "agent |\n| [STDOUT_CLI](STDOUT_CLI.md) |", self.read("README.md"))
        self.assertIn("`ERROR_NONE` (0) belongs to no family: no error.", self.read("README.md"))

    def test_the_end_row_is_on_no_page(self):
        self.run_generator()
        for page in self.pages.iterdir():
            self.assertNotIn("ZD_ERR_END_OF_INFO", page.read_text(encoding="utf-8"))

    def test_a_page_of_no_family_is_removed(self):
        self.pages.mkdir()
        (self.pages / "ERROR_OLD.md").write_text("old", encoding="utf-8")
        self.run_generator()
        self.assertFalse((self.pages / "ERROR_OLD.md").exists())

    def test_the_check_passes_what_was_just_written(self):
        self.run_generator()
        self.run_generator("--check")

    def test_the_check_names_what_is_stale_missing_or_too_much(self):
        self.run_generator()
        (self.pages / "ERROR_EP.md").write_text("changed", encoding="utf-8")
        (self.pages / "STDOUT_CLI.md").unlink()
        (self.pages / "ERROR_OLD.md").write_text("old", encoding="utf-8")
        with self.assertRaises(SystemExit) as stop:
            self.run_generator("--check")
        self.assertRegex(str(stop.exception), r"(?s)ERROR_EP.md: out of date.*ERROR_OLD.md: "
                         r"belongs to no family.*STDOUT_CLI.md: out of date")
        self.assertEqual(self.read("ERROR_EP.md"), "changed", "the check wrote something")

    def test_a_wrong_catalogue_ends_the_run(self):
        (self.catalogue / "ERROR_EP.err").write_text("nonsense\n", encoding="ascii")
        with self.assertRaisesRegex(SystemExit, r"ERROR_EP.err:1: "):
            self.run_generator()


class Tree(unittest.TestCase):
    def test_the_pages_in_the_tree_are_those_of_the_catalogue(self):
        gen_error_pages.main(["--check", str(CATALOGUE), str(ROOT / "docs" / "errors")])


if __name__ == "__main__":
    unittest.main()
