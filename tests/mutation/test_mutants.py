"""What scripts/mutate draws from: each kind of mutant, and what must never be touched."""
import pathlib
import sys
import tempfile
import unittest

HERE = pathlib.Path(__file__).resolve().parent
sys.path[:0] = [str(HERE), str(HERE.parent / "style")]
from cpp_tokens import tokens_of  # noqa: E402  pylint: disable=wrong-import-position
from mutants import mutants_of  # noqa: E402  pylint: disable=wrong-import-position

CLANG = sys.argv.pop(1)


def changed(source):
    """The text of every mutant."""
    with tempfile.NamedTemporaryFile(suffix=".cpp") as file:
        file.write(source.encode())
        file.flush()
        tokens = list(tokens_of(CLANG, [file.name]))
    return [mutant.applied(source.encode()).decode() for mutant in mutants_of(source.encode(), tokens)]


class Mutants(unittest.TestCase):
    def expect_among(self, source, *wanted):
        self.assertLessEqual(set(wanted), set(changed(source)))

    def test_comparison_loses_or_gains_its_bound(self):
        self.expect_among("bool f(int a) { return a < b; }", "bool f(int a) { return a <= b; }")

    def test_operator_becomes_its_opposite(self):
        self.expect_among("int f() { return a + b; }", "int f() { return a - b; }")

    def test_constant_is_off_by_one_both_ways_in_its_own_base(self):
        self.assertEqual(set(changed("int a = 0x1f;")), {"int a = 0x20;", "int a = 0x1e;"})
        self.assertEqual(set(changed("int a = 0755;")), {"int a = 0756;", "int a = 0754;"})
        self.assertEqual(set(changed("auto a = 0U;")), {"auto a = 1U;"})

    def test_condition_is_negated_without_what_it_names(self):
        self.expect_among("void f() { if (auto a = g(); a.h(b)) { c(); } }",
                          "void f() { if (auto a = g(); !(a.h(b))) { c(); } }")

    def test_statement_is_removed_with_the_lambda_in_it(self):
        self.expect_among("void f() { g([] { h(); }); i(); }", "void f() { ; i(); }", "void f() { g([] { h(); }); ; }",
                          "void f() { g([] { ; }); i(); }")

    def test_declaration_goes_only_where_its_name_is_not_used(self):
        texts = changed("void f() { const Guard guard; int a = g(); h(a); }")
        self.assertIn("void f() { ; int a = g(); h(a); }", texts)
        self.assertNotIn("void f() { const Guard guard; ; h(a); }", texts)

    def test_arguments_are_swapped_in_calls_only(self):
        self.assertIn("int f(int a, int b) { return g(b, a); }", changed("int f(int a, int b) { return g(a, b); }"))
        self.assertNotIn("int f(int b, int a) { return g(a, b); }", changed("int f(int a, int b) { return g(a, b); }"))
        self.assertEqual(changed("void f(char a, char b);"), [])

    def test_function_returns_early(self):
        self.expect_among("void f() { g(); }", "void f() { return; g(); }")
        self.expect_among("int f() { g(); return a; }", "int f() { return {}; g(); return a; }")

    def test_brackets_of_templates_and_references_are_no_operators(self):
        self.assertEqual(changed("std::map<int, char*> f(const A& a, B* b);"), [])

    def test_comments_texts_and_directives_stay(self):
        self.assertEqual(changed('#if A == 1\n// 1 + 1 == 2\n#endif\nconst char* a = "1 < 2 && 3";\n'), [])

    def test_bytes_that_are_no_ascii_shift_nothing(self):
        self.expect_among('// ü\nconst char* a = "ä"; int b = 1;', '// ü\nconst char* a = "ä"; int b = 2;')


if __name__ == "__main__":
    unittest.main()
