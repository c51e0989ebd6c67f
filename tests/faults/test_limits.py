"""The system at its limits: programs that are killed under load, no memory, a crowd of slow clients."""

import contextlib
import os
import resource
import select
import shutil
import socket
import subprocess
import threading
import time
import unittest
import unittest.mock
from pathlib import Path

import harness
import rawhttp
import tarnbus

MIB = 1 << 20
AS_ROOT = () if os.geteuid() == 0 else ("sudo",)
SERVICE_MANAGER, SYSTEM_STATUS = [68, 1], [24, 1]


class Loaded(harness.SystemTest):
    documents = {"a.xml": harness.directory_server("http", "/home/web")}
    web = {"a.txt": b"a", "large.bin": bytes(MIB)}
    programs = ("busd", "sermgr", "userd", "sysd", "www")

    def setUp(self):
        super().setUp()
        self.port = harness.free_port()
        self.system.start(*self.programs)
        self.set_port(self.port)
        harness.wait_until(self.served, "the first page")

    def set_port(self, port):
        """Asks the service manager for another port; its reply."""
        with tarnbus.Client(str(self.system.bus_path)) as client:
            harness.wait_until(lambda: {68} <= {number for number, _ in client.list()}, "the service manager to join")
            return client.request(SERVICE_MANAGER, tarnbus.SET, tarnbus.record("http", port))

    def served(self):
        with contextlib.suppress(OSError, EOFError):
            return rawhttp.get(self.port, "/a.txt").body == b"a"
        return False


class Killed(Loaded):
    def test_each_under_load(self):
        """Each program in turn is killed while all are asked, and started again: the others go on, and all is as before."""
        stop, wrong = threading.Event(), []

        def ask_pages():
            while not stop.is_set():
                with contextlib.suppress(OSError, EOFError):
                    if rawhttp.get(self.port, "/a.txt").body != b"a":
                        wrong.append("page")
                    if len(rawhttp.get(self.port, "/large.bin").body) != MIB:
                        wrong.append("large page")

        def ask_services():
            while not stop.is_set():
                with contextlib.suppress(OSError, tarnbus.BusError), tarnbus.Client(str(self.system.bus_path)) as client:
                    while not stop.is_set():
                        for path in (SERVICE_MANAGER, SYSTEM_STATUS):
                            reply = client.request(path, tarnbus.GET)
                            if not isinstance(reply, dict) and not reply.fields.get(tarnbus.IS_REPLY):
                                wrong.append(reply.fields)

        load = [threading.Thread(target=ask) for ask in (ask_pages, ask_pages, ask_services)]
        for thread in load:
            thread.start()
        try:
            for name in self.programs:
                time.sleep(0.1)
                self.system.restart(name)
                harness.wait_until(self.served, f"pages after {name} was killed")
                self.assertFalse(any(program.ended() for program in self.system.programs.values()), name)
        finally:
            stop.set()
            for thread in load:
                thread.join()
        self.assertEqual(wrong, [])
        self.port = harness.free_port()
        self.assertFalse(tarnbus.is_error(self.set_port(self.port)))
        harness.wait_until(self.served, "pages on the other port")


class Memory(Loaded):
    def test_little_is_enough(self):
        """A fixed amount of address space on top of what it has at rest is enough for a crowd and for large files."""
        www = self.system.programs["www"]
        at_rest = int(Path(f"/proc/{www.pid}/statm").read_text().split()[0]) * resource.getpagesize()
        resource.prlimit(www.pid, resource.RLIMIT_AS, (at_rest + 6 * MIB,) * 2)
        with contextlib.ExitStack() as crowd:
            for number in range(100):
                connection = crowd.enter_context(rawhttp.Connection.tcp(self.port))
                connection.send(b"GET /a.txt HTTP/1.1\r\nX-A: " + b"x" * (number * 40))
            for _ in range(5):
                self.assertEqual(len(rawhttp.get(self.port, "/large.bin").body), MIB)
        self.assertTrue(self.served())


class Storage(Loaded):
    """A store on a file system of a fixed size."""

    programs = ("busd", "sermgr", "www")

    def setUp(self):
        self.patch = unittest.mock.patch.object(harness.System, "_stage", self.stage(harness.System._stage))
        with self.patch:
            super().setUp()

    def stage(self, original):
        def staged(system, *arguments):
            original(system, *arguments)
            store = system.path("/rw/store")
            self.addCleanup(shutil.rmtree, system.folder, ignore_errors=True)  # what the mount kept the system from
            subprocess.run([*AS_ROOT, "mount", "-t", "tmpfs", "-o", "size=256k,mode=777", "tmpfs", store], check=True)
            # Lazily, since a namespace of a program that was just ended may still be on its way out.
            self.addCleanup(subprocess.run, [*AS_ROOT, "umount", "-l", store], check=True)
        return staged

    def test_a_record_that_cannot_be_kept(self):
        """A full store: the change is refused, the old record stands, and once there is room changes are kept again."""
        filler = self.system.path("/rw/store/filler")
        with open(filler, "wb", buffering=0) as file, contextlib.suppress(OSError):
            while file.write(bytes(4096)):
                pass
        refused = self.set_port(harness.free_port())
        self.assertTrue(tarnbus.is_error(refused), refused)
        self.assertTrue(self.served())
        self.system.restart("sermgr")
        self.system.restart("www")
        harness.wait_until(self.served, "the old record")
        filler.unlink()
        self.port = harness.free_port()
        self.assertFalse(tarnbus.is_error(self.set_port(self.port)))
        harness.wait_until(self.served, "the new record")


class Crowd(Loaded):
    COUNT = 1500

    def setUp(self):
        soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
        resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
        self.addCleanup(resource.setrlimit, resource.RLIMIT_NOFILE, (soft, hard))
        super().setUp()

    def test_slow_clients_beside_a_fast_one(self):
        """Clients that send a byte from time to time, and come again when they are sent away: somebody who asks is
        answered, again and again, and afterwards nothing is left of them."""
        descriptors = self.system.programs["www"].descriptors()
        stop = threading.Event()
        crowd = threading.Thread(target=self.crowd, args=(stop,))
        crowd.start()
        try:
            begun = time.monotonic()
            answered = 0
            while time.monotonic() < begun + 5 or answered < 5:
                answered += self.served()
                self.assertLess(time.monotonic(), begun + 60)
        finally:
            stop.set()
            crowd.join()
        harness.wait_until(lambda: self.system.programs["www"].descriptors() <= descriptors + 1, "the crowd to be forgotten")

    def crowd(self, stop):
        clients = {}
        poller = select.epoll()
        while not stop.is_set():
            while len(clients) < self.COUNT and not stop.is_set():
                sock = socket.socket()
                sock.setblocking(False)
                sock.connect_ex(("127.0.0.1", self.port))
                clients[sock.fileno()] = sock
                poller.register(sock.fileno(), select.EPOLLIN | select.EPOLLRDHUP)
            for number, _ in poller.poll(0.2):
                poller.unregister(number)
                clients.pop(number).close()
            for sock in list(clients.values())[::7]:
                with contextlib.suppress(OSError):
                    sock.send(b"G")
        for sock in [poller, *clients.values()]:
            sock.close()


if __name__ == "__main__":
    unittest.main()
