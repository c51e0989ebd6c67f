"""Server records on trial: the servers have them at once, and what is not confirmed in time is taken back, whatever happens
meanwhile."""

import contextlib
import resource
import unittest

import harness
import rawhttp
import tarnbus

SERVICE_MANAGER = [68, 1]
NAME, PORT, TRIAL = ("s", 1), ("u", 2), ("u", 0x12)
RIGHTS = ("u", 0xff000b)
# Long enough for whatever a test does meanwhile; the most that there is.
LONG = 60


class Trial(harness.SystemTest):
    documents = {"a.xml": harness.directory_server("http", "/home/web")}
    web = {"a.txt": b"a"}

    def setUp(self):
        super().setUp()
        self.system.start("busd", "sermgr", "www")
        self.system.settle("sermgr")
        self.stored, self.tried = harness.free_port(), harness.free_port()
        self.change(tarnbus.SET, {PORT: self.stored})
        self.comes(self.stored)

    def ask(self, command, fields):
        """What the service manager answers; a program that was just started is not on the bus yet."""
        def answer():
            with tarnbus.Client(str(self.system.bus_path)) as client:
                reply = client.request(SERVICE_MANAGER, command, fields)
            error = tarnbus.error_of(reply)
            if error == tarnbus.UNREACHABLE:
                return None
            return (error or {key: value for key, value in reply.fields.items() if key[1] < 0xfe0000},)
        return harness.wait_until(answer, "an answer")[0]

    def change(self, command, fields):
        """A change that is made; a server that is too busy to answer in time has it all the same."""
        self.assertIsInstance(self.ask(command, {NAME: "http", **fields}), dict)

    def try_out(self, seconds):
        self.change(tarnbus.SET, {PORT: self.tried, TRIAL: seconds})

    def record(self):
        return self.ask(tarnbus.GET, {NAME: "http"})

    def served(self, port):
        with contextlib.suppress(OSError, EOFError):
            return rawhttp.get(port, "/a.txt").body == b"a"
        return False

    def comes(self, port):
        harness.wait_until(lambda: self.served(port), f"a page on port {port}")

    def comes_back(self):
        self.comes(self.stored)
        self.assertTrue(rawhttp.refuses(self.tried))
        record = self.record()
        self.assertEqual(record[PORT], self.stored)
        self.assertNotIn(TRIAL, record)

    def test_it_is_taken_back(self):
        self.try_out(2)
        self.system.wait_for_line("www", f"set http enabled=1 port={self.tried}")
        self.system.wait_for_line("sermgr", f"record http: enabled=1 port={self.tried}, on trial for 2 s")
        self.system.wait_for_line("sermgr", f"record http: enabled=1 port={self.stored}, taken back")
        self.comes_back()

    def test_it_is_confirmed(self):
        self.try_out(LONG)
        self.comes(self.tried)
        record = self.record()
        self.assertEqual(record[PORT], self.tried)
        self.assertTrue(1 <= record[TRIAL] <= LONG, record)
        self.change(tarnbus.SET, {})
        self.assertNotIn(TRIAL, self.record())
        self.system.restart("sermgr")
        self.system.restart("www")
        self.comes(self.tried)

    def test_another_trial_falls_back_to_what_is_stored(self):
        self.try_out(LONG)
        first, self.tried = self.tried, harness.free_port()
        self.try_out(2)
        harness.wait_until(lambda: rawhttp.refuses(first), "the first port to be closed")
        self.comes_back()

    def test_servers_that_start_are_given_it_until_the_service_manager_ends(self):
        self.try_out(LONG)
        self.system.restart("www")
        self.comes(self.tried)
        self.system.restart("sermgr")
        self.comes_back()

    def test_the_broker_goes_and_comes(self):
        self.try_out(3)
        self.system.restart("busd")
        self.comes_back()

    def test_its_time_is_up_without_a_broker(self):
        self.try_out(2)
        self.system.kill("busd")
        self.system.wait_for_line("sermgr", f"record http: enabled=1 port={self.stored}, taken back")
        self.system.start("busd")
        self.comes_back()

    def test_what_cannot_be_stored_is_taken_back(self):
        self.try_out(3)
        sermgr = self.system.programs["sermgr"]
        resource.prlimit(sermgr.pid, resource.RLIMIT_FSIZE, (0, resource.RLIM_INFINITY))
        self.assertEqual(self.ask(tarnbus.SET, {NAME: "http", PORT: self.tried})[0], 0xfe0011)
        self.comes_back()

    def test_nobody_is_let_in(self):
        """The lock-out itself: a prefix that nobody here lies in."""
        elsewhere = {("M", 6): [{("u", 1): 0x0A000000, ("u", 2): 0xFF000000}]}
        self.change(tarnbus.SET, {**elsewhere, TRIAL: LONG})
        harness.wait_until(lambda: not self.served(self.stored), "the page to be refused")
        self.assertEqual(self.record()[("M", 6)], elsewhere[("M", 6)])
        self.change(tarnbus.SET, {TRIAL: 1})
        self.comes(self.stored)
        self.assertNotEqual(self.record()[("M", 6)], elsewhere[("M", 6)])

    def test_the_record_is_removed_or_replaced(self):
        self.try_out(LONG)
        third = harness.free_port()
        self.change(tarnbus.ADD_OBJ, {PORT: third})
        self.comes(third)
        self.assertNotIn(TRIAL, self.record())
        self.try_out(LONG)
        self.change(tarnbus.REMOVE_OBJ, {})
        self.assertEqual(self.record(), (0xfe0006, "no such service"))
        harness.wait_until(lambda: rawhttp.refuses(self.tried), "the port to be closed")
        self.system.restart("sermgr")
        self.assertEqual(self.record(), (0xfe0006, "no such service"))

    def test_what_is_no_trial(self):
        for seconds in (0, LONG + 1, 0xFFFFFFFF):
            self.assertEqual(self.ask(tarnbus.SET, {NAME: "http", PORT: self.tried, TRIAL: seconds})[0], 0xfe0010)
        for field in ({("s", 0x12): "20"}, {("q", 0x12): 20}, {("U", 0x12): [20]}, {("b", 0x12): True}):
            self.assertEqual(self.ask(tarnbus.SET, {NAME: "http", PORT: self.tried, **field})[0], 0xfe0010)
        self.assertEqual(self.ask(tarnbus.ADD_OBJ, {NAME: "http", PORT: self.tried, TRIAL: 20})[0], 0xfe0010)
        self.assertEqual(self.ask(tarnbus.SET, {NAME: "other", TRIAL: 20})[0], 0xfe0006)
        self.assertEqual(self.ask(tarnbus.SET, {NAME: "http", PORT: self.tried, TRIAL: 20, RIGHTS: 0x10})[0], 0xfe0009)
        self.comes_back()


if __name__ == "__main__":
    unittest.main()
