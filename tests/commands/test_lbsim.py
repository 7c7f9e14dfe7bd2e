#!/usr/bin/python3
"""The command lbsim: what it accepts, how it ends, and that two runs of it print the same bytes.

    test_lbsim.py PROJECT LBSIM
"""
import json
import pathlib
import sqlite3
import sys
import unittest
import xml.etree.ElementTree

from command import PROJECT, CommandLine

CONF = str(PROJECT / "examples/two-providers-3-to-1.conf")


class Lbsim(CommandLine):
    patience_s = 200  # under a sanitizer

    def test_every_example_is_simulated_and_says_what_it_says_again(self):
        examples = sorted((PROJECT / "examples").glob("*.conf"))
        self.assertTrue(examples)
        for conf in examples:
            with self.subTest(conf=conf.name):
                status, output, _ = self.run_it("--json", str(conf))
                self.assertEqual(status, 0)
                self.assertTrue(json.loads(output)["summary"]["rows"])
                self.assertEqual(self.run_it("--json", str(conf))[1], output)

    def test_one_seed_is_one_answer(self):
        drawn = ("--random", "--days", "0.2", "--outages-per-day", "200", "--json", CONF)
        first = self.run_it("--seed", "3", *drawn)[1]
        self.assertEqual(self.run_it("--seed", "3", *drawn)[1], first)
        self.assertNotEqual(self.run_it("--seed", "4", *drawn)[1], first)

    def test_compared_configuration_meets_the_same_world(self):
        answer = json.loads(self.run_it("--random", "--days", "0.1", "--json", "--compare", CONF, CONF)[1])
        other = answer["summary"].pop("compared")
        self.assertEqual(other, answer["summary"])

    def test_errors_of_a_scenario_name_line_and_word(self):
        self.assert_refused(2, ":2: 'deda': what happens is wanted", CONF, self.file("s", "1s gi1_1 dead\n2s gi1_1 deda\n"))
        self.assert_refused(2, ":1: 'eth0': the configuration has no such uplink", CONF, self.file("s", "1s eth0 dead\n"))

    def test_all_errors_of_a_scenario_are_told_at_once(self):
        scenario = self.file("s", "1s gi1_1 deda\n2s gi1_9 dead\n3s gi1_1 loss 3\n")
        status, _, errors = self.run_it(CONF, scenario)
        self.assertEqual(status, 2)
        self.assertEqual([line.split(": ")[1:3] for line in errors.splitlines()],
                         [[f"{scenario}:1", "'deda'"], [f"{scenario}:2", "'gi1_9'"], [f"{scenario}:3", "'3'"]])

    def test_errors_of_the_command_line_name_the_program_and_the_option(self):
        for arguments in (("--bogus",), ("--bogus", CONF)):
            self.assertTrue(self.run_it(*arguments)[2].startswith("lbsim: The following argument was not expected: --bogus\n"))
        self.assertTrue(self.run_it()[2].startswith("lbsim: CONF is required\n"))

    def test_outages_that_do_not_fit_into_a_day_are_refused(self):
        self.assert_refused(2, "so many outages of 10m do not fit into a day; fewer than 144 do",
                            "--random", "--outages-per-day", "144", "--mean-outage", "10m", CONF)

    def test_unusable_arguments_are_refused(self):
        self.assert_refused(2, "No such file", "/nonexistent")
        self.assert_refused(2, "Is a directory", str(self.folder))
        self.assert_refused(2, "nothing to simulate", self.file("empty", ""))
        self.assert_refused(2, "'soon' is no length of time", "--for", "soon", CONF)
        self.assert_refused(2, "'x=1' is not as", "--random", "--kinds", "x=1", CONF)
        for option, value in (("--days", "3"), ("--outages-per-day", "2"), ("--mean-outage", "1m"), ("--kinds", "dead=1")):
            self.assert_refused(2, f"{option} requires --random", option, value, CONF)
        self.assert_refused(2, "--random", "--random", CONF, self.file("s", ""))
        self.assert_refused(2, "No such file", "--svg", "/nonexistent/a.svg", CONF)

        for option in ("--days", "--outages-per-day"):
            self.assert_refused(2, "'nan' is no number", "--random", option, "nan", CONF)
        self.assert_refused(2, "'-1' is no seed", "--seed", "-1", CONF)
        self.assert_refused(2, "--svg: the name of a file is wanted", "--svg", "", CONF)
        self.assert_refused(2, "--compare", "--tune", "--compare", CONF, CONF)

    def test_histories_that_are_no_use_are_refused(self):
        night = self.file("night.csv", "1763690000,gi1_1,4,198.51.100.53,1\n")
        newer = str(self.folder / "newer.db")
        other = str(self.folder / "other.db")
        for path, command in ((newer, "PRAGMA user_version = 9"), (other, "CREATE TABLE story (id)")):
            database = sqlite3.connect(path)
            database.execute("CREATE TABLE event (id)")
            database.execute(command)
            database.commit()
            database.close()
        self.assert_refused(2, "No such file", "--replay", "/nonexistent", CONF)
        self.assert_refused(2, "written by a newer version of lbwatch", "--replay", newer, CONF)
        self.assert_refused(2, "is no history of lbwatch", "--replay", other, CONF)
        self.assert_refused(2, "nothing was recorded in that time", "--replay", night, "--since", "1h", CONF)
        self.assert_refused(2, "--since 1h (", "--replay", night, "--since", "1h", "--until", "2h", CONF)
        for moment in ("soon", "2026-02-31"):
            self.assert_refused(2, f"'{moment}' is no time", "--replay", night, "--since", moment, CONF)
        self.assert_refused(2, "--since requires --replay", "--since", "1h", CONF)

    def test_words_of_a_broken_file_are_harmless_and_few(self):
        noise = self.file("noise", "\x1b[2Jdead\n" * 5000)
        for arguments in ((CONF, noise), ("--replay", noise, CONF)):
            status, _, errors = self.run_it(*arguments)
            self.assertEqual(status, 2)
            self.assertFalse("\x1b" in errors)
            self.assertIn(len(errors.splitlines()), (20, 21))

    def test_what_nobody_watched_is_told_as_such(self):
        lines = "".join(f"{1763690000 + second},gi1_{number},4,198.51.100.{host},1\n"
                        for second in (*range(0, 100, 2), *range(1000, 1100, 2)) for host in (53, 54) for number in (1, 2))
        gap = self.file("gap.csv", lines)
        self.assertIn("gi1_1 ipv4: not watched for 14m 2s", self.run_it("--replay", gap, CONF)[2])
        summary = json.loads(self.run_it("--json", "--replay", gap, CONF)[1])["summary"]
        self.assertEqual([one["unwatched_s"] for one in summary["uplinks"]], [842, 842])
        self.assertEqual([row["condition"] for row in summary["rows"] if row["uplink"] == "gi1_1"], ["good", "unknown", "good"])
        self.assertIn("not watched", self.run_it("--replay", gap, "--compare", CONF, CONF)[1])

    def test_what_the_loader_refuses_is_said(self):
        conf = self.file("bad", pathlib.Path(CONF).read_text(encoding="utf-8").replace("failure-ct 3", "failure-ct many", 1))
        status, _, errors = self.run_it(conf)
        self.assertEqual(status, 0)
        self.assertIn("the loader says: ", errors)

    def test_night_is_replayed(self):
        lines = "".join(f"{1763690000 + second},gi1_1,4,198.51.100.{host},{int(not 60 <= second < 120)}\n"
                        for second in range(0, 200, 2) for host in (53, 54))
        status, output, errors = self.run_it("--json", "--replay", self.file("night.csv", lines), CONF)
        self.assertEqual(status, 0)
        self.assertIn("gi1_2 ipv4 target 198.51.100.53: never recorded; taken to answer always", errors)
        self.assertIn("second 0 is 2025-11-21T01:53:20Z", errors)
        states = [(event["uplink"], event["active"]) for event in json.loads(output)["events"] if event["event"] == "state"]
        self.assertEqual(states, [("gi1_1", True), ("gi1_2", True), ("gi1_1", False), ("gi1_1", True)])
        self.assert_refused(2, "nothing was recorded of what", "--replay", self.file("empty.csv", ""), CONF)

    def test_other_counts_are_tried(self):
        scenario = self.file("s", "60s gi1_1 dead\n200s gi1_1 alive\n")
        status, output, _ = self.run_it("--tune", "--json", "--scenario", scenario, CONF)
        self.assertEqual(status, 0)
        summary = json.loads(output)["summary"]
        self.assertEqual(summary["runs"], len(summary["settings"]))
        by_count = {one["failure_ct"]: one["left_after_s"] for one in summary["settings"] if one["failure_ct"]}
        self.assertEqual(sorted(by_count.values()), list(by_count.values()))
        present = next(one for one in summary["settings"] if one["present"])
        self.assertEqual(present["left_after_s"], by_count[3])

    def test_deaths_that_were_never_left_are_counted_whatever_an_uplink_died_of(self):
        conf = pathlib.Path(CONF).read_text(encoding="utf-8")
        second = "        rule 2 {\n            type ping {\n                target 198.51.100.54\n            }\n        }\n"
        self.assertIn(second, conf)
        scenario = self.file("s", "30s gi1_1 target 198.51.100.53 dead\n90s gi1_1 clean\n150s gi1_1 dead\n155s gi1_1 clean\n"
                                  "200s gi1_1 dead\n205s gi1_1 clean\n")
        output = self.run_it("--tune", "--json", "--scenario", scenario, self.file("one.conf", conf.replace(second, "")))[1]
        present = next(one for one in json.loads(output)["summary"]["settings"] if one["present"])
        self.assertEqual((present["deaths"], present["never_left"]), (3, 2))

    def test_pictures_are_well_formed(self):
        for arguments in ((), ("--tune", "--scenario", self.file("s", "60s gi1_1 dead\n"))):
            picture = self.folder / "picture.svg"
            self.assertEqual(self.run_it("--svg", str(picture), *arguments, CONF)[0], 0)
            self.assertEqual(xml.etree.ElementTree.parse(picture).getroot().tag, "{http://www.w3.org/2000/svg}svg")


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
