"""What the programs tell of themselves: the counters of servers, the sessions of the tunnel, and the frames on the bus."""

import contextlib
import os
import socket
import ssl
import struct
import unittest

import forwarding
import harness
import rawhttp
import tarnbus
import tunnelbox
from tunnelbox import messages, tunnel

COUNTERS, SESSIONS, CONSOLE = 2, 3, 3
NAMES = ("accepted", "refused", "2xx", "3xx", "4xx", "5xx", "read", "written", "head", "body", "write", "pauses")
BIG = 24 << 20
ALL_RIGHTS = 0x43d0

DOCUMENT = ('<www><server name="http"><servlet type="jsproxy" path="/jsproxy"/>'
            '<servlet type="dir" path="/" root="/home/web"/></server>'
            '<server name="https" ssl="yes"><servlet type="dir" path="/" root="/home/web"/></server></www>')


class Client:
    """Connections that count the bytes which pass over them."""

    def __init__(self, connect):
        self.connect = connect
        self.sent = self.got = 0

    @contextlib.contextmanager
    def connection(self):
        with self.connect() as connection:
            send, read_more = connection.send, connection.read_more

            def counting_send(data):
                self.sent += len(data)
                send(data)

            def counting_read():
                before = len(connection.held)
                more = read_more()
                self.got += len(connection.held) - before
                return more
            connection.send, connection.read_more = counting_send, counting_read
            yield connection


class Counters(harness.SystemTest):
    documents = {"a.xml": DOCUMENT}
    web = {"a.txt": b"a", "large.bin": os.urandom(1 << 20), "big.bin": bytes(BIG)}

    def setUp(self):
        super().setUp()
        self.port = self.system.serve("http")
        self.bus = self.system.bus()
        self.www = self.system.bus_id("www")

    def whole(self):
        return self.bus.request([self.www, COUNTERS], tarnbus.GET).fields

    def server(self, name="http"):
        return next(entry for entry in self.whole()[("M", 1)] if entry[("s", 1)] == name)

    def counted(self, name="http"):
        entry = self.server(name)
        return {key: entry[("q", number)] for number, key in enumerate(NAMES, 5)}

    def expect(self, name="http", **values):
        """Counters are read until they are these, and those that are not named 0."""
        expected = {**dict.fromkeys(NAMES, 0), **values}
        with contextlib.suppress(AssertionError):
            harness.wait_until(lambda: self.counted(name) == expected, "the counters")
        self.assertEqual(self.counted(name), expected)

    def test_requests_and_bytes_add_up(self):
        client = Client(lambda: rawhttp.Connection.tcp(self.port))
        with client.connection() as connection:
            for _ in range(10):
                self.assertEqual(connection.get("/a.txt").body, b"a")
            for _ in range(3):
                self.assertEqual(len(connection.get("/large.bin").body), 1 << 20)
            self.assertEqual(connection.get("/large.bin", "Range: bytes=5-1000").status, 200)
            self.assertEqual(connection.get("/nothing").status, 404)
        with client.connection() as connection:
            connection.request("/a.txt", method="FOO")
            self.assertEqual(connection.read_response().status, 503)
        with client.connection() as connection:
            connection.request("/a.txt", version="HTTP/1.0")
            connection.read_to_end()
        self.expect(**{"accepted": 3, "2xx": 15, "4xx": 1, "5xx": 1, "read": client.sent, "written": client.got})
        entry = self.server()
        self.assertEqual((entry[("b", 2)], entry[("u", 3)], entry[("b", 4)], entry[("b", 0x12)]),
                         (True, self.port, False, True))
        harness.wait_until(lambda: self.server()[("u", 0x11)] == 0, "the connections to end")
        self.assertEqual(self.whole()[("u", 3)], 1000)

    def test_a_closed_server_keeps_its_counters(self):
        rawhttp.get(self.port, "/a.txt")
        self.system.send_record(tarnbus.record("http", self.port, disabled=True))
        entry = self.server()
        self.assertEqual((entry[("b", 2)], entry[("b", 0x12)], entry[("q", 5)]), (False, False, 1))
        # One that no record named yet.
        self.assertEqual(self.server("https")[("b", 0x12)], False)

    def test_peers_that_are_not_allowed(self):
        self.system.send_record(tarnbus.record("http", self.port, allowed=[{("u", 1): 0x01020304, ("u", 2): 0xffffffff}]))
        for _ in range(5):
            with rawhttp.Connection.tcp(self.port) as connection:
                self.assertEqual(connection.read_to_end(), b"")
        self.expect(refused=5)

    def test_a_server_of_the_local_listener(self):
        port = harness.free_port()
        self.system.send_record(tarnbus.record("forwarded", port), tarnbus.ADD_OBJ)
        client = Client(lambda: rawhttp.Connection.unix(port))
        with client.connection() as connection:
            connection.send(forwarding.header(self.system))
            connection.request("/", "Connection: close")
            # Nobody answers forwarded requests here.
            self.assertEqual(connection.read_response().status, 502)
        self.expect("forwarded", **{"accepted": 1, "5xx": 1, "read": client.sent, "written": client.got})
        self.expect("http")

    def test_bytes_of_https_are_those_without_tls(self):
        self.system.start("tlsd")
        self.system.bus_id("tlsd")
        port = self.system.serve("https", tls_ref=1)
        context = ssl.create_default_context(cafile=self.system.path("/rw/store/tls/certificate.pem"))

        def connect():
            plain = socket.create_connection(("127.0.0.1", port), timeout=rawhttp.TIMEOUT)
            return rawhttp.Connection(context.wrap_socket(plain, server_hostname="localhost"))
        client = Client(connect)
        with client.connection() as connection:
            self.assertEqual(connection.get("/a.txt").body, b"a")
            self.assertEqual(len(connection.get("/large.bin").body), 1 << 20)
        self.expect("https", **{"accepted": 1, "2xx": 2, "read": client.sent, "written": client.got})
        self.assertTrue(self.server("https")[("b", 4)])

    def test_time_runs_out_in_three_ways(self):
        with contextlib.ExitStack() as stack:
            def connect():
                return stack.enter_context(rawhttp.Connection.tcp(self.port))
            silent = connect()
            connect().send("GET /a.txt HT")
            connect().get("/a.txt")
            connect().send("POST /jsproxy HTTP/1.1\r\nHost: a\r\nContent-Length: 100\r\n\r\nhalf")
            slow = connect()
            slow.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
            slow.request("/big.bin")

            def timeouts():
                counted = self.counted()
                return [counted[key] for key in ("head", "body", "write")]
            with contextlib.suppress(AssertionError):
                harness.wait_until(lambda: timeouts() == [3, 1, 1], "the time-outs")
            self.assertEqual(timeouts(), [3, 1, 1])
            self.assertEqual(silent.read_to_end(), b"")
        counted = self.counted()
        self.assertEqual(counted["accepted"], 5)
        self.assertLess(counted["written"], BIG)

    def test_peers_that_leave_are_no_time_outs(self):
        for text in ("", "GET", "POST /jsproxy HTTP/1.1\r\nContent-Length: 100\r\n\r\nhalf"):
            with rawhttp.Connection.tcp(self.port) as connection:
                connection.send(text)
                connection.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        harness.wait_until(lambda: self.counted()["accepted"] == 3 and self.server()[("u", 0x11)] == 0, "all to end")
        self.assertEqual([self.counted()[key] for key in ("head", "body", "write")], [0, 0, 0])


class UserTest(tunnelbox.BoxTest):
    """Users of a login service whose names say what they may."""

    documents = {"a.xml": DOCUMENT}
    policies = {"manager": 0x200, "reader": 0x10, "admin": ALL_RIGHTS, "nobody": 0}

    def setUp(self):
        super().setUp()
        self.use_port(self.system.serve("http"))
        self.www = self.system.bus_id("www")
        self.login_service = self.service(tunnelbox.LOGIN_PROGRAM, self.log_user_in)

    def log_user_in(self, bus, message):
        user = message.fields.get(("s", 1), "")
        tunnelbox.check_password(bus, message, tunnelbox.grant(policies=self.policies.get(user, 0)))


class Sessions(UserTest):
    def listed(self, box):
        answer = box.call([self.www, SESSIONS], tarnbus.GET_ALL)
        return {entry[("u", 1)]: entry for entry in answer[("M", 1)]}

    def remove(self, box, number):
        return box.call([self.www, SESSIONS], tarnbus.REMOVE_OBJ, {("u", 0xfe0001): number})

    def test_who_sees_whom(self):
        self.meet()  # has not logged in
        reader, manager = self.log_in("reader"), self.log_in("manager", binary=True)
        seen = self.listed(manager)
        self.assertEqual(sorted(seen), [reader.id, manager.id])
        self.assertEqual((seen[reader.id][("s", 2)], seen[reader.id][("u", 6)]), ("reader", 0x10))
        self.assertEqual(bytes(seen[reader.id][("a", 3)]), forwarding.mapped("127.0.0.1"))
        self.assertEqual((bool(seen[reader.id][("b", 7)]), bool(seen[manager.id][("b", 7)])), (False, True))
        self.assertEqual(list(self.listed(reader)), [reader.id])
        self.assertTrue(self.listed(reader)[reader.id][("b", 7)])
        # A program of the system sees both, and none is its own.
        everything = self.system.bus().request([self.www, SESSIONS], tarnbus.GET_ALL).fields[("M", 1)]
        self.assertEqual([entry[("b", 7)] for entry in everything], [False, False])

    def test_a_session_is_ended(self):
        watcher = self.system.bus()
        watcher.join_group(tunnelbox.END_GROUP)
        reader, manager = self.log_in("reader"), self.log_in("manager")
        poll = self.park_poll(reader)
        self.remove(manager, reader.id)
        notice = watcher.receive()
        self.assertEqual((notice.command, notice.sender), (tunnelbox.END_OF_SESSION, [self.www, 100, reader.id]))
        self.assertEqual(poll.read_response().status, 410)
        with self.assertRaises(tunnel.SessionLost):
            reader.call([999])
        self.assertEqual(list(self.listed(manager)), [manager.id])
        with self.assertRaises(tunnel.ServiceError) as refused:
            self.remove(manager, reader.id)
        self.assertEqual(refused.exception.code, 0xfe0006)

    def test_whoever_may_not_ends_nobody(self):
        manager = self.log_in("manager")
        for name in ("reader", "nobody"):
            box = self.log_in(name)
            for fields in ({}, {messages.POLICIES: 0xffffffff, messages.USER: "root"},
                           {("U", 0xff0002): [self.www, 100, manager.id]}):
                answer = box.exchange({messages.DESTINATION: [self.www, SESSIONS], ("u", 0xff0007): tarnbus.REMOVE_OBJ,
                                       ("u", 0xfe0001): manager.id, **fields})
                self.assertEqual(tarnbus.error_of(answer), (0xfe0009, "not allowed"))
        self.assertIn(manager.id, self.listed(manager))

    def test_the_own_session_ends_by_this_too(self):
        box = self.log_in("reader")
        with self.assertRaises(tunnel.SessionLost):
            self.remove(box, box.id)
        self.assertEqual(self.listed(self.log_in("manager")).get(box.id), None)


class Console(UserTest):
    """The bus, as somebody with all rights sees it through the tunnel."""

    def setUp(self):
        super().setUp()
        self.system.start("sysd")
        self.system.bus_id("sysd")
        self.box = self.log_in("admin")
        self.after = 0

    def frames(self, box=None, **fields):
        names = {"after": ("q", 1), "most": ("u", 2), "program": ("u", 3), "containing": ("s", 4)}
        question = {names[key]: value for key, value in fields.items()}
        return (box or self.box).call([24, CONSOLE], tarnbus.GET_ALL, question)

    def await_frame(self, text, **fields):
        def look():
            return next((frame for frame in self.frames(**fields)[("M", 1)] if text in frame[("s", 7)]), None)
        return harness.wait_until(look, f"a frame with {text!r}")

    def test_frames_are_shown_while_somebody_looks(self):
        self.frames()
        sender, receiver = self.system.bus(), self.system.bus()
        sender.send([receiver.id, 5], 77, {("s", 1): "to be seen"})
        frame = self.await_frame("to be seen", program=receiver.id)
        self.assertEqual((frame[("u", 3)], frame[("u", 4)], frame[("u", 5)]), (sender.id, receiver.id, 0))
        self.assertEqual(frame[("s", 7)], "{Uff0001:[5],uff0007:77,s1:'to be seen'}")
        sender.send([9999, 5], 77, {("s", 1): "to nobody"})
        harness.wait_until(lambda: [f[("u", 5)] for f in self.frames(containing="to nobody")[("M", 1)]] == [0, 1],
                           "the frame and its way back")
        # Nothing of the asking itself.
        self.assertEqual(self.frames(program=24)[("M", 1)], [])

    def test_passwords_are_not_shown(self):
        self.frames()
        secret = tunnelbox.PASSWORD
        self.log_in("reader")
        self.await_frame("(not shown)", program=tunnelbox.LOGIN_PROGRAM)
        marker = self.system.bus()
        marker.send([9999], 77, {("s", 1): "marker"})
        self.await_frame("marker")
        shown = [frame[("s", 7)] for frame in self.frames(most=200)[("M", 1)]]
        self.assertEqual([text for text in shown if f"s3:'{secret}'" in text], [])
        # Question and answer of the login.
        self.assertEqual([frame[("s", 7)] for frame in self.frames(program=tunnelbox.LOGIN_PROGRAM)[("M", 1)]],
                         ["(not shown)", "(not shown)"])

    def test_it_needs_every_right(self):
        for name in ("manager", "reader", "nobody"):
            with self.assertRaises(tunnel.ServiceError) as refused:
                self.frames(self.log_in(name))
            self.assertEqual(refused.exception.code, 0xfe0009)


if __name__ == "__main__":
    unittest.main()
