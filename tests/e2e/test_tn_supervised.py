"""The bus command line under the supervisor, which tells the log and how the programs are."""

import json
import re
import signal
import unittest

import harness
import test_tn


class Supervised(test_tn.CommandLineTest):
    """What the supervisor tells: the log and its programs."""

    def setUp(self):
        super().setUp()
        self.system.start("tnrun")
        harness.wait_until(lambda: "www" in self.system.tn("list").stdout.split(), "the programs to be on the bus")
        for name in ("tnrun", "sermgr", "userd", "sysd", "tlsd", "hotspotd", "www"):
            self.system.bus_id(name)

    def test_the_log_is_shown_and_followed(self):
        shown = harness.wait_until(lambda: self.tn("log", "-p", "www", "adding server http,"), "the line of www to be kept")
        self.assertRegex(shown, r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} www: adding server http, ssl=0\n$")
        line = json.loads(self.tn("log", "-j", "-n", "1"))
        self.assertEqual(set(line) - {"error-output"}, {"number", "time-ms", "program", "text"})
        process = self.start_tn("log", "-f", "set http enabled=0")
        port = harness.free_port()
        self.system.tn("servers", "set", "http", f"port={port}", "enabled=no")
        self.assertIn("www: set http enabled=0", process.stdout.readline())
        process.send_signal(signal.SIGTERM)
        process.communicate(timeout=harness.PATIENCE)

    def test_the_status_knows_the_programs(self):
        def is_known():
            programs = json.loads(self.tn("status", "-j"))["supervisor"]["programs"]
            return all(program["pid"] and program["answers"] for program in programs) and programs
        names = [program["name"] for program in harness.wait_until(is_known, "all programs to answer")]
        self.assertIn("sermgr", names)
        harness.wait_until(lambda: re.search(r"(?m)^ *68 +sermgr +\d+ +runs ", self.tn("status")), "sermgr to be listed")


if __name__ == "__main__":
    unittest.main()
