#!/usr/bin/env python3
"""Holds ./dev mutate to what it promises, on a library of four functions.

usage: mutateTest.py SOURCE_DIRECTORY
"""

import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(sys.argv.pop(1)).resolve()
SAMPLE = ROOT / "tests/mutate/sample"
sys.path.insert(0, str(ROOT / "scripts"))
sys.dont_write_bytecode = True

import mutations  # noqa: E402
import schemata  # noqa: E402


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


class Bodies(unittest.TestCase):
    def test_whoever_runs_a_function_may_come_by_a_label_of_its_switch(self):
        source = "int f(int a) { switch (a) { case 1: return 2; default: return 3; } }"
        schema = schemata.Schema(source, 1)
        label = next(mutation for mutation in schema.mutations if mutation.old == "1")
        begin, _ = schema.body_of(label)
        self.assertEqual(source.index("{"), schema.found[begin].start)


class Guards(unittest.TestCase):
    """Behind its number a mutation does what it does when it is made by itself."""

    @classmethod
    def setUpClass(cls):
        cls.directory = tempfile.TemporaryDirectory(prefix="krucomm-schema.")
        cls.source = (SAMPLE / "kinds.cpp").read_text()
        cls.schema = schemata.Schema(cls.source, 1)
        while True:
            done = cls.compile(cls.schema.text(), "-c")
            if done.returncode == 0:
                break
            refused = schemata.refused(done.stderr, str(cls.path("kinds.cpp")))
            if not cls.schema.refuse(*refused):
                raise AssertionError(done.stderr)
        subprocess.run(
            ["c++", "-shared", "-fPIC", f"-DKRUCOMM_MUTANTS={cls.schema.count + 1}",
             ROOT / "scripts/mutants.cpp", "-o", cls.path("mutants.so")], check=True)
        cls.build(cls.schema.text(), 'std::printf("%u", answer());')
        reached = cls.path("reached")
        reached.write_bytes(bytes(cls.schema.count + 1))
        cls.answer = cls.said_by(KRUCOMM_REACHED=str(reached))
        seen = reached.read_bytes()
        number = cls.schema.number
        cls.reached = [m for m in cls.schema.mutations if seen[number[m]] == 1]
        cls.together = [cls.said_by(KRUCOMM_MUTANT=str(number[m])) for m in cls.reached]

    @classmethod
    def tearDownClass(cls):
        cls.directory.cleanup()

    @classmethod
    def path(cls, name):
        return pathlib.Path(cls.directory.name) / name

    @classmethod
    def compile(cls, text, *options):
        cls.path("kinds.cpp").write_text(text)
        return subprocess.run(
            ["c++", "-std=c++20", "-w", "-include", ROOT / "scripts/mutants.h",
             cls.path("kinds.cpp"), *options, "-o", cls.path("kinds")],
            capture_output=True, text=True,
        )  # fmt: skip

    @classmethod
    def build(cls, text, body):
        """A program that holds the text and does this."""
        begin = "#include <cstdio>\n#include <cstdlib>\nint main(int, char** arguments) {\n"
        done = cls.compile(f"{text}\n{begin}{body}\n}}\n", cls.path("mutants.so"))
        if done.returncode != 0:
            raise AssertionError(done.stderr)

    @classmethod
    def said_by(cls, *arguments, **environment):
        """What the program prints; nothing when a mutation keeps it from coming to its end."""
        command = ["sh", "-c", 'ulimit -t 1; exec "$@"', "sh", cls.path("kinds"), *arguments]
        done = subprocess.run(
            command, capture_output=True, text=True, env=os.environ | environment)
        return done.stdout if done.returncode == 0 else ""

    def test_each_guarded_mutation_answers_as_the_changed_source(self):
        texts = [mutation.apply(self.source) for mutation in self.reached]
        spaces = [f"namespace alone{i} {{\n{text}\n}}" for i, text in enumerate(texts)]
        answers = ", ".join(f"alone{i}::answer" for i in range(len(texts)))
        self.build("\n".join(spaces), f"""
  unsigned (*const answers[])() = {{{answers}}};
  std::printf("%u", answers[std::atoi(arguments[1])]());
""")
        alone = [self.said_by(str(i)) for i in range(len(texts))]
        for mutation, one, other in zip(self.reached, self.together, alone):
            self.assertEqual(other, one, f"{mutation.line}: {mutation.describe()}")

    def test_each_guarded_mutation_of_the_sample_changes_the_answer(self):
        for mutation, answer in zip(self.reached, self.together):
            self.assertNotEqual(self.answer, answer, f"{mutation.line}: {mutation.describe()}")

    def test_what_only_the_compiler_computes_or_cannot_be_is_not_reached(self):
        others = [m.describe() for m in self.schema.mutations if m not in self.reached]
        self.assertEqual(
            ['"\\0abcX" -> "abcX"', "1 -> 2", "1 -> 2", "2 -> 3", "+= -> -=", "++ -> --"], others)


class Sample(unittest.TestCase):
    """A copy of the sample library, built, and what the tool says of it."""

    @classmethod
    def setUpClass(cls):
        cls.directory = tempfile.TemporaryDirectory(prefix="krucomm-mutate.")
        cls.root = pathlib.Path(cls.directory.name) / "sample"
        cls.build = pathlib.Path(cls.directory.name) / "build"
        shutil.copytree(SAMPLE, cls.root)
        cls.run_quietly("cmake", "-G", "Ninja", "-S", cls.root, "-B", cls.build)
        cls.run_quietly("ninja", "-C", cls.build)
        cls.accepted = cls.build / "accepted.txt"
        cls.accepted.write_text(
            "sample.cpp | if (value > 9) return 9; | > -> >= | 9 is limited to 9\n"
            "sample.cpp | int anyBit(int value) { return (value & 1) ¦ 4; } | * | any will do\n"
            "sample.cpp | return value; | 1 -> 2 | it was there once\n"
        )
        cls.done = cls.mutate()
        cls.output = cls.done.stdout + cls.done.stderr

    @classmethod
    def tearDownClass(cls):
        cls.directory.cleanup()

    @staticmethod
    def run_quietly(*command):
        subprocess.run(command, check=True, stdout=subprocess.DEVNULL)

    @classmethod
    def mutate(cls):
        return subprocess.run(
            [ROOT / "scripts/mutate", "-j", "2", "--slowest", "2", "--patience", "1",
             "--accepted", cls.accepted, "--root", cls.root, cls.build, cls.root / "sample.cpp"],
            capture_output=True, text=True,
        )  # fmt: skip


class Runs(Sample):
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

    def test_one_reason_can_do_for_a_line(self):
        self.assertNotIn("return (value & 1)", self.output)

    def test_a_reason_for_nothing_is_listed(self):
        self.assertIn("no such survivor: sample.cpp | return value; | 1 -> 2", self.output)

    def test_a_slow_program_is_left_out_aloud(self):
        self.assertIn("left out, slower than 2.0 s: sample_slow_test", self.output)

    def test_the_sums_add_up(self):
        self.assertRegex(
            self.output,
            r"sample.cpp: 6 noticed, 7 not, 1 where no test runs \(5 with a reason\), 0 do")
        self.assertIn("4 to be looked at", self.output)


class GoesOn(Sample):
    def setUp(self):
        self.results = self.build / "results/sample.cpp.jsonl"
        self.results.unlink()
        self.mutate()
        self.found_out = self.results.read_text().splitlines(keepends=True)

    def test_an_interrupted_run_goes_on_where_it_was(self):
        self.results.write_text("".join(self.found_out[:4]) + self.found_out[4][:20])
        again = self.mutate()
        self.assertEqual(self.without_times(self.output), self.without_times(again.stdout))
        found_out = self.results.read_text().splitlines(keepends=True)
        self.assertEqual(sorted(self.found_out[:4]), found_out[:4])
        self.assertEqual(14, len(found_out))

    def test_a_new_test_is_tried_on_what_nobody_noticed(self):
        test = self.root / "sampleTest.cpp"
        old = test.read_text()
        test.write_text(old.replace("twice(0) == 0", "twice(1) == 2"))
        self.run_quietly("ninja", "-C", self.build)
        self.assertNotIn("sample.cpp:6:37", self.mutate().stdout)
        test.write_text(old)
        self.run_quietly("ninja", "-C", self.build)
        self.assertIn("sample.cpp:6:37", self.mutate().stdout)

    @staticmethod
    def without_times(output):
        return re.sub(r"\d+ s$", "", output, flags=re.MULTILINE)


if __name__ == "__main__":
    unittest.main()
