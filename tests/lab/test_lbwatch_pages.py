"""The report's page and the live one in a real browser: wide and narrow, light and dark."""
import os
import signal
import unittest

from kit import expect, main
from kit import browser
from kit.lab import results_folder
from kit.lbwatch import HISTORY, Lbwatch, lbwatch
from lbwatch_past import write_past
from lbwatch_scene import Scripted

SCREENSHOTS = os.path.join(results_folder(), "screenshots")
VIEWS = [(width, scheme) for width in (1280, 390) for scheme in ("light", "dark")]
# Colour of the page's ground in each scheme.
GROUNDS = {"light": "rgb(246, 247, 249)", "dark": "rgb(18, 22, 28)"}


@unittest.skipUnless(browser.is_there(), "there is no chromium with its driver; scripts/deps installs both")
class Pages(Scripted):
    def setUp(self):
        super().setUp()
        os.system("ip link set lo up")
        # lbwatch itself begins the file.
        first = Lbwatch(self.folder, "--hooks", "none", "-o", "/nonexistent")
        expect(lambda: os.path.exists(HISTORY) and "stopped" in str(first.changes("daemon")))
        first.kill(15)
        self.outages = write_past(HISTORY)
        os.makedirs(SCREENSHOTS, exist_ok=True)
        self.browser = browser.Browser()
        self.addCleanup(self.browser.close)

    def check_view(self, name, url, width, scheme):
        self.browser.show(url, width, scheme)
        self.browser.screenshot(os.path.join(SCREENSHOTS, f"{name}-{width}-{scheme}.png"))
        wider = self.browser.run("return document.documentElement.scrollWidth - window.innerWidth")
        self.assertLessEqual(wider, 0, "something is wider than the window")
        self.assertEqual(self.browser.run("return getComputedStyle(document.body).backgroundColor"), GROUNDS[scheme])
        outside = self.browser.run(
            "return Array.from(document.querySelectorAll('h1, h2, td, dd, dt, li')).filter(one => {"
            " const box = one.getBoundingClientRect();"
            " return box.width && (box.right > window.innerWidth + 1 || box.left < -1); }).length")
        self.assertEqual(outside, 0)

    def test_report_can_be_read_everywhere(self):
        page = os.path.join(self.folder, "report.html")
        done = lbwatch("report", "--history", HISTORY, "--since", "30d", "--html", page)
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        for width, scheme in VIEWS:
            with self.subTest(width=width, scheme=scheme):
                self.check_view("report", f"file://{page}", width, scheme)
                self.assertEqual(self.browser.texts("h1"), ["Uplink report"])
                self.assertEqual(self.browser.texts("section h2"), ["eth0", "eth1", "eth2"])
                rows = self.browser.run("return Array.from(document.querySelectorAll('section')).map("
                                        "one => one.querySelectorAll('tbody tr').length)")
                self.assertEqual(rows, [len(times) for times in self.outages.values()])
                self.assertEqual(len(self.browser.texts("svg.band")), 3)
                self.assertEqual(len(self.browser.texts("figure.chart")), 1)
                failed = self.browser.run("return document.querySelectorAll('.band rect.failed').length")
                self.assertEqual(failed, sum(len(times) for times in self.outages.values()))
                self.assertGreaterEqual(self.browser.run("return document.querySelectorAll('rect.unwatched').length"), 3)
                for text in self.browser.texts(".availability"):
                    self.assertRegex(text, r"^9\d\.\d{3} %$")
        self.assertEqual(self.browser.run("return performance.getEntriesByType('resource').length"), 0)
        self.assertEqual(self.browser.run("return document.scripts.length"), 0)

    def test_live_page_shows_what_is_now_and_follows_it(self):
        self.daemon.start()
        watch = self.watch("--hooks", "none", "--listen", "127.0.0.1:9837")
        watch.expect_state("eth0", "active")
        watch.expect_state("eth1", "active")
        url = "http://127.0.0.1:9837/"
        self.browser.show(url, 1280)
        expect(lambda: self.browser.texts("h1") == ["2 of 2 uplinks active"] or self.browser.show(url, 1280))
        with self.daemon.lock:
            self.daemon.fail(self.two)
        # The page itself takes up what comes.
        expect(lambda: self.browser.texts("h1") == ["1 of 2 uplinks active"])
        self.assertEqual(self.browser.texts("[data-uplink=eth1] .state"), ["failed"])
        self.assertIn("198.51.100.1 no answer (3 in a row)", self.browser.texts("[data-uplink=eth1] .details")[0])
        expect(lambda: "eth1 ipv4 active -> failed" in self.browser.texts("ol.events")[0])
        # The outage is in the picture before the history's next minute.
        expect(lambda: "going on" in " ".join(self.browser.texts("[data-uplink=eth1] table")), within=45)
        self.assertEqual(self.browser.texts("[data-uplink=eth0] table"), [])
        for width, scheme in VIEWS:
            with self.subTest(width=width, scheme=scheme):
                self.check_view("live", url, width, scheme)
        expect(lambda: not self.is_lost())
        # One that answers nothing more, like a router without power, ends no connection.
        watch.process.send_signal(signal.SIGSTOP)
        expect(self.is_lost, within=60)
        watch.process.send_signal(signal.SIGCONT)
        expect(lambda: not self.is_lost(), within=60)
        watch.kill(15)
        expect(self.is_lost, within=40)

    def is_lost(self):
        """Whether the page says that the watcher does not answer. (The text of what is hidden can be read as well.)"""
        return self.browser.run("const notice = document.getElementById('connection');"
                                " return !notice.hidden && notice.innerText.includes('does not answer')")


if __name__ == "__main__":
    main()
