#!/usr/bin/python3
"""What the companion programs take from their command lines and what they give for it, on a machine without a daemon.

    test_command_lines.py PROJECT PROGRAM

PROGRAM is lbshow, lbcheck, lb-lease, lbroute or lbwatch; its own tests run.
"""
import json
import os
import pathlib
import struct
import subprocess
import sys
import time
import unittest

from command import PROJECT, PROGRAM, CommandLine

HEALTH = """health {
    interface gi1_1 {
        nexthop dhcp
    }
    interface6 gi1_1 {
        nexthop fe80::1
    }
    interface gi1_2 {
        nexthop 192.0.2.1
    }
    interface6 gi1_2 {
        nexthop dhcp
    }
}
"""


def fields(size, *placed):
    """A dump's record of that size: (offset, text, number or byte) as in the table of its fields."""
    record = bytearray(size)
    for offset, kind, value in placed:
        if kind == "text":
            record[offset:offset + len(value)] = value.encode()
        else:
            struct.pack_into(kind, record, offset, value)
    return bytes(record)


def outbound(order):
    """gi1_1, active, evaluated now, its next hop 192.0.2.1."""
    return fields(4312, (0, "text", "gi1_1"), (96, "text", "192.0.2.1"), (234, order + "I", 3), (242, "B", 1),
                  (4289, order + "I", 5), (4301, order + "I", 3), (4305, order + "I", 2), (4309, "B", 1))


def rule(order):
    return fields(3343, (0, "text", "gi1_1"), (64, "B", 3), (3300, "B", 1), (3337, order + "I", 12))


def route(order):
    return fields(109, (0, "text", "10.0.0.0/8"), (50, "text", "192.0.2.1"), (96, order + "I", 0xffffffff),
                  (100, order + "I", 1), (104, order + "I", 12))


class Lbshow(CommandLine):
    NATIVE = "<" if sys.byteorder == "little" else ">"
    FOREIGN = ">" if sys.byteorder == "little" else "<"

    def dumps(self, order=NATIVE, age_s=0):
        """The folder of a daemon that wrote these so long ago."""
        for name, content in (("wlb_ipv4_outbounds", outbound(order)), ("wlb_rules", rule(order)),
                              ("wlb_routes", route(order))):
            path = self.folder / "wlb_dump" / f"{name}.bin"
            path.parent.mkdir(exist_ok=True)
            path.write_bytes(content)
            os.utime(path, (time.time() - age_s,) * 2)
        return str(self.folder)

    def shown(self, *arguments, status=0):
        ended, output, errors = self.run_it("-o", str(self.folder), "--json", *arguments)
        self.assertEqual(ended, status, errors)
        return json.loads(output)

    def test_tells_of_itself(self):
        self.assert_tells_of_itself(1, "--watch [SECONDS]")

    def test_all_three_kinds_are_shown_where_none_is_named(self):
        self.dumps()
        everything = self.shown()
        self.assertEqual([one["name"] for one in everything["interfaces"]], ["gi1_1"])
        self.assertEqual([one["number"] for one in everything["rules"]], [12])
        self.assertEqual([one["prefix"] for one in everything["routes"]], ["10.0.0.0/8"])
        for what in ("interfaces", "rules", "routes"):
            with self.subTest(what=what):
                one = self.shown(what)
                self.assertEqual({key for key in ("interfaces", "rules", "routes") if one.get(key)}, {what})

    def test_name_that_nothing_has_is_refused(self):
        self.dumps()
        self.assert_refused(1, "nothing is called 'gi1_9'", "-o", str(self.folder), "interfaces", "gi1_9")
        self.assertEqual(len(self.shown("interfaces", "gi1_1")["interfaces"]), 1)

    def test_what_is_stale_is_shown_where_it_is_asked_for(self):
        self.dumps(age_s=3600)
        self.assertEqual(self.shown(status=3)["interfaces"], [])
        self.assertEqual(len(self.shown("--all", status=3)["interfaces"]), 1)
        self.assertEqual(len(self.shown("--stale-after", "7200")["interfaces"]), 1)
        status, output, _ = self.run_it("-o", str(self.folder), "--all", "--metrics")
        self.assertEqual(status, 3)
        self.assertNotIn('interface="gi1_1"', output)

    def test_dumps_of_another_machine_are_read_in_its_byte_order(self):
        words = {"<": "little", ">": "big"}
        for order in (self.NATIVE, self.FOREIGN):
            self.dumps(order)
            self.assertEqual(self.shown("--byte-order", words[order])["rules"][0]["number"], 12)
        self.assert_refused(1, "--byte-order", "--byte-order", "middle")

    def test_one_form_at_a_time(self):
        self.dumps()
        self.assert_refused(1, "--metrics", "-o", str(self.folder), "--json", "--metrics")
        _, metrics, _ = self.run_it("-o", str(self.folder), "--metrics")
        self.assertIn("# TYPE lb_up gauge\n", metrics)
        _, table, _ = self.run_it("-o", str(self.folder), "rules")
        self.assertRegex(table, "^RULE +NAMESPACE")
        self.assertNotIn("\x1b", table)

    def test_watched_again_and_again_a_terminal_is_cleared_each_time_and_a_file_is_not(self):
        clear = "\x1b[H\x1b[2J"
        self.dumps()
        seen = self.on_a_terminal("stdout", "-o", str(self.folder), "--watch", "0.1", "rules", until="".join([clear]))
        self.assertTrue(seen.startswith(clear), seen)
        with subprocess.Popen([PROGRAM, "-o", str(self.folder), "--watch", "0.1", "rules"], stdout=subprocess.PIPE,
                              stderr=subprocess.DEVNULL, text=True) as running:
            heads = [line for line in (running.stdout.readline() for _ in range(8)) if "RULE" in line]
            running.kill()
        self.assertGreater(len(heads), 1)
        self.assertRegex(heads[0], "^RULE")

    def test_seconds_of_watching_are_bounded(self):
        for seconds in ("0.05", "86401"):
            self.assert_refused(1, "--watch", "-o", str(self.folder), "--watch", seconds)
        for seconds in ("0", "31536001"):
            self.assert_refused(1, "--stale-after", "-o", str(self.folder), "--stale-after", seconds)


class Lbcheck(CommandLine):
    GOOD = str(PROJECT / "examples/two-providers-3-to-1.conf")

    def test_tells_of_itself(self):
        self.assert_tells_of_itself(2, "2 for errors.")

    def test_file_is_wanted_but_for_this_router(self):
        self.assert_refused(2, "FILE is required")

    def test_findings_set_the_exit_status(self):
        good = pathlib.Path(self.GOOD).read_text(encoding="utf-8")
        warned = self.file("warned", good.replace("nexthop", "nexthpo", 1))
        wrong = self.file("wrong", "}\n" + good)
        for path, arguments, status in ((self.GOOD, (), 0), (self.GOOD, ("--strict",), 0), (warned, (), 0),
                                        (warned, ("--strict",), 1), (wrong, (), 2), (wrong, ("--strict",), 2)):
            with self.subTest(path=path, arguments=arguments):
                self.assertEqual(self.run_it(path, *arguments)[0], status)

    def test_text_json_and_explanation(self):
        status, text, _ = self.run_it(self.GOOD)
        self.assertEqual((status, text), (0, f"{self.GOOD}: 0 errors, 0 warnings\n"))
        found = json.loads(self.run_it("--json", self.GOOD)[1])
        self.assertEqual((found["file"], found["findings"]), (self.GOOD, []))
        explained = self.run_it("--explain", self.GOOD)[1]
        self.assertTrue(explained.startswith(text) and "gi1_1" in explained, explained)
        self.assert_refused(2, "--explain", "--explain", "--json", self.GOOD)
        self.assert_refused(2, "--live", "--explain", "--live", self.GOOD)
        self.assert_refused(2, "-o", "-o", str(self.folder), self.GOOD)

    def test_router_is_looked_at_where_it_is_asked_for(self):
        status, text, errors = self.run_apart("--live", "-o", str(self.folder), self.GOOD)
        self.assertEqual((status, errors), (2, ""))
        self.assertTrue(text.startswith(f"{self.GOOD}: 0 errors, 0 warnings\n"), text)
        self.assertIn("there is no such interface", text)
        found = json.loads(self.run_apart("--live", "--json", "-o", str(self.folder), self.GOOD)[1])
        self.assertEqual(found["findings"], [])
        self.assertTrue(found["live"])


class LbLease(CommandLine):
    def leases(self):
        folder = self.folder / "var/db"
        return {path.name: path.read_text(encoding="utf-8") for path in folder.glob("*.leases")} if folder.exists() else {}

    def conf(self):
        return self.file("lb.conf", HEALTH)

    def test_tells_of_itself(self):
        self.assert_tells_of_itself(2, "3 when the configuration has no such uplink as far as it can be read",
                                    "gi1_1", "192.0.2.9")

    def test_wrong_command_lines_are_refused(self):
        conf = self.conf()
        self.assert_refused(2, "the interface name is empty")
        self.assert_refused(2, "a router is missing, or --gone", "-f", conf, "gi1_1")
        self.assert_refused(2, "--gone takes no router", "-f", conf, "--gone", "gi1_1", "192.0.2.1")
        self.assert_refused(2, "the interface name ", "-f", conf, "../gi1_1", "192.0.2.1")
        self.assert_refused(2, "--static-routes", "-f", conf, "--ipv6", "gi1_2", "fe80::1", "--static-routes", "")
        self.assert_refused(2, "the router of gi1_1, '192.0.2.', ", "-f", conf, "gi1_1", "192.0.2.")

    def test_lease_is_written_and_taken_away(self):
        conf = self.conf()
        self.assertEqual(self.run_apart("-f", conf, "gi1_1", "192.0.2.9", "192.0.2.10"), (0, "", ""))
        self.assertEqual(self.run_apart("-f", conf, "--ipv6", "gi1_2", "fe80::9"), (0, "", ""))
        leases = self.leases()
        self.assertEqual(len(leases), 2)
        self.assertIn("192.0.2.9;", leases["dhclient_gi1_1.leases"])
        self.assertEqual(self.run_apart("-f", conf, "--gone", "gi1_1"), (0, "", ""))
        self.assertEqual(set(leases) - set(self.leases()), {"dhclient_gi1_1.leases"})

    def test_static_routes_count_before_the_router(self):
        self.assertEqual(self.run_apart("-f", self.conf(), "gi1_1", "192.0.2.9", "--static-routes",
                                        "0.0.0.0/0 192.0.2.77"), (0, "", ""))
        self.assertIn("192.0.2.77;", self.leases()["dhclient_gi1_1.leases"])
        status, _, errors = self.run_apart("-f", self.conf(), "gi1_1", "192.0.2.9", "--static-routes", "some")
        self.assertEqual((status, errors), (0, "lb-lease: left out what is no list of static routes of gi1_1: 'some'\n"))
        self.assertIn("192.0.2.9;", self.leases()["dhclient_gi1_1.leases"])

    def test_lease_of_what_does_not_learn_by_leases_is_written_and_a_person_told_so(self):
        conf = self.conf()
        for arguments in (("gi1_2", "192.0.2.9"), ("--ipv6", "gi1_1", "fe80::9"), ("eth0", "192.0.2.9")):
            self.assertEqual(self.run_apart("-f", conf, *arguments), (3, "", ""))
        self.assertEqual(set(self.leases()),
                         {"dhclient_gi1_2.leases", "dhcp6_clientgi1_1.leases", "dhclient_eth0.leases"})
        for interface, word, arguments in (("gi1_2", "interface", ("gi1_2", "192.0.2.9")),
                                           ("gi1_1", "interface6", ("--ipv6", "gi1_1", "fe80::9"))):
            self.assertEqual(self.on_a_terminal("stderr", "-f", conf, *arguments, before=self.apart()),
                             f"lb-lease: {interface} is none of the uplinks with 'nexthop dhcp': no '{word} {interface}' in "
                             f"{conf} has it\n")

    def test_configuration_that_is_of_no_use_is_told_and_costs_no_lease(self):
        none = str(self.folder / "none")
        broken = self.file("broken", "health {\n  interface gi1_2 {\n    failure-ct many\n    nexthop dhcp\n  }\n")
        for path, words in ((none, "cannot be read: No such file or directory"),
                            (broken, f"is not whole, see: lbcheck {broken}")):
            status, output, errors = self.run_apart("-f", path, "gi1_1", "192.0.2.9")
            self.assertEqual((status, output), (3, ""))
            self.assertTrue(errors.startswith(f"lb-lease: {path} {words}; until it can be read as a whole, gi1_1 is none"),
                            errors)
            self.assertIn("192.0.2.9;", self.leases().pop("dhclient_gi1_1.leases"))


class Lbroute(CommandLine):
    def options(self):
        return ("-f", self.file("lb.conf", HEALTH), "-o", str(self.folder))

    def test_tells_of_itself(self):
        self.assert_tells_of_itself(2, "Without a command it runs until it is ended.")

    def test_wrong_command_lines_are_refused(self):
        for words, *arguments in (("--table", "--table", "0"), ("--table", "--table", "4294967296"),
                                  ("--dry-run", "--once", "--dry-run"), ("--birdc", "--birdc", "true"),
                                  ("--bird2", "--bird2", "f", "--table", "7"), ("--bird2", "--bird2", "f", "--no-sticky"),
                                  ("--bird2", "--bird2", "f", "--keep-flows"), ("INTERFACE", "hold"),
                                  ("--family", "hold", "gi1_1", "--family", "ipv5"),
                                  ("not expected: status", "release", "a", "status")):
            self.assert_refused(2, words, *self.options(), *arguments)

    def test_commands_do_what_they_are_called(self):
        status, output, errors = self.run_apart(*self.options(), "status")
        self.assertEqual(errors, "")
        self.assertNotIn("{", output)
        self.assertIsInstance(json.loads(self.run_apart(*self.options(), "status", "--json")[1]), dict)
        held = self.run_apart(*self.options(), "hold", "gi1_1", "--family", "ipv6", "--for", "2h")
        self.assertEqual(held[0], 0, held)
        self.assertIn("gi1_1 is held in IPv6 for 2h\n", held[1])
        held = self.run_apart(*self.options(), "hold", "gi1_1", "--family", "ipv4")
        self.assertIn("gi1_1 is held in IPv4 until", held[1])
        released = self.run_apart(*self.options(), "release", "gi1_1", "--namespace", "blue")
        self.assertEqual(released[:2], (1, ""), released)
        self.assertIn("blue", released[2])

    def test_without_a_command_it_routes_or_tells_what_it_would_do(self):
        options = self.options()
        self.assertEqual(self.run_apart(*options, "--dry-run")[:2], (0, ""))
        self.assertFalse((self.folder / "var/run/lbroute").exists())
        status, output, errors = self.run_apart(*options, "--once", "--no-sticky", "--keep-flows", "--table", "7")
        self.assertEqual((status, output), (0, ""), errors)


class Lbwatch(CommandLine):
    def test_tells_of_itself(self):
        self.assert_tells_of_itself(1, "Follows the balancing daemon from outside")

    def test_wrong_command_lines_are_refused(self):
        history = str(self.folder / "none.db")
        for words, *arguments in (("--json", "report", "--json", "--csv"), ("--html", "report", "--csv", "--html", "f"),
                                  ("--html", "report", "--json", "--html", "f"), ("--csv", "events", "--csv"),
                                  ("--history stands in front of the command", "--history", history, "events"),
                                  ("--json stands in front of the command", "--json", "report"),
                                  ("'soon' is no time", "events", "--since", "soon"),
                                  ("'soon' is no time", "report", "--until", "soon"),
                                  (history, "events", "--history", history), (history, "report", "--history", history)):
            self.assert_refused(1, words, *arguments)

    def test_what_is_watched_is_told_and_remembered(self):
        history = str(self.folder / "history.db")
        for command in ((), ("run",)):
            with self.subTest(command=command):
                with subprocess.Popen([PROGRAM, *command, "-o", str(self.folder), "--history", history, "--hooks", "none",
                                       "--json"], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True) as running:
                    self.addCleanup(running.kill)
                    told = json.loads(running.stdout.readline())
                    running.terminate()
                    _, errors = running.communicate(timeout=20)
                self.assertEqual(running.returncode, 0)
                self.assertIn(f"no dumps below {self.folder}/wlb_dump", errors)
                self.assertEqual((told["event"], told["to"]), ("daemon", "stopped"))
                remembered = self.run_it("events", "--history", history, "--json")
                self.assertEqual((remembered[0], remembered[2]), (0, ""))
                self.assertEqual(json.loads(remembered[1]), told)
                pathlib.Path(history).unlink()

    def test_past_is_told_as_it_is_asked_for(self):
        history = str(self.folder / "history.db")
        with subprocess.Popen([PROGRAM, "-o", str(self.folder), "--history", history, "--hooks", "none"],
                              stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True) as running:
            self.addCleanup(running.kill)
            line = running.stdout.readline()
            running.terminate()
            running.communicate(timeout=20)
        status, text, errors = self.run_it("events", "--history", history)
        self.assertEqual((status, errors), (0, ""))
        self.assertTrue(text.endswith("  " + line), text)
        self.assertEqual(self.run_it("events", "--history", history, "--until", "1h")[:2], (0, ""))
        self.assert_refused(1, "the history knows no uplink called 'gi1_9'", "events", "--history", history, "--uplink", "gi1_9")
        page = self.folder / "page.html"
        status, text, errors = self.run_it("report", "--history", history)
        self.assertEqual((status, errors), (0, ""))
        self.assertIn("Nothing was watched", text)
        self.assertEqual(json.loads(self.run_it("report", "--history", history, "--json")[1])["uplinks"], [])
        self.assertTrue(self.run_it("report", "--history", history, "--csv")[1].startswith("record,"))
        self.assertEqual(self.run_it("report", "--history", history, "--html", str(page))[0], 0)
        self.assertTrue(page.read_text(encoding="utf-8").lower().startswith("<!doctype html>"))


CASES = {"lbshow": Lbshow, "lbcheck": Lbcheck, "lb-lease": LbLease, "lbroute": Lbroute, "lbwatch": Lbwatch}

if __name__ == "__main__":
    suite = unittest.defaultTestLoader.loadTestsFromTestCase(CASES[PROGRAM.name])
    sys.exit(0 if unittest.TextTestRunner(verbosity=2).run(suite).wasSuccessful() else 1)
