"""Files that may not grow: a limit on their size for each program, and a store without room for each that keeps something.

What cannot be kept is refused, what was kept stands, no program ends, and once there is room all is as before.
"""

import contextlib
import os
import resource
import shutil
import signal
import subprocess
import unittest
import unittest.mock

import harness
import rawhttp
import tarnbus

AS_ROOT = () if os.geteuid() == 0 else ("sudo",)
SERVICE_MANAGER, USERS, LOGIN, HOTSPOT, TLS = [68, 1], [13, 2], [13, 4], [63, 15], [12, 2]
SET_PASSWORD = 0x20001
NOTE = "/rw/store/first-login"
UNLIMITED = (resource.RLIM_INFINITY, resource.RLIM_INFINITY)


class Keeping(harness.SystemTest):
    """Everything that keeps something, and what it can be asked to keep."""

    documents = {"a.xml": harness.directory_server("http", "/home/web")}
    web = {"a.txt": b"a"}
    programs = ("busd", "sermgr", "userd", "sysd", "tlsd", "hotspotd", "www")

    def setUp(self):
        super().setUp()
        self.port = harness.free_port()
        self.system.start(*self.programs)
        for name in ("sermgr", "userd", "hotspotd", "tlsd"):
            self.system.bus_id(name)
        self.user = dict(line.split(" ", 1) for line in self.system.path(NOTE).read_text().splitlines())
        self.assertEqual(self.move(self.port), None)
        harness.wait_until(self.served, "the first page")

    def ask(self, path, command, fields):
        """The error of a change, None when it was taken. A program that was just started is not on the bus yet."""
        def answer():
            with tarnbus.Client(str(self.system.bus_path)) as client:
                error = tarnbus.error_of(client.request(path, command, fields))
            return None if error and error[1] == "unreachable" else (error,)
        return harness.wait_until(answer, "an answer")[0]

    def move(self, port):
        return self.ask(SERVICE_MANAGER, tarnbus.SET, tarnbus.record("http", port))

    def change_password(self, password):
        return self.ask(USERS, SET_PASSWORD, {("s", 1): "admin", ("s", 3): password})

    def log_in(self, password):
        return self.ask(LOGIN, 1, {("s", 1): "admin", ("s", 3): password, ("u", 7): 5, ("b", 8): True,
                                   ("a", 0xff0013): bytes(10) + b"\xff\xff\x0a\x00\x00\x01"})

    def name_hotspot(self, title):
        return self.ask(HOTSPOT, tarnbus.SET, {("s", 1): title})

    def served(self):
        with contextlib.suppress(OSError, EOFError):
            return rawhttp.get(self.port, "/a.txt").body == b"a"
        return False

    def everything_is_refused(self):
        self.assertIsNotNone(self.move(harness.free_port()))
        self.assertIsNotNone(self.change_password("another password"))
        self.assertIsNotNone(self.name_hotspot("Another"))
        self.everything_stands()

    def everything_stands(self):
        harness.wait_until(self.served, "a page on the port that stands")
        self.assertIsNone(self.log_in(self.user["password"]))
        for name, program in self.system.programs.items():
            self.assertFalse(program.ended(), f"{name}: {self.system.log(name)[-2000:]}")

    def everything_is_taken(self):
        self.port = harness.free_port()
        self.assertIsNone(self.move(self.port))
        self.assertIsNone(self.change_password("another password"))
        self.user["password"] = "another password"
        self.assertIsNone(self.name_hotspot("Another"))
        self.everything_stands()


class FileSize(Keeping):
    """A limit of nothing, which ends a program by a signal unless it says that it wants the error."""

    def limit(self, limits):
        for program in self.system.programs.values():
            resource.prlimit(program.pid, resource.RLIMIT_FSIZE, limits)

    def test_no_file_may_grow(self):
        self.limit((0, resource.RLIM_INFINITY))
        self.everything_is_refused()
        # Their logs are files as well: each has something to tell of a broker that goes and comes.
        self.system.restart("busd")
        for name in self.programs[1:]:
            self.system.bus_id(name)
        self.everything_is_refused()
        self.limit(UNLIMITED)
        self.everything_is_taken()


class FullStore(Keeping):
    """A store on a file system of a fixed size."""

    def setUp(self):
        with unittest.mock.patch.object(harness.System, "_stage", self.stage(harness.System._stage)):
            super().setUp()

    def stage(self, original):
        def staged(system, *arguments):
            original(system, *arguments)
            store = system.path("/rw/store")
            self.addCleanup(shutil.rmtree, system.folder, ignore_errors=True)  # what the mount kept the system from
            subprocess.run([*AS_ROOT, "mount", "-t", "tmpfs", "-o", "size=512k,mode=777", "tmpfs", store], check=True)
            # Lazily, since a namespace of a program that was just ended may still be on its way out.
            self.addCleanup(subprocess.run, [*AS_ROOT, "umount", "-l", store], check=True)
        return staged

    def fill(self):
        filler = self.system.path("/rw/store/filler")
        with open(filler, "wb", buffering=0) as file, contextlib.suppress(OSError):
            while file.write(bytes(4096)):
                pass
        return filler

    def test_nothing_more_can_be_kept(self):
        filler = self.fill()
        self.everything_is_refused()
        for name in self.programs:
            self.system.restart(name)
        self.everything_is_refused()
        filler.unlink()
        self.everything_is_taken()

    def test_a_new_system_without_room(self):
        """No program finds room for what it keeps first: none serves secrets that it could not keep, and once there is
        room a system comes up as a new one does."""
        for name in ("userd", "hotspotd", "tlsd", "sermgr"):
            self.system.kill(name)
        store = self.system.path("/rw/store")
        for path in store.iterdir():
            shutil.rmtree(path) if path.is_dir() else path.unlink()
        filler = self.fill()
        started = {name: harness.Program(self.system, name) for name in ("userd", "hotspotd", "tlsd", "sermgr")}
        self.system.programs.update(started)
        self.assertIsNotNone(self.move(harness.free_port()))
        for name in started:
            program = self.system.programs.pop(name)
            # Before it turns it would be ended by the signal itself.
            harness.wait_until(lambda name=name, program=program: program.ended() or name in self.system.tn("list").stdout.split(),
                               f"{name} to end, or to join the bus")
            with contextlib.suppress(ProcessLookupError):
                program.signal(signal.SIGTERM)
            self.assertIn(program.wait(), (0, 1), self.system.log(name))
        filler.unlink()
        self.system.start(*started)
        harness.wait_until(self.system.path(NOTE).exists, "a note of a new password")
        self.user = dict(line.split(" ", 1) for line in self.system.path(NOTE).read_text().splitlines())
        self.everything_is_taken()


class Supervised(harness.SystemTest):
    def test_no_file_may_grow(self):
        """The supervisor itself, and what it starts under its limit."""
        self.system.start("tnrun")
        tnrun = self.system.programs["tnrun"]
        harness.wait_until(lambda: "sysd" in self.system.tn("list").stdout, "sysd to join the bus")
        resource.prlimit(tnrun.pid, resource.RLIMIT_FSIZE, (0, resource.RLIM_INFINITY))
        for _ in range(2):
            old = self.child("sysd")
            os.kill(old, signal.SIGKILL)
            harness.wait_until(lambda pid=old: self.child("sysd") not in (None, pid), "another sysd")
        harness.wait_until(lambda: "sysd" in self.system.tn("list").stdout, "sysd to join the bus again")
        self.assertFalse(tnrun.ended())

    def child(self, name):
        """The supervisor's child of that name."""
        parent = self.system.programs["tnrun"].pid
        with open(f"/proc/{parent}/task/{parent}/children", encoding="ascii") as file:
            for pid in map(int, file.read().split()):
                with contextlib.suppress(OSError), open(f"/proc/{pid}/comm", encoding="ascii") as comm:
                    if comm.read().strip() == name:
                        return pid
        return None


if __name__ == "__main__":
    unittest.main()
