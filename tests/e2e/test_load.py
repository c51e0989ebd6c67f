"""Many connections at once, slow ones and hostile ones: the limit holds, and everybody else is served."""

import os
import random
import resource
import select
import socket
import struct
import time
import unittest

import forwarding
import harness
import rawhttp
import tarnbus

LARGE = os.urandom(1 << 16) * 64  # 4 MiB
LIMIT = 1001
REQUEST = b"GET /a.txt HTTP/1.1\r\nHost: x\r\n\r\n"
# How many seconds the server waits for the rest of a request, and for the service that a request is forwarded to.
REST, ANSWER = 2.5, 5.5


class Load(harness.SystemTest):
    documents = {"a.xml": harness.directory_server("http", "/home/web")}
    web = {"a.txt": b"a", "large.bin": LARGE}

    def setUp(self):
        super().setUp()
        soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
        resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
        self.addCleanup(resource.setrlimit, resource.RLIMIT_NOFILE, (soft, hard))
        self.port = self.system.serve("http")
        self.www = self.system.programs["www"]
        self.idle_descriptors = self.www.descriptors()

    def tearDown(self):
        # Whatever happened, the server goes on, holds nothing of it, and rests.
        harness.wait_until(lambda: self.www.descriptors() <= self.idle_descriptors + 3, "descriptors to be given back")
        self.assertEqual(rawhttp.get(self.port, "/a.txt").body, b"a")

    def connect(self, count):
        connections = []
        for _ in range(count):
            connections.append(rawhttp.Connection.tcp(self.port))
            self.addCleanup(connections[-1].close)
        return connections

    def established(self):
        return self.www.descriptors() - self.idle_descriptors

    def fill(self, request=b"half a header", seconds=REST):
        """Opens as many connections as the server takes at once, each with such a request, or with half of one; None when
        it took so long that the first ones have been ended for being slow. They come over a local listener, whose queue
        makes a client wait where that of TCP makes it try again a second later."""
        port = harness.free_port()
        self.system.send_record(tarnbus.record("guests", port), tarnbus.ADD_OBJ)
        self.idle_descriptors = self.www.descriptors()
        begun = time.monotonic()
        connections = []
        for _ in range(LIMIT):
            connections.append(rawhttp.Connection.unix(port))
            connections[-1].send(request)
        while time.monotonic() < begun + seconds:
            if self.established() == LIMIT:
                return connections
        self.drain(connections)
        return None

    def drain(self, connections):
        for connection in connections:
            connection.close()
        harness.wait_until(lambda: self.established() <= 1, "the connections to be gone")

    def test_the_limit_is_a_thousand_and_one(self):
        """The thousand and first connection is taken, the next waits in the queue until there is room."""
        readable, established, response = harness.wait_until(self.look_at_the_limit, "1001 connections at once", 120)
        self.assertEqual(readable, [])
        self.assertEqual(established, LIMIT)
        self.assertEqual(response.body, b"a")
        self.assertEqual(response.header("connection"), "close")  # more than a hundred are open

    def look_at_the_limit(self):
        """What was seen of one connection more, whether it was answered, how many there were, and its answer; nothing when
        it took so long that the others have not all been there to the end. They wait for a service."""
        begun = time.monotonic()
        with tarnbus.Client(str(self.system.bus_path), id=63, name="hotspot") as service:
            connections = self.fill(forwarding.header(self.system) + b"GET / HTTP/1.1\r\n\r\n", ANSWER)
            if connections is None:
                return None
            waiting = self.connect(1)[0]
            waiting.send(REQUEST)
            readable, _, _ = select.select([waiting.socket], [], [], 0.2)
            established = self.established()
            # Room for it: one that was answered ends, since there are many.
            service.reply(service.receive(), {forwarding.STATUS: 200})
            response = waiting.read_response()
            in_time = time.monotonic() < begun + ANSWER
        self.drain(connections)
        return (readable, established, response) if in_time else None

    def test_fifteen_hundred_clients(self):
        """A thousand and one slow ones do not keep five hundred honest ones from their answers."""
        slow = harness.wait_until(self.fill, "1001 connections at once", 120)
        self.honest, self.poller, self.answered = {}, select.epoll(), 0
        for _ in range(1500 - LIMIT):
            sock = socket.socket()
            sock.setblocking(False)
            sock.connect_ex(("127.0.0.1", self.port))
            self.honest[sock.fileno()] = sock
            self.poller.register(sock.fileno(), select.EPOLLOUT)
            # Those that find the short queue full try again later, and not all at the same moment.
            self.serve_honest(0.01)
        harness.wait_until(lambda: self.serve_honest(1), "everybody to be answered", 120)
        self.assertEqual(self.answered, 1500 - LIMIT)
        for sock in [self.poller, *slow]:
            sock.close()

    def serve_honest(self, seconds):
        """One turn of the honest clients: each sends its request when it is connected, and takes the answer. True when
        none is left."""
        for number, event in self.poller.poll(seconds):
            sock = self.honest[number]
            if event & select.EPOLLOUT:
                sock.send(b"GET /a.txt HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n")
                self.poller.modify(number, select.EPOLLIN)
                continue
            data = sock.recv(4096)
            self.answered += data.startswith(b"HTTP/1.1 200 OK\r\n") and data.endswith(b"\r\n\r\na")
            self.poller.unregister(number)
            self.honest.pop(number).close()
        return not self.honest

    def test_slow_readers_do_not_hold_the_others(self):
        # A server that waited for one of them would wait for ever, and the others with it.
        slow = []
        for _ in range(50):
            connection = rawhttp.Connection(socket.socket())
            connection.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
            connection.socket.connect(("127.0.0.1", self.port))
            self.addCleanup(connection.close)
            connection.request("/large.bin")
            slow.append(connection)
        for _ in range(100):
            self.assertEqual(rawhttp.get(self.port, "/a.txt").body, b"a")
        self.assertEqual(rawhttp.get(self.port, "/large.bin").body, LARGE)
        for connection in slow:
            connection.close()

    def test_slow_reader_at_work(self):
        ticks = self.www.processor_ticks()
        connection = self.connect(1)[0]
        connection.request("/large.bin", "Connection: close")
        got = 0
        for _ in range(15):
            time.sleep(0.1)
            got += len(connection.socket.recv(16384))
        # Waiting for a slow reader costs nothing.
        self.assertLess(self.www.processor_ticks() - ticks, 60)
        self.assertGreater(got, 0)
        connection.close()

    def test_peers_that_reset_at_every_point(self):
        request = REQUEST.replace(b"a.txt", b"large.bin")
        for cut in [*range(0, len(request) + 1), *[len(request)] * 20]:
            sock = socket.create_connection(("127.0.0.1", self.port))
            sock.send(request[:cut])
            if cut == len(request):
                sock.recv(random.choice((1, 100, 5000, 70000)))
            # A reset instead of an orderly end.
            sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            sock.close()
        self.assertEqual(rawhttp.get(self.port, "/a.txt").body, b"a")

    def test_random_bytes(self):
        random.seed(7)
        for _ in range(150):
            size = random.choice((1, 10, 200, 5000))
            data = bytes(random.choices(b"GETPOSHD /:.%\r\n\n\x00\xff HTTP/1.1" + bytes(range(256)), k=size))
            connection = self.connect(1)[0]
            try:
                connection.send(data)
            except OSError:
                pass
            connection.close()
        self.assertEqual(rawhttp.get(self.port, "/a.txt").body, b"a")

    def test_descriptors_run_out(self):
        """With no descriptor left for a file or a connection the server waits and goes on; it does not spin."""
        resource.prlimit(self.www.pid, resource.RLIMIT_NOFILE, (self.idle_descriptors + 40,) * 2)
        ticks = self.www.processor_ticks()
        connections = self.connect(60)
        for connection in connections:
            connection.send(b"GET /a.txt HTTP/1.1\r\n")
        time.sleep(1)
        self.assertLess(self.www.processor_ticks() - ticks, 60)
        for connection in connections:
            connection.close()
        harness.wait_until(lambda: self.served(), "the server to go on")

    def served(self):
        try:
            return rawhttp.get(self.port, "/a.txt").status == 200
        except (OSError, EOFError):
            return False


if __name__ == "__main__":
    unittest.main()
