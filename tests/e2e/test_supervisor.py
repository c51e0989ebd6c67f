"""The whole system under its supervisor: what ends comes back, what hangs is killed, and at the end nothing is left."""

import os
import signal
import unittest

import harness
import rawhttp

ORDER = ("busd", "sermgr", "userd", "sysd", "tlsd", "hotspotd", "www")


class Supervised(harness.SystemTest):
    def setUp(self):
        super().setUp()
        self.port = harness.free_port()
        self.system.start("tnrun")
        harness.wait_until(lambda: "sermgr" in self.members(), "sermgr to join the bus")
        self.system.tn("call", "68/1", "set", f"{{s1:'http',u2:{self.port}}}")
        self.await_page()

    def members(self):
        return self.system.tn("list").stdout

    def await_page(self):
        harness.wait_until(lambda: rawhttp.answers(self.port), "the page")

    def children(self):
        """The supervisor's children by name, once each program of the list is there."""
        def all_of_them():
            found = self.processes()
            return found if set(found) == set(ORDER) else None
        return harness.wait_until(all_of_them, "all programs to run")

    def processes(self):
        """Name and process id of the supervisor's children that run now."""
        parent = self.system.programs["tnrun"].pid
        with open(f"/proc/{parent}/task/{parent}/children", encoding="ascii") as file:
            children = [int(word) for word in file.read().split()]
        found = {}
        for pid in children:
            try:
                with open(f"/proc/{pid}/comm", encoding="ascii") as file:
                    found[file.read().strip()] = pid
            except OSError:
                pass
        return found

    def await_another(self, name, old):
        return harness.wait_until(lambda: self.processes().get(name, old) != old, f"another {name}")

    def test_everything_that_is_killed_comes_back(self):
        for name in ORDER:
            with self.subTest(name):
                old = self.children()[name]
                os.kill(old, signal.SIGKILL)
                self.await_another(name, old)
                self.await_page()
        self.assertIn("tnrun: www was ended by signal 9, starting again in 200 ms", self.system.lines("tnrun"))

    def test_a_server_that_hangs_is_killed_and_comes_back(self):
        others = self.children()
        hung = others.pop("www")
        os.kill(hung, signal.SIGSTOP)
        self.await_another("www", hung)
        self.await_page()
        self.assertEqual({name: pid for name, pid in self.children().items() if name != "www"}, others)

    def test_a_broker_that_hangs_is_killed_and_nobody_else(self):
        others = self.children()
        hung = others.pop("busd")
        os.kill(hung, signal.SIGSTOP)
        self.await_another("busd", hung)
        self.await_page()
        harness.wait_until(lambda: all(name in self.members() for name in ("sermgr", "www")), "all to join again")
        self.assertEqual({name: pid for name, pid in self.children().items() if name != "busd"}, others)

    def test_told_to_end_it_leaves_nothing_behind(self):
        pids = list(self.children().values())
        self.system.stop("tnrun")
        self.assertEqual([pid for pid in pids if os.path.exists(f"/proc/{pid}")], [])
        self.assertTrue(rawhttp.refuses(self.port))

    def test_killed_itself_it_takes_the_others_along(self):
        pids = list(self.children().values())
        self.system.kill("tnrun")
        harness.wait_until(lambda: not any(os.path.exists(f"/proc/{pid}") for pid in pids), "all to be gone")

    def test_a_program_that_does_not_end_is_killed(self):
        stuck = self.children()["sermgr"]
        os.kill(stuck, signal.SIGSTOP)
        self.system.stop("tnrun")
        self.assertFalse(os.path.exists(f"/proc/{stuck}"))
        self.assertIn("tnrun: sermgr does not end and is killed", self.system.lines("tnrun"))


class List(harness.SystemTest):
    def expect_refused(self, text, line):
        self.system.write("/tarn/etc/programs", text)
        self.system.start("tnrun")
        self.assertEqual(self.system.programs.pop("tnrun").wait(), 1)
        self.assertEqual(self.system.lines("tnrun")[-1], line)

    def test_a_list_with_a_bad_line_is_refused(self):
        self.expect_refused("busd /bin/busd\nwww bin/www\n", "/tarn/etc/programs:2: a path begins with \"/\"")

    def test_a_list_without_a_broker_is_refused(self):
        self.expect_refused("www /bin/www\n", "/tarn/etc/programs: no program is named busd")

    def test_a_missing_list_is_told(self):
        self.system.path("/tarn/etc/programs").unlink()
        self.system.start("tnrun")
        self.assertEqual(self.system.programs.pop("tnrun").wait(), 1)
        self.assertEqual(self.system.lines("tnrun"), ["/tarn/etc/programs: No such file or directory"])

    def test_a_program_that_is_not_there_is_tried_again(self):
        self.system.write("/tarn/etc/programs", "busd /bin/busd\nlost /bin/lost\n")
        self.system.start("tnrun")
        self.system.wait_for_line(
            "tnrun", "tnrun: lost cannot be started (No such file or directory), starting again in 400 ms")

    def test_a_program_that_is_optional_may_be_missing(self):
        self.system.write("/tarn/etc/programs", "busd /bin/busd\nlost -/bin/lost\nwww -/bin/www\n")
        self.system.start("tnrun")
        harness.wait_until(lambda: " www" in self.system.tn("list").stdout, "the server to join the bus")
        self.system.wait_for_line("tnrun", "tnrun: lost is not installed")
        self.system.stop("tnrun")
        self.assertFalse([line for line in self.system.lines("tnrun") if "lost cannot" in line])


if __name__ == "__main__":
    unittest.main()
