"""Every system call of the server and of the broker fails, at each use of a fixed course of things.

Whatever fails: the program goes on, what comes afterwards is answered as ever, and no descriptor stays open. At its
start a program may end instead, and says why.

By default each use fails with one of the errors that its manual names, another one from use to use. With TARN_FAULTS=all
in the environment each fails with every one.
"""

import contextlib
import errno
import io
import os
import signal
import time
import unittest

import faultbox
import forwarding
import harness
import rawhttp
import tarnbus
import tunnelbox

EVERY_ERROR = os.environ.get("TARN_FAULTS") == "all"
EMULATED = "TARN_QEMU" in os.environ
# How long a client waits for an answer while a call fails: there may be none. Whatever else is asked gets its time.
IMPATIENCE = 1.5 if EMULATED else 0.3
# Uses of one call within one piece of the course that fail; a call that is used more often is used for the same again.
MOST_USES = 1000 if EVERY_ERROR else 1 if EMULATED else 4
# The same at the start, where each failure needs a start of its own.
MOST_USES_AT_START = 3 if EVERY_ERROR else 1
# Without these a program has no loop, and ends, which takes its time.
NEEDED = ("epoll_create1",)
# A failure that does not pass by itself.
LASTING = 1000
# Failures of a call that is expected to work: whatever they are, they are seen by whoever uses the program.
TROUBLES = (OSError, EOFError, ValueError, AssertionError, tarnbus.BusError, tunnelbox.tunnel.TunnelError)


class Calls:
    """What both programs are put through. A subclass says how it is begun, what the course is, and what has to be right
    afterwards."""

    calls = frozenset()  # without which there is no course, whatever arrives together: each has to have failed
    limit = harness.PATIENCE  # how long an answer is waited for now
    impatience = IMPATIENCE  # and while a call fails
    end_statuses = (0, 1)  # of a program that cannot start

    def every_fault(self):
        """Each piece of the course, with each of its calls failing at each of its uses, and then at all of them."""
        failed = set()
        for piece in self.course():
            self.lose_session()  # which is idle for as long as the piece before took
            piece()  # what happens once only is over
            before = self.faults.used()
            piece()
            uses = {name: count - before.get(name, 0) for name, count in self.faults.used().items()}
            for name, use, error, times in self.choices(uses):
                with self.subTest(piece=piece.__name__, call=name, use=use, error=error, times=times):
                    if self.one_fault(piece, name, use, error, times):
                        failed.add(name)
        for name in sorted(self.calls - failed):
            with self.subTest(call=name):
                harness.wait_until(lambda call=name: self.fails_somewhere(call), f"{name} to fail")

    def fails_somewhere(self, name):
        """Whether a call fails that fails in all of the course. Each piece is done twice, since a call may come after the
        answer: it has come before the next one."""
        for piece in self.course():
            def twice(piece=piece):
                self.works(piece)
                piece()
            if self.one_fault(twice, name, 1, faultbox.ERRORS[name][0], LASTING):
                return True
        return False

    @staticmethod
    def choices(uses):
        turn = 0
        for name, count in sorted(uses.items()):
            errors = faultbox.ERRORS[name]
            for use in range(1, min(count, MOST_USES) + 1):
                for error in errors if EVERY_ERROR else (errors[turn % len(errors)],):
                    yield name, use, error, 1
                turn += 1
            if count:
                yield name, 1, errors[turn % len(errors)], LASTING

    def one_fault(self, piece, name, use, error, times):
        """A piece while a call fails, and what has to be right afterwards; how often it has failed."""
        self.limit = self.impatience
        self.faults.arm(name, error, use, times)
        try:
            piece()
        except TROUBLES:
            self.lose_session()
        failed = self.faults.disarm()
        self.limit = harness.PATIENCE
        self.assertFalse(self.program().ended(), f"it has ended: {self.program().log_path.read_text()[-2000:]}")
        self.recovered()
        try:
            self.are_closed()
        except AssertionError as trouble:
            raise AssertionError(f"{trouble}: {self.held()}") from None
        return failed

    def are_closed(self):
        harness.wait_until(lambda: self.program().descriptors() <= self.idle_descriptors, "descriptors to be closed")

    def comes_back(self, piece, what):
        """Waits until a piece works again. What was cut off may leave a question without an answer, so it is asked anew,
        and the answer waited for twice as long."""
        self.limit = self.impatience
        troubles = []

        def works():
            try:
                piece()
                return True
            except TROUBLES as trouble:
                troubles.append(trouble)
                if isinstance(trouble, TimeoutError):
                    self.limit = min(2 * self.limit, harness.PATIENCE)
            self.lose_session()
            return False
        try:
            harness.wait_until(works, what)
        except AssertionError as timeout:
            raise timeout from troubles[-1]
        self.limit = harness.PATIENCE

    @staticmethod
    def works(piece):
        try:
            piece()
        except TROUBLES:
            return False
        return True

    def held(self):
        folder = f"/proc/{self.program().pid}/fd"
        found = []
        for number in os.listdir(folder):
            try:
                found.append(os.readlink(f"{folder}/{number}"))
            except OSError:
                pass
        return sorted(found)

    def every_fault_at_the_start(self, name):
        """The program is started with each of its first calls failing, once or all the time."""
        ended = 0
        for call, use, error, times in self.choices({call: min(n, MOST_USES_AT_START) for call, n in self.faults.used().items()}):
            with self.subTest(call=call, use=use, error=error, times=times):
                self.faults.forget_uses()
                self.faults.arm(call, error, use, times)
                self.system.programs[name] = program = harness.Program(self.system, name)
                must_end = call in NEEDED
                try:
                    harness.wait_until(lambda: program.ended() or (not must_end and self.started(program)),
                                       f"{name} to start or to end")
                finally:
                    self.faults.disarm()
                if program.ended():
                    ended += 1
                    self.system.programs.pop(name)
                    log = program.log_path.read_text()
                    self.assertIn(program.wait(), self.end_statuses, log)
                    self.assertRegex(log, os.strerror(getattr(errno, error)) + "|another broker serves")
                else:
                    try:
                        self.recovered_from_start(name)
                    finally:
                        self.end(name, may_be_cut_off=call in ("signalfd", "ioctl", "epoll_ctl"))
                program.log_path.unlink()
        self.assertGreater(ended, 0)

    def end(self, name, may_be_cut_off):
        """A program that could not have itself told that it is to end is ended by the signal."""
        program = self.system.programs.pop(name)
        program.signal(signal.SIGTERM)
        self.assertIn(program.wait(), (0, 128 + signal.SIGTERM) if may_be_cut_off else (0,))


class Server(Calls, tunnelbox.BoxTest):
    calls = frozenset(("read", "write", "send", "sendmsg", "recvmsg", "sendfile", "accept4", "epoll_ctl", "epoll_wait", "open",
                       "fstat", "stat", "lstat", "socket", "bind", "listen", "setsockopt", "getsockopt", "getsockname",
                       "getpeername", "fcntl", "ioctl", "opendir", "readdir", "mkdir"))
    documents = {"a.xml": '<www><server name="http"><servlet type="jsproxy" path="/jsproxy"/>'
                          '<servlet type="remote" path="/remote" target="200,1"/>'
                          '<servlet type="dir" path="/" root="/home/web"/></server></www>'}
    web = {"a.txt": b"a", "large.bin": bytes(300000), "folder/index.html": b"i", "small.gz": b"x"}

    def setUp(self):
        super().setUp()
        self.faults = faultbox.Faults(self.system, "www")
        self.system.start("busd")
        self.other_port = harness.free_port()

    def begin(self):
        self.use_port(self.system.serve("http"))
        self.start_login_service()
        answerer = forwarding.Answerer(self.system, lambda _: {forwarding.BODY: "remote"}, id=200)
        self.addCleanup(answerer.close)
        self.bus = self.system.bus()
        self.www = self.system.bus_id("www")
        self.box = None
        self.send_record("guests", self.other_port, tarnbus.ADD_OBJ)
        for piece in self.course():
            piece()
        self.idle_descriptors = self.program().descriptors() + 1  # a client's end may be seen a little later

    def program(self):
        return self.system.programs["www"]

    def course(self):
        return [self.kept_alive, self.large_file, self.odd_requests, self.local_listener, self.forwarded,
                self.records, self.tunnel, self.files]

    def tcp(self):
        return self.limited(rawhttp.Connection.tcp(self.port))

    def limited(self, connection):
        connection.socket.settimeout(self.limit)
        return connection

    def kept_alive(self):
        with self.tcp() as connection:
            for _ in range(2):
                self.assertEqual(connection.get("/a.txt").body, b"a")

    def large_file(self):
        with self.tcp() as connection:
            self.assertEqual(len(connection.get("/large.bin").body), 300000)
            self.assertEqual(len(connection.get("/large.bin", "Range: bytes=0-9").body), 10)

    def odd_requests(self):
        with self.tcp() as connection:
            self.assertEqual(connection.get("/none").status, 404)
            self.assertEqual(connection.get("/folder/").body, b"i")
            connection.request("/a.txt", method="POST", body=b"body")
            self.assertEqual(connection.read_response().status, 405)
        with self.tcp() as connection:
            connection.send("nonsense\r\n\r\n")
            self.assertEqual(connection.read_response().status, 400)

    def local_listener(self):
        with self.limited(rawhttp.Connection.unix(self.other_port)) as connection:
            connection.send(forwarding.header(self.system))
            self.assertEqual(connection.get("/").status, 502)

    def forwarded(self):
        with self.tcp() as connection:
            self.assertEqual(connection.get("/remote/x").body, b"remote")
            connection.request("/remote/x", method="POST", body=b"body")
            self.assertEqual(connection.read_response().body, b"remote")

    def records(self):
        self.send_record("guests", self.other_port, tarnbus.ADD_OBJ)

    def tunnel(self):
        self.session().call([tunnelbox.LOGIN_PROGRAM, 9], None, {("s", 3): tunnelbox.PASSWORD})

    def files(self):
        box = self.session()
        box.put("stored", io.BytesIO(b"content"), 7)
        box.upload("uploaded", io.BytesIO(bytes(9000)), 9000)
        out = io.BytesIO()
        box.get("stored", out)
        self.assertEqual(out.getvalue(), b"content")

    def session(self):
        """The session of the test, a new one where the last was lost."""
        if self.box is None:
            box = tunnelbox.tunnel.Tunnel(self.url, timeout=self.limit)
            box.connect()
            box.log_in("admin", tunnelbox.PASSWORD)
            self.box = box
        self.box.timeout = self.limit
        return self.box

    def lose_session(self):
        if self.box is not None:
            self.box.close()
        self.box = None

    def start_login_service(self):
        def behave(bus, message):
            tunnelbox.check_password(bus, message, tunnelbox.grant(0xffff))
        self.login_service = self.service(tunnelbox.LOGIN_PROGRAM, behave)

    def send_record(self, name, port, command):
        self.bus.timeout = self.limit
        reply = self.bus.request([self.www, 1], command, tarnbus.record(name, port))
        self.assertFalse(tarnbus.is_error(reply), reply)

    def recovered(self):
        """A page at the least, and whatever else was cut off comes back."""
        self.comes_back(self.kept_alive, "pages to be served")
        self.comes_back(self.bus_works, "the server to be on the bus")

    def bus_works(self):
        if self.www not in [number for number, _ in self.bus.list()]:
            self.www = self.system.bus_id("www")
        self.send_record("guests", self.other_port, tarnbus.ADD_OBJ)

    def test_while_it_serves(self):
        self.begin()
        self.every_fault()

    def started(self, program):
        """Whether it has got as far as it gets by itself: it turns its loop, and has had time for the bus."""
        if not self.faults.used().get("epoll_wait", 0):
            return False
        time.sleep(0.05)
        return True

    def recovered_from_start(self, name):
        reply = self.system.send_record(tarnbus.record("http", self.port))
        if tarnbus.is_error(reply):
            # A document that could not be read is told, and its servers are not there.
            self.assertEqual(tarnbus.error_of(reply)[1], "no such service")
            harness.wait_until(lambda: any(line.startswith("configuration: ") for line in self.system.lines(name)),
                               "the document that could not be read to be told")
        else:
            self.recovered()

    def test_at_its_start(self):
        self.begin()
        self.system.stop("www")
        self.every_fault_at_the_start("www")

    def test_a_listener_that_cannot_be_watched_again(self):
        """There is no descriptor for a connection, and when the pause ends, no memory to go on listening."""
        self.begin()
        # The first use takes the listener off the list, those that follow put it back.
        for use, times in ((1, 1), (2, 1), (2, 5)):
            with self.subTest(use=use, times=times):
                self.faults.arm("accept4", "EMFILE", then=("epoll_ctl", "ENOMEM", use, times))
                with rawhttp.Connection.tcp(self.port) as connection:
                    self.assertEqual(connection.get("/a.txt").body, b"a")
                self.assertEqual(self.faults.failed(1), times)
                self.faults.disarm()


class Broker(Calls, harness.SystemTest):
    calls = frozenset(("write", "send", "sendmsg", "recvmsg", "accept4", "epoll_ctl", "epoll_wait", "setsockopt", "getsockopt"))

    def setUp(self):
        super().setUp()
        self.faults = faultbox.Faults(self.system, "busd")
        self.first = self.second = None

    def begin(self):
        self.system.start("busd")
        for piece in self.course():
            piece()
        self.lose_session()
        harness.wait_until(lambda: self.program().descriptors() < 9, "the programs of the test to have left")
        self.idle_descriptors = self.program().descriptors()

    def program(self):
        return self.system.programs["busd"]

    def course(self):
        return [self.joining, self.small_messages, self.large_message, self.descriptors, self.group, self.slow_reader]

    def client(self, **keywords):
        return tarnbus.Client(str(self.system.bus_path), timeout=self.limit, **keywords)

    @contextlib.contextmanager
    def pair(self):
        with self.client() as first, self.client() as second:
            yield first, second

    def joining(self):
        with self.client(name="one") as client:
            self.assertIn((client.id, "one"), client.list())
            client.control(tarnbus.STATISTICS)
        with self.client(id=77), self.assertRaises(tarnbus.BusError):
            self.client(id=77)

    def small_messages(self):
        with self.pair() as (first, second):
            for number in range(3):
                first.send([second.id, 1], 5, {("u", 1): number})
                self.assertEqual(second.receive().fields[("u", 1)], number)
            first.send([4242], 5)
            self.assertEqual(first.receive().kind, tarnbus.BOUNCED)

    def large_message(self):
        with self.pair() as (first, second):
            fields = {("r", number): bytes(60000) for number in range(6)}
            first.send([second.id, 1], 5, fields)
            self.assertEqual(second.receive().fields[("r", 5)], bytes(60000))

    def descriptors(self):
        with self.pair() as (first, second):
            ends = os.pipe()
            try:
                first.send([second.id, 1], 5, fd=ends[0])
                os.close(second.receive().fd)
                first.send([4242, 1], 5, fd=ends[0])
                self.assertEqual(first.receive().kind, tarnbus.BOUNCED)
            finally:
                for end in ends:
                    os.close(end)

    def group(self):
        with self.pair() as (first, second):
            second.join_group(0xff0001)
            first.send([0xff0001], 5)
            self.assertEqual(second.receive().command, 5)

    def slow_reader(self):
        """More than a socket holds waits for whoever does not read, and goes on when it does."""
        with self.pair() as (first, second):
            for _ in range(4):
                first.send([second.id, 1], 5, {("r", number): bytes(60000) for number in range(4)})
            first.list()
            for _ in range(4):
                self.assertEqual(second.receive().command, 5)

    def lose_session(self):
        pass

    def recovered(self):
        self.comes_back(self.small_messages, "messages to be carried")

    def test_while_it_carries(self):
        self.begin()
        self.every_fault()

    def started(self, program):
        return self.faults.used().get("epoll_wait", 0) > 0

    def recovered_from_start(self, _):
        self.recovered()

    def test_a_listener_that_cannot_be_watched_again(self):
        self.begin()
        for use, times in ((1, 1), (2, 1), (2, 3)):
            with self.subTest(use=use, times=times):
                self.faults.arm("accept4", "EMFILE", then=("epoll_ctl", "ENOMEM", use, times))
                with tarnbus.Client(str(self.system.bus_path)):
                    pass
                self.assertEqual(self.faults.failed(1), times)
                self.faults.disarm()

    def test_at_its_start(self):
        self.begin()
        self.system.stop("busd")
        self.every_fault_at_the_start("busd")


if __name__ == "__main__":
    unittest.main()
