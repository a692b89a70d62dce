"""What the generator of the message records refuses, and that it says where and why."""

import os
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
GENERATOR = ROOT / "generate" / "gen_zdmsg.py"
DESCRIPTION = ROOT / "src" / "common" / "zdmsg" / "messages.txt"

VALID = """\
# A comment.
record 0 struct_leaf
    number  int     # behind a field
    value   column

record 1 struct_tree
    name   text
    below  array of struct_tree
    leaf   array of struct_leaf

message 0 empty

message 1 full
    key     bytes
    mark    fixed 8
    # indented
    forest  array of struct_tree
"""


def run(text, folder):
    path = os.path.join(folder, "description.txt")
    with open(path, "w", encoding="utf-8") as file:
        file.write(text)
    command = [sys.executable, "-B", str(GENERATOR), path, os.path.join(folder, "out")]
    return subprocess.run(command, capture_output=True, text=True, check=False)


class Generator(unittest.TestCase):
    def setUp(self):
        self.temporary = tempfile.TemporaryDirectory()
        self.addCleanup(self.temporary.cleanup)

    def refuses(self, text, line, reason):
        result = run(text, self.temporary.name)
        self.assertEqual(result.returncode, 1, result.stderr)
        where = "gen_zdmsg.py: %s/description.txt:%d: " % (self.temporary.name, line)
        self.assertEqual(result.stderr, where + reason + "\n")
        self.assertFalse(os.path.exists(os.path.join(self.temporary.name, "out")))

    def generated(self, name):
        return (pathlib.Path(self.temporary.name) / "out" / name).read_text(encoding="ascii")

    def test_a_valid_description_gives_six_files_that_name_their_source(self):
        result = run(VALID, self.temporary.name)
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        for name in ("zdmsg_meta_gen", "zdmsg_setter_gen", "zdmsg_names_gen"):
            for suffix in (".h", ".cpp"):
                first = self.generated(name + suffix).split("\n")[0]
                self.assertEqual(
                    first,
                    "// Generated from description.txt by gen_zdmsg.py: edits made here are lost.",
                )

    def test_the_same_description_gives_the_same_bytes(self):
        names = ("zdmsg_meta_gen.h", "zdmsg_meta_gen.cpp", "zdmsg_setter_gen.h",
                 "zdmsg_names_gen.cpp")
        text = DESCRIPTION.read_text(encoding="ascii")
        run(text, self.temporary.name)
        first = [self.generated(name) for name in names]
        run(text, self.temporary.name)
        self.assertEqual(first, [self.generated(name) for name in names])

    def test_no_generated_line_is_wider_than_the_house_allows(self):
        run(DESCRIPTION.read_text(encoding="ascii"), self.temporary.name)
        for path in (pathlib.Path(self.temporary.name) / "out").iterdir():
            for line in path.read_text(encoding="ascii").split("\n"):
                self.assertLessEqual(len(line), 100, line)

    def test_a_name_is_kept_once_and_its_fields_point_at_it(self):
        run(VALID + "\nmessage 2 last\n    key  text\n    leaf  int\n", self.temporary.name)
        source = self.generated("zdmsg_names_gen.cpp")
        names = "".join(re.findall(r'^    "(.*)\\0";?$', source, re.M))
        self.assertEqual(names, "number" "value" "name" "below" "leaf" "key" "mark" "forest")
        # Behind each name a zero byte; 0x8000 marks a text.
        number, value, name, below, leaf, key, mark, forest = 0, 7, 13, 18, 24, 29, 33, 38
        text = 0x8000
        self.assertEqual(self.numbers(source, "kFields"), [
            number, value, name + text, below, leaf, key, mark, forest, key + text, leaf])
        self.assertEqual(self.numbers(source, "kStructs"), [0, 2])
        self.assertEqual(self.numbers(source, "kMessages"), [5, 5, 8])

    def numbers(self, source, name):
        values = re.search(r"%s\[\] = \{(.*?)\}" % name, source, re.S).group(1)
        return [int(value) for value in values.split(",")]

    def test_missing_file(self):
        command = [sys.executable, "-B", str(GENERATOR), "/nonexistent/d.txt", "/nonexistent"]
        result = subprocess.run(command, capture_output=True, text=True, check=False)
        self.assertEqual(result.returncode, 1)
        self.assertIn("gen_zdmsg.py: [Errno 2]", result.stderr)

    def test_wrong_number_of_arguments(self):
        command = [sys.executable, "-B", str(GENERATOR), "one"]
        result = subprocess.run(command, capture_output=True, text=True, check=False)
        self.assertEqual(result.returncode, 1)
        self.assertEqual(result.stderr, "usage: gen_zdmsg.py DESCRIPTION OUTPUT_DIR\n")

    def test_bytes_beyond_ascii(self):
        text = "message 0 a\n    x  int\n# gr\u00fc\u00dfe\n"
        self.refuses(text, 3, "a byte that is not ASCII")

    def test_more_names_than_can_be_kept(self):
        text = "message 0 a\n" + "".join("    %s%d  int\n" % ("n" * 60, k) for k in range(600))
        result = run(text, self.temporary.name)
        self.assertEqual(result.returncode, 1)
        self.assertEqual(
            result.stderr,
            "gen_zdmsg.py: description.txt: too many names for 15 bits, or fields for 16\n",
        )
        self.assertFalse(os.path.exists(os.path.join(self.temporary.name, "out")))

    def test_no_message(self):
        self.refuses("record 0 struct_a\n    x  int\n", 3, "no message at all")

    def test_unknown_declaration(self):
        self.refuses("table 0 a\n", 1, "'table' is neither 'record' nor 'message'")

    def test_declaration_with_too_few_or_too_many_words(self):
        self.refuses("message 0\n", 1, "expected 'message NUMBER NAME [pinned]'")
        self.refuses("message 0 a b\n", 1, "expected 'message NUMBER NAME [pinned]'")
        self.refuses("message 0 pinned\n", 1, "expected 'message NUMBER NAME [pinned]'")

    def test_number_that_is_none(self):
        self.refuses("message x a\n", 1, "'x' is not a number")
        self.refuses("message -1 a\n", 1, "'-1' is not a number")

    def test_duplicate_number(self):
        self.refuses("message 0 a\nmessage 0 b\n", 2, "number 0 is taken by a")

    def test_hole_in_the_numbers(self):
        self.refuses("message 0 a\nmessage 2 b\n", 2, "number 2 leaves a hole: 1 comes next")
        self.refuses("record 1 struct_a\n", 1, "number 1 leaves a hole: 0 comes next")

    def test_duplicate_name(self):
        self.refuses("message 0 a\nmessage 1 a\n", 2, "a is declared twice")

    def test_name_in_upper_case(self):
        self.refuses("message 0 Commit\n", 1, "'Commit' is not a name in lower case")

    def test_name_of_the_wrong_sort(self):
        reason = "names of element records, and no others, begin with struct_"
        self.refuses("message 0 struct_a\n", 1, reason)
        self.refuses("record 0 a\n", 1, reason)

    def test_field_outside_any_record(self):
        self.refuses("    x  int\n", 1, "a field outside any record")

    def test_element_record_without_fields(self):
        text = "record 0 struct_a\n\nmessage 0 m\n"
        self.refuses(text, 3, "struct_a ends without a field")
        self.refuses("record 0 struct_a\n", 2, "struct_a ends without a field")

    def test_duplicate_field(self):
        text = "message 0 a\n    x  int\n    x  text\n"
        self.refuses(text, 3, "a has a 'x' already")

    def test_fields_whose_setter_parameters_collide(self):
        text = "message 0 a\n    x_len  int\n    x      bytes\n"
        self.refuses(text, 3, "a has a 'x_len' already")

    def test_field_name_that_is_no_member_name(self):
        self.refuses("message 0 a\n    2x  int\n", 2, "'2x' cannot name a member")
        reason = "'%s' cannot name a member: it means something else there"
        self.refuses("message 0 a\n    class  int\n", 2, reason % "class")
        self.refuses("message 0 a\n    base  int\n", 2, reason % "base")

    def test_unknown_kind(self):
        self.refuses("message 0 a\n    x  float\n", 2, "unknown kind 'float'")
        self.refuses("message 0 a\n    x\n", 2, "unknown kind ''")
        self.refuses("message 0 a\n    x  int 4\n", 2, "unknown kind 'int 4'")

    def test_fixed_without_a_size(self):
        self.refuses("message 0 a\n    x  fixed\n", 2, "fixed needs a size: 'fixed N'")
        reason = "the size of a fixed field is a multiple of 4, and not 0"
        self.refuses("message 0 a\n    x  fixed 0\n", 2, reason)
        self.refuses("message 0 a\n    x  fixed 6\n", 2, reason)
        self.refuses("message 0 a\n    x  fixed y\n", 2, "'y' is not a number")

    def test_column_in_a_message(self):
        text = "message 0 a\n    x  column\n"
        self.refuses(text, 2, "a column can only stand in an element record")

    def test_array_without_a_record(self):
        self.refuses("message 0 a\n    x  array\n", 2, "array needs a record: 'array of RECORD'")

    def test_array_of_a_record_that_comes_later_or_never(self):
        text = (
            "record 0 struct_a\n    x  array of struct_b\n\n"
            "record 1 struct_b\n    y  int\n\nmessage 0 m\n"
        )
        self.refuses(text, 2, "no record struct_b has been declared so far")

    def test_array_of_a_message(self):
        text = "message 0 a\n    x  int\nmessage 1 b\n    y  array of a\n"
        self.refuses(text, 4, "a is a message, not an element record")

    def test_comment_that_looks_as_if_it_ended_a_record(self):
        text = "message 0 a\n    x  int\n# note\n    y  int\n"
        self.refuses(text, 4, "a comment between fields must be indented or stand behind one")


if __name__ == "__main__":
    unittest.main()
