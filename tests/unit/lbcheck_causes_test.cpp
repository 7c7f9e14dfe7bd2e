// One cause, one message: what makes the loader misread everything behind it is told once, with its
// mend, and the rest of the file is judged as if it were mended.
#include <gtest/gtest.h>

#include <algorithm>

#include "lbcheck/findings.h"
#include "unit/support/loaded.h"

namespace {

const std::string good = R"(health {
    interface gi1_1 {
        success-ct 2
        failure-ct 2
        nexthop 192.0.2.1
        rule 1 {
            type ping {
                target 203.0.113.53
            }
        }
    }
    interface gi1_2 {
        success-ct 2
        failure-ct 2
        nexthop 198.51.100.1
        rule 1 {
            type ping {
                target 203.0.113.53
            }
        }
    }
}
rule 1_ipv4 {
    interface gi1_1 {
        weight 1
    }
    interface gi1_2 {
        weight 1
    }
    target {
        address 0.0.0.0/0
    }
}
)";

std::string replaced(std::string text, const std::string& what, const std::string& by) {
    for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += by.size()) {
        text.replace(at, what.size(), by);
    }
    return text;
}

std::string replaced_once(std::string text, const std::string& what, const std::string& by) {
    return text.replace(text.find(what), what.size(), by);
}

/// What is said of a file that is called F.
std::string said_of(const std::string& text) {
    const TemporaryFile file(text);
    return replaced(lbcheck::as_text("F", lbcheck::check(file.path()).findings), file.path(), "F");
}

TEST(Causes, good_file_has_none) {
    EXPECT_EQ(said_of(good), "F: 0 errors, 0 warnings\n");
}

TEST(Causes, byte_order_mark) {
    EXPECT_EQ(said_of("\xEF\xBB\xBF" + good),
              "F:1: error: begins with a byte-order mark, which the first word is not known with; "
              "mend: sed -i '1s/^\\xEF\\xBB\\xBF//' 'F'\nF: 1 error, 0 warnings\n");
}

TEST(Causes, bracket_too_many_and_one_too_few) {
    EXPECT_EQ(said_of("}\n" + good.substr(0, good.rfind('}'))),
              "F:1: error: '}': closes no block: one bracket too many\n"
              "F:24: error: 'rule 1_ipv4 {': this block does not end: '}' is missing before the "
              "end of the file\nF: 2 errors, 0 warnings\n");
}

TEST(Causes, brackets_that_nothing_explains_are_told_as_the_loader_tells_them) {
    EXPECT_EQ(said_of("}\n}\n}\nhealth {\n"),
              "F:1: error: '}': Malformed configuration file: brackets\nF: 1 error, 0 warnings\n");
}

TEST(Causes, wide_characters) {
    EXPECT_EQ(said_of("\xFF\xFEh"),
              "F:1: error: is written in UTF-16, of which nothing is understood; mend: iconv -f "
              "UTF-16 -t UTF-8 'F' >NEW\nF: 1 error, 0 warnings\n");
}

TEST(Causes, text_of_the_file_reaches_no_terminal_as_it_is) {
    const std::string said = said_of(replaced_once(good, "nexthop 192", "\033[2J 192"));
    EXPECT_NE(said.find("'?[2J 192.0.2.1': unknown keyword"), std::string::npos) << said;
}

TEST(Causes, carriage_returns) {
    EXPECT_EQ(said_of(replaced(good, "\n", "\r\n")),
              "F:1: error: 33 lines end in a carriage return: no bracket is seen there, and so no "
              "block; mend: sed -i 's/\\r$//' 'F'\nF: 1 error, 0 warnings\n");
}

TEST(Causes, bracket_that_sticks_to_a_word) {
    EXPECT_EQ(said_of(replaced(good, "interface gi1_1 {", "interface gi1_1{")),
              "F:2: error: 'interface gi1_1{': a bracket is a word of its own: put a blank before "
              "and behind it (also in line 24)\nF: 1 error, 0 warnings\n");
}

TEST(Causes, bracket_on_the_next_line) {
    EXPECT_EQ(said_of(replaced(good, "interface gi1_1 {", "interface gi1_1\n    {")),
              "F:3: error: 'interface gi1_1': the bracket that opens a block stands behind the "
              "block's name: on a line of its own it makes the loader miss the name (also in line "
              "26)\nF: 1 error, 0 warnings\n");
}

TEST(Causes, bracket_on_the_next_line_of_an_outermost_block_works) {
    const TemporaryFile file(replaced(good, "health {", "health\n{"));
    const lbcheck::Checked checked = lbcheck::check(file.path());
    EXPECT_TRUE(checked.findings.empty());
    EXPECT_EQ(checked.data.health.size(), 2U);
}

TEST(Causes, several_statements_in_a_line) {
    EXPECT_EQ(said_of(replaced(good, "target {\n        address 0.0.0.0/0\n    }",
                               "target { address 0.0.0.0/0 }")),
              "F:30: error: 'target { address 0.0.0.0/0 }': one statement a line: end the line "
              "behind '{', and give each '}' a line of its own\nF: 1 error, 0 warnings\n");
}

TEST(Causes, block_word_with_a_slip) {
    EXPECT_EQ(said_of(replaced(good, "health {", "Health {")),
              "F:1: error: 'Health {': unknown keyword: its block is not read; did you mean "
              "'health'?\nF: 1 error, 0 warnings\n");
}

TEST(Causes, block_that_nothing_resembles) {
    EXPECT_EQ(said_of("options {\n    colour {\n        red 1\n    }\n}\n" + good),
              "F:1: error: 'options {': unknown keyword: its block is not read, to line 5\n"
              "F: 1 error, 0 warnings\n");
}

TEST(Causes, keyword_with_a_slip_brings_no_second_finding) {
    EXPECT_EQ(said_of(replaced_once(good, "nexthop 192", "nexthpo 192")),
              "F:5: warning: 'nexthpo 192.0.2.1': unknown keyword: ignored; did you mean "
              "'nexthop'?\nF: 0 errors, 1 warning\n");
}

TEST(Causes, other_mistakes_are_told_beside_it) {
    EXPECT_EQ(said_of("\xEF\xBB\xBF" + replaced(good, "address 0.0.0.0/0", "address 10.1.2.3/8")),
              "F:1: error: begins with a byte-order mark, which the first word is not known with; "
              "mend: sed -i '1s/^\\xEF\\xBB\\xBF//' 'F'\n"
              "F:31: error: 'address 10.1.2.3/8': has bits set behind its length, for which a "
              "routing daemon refuses the whole fragment; write 10.0.0.0/8\n"
              "F: 2 errors, 0 warnings\n");
}

TEST(Causes, folder) {
    const auto findings = lbcheck::check("/tmp").findings;
    ASSERT_EQ(findings.size(), 1U);
    EXPECT_EQ(findings[0].message, "cannot be read: Is a directory: name a file in it");
}

/// The numbers of the lines that hold a closing bracket and nothing else.
std::vector<int> closing_lines() {
    std::vector<int> lines;
    int number = 1;
    std::string line;
    for (const char letter : good) {
        if (letter != '\n') {
            line += letter;
            continue;
        }
        if (line.find_first_not_of(' ') == line.find('}')) {
            lines.push_back(number);
        }
        ++number;
        line.clear();
    }
    return lines;
}

/// The file with a line left out, or repeated.
std::string with_line(int wanted, int times) {
    std::string text;
    int number = 1;
    for (std::size_t begin = 0; begin < good.size(); ++number) {
        const std::size_t end = good.find('\n', begin) + 1;
        for (int i = 0; i < (number == wanted ? times : 1); ++i) {
            text += good.substr(begin, end - begin);
        }
        begin = end;
    }
    return text;
}

/// The line that opens the block which this one closes, by the good file's own indentation.
int opening_line(int closing) {
    std::vector<int> open;
    int number = 1;
    for (const char letter : good) {
        if (letter == '{') {
            open.push_back(number);
        } else if (letter == '}' && number == closing) {
            return open.back();
        } else if (letter == '}') {
            open.pop_back();
        }
        number += letter == '\n' ? 1 : 0;
    }
    return 0;
}

TEST(Causes, each_missing_bracket_is_told_at_the_block_that_lacks_it) {
    for (const int closing : closing_lines()) {
        const TemporaryFile file(with_line(closing, 0));
        const auto findings = lbcheck::check(file.path()).findings;
        ASSERT_EQ(findings.size(), 1U) << closing;
        EXPECT_EQ(findings[0].line, opening_line(closing));
        EXPECT_NE(findings[0].message.find("this block does not end"), std::string::npos);
    }
    EXPECT_EQ(closing_lines().size(), 11U);
}

TEST(Causes, each_surplus_bracket_is_told_at_its_line) {
    for (const int closing : closing_lines()) {
        const TemporaryFile file(with_line(closing, 2));
        const auto findings = lbcheck::check(file.path()).findings;
        ASSERT_EQ(findings.size(), 1U) << closing;
        EXPECT_EQ(findings[0].line, closing + 1);
        EXPECT_EQ(findings[0].message, "closes no block: one bracket too many");
    }
}

/// The good file with the bracket at the end of that line taken out.
std::string without_opening(int wanted, bool is_flat) {
    std::string text;
    int number = 1;
    for (std::size_t begin = 0; begin < good.size(); ++number) {
        const std::size_t end = good.find('\n', begin) + 1;
        std::string line = good.substr(begin, end - begin);
        if (number == wanted) {
            line = replaced_once(line, " {", "");
        }
        text += is_flat ? line.substr(line.find_first_not_of(' ')) : line;
        begin = end;
    }
    return text;
}

TEST(Causes, each_missing_opening_bracket_is_told_at_its_line) {
    int tried = 0;
    for (const int closing : closing_lines()) {
        const int opening = opening_line(closing);
        for (const bool is_flat : {false, true}) {
            const TemporaryFile file(without_opening(opening, is_flat));
            const auto checked = lbcheck::check(file.path());
            ASSERT_EQ(checked.findings.size(), 1U) << opening << said_of(content_of(file.path()));
            EXPECT_EQ(checked.findings[0].line, opening);
            EXPECT_EQ(checked.findings[0].message, "'{' is missing at the end of this line");
            EXPECT_EQ(checked.findings[0].severity, lbcheck::Severity::error);
            ++tried;
        }
    }
    EXPECT_EQ(tried, 22);
}

TEST(Causes, block_that_neither_begins_nor_ends_is_told_with_both) {
    EXPECT_EQ(said_of(replaced(good, "target {\n        address 0.0.0.0/0\n    }",
                               "target\n        address 0.0.0.0/0")),
              "F:30: error: 'target': '{' is missing at the end of this line\n"
              "F:30: error: 'target {': this block does not end: '}' is missing before line 32\n"
              "F: 2 errors, 0 warnings\n");
}

TEST(Causes, line_without_a_block_of_its_own_and_nothing_inside_is_left_to_the_loader) {
    EXPECT_EQ(
        said_of(replaced_once(good, "rule 1_ipv4 {\n", "rule 1_ipv4 {\n    interface gi1_1\n")),
        "F:24: error: 'interface gi1_1': Illegal rule number: gi1_1\nF: 1 error, 0 warnings\n");
}

TEST(Causes, missing_bracket_without_indentation_is_found_by_the_keywords) {
    const TemporaryFile file(with_line(11, 0));
    std::string flat = content_of(file.path());
    while (flat.find("\n ") != std::string::npos) {
        flat = replaced(flat, "\n ", "\n");
    }
    EXPECT_EQ(said_of(flat),
              "F:2: error: 'interface gi1_1 {': this block does not end: '}' is missing before "
              "line 11\nF: 1 error, 0 warnings\n");
}

TEST(Causes, same_typo_ten_thousand_times_is_one_line) {
    std::string typos;
    for (int i = 0; i < 10'000; ++i) {
        typos += "        colour " + std::to_string(i) + "\n";
    }
    const std::string text =
        replaced_once(good, "        success-ct 2\n", "        success-ct 2\n" + typos);
    EXPECT_EQ(said_of(text),
              "F:4: warning: 'colour 0': unknown keyword: ignored (also in lines 5, 6, 7, 8, 9 and "
              "9994 more, the last in line 10003)\nF: 0 errors, 1 warning\n");
}

}  // namespace
