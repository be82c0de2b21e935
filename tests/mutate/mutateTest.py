#!/usr/bin/env python3
"""Holds ./dev mutate to what it promises, on a library of a few functions.

usage: mutateTest.py SOURCE_DIRECTORY
"""

import functools
import importlib.machinery
import importlib.util
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import types
import unittest
from unittest import mock

ROOT = pathlib.Path(sys.argv.pop(1)).resolve()
SAMPLE = ROOT / "tests/mutate/sample"
sys.path.insert(0, str(ROOT / "scripts"))
sys.dont_write_bytecode = True

import accepted  # noqa: E402
import mutations  # noqa: E402
import schemata  # noqa: E402


def loaded(name):
    """A script without an ending as a module."""
    loader = importlib.machinery.SourceFileLoader(name, str(ROOT / "scripts" / name))
    module = importlib.util.module_from_spec(importlib.util.spec_from_loader(name, loader))
    sys.modules[name] = module
    loader.exec_module(module)
    return module


mutate = loaded("mutate")


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


def places_of(source):
    found = mutations.mutations(source)
    return found, accepted.Places(source, found, mutations.tokens(source))


def shown_in(source):
    """How the list names each place of the source."""
    found, places = places_of(source)
    return [places.shown(mutation) for mutation in found]


class NamesPlaces(unittest.TestCase):
    """What the list of reasons calls a place."""

    def functions_in(self, source):
        return [shown.split(" | ")[0] for shown in shown_in(source)]

    def test_by_the_function_that_it_stands_in(self):
        source = "namespace n {\nint f() { g(1); }\nbool C::f(int a = 2) const { h(3); }\n}"
        self.assertEqual(["f", "f", "C::f", "C::f", "C::f"], self.functions_in(source))

    def test_by_operators_and_destructors(self):
        source = "bool C::operator==(int a) { h(3); }\nC::~C() { f(); }\n"
        self.assertEqual(["C::operator==", "C::operator==", "C::~C"], self.functions_in(source))
        self.assertEqual(["C::operator()"], self.functions_in("int C::operator()(int a) { f(); }"))

    def test_by_the_constructor_whose_member_it_initialises(self):
        source = "C::C() : D(1), a_{2}, b_(3) { f(); }\nvoid g() { h(); }"
        self.assertEqual(["C::C"] * 4 + ["g"], self.functions_in(source))

    def test_by_constants_and_members(self):
        source = "const int k = int{1} + 2;\nint a[] = {3, 4};\nstruct S {\n  int m = 5;\n};\n"
        self.assertEqual(["k"] * 3 + ["a"] * 2 + ["S::m"], self.functions_in(source))

    def test_by_a_function_of_a_class(self):
        source = "class C final : public D {\n  int m_ = 0;\n  void f() { g(); }\n};\nint k = 1;"
        self.assertEqual(["C::m_", "C::f", "k"], self.functions_in(source))

    def test_with_a_number_where_several_would_answer(self):
        self.assertEqual(
            [f"f | void f() {{ g(1, 1); }} | {broken}"
             for broken in ("without g(1, 1);", "1 -> 2 #1", "1 -> 2 #2")],
            shown_in("void f() { g(1, 1); }"))


class Reasons(unittest.TestCase):
    """What an entry of the list excuses."""

    SOURCE = "void f() {\n  g(0);\n  g(0);\n}\nvoid h() {\n  g(0);\n  g(2, 2);\n}\n"

    def excused(self, line):
        """The line and column of what the entry excuses."""
        with tempfile.TemporaryDirectory() as directory:
            path = pathlib.Path(directory) / "accepted.txt"
            path.write_text(f"# A remark.\n\n{line}\n")
            (entry,) = accepted.entries_of(path)
        _, places = places_of(self.SOURCE)
        self.several = entry.several(places)
        return [(mutation.line, mutation.column) for mutation in entry.mutations_of(places)]

    def test_it_excuses_nothing_of_another_function_that_reads_the_same(self):
        self.assertEqual([(6, 5)], self.excused("a.cpp | h | g(0); | 0 -> 1 | why"))

    def test_it_excuses_nothing_when_several_places_answer_to_it(self):
        self.assertEqual([], self.excused("a.cpp | f | g(0); | 0 -> 1 | why"))
        self.assertEqual(2, self.several)
        self.assertEqual([], self.excused("a.cpp | f | g(0); | * | why"))
        self.assertEqual(2, self.several)

    def test_a_number_says_which(self):
        self.assertEqual([(3, 5)], self.excused("a.cpp | f | g(0); | 0 -> 1 #2 | why"))
        self.assertEqual([(7, 8)], self.excused("a.cpp | h | g(2, 2); | 2 -> 3 #2 | why"))
        self.assertEqual(0, self.several)
        self.assertEqual([], self.excused("a.cpp | f | g(0); | 0 -> 1 #3 | why"))

    def test_a_star_excuses_whatever_is_broken_in_one_line(self):
        self.assertEqual([(6, 3), (6, 5)], self.excused("a.cpp | h | g(0); | * | why"))
        self.assertEqual([(2, 3), (2, 5)], self.excused("a.cpp | f | g(0); | * #1 | why"))

    def test_an_entry_without_a_reason_or_a_function_is_refused(self):
        for line in ("a.cpp | f | g(0); | 0 -> 1 | ", "a.cpp | g(0); | 0 -> 1 | why"):
            with self.assertRaises(accepted.WrongList):
                self.excused(line)


class Orders(unittest.TestCase):
    """In which groups the tests are run."""

    def test_each_test_is_run_once(self):
        tests = [mutate.Test("program", name, 0.01, 0.01) for name in ("a", "b", "c")]
        order = mutate.Order(types.SimpleNamespace(start_work=lambda program: 0.01), 30)
        order.learn(tests[1])
        groups = list(order.groups(tests, first=tests[1]))
        self.assertEqual("b", groups[0][0].name)
        self.assertEqual(["a", "b", "c"], sorted(test.name for group in groups for test in group))


class Attempts(unittest.TestCase):
    """What is tried again because the machine may have kept it from running."""

    LIMIT, WORK = 10, 2

    def attempts(self, *outcomes):
        """What is said of a command whose attempts end so, and how long each of them might take."""
        with mock.patch.object(mutate, "run", side_effect=outcomes) as run:
            said = mutate.run_again_if_paused(["command"], self.LIMIT, self.WORK)
        return said, [call.args[1] for call in run.call_args_list]

    def test_a_command_that_could_not_run_gets_more_time(self):
        said, limits = self.attempts((None, 0.1), (0, 1.5))
        self.assertEqual((0, 1.5), said)
        self.assertEqual([self.LIMIT, mutate.AGAIN * self.LIMIT], limits)

    def test_a_command_that_waits_for_ever_gets_it_once(self):
        said, limits = self.attempts((None, 0.1), (None, 0.1))
        self.assertEqual((None, 0.1), said)
        self.assertEqual(2, len(limits))

    def test_a_command_that_worked_all_the_time_gets_none(self):
        self.assertEqual(((None, 2.5), [self.LIMIT]), self.attempts((None, 2.5)))

    def test_a_command_that_ended_gets_none(self):
        for status in (0, 1, -24):
            self.assertEqual(((status, 0.1), [self.LIMIT]), self.attempts((status, 0.1)))

    def test_only_the_second_attempt_is_heard(self):
        outcomes = iter([(b"one", (None, 0.1)), (b"2", (0, 0.1))])

        def run(_command, _limit, _work, output):
            said, outcome = next(outcomes)
            output.write(said)
            return outcome

        with tempfile.TemporaryFile() as output, mock.patch.object(mutate, "run", run):
            mutate.run_again_if_paused(["command"], self.LIMIT, self.WORK, output)
            output.seek(0)
            self.assertEqual(b"2", output.read())


class Guards(unittest.TestCase):
    """Behind its number a mutation does what it does when it is made by itself."""

    @classmethod
    def setUpClass(cls):
        cls.directory = tempfile.TemporaryDirectory(prefix="krucomm-schema.")
        cls.source = (SAMPLE / "kinds.cpp").read_text()
        cls.schema = schemata.Schema(cls.source, 1)
        while True:
            done = cls.compile(cls.schema.text(), "-fsyntax-only")
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
        """A program that holds the text and does this; a tenth of a second of work ends it."""
        begin = """
#include <sys/time.h>
#include <cstdio>
#include <cstdlib>
int main(int, char** arguments) {
  const itimerval limit{{0, 0}, {0, 100000}};
  if (setitimer(ITIMER_PROF, &limit, nullptr) != 0) return 1;
"""
        done = cls.compile(f"{text}\n{begin}{body}\n}}\n", cls.path("mutants.so"))
        if done.returncode != 0:
            raise AssertionError(done.stderr)

    @classmethod
    def said_by(cls, *arguments, **environment):
        """What the program prints; nothing when a mutation keeps it from coming to its end."""
        done = subprocess.run([cls.path("kinds"), *arguments], capture_output=True, text=True,
                              env=os.environ | environment)
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


def run_quietly(*command):
    subprocess.run(command, check=True, stdout=subprocess.DEVNULL)


class Sample:
    """A copy of the sample library, built, and what the tool says of it."""

    # Of the tests one never ends; more than this would only be spent on waiting for it.
    SLOWEST = "0.5"

    def __init__(self):
        directory = tempfile.TemporaryDirectory(prefix="krucomm-mutate.")
        unittest.addModuleCleanup(directory.cleanup)
        self.root = pathlib.Path(directory.name) / "sample"
        self.build = pathlib.Path(directory.name) / "build"
        shutil.copytree(SAMPLE, self.root)
        run_quietly("cmake", "-G", "Ninja", "-S", self.root, "-B", self.build)
        run_quietly("ninja", "-C", self.build)
        self.accepted = self.build / "accepted.txt"
        self.accepted.write_text(
            "sample.cpp | limited | if (value > 9) return 9; | > -> >= | 9 is limited to 9\n"
            "sample.cpp | anyBit | int anyBit(int value) { return (value & 1) ¦ 4; } | * | any\n"
            "sample.cpp | limited | return value; | 1 -> 2 | it was there once\n"
            "sample.cpp | kept | int result = 0; | 0 -> 1 | it is written before it is read\n"
            "sample.cpp | summed | return value + result + result; | + -> - | says not which\n"
        )
        self.done = self.mutate()
        self.output = self.done.stdout + self.done.stderr
        self.results = self.build / "results/sample.cpp.jsonl"
        self.found_out = self.results.read_text().splitlines(keepends=True)

    def mutate(self, *options):
        return subprocess.run(
            [ROOT / "scripts/mutate", "-j", "2", "--slowest", self.SLOWEST, "--patience", "1",
             "--accepted", self.accepted, "--root", self.root, *options, self.build,
             self.root / "sample.cpp"],
            capture_output=True, text=True,
        )  # fmt: skip


@functools.cache
def sample():
    return Sample()


class Runs(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.output = sample().output

    def test_what_no_test_notices_is_listed_and_fails_the_run(self):
        self.assertIn("sample.cpp:6:37: no test notices: + -> -", self.output)
        self.assertEqual(1, sample().done.returncode, self.output)

    def test_what_is_listed_is_named_as_the_list_of_reasons_names_it(self):
        self.assertIn("\n    sample.cpp | summed | int result = 0; | 0 -> 1\n", self.output)

    def test_what_no_test_runs_is_listed(self):
        self.assertIn("sample.cpp:14:28: no test runs: 5 -> 6", self.output)

    def test_what_a_test_notices_is_not_listed(self):
        self.assertNotIn("> -> <=", self.output)
        self.assertNotIn("9 -> 10", self.output)

    def test_a_hang_is_noticed(self):
        self.assertNotIn("without done = true;", self.output)

    def test_what_has_a_reason_is_not_listed(self):
        self.assertNotIn("> -> >=", self.output)
        self.assertNotIn("sample.cpp | kept |", self.output)

    def test_one_reason_can_do_for_a_line(self):
        self.assertNotIn("return (value & 1)", self.output)

    def test_a_reason_for_nothing_is_listed(self):
        self.assertIn(
            "no such survivor: sample.cpp | limited | return value; | 1 -> 2\n", self.output)

    def test_a_reason_that_does_not_say_for_which_place_is_listed_and_excuses_none(self):
        self.assertIn("names 2 places, #1 to #2: sample.cpp | summed |", self.output)
        for number in (1, 2):
            self.assertIn(f"| return value + result + result; | + -> - #{number}\n", self.output)

    def test_a_slow_program_is_left_out_aloud(self):
        self.assertIn("left out, slower than 0.5 s: sample_slow_test", self.output)

    def test_the_sums_add_up(self):
        self.assertRegex(
            self.output,
            r"sample.cpp: 7 noticed, 11 not, 1 where no test runs \(6 with a reason\), 0 do")
        self.assertIn("8 to be looked at", self.output)


class GoesOn(unittest.TestCase):
    def setUp(self):
        sample().results.write_text("".join(sample().found_out))

    def test_an_interrupted_run_goes_on_where_it_was(self):
        kept = sample().found_out[:4]
        sample().results.write_text("".join(kept) + sample().found_out[4][:20])
        again = sample().mutate()
        self.assertEqual(self.without_times(sample().output), self.without_times(again.stdout))
        found_out = sample().results.read_text().splitlines(keepends=True)
        self.assertEqual(sorted(kept), found_out[:4])
        self.assertEqual(19, len(found_out))

    def test_a_new_test_is_tried_on_what_nobody_noticed(self):
        test = sample().root / "sampleTest.cpp"
        old = test.read_text()
        test.write_text(old.replace("twice(0) == 0", "twice(1) == 2"))
        run_quietly("ninja", "-C", sample().build)
        self.assertNotIn("sample.cpp:6:37", sample().mutate().stdout)
        test.write_text(old)
        run_quietly("ninja", "-C", sample().build)
        self.assertIn("sample.cpp:6:37", sample().mutate().stdout)

    @unittest.skipUnless(shutil.which("git"), "git compares with the revision")
    def test_since_a_revision_only_changed_lines_are_broken(self):
        git = ["git", "-C", sample().root, "-c", "user.name=n", "-c", "user.email=e"]
        run_quietly(*git, "init", "--quiet", "--initial-branch=main")
        run_quietly(*git, "commit", "--allow-empty", "-m", "nothing")
        self.assertIn(": 7 noticed, 11 not,", sample().mutate("--since", "HEAD").stdout)
        run_quietly(*git, "add", ".")
        run_quietly(*git, "commit", "-m", "all")
        self.assertIn(": 0 noticed, 0 not,", sample().mutate("--since", "HEAD").stdout)
        source = sample().root / "sample.cpp"
        old = source.read_text()
        self.addCleanup(source.write_text, old)
        source.write_text(old.replace("value > 9", "value > (9)"))
        run_quietly("ninja", "-C", sample().build)
        output = sample().mutate("--since", "HEAD").stdout
        self.assertRegex(output, r"sample.cpp: [1-9]\d* noticed, \d+ not, 0 where no test runs")
        self.assertNotIn("sample.cpp:6:", output)
        self.assertIn("git knows no revision", sample().mutate("--since", "none").stderr)

    @staticmethod
    def without_times(output):
        return re.sub(r"\d+ s$", "", output, flags=re.MULTILINE)


if __name__ == "__main__":
    unittest.main()
