#!/usr/bin/python3
"""What hardening.py says of small programs, each built without one protection.

    test_hardening.py COMPILER
"""
import os
import subprocess
import sys
import tempfile
import unittest

import hardening

SOURCE = r"""
#include <cstdio>
int main(int count, char* words[]) {
    char text[64];
    std::snprintf(text, sizeof text, "%s", words[0]);
    return std::fprintf(stderr, "%s %d\n", text, count) < 0;
}
"""
OPTIONS = ("-g", "-pie", "-fPIE", "-D_FORTIFY_SOURCE=2", "-fstack-protector-strong", "-fstack-clash-protection",
           "-Wl,-z,relro", "-Wl,-z,now", "-Wl,-z,noexecstack")
COMPILER = "c++"


class Missing(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.program = os.path.join(folder.name, "program")

    def missing(self, *replaced):
        """What is missing in a program whose options are (old, new) replaced; an empty new one leaves it out."""
        swaps = dict(replaced)
        self.assertLessEqual(set(swaps), set(OPTIONS))
        options = [swaps.get(option, option) for option in OPTIONS]
        subprocess.run([COMPILER, "-x", "c++", "-O1", "-U_FORTIFY_SOURCE", *filter(None, options),
                        "-o", self.program, "-"], input=SOURCE, text=True, check=True, timeout=60)
        return hardening.missing(self.program)

    def test_nothing_in_a_protected_program(self):
        self.assertEqual(self.missing(), [])

    def test_fixed_address_is_found(self):
        self.assertEqual(self.missing(("-pie", "-no-pie"), ("-fPIE", "-fno-pie")), ["position-independent program"])

    def test_writable_relocations_are_found(self):
        self.assertEqual(self.missing(("-Wl,-z,relro", "-Wl,-z,norelro")), ["read-only relocations"])

    def test_late_binding_is_found(self):
        self.assertEqual(self.missing(("-Wl,-z,now", "-Wl,-z,lazy")), ["binding at the start"])

    def test_executable_stack_is_found(self):
        self.assertEqual(self.missing(("-Wl,-z,noexecstack", "-Wl,-z,execstack")), ["stack without execution"])

    def test_unprotected_stack_is_found(self):
        self.assertEqual(self.missing(("-fstack-protector-strong", "-fno-stack-protector")),
                         ["stack protector", "-fstack-protector-strong in 1 of 1 source files"])

    def test_protector_of_few_functions_is_found(self):
        self.assertEqual(self.missing(("-fstack-protector-strong", "-fstack-protector")),
                         ["-fstack-protector-strong in 1 of 1 source files"])

    def test_stack_that_can_be_jumped_over_is_found(self):
        self.assertEqual(self.missing(("-fstack-clash-protection", "")),
                         ["-fstack-clash-protection in 1 of 1 source files"])

    def test_program_without_notes_is_not_trusted(self):
        self.assertEqual(self.missing(("-g", "")), ["the compiler's notes: GCC writes them with -g"])

    def test_unguarded_calls_are_found(self):
        self.assertEqual(self.missing(("-D_FORTIFY_SOURCE=2", "")), ["guarded library calls"])

    def test_half_guarded_calls_are_found(self):
        self.assertEqual(self.missing(("-D_FORTIFY_SOURCE=2", "-D_FORTIFY_SOURCE=1")), ["guarded library calls"])


if __name__ == "__main__":
    if len(sys.argv) > 1:
        COMPILER = sys.argv.pop(1)
    unittest.main(verbosity=2)
