"""The status files of a running daemon, read by lbshow and by people.

    gi1_1 -- GATEWAY   (default namespace)        gi1_2 -- GATEWAY_2
"""
import json
import os
import subprocess

from kit import Conf, LabTest, expect, main, ping
from kit.echo_policies import silence
from kit.lab import OUTPUT_DIRECTORY
from kit.lbshow import LBSHOW, active, lbshow, state
from scenes import (ACTIVE, ACTIVE_2, GATEWAY, GATEWAY_2, INACTIVE_2, PREFIX, ROUTER, attach_two,
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

    def test_route_over_several_uplinks_is_shown_without_a_next_hop(self):
        route, = self.shown()["routes"]
        self.assertEqual((route["prefix"], route["nexthop"]), (PREFIX, None))

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

    def test_watch_shows_again_and_again(self):
        self.start()
        with subprocess.Popen([LBSHOW, "--watch", "0.2"], stdout=subprocess.PIPE, text=True) as watch:
            heads = 0
            while heads < 3:
                heads += watch.stdout.readline().startswith("INTERFACE  FAMILY")
            watch.kill()
        self.assertEqual(heads, 3)

    def report(self):
        """Of both uplinks when they are active."""
        self.start()

        def whole():
            with open(os.path.join(OUTPUT_DIRECTORY, "wlb_ipv4.out"), encoding="utf-8") as file:
                text = file.read()
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
        with open(os.path.join(OUTPUT_DIRECTORY, "wlb_ipv4.out"), encoding="utf-8") as file:
            dates = [line.split() for line in file if line.startswith("  Last Status Change:")]
        self.assertEqual([date[-1] for date in dates], ["1970", "1970"])

    def test_missing_output_directory_is_reported(self):
        self.start()
        os.rename(OUTPUT_DIRECTORY, "/run/moved")
        message = ("%WAN-W-ERR: wan_lb: error create directory: "
                   f"{OUTPUT_DIRECTORY}/wlb_dump, errno = 2")
        expect(lambda: message in self.lab.log.texts())

    def test_dump_that_cannot_be_opened_is_reported_and_written_when_it_can(self):
        self.start()
        dump = os.path.join(OUTPUT_DIRECTORY, "wlb_dump", "wlb_ipv4_outbounds.bin")
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
        for _ in range(60):
            done = lbshow("--json")
            self.assertEqual(done.stderr, "")
            shown = json.loads(done.stdout)
            self.assertEqual([one["active"] for one in shown["interfaces"]], [True] * 6)
            # What one family's worker chose is not wiped by the other's run.
            self.assertEqual([one["nexthop"] for one in shown["routes"]], [GATEWAY, GATEWAY6] * 3)
        self.assertEqual([text for text in self.lab.log.errors() if "wan_lb:" in text], [])


class CommandLine(LabTest):
    def test_missing_directory_is_a_clear_error(self):
        done = lbshow("-o", "/nonexistent")
        self.assertEqual(done.returncode, 1)
        self.assertEqual(done.stderr, "lbshow: no dumps below /nonexistent: is the daemon running "
                         "with this directory?\n")

    def test_unknown_option_is_an_error_and_help_is_none(self):
        self.assertEqual(lbshow("--nonsense").returncode, 1)
        done = lbshow("--help")
        self.assertEqual(done.returncode, 0)
        self.assertIn("--byte-order", done.stdout)

    def test_unknown_name_is_an_error(self):
        os.makedirs(os.path.join(OUTPUT_DIRECTORY, "wlb_dump"))
        done = lbshow("interfaces", "eth9")
        self.assertEqual((done.returncode, done.stderr),
                         (1, "lbshow: nothing is called 'eth9'\n"))

    def test_foreign_file_is_refused(self):
        folder = os.path.join(OUTPUT_DIRECTORY, "wlb_dump")
        os.makedirs(folder)
        with open(os.path.join(folder, "wlb_rules.bin"), "wb") as file:
            file.write(b"\xff" * 3343)
        done = lbshow()
        self.assertEqual(done.returncode, 1)
        self.assertIn("wlb_rules.bin is no dump of the daemon", done.stderr)


if __name__ == "__main__":
    main()
