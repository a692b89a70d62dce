"""That docs/protocol.md is what the description gives, whole, and true to its own rules."""

import pathlib
import re
import struct
import subprocess
import sys
import tempfile
import unittest

import zdmsg_description

ROOT = pathlib.Path(__file__).resolve().parents[2]
GENERATOR = ROOT / "generate" / "gen_protocol.py"
DESCRIPTION = ROOT / "src" / "common" / "zdmsg" / "messages.txt"
REFERENCE = ROOT / "docs" / "protocol.md"


def run(*arguments):
    command = [sys.executable, "-B", str(GENERATOR)] + [str(argument) for argument in arguments]
    return subprocess.run(command, capture_output=True, text=True, check=False)


def integer(*values):
    return b"".join(struct.pack(">i", value) for value in values)


def string(data):
    return integer(len(data)) + data + bytes(4 - len(data) % 4)


def message(number, body):
    return struct.pack(">iIQ", number, len(body), 0) + body


class Reference(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.text = REFERENCE.read_text(encoding="ascii")
        cls.description = zdmsg_description.read(DESCRIPTION)

    def test_it_is_fresh(self):
        with tempfile.TemporaryDirectory() as folder:
            path = pathlib.Path(folder) / "protocol.md"
            self.assertEqual(run(DESCRIPTION, path).stderr, "")
            self.assertEqual(
                self.text == path.read_text(encoding="ascii"), True,
                "docs/protocol.md is not what the description gives. Write it anew:\n"
                "  generate/gen_protocol.py src/common/zdmsg/messages.txt docs/protocol.md")

    def section(self, title):
        start = self.text.index("\n#### %s\n" % title)
        return self.text[start : self.text.index("\n#", start + 5)]

    def test_every_record_has_a_section_with_its_fields_in_wire_order(self):
        for level, records in (("###", self.description.records),
                               ("####", self.description.messages)):
            titles = re.findall("^%s ([0-9]+ `[a-z0-9_]+`)$" % level, self.text, re.MULTILINE)
            self.assertEqual(titles, ["%d `%s`" % (r.number, r.name) for r in records])
        for record in self.description.messages:
            fields = re.findall(r"^\| `(\w+)` \|", self.section(
                "%d `%s`" % (record.number, record.name)), re.MULTILINE)
            self.assertEqual(fields, [field.name for field in record.fields])

    def test_kinds_are_told_and_linked(self):
        for line in (
            "| `library_path` | text |",
            "| `property` | int |",
            "| `param` | array of [`struct_extproc_param`](#11-struct_extproc_param) |",
        ):
            self.assertIn(line, self.section("139 `extproc_execute`"))
        self.assertIn("| `errstack` | bytes: an [error stack](#the-serialized-error-stack) |",
                      self.section("140 `extproc_execute_reply`"))
        self.assertIn("| `filename` | fixed 64 |", self.section("78 `tsam_open_request`"))
        self.assertIn("No fields.", self.section("23 `commit`"))
        self.assertIn("| `data_value` | column |", self.text)

    def test_every_link_leads_somewhere(self):
        outside_code = re.sub("^```.*?^```$", "", self.text, flags=re.MULTILINE | re.DOTALL)
        headings = re.findall("^#+ (.*)$", outside_code, re.MULTILINE)
        anchors = {re.sub("[^a-z0-9_ -]", "", title.lower()).replace(" ", "-")
                   for title in headings}
        links = set(re.findall(r"\]\(#([^)]*)\)", self.text))
        self.assertGreater(len(links), 278)
        self.assertEqual(links - anchors, set())

    def test_no_place_was_left_open(self):
        self.assertNotIn("@", self.text)

    def example(self, heading):
        """The bytes of the code blocks below a heading, each a line of hex digits and a remark."""
        start = self.text.index("\n## %s\n" % heading)
        part = self.text[start : self.text.index("\n## ", start + 4)]
        blocks = re.findall("^```\n(.*?)^```$", part, re.MULTILINE | re.DOTALL)
        digits = "^((?:[0-9A-F]{2} {1,2})*[0-9A-F]{2})(?:   .*)?$"
        return [
            bytes.fromhex("".join(re.match(digits, line).group(1) for line in block.splitlines()))
            for block in blocks if re.match(digits, block.splitlines()[0])
        ]

    def test_examples_have_the_bytes_that_they_speak_of(self):
        self.assertEqual(self.example("Framing"), [message(75, string(b"abc"))])
        int_in = 0x00011A05
        call = string(b"libadd.so") + string(b"add") + integer(0, int_in, 2)
        for value in (2, 40):
            call += integer(int_in, 4) + string(struct.pack("<i", value))
        reply = string(b"") + string(b"") + integer(1) + string(struct.pack("<i", 42))
        self.assertEqual(self.example("A call of the agent"),
                         [message(139, call), message(140, reply)])


class Generator(unittest.TestCase):
    def test_wrong_description_is_refused_with_its_place(self):
        with tempfile.TemporaryDirectory() as folder:
            path = pathlib.Path(folder) / "d.txt"
            path.write_text("message 0 a\n    x  float\n", encoding="ascii")
            output = pathlib.Path(folder) / "protocol.md"
            result = run(path, output)
            self.assertEqual((result.returncode, result.stderr),
                             (1, "gen_protocol.py: %s:2: unknown kind 'float'\n" % path))
            self.assertFalse(output.exists())

    def test_wrong_number_of_arguments(self):
        result = run("one")
        self.assertEqual((result.returncode, result.stderr),
                         (1, "usage: gen_protocol.py DESCRIPTION OUTPUT_FILE\n"))


if __name__ == "__main__":
    unittest.main()
