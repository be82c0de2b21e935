#!/usr/bin/env python3
"""Holds checkTestNames.py to what it promises, on a document and a few tests.

usage: checkTestNamesTest.py
"""

import pathlib
import subprocess
import sys
import tempfile
import unittest

SCRIPT = pathlib.Path(__file__).with_name("checkTestNames.py")
TESTS = """
TEST(Kettle, WhistlesWhenItBoils) {}
TEST_F(Kettle, IsSilentBefore) {}
TEST_P(KettleLid, Rattles) {}
"""
# Fewer names than these would mean that the search for them is broken.
ENOUGH = 50


class TestNames(unittest.TestCase):
    def check(self, text):
        """What the script says of a document, empty when it finds nothing wrong."""
        with tempfile.TemporaryDirectory() as work:
            root = pathlib.Path(work)
            for room in ("docs", "tests"):
                (root / room).mkdir()
            (root / "tests/kettleTest.cpp").write_text(TESTS)
            (root / "README.md").write_text("`Kettle.IsSilentBefore`\n" * ENOUGH)
            (root / "tests/README.md").write_text("")
            (root / "docs/kettle.md").write_text(text)
            ended = subprocess.run(
                [sys.executable, SCRIPT, work], capture_output=True, text=True, check=False
            )
        return "" if ended.returncode == 0 else ended.stderr

    def test_names_of_tests_pass(self):
        for name in (
            "Kettle.WhistlesWhenItBoils",
            "Kettle.Whistles...",
            "Kettle.Whistles...Boils",
            "On/KettleLid.Rattles",
            "On/KettleLid.Rattles/3",
            "On/KettleLid...",
            "Kettle...",
            "Kettle...Before",
        ):
            with self.subTest(name):
                self.assertEqual(self.check(f"| it boils | `{name}` |\n"), "")

    def test_other_names_are_told(self):
        for name in (
            "Kettle.Whistles",
            "Kettle.Boils...",
            "Kettle.Whistles...Before",
            "Pan.WhistlesWhenItBoils",
            "On/Pan...",
            "Kettle...Hums",
        ):
            with self.subTest(name):
                said = self.check(f"| it boils | `{name}` |\n")
                self.assertIn(f"docs/kettle.md: `{name}`", said)

    def test_a_name_that_begins_with_dots_is_of_the_suite_before(self):
        for name in ("...IsSilentBefore", "...SilentBefore", "...IsSilent...", "...Silent..."):
            with self.subTest(name):
                self.assertEqual(self.check(f"`Kettle.Whistles...`,\n`{name}`\n"), "")
        for name in ("...Rattles", "...Silent", "...IsLoud..."):
            with self.subTest(name):
                self.assertIn(f"`{name}`", self.check(f"`Kettle.Whistles...`, `{name}`\n"))

    def test_a_row_takes_no_suite_from_the_one_before(self):
        said = self.check("| `Kettle.Whistles...` |\n| `...IsSilentBefore` |\n")
        self.assertIn("`...IsSilentBefore`", said)

    def test_what_is_no_name_of_a_test_is_passed_over(self):
        for text in ("`Kettle`", "`README.md`", "`KEY...`", '`u"..."`', "`./dev mutate FILE...`"):
            with self.subTest(text):
                self.assertEqual(self.check(text + "\n"), "")

    def test_a_file_that_is_not_there_is_told(self):
        self.assertEqual(self.check("`tests/kettleTest.cpp`\n"), "")
        self.assertIn("panTest.cpp", self.check("`tests/panTest.cpp`\n"))


if __name__ == "__main__":
    unittest.main()
