"""What the loader says about a configuration file, by `-t`. No network takes part."""
from kit import LabTest, main
from scenes import error, one_uplink, warning

BRACKETS = warning("Malformed configuration file: brackets")
MISMATCH = warning("Configuration error due to mismatched brackets")


class Messages(LabTest):
    def messages(self, text):
        self.lab.run_daemon("-t", "-f", self.lab.write_conf(text)).wait()
        return self.lab.log.texts()

    def assert_said(self, text, *expected):
        self.assertEqual(self.messages(text), list(expected))

    def test_nothing_about_a_good_file(self):
        self.assert_said(one_uplink())

    def test_nothing_about_an_empty_file(self):
        self.assert_said("")

    def test_nothing_about_tabs_comments_and_unknown_words(self):
        self.assert_said("# nothing\nhealth { # opens\n\tinterface gi1_1 {\n\t\twhatever 1\n\t}\n}\n")

    def test_nothing_about_cr_line_ends(self):
        self.assert_said(one_uplink().text().replace("\n", "\r\n"))

    def test_missing_bracket(self):
        self.assert_said("health {\n", MISMATCH)

    def test_one_closing_bracket_too_many_ends_the_load(self):
        self.assert_said("}\nrule 0 {\n}\n", BRACKETS)

    def test_31_openings_are_accepted_and_32_are_not(self):
        self.assert_said("{\n" * 31 + "}\n" * 31)
        self.assert_said("{\n" * 32 + "}\n" * 32, BRACKETS)

    def test_many_brackets_on_one_line_do_no_harm(self):
        self.assert_said("{ " * 400 + "word\n", BRACKETS)

    def test_many_closing_brackets_on_one_line_do_no_harm(self):
        self.assert_said("} " * 400 + "word\n", BRACKETS)

    def test_illegal_success_ct(self):
        self.assert_said(one_uplink(success=0), error(
            "wan_lb: illegal success-ct specified in configuration file: 0"))

    def test_illegal_failure_ct(self):
        self.assert_said(one_uplink(failure="many"), error(
            "wan_lb: illegal failure-ct specified in configuration file: many"))

    def test_illegal_weight(self):
        self.assert_said(one_uplink().text().replace("weight 1", "weight 0"), error(
            "wan_lb: illegal interface weight specified in configuration file: 0"))

    def test_illegal_rule_number(self):
        self.assert_said("rule 0_ipv4 {\n}\n", warning("Illegal rule number: 0_ipv4"))


if __name__ == "__main__":
    main()
