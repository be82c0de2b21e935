#!/usr/bin/env python3
"""Holds ./dev mutate to what it promises, on a library of four functions.

usage: mutateTest.py SOURCE_DIRECTORY
"""

import pathlib
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(sys.argv.pop(1)).resolve()
SAMPLE = ROOT / "tests/mutate/sample"
sys.path.insert(0, str(ROOT / "scripts"))
sys.dont_write_bytecode = True

import mutations  # noqa: E402


def found_in(source):
    return [mutation.describe() for mutation in mutations.mutations(source)]


class FindsPlaces(unittest.TestCase):
    def test_comparisons_and_their_borders(self):
        self.assertEqual(["< -> <=", "< -> >="], found_in("bool b(int x, int y) { return x < y; }"))

    def test_template_brackets_are_no_comparisons(self):
        self.assertEqual([], found_in("std::vector<int> f(const std::map<A, B>& m);"))

    def test_constants(self):
        self.assertEqual(["0x1F -> 0x20"], found_in("constexpr int k = 0x1F;"))
        self.assertEqual(["10u -> 11u"], found_in("constexpr unsigned k = 10u;"))
        self.assertEqual(["'a' -> 'X'"], found_in("constexpr char k = 'a';"))
        self.assertEqual(['u"\\r\\n" -> u"\\n"'], found_in('const Text k = u"\\r\\n";'))
        self.assertEqual(["true -> false"], found_in("constexpr bool k = true;"))

    def test_statements_of_bodies(self):
        self.assertEqual(["without f();"], found_in("void g() { f(); }"))
        self.assertEqual(["without f();"], found_in("void g() { if (h()) f(); }"))
        self.assertEqual(["without throw Broken();"], found_in("void g() { throw Broken(); }"))
        self.assertEqual(["without return;"], found_in("void g() { return; }"))

    def test_declarations_and_results_stay(self):
        self.assertEqual([], found_in("int g() { int x; const auto y = f(); return y; }"))
        self.assertEqual([], found_in("namespace n { int f(); }\nclass C { void g(); };"))

    def test_comments_and_directives_stay(self):
        self.assertEqual([], found_in('#include "a < b"\n// x == 1\n/* true */'))

    def test_one_place_at_a_time(self):
        source = "bool b() { return 1 == 1; }"
        changed = [mutation.apply(source) for mutation in mutations.mutations(source)]
        self.assertIn("bool b() { return 2 == 1; }", changed)
        self.assertIn("bool b() { return 1 == 2; }", changed)


class Runs(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.directory = tempfile.TemporaryDirectory(prefix="krucomm-mutate.")
        cls.build = pathlib.Path(cls.directory.name)
        for command in (["cmake", "-G", "Ninja", "-S", SAMPLE, "-B", cls.build],
                        ["ninja", "-C", cls.build]):
            subprocess.run(command, check=True, stdout=subprocess.DEVNULL)
        cls.accepted = cls.build / "accepted.txt"
        cls.accepted.write_text(
            "sample.cpp | if (value > 9) return 9; | > -> >= | 9 is limited to 9\n"
            "sample.cpp | return value; | 1 -> 2 | it was there once\n"
        )
        cls.done = subprocess.run(
            [ROOT / "scripts/mutate", "-j", "2", "--slowest", "2", "--patience", "1",
             "--accepted", cls.accepted, "--root", SAMPLE, cls.build, SAMPLE / "sample.cpp"],
            capture_output=True, text=True,
        )  # fmt: skip
        cls.output = cls.done.stdout + cls.done.stderr

    @classmethod
    def tearDownClass(cls):
        cls.directory.cleanup()

    def test_what_no_test_notices_is_listed_and_fails_the_run(self):
        self.assertIn("sample.cpp:6:37: no test notices: + -> -", self.output)
        self.assertEqual(1, self.done.returncode, self.output)

    def test_what_no_test_runs_is_listed(self):
        self.assertIn("sample.cpp:14:28: no test runs: 5 -> 6", self.output)

    def test_what_a_test_notices_is_not_listed(self):
        self.assertNotIn("> -> <=", self.output)
        self.assertNotIn("9 -> 10", self.output)

    def test_a_hang_is_noticed(self):
        self.assertNotIn("without done = true;", self.output)

    def test_what_has_a_reason_is_not_listed(self):
        self.assertNotIn("> -> >=", self.output)

    def test_a_reason_for_nothing_is_listed(self):
        self.assertIn("no such survivor: sample.cpp | return value; | 1 -> 2", self.output)

    def test_a_slow_program_is_left_out_aloud(self):
        self.assertIn("left out, slower than 2.0 s: sample_slow_test", self.output)

    def test_the_sums_add_up(self):
        self.assertRegex(self.output, "sample.cpp: 6 noticed, 3 not, 1 where no test runs, 0 do")
        self.assertIn("4 to be looked at", self.output)


if __name__ == "__main__":
    unittest.main()
