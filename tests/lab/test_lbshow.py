"""The status files of a running daemon, read by lbshow and by people (test_lbshow_stale.py: by lbshow, of one that
runs no more).

    gi1_1 -- GATEWAY   (default namespace)        gi1_2 -- GATEWAY_2
"""
import itertools
import json
import os
import re
import subprocess
import unittest

from kit import Conf, LabTest, expect, main, ping, ping_ext
from kit.echo_policies import silence
from kit.daemon import ROOT
from kit.lab import OUTPUT_DIRECTORY
from kit.lbshow import LBSHOW, PROMTOOL, active, lbshow, state
from kit.routing_daemon import fragment_path, text_of
from scenes import (ACTIVE, ACTIVE_2, GATEWAY, GATEWAY_2, INACTIVE_2, PREFIX, ROUTER, TARGET, attach_two,
                    two_uplinks)
from scenes6 import GATEWAY6, ROUTER6

class Lbshow(LabTest):
    def setUp(self):
        super().setUp()
        self.peers = attach_two(self.lab)

    def start(self, **options):
        self.lab.start(two_uplinks(**options))
        expect(lambda: {ACTIVE, ACTIVE_2} <= set(self.lab.log.texts()))

    def shown(self):
        self.start()
        expect(lambda: active() == [True, True])
        return state()

    def test_interfaces_are_shown_in_the_order_of_their_names(self):
        self.assertEqual([one["name"] for one in self.shown()["interfaces"]], ["gi1_1", "gi1_2"])

    def test_members_of_a_rule_are_shown_with_family_and_weight(self):
        self.assertEqual(self.shown()["rules"][0]["members"][1],
                         {"interface": "gi1_2", "family": 4, "weight": 3})

    def test_freshness_of_a_running_daemon_is_told(self):
        families = self.shown()["families"]
        self.assertEqual(list(families), ["ipv4"])
        self.assertEqual(families["ipv4"]["stale"], False)
        self.assertLess(families["ipv4"]["age_s"], 10)

    def test_route_over_several_uplinks_is_shown_without_a_next_hop(self):
        route, = self.shown()["routes"]
        self.assertEqual((route["prefix"], route["nexthop"]), (PREFIX, None))

    def test_shared_routes_show_the_next_hops_that_the_fragment_has(self):
        """Both, then the only one left, then none."""
        self.start()
        for peers, expected in (((), [(GATEWAY, "gi1_1", 1), (GATEWAY_2, "gi1_2", 3)]),
                                (self.peers[1:], [(GATEWAY, "gi1_1", 1)]), (self.peers, [])):
            for peer in peers:
                peer.echo = silence
            expect(lambda: [(one["nexthop"], one["interface"], one["weight"])
                            for one in state()["routes"][0]["nexthops"]] == expected)
            in_fragment = re.findall(r" via (\S+) weight (\d+)", text_of(fragment_path()))
            self.assertEqual(in_fragment, [(hop, str(weight)) for hop, _, weight in expected])
            self.assertEqual([one["routed"] for one in state()["interfaces"]],
                             [one["active"] for one in state()["interfaces"]])
        self.assertRegex(lbshow("routes").stdout, rf"1_ipv4 +{PREFIX} +- +-\n")

    def test_uplink_that_goes_silent_is_shown_as_failed(self):
        self.start()
        self.peers[1].echo = silence
        expect(lambda: INACTIVE_2 in self.lab.log.texts()[2:])
        expect(lambda: active() == [True, False])
        self.assertIn("no answer", lbshow("interfaces", "gi1_2").stdout)

    def test_failover_rule_shows_its_choice_in_the_route(self):
        self.start(failover=True)
        expect(lambda: [one["nexthop"] for one in state()["routes"]] == [GATEWAY_2])

    def test_metrics_are_those_of_the_interfaces(self):
        self.start()
        expect(lambda: 'lb_interface_active{interface="gi1_2",family="ipv4",namespace=""} 1\n'
               in lbshow("--metrics").stdout)

    @unittest.skipUnless(os.path.exists(PROMTOOL), f"{PROMTOOL} is not there: scripts/deps test")
    def test_metrics_are_what_a_scraper_takes(self):
        """By the scraper's own checker; a ping and an extended one share their target."""
        conf = two_uplinks(failover=True)
        conf.interface("gi1_1", nexthop=GATEWAY, probes=[ping(TARGET, 300), ping_ext(TARGET, count=2, timeout=500)])
        self.lab.start(conf)
        expect(lambda: {ACTIVE, ACTIVE_2} <= set(self.lab.log.texts()))
        expect(lambda: "lb_probe_rtt_seconds{" in lbshow("--metrics").stdout)
        for arguments in ((), ("interfaces",), ("rules",), ("routes",), ("--all",)):
            text = lbshow("--metrics", *arguments).stdout
            self.assertIn('lb_up{family="ipv4"} 1\n', text)
            checked = subprocess.run([PROMTOOL, "check", "metrics"], input=text, text=True, check=False,
                                     stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
            self.assertEqual((checked.stdout, checked.returncode), ("", 0), text)
            series = [line.rpartition(" ")[0] for line in text.splitlines() if line[0] != "#"]
            self.assertEqual(len(series), len(set(series)), text)

    def test_watch_takes_what_to_show_for_no_number_of_seconds(self):
        self.start()
        for words in (("--watch", "rules"), ("rules", "--watch"), ("--watch", "0.2", "rules", "1_ipv4")):
            with subprocess.Popen([LBSHOW, *words], stdout=subprocess.PIPE, text=True) as watch:
                self.assertRegex(watch.stdout.readline(), "^RULE +NAMESPACE", words)
                watch.kill()

    def test_watch_shows_again_and_again(self):
        self.start()
        with subprocess.Popen([LBSHOW, "--watch", "0.2"], stdout=subprocess.PIPE, text=True) as watch:
            heads = 0
            while heads < 3 and (line := watch.stdout.readline()):
                heads += line.startswith("INTERFACE  FAMILY")
            watch.kill()
        self.assertEqual(heads, 3)

    def report(self):
        """Of both uplinks when they are active."""
        self.start()

        def whole():
            try:
                with open(os.path.join(OUTPUT_DIRECTORY, "wlb_ipv4.out"), encoding="utf-8") as file:
                    text = file.read()
            except FileNotFoundError:
                return None  # the first cycle has not ended
            return text if text.count("Status:  active\n") == 2 else None
        return expect(whole)

    def test_report_for_people_tells_the_interface_and_its_targets(self):
        self.assertIn("Test:  ping\tTarget: 198.51.100.1\n",
                      self.report().partition("Interface:  gi1_1\n")[2].partition("Interface:")[0])

    def test_no_report_of_a_family_without_a_worker(self):
        self.report()
        self.assertFalse(os.path.exists(os.path.join(OUTPUT_DIRECTORY, "wlb_ipv6.out")))

    def test_last_status_change_is_always_the_beginning_of_1970(self):
        self.lab.start(two_uplinks(), environment={"TZ": "UTC"})
        expect(lambda: active() == [True, True])
        self.peers[1].echo = silence
        expect(lambda: active() == [True, False])

        def years():
            with open(os.path.join(OUTPUT_DIRECTORY, "wlb_ipv4.out"), encoding="utf-8") as file:
                return [line.split()[-1] for line in file if line.startswith("  Last Status Change:")]
        expect(lambda: years() == ["1970", "1970"])  # shorter while it is being rewritten

    def test_missing_output_directory_is_reported(self):
        self.start()
        os.rename(OUTPUT_DIRECTORY, "/run/moved")
        message = ("%WAN-W-ERR: wan_lb: error create directory: "
                   f"{OUTPUT_DIRECTORY}/wlb_dump, errno = 2")
        expect(lambda: message in self.lab.log.texts())

    def test_dump_that_cannot_be_opened_is_reported_and_written_when_it_can(self):
        self.start()
        dump = os.path.join(OUTPUT_DIRECTORY, "wlb_dump", "wlb_ipv4_outbounds.bin")
        expect(lambda: os.path.exists(dump), what="the first cycle has ended")
        os.unlink(dump)
        os.mkdir(dump)
        expect(lambda: f"%WAN-W-ERR: wan_lb: error open file for writing '{dump}'"
               in self.lab.log.texts())
        os.rmdir(dump)
        expect(lambda: os.path.isfile(dump) and os.path.getsize(dump) == 2 * 4312)


class ManyWriters(LabTest):
    """Three namespaces with an uplink each, both families on it, all writing the same files."""

    NAMESPACES = ("", "blue", "red")

    def test_every_reading_is_whole_while_three_namespaces_and_both_families_write(self):
        conf = Conf()
        for i, name in enumerate(self.NAMESPACES, 1):
            space = self.lab.namespace(name) if name else self.lab.router
            self.lab.uplink(f"gi1_{i}", ROUTER + "/24", GATEWAY, address6=ROUTER6 + "/64",
                            gateway6=GATEWAY6, namespace=space, known=True)
            conf.interface(f"gi1_{i}", nexthop=GATEWAY, probes=[ping(None, 900)], namespace=name)
            conf.interface(f"gi1_{i}", nexthop=GATEWAY6, source=ROUTER6, namespace=name,
                           probes=[ping(None, 900)], ipv6=True)
            conf.rule(f"{i}_ipv4", {f"gi1_{i}": 1}, {PREFIX: None}, namespace=name, failover=True)
            conf.rule(f"{i}_ipv6", interfaces6={f"gi1_{i}": 1}, targets={"2001:db8::/32": None},
                      namespace=name, failover=True)
        self.lab.start(conf)
        expect(lambda: active() == [True] * 6)
        expect(lambda: [one["nexthop"] for one in state()["routes"]] == [GATEWAY, GATEWAY6] * 3)
        readings = itertools.count()

        def read():
            next(readings)
            done = lbshow("--json")
            self.assertEqual(done.stderr, "")
            shown = json.loads(done.stdout)
            self.assertEqual([one["active"] for one in shown["interfaces"]], [True] * 6)
            # What one family's worker chose is not wiped by the other's run.
            self.assertEqual([one["nexthop"] for one in shown["routes"]], [GATEWAY, GATEWAY6] * 3)

        self.lab.cycles.never(read, cycles=5)  # every one of which writes
        self.assertGreater(next(readings), 30)
        self.assertEqual([text for text in self.lab.log.errors() if "wan_lb:" in text], [])


class CommandLine(LabTest):
    METRICS_UNIT = os.path.join(ROOT, "examples/lbshow-metrics.service")
    DUMPS = os.path.join(OUTPUT_DIRECTORY, "wlb_dump")

    def put(self, **dumps):
        """Dumps of one IPv4 interface without probes, or what is given instead of one of them; None for none."""
        os.makedirs(self.DUMPS, exist_ok=True)
        outbound = bytearray(4312)
        outbound[:4] = b"eth0"
        for name, content in {"ipv4_outbounds": outbound, "rules": bytes(3343), "routes": b"", **dumps}.items():
            if content is not None:
                with open(os.path.join(self.DUMPS, f"wlb_{name}.bin"), "wb") as file:
                    file.write(content)

    def assert_refused(self, reason, *arguments):
        done = lbshow(*arguments)
        self.assertEqual((done.returncode, done.stdout, done.stderr), (1, "", f"lbshow: {reason}\n"))

    def test_missing_directory_is_a_clear_error(self):
        self.assert_refused("no dumps below /nonexistent: is the daemon running with this directory?",
                            "-o", "/nonexistent")

    def test_unknown_option_is_an_error_and_help_is_none(self):
        self.assertEqual(lbshow("--nonsense").returncode, 1)
        done = lbshow("--help")
        self.assertEqual(done.returncode, 0)
        self.assertIn("--byte-order", done.stdout)

    def test_version_is_told(self):
        done = lbshow("--version")
        self.assertEqual(done.returncode, 0)
        self.assertRegex(done.stdout, r"^lbshow \d+\.\d+\.\d+\n$")

    def test_watch_refuses_what_is_neither_seconds_nor_shown(self):
        for words in (("--watch", "nonsense"), ("--watch", "0"), ("--watch", "1e9"), ("--watch", "nan"), ("--watch=nan",),
                      ("--watch", "inf")):
            self.assertEqual(lbshow(*words).returncode, 1, words)

    def test_watch_into_a_full_disk_ends_and_tells_so(self):
        self.put()
        with open("/dev/full", "wb") as full:
            done = subprocess.run([LBSHOW, "--watch", "0.1"], stdout=full, stderr=subprocess.PIPE, text=True, timeout=20,
                                  check=False)
        self.assertEqual(done.returncode, 1)
        self.assertEqual(done.stderr, "lbshow: standard output cannot be written: No space left on device\n")

    def test_unknown_name_is_an_error(self):
        self.put()
        self.assert_refused("nothing is called 'eth9'", "interfaces", "eth9")

    def test_name_of_something_stale_is_not_unknown(self):
        self.put()
        os.utime(os.path.join(self.DUMPS, "wlb_ipv4_outbounds.bin"), (0, 0))
        done = lbshow("interfaces", "eth0")
        self.assertEqual((done.returncode, done.stderr), (3, ""))
        self.assertIn("left out as stale (--all shows them): interfaces 1, rules 0, routes 0\n", done.stdout)

    def test_foreign_file_is_refused(self):
        self.put(rules=b"\xff" * 3343)
        self.assert_refused(f"{self.DUMPS}/wlb_rules.bin is no dump of the daemon, or one of the other byte order")

    def test_missing_dump_names_the_reason(self):
        self.put(routes=None)
        self.assert_refused(f"{self.DUMPS}/wlb_routes.bin cannot be read: No such file or directory")

    def test_folder_in_a_dumps_place_names_the_reason(self):
        for name in ("ipv4_outbounds", "ipv6_outbounds", "rules", "routes"):
            self.put()
            path = os.path.join(self.DUMPS, f"wlb_{name}.bin")
            if os.path.exists(path):
                os.unlink(path)
            os.mkdir(path)
            self.assert_refused(f"{path} cannot be read: Is a directory")
            os.rmdir(path)

    def test_dump_without_rights_names_the_reason(self):
        """As anybody but root meets it."""
        self.put()
        for name in ("ipv4_outbounds", "rules", "routes"):
            path = os.path.join(self.DUMPS, f"wlb_{name}.bin")
            os.chmod(path, 0)
            done = subprocess.run(["setpriv", "--reuid=65534", "--clear-groups", LBSHOW], capture_output=True,
                                  text=True, check=False, timeout=60)
            self.assertEqual((done.returncode, done.stdout, done.stderr),
                             (1, "", f"lbshow: {path} cannot be read: Permission denied\n"))
            os.chmod(path, 0o644)

    def test_folder_without_rights_names_the_reason(self):
        self.put()
        os.chmod(self.DUMPS, 0)
        done = subprocess.run(["setpriv", "--reuid=65534", "--clear-groups", LBSHOW], capture_output=True,
                              text=True, check=False, timeout=60)
        self.assertEqual((done.returncode, done.stderr),
                         (1, f"lbshow: {self.DUMPS} cannot be read: Permission denied\n"))

    def collect(self, folder):
        """What the example's unit runs; its exit status, and what the collector finds."""
        line = re.search(r"^ExecStart=/bin/sh -c '(.*)'$", text_of(self.METRICS_UNIT), re.MULTILINE).group(1)
        command = line.replace("$$", "$").replace("lbshow", f"{LBSHOW} -o {OUTPUT_DIRECTORY}", 1)
        done = subprocess.run(["sh", "-c", command], cwd=folder, check=False, capture_output=True, timeout=60)
        self.assertEqual(os.listdir(folder), ["lb.prom"])
        return done.returncode, text_of(os.path.join(folder, "lb.prom"))

    def test_metrics_that_a_timer_collects_are_never_those_of_before(self):
        folder = "/run/collected"
        os.mkdir(folder)
        self.put()
        status, text = self.collect(folder)
        self.assertEqual(status, 0)
        self.assertIn('lb_up{family="ipv4"} 1\n', text)
        os.utime(os.path.join(self.DUMPS, "wlb_ipv4_outbounds.bin"), (0, 0))
        status, text = self.collect(folder)
        self.assertEqual(status, 3)
        self.assertIn('lb_up{family="ipv4"} 0\n', text)
        os.unlink(os.path.join(self.DUMPS, "wlb_rules.bin"))
        self.assertEqual(self.collect(folder), (1, ""))


if __name__ == "__main__":
    main()
