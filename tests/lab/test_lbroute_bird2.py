"""lbroute hands its routes to bird 2 and bird 3, and the kernel routes by them.

    router                                    far
      gi1_1   192.0.2.10/24 ------------------ 192.0.2.1, fe80::1
      eth0.10 203.0.113.10/24 ---------------- 203.0.113.1, fe80::1
"""
import json
import os
import shutil
import subprocess
import unittest

from kit import Conf, LabTest, expect, main
from kit.daemon import ROOT
from kit.newer_bird import NewerBird, newer_bird_binary, why_absent
from kit.routing_daemon import fragment_path, text_of

LBROUTE = os.environ.get("LB_LBROUTE", os.path.join(ROOT, "build", "lbroute"))
FIRST, SECOND, LINK_LOCAL = "192.0.2.1", "203.0.113.1", "fe80::1"
FILE = "/run/bird-lbroute.conf"


def fragment4(*routes):
    return "protocol static {\ncheck link 1;\n" + "".join(f"route {route};\n" for route in routes) + "};\n"


def fragment6(*routes):
    return "protocol static {\n" + "".join(f"route {route};\n" for route in routes) + "};\n"


def capabilities_with_drop_in():
    """As setpriv(1) takes them: those of the unit and of the drop-in that the operating guide gives for bird."""
    with open(os.path.join(ROOT, "packaging/lbroute.service"), encoding="utf-8") as unit, \
         open(os.path.join(ROOT, "docs/operating.md"), encoding="utf-8") as guide:
        drop_in = guide.read().partition("and `sudo systemctl edit lbroute`:\n")[2].partition("\n\n`metric 0;`")[0]
        lines = (unit.read() + drop_in).splitlines()
    sets = [line.partition("=")[2].split() for line in map(str.strip, lines) if line.startswith("CapabilityBoundingSet=")]
    return [f"+{name.removeprefix('CAP_').lower()}" for names in sets for name in names]


class HandedToBird:
    """The tests, for the bird of one version."""

    version = None

    def setUp(self):
        super().setUp()
        router = self.lab.router
        for scope in ("all", "default"):
            router.sysctl(f"ipv6/conf/{scope}/disable_ipv6", "0")
        self.lab.uplink("gi1_1", "192.0.2.10/24", FIRST)
        self.lab.uplink("eth0.10", "203.0.113.10/24", SECOND)
        conf = Conf()
        for name, gateway in (("gi1_1", FIRST), ("eth0.10", SECOND)):
            conf.interface(name, nexthop=gateway)
            conf.interface(name, nexthop=LINK_LOCAL, ipv6=True)
        conf.rule("1_ipv4", {"gi1_1": 1, "eth0.10": 3}, {"198.18.0.0/15": None})
        conf.rule("1_ipv6", interfaces6={"gi1_1": 1, "eth0.10": 3}, targets={"2001:db8:5::/48": None})
        self.conf = self.lab.write_conf(conf)
        with open(FILE, "w", encoding="ascii"):
            pass
        self.bird = NewerBird(router, self.folder, self.version, FILE)
        self.addCleanup(self.bird.close)
        self.lbroute = None

    def write(self, text, ipv6=False):
        with open(fragment_path(ipv6=ipv6), "w", encoding="ascii") as file:
            file.write(text)

    def run_lbroute(self, *words, check=True):
        done = subprocess.run(self.lab.router.command(LBROUTE, "-f", self.conf, *words), stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True, check=False, timeout=60)
        if check and done.returncode != 0:
            raise RuntimeError(f"lbroute {' '.join(words)}: {done.stdout}")
        return done

    def start_lbroute(self, *words, prefix=(), file=FILE):
        log = os.path.join(self.folder, "lbroute.err")
        with open(log, "ab") as output:
            self.lbroute = subprocess.Popen(
                self.lab.router.command(*prefix, LBROUTE, "-f", self.conf, "--bird2", file,
                                        "--birdc", self.bird.birdc_command(), *words),
                stdout=output, stderr=output, stdin=subprocess.DEVNULL)
        self.addCleanup(self.end_lbroute)
        return lambda: text_of(log) or ""

    def end_lbroute(self):
        self.lbroute.terminate()
        self.lbroute.wait(timeout=30)

    def routes(self, family="-4"):
        """{prefix: (metric, {(gateway, device): weight})} of what bird put into the kernel."""
        listed = json.loads(self.lab.router.run("ip", family, "-j", "route", "show", "proto", "bird") or "[]")
        found = {}
        for route in listed:
            hops = route.get("nexthops") or [{**route, "weight": 1}]
            found[route["dst"]] = (route.get("metric", 0),
                                   {(hop["gateway"], hop["dev"]): hop["weight"] for hop in hops})
        return found

    def test_routes_of_both_families_reach_the_kernel_through_bird(self):
        self.write(fragment4(f"198.18.0.0/15 multipath via {FIRST} weight 1 via {SECOND} weight 3",
                             f"198.51.100.0/24 multipath via {FIRST} weight 1 metric 20"))
        self.write(fragment6(f"2001:db8:5::/48 multipath via {LINK_LOCAL} weight 3 via {LINK_LOCAL} weight 1"), True)
        self.bird.start()
        self.start_lbroute()
        expect(lambda: self.routes() == {
            "198.18.0.0/15": (0, {(FIRST, "gi1_1"): 1, (SECOND, "eth0.10"): 3}),
            "198.51.100.0/24": (20, {(FIRST, "gi1_1"): 1})})
        expect(lambda: self.routes("-6") == {
            "2001:db8:5::/48": (1024, {(LINK_LOCAL, "eth0.10"): 3, (LINK_LOCAL, "gi1_1"): 1})})
        self.assertEqual(self.bird.refusal(), "")
        # Two would write the kernel's routes otherwise.
        self.assertEqual(self.lab.router.ip("route show proto 76"), "")
        self.assertEqual(self.lab.router.ip("nexthop show").count("proto 76"), 0)

    def test_rights_of_the_service_with_its_drop_in_suffice_where_all_belongs_to_birds_user(self):
        home = "/run/etc-bird"  # as /etc/bird of Debian's packages
        file = os.path.join(home, "lbroute.conf")
        os.mkdir(home, 0o750)
        with open(file, "w", encoding="ascii"):
            pass
        self.bird = NewerBird(self.lab.router, self.folder, self.version, file, "daemon", home)
        self.addCleanup(self.bird.close)
        for path in (home, os.path.join(home, "bird.conf")):
            shutil.chown(path, "daemon", "daemon")
        self.write(fragment4(f"198.18.0.0/15 multipath via {FIRST} weight 1"))
        self.bird.start()

        self.start_lbroute(file=file, prefix=["setpriv", "--no-new-privs", "--inh-caps=-all",
                                              f"--bounding-set=-all,{','.join(capabilities_with_drop_in())}"])

        expect(lambda: self.routes() == {"198.18.0.0/15": (0, {(FIRST, "gi1_1"): 1})})

    def test_changed_fragment_reaches_the_kernel(self):
        self.write(fragment4(f"198.18.0.0/15 multipath via {FIRST} weight 1 via {SECOND} weight 3"))
        self.bird.start()
        self.start_lbroute()
        expect(lambda: len(self.routes().get("198.18.0.0/15", (0, {}))[1]) == 2)
        self.write(fragment4(f"198.18.0.0/15 multipath via {SECOND} weight 3"))
        expect(lambda: self.routes() == {"198.18.0.0/15": (0, {(SECOND, "eth0.10"): 1})})
        self.write(fragment4())
        expect(lambda: self.routes() == {})

    def test_weights_beyond_birds_are_scaled(self):
        self.write(fragment4(f"198.18.0.0/15 multipath via {FIRST} weight 700 via {SECOND} weight 350"))
        self.bird.start()
        self.start_lbroute()
        expect(lambda: self.routes() == {"198.18.0.0/15": (0, {(FIRST, "gi1_1"): 2, (SECOND, "eth0.10"): 1})})

    def test_half_written_fragment_changes_nothing(self):
        whole = fragment4(f"198.18.0.0/15 multipath via {FIRST} weight 1 via {SECOND} weight 3")
        self.write(whole)
        self.bird.start()
        log = self.start_lbroute()
        expect(lambda: len(self.routes().get("198.18.0.0/15", (0, {}))[1]) == 2)
        before = text_of(FILE)
        self.write(whole[:-20])
        expect(lambda: f"{fragment_path()} line " in log())
        self.assertEqual(text_of(FILE), before)

    def test_held_uplink_leaves_the_routes(self):
        self.write(fragment4(f"198.18.0.0/15 multipath via {FIRST} weight 1 via {SECOND} weight 3"))
        self.bird.start()
        self.start_lbroute()
        expect(lambda: len(self.routes().get("198.18.0.0/15", (0, {}))[1]) == 2)
        self.run_lbroute("hold", "gi1_1", "--family", "ipv4")
        expect(lambda: self.routes() == {"198.18.0.0/15": (0, {(SECOND, "eth0.10"): 1})})
        self.run_lbroute("release", "gi1_1", "--family", "ipv4")
        expect(lambda: len(self.routes().get("198.18.0.0/15", (0, {}))[1]) == 2)

    def test_status_compares_what_bird_was_given(self):
        self.write(fragment4(f"198.18.0.0/15 multipath via {FIRST} weight 1"))
        self.bird.start()
        self.start_lbroute()
        expect(lambda: len(self.routes()) == 1)
        told = self.run_lbroute("status")
        self.assertIn(f"bird writes the routes, by {FILE}", told.stdout)
        self.assertTrue(told.stdout.endswith("bird was given what the fragments ask for.\n"), told.stdout)
        with open(FILE, "a", encoding="ascii") as file:
            file.write("# by hand\n")
        told = self.run_lbroute("status", check=False)
        self.assertEqual(told.returncode, 1)
        self.assertIn(f"{FILE} does not hold what the fragments ask for", told.stdout)

    def test_rehearsal_prints_what_the_file_would_hold(self):
        self.write(fragment4(f"198.18.0.0/15 multipath via {FIRST} weight 1"))
        told = self.run_lbroute("--dry-run", "--bird2", FILE)
        self.assertEqual(text_of(FILE), "")
        self.bird.start()
        self.start_lbroute()
        expect(lambda: len(self.routes()) == 1)
        self.assertEqual(text_of(FILE), told.stdout)

    def test_end_leaves_the_routes_and_with_flush_takes_them_away(self):
        self.write(fragment4(f"198.18.0.0/15 multipath via {FIRST} weight 1"))
        self.bird.start()
        self.start_lbroute()
        expect(lambda: len(self.routes()) == 1)
        before = text_of(FILE)
        self.end_lbroute()
        self.assertEqual(text_of(FILE), before)
        self.start_lbroute("--flush")
        expect(lambda: os.path.exists("/var/run/routing.pid"))
        self.end_lbroute()
        expect(lambda: self.routes() == {})

    def test_routes_of_lbroute_itself_in_the_way_are_told(self):
        self.write(fragment4(f"198.18.0.0/15 multipath via {FIRST} weight 1"))
        self.run_lbroute("--once")
        self.assertNotEqual(self.lab.router.ip("route show proto 76"), "")
        self.bird.start()
        log = self.start_lbroute()
        expect(lambda: "stand in the way of bird's: stop lbroute, then lbroute --once --flush" in log())
        self.end_lbroute()
        self.run_lbroute("--once", "--flush")
        self.start_lbroute()
        expect(lambda: len(self.routes()) == 1)

    def test_bird_that_refuses_is_told_with_its_words(self):
        self.bird.start()
        self.bird.write_conf(self.bird.conf() + "protocol static lbroute4 { ipv4; }\n")
        self.write(fragment4(f"198.18.0.0/15 multipath via {FIRST} weight 1"))
        log = self.start_lbroute()
        expect(lambda: f"bird has not taken over {FILE}: '{self.bird.birdc_command()}' failed with status 1: " in log())
        self.assertIn("lbroute4", log().partition("failed with status")[2].splitlines()[0])

    def test_bird_that_starts_later_has_the_routes(self):
        self.write(fragment4(f"198.18.0.0/15 multipath via {FIRST} weight 1"))
        log = self.start_lbroute()
        expect(lambda: f"bird has not taken over {FILE}: " in log())
        self.assertNotIn("IPv4 198.18.0.0/15 via", log())
        self.bird.start()
        expect(lambda: self.routes() == {"198.18.0.0/15": (0, {(FIRST, "gi1_1"): 1})})
        expect(lambda: f"IPv4 198.18.0.0/15 via {FIRST} dev gi1_1 weight 1\n" in log())

    def test_bird_that_does_not_answer_holds_nothing_up_for_long(self):
        self.bird.start()
        self.bird.pause()
        self.write(fragment4(f"198.18.0.0/15 multipath via {FIRST} weight 1"))
        log = self.start_lbroute()
        expect(lambda: "no end within 10 s, killed" in log(), within=40)
        self.bird.pause(False)
        self.write(fragment4(f"198.18.0.0/15 multipath via {SECOND} weight 1"))
        expect(lambda: self.routes() == {"198.18.0.0/15": (0, {(SECOND, "eth0.10"): 1})})


@unittest.skipUnless(newer_bird_binary(2), why_absent(2))
class Bird2(HandedToBird, LabTest):
    version = 2


@unittest.skipUnless(newer_bird_binary(3), why_absent(3))
class Bird3(HandedToBird, LabTest):
    version = 3


if __name__ == "__main__":
    main()
