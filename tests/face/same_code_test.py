#!/usr/bin/env python3
"""The comparison of machine code finds what differs and lets pass what does not.

usage: same_code_test.py OBJDUMP INCLUDE_DIRECTORY COMPILER
"""
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

OBJDUMP, INCLUDE, COMPILER = sys.argv[1:4]
COMMON = """extern "C" {
int get(int*); int put(int*); [[noreturn]] void stop();
"""


class SameCode(unittest.TestCase):
    def compare(self, plain, face):
        with tempfile.TemporaryDirectory() as scratch:
            source = Path(scratch) / "pair.cpp"
            source.write_text(COMMON + plain + "\n" + face + "\n}\n")
            result = subprocess.run(
                [sys.executable, "-B", Path(__file__).with_name("same_code.py"), OBJDUMP, INCLUDE,
                 source, COMPILER], stdout=subprocess.PIPE, text=True)
        return result.returncode, result.stdout

    def same(self, plain, face):
        status, told = self.compare(plain, face)
        self.assertEqual((status, told.count("1 pairs, 0 differ")), (0, 2), told)

    def differ(self, plain, face, reason="differ"):
        status, told = self.compare(plain, face)
        self.assertEqual(status, 1, told)
        self.assertIn(reason, told)

    def test_the_same_text_is_the_same(self):
        body = "(int* a) { for (int i = get(a); i > 0; --i) put(a + i); return get(a); }"
        self.same("int plain_it" + body, "int face_it" + body)

    def test_another_way_to_write_it_is_the_same(self):
        self.same("int plain_it(int* a) { int* b = a; return get(b + 1); }",
                  "int face_it(int* a) { return get(&a[1]); }")

    def test_another_constant_differs(self):
        self.differ("int plain_it(int* a) { return get(a) + 1; }",
                    "int face_it(int* a) { return get(a) + 2; }")

    def test_another_function_called_differs(self):
        self.differ("int plain_it(int* a) { return get(a); }",
                    "int face_it(int* a) { return put(a); }")

    def test_one_call_more_at_the_end_differs(self):
        self.differ("void plain_it(int* a) { get(a); }", "void face_it(int* a) { get(a); put(a); }")

    def test_a_difference_in_the_cold_part_differs(self):
        self.differ("void plain_it(int* a) { if (get(a)) { get(a); stop(); } put(a); }",
                    "void face_it(int* a) { if (get(a)) { put(a); stop(); } put(a); }")

    def test_a_function_without_its_partner_fails(self):
        self.differ("int plain_it(int* a) { return get(a); }", "", "one of the pair is missing")
        self.differ("", "int face_it(int* a) { return get(a); }", "one of the pair is missing")

    def test_no_pair_at_all_fails(self):
        self.differ("", "", "0 pairs")


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
