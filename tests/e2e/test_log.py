"""The supervisor's word of its programs and of their log, with the whole system running."""

import contextlib
import os
import re
import signal
import subprocess
import unittest

import harness
import rawhttp
import tarnbus

PROGRAMS, LOG = [2, 1], [2, 2]
ORDER = ["busd", "sermgr", "userd", "sysd", "tlsd", "hotspotd", "www"]
FLOOD = 100_000
FLOOD_LINE = "failed to remove server flood{}: unknown server"


class Supervised(harness.SystemTest):
    def start(self):
        self.system.start("tnrun")

    def setUp(self):
        super().setUp()
        self.start()
        harness.wait_until(self.broker_takes_programs, "the broker")
        self.bus = self.system.bus()
        for name in ("tnrun", *ORDER[1:]):
            self.system.bus_id(name)

    def broker_takes_programs(self):
        with contextlib.suppress(OSError, tarnbus.BusError):
            tarnbus.Client(str(self.system.bus_path)).close()
            return True
        return False

    def programs(self):
        answer = self.bus.request(PROGRAMS, tarnbus.GET)
        return {entry[("s", 1)]: entry for entry in answer.fields[("M", 1)]}

    def programs_that_answer(self):
        """All of them; nothing while one does not answer."""
        programs = self.programs()
        return programs if all(entry[("b", 6)] for entry in programs.values()) else None

    def log(self, after=None, most=None, containing=None, program=None):
        fields = {("q", 1): after, ("u", 2): most, ("s", 3): containing, ("s", 4): program}
        question = {key: value for key, value in fields.items() if value is not None}
        return self.bus.request(LOG, tarnbus.GET_ALL, question).fields

    def texts(self, **question):
        return [line[("s", 4)] for line in self.log(**question)[("M", 1)]]

    def flood(self, count):
        """Has www write so many lines, one for each message. What it handles is what it has written, or soon will."""
        www = self.system.bus_id("www")
        for i in range(count):
            fields = {("s", 1): f"flood{i}"}
            if i % 500 == 499:
                self.bus.request([www, 1], tarnbus.REMOVE_OBJ, fields)
            else:
                self.bus.send([www, 1], tarnbus.REMOVE_OBJ, fields)


class Whole(Supervised):
    def test_programs_are_told(self):
        programs = harness.wait_until(self.programs_that_answer, "all programs to answer")
        self.assertEqual(list(programs), ORDER)
        for name, entry in programs.items():
            with open(f"/proc/{entry[('u', 3)]}/comm", encoding="ascii") as file:
                self.assertEqual(file.read().strip(), name)
            self.assertEqual(entry[("u", 4)], 0)
        self.assertEqual([programs[name][("u", 2)] for name in ("busd", "sermgr", "userd", "sysd")], [0, 68, 13, 24])
        self.assertEqual(programs["www"][("u", 2)], self.system.bus_id("www"))
        self.assertGreater(programs["www"][("q", 7)], 0)

        old = programs["www"][("u", 3)]
        os.kill(old, signal.SIGKILL)
        again = harness.wait_until(lambda: (entry := self.programs()["www"])[("u", 4)] == 1 and entry[("b", 6)] and entry,
                                   "www to be started again")
        self.assertNotEqual(again[("u", 3)], old)

    def test_lines_come_through_as_they_were_written(self):
        port = harness.free_port()
        self.assertFalse(tarnbus.is_error(self.bus.request([68, 1], tarnbus.SET, {("s", 1): "http", ("u", 2): port})))
        line = f"set http enabled=1 port={port}"
        self.system.wait_for_line("tnrun", line)
        harness.wait_until(lambda: line in self.texts(program="www", most=500), "the line in the log")
        # The same lines in the same order, there and here, once no more of them come. Those about the bus are not its alone:
        # every program that comes before the broker takes connections writes them.
        def both():
            kept = [text for text in self.texts(program="www", most=500) if not text.startswith("bus: ")]
            file = [text for text in self.system.lines("tnrun") if text in set(kept)]
            return kept, file[-len(kept):]
        with contextlib.suppress(AssertionError):
            harness.wait_until(lambda: both()[0] == both()[1], "the same lines")
        kept, file = both()
        self.assertEqual(file, kept)
        self.assertEqual(self.texts(program="sermgr", containing=line), [])

    def test_the_supervisors_own_words(self):
        os.kill(self.programs()["www"][("u", 3)], signal.SIGKILL)
        line = "tnrun: www was ended by signal 9, starting again in 200 ms"
        self.system.wait_for_line("tnrun", line)
        told = next(entry for entry in self.log(program="tnrun", most=500)[("M", 1)] if entry[("s", 4)] == line)
        self.assertTrue(told[("b", 5)])

    def test_a_flood_is_survived(self):
        self.flood(FLOOD)
        dropped = re.compile(r"log: (\d+) lines dropped")

        def lines():
            return [line for line in self.system.lines("tnrun") if line.startswith("failed to remove server flood")]

        def told():
            return sum(int(match[1]) for match in map(dropped.fullmatch, self.system.lines("tnrun")) if match)
        harness.wait_until(lambda: len(lines()) + told() == FLOOD, "every line, or the word that it was dropped")
        numbers = [int(re.fullmatch(FLOOD_LINE.format(r"(\d+)"), line)[1]) for line in lines()]
        self.assertEqual(numbers, sorted(set(numbers)))
        # Here are the last of them, and how many are gone.
        answer = self.log(most=500, program="www")
        kept = [line[("s", 4)] for line in answer[("M", 1)]]
        self.assertEqual(set(kept) - set(self.system.lines("tnrun")), set())
        self.assertGreater(answer[("q", 3)], FLOOD // 2)
        harness.wait_until(self.programs_that_answer, "all programs to answer")

    def test_what_is_new_since_a_number(self):
        newest = self.log()[("q", 2)]
        self.assertEqual(self.log(after=newest)[("q", 3)], 0)
        self.flood(10)
        harness.wait_until(lambda: len(self.texts(after=newest, containing="flood")) == 10, "ten lines")
        self.assertEqual(self.texts(after=newest, containing="flood", most=2),
                         [FLOOD_LINE.format(8), FLOOD_LINE.format(9)])
        self.assertGreater(len(self.texts(after=10 ** 15)), 0)


class Stalled(Supervised):
    """Nobody reads the supervisor's output: a terminal that was stopped."""

    def start(self):
        reading, writing = os.pipe()
        self.addCleanup(os.close, reading)
        pid_file = self.system.folder / "stalled.pid"
        self.process = subprocess.Popen([harness.ENTER, "-p", pid_file, self.system.root, "/bin/tnrun"],
                                        stdin=subprocess.DEVNULL, stdout=writing, stderr=writing, start_new_session=True)
        os.close(writing)
        self.addCleanup(self.process.wait)
        self.addCleanup(self.process.kill)

    def test_nothing_else_stalls(self):
        port = harness.free_port()
        self.bus.request([68, 1], tarnbus.SET, {("s", 1): "http", ("u", 2): port})
        # More than the pipe, the supervisor and the pipes of www hold together.
        self.flood(20_000)
        harness.wait_until(lambda: rawhttp.answers(port), "the page")
        www = self.system.bus_id("www")

        def comes_through():
            # What the supervisor did not take in time was dropped, also the last line of the flood. One after it comes.
            self.bus.request([www, 1], tarnbus.REMOVE_OBJ, {("s", 1): "later"})
            return "failed to remove server later: unknown server" in self.texts(most=500)
        harness.wait_until(comes_through, "a line after the flood")
        old = self.programs()["www"][("u", 3)]
        os.kill(old, signal.SIGKILL)
        harness.wait_until(lambda: self.programs()["www"][("u", 4)] == 1, "www to be started again")
        harness.wait_until(lambda: rawhttp.answers(port), "the page again")


if __name__ == "__main__":
    unittest.main()
