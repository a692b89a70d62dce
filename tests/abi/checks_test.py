#!/usr/bin/env python3
"""The checks of the tree find what they look for: each is given something that breaks its rule."""

import os
import shutil
import subprocess
import tempfile
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.join(HERE, "..", "..")
CHECK_ELF = os.path.join(HERE, "check_elf.py")

# Breaks every fact: a constructor, a need of libm, an unknown function, a section both writable
# and executable, a relocation in the code, functions without frames and unwind information, a table
# with the address of an exported function.
FAULTY_LIBRARY = r"""
#include <math.h>
extern int nobody_has_this(void);
static int value;
int *pointer = &value;
__attribute__((constructor)) void at_load(void) { value = nobody_has_this(); }
double caller(double x) { return sin(x) + value; }
double (*table[])(double) = {caller};
__asm__(".section .both,\"awx\",@progbits\n.byte 0\n.text\n.quad caller\n");
"""
FAULTY_FLAGS = (
    "-O2 -shared -fPIC -fomit-frame-pointer -fcf-protection=none -fno-asynchronous-unwind-tables "
    "-fno-unwind-tables -Wl,-z,execstack -Wl,-z,lazy -Wl,-z,norelro -Wl,-z,notext "
    "-Wl,--no-warnings -Wl,-rpath,/opt/lib -Wl,-Bsymbolic-functions"
).split()


def run(*command, cwd=None):
    return subprocess.run(command, capture_output=True, text=True, cwd=cwd)


class WithFolder(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, self.folder)

    def write(self, name, content):
        path = os.path.join(self.folder, name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "w", encoding="utf-8", newline="") as file:
            file.write(content)
        return path


class ElfFacts(WithFolder):
    def test_every_fact_fails_on_a_library_that_breaks_it(self):
        source = self.write("faulty.c", FAULTY_LIBRARY)
        library = os.path.join(self.folder, "faulty.so")
        built = run("gcc", *FAULTY_FLAGS, "-o", library, source, "-lm")
        self.assertEqual(built.returncode, 0, built.stderr)
        facts = run(CHECK_ELF, "--list").stdout.split()
        self.assertGreater(len(facts), 10)
        for fact in facts:
            with self.subTest(fact):
                checked = run(CHECK_ELF, fact, library)
                self.assertEqual(checked.returncode, 1, checked.stderr)
                self.assertIn(f"{fact}: ", checked.stderr)


class Headers(WithFolder):
    def check(self, content):
        self.write("some.h", content)
        script = os.path.join(HERE, "check_headers.sh")
        return run(script, "C11", "gcc", self.folder)

    def test_sound_header_passes(self):
        checked = self.check("#ifndef A\n#define A\ntypedef int a_t;\n#endif\n")
        self.assertEqual(checked.returncode, 0, checked.stderr)

    def test_header_that_needs_another_first_is_found(self):
        checked = self.check("size_t some(void);\n")
        self.assertEqual(checked.returncode, 1)
        self.assertIn("does not compile alone as C11: some.h", checked.stderr)

    def test_header_without_a_guard_is_found(self):
        self.assertEqual(self.check("enum a_e { A };\n").returncode, 1)

    def test_folder_without_headers_is_no_success(self):
        script = os.path.join(HERE, "check_headers.sh")
        self.assertNotEqual(run(script, "C11", "gcc", self.folder).returncode, 0)


class Layers(WithFolder):
    def check(self):
        return run(os.path.join(ROOT, "scripts/check_layers.py"), self.folder)

    def assert_found(self, text):
        checked = self.check()
        self.assertEqual(checked.returncode, 1)
        self.assertIn(text, checked.stderr)

    def test_include_of_a_layer_below_passes(self):
        self.write("common/list.h", "")
        self.write("common/listc.h", '#include "common/list.h"\n')
        self.assertEqual(self.check().returncode, 0)

    def test_include_of_a_layer_above_is_found_with_its_line(self):
        self.write("common/listc.h", "")
        self.write("common/list.h", '\n#include "common/listc.h"\n')
        self.assert_found('common/list.h:2: "common/listc.h" is of the layer')

    def test_unit_that_nobody_placed_is_found(self):
        self.write("common/newcomer.cpp", "")
        self.assert_found("common/newcomer.cpp:1: unit is in no layer")

    def test_include_of_an_unknown_unit_is_found(self):
        self.write("common/list.h", '#include "common/newcomer.h"\n')
        self.assert_found('common/list.h:1: "common/newcomer.h" is in no layer')

    def test_include_by_another_folder_is_found(self):
        self.write("common/list.h", '#include "common/zd_base.h"\n')
        self.assert_found('"common/zd_base.h" is not there')

    def test_circle_through_a_source_file_is_found(self):
        self.write("common/zd_err.h", "")
        self.write("common/zd_err_stack.h", '#include "common/zd_err.h"\n')
        self.write("common/zd_err.cpp", '#include "common/zd_err_stack.h"\n')
        self.assert_found("common/zd_err -> common/zd_err_stack -> common/zd_err")

    def test_circle_of_headers_within_one_unit_is_found(self):
        self.write("common/alloc/alloc_alg.h", '#include "common/alloc/region_clialloc.h"\n')
        self.write("common/alloc/region_clialloc.h", '#include "common/alloc/alloc_alg.h"\n')
        self.assert_found("headers include each other in a circle: common/alloc/alloc_alg.h")


class Words(WithFolder):
    """Each in a tree of its own, which has no git folder: every file in it counts."""

    def check(self, name, content):
        os.makedirs(os.path.join(self.folder, "scripts"), exist_ok=True)
        shutil.copy(os.path.join(ROOT, "scripts/check_words.py"), self.folder + "/scripts")
        self.write(name, content)
        return run(os.path.join(self.folder, "scripts/check_words.py"))

    def assert_found(self, name, content, text):
        checked = self.check(name, content)
        self.assertEqual(checked.returncode, 1)
        self.assertIn(text, checked.stderr)

    def test_clean_file_passes(self):
        checked = self.check("a.cpp", "int a; // " + "x" * 90 + "\n")
        self.assertEqual(checked.returncode, 0, checked.stderr)

    def test_home_path_is_found(self):
        self.assert_found("a.md", "see /ho" + "me/someone/notes\n", "a.md:1: a path of one machine")

    def test_tail_of_a_path_is_no_home_path(self):
        self.assertEqual(self.check("a.cpp", 'folder + "/ho' + 'me/client"\n').returncode, 0)

    def test_path_of_this_checkout_is_found(self):
        path = os.path.realpath(self.folder) + "/build\n"
        self.assert_found("a.txt", path, "a path of one machine")

    def test_open_note_is_found(self):
        self.assert_found("a.h", "\n// FIX" + "ME later\n", "a.h:2: an open note")

    def test_template_of_a_temporary_name_is_no_open_note(self):
        self.assertEqual(self.check("a.h", '"/log.XXXXXX"\n').returncode, 0)

    def test_tab_is_found(self):
        self.assert_found("a.h", "\tint a;\n", "a tab")

    def test_trailing_blank_is_found(self):
        self.assert_found("a.md", "text \n", "trailing blanks")

    def test_foreign_line_end_is_found(self):
        self.assert_found("a.md", "text\r\n", "a CR line end")

    def test_long_source_line_is_found(self):
        self.assert_found("CMakeLists.txt", "#" + "x" * 100 + "\n", "101 columns")

    def test_long_line_of_a_here_document_passes(self):
        text = "cat <<'END'\n" + "x" * 200 + "\nEND\n"
        self.assertEqual(self.check("a.sh", text).returncode, 0)
        self.assert_found("b.sh", text + "y" * 101 + "\n", "b.sh:4: 101 columns")

    def test_long_line_of_data_passes(self):
        self.assertEqual(self.check("a.txt", "x" * 200 + "\n").returncode, 0)

    def test_missing_last_newline_is_found(self):
        self.assert_found("a.py", "a = 1", "no newline at the end")


class Setup(WithFolder):
    """scripts/setup.sh with stand-ins for the package tools, which write down what is asked."""

    def setup(self, missing, *groups):
        tools = {
            "dpkg-query": f'for name; do :; done\n[ "$name" != "{missing}" ] && echo installed\n',
            "apt-get": 'echo "$@" >>"$LOG"\n',
            "sudo": 'while [ "${1#-}" != "$1" ]; do shift; done\nexec "$@"\n',
        }
        for name, body in tools.items():
            os.chmod(self.write(f"bin/{name}", "#!/bin/sh\n" + body), 0o755)
        log = self.write("log", "")
        path = os.path.join(self.folder, "bin") + ":" + os.environ["PATH"]
        done = subprocess.run(
            [os.path.join(ROOT, "scripts/setup.sh"), *groups],
            capture_output=True, text=True, stdin=subprocess.DEVNULL,
            env=dict(os.environ, PATH=path, LOG=log),
        )
        with open(log, encoding="ascii") as file:
            return done, file.read().splitlines()

    def test_nothing_is_asked_or_said_when_all_is_there(self):
        done, asked = self.setup("", "test", "bench")
        self.assertEqual((done.returncode, done.stdout, done.stderr, asked), (0, "", "", []))

    def test_only_what_is_missing_is_installed(self):
        done, asked = self.setup("ninja-build")
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertEqual(len(asked), 2)
        self.assertTrue(asked[0].endswith(" update"), asked)
        self.assertTrue(asked[1].endswith("--no-install-recommends ninja-build"), asked)

    def test_groups_that_were_not_named_are_left_alone(self):
        done, asked = self.setup("libffi-dev", "test")
        self.assertEqual((done.returncode, asked), (0, []))

    def test_unknown_group_is_wrong_usage(self):
        done, asked = self.setup("", "nonsense")
        self.assertEqual((done.returncode, asked), (2, []))


if __name__ == "__main__":
    unittest.main()
