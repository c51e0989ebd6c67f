"""Records that change while connections come, are served, and are under way to the TLS service and back."""

import os
import random
import socket
import threading
import time
import unittest

import harness
import rawhttp
import tarnbus

CHANGES = 200
BODY = b"a" * 100000


class Worker(threading.Thread):
    """Does something until it is told to stop. What it did not expect is raised where it is joined."""

    def __init__(self, seed):
        super().__init__(daemon=True)
        self.random = random.Random(seed)
        self.over = threading.Event()
        self.trouble = None
        self.done = 0

    def run(self):
        while not self.over.is_set():
            try:
                self.once()
            except (OSError, EOFError):
                pass  # refused, cut off, or nothing to do
            except Exception as trouble:  # pylint: disable=broad-except
                self.trouble = trouble
                return

    def stop(self):
        self.over.set()
        self.join()
        if self.trouble:
            raise self.trouble


class TlsService(Worker):
    """Answers each hand-over in one of the ways that a service can, most often as it should."""

    def __init__(self, bus):
        super().__init__(seed=1)
        self.bus = bus

    def once(self):
        request = self.bus.receive(timeout=0.2)
        self.done += 1
        way = self.random.randrange(6)
        if way == 0:
            self.bus.reply_error(request, 0xfe0006, "refused")
        elif way == 1:
            for end in socket.socketpair():
                with end:
                    self.bus.reply(request, {}, fd=end.fileno())
        elif way == 2:
            self.bus.reply(request, {})
        else:
            self.bus.reply(request, {}, fd=request.fd)
        os.close(request.fd)


class Visitor(Worker):
    """Asks for the page, or goes away at some point before it has come."""

    def __init__(self, port, seed):
        super().__init__(seed)
        self.port = port

    def once(self):
        with rawhttp.Connection.tcp(self.port) as connection:
            way = self.random.randrange(4)
            if way == 0:
                return
            connection.request("/a.txt", *(["Connection: close"] if way == 1 else []))
            if way == 2:
                return
            response = connection.read_response()
            if (response.status, response.body) != (200, BODY):
                raise AssertionError(f"{response.status_line}, {len(response.body)} bytes")
            self.done += 1


class Changes(harness.SystemTest):
    documents = {"a.xml": '<www><server name="http"><servlet type="dir" path="/" root="/home/web"/></server>'
                          '<server name="https" ssl="yes"><servlet type="dir" path="/" root="/home/web"/></server>'
                          '</www>'}
    web = {"a.txt": BODY}

    def setUp(self):
        super().setUp()
        self.ports = {"http": self.system.serve("http"), "https": self.system.serve("https", tls_ref=1)}
        self.bus = self.system.bus()
        self.www = self.system.bus_id("www")

    def change(self, choice):
        """Sends one command about one of the servers."""
        name = choice.choice(list(self.ports))
        record = tarnbus.record(name, self.ports[name], tls_ref=1)
        command = tarnbus.SET
        way = choice.randrange(6)
        if way == 0:
            record["b", 0xfe000a] = True
        elif way == 1:
            command = tarnbus.REMOVE_OBJ
        elif way == 2:
            record["M", 6] = [{("u", 1): 0x0a000000, ("u", 2): 0xff000000}]
        elif way == 3:
            command = tarnbus.ADD_OBJ
        self.assertFalse(tarnbus.is_error(self.bus.request([self.www, 1], command, record)))

    def test_nothing_is_left_of_what_was_under_way(self):
        www = self.system.programs["www"]
        rawhttp.get(self.ports["http"], "/a.txt")
        idle = www.descriptors()
        service = TlsService(self.system.bus(id=12, name="tls"))
        visitors = [Visitor(port, seed) for port in self.ports.values() for seed in range(3)]
        for worker in (service, *visitors):
            worker.start()
        choice = random.Random(7)
        for _ in range(CHANGES):
            self.change(choice)
            time.sleep(choice.random() * 0.02)
        for name, port in self.ports.items():
            self.bus.request([self.www, 1], tarnbus.SET, tarnbus.record(name, port, tls_ref=1))
        harness.wait_until(lambda: all(visitor.done for visitor in visitors), "every visitor to be served")
        for worker in (*visitors, service):
            worker.stop()
        self.assertGreater(service.done, 0)
        harness.wait_until(lambda: www.descriptors() <= idle, "descriptors to be given back")
        self.assertEqual(rawhttp.get(self.ports["http"], "/a.txt").body, BODY)


if __name__ == "__main__":
    unittest.main()
