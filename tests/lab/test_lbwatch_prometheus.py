"""The real Prometheus and its alert manager beside lbwatch: they scrape it, and an outage reaches who is to know."""
import http.server
import json
import os
import re
import shutil
import subprocess
import threading
import unittest

from kit import LabTest, expect, main
from kit import echo_policies as policy
from kit import sandbox
from kit.daemon import ROOT
from kit.lbwatch import Lbwatch
from kit.prometheus import UNPACKED, ask, program, query, run_beside, run_prometheus
from scenes import attach_two, two_uplinks

RULES = os.path.join(ROOT, "packaging/prometheus/lb.rules.yml")
RULE_TESTS = os.path.join(ROOT, "tests/prometheus/lb.rules.test.yml")
DASHBOARD = os.path.join(ROOT, "examples/grafana-dashboard.json")


@unittest.skipUnless(program("promtool"), "there is no promtool; scripts/deps unpacks it")
class Rules(LabTest):
    def test_alert_rules_fire_when_they_should(self):
        shutil.copy(RULES, self.folder)
        shutil.copy(RULE_TESTS, self.folder)
        done = subprocess.run([program("promtool"), "test", "rules", "lb.rules.test.yml"], cwd=self.folder,
                              capture_output=True, text=True, check=False)
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        with open(RULES, encoding="utf-8") as rules, open(RULE_TESTS, encoding="utf-8") as tests:
            names, tested = set(re.findall(r"alert: (\w+)", rules.read())), tests.read()
        self.assertEqual(len(names), 9)
        for name in names:
            self.assertIn(f"alertname: {name}\n", tested)
        with open(DASHBOARD, encoding="utf-8") as file:
            panels = {panel["title"]: panel["targets"] for panel in json.load(file)["panels"]}
        availability = panels["Availability over a day"][0]["expr"].replace("$router", ".*")
        self.assertIn(f"expr: '{availability}'\n", tested)


@unittest.skipUnless(program("prometheus") and program("prometheus-alertmanager"),
                     "there is no prometheus with its alert manager; scripts/deps unpacks both")
class Neighbours(LabTest):
    def setUp(self):
        super().setUp()
        os.system("ip link set lo up")
        self.peers = attach_two(self.lab)
        self.daemon = self.lab.start(two_uplinks(success=1, failure=2))
        self.watch = Lbwatch(self.folder, "--hooks", "none", "--listen", "127.0.0.1:9837")
        self.addCleanup(self.watch.close)
        for name in ("gi1_1", "gi1_2"):
            self.watch.expect_state(name, "active")

    def find_templates(self):
        """The alert manager wants its templates where its package would have put them."""
        unpacked = os.path.join(UNPACKED[1], "share")
        if os.path.isdir(unpacked):
            sandbox.mount("lab", "/usr/share", "overlay", options=f"lowerdir={unpacked}:/usr/share")
            self.addCleanup(sandbox.unmount, "/usr/share")

    def run_beside(self, name, *arguments):
        self.end_with_test(run_beside(name, self.folder, *arguments))

    def end_with_test(self, process):
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)

    def write(self, name, text):
        path = os.path.join(self.folder, name)
        with open(path, "w", encoding="utf-8") as file:
            file.write(text)
        return path

    def receiver(self):
        """What the alert manager posts, as it comes."""
        posted = []

        class Handler(http.server.BaseHTTPRequestHandler):
            def do_POST(self):  # pylint: disable=invalid-name
                posted.append(json.loads(self.rfile.read(int(self.headers["Content-Length"]))))
                self.send_response(200)
                self.end_headers()

            def log_message(self, *_):  # pylint: disable=arguments-differ
                pass

        server = http.server.ThreadingHTTPServer(("127.0.0.1", 5001), Handler)
        threading.Thread(target=server.serve_forever, daemon=True).start()
        self.addCleanup(server.server_close)
        self.addCleanup(server.shutdown)
        return posted

    def start_prometheus(self):
        self.find_templates()
        # The alerts wait for a minute; here for seconds.
        with open(RULES, encoding="utf-8") as file:
            self.write("quick.rules.yml", re.sub(r"for: \S+", "for: 1s", file.read()))
        self.write("alertmanager.yml", "route: {receiver: lab, group_wait: 1s, group_interval: 1s}\n"
                   "receivers: [{name: lab, webhook_configs: [{url: 'http://127.0.0.1:5001/'}]}]\n")
        self.write("prometheus.yml", "global: {scrape_interval: 1s, evaluation_interval: 1s}\n"
                   "rule_files: [quick.rules.yml]\n"
                   "scrape_configs: [{job_name: lb, static_configs: [{targets: ['127.0.0.1:9837']}]}]\n"
                   "alerting: {alertmanagers: [{static_configs: [{targets: ['127.0.0.1:9093']}]}]}\n")
        self.run_beside("prometheus-alertmanager", "--config.file=alertmanager.yml", "--storage.path=am",
                        "--cluster.listen-address=", "--web.listen-address=127.0.0.1:9093")
        self.end_with_test(run_prometheus(self.folder))
        expect(lambda: self.query("lb_up") == [1.0], within=60, what="Prometheus scrapes lbwatch")

    @staticmethod
    def query(expression):
        """The values of an instant query; none while Prometheus does not answer."""
        return [float(one["value"][1]) for one in query(expression)]

    @unittest.skipUnless(program("promtool"), "there is no promtool; scripts/deps unpacks it")
    def test_metrics_please_the_checker(self):
        text = ask(9837, "/metrics")
        done = subprocess.run([program("promtool"), "check", "metrics"], input=text, capture_output=True,
                              text=True, check=False)
        self.assertEqual((done.returncode, done.stdout, done.stderr), (0, "", ""))

    def test_outage_reaches_the_alert_manager_and_its_end_too(self):
        posted = self.receiver()
        self.start_prometheus()
        self.peers[1].echo = policy.silence
        failed = self.watch.expect_state("gi1_2", "failed")

        def alerts(status):
            return [alert for post in list(posted) for alert in post["alerts"] if alert["status"] == status]

        alert = expect(lambda: [one for one in alerts("firing") if one["labels"]["alertname"] == "LbUplinkDown"],
                       within=60)[0]
        self.assertEqual((alert["labels"]["uplink"], alert["labels"]["family"]), ("gi1_2", "ipv4"))
        self.peers[1].echo = policy.answer
        returned = self.watch.expect_state("gi1_2", "active")
        expect(lambda: [one for one in alerts("resolved") if one["labels"]["alertname"] == "LbUplinkDown"], within=90)
        # Prometheus tells of the outage what the events tell.
        expect(lambda: self.query('lb_uplink_transitions_total{uplink="gi1_2",to="failed"}') == [1.0])
        down = self.query('lb_uplink_down_seconds_total{uplink="gi1_2"}')[0]
        self.assertAlmostEqual(down, returned["after_s"], delta=1.5)
        self.assertEqual(self.query('lb_uplink_down_seconds_total{uplink="gi1_1"}'), [0.0])
        self.assertLess(failed["time"], returned["time"])
        self.check_dashboard()

    def check_dashboard(self):
        """Every question of the dashboard has an answer."""
        with open(DASHBOARD, encoding="utf-8") as file:
            panels = json.load(file)["panels"]
        asked = [target["expr"].replace("$router", ".*") for panel in panels for target in panel["targets"]]
        self.assertGreater(len(asked), 8)
        for expression in asked:
            if "lb_quality" not in expression and "[1h]" not in expression and "[1d]" not in expression:
                expect(lambda expression=expression: self.query(expression), within=30, what=expression)
            else:
                self.query(expression)

    def test_watcher_that_is_gone_and_daemon_that_is_stopped_are_alerts(self):
        posted = self.receiver()
        self.start_prometheus()
        self.daemon.kill()

        def fired():
            return {alert["labels"]["alertname"] for post in list(posted) for alert in post["alerts"]
                    if alert["status"] == "firing"}

        expect(lambda: "LbDaemonStale" in fired(), within=60)
        self.watch.kill(15)
        expect(lambda: "LbWatcherGone" in fired(), within=60)
        self.assertNotIn("LbUplinkDown", fired())


if __name__ == "__main__":
    main()
