"""What Wireshark shows of messages, by the dissector that is generated: tshark reads captures that
these tests write, byte by byte. Without tshark the program ends with status 77: skipped.
"""

import pathlib
import shutil
import struct
import subprocess
import sys
import tempfile
import unittest

import zdmsg_description

ROOT = pathlib.Path(__file__).resolve().parents[2]
GENERATOR = ROOT / "generate" / "gen_dissector.py"
DESCRIPTION = ROOT / "src" / "common" / "zdmsg" / "messages.txt"
SKIPPED = 77
PORT = 4321

# ---- Bytes of messages, from the rules of the wire alone


def integer(*values):
    return b"".join(struct.pack(">i", value) for value in values)


def padded(data):
    return data + bytes(4 - len(data) % 4)


def string(data):
    return integer(len(data)) + padded(data)


def message(number, body=b"", tsn=0):
    return struct.pack(">iIQ", number, len(body), tsn) + body


def array(*elements):
    return integer(len(elements)) + b"".join(elements)


EXECUTE = message(
    139,
    string(b"/lib/a.so")
    + string(b"add")
    + integer(0x100, 5)
    + array(
        integer(0x01020A03, 4) + string(b"\x2a\0\0\0"),
        integer(7, 26) + string("Größe".encode()),
    ),
)
FETCH = message(18, integer(1, -2), tsn=0x0102030405060708)


def error_record(number, code, text, file, line):
    record = bytearray(936)
    struct.pack_into(">iiII", record, 8, number, code, 0, 0)
    record[24:31] = b"1ERREP\0"
    record[31 : 31 + len(text)] = text
    struct.pack_into(">I", record, 744, 0xFFFFFFFF)
    record[772 : 772 + len(file)] = file
    struct.pack_into(">i", record, 852, line)
    record[856:860] = b"open"
    return bytes(record)


ERROR_STACK = (
    integer(2, 2, 2, 0)
    + error_record(1, -140004, b"Failed to open library", b"epa_dl_call", 12)
    + error_record(0, -20001, b"below", b"epa_usr_util", 34)
)

# ---- Captures


def checksummed_ip(payload):
    head = struct.pack(
        ">BBHHHBBH4s4s", 0x45, 0, 20 + len(payload), 1, 0, 64, 6, 0, b"\x7f\0\0\1", b"\x7f\0\0\1"
    )
    total = sum(struct.unpack(">10H", head))
    total = (total & 0xFFFF) + (total >> 16)
    return head[:10] + struct.pack(">H", ~(total + (total >> 16)) & 0xFFFF) + head[12:] + payload


def capture(segments):
    """One packet a segment, all from port 40000 to PORT."""
    raw_ip = 101
    file = struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, raw_ip)
    sequence = 1000
    for number, data in enumerate(segments):
        tcp = struct.pack(">HHIIBBHHH", 40000, PORT, sequence, 1, 5 << 4, 0x18, 65535, 0, 0)
        packet = checksummed_ip(tcp + data)
        file += struct.pack("<IIII", number, 0, len(packet), len(packet)) + packet
        sequence += len(data)
    return file


class Dissector(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(cls.folder.cleanup)
        cls.script = pathlib.Path(cls.folder.name) / "zdmsg.lua"
        subprocess.run(
            [sys.executable, "-B", str(GENERATOR), str(DESCRIPTION), str(cls.script)], check=True
        )

    def tshark(self, segments, *arguments, decode_as=True):
        path = pathlib.Path(self.folder.name) / "capture.pcap"
        path.write_bytes(capture(segments))
        command = ["tshark", "-n", "-r", str(path), "-X", "lua_script:" + str(self.script)]
        if decode_as:
            command += ["-d", "tcp.port==%d,zdmsg" % PORT]
        result = subprocess.run(
            command + list(arguments), capture_output=True, text=True, check=False
        )
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertNotIn("Lua", result.stdout + result.stderr)
        return result.stdout

    def values(self, segments, *fields, **options):
        """A line a packet, of the values of the fields, several of one joined with '|'."""
        arguments = ["-T", "fields"]
        for setting in ("occurrence=a", "aggregator=|", "separator=;"):
            arguments += ["-E", setting]
        for field in fields:
            arguments += ["-e", field]
        return self.tshark(segments, *arguments, **options).split("\n")[:-1]

    def assert_values(self, data, expected):
        """expected: a dictionary of fields, for one segment with data."""
        self.assertEqual(self.values([data], *expected), [";".join(expected.values())])

    def assert_malformed(self, data, reason):
        shown = self.tshark([data], "-V", "-Y", "zdmsg.malformed")
        self.assertIn(reason, shown)

    def test_header(self):
        self.assert_values(
            FETCH,
            {
                "zdmsg.type": "18",
                "zdmsg.body_size": "8",
                "zdmsg.tsn": "72623859790382856",
                "zdmsg.fetch.csrid": "1",
                "zdmsg.fetch.fetch_row_chunk_cnt": "-2",
                "zdmsg.malformed": "",
                "zdmsg.left_over": "",
            },
        )

    def test_message_without_fields(self):
        self.assert_values(
            message(23), {"zdmsg.type": "23", "zdmsg.body_size": "0", "zdmsg.malformed": ""}
        )

    def test_names_stand_in_the_list_of_packets(self):
        self.assertEqual(self.values([EXECUTE], "_ws.col.Protocol", "_ws.col.Info"),
                         ["ZDMSG;extproc_execute"])

    def test_strings_and_elements(self):
        self.assert_values(
            EXECUTE,
            {
                "zdmsg.extproc_execute.library_path": "/lib/a.so",
                "zdmsg.extproc_execute.function_name": "add",
                "zdmsg.extproc_execute.property": "256",
                "zdmsg.extproc_execute.return_flag": "5",
                "zdmsg.extproc_execute.param": "2",
                "zdmsg.struct_extproc_param.flag": "16910851|7",
                "zdmsg.struct_extproc_param.maxlen": "4|26",
                "zdmsg.struct_extproc_param.data_value": "2a000000|4772c3b6c39f65",
                "zdmsg.malformed": "",
                "zdmsg.left_over": "",
            },
        )

    def test_text_is_read_as_utf_8_and_may_be_empty(self):
        self.assert_values(message(75, string("Größe".encode())),
                           {"zdmsg.ok_reply.warning_msg": "Größe"})
        self.assert_values(message(75, string(b"")),
                           {"zdmsg.ok_reply.warning_msg": "", "zdmsg.malformed": ""})

    def test_fixed_fields(self):
        self.assert_values(
            message(78, b"f" * 64 + b"volume 1" + integer(1, 2, 3, 4, 5, 6, -7)),
            {
                "zdmsg.tsam_open_request.filename": "66" * 64,
                "zdmsg.tsam_open_request.volser": "766f6c756d652031",
                "zdmsg.tsam_open_request.rgattr": "-7",
                "zdmsg.malformed": "",
            },
        )

    def test_columns_are_shown_without_their_prefix(self):
        long_value = bytes(range(256)) + b"x" * 44
        parameters = array(
            integer(1) + padded(b"\x03abc"),
            integer(2) + padded(b"\xfe\x01\x2c" + long_value),
            integer(3) + padded(b"\x00"),
            integer(4) + padded(b"\xfb\x00\x00z"),
            integer(5) + padded(b"\xff\xfe\x00xyz"),
        )
        self.assert_values(
            message(228, integer(1) + string(b"") + parameters),
            {
                "zdmsg.struct_bindparam.flag": "1|2|3|4|5",
                "zdmsg.struct_bindparam.data_value": "616263|%s|%s|7a|78797a"
                % (long_value.hex(), "<MISSING>"),  # tshark's word for no bytes
                "zdmsg.malformed": "",
                "zdmsg.left_over": "",
            },
        )

    def test_arrays_within_arrays(self):
        leaf = integer(2) + padded(b"\x01b") + array()
        inner = integer(3) + padded(b"\x01c") + array(leaf)
        body = b"statement"[:8] + integer(0, 0) + array(
            integer(1) + padded(b"\x01a") + array(leaf, inner), leaf
        )
        self.assert_values(
            message(185, body),
            {
                "zdmsg.execute_udt.param_info": "2",
                "zdmsg.struct_bindparam_udt.flag": "1|2|3|2|2",
                "zdmsg.struct_bindparam_udt.data_value": "61|62|63|62|62",
                "zdmsg.struct_bindparam_udt.sub_bindparam": "2|0|1|0|0",
                "zdmsg.malformed": "",
                "zdmsg.left_over": "",
            },
        )

    def test_error_stack_is_shown_error_by_error(self):
        self.assert_values(
            message(140, string(b"") + string(ERROR_STACK) + array()),
            {
                "zdmsg.error_stack.id_next": "2",
                "zdmsg.error_stack.count": "2",
                "zdmsg.error_stack.usrcount": "2",
                "zdmsg.error.id": "1|0",
                "zdmsg.error.code": "-140004|-20001",
                "zdmsg.error.is_usrerr": "1|1",
                "zdmsg.error.sqlstate": "ERREP|ERREP",
                "zdmsg.error.complete_desc": "Failed to open library|below",
                "zdmsg.error.obj_id_occurred": "4294967295|4294967295",
                "zdmsg.error.file": "epa_dl_call|epa_usr_util",
                "zdmsg.error.line": "12|34",
                "zdmsg.error.func": "open|open",
                "zdmsg.malformed": "",
            },
        )

    def test_error_stack_of_another_message(self):
        self.assert_values(message(76, integer(0) + string(ERROR_STACK)),
                           {"zdmsg.error.code": "-140004|-20001"})

    def test_error_stack_that_is_cut_short_is_marked(self):
        body = integer(0) + string(ERROR_STACK[:-1])
        self.assert_values(message(76, body), {"zdmsg.error.code": "-140004"})
        self.assert_malformed(message(76, body),
                              "The error stack counts 2 errors, its bytes hold 1")
        self.assert_malformed(message(76, integer(0) + string(b"short")),
                              "The bytes end in the header of the error stack")

    def test_two_messages_in_one_segment(self):
        self.assert_values(
            FETCH + EXECUTE + message(23),
            {
                "zdmsg.type": "18|139|23",
                "zdmsg.fetch.csrid": "1",
                "zdmsg.extproc_execute.function_name": "add",
                "_ws.col.Info": "fetch, extproc_execute, commit",
            },
        )

    def test_message_over_several_segments(self):
        segments = [EXECUTE[:7], EXECUTE[7:30], EXECUTE[30:] + FETCH[:20], FETCH[20:]]
        self.assertEqual(
            self.values(segments, "zdmsg.type", "zdmsg.extproc_execute.function_name",
                        "zdmsg.struct_extproc_param.maxlen", "zdmsg.fetch.fetch_row_chunk_cnt",
                        "zdmsg.malformed"),
            [";;;;", ";;;;", "139;add;4|26;;", "18;;;-2;"])

    def test_a_byte_a_segment(self):
        segments = [EXECUTE[i : i + 1] for i in range(len(EXECUTE))]
        shown = self.values(segments, "zdmsg.type", "zdmsg.struct_extproc_param.maxlen")
        self.assertEqual(shown, [";"] * (len(EXECUTE) - 1) + ["139;4|26"])

    def test_readiness_signal_before_messages(self):
        signal = b"BOOT SUCCESS\0"
        self.assertEqual(
            self.values([signal[:5], signal[5:] + FETCH], "zdmsg.ready", "zdmsg.type",
                        "_ws.col.Info")[1],
            "BOOT SUCCESS;18;ready, fetch")

    def test_string_longer_than_the_body_is_marked(self):
        body = string(b"/lib/a.so") + integer(4) + b"add\0"
        self.assert_malformed(
            message(139, body),
            "Malformed body: function_name does not fit: it needs 8 bytes, the body has 4 more")
        self.assert_values(
            message(139, body),
            {
                "zdmsg.extproc_execute.library_path": "/lib/a.so",
                "zdmsg.extproc_execute.function_name": "",
                "zdmsg.rest": "61646400",
                "_ws.col.Info": "extproc_execute [malformed]",
            },
        )

    def test_malformed_message_leaves_the_next_one_alone(self):
        self.assert_values(message(18, integer(1)) + FETCH,
                           {"zdmsg.type": "18|18", "zdmsg.fetch.csrid": "1|1",
                            "zdmsg.fetch.fetch_row_chunk_cnt": "-2"})

    def test_other_bodies_that_break_the_rules_are_marked(self):
        cases = (
            (b"", 18, "Malformed body: it is empty"),
            (integer(1) + b"\0\0\0", 18, "fetch_row_chunk_cnt does not fit: it needs 4 bytes"),
            (integer(-1) + bytes(4), 75, "warning_msg has the length -1"),
            (b"1234567", 223, "xid does not fit: it needs 8 bytes, the body has 7 more"),
            (integer(3, 1, 2), 191, "pid_list has 3 elements, the body ends after 2"),
            (integer(0, 0, 0, 1, 7) + b"\x04abc", 228, "data_value does not fit"),
        )
        segments = [message(number, body) for body, number, _ in cases]
        packets = self.tshark(segments, "-V").split("\nFrame ")
        for packet, case in zip(packets, cases):
            with self.subTest(case=case):
                self.assertIn("Zerdal database message", packet)
                self.assertIn(case[2], packet)

    def test_nesting_without_end_is_cut_off(self):
        level = array(b"")[:4] + integer(7) + padded(b"\0")
        self.assert_malformed(message(185, bytes(16) + level * 200 + integer(0)),
                              "sub_bindparam is nested deeper than is shown")

    def test_bytes_behind_the_last_field_are_marked(self):
        self.assert_values(
            message(18, integer(1, 2, 3)),
            {"zdmsg.left_over": "1", "zdmsg.malformed": "", "zdmsg.rest": "00000003"})

    def test_type_that_does_not_exist_is_marked(self):
        self.assert_malformed(message(278, b"abcd"), "There is no message of type 278")
        self.assert_values(message(278, b"abcd") + FETCH,
                           {"zdmsg.type": "278|18", "zdmsg.body": "61626364"})

    def test_other_streams_are_left_alone(self):
        self.assert_values(b"GET / HTTP/1.1\r\nHost: example\r\n\r\n", {"zdmsg.type": ""})

    def test_ports_of_the_preferences(self):
        fields = ("-T", "fields", "-e", "zdmsg.type")
        self.assertEqual(self.tshark([FETCH], *fields, decode_as=False), "\n")
        ports = "zdmsg.tcp_ports:4000,%d-%d" % (PORT, PORT + 5)
        self.assertEqual(self.tshark([FETCH], "-o", ports, *fields, decode_as=False), "18\n")

    def test_every_message_is_read_to_its_end(self):
        blank = {"int": 4, "text": 8, "bytes": 8, "array": 4}
        description = zdmsg_description.read(DESCRIPTION)
        segments = [
            message(record.number,
                    bytes(sum(field.size or blank[field.kind] for field in record.fields)))
            for record in description.messages
        ]
        self.assertEqual(
            self.values(segments, "zdmsg.type", "_ws.col.Info", "zdmsg.malformed", "zdmsg.rest"),
            ["%d;%s;;" % (record.number, record.name) for record in description.messages])

    def test_every_element_record_can_be_read(self):
        # Through a message of a description of its own, each record as the one element.
        blank = {"int": 4, "text": 8, "bytes": 8, "array": 4, "column": 4}
        text = DESCRIPTION.read_text(encoding="ascii")
        text = text[: text.index("\nmessage 0 ")]
        records = zdmsg_description.read(DESCRIPTION).records
        for record in records:
            text += "\nmessage %d m%d\n    it  array of %s\n" % (
                record.number, record.number, record.name)
        description = pathlib.Path(self.folder.name) / "records.txt"
        description.write_text(text, encoding="ascii")
        saved = self.script
        self.script = pathlib.Path(self.folder.name) / "records.lua"
        self.addCleanup(setattr, self, "script", saved)
        subprocess.run([sys.executable, "-B", str(GENERATOR), str(description), str(self.script)],
                       check=True)
        segments = [
            message(record.number, integer(1) + bytes(
                sum(field.size or blank[field.kind] for field in record.fields)))
            for record in records
        ]
        self.assertEqual(self.values(segments, "zdmsg.type", "zdmsg.malformed", "zdmsg.rest"),
                         ["%d;;" % record.number for record in records])


class Generator(unittest.TestCase):
    def run_generator(self, *arguments):
        return subprocess.run([sys.executable, "-B", str(GENERATOR), *arguments],
                              capture_output=True, text=True, check=False)

    def test_output_names_its_source_and_is_the_same_every_time(self):
        with tempfile.TemporaryDirectory() as folder:
            outputs = []
            for name in ("one.lua", "two.lua"):
                path = pathlib.Path(folder) / name
                self.assertEqual(self.run_generator(str(DESCRIPTION), str(path)).returncode, 0)
                outputs.append(path.read_text(encoding="ascii"))
            self.assertEqual(outputs[0], outputs[1])
            self.assertIn("-- Generated from messages.txt by gen_dissector.py: edits made here "
                          "are lost.\n", outputs[0])

    def test_wrong_description_is_refused_with_its_place(self):
        with tempfile.TemporaryDirectory() as folder:
            path = pathlib.Path(folder) / "d.txt"
            path.write_text("message 0 a\n    x  float\n", encoding="ascii")
            output = pathlib.Path(folder) / "zdmsg.lua"
            result = self.run_generator(str(path), str(output))
            self.assertEqual(result.returncode, 1)
            self.assertEqual(result.stderr,
                             "gen_dissector.py: %s:2: unknown kind 'float'\n" % path)
            self.assertFalse(output.exists())

    def test_wrong_number_of_arguments(self):
        result = self.run_generator("one")
        self.assertEqual((result.returncode, result.stderr),
                         (1, "usage: gen_dissector.py DESCRIPTION OUTPUT_FILE\n"))


if __name__ == "__main__":
    if shutil.which("tshark") is None:
        print("SKIPPED: there is no tshark (scripts/setup.sh test installs it)", file=sys.stderr)
        sys.exit(SKIPPED)
    unittest.main()
