"""Every system call of the supervisor fails, while it starts and when it starts a program anew.

It ends before it has started anything and says why, or goes on: whatever it could not start it starts a little later, all
that programs say is in its log, and nothing of what it started is left behind when it ends.
"""

import contextlib
import errno
import os
import signal
import time
import unittest

import faultbox
import harness
import test_calls

# Each failure needs a start of its own, since a program that ends again and again is started less and less often.
MOST_USES = 3 if test_calls.EVERY_ERROR else 2
# Without these it cannot hear of anything.
ENDING = ("epoll_create1", "signalfd", "epoll_ctl", "ioctl", "open", "read")


class SupervisorCalls(harness.SystemTest):
    def setUp(self):
        super().setUp()
        self.system.write("/tarn/etc/programs", "busd /bin/busd\nsysd /bin/sysd\nsermgr -/bin/lost\n")
        self.faults = faultbox.Faults(self.system, "tnrun")

    def start(self):
        # One that a failed check left behind.
        if "tnrun" in self.system.programs:
            self.system.kill("tnrun")
        self.system.programs["tnrun"] = program = harness.Program(self.system, "tnrun")
        return program

    def children(self):
        """Process ids of the supervisor's programs by their names."""
        parent = self.system.programs["tnrun"].pid
        found = {}
        with contextlib.suppress(OSError), open(f"/proc/{parent}/task/{parent}/children", encoding="ascii") as file:
            for pid in map(int, file.read().split()):
                with contextlib.suppress(OSError), open(f"/proc/{pid}/comm", encoding="ascii") as comm:
                    found[comm.read().strip()] = pid
        return found

    def all_run(self):
        """Waits until both programs run, and the one speaks through the other; their process ids."""
        def running():
            found = self.children()
            return found if {"busd", "sysd"} <= set(found) and "sysd" in self.system.tn("list").stdout else None
        return harness.wait_until(running, "both programs to run")

    def start_again(self):
        os.kill(self.children()["sysd"], signal.SIGKILL)

    def uses(self):
        """Calls and their uses while it starts, and when it starts a program anew."""
        self.start()
        old = self.all_run()
        first = self.faults.used()
        self.start_again()
        harness.wait_until(lambda: self.all_run()["sysd"] != old["sysd"], "another sysd")
        second = {name: count - first.get(name, 0) for name, count in self.faults.used().items()}
        self.system.stop("tnrun")
        return first, second

    def choices(self, uses):
        return test_calls.Calls.choices({name: min(count, MOST_USES) for name, count in uses.items()})

    def finish(self, call):
        """All is as it would be, and goes away in the end."""
        pids = self.all_run()
        # A pipe that cannot be read has no log, and what cannot be written is told by its number.
        if call not in ("read", "write"):
            self.system.wait_for_line("tnrun", "listening on /run/tn/bus")
        self.assertLess(len(self.system.lines("tnrun")), 100)
        self.system.stop("tnrun")
        self.nothing_left(pids)

    def nothing_left(self, pids):
        for name, pid in pids.items():
            harness.wait_until(lambda pid=pid: not os.path.exists(f"/proc/{pid}"), f"{name} to be gone")

    def test_at_its_start(self):
        ended = set()
        for call, use, error, times in self.choices(self.uses()[0]):
            with self.subTest(call=call, use=use, error=error, times=times):
                (self.system.folder / "tnrun.log").unlink()
                self.faults.forget_uses()
                self.faults.arm(call, error, use, times)
                program = self.start()
                harness.wait_until(lambda: program.ended() or self.faults.used().get("epoll_wait"), "it to start or to end")
                if not program.ended():
                    time.sleep(0.05)
                pids = self.children()
                failed = self.faults.disarm()
                if program.ended() or (call in ENDING and failed and self.ends(program)):
                    self.system.programs.pop("tnrun")
                    ended.add(call)
                    self.assertIn(call, ENDING)
                    self.assertEqual(program.wait(), 1)
                    self.assertIn(os.strerror(getattr(errno, error)), self.system.log("tnrun"))
                    self.nothing_left(pids)
                    self.assertNotIn("tnrun: started", self.system.log("tnrun"))
                else:
                    self.finish(call)
        self.assertTrue({"epoll_create1", "signalfd", "open"} <= ended, ended)

    def ends(self, program):
        """Whether it ends by itself: one whose programs run does not."""
        return harness.wait_until(lambda: "no" if self.children() else "yes" if program.ended() else None, "a start") == "yes"

    def test_when_it_starts_a_program_anew(self):
        for call, use, error, times in self.choices(self.uses()[1]):
            with self.subTest(call=call, use=use, error=error, times=times):
                (self.system.folder / "tnrun.log").unlink()
                program = self.start()
                old = self.all_run()
                self.faults.arm(call, error, use, times)
                self.start_again()
                # Until it has been tried once at the least.
                harness.wait_until(lambda: self.children().get("sysd", old["sysd"]) != old["sysd"]
                                   or any("cannot be started" in line for line in self.system.lines("tnrun"))
                                   or (call != "epoll_wait" and self.faults.failed()), "another sysd, or none")
                time.sleep(0.05)
                self.faults.disarm()
                self.assertFalse(program.ended(), self.system.log("tnrun"))
                harness.wait_until(lambda: self.children().get("sysd", old["sysd"]) != old["sysd"], "another sysd")
                self.finish(call)


if __name__ == "__main__":
    unittest.main()
