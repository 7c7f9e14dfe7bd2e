"""The tour of test_lbcheck_live.py goes on with what the daemon itself has found of its uplinks (topology: look_scene.py)."""
from kit import expect, main, ping
from kit import echo_policies as policy
from kit.lbcheck import Look
from kit.lbroute import path_of, start
from look_scene import RoutedTour
from scenes import PREFIX, TARGET, one_uplink, two_uplinks


class HeldForFailed(RoutedTour):
    """What the daemon found, of which one echo of the checker's own may tell nothing."""

    def test_uplink_that_a_second_target_keeps_down(self):
        silent = "198.51.100.99"
        self.peers[0].echo = policy.only_to({TARGET})
        start(self.lab)
        self.lab.start(one_uplink(probes=[ping(TARGET, 300), ping(silent, 300)], check_all=True))
        words = ("gi1_1 (IPv4): the daemon holds it for failed", f"no answer of {silent}; mend: ping -I gi1_1 {silent}")
        expect(lambda: Look(self.router).with_words(*words), within=15)
        look = self.assert_finds("error", *words)
        self.assertEqual(look.status, 2)
        self.assert_finds("ok", f"{TARGET} answers through it", look=look)

        self.peers[0].echo = policy.answer
        expect(lambda: Look(self.router).with_words("ok gi1_1 (IPv4): the daemon holds it for active"), within=15)

    def test_uplink_that_came_into_the_configuration_after_the_start(self):
        start(self.lab)
        self.lab.start(one_uplink())
        expect(lambda: len(path_of(self.router, PREFIX) or ()) == 1, within=20)
        self.lab.write_conf(two_uplinks())
        look = self.assert_finds("error", "gi1_2 (IPv4): the daemon runs with another configuration, which has no such uplink",
                                 "mend: systemctl restart lb")
        self.assertEqual(look.status, 2)
        self.assert_finds("warning", "rules: the daemon runs with other rules", look=look)
        self.assertEqual(look.with_words("gi1_1", "another configuration"), [])


if __name__ == "__main__":
    main()
